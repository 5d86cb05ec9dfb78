#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Builds the libFuzzer targets with clang and runs each for SECONDS seconds
# (default 60), starting from a copy of fuzz/corpus/<target>.
# Usage: fuzz/run.sh [SECONDS]
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-60}
command -v clang++ >/dev/null || { echo "fuzz: clang++ not found"; exit 1; }
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz -j2 >/dev/null
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
status=0
for target in segments addresses prefix_set state tool; do
  mkdir -p "$work/$target"
  cp fuzz/corpus/"$target"/* "$work/$target/"
  if ./build/fuzz/fuzz/fuzz_"$target" -max_total_time="$seconds" -print_final_stats=1 "$work/$target" \
      >"$work/$target.log" 2>&1; then
    runs=$(awk '/stat::number_of_executed_units/ {print $2}' "$work/$target.log")
    echo "fuzz_$target: ${runs:-?} executions, no finding"
  else
    echo "fuzz_$target: FINDING"
    tail -40 "$work/$target.log"
    status=1
  fi
done
exit $status
