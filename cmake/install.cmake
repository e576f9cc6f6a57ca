# SPDX-License-Identifier: Apache-2.0
# What `cmake --install` puts where, and what `cpack` makes of it: a runtime package and a -dev
# package.
include(CMakePackageConfigHelpers)

install(TARGETS qrn_shared EXPORT qrn
    LIBRARY COMPONENT runtime NAMELINK_COMPONENT dev)
install(TARGETS qrn_static EXPORT qrn ARCHIVE COMPONENT dev)
install(FILES ${QRN_PUBLIC_HEADERS} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/qrn COMPONENT dev)

set(QRN_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/qrn)
install(EXPORT qrn NAMESPACE qrn:: FILE qrnTargets.cmake DESTINATION ${QRN_CMAKE_DIR} COMPONENT dev)
configure_package_config_file(packaging/qrnConfig.cmake.in qrnConfig.cmake
    INSTALL_DESTINATION ${QRN_CMAKE_DIR} NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file(qrnConfigVersion.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/qrnConfig.cmake ${PROJECT_BINARY_DIR}/qrnConfigVersion.cmake
    DESTINATION ${QRN_CMAKE_DIR} COMPONENT dev)

# The prefix is found from where the file lies, so that an installed tree may be moved.
file(RELATIVE_PATH QRN_PC_PREFIX /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
string(REGEX REPLACE "/$" "" QRN_PC_PREFIX "${QRN_PC_PREFIX}")
configure_file(packaging/qrn.pc.in qrn.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/qrn.pc
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)

if(QRN_BUILD_MAN)
    find_package(Doxygen REQUIRED)
    set(pages ${PROJECT_BINARY_DIR}/reference)
    # Doxygen makes a page for each field too; only the library's own names become commands.
    add_custom_command(OUTPUT ${pages}/man/man3/qrn.h.3.gz
        COMMAND ${CMAKE_COMMAND} -E rm -rf ${pages}
        COMMAND ${CMAKE_COMMAND} -E make_directory ${pages}
        COMMAND ${CMAKE_COMMAND} -E env QRN_DOCS=${pages} QRN_VERSION=${PROJECT_VERSION}
            $<TARGET_FILE:Doxygen::doxygen> docs/Doxyfile
        COMMAND find ${pages}/man/man3 -type f ! -name "qrn*" ! -name "QRN*" -delete
        COMMAND find ${pages}/man/man3 -type f -exec gzip -9 -n {} +
        DEPENDS ${QRN_PUBLIC_HEADERS} docs/Doxyfile docs/guarantees.md
        WORKING_DIRECTORY ${PROJECT_SOURCE_DIR} VERBATIM)
    add_custom_target(qrn_man ALL DEPENDS ${pages}/man/man3/qrn.h.3.gz)
    install(DIRECTORY ${pages}/man/man3 DESTINATION ${CMAKE_INSTALL_MANDIR} COMPONENT dev)
endif()
