# SPDX-License-Identifier: Apache-2.0
# The Debian packages that cpack makes: libqrn0 to run programs, libqrn-dev to build them.
set(QRN_MAINTAINER "qrn maintainers <maintainers@qrn.example>" CACHE STRING "Contact in the packages")
set(QRN_RUNTIME_PACKAGE libqrn${PROJECT_VERSION_MAJOR})

configure_file(packaging/changelog.in changelog @ONLY)
execute_process(COMMAND gzip -9 -n -f -k ${PROJECT_BINARY_DIR}/changelog COMMAND_ERROR_IS_FATAL ANY)
foreach(component runtime dev)
    if(component STREQUAL runtime)
        set(package ${QRN_RUNTIME_PACKAGE})
    else()
        set(package libqrn-dev)
    endif()
    install(FILES packaging/copyright ${PROJECT_BINARY_DIR}/changelog.gz
        DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${package} COMPONENT ${component})
endforeach()

file(CONFIGURE OUTPUT shlibs CONTENT
    "libqrn ${PROJECT_VERSION_MAJOR} ${QRN_RUNTIME_PACKAGE} (>= ${PROJECT_VERSION})\n")
set(CPACK_GENERATOR DEB)
set(CPACK_VERBATIM_VARIABLES ON)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/packaging/strip.cmake)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_COMPONENTS_ALL runtime dev)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "${QRN_MAINTAINER}")

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ${QRN_RUNTIME_PACKAGE})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA
    ${PROJECT_SOURCE_DIR}/packaging/triggers ${PROJECT_BINARY_DIR}/shlibs)
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "Library threads put typed events on a queue; threads of the application take
them off in order and run their callbacks. This package runs programs that
use the library.")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME libqrn-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "${QRN_RUNTIME_PACKAGE} (= ${PROJECT_VERSION})")
set(CPACK_COMPONENT_DEV_DESCRIPTION "Library threads put typed events on a queue; threads of the application take
them off in order and run their callbacks. This package has what is needed to
build programs that use the library: headers, static library, manual pages.")
include(CPack)
