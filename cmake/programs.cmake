# SPDX-License-Identifier: Apache-2.0

# One program a source file of this folder that matches `pattern`; every program links the further
# arguments. Stores the programs' names in `result`.
function(qrn_add_programs result pattern)
    set(names)
    file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/${pattern})
    foreach(source IN LISTS sources)
        cmake_path(GET source STEM name)
        add_executable(${name} ${source})
        target_link_libraries(${name} PRIVATE ${ARGN} qrn_flags)
        list(APPEND names ${name})
    endforeach()
    set(${result} ${names} PARENT_SCOPE)
endfunction()
