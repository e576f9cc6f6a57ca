# SPDX-License-Identifier: Apache-2.0
# Run by cpack on the staged files: it strips programs and shared libraries only.
file(GLOB_RECURSE archives ${CPACK_TEMPORARY_INSTALL_DIRECTORY}/*.a)
foreach(archive IN LISTS archives)
    execute_process(COMMAND strip --strip-debug ${archive} COMMAND_ERROR_IS_FATAL ANY)
endforeach()
