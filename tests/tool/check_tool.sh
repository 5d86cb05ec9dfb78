#!/usr/bin/env bash
# End-to-end checks of kela-policy: golden outputs of the bundled example,
# one refusal per kind of verifier failure, syntax errors, malformed route
# lines and the validity of the JSON output.
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
refusals)
  while IFS= read -r line; do
    case $line in ''|'#'*) continue ;; esac
    stmt=${line%% => *} want=${line#* => }
    printf 'rule r\n  %s\n  accept\n' "$stmt" >"$work/bad.kp"
    (cd "$work" && "$tool" check bad.kp) >/dev/null 2>"$work/err"
    rc=$?
    got=$(cat "$work/err")
    if [ $rc -eq 2 ] && [ "$got" = "bad.kp:2:3: error: $want" ]; then ok; else bad "$stmt: exit $rc: $got"; fi
  done <"$here/refusals.txt"
  ;;
syntax)
  while IFS= read -r line; do
    case $line in ''|'#'*) continue ;; esac
    text=${line%% => *} want=${line#* => }
    printf '%b\n' "$text" >"$work/bad.kp"
    (cd "$work" && "$tool" check bad.kp) >/dev/null 2>"$work/err"
    rc=$?
    got=$(cat "$work/err")
    if [ $rc -eq 2 ] && [ "$got" = "$want" ]; then ok; else bad "$text: exit $rc: $got"; fi
  done <"$here/syntax.txt"
  ;;
malformed)
  printf 'rule all\n  if metric ge 0\n  accept\n' >"$work/p.kp"
  cp "$here/malformed_routes.txt" "$work/"
  (cd "$work" && "$tool" run --quiet p.kp malformed_routes.txt) >"$work/out" 2>"$work/err"
  rc=$?
  if [ $rc -eq 0 ] && diff -u "$here/malformed_routes.expected" "$work/err"; then ok; else bad "malformed lines: exit $rc"; fi
  if grep -q '^summary: 2 routes, 2 accepted, 0 rejected, 6 malformed' "$work/out"; then ok; else bad "summary: $(tail -1 "$work/out")"; fi
  (cd "$work" && "$tool" run --quiet --strict p.kp malformed_routes.txt) >/dev/null 2>"$work/err"
  rc=$?
  if [ $rc -eq 1 ] && [ "$(wc -l <"$work/err")" -eq 1 ]; then ok; else bad "--strict: exit $rc"; fi
  ;;
*) echo "unknown group $group"; exit 2 ;;
esac
echo "$group: $pass passed, $fail failed"
[ "$fail" -eq 0 ]
