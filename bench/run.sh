#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Runs every benchmark and writes docs/performance.md and docs/lookup.png.
# It opens with this project's prefix sets side by side with BIRD's
# prefix-set trie (built from Debian's bird2 source by bench/peer/build.sh,
# under the build folder only): the same set and query files, programs run
# in alternation, ratios of this project over BIRD.
#
# Usage: bench/run.sh [--quick]   (--quick: shorter runs, a smaller end-to-end run)
#
# Environment:
#   KELA_BENCH_BUILD  build directory (default build/bench)
#   KELA_BENCH_DATA   where the real routing table is kept between runs
#                     (default $KELA_BENCH_BUILD/data; never committed)
#   KELA_BENCH_NO_BUILD=1  use the programs already built there
#   KELA_BENCH_REPS   alternating runs of the two sides per set (default 3)
#
# The real table is the npm package @ip-location-db/asn (address ranges of
# the public routing tables with their origin AS; CC BY 4.0, RouteViews,
# DB-IP, NRO), fetched with `npm pack` on the first run.  Without it the
# report still covers the generated sets and says the real table is missing.
set -euo pipefail
cd "$(dirname "$0")/.."
quick=${1:-}
build=${KELA_BENCH_BUILD:-build/bench}
data=${KELA_BENCH_DATA:-$build/data}
out=$build/results

