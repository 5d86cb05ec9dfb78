#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Builds the thread tests under ThreadSanitizer and runs them: a data race
# is a failure.  Usage: check_tsan.sh SOURCE_DIR
set -u
src=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
if ! cmake -S "$src" -B "$work" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKELA_TSAN=ON -DKELA_BUILD_EXAMPLES=OFF >"$work/log" 2>&1 ||
   ! cmake --build "$work" -j2 --target kela_thread_tests kela_stress_tests >>"$work/log" 2>&1; then
  tail -30 "$work/log"
  echo "tsan: 0 passed, 1 failed"
  exit 1
fi
run() {
  env -u ASAN_OPTIONS -u LSAN_OPTIONS TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1" "$@"
}
if run "$work/tests/threads/kela_thread_tests" && run "$work/tests/threads/kela_stress_tests"; then
  echo "tsan: 1 passed, 0 failed"
else
  echo "tsan: 0 passed, 1 failed"
  exit 1
fi
