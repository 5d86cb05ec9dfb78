#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Turns one benchmark run into docs/performance.md and the plot's data.

    report.py bench.json side.jsonl side_counts.jsonl end_to_end.json performance.md OUTDIR PEER

side.jsonl holds the side-by-side runs (one line per side, set and round),
side_counts.jsonl callgrind's counts of both sides (OUTDIR/build_counts.jsonl
those of one build, when there); PEER names the peer's
source package.  Lookup figures are thread CPU time per lookup over cold
queries; every ratio is of two measurements taken in the same run."""
import json
import statistics
import sys

bench_json, side_jsonl, counts_jsonl, e2e_json, md_out, out_dir, peer = sys.argv[1:8]
runs = {}
for b in json.load(open(bench_json))["benchmarks"]:
    if b.get("run_type", "iteration") == "iteration":
        runs[b["name"].split("/min_time")[0]] = b
side = {}  # (set, side) -> [run of each round]
for line in open(side_jsonl):
    if line.strip():
        rec = json.loads(line)
        side.setdefault((rec["set"], rec["side"]), []).append(rec)
counts = {}  # (set, side) -> callgrind's counts
for line in open(counts_jsonl):
    if line.strip():
        rec = json.loads(line)
        counts[(rec["set"], rec["side"])] = rec
build_counts = {}  # (set, side) -> callgrind's counts of one build
try:
    for line in open(f"{out_dir}/build_counts.jsonl"):
        if line.strip():
            rec = json.loads(line)
            build_counts[(rec["set"], rec["side"])] = rec
except FileNotFoundError:
    pass
e2e = json.load(open(e2e_json))
UNIT = {"ns": 1, "us": 1e3, "ms": 1e6, "s": 1e9}


def cpu_ns(name):
    """CPU time of one iteration, in ns."""
    b = runs[name]
    return b["cpu_time"] * UNIT[b["time_unit"]]


def per_query(name):
    return cpu_ns(name) / runs[name]["queries_per_pass"]


def per_entry(name):
    return cpu_ns(name) / runs[name]["entries"]


def have(name):
    return name in runs


def verdict(ok):
    return "met" if ok else "**not met**"


def per_query_counts(s, who):
    """Instructions, L1 misses and reads from memory per query, or None."""
    m = counts.get((s.replace("/", "-"), who))
    if m is None:
        return None
    q = m["queries"]
    g = lambda k: m.get(k, 0)  # callgrind leaves out trailing zero counts
    return g("Ir") / q, (g("D1mr") + g("D1mw")) / q, (g("DLmr") + g("DLmw") + g("ILmr")) / q


def per_entry_counts(s, who):
    """Instructions and reads from memory (and writes to it) per entry of one build, or None."""
    m = build_counts.get((s, who))
    if m is None:
        return None
    n = m["entries"]
    g = lambda k: m.get(k, 0)
    return g("Ir") / n, (g("DLmr") + g("DLmw") + g("ILmr")) / n


def miss_cols(s):
    c = per_query_counts(s, "kela")
    return ("", "") if c is None else (f"{c[1]:.2f}", f"{c[2]:.2f}")


sets = [f"v{f}/{n}" for f in (4, 6) for n in (1000, 10000, 100000, 1000000, "real")]
sets = [s for s in sets if have("lookup/" + s)]

rows, dat, dat_real = [], [], []
for s in sets:
    r = runs["lookup/" + s]
    cold = per_query("lookup/" + s)
    warm = per_query("lookup_warm/" + s)
    d1, ll = miss_cols(s)
    label = ("real table" if s.endswith("real") else "generated") + (", IPv6" if s.startswith("v6") else ", IPv4")
    rows.append(f"| {label} | {int(r['entries']):,} | **{cold:.0f}** | {warm:.0f} | {r['radix_per_query']:.2f} | "
                f"{d1} | {ll} | {r['hit_rate'] * 100:.0f} % | {r['bytes_per_entry']:.0f} |")
for n in (1000, 10000, 100000, 1000000):
    if have(f"lookup/v4/{n}") and have(f"lookup/v6/{n}"):
        dat.append(f"{n} {per_query(f'lookup/v4/{n}'):.1f} {per_query(f'lookup/v6/{n}'):.1f} "
                   f"{per_query(f'lookup_warm/v4/{n}'):.1f} {per_query(f'lookup_warm/v6/{n}'):.1f}")
for f in (4, 6):
    s = f"v{f}/real"
    if have("lookup/" + s):
        v = f"{per_query('lookup/' + s):.1f}"
        dat_real.append(f"{int(runs['lookup/' + s]['entries'])} {v if f == 4 else 'NaN'} {v if f == 6 else 'NaN'}")
open(f"{out_dir}/lookup.dat", "w").write("\n".join(dat) + "\n")
open(f"{out_dir}/lookup_real.dat", "w").write("\n".join(dat_real or ["1 NaN NaN"]) + "\n")

# ---- side by side with the peer -------------------------------------------------------
SIDE_SETS = [f"v{f}-{n}" for f in (4, 6) for n in (1000, 10000, 100000, 1000000, "real")]
SIDE_SETS = [s for s in SIDE_SETS if (s, "kela") in side and (s, "bird") in side]


def side_label(s):
    f, n = s.split("-")
    kind = "real table" if n == "real" else f"{int(n):,} generated"
    return f"{kind}, IPv{f[1]}"


def ratio(s, key):
    """Median and spread of this project over BIRD, round by round."""
    ours = {r["round"]: r[key] for r in side[(s, "kela")]}
    theirs = {r["round"]: r[key] for r in side[(s, "bird")]}
    rs = [ours[k] / theirs[k] for k in sorted(ours) if k in theirs]
    return statistics.median(rs), min(rs), max(rs), len(rs)


def fmt_ratio(s, key):
    m, lo, hi, _ = ratio(s, key)
    return f"**{m:.2f}x** ({lo:.2f}-{hi:.2f})" if hi - lo >= 0.005 else f"**{m:.2f}x**"


def median_of(s, who, key):
    return statistics.median(r[key] for r in side[(s, who)])


targets = []


def short(s):
    f, n = s.split("-")
    return f"{f} " + ("real" if n == "real" else {"1000": "1k", "10000": "10k", "100000": "100k", "1000000": "1M"}[n])


def target(what, sets, key, limit):
    """One row: every set's median ratio (and spread) against `limit`."""
    parts, ok = [], True
    for s in sets:
        if s not in SIDE_SETS:
            ok = False
            parts.append(f"{short(s)} not measured")
            continue
        m, lo, hi, _ = ratio(s, key)
        ok = ok and m <= limit
        parts.append(f"{short(s)} {m:.2f}x" + (f" ({lo:.2f}-{hi:.2f})" if hi - lo >= 0.005 else ""))
    targets.append(f"| {what} | {'; '.join(parts) or 'not measured'} | <= {limit}x | {verdict(ok and bool(parts))} |")


