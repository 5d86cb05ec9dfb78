#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Runs the test programs of a build without sanitizers under valgrind's
# memcheck: any error or leak fails.  The largest randomised cases are left
# to the sanitizer builds, where they run in seconds rather than hours.
# Usage: tests/valgrind/run.sh
set -u
cd "$(dirname "$0")/../.."
command -v valgrind >/dev/null || { apt-get update -q && apt-get install -y -q valgrind; }
build=build/valgrind
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Debug -DKELA_BUILD_EXAMPLES=OFF >/dev/null || exit 1
cmake --build "$build" -j2 --target kela_lib_tests kela_platform_tests kela-policy >/dev/null || exit 1
skip='*HundredThousand*:*RandomShapes*:*AgreesWithAScan*:*RandomSets*:*Ipv4RuleAgrees*:*RangeLookupAgrees*'
pass=0 fail=0
check() {
  local what=$1
  shift
  if valgrind --quiet --leak-check=full --show-leak-kinds=definite,indirect --errors-for-leak-kinds=definite,indirect \
       --error-exitcode=1 "$@" >"$build/valgrind.log" 2>&1; then
    pass=$((pass + 1))
  else
    fail=$((fail + 1))
    echo "FAILED under valgrind: $what"
    tail -30 "$build/valgrind.log"
  fi
}
check "library tests" "$build/tests/lib/kela_lib_tests" --gtest_filter="-$skip"
check "platform tests" "$build/tests/platform/kela_platform_tests" --gtest_filter="-$skip"
check "kela-policy" "$build/tools/kela-policy" run --quiet --track uplink1=up examples/policy.kp examples/routes.txt
echo "valgrind: $pass passed, $fail failed"
[ $fail -eq 0 ]
