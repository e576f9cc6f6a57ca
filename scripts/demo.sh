#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Replays a generated sample through two dispatching threads, from a file and over UDP on the loopback
# address: exact and wildcard receivers, bundles, timers, one deletion in mid-stream. Checks the
# counts against those of the sample.
#
# usage: scripts/demo.sh
set -euo pipefail
cd "$(dirname "$0")/.."

./scripts/setup.sh build
build=build/library
cmake -S . -B $build -DBUILD_TESTING=OFF >/dev/null
cmake --build $build --parallel "$(nproc)" --target qrnfeed qrngen >/dev/null

work=$(mktemp -d)
feeder=
trap '[ -z "$feeder" ] || kill "$feeder" 2>/dev/null || true; rm -rf "$work"' EXIT
sample=$work/sample
lines=20000 seed=7
$build/tools/qrngen --lines $lines --seed $seed >"$sample"
malformed=$(awk -F'\t' 'NF < 2 || $1 == "" { n++ } END { print n + 0 }' "$sample")
echo "sample: $lines lines, $malformed of them malformed"

feed=("$build/tools/qrnfeed" --dispatchers 2 --receive orders.new --receive orders.fill
    --match 'quotes.*' --delete orders.fill@1000 --option queue_cancellation_callbacks_enabled=1)

# Compares what a run printed with the sample. Datagrams that a busy machine dropped were never read.
check() {
    local counts dropped
    dropped=$(sed -nE 's/.*; ([0-9]+) datagrams dropped$/\1/p' "$1")
    counts=$(sed -nE 's/^sum: delivered ([0-9]+) \+ purged ([0-9]+) \+ unmatched ([0-9]+) \+ malformed ([0-9]+) = ([0-9]+) sent \(([0-9]+) lines, .*/\1 \2 \3 \4 \5 \6/p' "$1")
    awk -v lines=$lines -v malformed="$malformed" -v dropped="${dropped:-0}" '
        { ok = $1 > 0 && $1 + $2 + $3 + $4 == $5 && $6 + dropped == lines }
        $4 != malformed && dropped == 0 { ok = 0 }
        END { exit ok ? 0 : 1 }' <<<"$counts" ||
        { echo "demo: the counts do not add up" >&2; return 1; }
    grep -q 'cancellation callback after' "$1" || { echo "demo: nothing was deleted" >&2; return 1; }
    grep -Eq '^control +timer' "$1" || { echo "demo: no timer expired" >&2; return 1; }
}

# The callbacks take so long that the timer of each second expires however fast the machine is.
echo "== a file, in bundles"
"${feed[@]}" --batch --work 300 "$sample" | tee "$work/file"
check "$work/file"

echo "== UDP over the loopback address"
"${feed[@]}" --udp 127.0.0.1:0 --for 40 >"$work/udp" 2> >(tee "$work/errors" >&2) &
feeder=$!
until grep -q 'listening on' "$work/errors" 2>/dev/null; do
    kill -0 $feeder || { echo "demo: qrnfeed ended early" >&2; exit 1; }
    sleep 0.05
done
port=$(sed -nE 's/.*listening on .*:([0-9]+)$/\1/p' "$work/errors")
$build/tools/qrngen --lines $lines --seed $seed --udp "$port" --rate 2500
wait $feeder
feeder=
cat "$work/udp"
check "$work/udp"
echo "demo: delivered + purged + unmatched + malformed = sent, in both runs"
