#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Runs qrnfeed under a load that comes and goes, with monitoring on, watched by qrnmon for 20 seconds.
# Leaves the records in build/watch.csv and draws PICTURE.
#
# usage: scripts/watch.sh [PICTURE]      (default: docs/watch.png)
set -euo pipefail
cd "$(dirname "$0")/.."

picture=${1:-docs/watch.png}
./scripts/setup.sh build
command -v gnuplot >/dev/null || ./scripts/setup.sh bench
build=build/library
cmake -S . -B $build -DBUILD_TESTING=OFF >/dev/null
cmake --build $build --parallel "$(nproc)" --target qrnfeed qrngen qrnmon >/dev/null

work=$(mktemp -d)
running=()
cleanup() {
    [ ${#running[@]} -eq 0 ] || kill "${running[@]}" 2>/dev/null || true
    rm -rf "$work"
}
trap cleanup EXIT

rm -f build/watch.csv
$build/tools/qrnmon --port 0 --for 20 --csv build/watch.csv --plot "$picture" \
    >"$work/table" 2>"$work/qrnmon" &
watcher=$!
running+=("$watcher")
until grep -q 'listening on' "$work/qrnmon" 2>/dev/null; do
    kill -0 "$watcher" || { cat "$work/qrnmon" >&2; exit 1; }
    sleep 0.05
done
monitor=$(sed -nE 's/.*listening on .*:([0-9]+)$/\1/p' "$work/qrnmon")

export QRN_MONITOR_INTERVAL=1 QRN_MONITOR_APPID=watch
export QRN_MONITOR_TRANSPORT_OPTS="port=$monitor"
# Bursts of so many lines ten times a second; at times more than the dispatcher can take.
load() {
    local burst
    for burst in 100 300 50 200 50; do
        for tick in {1..40}; do
            $build/tools/qrngen --lines $burst --seed "$tick"
            sleep 0.1
        done
    done
}
load | $build/tools/qrnfeed --for 20 --match '*' --work 250 \
    --option queue_count_enabled=1 --option queue_age_enabled=1 \
    --option queue_service_time_enabled=1 --option queue_size_warning=1000 \
    >"$work/sum" 2>"$work/qrnfeed" &
feeder=$!
running+=("$feeder")
status=0
wait "$watcher" || status=$?
wait "$feeder" || true # the load may find its pipe closed
running=()
grep -v 'listening on' "$work/qrnmon" || true
cat "$work/table"
[ $status -eq 0 ] || { echo "watch: qrnmon ended with status $status" >&2; exit 1; }

# A queue that was watched for 20 seconds has nearly as many records, in an unbroken sequence.
awk -F, '/^schema/ { next }
    $8 == "feed" { if (last && $5 != last + 1) broken++; last = $5; rows++; if ($11 > deepest) deepest = $11 }
    END { print "feed: " rows " records, deepest " deepest; exit broken || rows < 15 || deepest < 100 }' \
    build/watch.csv || { echo "watch: records are missing" >&2; exit 1; }
[ -s "$picture" ] || { echo "watch: no picture" >&2; exit 1; }
echo "watch: build/watch.csv and $picture"
