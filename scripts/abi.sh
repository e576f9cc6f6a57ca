#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Compares the binary interface of the shared library with the reference in abi/. Any difference
# fails: an intended one is accepted by making a new reference, in the same commit.
#
# usage: scripts/abi.sh [--update]
set -euo pipefail
cd "$(dirname "$0")/.."

./scripts/setup.sh build package
reference=abi/libqrn.abi
build=build/abi

# The description is made from debug information, so the build type is fixed here.
cmake -S . -B $build -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_COMPILER=g++ \
    -DBUILD_TESTING=OFF -DQRN_BUILD_TOOLS=OFF -DQRN_BUILD_EXAMPLES=OFF >/dev/null
cmake --build $build --parallel "$(nproc)" --target qrn_shared >/dev/null

# Only what public headers declare is part of the interface.
mkdir -p $build/include
cp src/lib/qrn/qrn.h $build/include
describe=(abidw --headers-dir "$build/include" --drop-private-types --exported-interfaces-only
    --no-architecture --no-elf-needed --no-comp-dir-path --no-corpus-path --no-show-locs)
if [ "${1:-}" = --update ]; then
    "${describe[@]}" --out-file $reference $build/src/libqrn.so
    exit
fi
"${describe[@]}" --out-file $build/libqrn.abi $build/src/libqrn.so
abidiff $reference $build/libqrn.abi || {
    echo "abi: the interface differs from $reference; if that is intended: scripts/abi.sh --update" >&2
    exit 1
}
