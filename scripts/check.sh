#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# The checks beyond the tests; each name below is one. clang-tidy needs a configured release preset.
#
# usage: scripts/check.sh [CHECK]...      (default: all)
set -euo pipefail
cd "$(dirname "$0")/.."

all=(headers library probes readme clang fuzz format tidy shell docs package abi watch)
strict=(-Wall -Wextra -Wpedantic -Wshadow -Wconversion -Werror -Isrc/lib/qrn -Isrc/mon/qrn)

# Each header compiles on its own and twice in a row: as C++20, and as C11 where it is C.
check_headers() {
    local header
    for header in src/lib/qrn/*.h src/lib/qrn/*.hpp src/mon/qrn/*.h; do
        [ -e "$header" ] || continue
        printf '#include "%s"\n' "$PWD/$header" "$PWD/$header" >build/alone.cpp
        g++ -std=c++20 "${strict[@]}" -fsyntax-only build/alone.cpp
        clang++ -std=c++20 "${strict[@]}" -fsyntax-only build/alone.cpp
        if grep -q 'extern "C" {' "$header"; then
            cp build/alone.cpp build/alone.c
            gcc -std=c11 "${strict[@]}" -fsyntax-only build/alone.c
            clang -std=c11 "${strict[@]}" -fsyntax-only build/alone.c
        fi
    done
}

# A build without tests makes both libraries. A C11 program that includes only the public header runs
# with either. The shared library exports nothing but the public interface, and no binary holds a
# path of this machine.
check_library() {
    local out=build/library
    cmake -S . -B $out -DBUILD_TESTING=OFF >/dev/null
    cmake --build $out --parallel "$(nproc)" >/dev/null
    local compile=(gcc -std=c11 "${strict[@]:0:6}" -Isrc/lib/qrn examples/c_callbacks.c)
    "${compile[@]}" $out/src/libqrn.a -lstdc++ -lpthread -o $out/with_static
    "${compile[@]}" -L$out/src -Wl,-rpath,"$PWD/$out/src" -lqrn -lpthread -o $out/with_shared
    $out/with_static >/dev/null
    $out/with_shared >/dev/null
    if nm -D --defined-only --format=just-symbols $out/src/libqrn.so |
        grep -v -e '^qrn_' -e '^kfx_set_log_sink@' -e '^QRN_[0-9]*$'; then
        echo "check: the shared library exports the symbols above" >&2
        return 1
    fi
    if grep -l --binary-files=text -F "$PWD" $out/src/libqrn.a $out/src/libqrn.so; then
        echo "check: the files above hold a path of this machine" >&2
        return 1
    fi
}

# A build with probes has a note of each in the shared library; the default build, of `library`, has none.
check_probes() {
    local out=build/probes names
    cmake -S . -B $out -DBUILD_TESTING=OFF -DQRN_PROBES=ON >/dev/null
    cmake --build $out --parallel "$(nproc)" --target qrn_shared >/dev/null
    names=$(readelf -n $out/src/libqrn.so | sed -nE 's/^ +Name: //p' | sort -u | paste -sd' ')
    [ "$names" = "cancelled delivered enqueue purged take" ] ||
        { echo "check: a library with probes has the notes: $names" >&2; return 1; }
    ! readelf -n build/library/src/libqrn.so | grep Provider ||
        { echo "check: a library without probes has notes" >&2; return 1; }
}

# The examples in the README compile and run. Needs `library`.
check_readme() {
    local language
    for language in c cpp; do
        awk -v "start=^\`\`\`$language\$" '$0 ~ start { inside = 1; next } /^```$/ { inside = 0 } inside' \
            README.md >build/readme.$language
    done
    gcc -std=c11 "${strict[@]}" build/readme.c build/library/src/libqrn.a -lstdc++ -lpthread -o build/readme
    [ "$(build/readme)" = "hello, world" ]
    g++ -std=c++20 "${strict[@]}" build/readme.cpp build/library/src/libqrn.a -lpthread -o build/readme
    [ "$(build/readme)" = "hello, world" ]
}

# Everything compiles under clang too.
check_clang() {
    cmake --preset clang >/dev/null
    cmake --build --preset clang --parallel "$(nproc)"
}

# A minute of fuzzing finds nothing new.
check_fuzz() {
    cmake --preset fuzz >/dev/null
    cmake --build --preset fuzz --parallel "$(nproc)" --target fuzz >build/fuzz.log 2>&1 ||
        { tail -n 50 build/fuzz.log >&2; return 1; }
}

check_format() {
    git ls-files -z '*.c' '*.cpp' '*.h' '*.hpp' | xargs -0 clang-format --dry-run -Werror
}

check_tidy() {
    git ls-files -z 'src/*.cpp' 'tools/*.cpp' |
        xargs -0 -n 1 -P "$(nproc)" clang-tidy --quiet -p build/release 2>build/tidy.log ||
        { cat build/tidy.log >&2; return 1; }
}

# Every script parses and is strict.
check_shell() {
    local script
    for script in scripts/*.sh tests/*.sh tests/*/*.sh .ci/run; do
        bash -n "$script"
        grep -q '^set -euo pipefail$' "$script" || { echo "check: $script is not strict" >&2; return 1; }
    done
    shellcheck scripts/*.sh tests/*.sh tests/*/*.sh .ci/run
}

check_docs() {
    ./scripts/docs.sh
}

check_package() {
    ./scripts/package.sh
}

check_abi() {
    ./scripts/abi.sh
}

# A load is watched for some seconds, with the records and the picture that this leaves.
check_watch() {
    ./scripts/watch.sh build/watch.png
}

mkdir -p build
[ $# -gt 0 ] || set -- "${all[@]}"
for name in "$@"; do
    echo "== check $name"
    "check_$name"
done
