# SPDX-License-Identifier: Apache-2.0

# Writes a version script that exports what the given headers declare as QRN_API, and nothing else.
function(qrn_write_version_script script node)
    set(names)
    foreach(header IN LISTS ARGN)
        set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${header})
        file(READ ${header} text)
        string(REGEX REPLACE "#define QRN_API[^\n]*" "" text "${text}")
        string(REGEX MATCHALL "QRN_API[^;{]*" declarations "${text}")
        foreach(declaration IN LISTS declarations)
            string(REGEX MATCH "([A-Za-z0-9_]+)[ \n]*[[(]" found "${declaration}")
            list(APPEND names ${CMAKE_MATCH_1})
        endforeach()
    endforeach()
    list(SORT names)
    list(JOIN names ";\n        " lines)
    file(CONFIGURE OUTPUT ${script}
        CONTENT "${node} {\n    global:\n        ${lines};\n    local: *;\n};\n")
endfunction()
