#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Builds qrnbench, runs it, and leaves its table, CSV files and a plot in bench-out/. What is missing
# gets installed. Without options it measures everything and counts instructions with callgrind;
# options go to qrnbench, and then nothing else is done. docs/performance.md tells what each cell means.
#
# usage: scripts/bench.sh [instructions | QRNBENCH OPTION...]
set -euo pipefail
cd "$(dirname "$0")/.."

out=bench-out
program=build/bench/bench/qrnbench

build() {
    ./scripts/setup.sh build bench
    cmake --preset release -B build/bench -DQRN_BUILD_BENCH=ON -DBUILD_TESTING=OFF \
        -DQRN_BUILD_TOOLS=OFF -DQRN_BUILD_EXAMPLES=OFF >/dev/null
    cmake --build build/bench --parallel "$(nproc)"
}

# Instructions that the solo cell executes for a number of events.
instructions_of() {
    valgrind --tool=callgrind --callgrind-out-file=/dev/null "$program" --alone "$1" --events "$2" 2>&1 |
        sed -nE 's/.*Collected : ([0-9]+).*/\1/p'
}

# The difference of two runs: what is done once drops out.
count_instructions() {
    command -v valgrind >/dev/null || { echo "bench: no valgrind, instructions not counted"; return 0; }
    local queue few many
    echo "instructions: solo cell under callgrind, an event"
    echo "contestant,instructions" >$out/instructions.csv
    for queue in "qrn" "qrn message" "qrn bundle" "oneTBB" "moodycamel" "GLib" "Asio" "mutex+cv"; do
        few=$(instructions_of "$queue" 20000)
        many=$(instructions_of "$queue" 120000)
        printf '  %-22s %12d\n' "$queue" $(((many - few) / 100000))
        echo "$queue,$(((many - few) / 100000))" >>$out/instructions.csv
    done
}

plot() {
    command -v gnuplot >/dev/null || { echo "bench: no gnuplot, nothing drawn"; return 0; }
    gnuplot -e "directory='$out'" bench/plot.gp
    echo "bench: $out/qrnbench.png"
}

mkdir -p $out
echo '*' >$out/.gitignore
build
case "${1:-}" in
"")
    $program --out $out | tee $out/table.txt
    count_instructions | tee -a $out/table.txt
    plot
    ;;
instructions) count_instructions ;;
*) $program --out $out "$@" ;;
esac
