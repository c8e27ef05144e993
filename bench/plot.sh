#!/bin/sh
# Draws the round-trip latency distributions of a tarn-bench JSON report as an SVG (or PNG).
#
#   bench/plot.sh RESULTS.json [OUTPUT.svg|OUTPUT.png]
#
# One line per round-trip series: latency against percentile, the percentile axis stretched
# towards the tail (1/(1-q) on a log scale) so that p99 and p99.9 get as much room as the median.
# Needs gnuplot (Debian: gnuplot-nox) and jq.
set -eu

if [ $# -lt 1 ] || [ $# -gt 2 ]; then
    echo "usage: $0 RESULTS.json [OUTPUT.svg|OUTPUT.png]" >&2
    exit 2
fi
input=$1
output=${2:-docs/bench-latency.svg}
for tool in gnuplot jq; do
    command -v "$tool" >/dev/null 2>&1 || { echo "$0: $tool is missing" >&2; exit 1; }
done

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# One data file per series: x = 1/(1-q) (the largest sample, q = 1, is left out), y = microseconds.
count=$(jq '.round_trips | length' "$input")
if [ "$count" -eq 0 ]; then
    echo "$0: $input holds no round trips" >&2
    exit 1
fi
plots=""
i=0
while [ "$i" -lt "$count" ]; do
    jq -r ".round_trips[$i].curve[] | select(.[0] < 1) | \"\(1 / (1 - .[0])) \(.[1])\"" "$input" >"$work/$i.dat"
    label=$(jq -r ".round_trips[$i] | \"\(.label) (median p50 \(.p50_us * 10 | round / 10) µs)\"" "$input")
    [ -n "$plots" ] && plots="$plots, "
    plots="$plots'$work/$i.dat' using 1:2 with lines linewidth 2 title '$label'"
    i=$((i + 1))
done

machine=$(jq -r '"\(.machine.cores) cores, \(.machine.cpu), \(.machine.kernel)"' "$input")
samples=$(jq -r '.config.round_trips' "$input")
case $output in
    *.png) terminal="pngcairo size 1000,600 noenhanced" ;;
    *) terminal="svg size 1000,600 dynamic noenhanced background rgb 'white'" ;;
esac

gnuplot <<GNUPLOT
set terminal $terminal
set output '$output'
set title "Round trips on 127.0.0.1, all repetitions pooled ($samples per run; $machine)"
set logscale x
set logscale y
set xrange [1:10000]
set xtics ("p0" 1, "p50" 2, "p90" 10, "p99" 100, "p99.9" 1000, "p99.99" 10000)
set xlabel "percentile"
set ylabel "round trip (µs)"
set grid xtics ytics mytics
set key top left
plot $plots
GNUPLOT
echo "wrote $output"
