#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Compares the binary interface of the shared library with the reference in abi/. Any difference
# fails: an intended one is accepted by making a new reference, in the same commit.
#
# usage: scripts/abi.sh [--update]
set -euo pipefail
cd "$(dirname "$0")/.."

./scripts/setup.sh build test package
reference=abi/libqrn.abi
build=build/release
cmake --preset release >/dev/null
cmake --build --preset release --parallel "$(nproc)" --target qrn_shared >/dev/null

# Only what public headers declare is part of the interface.
mkdir -p $build/abi
cp src/lib/qrn/qrn.h $build/abi
describe=(abidw --headers-dir "$build/abi" --drop-private-types --exported-interfaces-only
    --no-architecture --no-elf-needed --no-comp-dir-path --no-corpus-path --no-show-locs)
if [ "${1:-}" = --update ]; then
    "${describe[@]}" --out-file $reference $build/src/libqrn.so
    exit
fi
"${describe[@]}" --out-file $build/abi/libqrn.abi $build/src/libqrn.so
abidiff $reference $build/abi/libqrn.abi || {
    echo "abi: the interface differs from $reference; if that is intended: scripts/abi.sh --update" >&2
    exit 1
}
