#!/usr/bin/env bash
# Runs every benchmark and writes docs/performance.md and docs/lookup.png.
# Usage: bench/run.sh [--quick]   (--quick: shorter runs, smaller end-to-end)
set -euo pipefail
cd "$(dirname "$0")/.."
quick=${1:-}
command -v gnuplot >/dev/null || { apt-get update -q && apt-get install -y -q gnuplot-nox; }
[ -f /usr/include/benchmark/benchmark.h ] || { apt-get update -q && apt-get install -y -q libbenchmark-dev; }

cmake -S . -B build/bench -DCMAKE_BUILD_TYPE=Release -DKELA_BUILD_BENCH=ON -DKELA_BUILD_TESTS=OFF >/dev/null
cmake --build build/bench -j2 --target kela_bench kela-policy >/dev/null

out=build/bench/results
mkdir -p "$out"
min_time=0.5
[ "$quick" = "--quick" ] && min_time=0.1
./build/bench/bench/kela_bench --benchmark_format=json --benchmark_min_time="$min_time" >"$out/bench.json"

# End to end: kela-policy on a large set and route stream, against only
# reading and parsing the same routes.
n_set=100000 n_routes=1000000
[ "$quick" = "--quick" ] && { n_set=10000; n_routes=100000; }
python3 bench/generate.py policy "$n_set" >"$out/policy.kp"
python3 bench/generate.py routes "$n_routes" >"$out/routes.txt"
time_of() {
  local best=
  for _ in 1 2 3; do
    local t0 t1
    t0=$(date +%s.%N)
    "$@" >/dev/null
    t1=$(date +%s.%N)
    local t
    t=$(echo "$t1 - $t0" | bc)
    if [ -z "$best" ] || [ "$(echo "$t < $best" | bc)" = 1 ]; then best=$t; fi
  done
  echo "$best"
}
policy_time=$(time_of ./build/bench/tools/kela-policy run --quiet "$out/policy.kp" "$out/routes.txt")
parse_time=$(time_of ./build/bench/tools/kela-policy run --quiet --parse-only "$out/policy.kp" "$out/routes.txt")
rss=$( { /usr/bin/time -v ./build/bench/tools/kela-policy run --quiet "$out/policy.kp" "$out/routes.txt" >/dev/null; } 2>&1 | awk -F': ' '/Maximum resident/ {print $2}')
printf '{"routes": %s, "set": %s, "policy_s": %f, "parse_s": %f, "rss_kb": %s}\n' \
  "$n_routes" "$n_set" "$policy_time" "$parse_time" "$rss" >"$out/end_to_end.json"

python3 bench/report.py "$out/bench.json" "$out/end_to_end.json" docs/performance.md "$out/lookup.dat"
gnuplot <<GP
set terminal pngcairo size 800,500
set output "docs/lookup.png"
set title "Prefix-set lookup cost against set size"
set xlabel "entries in the set"
set ylabel "ns per lookup"
set logscale x
set logscale y
set key left top
set grid
plot "$out/lookup.dat" using 1:2 with linespoints title "IPv4 set", \
     "$out/lookup.dat" using 1:3 with linespoints title "IPv6 set", \
     "$out/lookup.dat" using 1:4 with linespoints title "IPv4 linear scan", \
     "$out/lookup.dat" using 1:5 with linespoints title "IPv6 linear scan"
GP
echo "wrote docs/performance.md and docs/lookup.png"
