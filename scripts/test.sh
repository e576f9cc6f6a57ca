#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Builds and tests the given presets; without one, the release preset and every check of check.sh.
# A fresh clone is enough: what is missing gets installed.
#
# usage: scripts/test.sh [release|debug|asan|tsan|clang]...
set -euo pipefail
cd "$(dirname "$0")/.."

./scripts/setup.sh build test

if command -v ccache >/dev/null; then
    export CMAKE_C_COMPILER_LAUNCHER=ccache CMAKE_CXX_COMPILER_LAUNCHER=ccache
fi

# The thread sanitizer cannot map its shadow where addresses are strongly randomised.
run_ctest() {
    local plain=()
    if [ "$1" = tsan ] && setarch -R true 2>/dev/null; then
        plain=(setarch -R)
    fi
    "${plain[@]}" ctest --preset "$1" --output-on-failure --parallel "$(nproc)"
}

test_preset() {
    echo "== $1: configure, build, test"
    cmake --preset "$1" >/dev/null
    cmake --build --preset "$1" --parallel "$(nproc)"
    run_ctest "$1"
}

for preset in "${@:-release}"; do
    test_preset "$preset"
done
if [ $# -eq 0 ]; then
    ./scripts/check.sh
fi
echo "test: passed (${*:-release, checks})"
