#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# The cost of `kela-policy diff OLD NEW` against one `run` of OLD over the
# same routes, both measured here, one after the other (best of three each,
# CPU seconds, user + system): a ratio, as the host's speed varies between
# runs.  NEW sets another value in OLD's actions, so every route OLD's rules
# change differs and is written: the heavy case for diff's output.  Prints a
# section for docs/performance.md.
#
# Usage: bench/diff_cost.sh TOOL POLICY ROUTES
set -euo pipefail
tool=$1 policy=$2 routes=$3
new=$(mktemp)
trap 'rm -f "$new"' EXIT
sed 's/^\(  set [a-z-]*\) \([0-9][0-9]*\)$/\1 1\2/' "$policy" >"$new"
cmp -s "$policy" "$new" && { echo "diff_cost.sh: $policy has no action to change" >&2; exit 1; }

times=$(mktemp)
trap 'rm -f "$new" "$times"' EXIT
best_cpu() {
  local best=
  for _ in 1 2 3; do
    /usr/bin/time -o "$times" -f '%U %S' "$@" >/dev/null 2>&1 || true  # diff exits 4
    local cpu
    cpu=$(tail -1 "$times" | awk '{ printf "%.2f", $1 + $2 }')
    if [ -z "$best" ] || awk -v a="$cpu" -v b="$best" 'BEGIN { exit !(a < b) }'; then best=$cpu; fi
  done
  echo "$best"
}
run_cpu=$(best_cpu "$tool" run --quiet "$policy" "$routes")
diff_cpu=$(best_cpu "$tool" diff --quiet "$policy" "$new" "$routes")
summary=$("$tool" diff --quiet "$policy" "$new" "$routes" | grep '^summary:' || true)
n_routes=$(echo "$summary" | sed -n 's/^summary: \([0-9]*\) routes, \([0-9]*\) differ.*/\1/p')
n_differ=$(echo "$summary" | sed -n 's/^summary: \([0-9]*\) routes, \([0-9]*\) differ.*/\2/p')
ratio=$(awk -v d="$diff_cpu" -v r="$run_cpu" 'BEGIN { printf "%.2f", (r > 0 ? d / r : 0) }')

cat <<MD

## diff against run

\`kela-policy diff OLD NEW\` reads the routes once and evaluates each under
both policies. Over the ${n_routes} routes of the end-to-end run, with NEW
setting another value in OLD's actions (${n_differ} routes differ and are
written with both outcomes), best of three in CPU seconds:

| | CPU s |
|---|---|
| \`run OLD\` | ${run_cpu} |
| \`diff OLD NEW\` | ${diff_cpu} |
| ratio | ${ratio} |

The target is at most about 2: one read, two evaluations.
MD
