#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Plays schedules of every scenario of tests/sched, a million each by default, with other seeds than
# the tests play. Prints each scenario's rate, and the seed of the first schedule that goes wrong.
#
# usage: scripts/explore.sh [SCHEDULES [FIRST_SEED]]
set -euo pipefail
cd "$(dirname "$0")/.."

export SCHED_RUNS=${1:-1000000} SCHED_SEED=${2:-1000000}

./scripts/setup.sh build test
cmake --preset release >/dev/null
cmake --build --preset release --parallel "$(nproc)" --target sched_test
program=build/release/tests/sched/sched_test

play() {
    local name=$1 start=$EPOCHREALTIME log
    if ! log=$("$program" --gtest_filter="$name" 2>&1); then
        echo "$log"
        return 1
    fi
    awk -v name="${name#*.}" -v runs="$SCHED_RUNS" -v start="$start" -v end="$EPOCHREALTIME" \
        'BEGIN { printf "%-36s %d schedules held, %d a second\n", name, runs, runs / (end - start) }'
}
export -f play
export program

echo "explore: schedules $SCHED_SEED to $((SCHED_SEED + SCHED_RUNS - 1))"
"$program" --gtest_list_tests --gtest_filter='Schedules.*' | sed -n 's/^  /Schedules./p' |
    xargs -P "$(nproc)" -I{} bash -c 'play {}'
echo "explore: every schedule held"
