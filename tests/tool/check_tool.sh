#!/usr/bin/env bash
# End-to-end checks of kela-policy: golden outputs of the bundled example,
# the validity of the JSON output, and the corpus of bad inputs in bad/
# (policies refused by the parser or a verifier, malformed route lines).
# Usage: check_tool.sh TOOL SOURCE_DIR GROUP
set -u
tool=$1 src=$2 group=$3
here=$src/tests/tool
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
pass=0 fail=0
ok() { pass=$((pass + 1)); }
bad() { fail=$((fail + 1)); echo "FAILED: $*"; }

case $group in
golden)
  cd "$src" || exit 1
  for args in "text|--track uplink1=up" "explain|--track uplink1=up --explain" "json|--track uplink1=down --format json --explain"; do
    name=${args%%|*} opts=${args#*|}
    # shellcheck disable=SC2086
    "$tool" run $opts --quiet examples/policy.kp examples/routes.txt >"$work/$name.out" 2>"$work/$name.err"
    rc=$?
    if [ $rc -ne 0 ] || [ -s "$work/$name.err" ]; then bad "$name: exit $rc: $(cat "$work/$name.err")"; continue; fi
    if diff -u "$here/golden/$name.out" "$work/$name.out"; then ok; else bad "$name differs from golden/$name.out"; fi
  done
  ;;
json)
  cd "$src" || exit 1
  "$tool" run --format json --explain --quiet --track uplink1=up examples/policy.kp examples/routes.txt >"$work/out.jsonl"
  if python3 -c '
import json, sys
lines = open(sys.argv[1]).read().splitlines()
objs = [json.loads(l) for l in lines]
assert objs[-1]["summary"]["routes"] == len(objs) - 1, "summary counts every route"
for o in objs[:-1]:
    assert o["verdict"] in ("accept", "reject") and isinstance(o["changes"], list)
' "$work/out.jsonl"; then ok; else bad "JSON output is not valid JSON Lines"; fi
  ;;
bad_policies)
  # Each bad/policies/NAME.kp is refused by "check" with exit 2 and exactly
  # the text of NAME.expected (file:line:col: error: message).
  cd "$here/bad/policies" || exit 1
  for kp in *.kp; do
    "$tool" check "$kp" >/dev/null 2>"$work/err"
    rc=$?
    if [ $rc -eq 2 ] && diff -u "${kp%.kp}.expected" "$work/err"; then ok; else bad "$kp: exit $rc"; fi
  done
  # A directory opens but cannot be read.
  "$tool" check . >/dev/null 2>"$work/err"
  rc=$?
  if [ $rc -eq 1 ] && [ "$(cat "$work/err")" = "kela-policy: cannot read ." ]; then ok; else bad "a directory: exit $rc"; fi
  ;;
bad_routes)
  # Each route file of bad/routes runs to the end (exit 0) with exactly the
  # errors of its .expected file, and counts each of them as malformed.
  cd "$here/bad/routes" || exit 1
  for routes in *.txt *.jsonl; do
    "$tool" run --quiet accept-all.kp "$routes" >"$work/out" 2>"$work/err"
    rc=$?
    if [ $rc -eq 0 ] && diff -u "${routes%.*}.expected" "$work/err"; then ok; else bad "$routes: exit $rc"; fi
    n=$(wc -l <"${routes%.*}.expected")
    if grep -q " $n malformed;" "$work/out"; then ok; else bad "$routes: $(tail -1 "$work/out")"; fi
  done
  "$tool" run --quiet --strict accept-all.kp text.txt >/dev/null 2>"$work/err"
  rc=$?
  if [ $rc -eq 1 ] && [ "$(cat "$work/err")" = "$(head -1 text.expected)" ]; then ok; else bad "--strict: exit $rc"; fi
  ;;
*) echo "unknown group $group"; exit 2 ;;
esac
echo "$group: $pass passed, $fail failed"
[ "$fail" -eq 0 ]