REAL = ["v4-real", "v6-real"]
target("cold lookup, real tables", REAL, "cold_ns", 1.0)
target("cold lookup, 1k and 10k generated sets", ["v4-1000", "v4-10000", "v6-1000", "v6-10000"],
       "cold_ns", 1.0)
target("cold lookup, 1M generated sets", ["v4-1000000", "v6-1000000"], "cold_ns", 1.5)
target("build (parse included), every set", SIDE_SETS, "build_ns", 1.0)
target("bytes per entry, every set", SIDE_SETS, "bytes_per_entry", 0.8)
target("stretch: cold lookup, real tables", REAL, "cold_ns", 0.8)

rounds = max((ratio(s, "cold_ns")[3] for s in SIDE_SETS), default=0)
out = ["# Performance\n",
       "Generated by `bench/run.sh` on this machine (2 cores, shared). The machine is a virtual one on a shared "
       "host whose speed varies between runs by up to 2.5x, so every figure that decides a target is a ratio of "
       "two measurements taken in the same run, next to each other. "
       f"Load average {e2e['load_before']} when the run started, {e2e['load_after']} when it ended.\n",
       f"## Against BIRD's prefix-set trie\n",
       f"The peer: `filter/trie.c` of Debian's `{peer}` source package (BIRD's prefix-set trie, 4-bit strides, "
       "the ranges of `{ A/L{L,E} }` entries held in its nodes), built by `bench/peer/build.sh` at BIRD's own "
       "release flags under the build folder and never committed. Both programs read the same set and query "
       "files and agree on every query's outcome (the run stops on the first disagreement). Each cell is this "
       f"project over BIRD: the median of {rounds} rounds that alternate the two programs, and the spread of the "
       "rounds. Times are thread CPU time.\n",
       "- *cold lookup*: 200,000 distinct queries per set, each asked once per pass, in random order (a full "
       "table filtered through a set larger than the caches); *warm*: 4,096 queries over and over.",
       "- *build*: from the entries' texts (address, length, ge, le) to a set that answers, parsing included "
       "(this project: the \"pfxmatch\" constructor and the first lookup, which makes the tree's lookup index; "
       "BIRD: `ip4_pton`/`ip6_pton`, `bstrtoul10` and `trie_add_prefix` into a linpool); the median of several builds.",
       "- *bytes per entry*: every byte the allocator hands out for the built set (BIRD's linpool pages "
       "included), divided by the entries given.\n",
       "| Set | cold lookup | warm lookup | build | bytes per entry | this project, cold ns | BIRD, cold ns |",
       "|---|---:|---:|---:|---:|---:|---:|"]
