#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# End-to-end checks of kela-policy: golden outputs of the bundled example,
# the validity of the JSON output, the corpus of bad inputs in bad/
# (policies refused by the parser or a verifier, malformed route lines), and
# input from pipes, FIFOs and standard input, failing reads and writes.
# Usage: check_tool.sh TOOL SOURCE_DIR GROUP
set -u
tool=$1 src=$2 group=$3
here=$src/tests/tool
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
pass=0 fail=0
ok() { pass=$((pass + 1)); }
bad() { fail=$((fail + 1)); echo "FAILED: $*"; }
# Rows "name|exit status|golden file|command": each command (run by eval,
# "$tool" in front) exits with the status and prints the golden file.
golden_rows() {
  while IFS='|' read -r name want golden cmd; do
    eval "\"\$tool\" $cmd" >"$work/out" 2>"$work/err"
    rc=$?
    if [ $rc -eq "$want" ] && diff -u "$here/golden/$golden" "$work/out"; then ok; else bad "$name: exit $rc: $(head -3 "$work/err")"; fi
  done
}

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
  ;;
bad_routes)
  # Each route file of bad/routes runs to the end (exit 3: malformed lines)
  # with exactly the errors of its .expected file, and counts each of them.
  cd "$here/bad/routes" || exit 1
  for routes in *.txt *.jsonl; do
    "$tool" run --quiet accept-all.kp "$routes" >"$work/out" 2>"$work/err"
    rc=$?
    if [ $rc -eq 3 ] && diff -u "${routes%.*}.expected" "$work/err"; then ok; else bad "$routes: exit $rc"; fi
    n=$(wc -l <"${routes%.*}.expected")
    if grep -qE " $n malformed[;,]" "$work/out"; then ok; else bad "$routes: $(tail -1 "$work/out")"; fi
  done
  "$tool" run --quiet --strict accept-all.kp text.txt >/dev/null 2>"$work/err"
  rc=$?
  if [ $rc -eq 3 ] && [ "$(cat "$work/err")" = "$(head -1 text.expected)" ]; then ok; else bad "--strict: exit $rc"; fi
  ;;
io)
  # The example policy asks the routing table (rib-has-route), which is the
  # route input itself: every kind of input must give the file's output.
  cd "$src" || exit 1
  run() { timeout 60 "$tool" run --quiet --track uplink1=up "$@"; }
  run examples/policy.kp examples/routes.txt >"$work/file.out" 2>&1
  mkfifo "$work/fifo" "$work/fifo2"
  tr '\n' '\r' <examples/routes.txt >"$work/cr.txt"            # old Mac line ends
  sed 's/$/\r/' examples/routes.txt >"$work/crlf.txt"
  tr '\n' '\r' <examples/policy.kp >"$work/cr.kp"
  while IFS='|' read -r name cmd; do
    eval "$cmd" >"$work/out" 2>&1
    rc=$?
    if [ $rc -eq 0 ] && cmp -s "$work/file.out" "$work/out"; then ok; else bad "$name: exit $rc"; diff "$work/file.out" "$work/out" | head -5; fi
  done <<'CASES'
standard input|run examples/policy.kp - <examples/routes.txt
/dev/stdin|run examples/policy.kp /dev/stdin <examples/routes.txt
pipe|cat examples/routes.txt | run examples/policy.kp -
process substitution|run examples/policy.kp <(cat examples/routes.txt)
FIFO|{ cat examples/routes.txt >"$work/fifo" & } ; run examples/policy.kp "$work/fifo"
table from a pipe|run --rib <(cat examples/routes.txt) examples/policy.kp examples/routes.txt
table and routes from FIFOs|{ cat examples/routes.txt >"$work/fifo" & cat examples/routes.txt >"$work/fifo2" & } ; run --rib "$work/fifo" examples/policy.kp "$work/fifo2"
CR line ends|run examples/policy.kp "$work/cr.txt"
CR LF line ends|run examples/policy.kp "$work/crlf.txt"
CR policy|run "$work/cr.kp" examples/routes.txt
CASES
  # Reads and writes that fail: reading /proc/self/mem at offset 0 fails
  # with EIO, a directory with EISDIR, /dev/full takes no byte.
  while IFS='|' read -r name want cmd; do
    eval "$cmd" >/dev/null 2>"$work/err"
    rc=$?
    if [ $rc -eq 1 ] && grep -q "$want" "$work/err"; then ok; else bad "$name: exit $rc: $(cat "$work/err")"; fi
  done <<'CASES'
