#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# The shared library exports exactly the names listed in lib/exports.txt,
# and the public header declares every one of them.
# Usage: check_exports.sh LIBRARY SOURCE_DIR
set -u
lib=$1 src=$2
list=$src/lib/exports.txt
got=$(nm -D --defined-only "$lib" | awk '{print $3}' | grep -v '^__odr_asan' | sort)  # sanitizer builds add __odr_asan.* names
want=$(grep -v '^#' "$list" | sort)
pass=0 fail=0
if [ "$got" = "$want" ]; then
  pass=$((pass + 1))
else
  fail=$((fail + 1))
  echo "exported names differ from lib/exports.txt (< exported, > listed):"
  diff <(echo "$got") <(echo "$want")
fi
missing=0
for name in $want; do
  grep -q "\b$name\b" "$src/lib/include/kela_shared.h" || { echo "not declared in kela_shared.h: $name"; missing=1; }
done
if [ $missing -eq 0 ]; then pass=$((pass + 1)); else fail=$((fail + 1)); fi
echo "exports: $pass passed, $fail failed"
[ $fail -eq 0 ]