for s in SIDE_SETS:
    out.append(f"| {side_label(s)} | {fmt_ratio(s, 'cold_ns')} | {fmt_ratio(s, 'warm_ns')} | "
               f"{fmt_ratio(s, 'build_ns')} | {ratio(s, 'bytes_per_entry')[0]:.2f}x | "
               f"{median_of(s, 'kela', 'cold_ns'):.0f} | {median_of(s, 'bird', 'cold_ns'):.0f} |")
out += ["", "### Targets\n", "| Measure | Result (median, spread) | Target | |", "|---|---|---|---|"] + targets + [""]
def both_sides(counts_of, formats):
    """Table rows of callgrind's counts, this project / BIRD, for every set both have; then a blank."""
    rows = []
    for s in SIDE_SETS:
        a, b = counts_of(s, "kela"), counts_of(s, "bird")
        if a is not None and b is not None:
            cells = " | ".join(f"{x:{f}} / {y:{f}}" for x, y, f in zip(a, b, formats))
            rows.append(f"| {side_label(s)} | {cells} |")
    return rows + [""]


if any((s, "kela") in counts for s in SIDE_SETS):
    out += ["### Per query, from callgrind\n",
            "A second cold pass over the same 200,000 queries under callgrind's cache simulation (L1 48 KiB; last "
            "level 8 MiB, the share of it this machine gives a process, so a miss there is a read from memory), "
            "this project / BIRD. These count cache lines, not waits: callgrind models neither prefetching (lines "
            "asked for together count one each) nor the address translation (this project's large sets sit on huge "
            "pages, BIRD's trie on 4 KiB pages).\n",
            "| Set | instructions | L1 misses | reads from memory |", "|---|---:|---:|---:|"]
    out += both_sides(per_query_counts, [".0f", ".2f", ".2f"])
if build_counts:
    out += ["One build of each set under the same simulation, per entry given, this project / BIRD: "
            "instructions, and lines read from or written to memory (the build's own, so the set's fresh "
            "pages count).\n",
            "| Set | instructions | lines from or to memory |", "|---|---:|---:|"]
    out += both_sides(per_entry_counts, [".0f", ".2f"])

# Why the lookups that miss their targets do: the per-query counts of both sides.
if SIDE_SETS:
    out += ["### Where the lookups stand\n",
            "The compare's steps are fixed: the route's prefix comes through the client's getter; the wild entries "
            "are tried; then one `rn_lookup` per covering key, from the most specific down, each entry found tested "
            "on its own (`shared_kela_prefix_match`) in insertion order until one accepts; then one lookup per "
            "wildcard mask. BIRD's trie answers the same question in one walk down its nodes, because each node "
            "carries the accepted lengths of every range below it. So:\n"]
    for s in SIDE_SETS:
        a, b = per_query_counts(s, "kela"), per_query_counts(s, "bird")
        if a is None or b is None:
            continue
        name = s.replace("-", "/")
        radix = f", {runs['lookup/' + name]['radix_per_query']:.2f} radix lookups" if have("lookup/" + name) else ""
        out.append(f"- {side_label(s)}: cold {ratio(s, 'cold_ns')[0]:.2f}x; per query {a[0]:.0f} instructions "
                   f"against {b[0]:.0f}, {a[2]:.2f} reads from memory against {b[2]:.2f}{radix}.")
    out += ["- Sets the caches keep (1k, 10k) are decided by instructions: the framework's compare and the "
            "client's getter come first, then every covering key is a call into the platform's tree and a look "
            "at the entry it names (its bounds are tested in the compare itself; the entry test is called only "
            "when they let the value in), where BIRD's walk is a loop of a few instructions per 4 bits.",
            "- Sets larger than the caches are decided by reads from memory: the index costs one read (its top "
            "table stays cached), the entry found one more, and every covering entry that must be tested after it "
            "one more each unless it is cached; the index asks for them all at once, but a set whose keys nest "
            "deeply (the generated 1M sets: chains of /8 to /24) still reads several records per query where "
            "BIRD reads about one node.",
            "- Builds: each entry's four texts come through the framework's parameter segments and the "
            "exported converters; the entries are sorted by key, laid out in one block and inserted in key "
            "order (an insert starts where the last one's path parts); the index is made in one pass over "
            "them. Under a set of several megabytes the block's pages are then collapsed into huge pages: "
            "the build pays for that copy so that cold lookups do not also miss the address translation.",
            ""]

