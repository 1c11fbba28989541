#!/usr/bin/env bash
# Draws rays a second and build time over the number of spheres, ours and the peer's, from what
# `kelpa_bench --peers --json FILE` has written. Needs gnuplot and jq.
#   plot-speed.sh FILE.json OUT.png
set -euo pipefail
if [[ $# != 2 ]]; then
    sed -n '2,4s/^# //p' "$0" >&2
    exit 2
fi
points=$(mktemp -d)
trap 'rm -rf "$points"' EXIT

# Medians over the runs of still, uniform scenes on one thread: spheres, ours, peer's.
rowsOf() {
    jq -r --arg what "$1" '
        def median: sort | .[(length - 1) / 2 | floor];
        .rows[] | select(.what == $what and .threads == 1)
                | select(.scene | startswith("uniform/static/"))
                | [(.scene | split("/")[2]), (.ours | median), (.peer | median)] | @tsv' "$2"
}
for kind in camera bounced random; do
    rowsOf "$kind single, M/s" "$1" >"$points/$kind"
done
rowsOf "build, s" "$1" >"$points/build"
peer=$(jq -r .peer "$1")

gnuplot <<END
set terminal pngcairo size 1100,480 font "sans,11"
set output "$2"
set multiplot layout 1,2
set logscale x
set format x "10^{%T}"
set xlabel "spheres"
set key top right
set grid
set ylabel "million rays a second, one thread"
set yrange [0:*]
kinds = "camera bounced random"
plot for [i = 1:3] "$points/".word(kinds, i) using 1:2 with linespoints lw 2 lc i \
         title word(kinds, i).", Kelpa", \
     for [i = 1:3] "$points/".word(kinds, i) using 1:3 with linespoints dt 2 lc i \
         title word(kinds, i).", $peer"
set logscale y
set format y "%g"
set ylabel "build, seconds, one thread"
set yrange [*:*]
set key top left
plot "$points/build" using 1:2 with linespoints lw 2 title "Kelpa", \
     "$points/build" using 1:3 with linespoints dt 2 title "$peer"
END