policy EIO|cannot read /proc/self/mem: Input/output error|"$tool" check /proc/self/mem
policy directory|cannot read .: Is a directory|"$tool" check .
routes EIO|cannot read /proc/self/mem: Input/output error|run examples/policy.kp /proc/self/mem
table EIO|cannot read /proc/self/mem: Input/output error|run --rib /proc/self/mem examples/policy.kp examples/routes.txt
track file EIO|cannot read /proc/self/mem: Input/output error|run --track-file /proc/self/mem examples/policy.kp examples/routes.txt
full device|cannot write the output: No space left on device|run examples/policy.kp examples/routes.txt >/dev/full
full device, check|cannot write the output: No space left on device|"$tool" check examples/policy.kp >/dev/full
CASES
  ;;
eval_show)
  # Golden outputs of show, eval and the per-entry hit counts.
  cd "$src" || exit 1
  while IFS='|' read -r name cmd; do
    eval "\"\$tool\" $cmd" >"$work/out" 2>&1
    if diff -u "$here/golden/$name" "$work/out"; then ok; else bad "$name differs"; fi
  done <<'CASES'
show.out|show examples/sets.kp
sets.out|run --quiet --explain --set-hits examples/sets.kp examples/routes.txt
eval.out|eval --track uplink1=up examples/policy.kp 10.1.2.0/24 203.0.113.64 'dest=100.64.0.0/10 metric=10 tag=150' '{"dest": "192.168.72.0/24", "mac": "aabb.ccdd.eeff", "community": "65000:7", "tag": 7, "pref": 10, "metric": 42}' 'dest=10.0.0.0/33'
eval.json|eval --format json --track uplink1=up examples/sets.kp 10.1.2.0/24 'dest=2001:db8:1::/48 origin=egp'
CASES
  ;;
bgpdump)
  # An MRT TABLE_DUMP_V2 file written here, turned into lines by the real
  # bgpdump and piped into kela-policy; the accepted routes written back in
  # bgpdump's form read again.  Exit 77 (skipped) without bgpdump.
  command -v bgpdump >/dev/null || { echo "bgpdump is not installed: skipped"; exit 77; }
  python3 "$here/mrt/make_mrt.py" "$work/rib.mrt" || exit 1
  bgpdump -m "$work/rib.mrt" 2>/dev/null >"$work/rib.txt"
  [ "$(wc -l <"$work/rib.txt")" -eq 6 ] || bad "bgpdump printed $(wc -l <"$work/rib.txt") lines, not 6"
  while IFS='|' read -r name golden cmd; do
    eval "$cmd" >"$work/out" 2>"$work/err"
    rc=$?
    if [ $rc -eq 0 ] && diff -u "$here/mrt/$golden" "$work/out"; then ok; else bad "$name: exit $rc: $(head -3 "$work/err")"; fi
  done <<'CASES'
piped|verdicts.out|bgpdump -m "$work/rib.mrt" 2>/dev/null | "$tool" run --quiet "$here/mrt/mrt.kp" -
--input bgpdump|verdicts.out|"$tool" run --quiet --input bgpdump "$here/mrt/mrt.kp" "$work/rib.txt"
--output routes|routes.out|"$tool" run --quiet --output routes "$here/mrt/mrt.kp" "$work/rib.txt"
chained|chained.out|"$tool" run --quiet --output routes "$here/mrt/mrt.kp" "$work/rib.txt" 2>/dev/null | "$tool" run --quiet "$here/mrt/mrt.kp" -
CASES
  ;;
warnings)
  # Each warning once, the policy still compiling (exit 0); with --Werror
  # the same policy is refused (exit 2).
  cd "$work" || exit 1
  while IFS='|' read -r name policy want; do
    printf '%b\n' "$policy" >w.kp
    "$tool" run --quiet w.kp /dev/null >/dev/null 2>err
    rc=$?
    n=$(grep -c "warning: $want" err)
    if [ $rc -eq 0 ] && [ "$n" -eq 1 ] && [ "$(grep -c warning: err)" -eq 1 ]; then ok; else bad "$name: exit $rc, $n times: $(cat err)"; fi
    "$tool" run --quiet --Werror w.kp /dev/null >/dev/null 2>&1
    rc=$?
    if [ $rc -eq 2 ]; then ok; else bad "$name with --Werror: exit $rc"; fi
  done <<'CASES'
