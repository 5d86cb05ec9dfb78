#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Builds the stress tests and kela-policy under ThreadSanitizer and runs
# them: a data race is a failure.  The tool evaluates the example policy,
# which puts every attribute type to work (each condition and action on
# some of the example routes), with one compiled instance of each statement
# shared by four threads, with --explain and --set-hits (the list entries
# that matched are looked up in entries the threads share); its output must
# be what one thread prints.
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
  run "$work/tools/kela-policy" run --quiet --track uplink1=up --explain --set-hits --jobs "$1" \
    "$src/examples/policy.kp" "$work/routes.txt" >"$work/jobs$1"
}
# The entries of a list are shared by the threads that look up the one a
# route matched: here one route in each batch of 4,096 lines matches the
# list's only entry, so that no lock of the platform orders one thread's
# first use of it after another's.
printf 'rule r\n  if destination pfxorlonger 10.0.0.0/8\n  reject\ndefault accept\n' >"$work/one.kp"
python3 -c 'for i in range(40000): print("dest=10.1.0.0/16" if i % 4096 == 7 else "dest=192.168.%d.0/24" % (i % 256))' >"$work/sparse.txt"
entries() {
  run "$work/tools/kela-policy" run --quiet --explain --set-hits --jobs 4 "$work/one.kp" "$work/sparse.txt" >/dev/null
}
if run "$work/tests/threads/kela_stress_tests" && policy 1 && policy 4 && cmp "$work/jobs1" "$work/jobs4" && entries; then
  echo "tsan: 1 passed, 0 failed"
else
  echo "tsan: 0 passed, 1 failed"
  exit 1
fi
