#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Builds the stress tests and kela-policy under ThreadSanitizer and runs
# them: a data race is a failure.  The tool evaluates the example policy,
# which puts every attribute type to work (each condition and action on
# some of the example routes), with one compiled instance of each statement
# shared by four threads; its output must be what one thread prints.
# Usage: check_tsan.sh SOURCE_DIR
set -u
src=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
if ! cmake -S "$src" -B "$work" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKELA_TSAN=ON -DKELA_BUILD_EXAMPLES=OFF >"$work/log" 2>&1 ||
   ! cmake --build "$work" -j2 --target kela-policy kela_stress_tests >>"$work/log" 2>&1; then
  tail -30 "$work/log"
  echo "tsan: 0 passed, 1 failed"
  exit 1
fi
run() {
  env -u ASAN_OPTIONS -u LSAN_OPTIONS TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1" "$@"
}
# The example routes, over and over: enough batches of input for every thread.
for _ in $(seq 500); do cat "$src/examples/routes.txt"; done >"$work/routes.txt"
policy() {
  run "$work/tools/kela-policy" run --quiet --track uplink1=up --jobs "$1" \
    "$src/examples/policy.kp" "$work/routes.txt" >"$work/jobs$1"
}
if run "$work/tests/threads/kela_stress_tests" && policy 1 && policy 4 && cmp "$work/jobs1" "$work/jobs4"; then
  echo "tsan: 1 passed, 0 failed"
else
  echo "tsan: 0 passed, 1 failed"
  exit 1
fi
