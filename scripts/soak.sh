#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Runs qrnsoak for a number of minutes, with a progress line for each round: built as for release, or as
# the preset given (asan, tsan).
#
# usage: scripts/soak.sh [MINUTES [PRESET [SEED]]]      (default: 5 release)
set -euo pipefail
cd "$(dirname "$0")/.."

minutes=${1:-5} preset=${2:-release}

./scripts/setup.sh build test
cmake --preset "$preset" >/dev/null
cmake --build --preset "$preset" --parallel "$(nproc)" --target qrnsoak
aslr=()
if [ "$preset" = tsan ] && setarch -R true 2>/dev/null; then
    aslr=(setarch -R)
fi
exec "${aslr[@]}" "build/$preset/tools/qrnsoak" $((minutes * 60)) ${3:+"$3"}