out += ["## Prefix-set lookup, this project alone\n",
        "Google Benchmark over the same sets and queries; absolute figures, which move with the host's speed.\n",
        "Cold: 200,000 distinct queries per set, each asked once per pass, in random order, so that a set "
        "larger than the caches is read from memory as it is when a full table is filtered. "
        "Warm (for comparison only): 4,096 queries asked over and over, which the caches keep.\n",
        "![cold lookup cost against set size](lookup.png)\n",
        "| Set | Entries | cold ns/lookup | warm ns/lookup | radix lookups/query | L1 misses/query | "
        "memory misses/query | queries matched | bytes/entry |",
        "|---|---:|---:|---:|---:|---:|---:|---:|---:|"] + rows + [""]
out += ["- *radix lookups/query*: `rn_lookup` calls per compare, counted by the platform; the compare asks once per "
        "covering key of the query, from the most specific down, until an entry accepts.",
        "- *L1 / memory misses per query*: callgrind's cache simulation of a second cold pass (L1 48 KiB; last level "
        "8 MiB, the share this machine gives a process, so a miss there is a read from memory); blank where not simulated.",
        "- *bytes/entry*: every byte the allocator hands out for the built set (small and mapped blocks), its "
        "trees' lookup indexes included, divided by the entries given.",
        ""]

if any(have("scan/" + s) for s in sets):
    out += ["Against the single-entry rule applied to every entry in turn (the first match wins):\n",
            "| Set | set ns/lookup (cold) | linear scan ns/lookup | speed-up |", "|---|---:|---:|---:|"]
    for s in sets:
        if have("scan/" + s):
            sc = cpu_ns("scan/" + s)
            c = per_query("lookup/" + s)
            out.append(f"| {s} | {c:.0f} | {sc:,.0f} | {sc / c:,.0f}x |")
    out.append("")

out += ["## Set build\n", "| Set | build ns/entry | parse-only ns/entry | ratio |", "|---|---:|---:|---:|"]
for s in sets:
    if have("build/" + s):
        b, p = per_entry("build/" + s), per_entry("parse/" + s)
        out.append(f"| {s} | {b:.0f} | {p:.0f} | {b / p:.1f}x |")
out += ["", "Build: the constructor from the parameter texts to a compiled set, its first lookup (which makes the "
        "lookup indexes) included. Parse-only: converting the same texts (address, length, ge, le) and nothing else.",
        ""]

set_name = "the real IPv4 table" if e2e["table_version"] != "none" else "a generated set"
out += ["## End to end\n",
        f"`kela-policy run` over {e2e['routes']:,} routes with {set_name} ({e2e['set']:,} entries) as the set of one "
        "`pfxmatch` rule, against `--parse-only` over the same files (which compiles the same policy and reads and "
        "parses every route, evaluating nothing). Best of three.\n",
        "| Run | CPU s | wall s | peak RSS MiB |", "|---|---:|---:|---:|",
        f"| run | {e2e['policy_cpu']:.2f} | {e2e['policy_wall']:.2f} | {int(e2e['policy_rss_kb']) // 1024} |",
        f"| parse only | {e2e['parse_cpu']:.2f} | {e2e['parse_wall']:.2f} | {int(e2e['parse_rss_kb']) // 1024} |",
        ""]
