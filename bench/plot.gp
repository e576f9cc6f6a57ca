# SPDX-License-Identifier: Apache-2.0
# gnuplot -e "directory='...'" plot.gp: draws the medians of all cells and the latencies of the hand-offs.
set terminal pngcairo size 1500,1900 font "sans,11"
set output directory."/qrnbench.png"
set datafile separator ","
cells = directory."/cells.csv"
percentiles = directory."/percentiles.csv"
queues = int(system("head -1 ".cells." | tr , '\\n' | wc -l")) - 1

set multiplot layout 4,1
set grid y
set key top left
set logscale y
set ylabel "ns an event (median, logarithmic)"
set title "qrnbench: medians by cell, less is better"
set style data histograms
set style histogram clustered gap 2
set style fill solid 0.8
plot for [i = 2:queues + 1] cells using i:xtic(1) title columnheader(i)

set style data linespoints
set xlabel "percentile"
set ylabel "ns (logarithmic)"
do for [cell in "hot warm cold"] {
    set title cell." hand-off"
    rows = sprintf("< grep -E '^(cell|%s),' %s", cell, percentiles)
    plot for [i = 4:queues + 3] rows using 0:i:xtic(sprintf("%g", column(2))) title columnheader(i)
}
unset multiplot
