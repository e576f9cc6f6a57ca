# SPDX-License-Identifier: Apache-2.0
# How everything in this tree is compiled: link to qrn_flags privately.

add_library(qrn_flags INTERFACE)
target_compile_features(qrn_flags INTERFACE c_std_11 cxx_std_20)
target_compile_options(qrn_flags INTERFACE
    -Wall -Wextra -Wpedantic -Wshadow -Wconversion
    $<$<BOOL:${QRN_WERROR}>:-Werror>
    # No path of the machine that builds gets into a binary.
    -ffile-prefix-map=${PROJECT_BINARY_DIR}=build
    -ffile-prefix-map=${PROJECT_SOURCE_DIR}=.)
if(QRN_SANITIZE)
    target_compile_options(qrn_flags INTERFACE
        -fsanitize=${QRN_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
    target_link_options(qrn_flags INTERFACE -fsanitize=${QRN_SANITIZE})
endif()

# What the library itself, its tests and its tools see beyond the public header.
set(QRN_INTERNAL_INCLUDES ${PROJECT_SOURCE_DIR}/src/lib/qrn ${PROJECT_SOURCE_DIR}/src/mon/qrn)