host bits|rule r\n  if destination pfxmatch 10.0.0.1/8\n  accept|'10.0.0.1/8' has host bits set and matches no route
host bits in a set|prefix-set s {\n  10.0.0.0/8\n  2001:db8::1/32 le 48\n}\nrule r\n  if destination pfxmatch s\n  accept|'2001:db8::1/32' has host bits set
negative number|rule r\n  if metric le -1\n  accept|'-1' is outside metric's range 0 - 4294967295: the library reads it as 4294967295
number above 32 bits|rule r\n  if tag exact-match 4294967296\n  accept|'4294967296' is outside tag's range 0 - 65535: the library reads it as 0
number in a value set|value-set v { 1, -2 }\nrule r\n  if metric matches-any v\n  accept|'-2' is outside metric's range
second default|default accept\ndefault reject|a second 'default' replaces the one at line 1
tracked object without state|rule r\n  if track uplink9 is up\n  accept|tracked object 'uplink9' is given no state
set destination address|rule r\n  set destination 10.0.0.0\n  accept|'set destination 10.0.0.0' gives the route the host prefix 10.0.0.0/32
CASES
  ;;
hostile)
  cd "$work" || exit 1
  # JSON output is valid UTF-8 whatever bytes the input holds.
  printf 'rule caf\xe9\n  if metric le 5\n  accept\nrule \xff\xfe\n  accept\n' >utf.kp
  printf 'dest=10.0.0.0/8 metric=1\ndest=10.0.0.0/8 metric=\xc3\n' >utf.txt
  "$tool" run --quiet --format json --explain --set-hits utf.kp utf.txt >out.jsonl 2>err.jsonl
  if python3 -c '
import json, sys
for f in sys.argv[1:]:
    for line in open(f, encoding="utf-8", errors="strict"):
        json.loads(line)
' out.jsonl err.jsonl && [ -s err.jsonl ]; then ok; else bad "JSON output is not valid UTF-8 JSON"; fi
  # A huge token is quoted cut short, in route and policy errors alike.
  python3 -c 'print("dest=10.0.0.0/8 metric=" + "9" * 10000000)' >long.txt
  python3 -c 'print("rule r\n  if destination pfxmatch { " + "1" * 1000000 + " }\n  accept")' >long.kp
  "$tool" run --quiet utf.kp long.txt >/dev/null 2>err
  [ "$(wc -c <err)" -lt 300 ] && grep -q "(10000000 bytes)" err && ok || bad "route error of $(wc -c <err) bytes"
  "$tool" check long.kp >/dev/null 2>err
  [ "$(wc -c <err)" -lt 300 ] && ok || bad "policy error of $(wc -c <err) bytes"
  # Input without end is refused at the bound (128 MiB), for list files,
  # policies and case files alike.
  printf 'prefix-set x from "/dev/zero"\n' >zero.kp
  mkfifo lines.fifo && printf 'prefix-set x from "lines.fifo"\n' >lines.kp
  while IFS='|' read -r name want cmd; do
    eval "$cmd" >/dev/null 2>err
    rc=$?
    if [ $rc -eq "$want" ] && grep -q "128 MiB (input without end?)" err; then ok; else bad "$name: exit $rc: $(cat err)"; fi
  done <<'CASES'
list file|2|"$tool" check zero.kp
list file of endless lines|2|{ yes 10.0.0.0/8 >lines.fifo 2>/dev/null & } ; timeout 120 "$tool" check lines.kp
policy|1|"$tool" check /dev/zero
case file|1|"$tool" test utf.kp /dev/zero
CASES
  # --explain shows a long list by its size, not its entries.
  python3 -c 'print("rule r\n  if destination pfxmatch { " + ", ".join("10.%d.0.0/16" % i for i in range(200)) + " }\n  accept")' >list.kp
  "$tool" run --quiet --explain list.kp <(echo dest=10.150.0.0/16) >out
  grep -q '(200 entries) = true (entry 10.150.0.0/16)' out && [ "$(wc -c <out)" -lt 400 ] && ok || bad "explain: $(head -c 300 out)"
  ;;
