#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Builds the consumer project against the qrn installed under PREFIX and runs what it built: in C and
# C++, shared and static, by CMake and by pkg-config. Builds in WORK.
#
# usage: tests/consumer/run.sh PREFIX WORK
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
prefix=$(cd "$1" && pwd)
mkdir -p "$2"
work=$(cd "$2" && pwd)

libdir=$(dirname "$(find "$prefix" -name libqrn.so)")
export PKG_CONFIG_PATH=$libdir/pkgconfig LD_LIBRARY_PATH=$libdir

cmake -S "$here" -B "$work/cmake" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/cmake" >/dev/null

mkdir -p "$work/pkg-config"
# pkg-config's answers are lists of words.
# shellcheck disable=SC2046
for language in c cpp; do
    case $language in
        c) compile=(gcc -std=c11) ;;
        cpp) compile=(g++ -std=c++20) ;;
    esac
    "${compile[@]}" "$here/consumer.$language" -o "$work/pkg-config/${language}_shared" \
        $(pkg-config --cflags --libs qrn)
    "${compile[@]}" "$here/consumer.$language" -o "$work/pkg-config/${language}_static" \
        -static $(pkg-config --static --cflags --libs qrn)
done

for program in "$work"/{cmake,pkg-config}/{c,cpp}_{shared,static}; do
    "$program" || { echo "consumer: $program returned $?" >&2; exit 1; }
done
for program in "$work"/{cmake,pkg-config}/{c,cpp}_shared; do
    readelf -d "$program" | grep -q 'NEEDED.*libqrn\.so\.' ||
        { echo "consumer: $program does not use the shared library" >&2; exit 1; }
done
for program in "$work"/{cmake,pkg-config}/{c,cpp}_static; do
    ! readelf -d "$program" | grep -q libqrn ||
        { echo "consumer: $program uses the shared library" >&2; exit 1; }
done
echo "consumer: 8 programs built and run"