if "jobs2_wall" in e2e:
    out += ["`--jobs 2` parses and evaluates batches of 4,096 lines on two threads while the main thread reads and "
            "writes them in input order; the output is byte for byte that of one thread (tested). On this machine's "
            "2 cores, over the same files:\n",
            "| Run | CPU s | wall s | peak RSS MiB | wall-clock speed-up |", "|---|---:|---:|---:|---:|",
            f"| `--jobs 1` | {e2e['policy_cpu']:.2f} | {e2e['policy_wall']:.2f} | {int(e2e['policy_rss_kb']) // 1024} | 1.00x |",
            f"| `--jobs 2` | {e2e['jobs2_cpu']:.2f} | {e2e['jobs2_wall']:.2f} | {int(e2e['jobs2_rss_kb']) // 1024} | "
            f"{e2e['policy_wall'] / e2e['jobs2_wall']:.2f}x |",
            ""]

if e2e.get("compile"):
    out += ["## Policy compile\n",
            "`kela-policy check` over policies of one-condition rules (`bench/generate.py rules N`). Best of three.\n",
            "| Rules | CPU s | wall s | µs per rule | peak RSS MiB |", "|---:|---:|---:|---:|---:|"]
    for c in e2e["compile"]:
        out.append(f"| {c['rules']:,} | {c['cpu']:.2f} | {c['wall']:.2f} | {1e6 * c['cpu'] / c['rules']:.1f} | "
                   f"{int(c['rss_kb']) // 1024} |")
    out.append("")

out += ["## Radix tree alone\n",
        f"- insert 100k IPv4 entries in random order: {cpu_ns('radix/insert/100000/0') / 1e5:.0f} ns per entry",
        f"- insert in key order (as a prefix set files its entries): {cpu_ns('radix/insert/100000/1') / 1e5:.0f} ns per entry",
        f"- bounded longest match, 200,000 distinct random keys, 100k entries: {per_query('radix/lookup/100000'):.0f} ns per lookup",
        f"- uint32 matches-any over 10k values: {cpu_ns('any/set'):.0f} ns, linear scan {cpu_ns('any/scan'):,.0f} ns",
        ""]

# ---- what remains ----------------------------------------------------------------
page_ns = cpu_ns("memory/first_touch") / runs["memory/first_touch"]["pages"]
remain = ["## What remains\n"]
for s, what in (("v4/real", "real IPv4 table"), ("v6/real", "real IPv6 table"),
                ("v4/1000000", "generated 1M IPv4 set"), ("v6/1000000", "generated 1M IPv6 set")):
    if not have("lookup/" + s):
        continue
    r = runs["lookup/" + s]
    _, ll = miss_cols(s)
    remain.append(f"- {what}: {per_query('lookup/' + s):.0f} ns per lookup, {r['radix_per_query']:.2f} radix lookups "
                  f"and {ll or '?'} simulated reads from memory per query.")
if have("build/v4/real"):
    b, p = per_entry("build/v4/real"), per_entry("parse/v4/real")
    touch = runs["lookup/v4/real"]["bytes_per_entry"] * page_ns / 4096
    remain.append(f"- Build: a first touch of a new 4 KiB page costs {page_ns / 1000:.1f} us on this machine, so the "
                  f"{runs['lookup/v4/real']['bytes_per_entry']:.0f} bytes a built IPv4 entry occupies cost about "
                  f"{touch:.0f} ns of its {b:.0f} ns; parsing the texts costs {p:.0f} ns. The rest is the set's own "
                  "work: the sort into key order, one `rn_insert` per key (the platform's tree is filled one entry "
                  "at a time; it has no bulk build), and making the lookup index on the first lookup.")
remain.append("")

out += ["## Workload\n",
        "- Generated sets: prefixes from a fixed random state, lengths shaped like a public table (IPv4 60 % /24, "
        "20 % /22-/23, 17 % /16-/21, 3 % /8-/15; IPv6 55 % /48, the rest /32-/44), one entry in ten with a random `le`.",
        "- Real table: the npm package `@ip-location-db/asn` "
        f"(version {e2e['table_version']}; address ranges of the public routing tables with their origin AS, "
        "CC BY 4.0 by RouteViews, DB-IP and NRO), fetched by `bench/run.sh` and never committed. Each range becomes its "
        "minimal list of prefixes; one entry in ten gets `le` of its length + 4.",
        "- Queries: half under an entry of the set (at its length, or up to 8 bits longer), half anywhere (IPv4: any "
        "unicast address, IPv6: 2000::/3) with a table-shaped length; routes carry clean prefixes.",
        "- End-to-end routes: the same mix, drawn from the real table (`bench/generate.py routes-of`).",
        ""]
open(md_out, "w").write("\n".join(out).rstrip("\n") + "\n")