jobs)
  # --jobs 2 prints what --jobs 1 prints, on a large generated input, in
  # every output form, with the routing table read from the routes.
  cd "$src" || exit 1
  python3 -c '
import random
r = random.Random(7)
for i in range(30000):
    a, b = r.randrange(256), r.randrange(256)
    print("dest=%d.%d.%d.0/24 metric=%d tag=%d pref=%d origin=%s community=65000:%d" % (
        r.choice([10, 172, 198, 203]), a, b, r.choice([5, 10, 15, 42, 100, 4000]), r.randrange(200),
        r.randrange(60), r.choice(["igp", "egp"]), r.randrange(4)))
' >"$work/routes.txt"
  for opts in "" "--format json --explain" "--output routes" "--set-hits --coverage"; do
    # shellcheck disable=SC2086
    "$tool" run --quiet --track uplink1=up $opts --jobs 1 examples/policy.kp "$work/routes.txt" >"$work/one" 2>&1
    # shellcheck disable=SC2086
    "$tool" run --quiet --track uplink1=up $opts --jobs 2 examples/policy.kp "$work/routes.txt" >"$work/two" 2>&1
    if [ "$(wc -l <"$work/one")" -gt 5000 ] && cmp -s "$work/one" "$work/two"; then ok; else bad "--jobs 2 differs ($opts)"; fi
  done
  sed 's/if metric le 100/if metric le 50/' examples/policy.kp >"$work/new.kp"
  for j in 1 2; do
    "$tool" diff --quiet --track uplink1=up --jobs $j examples/policy.kp "$work/new.kp" "$work/routes.txt" >"$work/diff$j" 2>&1
  done
  if [ "$(wc -l <"$work/diff1")" -gt 1000 ] && cmp -s "$work/diff1" "$work/diff2"; then ok; else bad "diff --jobs 2 differs"; fi
  ;;
sets)
  # A prefix list gives the same verdicts written in the condition, as a
  # named set (on one line or many, with comments), from a plain list file,
  # from bgpq4's JSON and from its prefix-list lines.
  cd "$src" || exit 1
  entries='10.0.0.0/8 le 24, 172.20.0.0/16 le 24, 2001:db8::/32 ge 48 le 64'
  printf 'ip prefix-list customers permit %s\n' "10.0.0.0/8 le 24" "172.20.0.0/16 le 24" >"$work/cisco.txt"
  printf 'ipv6 prefix-list customers seq 5 permit 2001:db8::/32 ge 48 le 64\n' >>"$work/cisco.txt"
  policy() {  # policy SET-DEFINITION (\n for line breaks) CONDITION-OPERAND
    printf '%b\nrule c\n  if destination pfxmatch %s\n  set tag 1\n  accept\n' "$1" "$2" >"$work/p.kp"
    "$tool" run --quiet "$work/p.kp" examples/routes.txt
  }
  policy '' "{ $entries }" >"$work/inline.out" 2>&1
  grep -q 'accept (rule c)' "$work/inline.out" || bad "the inline list accepts no route"
  while IFS='|' read -r name def use; do
    policy "$def" "$use" >"$work/out" 2>&1
    if cmp -s "$work/inline.out" "$work/out"; then ok; else bad "$name"; diff "$work/inline.out" "$work/out" | head -5; fi
  done <<CASES
named set|prefix-set customers { $entries }|customers
lines and comments|prefix-set customers {\\n  # ours\\n  10.0.0.0/8 le 24   # the big one\\n\\n  172.20.0.0/16 le 24,\\n  2001:db8::/32 ge 48 le 64\\n}|customers
set inside a list|prefix-set some { 10.0.0.0/8 le 24, 172.20.0.0/16 le 24 }|{ some, 2001:db8::/32 ge 48 le 64 }
plain list file|prefix-set customers from "$src/examples/lists/customers.txt"|customers
bgpq4 JSON file|prefix-set customers from "$src/examples/lists/customers.json"|customers
prefix-list lines|prefix-set customers from "$work/cisco.txt"|customers
CASES
  ;;
diff)
  # diff OLD NEW: the example policy against a changed copy (a bound
  # lowered, a verdict turned, an action's value changed), from a file and
  # a pipe, in text and JSON; exit 4 when routes differ, 0 when none do.
  cd "$src" || exit 1
  sed -e 's/if metric le 100/if metric le 50/' -e 's/set metric 1$/set metric 2/' \
    -e '/^rule bogons/,/^  reject/s/reject/accept/' examples/policy.kp >"$work/new.kp"
  golden_rows <<'CASES'