need=()
command -v gnuplot >/dev/null || need+=(gnuplot-nox)
[ -f /usr/include/benchmark/benchmark.h ] || need+=(libbenchmark-dev)
command -v valgrind >/dev/null || need+=(valgrind)
command -v npm >/dev/null || need+=(npm)
if [ ${#need[@]} -gt 0 ]; then
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -q && apt-get install -y -q "${need[@]}" || echo "run.sh: could not install ${need[*]}" >&2
fi

if [ "${KELA_BENCH_NO_BUILD:-}" != 1 ]; then
  cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release -DKELA_BUILD_BENCH=ON -DKELA_BUILD_TESTS=OFF \
    -DKELA_BUILD_EXAMPLES=OFF >/dev/null
  cmake --build "$build" -j2 --target kela_bench kela_side kela-policy >/dev/null
  bash bench/peer/build.sh "$build"
fi
mkdir -p "$out" "$data"
data=$(cd "$data" && pwd)

# ---- the real table -----------------------------------------------------------
if [ ! -s "$data/set-v4.txt" ] || [ ! -s "$data/set-v6.txt" ]; then
  if command -v npm >/dev/null && (cd "$data" && rm -rf package ./*.tgz && npm pack --silent @ip-location-db/asn >/dev/null &&
    tar xzf ip-location-db-asn-*.tgz); then
    python3 bench/generate.py table "$data/package/asn-ipv4.csv" >"$data/set-v4.txt.tmp"
    python3 bench/generate.py table "$data/package/asn-ipv6.csv" >"$data/set-v6.txt.tmp"
    mv "$data/set-v4.txt.tmp" "$data/set-v4.txt"
    mv "$data/set-v6.txt.tmp" "$data/set-v6.txt"
  else
    echo "run.sh: the real table could not be fetched; its rows are left out" >&2
  fi
fi
table_version=none
[ -f "$data/package/package.json" ] &&
  table_version=$(python3 -c 'import json,sys; print(json.load(open(sys.argv[1]))["version"])' "$data/package/package.json")

load_before=$(cut -d' ' -f1 /proc/loadavg)

# ---- benchmarks -----------------------------------------------------------------
min_time=0.5
[ "$quick" = "--quick" ] && min_time=0.1
KELA_BENCH_DATA=$data ./"$build"/bench/kela_bench --benchmark_format=json \
  --benchmark_min_time="$min_time" >"$out/bench.json"

# ---- side by side with the peer --------------------------------------------------
# Both programs read the same files; for each set they run in turn, the
# order swapped every round, and must agree on every query's outcome.
sets=$out/sets
mkdir -p "$sets"
rm -f "$sets"/*
KELA_BENCH_DATA=$data ./"$build"/bench/kela_bench --write-sets "$sets"
kela_side=./$build/bench/kela_side
bird_side=./$build/peer/side_bird
reps=${KELA_BENCH_REPS:-3}
side_sets=()
for f in v4 v6; do
  for n in 1000 10000 100000 1000000 real; do [ -s "$sets/$f-$n.set" ] && side_sets+=("$f-$n"); done
done
: >"$out/side.jsonl"
for name in "${side_sets[@]}"; do
  for ((r = 1; r <= reps; r++)); do
    order=("$kela_side" "$bird_side")
    [ $((r % 2)) = 0 ] && order=("$bird_side" "$kela_side")
    for prog in "${order[@]}"; do
      "$prog" measure "$sets" "$name" "$out/outcomes.$(basename "$prog").$name" |
        sed "s/}\$/, \"round\": $r}/" >>"$out/side.jsonl"
    done
  done
  python3 - "$sets/$name.cold" "$out/outcomes.kela_side.$name" "$out/outcomes.side_bird.$name" <<'PY'
import sys
queries, ours, peer = sys.argv[1], open(sys.argv[2]).read(), open(sys.argv[3]).read()
if ours != peer:
    at = next((i for i, (a, b) in enumerate(zip(ours, peer)) if a != b), min(len(ours), len(peer)))
    q = open(queries).read().splitlines()[at] if at < len(ours) else "(one side stopped early)"
    sys.exit(f"run.sh: the sides disagree on query {at + 1} of {queries}: {q} "
             f"(this project {ours[at:at + 1] or '-'}, BIRD {peer[at:at + 1] or '-'})")
PY
done

# ---- per-query counts: callgrind's cache simulation over one cold pass -----------
# Both sides, every set: instructions, L1 misses and reads from memory per
# query of a second cold pass, then per entry of one build.  D1 as this
# machine's (48 KiB, 12-way); LL 8 MiB: the share of the last-level cache a
# process gets here (a chain of dependent reads over a random 4 MiB stays
# near 20 ns a read, over 8 MiB it costs 120 ns or more), not the figure the
# hypervisor reports.
# callgrind PROG MODE SET TRIGGER: one JSON line, the program's own with
# callgrind's totals of the dump named TRIGGER.
callgrind() {
  local prog=$1 mode=$2 name=$3 trigger=$4 tag
  tag=$(basename "$prog").$mode.$name
  rm -f "$out/cg.$tag".*
  local line dump
  line=$(valgrind --tool=callgrind --cache-sim=yes --instr-atstart=no \
    --D1=49152,12,64 --LL=8388608,16,64 --callgrind-out-file="$out/cg.$tag.%p" \
    "$prog" "$mode" "$sets" "$name" 2>/dev/null)
  dump=$(grep -l "Trigger: Client Request: $trigger" "$out/cg.$tag".* | head -1)
  echo "$line" | python3 -c '
import json, sys
rec = json.loads(sys.stdin.read())
events = summary = None
for l in open(sys.argv[1]):
    if l.startswith("events:"): events = l.split()[1:]
    if l.startswith("summary:"): summary = [int(x) for x in l.split()[1:]]
rec.update(dict(zip(events, summary + [0] * len(events))))  # callgrind leaves out trailing zeros
print(json.dumps(rec))' "$dump"
}
: >"$out/side_counts.jsonl"
: >"$out/build_counts.jsonl"
if command -v valgrind >/dev/null; then
  for name in "${side_sets[@]}"; do
    for prog in "$kela_side" "$bird_side"; do
      callgrind "$prog" counts "$name" "second pass" >>"$out/side_counts.jsonl"
      callgrind "$prog" build-counts "$name" build >>"$out/build_counts.jsonl"
    done
  done
fi

# ---- end to end: kela-policy over 1M routes with the real table as its set --------
n_routes=1000000
[ "$quick" = "--quick" ] && n_routes=100000
if [ -s "$data/set-v4.txt" ]; then
  python3 bench/generate.py policy-of "$data/set-v4.txt" >"$out/policy.kp"
  python3 bench/generate.py routes-of "$data/set-v4.txt" "$n_routes" >"$out/routes.txt"
  n_set=$(wc -l <"$data/set-v4.txt")
else
  n_set=100000
  python3 bench/generate.py policy "$n_set" >"$out/policy.kp"
  python3 bench/generate.py routes "$n_routes" >"$out/routes.txt"
fi
# Best of three, in CPU seconds (user + system) and wall seconds.
time_of() {
  local best_cpu= best_wall= rss=
  for _ in 1 2 3; do
    local r
    r=$({ /usr/bin/time -f '%U %S %e %M' "$@" >/dev/null; } 2>&1 | tail -1)
    read -r u s e m <<<"$r"
    local cpu
    cpu=$(awk -v u="$u" -v s="$s" 'BEGIN { printf "%.2f", u + s }')
    if [ -z "$best_cpu" ] || [ "$(echo "$cpu < $best_cpu" | bc)" = 1 ]; then best_cpu=$cpu best_wall=$e rss=$m; fi
  done
  echo "$best_cpu $best_wall $rss"
}
read -r policy_cpu policy_wall policy_rss <<<"$(time_of ./"$build"/tools/kela-policy run --quiet "$out/policy.kp" "$out/routes.txt")"
read -r jobs2_cpu jobs2_wall jobs2_rss <<<"$(time_of ./"$build"/tools/kela-policy run --quiet --jobs 2 "$out/policy.kp" "$out/routes.txt")"
read -r parse_cpu parse_wall parse_rss <<<"$(time_of ./"$build"/tools/kela-policy run --quiet --parse-only "$out/policy.kp" "$out/routes.txt")"
# Compile time against the number of rules: linear growth keeps a
# 1,000,000-rule policy within seconds.
compile_runs=
for n in 125000 250000 500000 1000000; do
  [ "$quick" = "--quick" ] && [ $n -gt 250000 ] && continue
  python3 bench/generate.py rules $n >"$out/rules.kp"
  read -r c_cpu c_wall c_rss <<<"$(time_of ./"$build"/tools/kela-policy check "$out/rules.kp")"
  compile_runs+="${compile_runs:+, }{\"rules\": $n, \"cpu\": $c_cpu, \"wall\": $c_wall, \"rss_kb\": $c_rss}"
done
rm -f "$out/rules.kp"
load_after=$(cut -d' ' -f1 /proc/loadavg)
printf '{"routes": %s, "set": %s, "policy_cpu": %s, "policy_wall": %s, "policy_rss_kb": %s, "parse_cpu": %s, "parse_wall": %s, "parse_rss_kb": %s, "table_version": "%s", "load_before": %s, "load_after": %s, "compile": [%s], "jobs2_cpu": %s, "jobs2_wall": %s, "jobs2_rss_kb": %s}\n' \
  "$n_routes" "$n_set" "$policy_cpu" "$policy_wall" "$policy_rss" "$parse_cpu" "$parse_wall" "$parse_rss" \
  "$table_version" "$load_before" "$load_after" "$compile_runs" "$jobs2_cpu" "$jobs2_wall" "$jobs2_rss" >"$out/end_to_end.json"

python3 bench/report.py "$out/bench.json" "$out/side.jsonl" "$out/side_counts.jsonl" "$out/end_to_end.json" \
  docs/performance.md "$out" "$(cat "$build/peer/version")"
# diff against one run over the same routes and policy: its own section.
bench/diff_cost.sh ./"$build"/tools/kela-policy "$out/policy.kp" "$out/routes.txt" >>docs/performance.md
gnuplot <<GP
set terminal pngcairo size 800,500
set output "docs/lookup.png"
set title "Prefix-set lookup, cold queries (200,000 distinct per set, CPU time)"
set xlabel "entries in the set"
set ylabel "ns per lookup"
set logscale x
set logscale y
set xrange [500:2000000]
set key left top
set grid
plot "$out/lookup.dat" using 1:2 with linespoints lw 2 title "IPv4, generated", \
     "$out/lookup.dat" using 1:3 with linespoints lw 2 title "IPv6, generated", \
     "$out/lookup_real.dat" using 1:2 with points pt 7 ps 2 title "IPv4, real table", \
     "$out/lookup_real.dat" using 1:3 with points pt 9 ps 2 title "IPv6, real table", \
     "$out/lookup.dat" using 1:4 with lines dt 2 title "IPv4, generated, warm (4,096 queries)", \
     "$out/lookup.dat" using 1:5 with lines dt 2 title "IPv6, generated, warm (4,096 queries)"
GP
echo "wrote docs/performance.md and docs/lookup.png"