text|4|diff.out|diff --quiet --track uplink1=up examples/policy.kp "$work/new.kp" examples/routes.txt
pipe|4|diff.out|diff --quiet --track uplink1=up examples/policy.kp "$work/new.kp" - <examples/routes.txt
json|4|diff.json|diff --quiet --format json --track uplink1=up examples/policy.kp "$work/new.kp" examples/routes.txt
same policy|0|diff-none.out|diff --quiet --track uplink1=up examples/policy.kp examples/policy.kp examples/routes.txt
CASES
  ;;
cases)
  # test POLICY CASES: the bundled cases pass; failing cases are reported
  # (text, JSON, JUnit XML) with exit 4; a case file that does not read is
  # refused with its file:line:column and exit 2, and writes no JUnit file.
  cd "$work" || exit 1
  ln -s "$src/examples" examples && ln -s "$here/cases" cases
  t() { "$tool" test --track uplink1=up examples/policy.kp "$@"; }
  # (the case file named as the report shows it: cases/failing.tests)
  golden_rows <<'CASES'
bundled cases|0|test-pass.out|test --track uplink1=up examples/policy.kp examples/policy.tests
failing cases|4|test-fail.out|test --track uplink1=up examples/policy.kp cases/failing.tests
JSON|4|test-fail.json|test --format json --track uplink1=up examples/policy.kp cases/failing.tests
JUnit|4|test-fail.xml|test --junit "$work/junit.xml" --track uplink1=up examples/policy.kp cases/failing.tests >/dev/null; rc=$?; cat "$work/junit.xml"; (exit $rc)
CASES
  python3 -c 'import sys, xml.dom.minidom; xml.dom.minidom.parse(sys.argv[1])' "$work/junit.xml" && ok || bad "the JUnit file is not XML"
  while IFS=';' read -r name line want; do
    printf '%b\n' "$line" >"$work/bad.tests"
    rm -f "$work/bad.xml"
    t --junit "$work/bad.xml" "$work/bad.tests" >/dev/null 2>"$work/err"
    rc=$?
    if [ $rc -eq 2 ] && grep -qF "bad.tests:$want" "$work/err" && [ ! -e "$work/bad.xml" ]; then ok; else bad "$name: exit $rc: $(cat "$work/err")"; fi
  done <<'CASES'
no arrow;10.0.0.0/8 accept;1:1: error: expected 'ROUTE => accept|reject
no verdict;# a comment\n10.0.0.0/8 => acept;2:15: error: expected accept or reject after '=>'
unknown rule;10.0.0.0/8 => accept customers;1:22: error: the policy has no rule 'customers'
unknown attribute;10.0.0.0/8 => accept bogons colour=red;1:29: error: unknown attribute 'colour'
malformed route;dest=10.0.0.0/8 metric=x => reject;1:17: error: bad metric 'x'
no route;TABLE_DUMP2|1|W|192.0.2.1|65001|10.0.0.0/8 => reject;1:1: error: not a route
CASES
  ;;
coverage)
  # run --coverage: the rules, conditions and set entries the routes never
  # used; --fail-unused makes an unused rule exit 4.
  cd "$src" || exit 1
  head -12 examples/routes.txt >"$work/some.txt"
  golden_rows <<'CASES'
text|4|coverage.out|run --quiet --fail-unused --track uplink1=up examples/policy.kp "$work/some.txt"
JSON|0|coverage.json|run --quiet --coverage --format json --track uplink1=up examples/policy.kp "$work/some.txt"
every rule used|0|coverage-all.out|run --quiet --fail-unused --output routes examples/sets.kp examples/routes.txt 2>&1 >/dev/null
CASES
  ;;
*) echo "unknown group $group"; exit 2 ;;
esac
echo "$group: $pass passed, $fail failed"
[ "$fail" -eq 0 ]
