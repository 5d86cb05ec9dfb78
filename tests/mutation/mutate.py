#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Mutation testing: how many small, plausible faults do the tests catch?

A deterministic sample of mutants of the library's sources (optionally the
reference platform's and the tool's) is built and tested one at a time in a
private copy of the tree, so the checkout itself is never modified.  Each
mutant changes one place:

  rel     a relational operator flipped (== !=, < <=, > >=, and reversed)
  logic   && and || swapped
  const   an integer constant moved by one
  neg     an if condition negated
  return  an early return removed (the if keeps an empty body)
  stmt    an expression statement removed
  status  one status code of the library replaced by another

Only what the mutant touches is rebuilt (the build tree's own dependency
tracking); the test programs then run in turn, fastest first, and stop at
the first failure.  A test that fails, crashes, reports a leak or runs past
the timeout kills the mutant.  The result lists killed, survived and
did-not-compile counts and every survivor as "file:line: change".

Only the test programs that execute the mutated line run: one coverage
build (gcc --coverage) of the revision runs every program once, and gcov
gives each program's executed lines.  A mutant on a line that no program
executes survives without a test run ("no test reaches it"); one on a line
that holds no code of its own (a constant of a declaration, a member's
size) runs every program.  The map is kept in the work directory and made
again when the revision's sources or tests change; --all-programs runs
every program on every mutant instead.

usage: mutate.py [--draw N] [--count N] [--scope lib,platform,tools] [--rev REV]
                 [--changed [REV]] [--sanitize leak|address] [--workdir DIR]
                 [--timeout SECONDS] [--list] [--programs REGEX] [--pick FILE] [--each]
                 [--all-programs]

--changed REV mutates every line that commit REV (default HEAD) adds or
changes in the scope's sources (all three scopes unless --scope is given),
instead of a random sample: the check to run on every change.

--programs and --pick re-check part of a sample after a test change: only the
test programs whose name matches, only the mutants whose "file:line: change"
text is a line of FILE (a run's "survived:" lines or log lines work as they are).
--each runs every program on every mutant and names each failing test: which
tests catch which faults, the evidence for keeping or merging a test.
"""
import argparse
import hashlib
import json
import os
import re
import shutil
import subprocess
import sys
import time

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
SCOPES = {"lib": ["lib/src"], "platform": ["platform/src"], "tools": ["tools/kela_policy"]}
SOURCE = re.compile(r"\.(cpp|hpp|h)$")
# Tests that take minutes or check the build rather than the behaviour (a
# mutant is not formatted).
SLOW = re.compile(r"install|tidy|tsan|valgrind|package|lintian|exports|alloc_sites|format")


# ---- mutant generation -----------------------------------------------------------------

def code_mask(text):
    """A copy of text with comments, string and character literals and
    preprocessor lines blanked, so that patterns only match code."""
    out = list(text)
    i, n = 0, len(text)
    at_line_start = True
    while i < n:
        c = text[i]
        if at_line_start and c == "#":
            while i < n and text[i] != "\n":
                # A continued directive goes on past its line end.
                if text[i] == "\\" and i + 1 < n and text[i + 1] == "\n":
                    out[i] = " "
                    i += 2
                    continue
                out[i] = " "
                i += 1
            continue
        if c == "\n":
            at_line_start = True
            i += 1
            continue
        if not c.isspace():
            at_line_start = False
        if text.startswith("//", i):
            while i < n and text[i] != "\n":
                out[i] = " "
                i += 1
        elif text.startswith("/*", i):
            end = text.find("*/", i + 2)
            end = n if end < 0 else end + 2
            for k in range(i, end):
                if text[k] != "\n":
                    out[k] = " "
            i = end
        elif c in "\"'":
            k = i + 1
            while k < n and text[k] != c:
                k += 2 if text[k] == "\\" else 1
            for j in range(i, min(k + 1, n)):
                out[j] = " "
            i = k + 1
        else:
            i += 1
    return "".join(out)


def matching_paren(mask, open_at):
    depth = 0
    for k in range(open_at, len(mask)):
        if mask[k] == "(":
            depth += 1
        elif mask[k] == ")":
            depth -= 1
            if depth == 0:
                return k
    return -1


REL_FLIPS = {"==": ["!="], "!=": ["=="], "<": ["<=", ">="], "<=": ["<", ">"], ">": [">=", "<="],
             ">=": [">", "<"]}


def mutants_of(path, text, statuses):
    """Every mutant of one file: (path, offset, old, new, kind)."""
    mask = code_mask(text)
    found = []
    # Binary operators are written with a blank on either side; template
    # brackets, shifts and arrows are not.
    for m in re.finditer(r"(?<=\s)(==|!=|<=|>=|<|>)(?=\s)", mask):
        for new in REL_FLIPS[m.group(1)]:
            found.append((path, m.start(), m.group(1), new, "rel"))
    for m in re.finditer(r"(?<=\s)(&&|\|\|)(?=\s)", mask):
        found.append((path, m.start(), m.group(1), "||" if m.group(1) == "&&" else "&&", "logic"))
    for m in re.finditer(r"(?<![\w.])(\d+)(u|U|ul|UL|ull|ULL)?(?![\w.])", mask):
        v = int(m.group(1))
        suffix = m.group(2) or ""
        for new in {v + 1, v - 1} - {-1}:
            found.append((path, m.start(), m.group(0), f"{new}{suffix}", "const"))
    for m in re.finditer(r"\bif \(", mask):
        open_at = m.end() - 1
        close = matching_paren(mask, open_at)
        if close < 0:
            continue
        cond = text[open_at + 1:close]
        if cond.lstrip().startswith(("vogno ", "auto ", "const ", "char ", "std::")) or ";" in cond:
            continue  # an if with an initialiser: negating it would not compile
        found.append((path, open_at + 1, cond, f"!({cond})", "neg"))
        body = re.match(r"\s*(return\b[^;{}]*;)", mask[close + 1:])
        if body:
            start = close + 1 + body.start(1)
            found.append((path, start, text[start:start + len(body.group(1))], ";", "return"))
    # Expression statements of their own line: calls, assignments, increments.
    for m in re.finditer(r"(?m)^[ \t]+((?:[A-Za-z_][\w:.\->\[\]*]*)\s*(?:\(|=[^=]|\+=|-=|\|=|&=|\+\+|--)"
                         r"[^;{}]*;)[ \t]*$", mask):
        stmt = text[m.start(1):m.end(1)]
        first = stmt.split()[0]
        if first in ("return", "if", "for", "while", "switch", "case", "else", "do", "delete"):
            continue
        if re.match(r"[A-Za-z_][\w:<>]*\s+[A-Za-z_*&]", stmt) and "(" not in stmt.split("=")[0]:
            continue  # a declaration
        found.append((path, m.start(1), stmt, ";", "stmt"))
    for m in re.finditer(r"\bKEL_SHARED_ERR_[A-Z_]+\b", mask):
        others = [s for s in statuses if s != m.group(0)]
        if others:
            # One replacement per site, chosen from the site itself so the
            # list is the same on every run.
            new = others[(m.start() * 7919) % len(others)]
            found.append((path, m.start(), m.group(0), new, "status"))
    return found


def all_mutants(root, scopes):
    """Every mutant of the tree at root, in a fixed order."""
    header = open(os.path.join(root, "lib/include/kela_shared.h")).read()
    statuses = sorted(set(re.findall(r"#define (KEL_SHARED_ERR_[A-Z_]+) +KEL_SHARED_ERR\(", header)))
    out = []
    for scope in scopes:
        for d in SCOPES[scope]:
            for name in sorted(os.listdir(os.path.join(root, d))):
                if SOURCE.search(name):
                    rel = f"{d}/{name}"
                    out += mutants_of(rel, open(os.path.join(root, rel)).read(), statuses)
    return out


def line_of(text, offset):
    return text.count("\n", 0, offset) + 1


def draw_sample(every, texts, draw, count):
    """The draw's sample: the count mutants that rank first by a hash of the
    draw number and of what each mutant is (its file, kind, change, the text
    of its line and its rank among equal ones), in file order.  An edit
    elsewhere leaves a mutant's rank alone: before and after a change, a
    draw holds the same mutants wherever their lines did not change."""
    seen, keyed = {}, []
    for i, (path, off, old, new, kind) in enumerate(every):
        text = texts[path]
        line = text[text.rfind("\n", 0, off) + 1:text.find("\n", off + len(old))].strip()
        key = (path, kind, old, new, line)
        seen[key] = seen.get(key, 0) + 1
        digest = hashlib.sha1(repr((draw, key, seen[key])).encode()).hexdigest()
        keyed.append((digest, i))
    return [every[i] for _, i in sorted(sorted(keyed)[:count], key=lambda k: k[1])]


# ---- building and testing ----------------------------------------------------------------

def sh(cmd, cwd, timeout=None):
    return subprocess.run(cmd, cwd=cwd, capture_output=True, text=True, timeout=timeout)


def copy_tree(workdir, rev):
    """The tree of revision rev in workdir/src.  Files whose bytes did not
    change keep their time stamps, and the build its objects."""
    src, fresh = os.path.join(workdir, "src"), os.path.join(workdir, "rev")
    shutil.rmtree(fresh, ignore_errors=True)
    os.makedirs(fresh)
    archive = subprocess.run(["git", "archive", rev], cwd=ROOT, capture_output=True, check=True)
    subprocess.run(["tar", "-x", "-C", fresh], input=archive.stdout, check=True)
    wanted = set()
    for d, _, names in os.walk(fresh):
        for name in names:
            a = os.path.join(d, name)
            rel = os.path.relpath(a, fresh)
            wanted.add(rel)
            b = os.path.join(src, rel)
            if os.path.exists(b) and open(a, "rb").read() == open(b, "rb").read():
                continue
            os.makedirs(os.path.dirname(b), exist_ok=True)
            shutil.copy2(a, b)
            os.utime(b)  # newer than any object built from the old bytes
    for d, _, names in os.walk(src):
        for name in names:
            if os.path.relpath(os.path.join(d, name), src) not in wanted:
                os.remove(os.path.join(d, name))
    shutil.rmtree(fresh)
    return src


def program_name(cmd):
    """A test program's name, the same in every build tree: the executable's,
    and for a script also its last argument (the group it checks)."""
    name = os.path.basename(cmd[0])
    return name if len(cmd) == 1 else f"{name} {cmd[-1]}"


def test_commands(build):
    """One command per test program: gtest binaries run whole, others as
    ctest has them."""
    info = json.loads(sh(["ctest", "--show-only=json-v1"], build).stdout)
    programs, scripts = [], []
    for t in info.get("tests", []):
        if SLOW.search(t["name"]) or not t.get("command"):
            continue
        cmd = t["command"]
        env = {}
        for p in t.get("properties", []):
            if p["name"] == "ENVIRONMENT":
                env = dict(e.split("=", 1) for e in p["value"])
        if any(a.startswith("--gtest_filter") for a in cmd):
            key = (cmd[0], tuple(sorted(env.items())))
            if key not in [(c[0], tuple(sorted(e.items()))) for c, e in programs]:
                programs.append(([cmd[0]], env))
        else:
            scripts.append((cmd, env))
    return programs + scripts


def build_flags(sanitize, coverage=False):
    # Programs that only load the library need no relinking when it changes.
    # Warnings are not errors here: an early return removed leaves an empty
    # if body, && swapped into a chain of || wants parentheses, a statement
    # removed may leave a variable unused; each is still a fault to test.
    flags = ["-DCMAKE_BUILD_TYPE=Debug", "-DKELA_BUILD_EXAMPLES=OFF", "-DKELA_WERROR=OFF",
             "-DCMAKE_LINK_DEPENDS_NO_SHARED=ON"]
    extra = " --coverage" if coverage else ""
    if sanitize == "address":
        flags.append("-DKELA_SANITIZE=ON")
        sanitizer = ""
    else:
        # LeakSanitizer alone costs nothing until exit: leaks still kill.
        flags.append("-DKELA_SANITIZE=OFF")
        sanitizer = "-fsanitize=leak"
    if sanitizer or extra:
        flags += [f"-DCMAKE_{v}_FLAGS={(sanitizer + extra).strip()}"
                  for v in ("CXX", "C", "EXE_LINKER", "SHARED_LINKER")]
    return flags


def configure_and_build(src, build, flags):
    cfg = sh(["cmake", "-S", src, "-B", build] + flags, ROOT)
    if cfg.returncode != 0:
        sys.exit(cfg.stderr)
    made = sh(["cmake", "--build", build, "-j2"], ROOT)
    if made.returncode != 0:
        sys.exit(made.stdout[-3000:] + "\nthe unmutated tree does not build")


# ---- which test programs execute which lines ---------------------------------------------

def coverage_key(rev, sanitize):
    """What a coverage map depends on: every file of the revision but its
    documentation and this script, and the sanitizer."""
    listing = sh(["git", "ls-tree", "-r", rev], ROOT).stdout.splitlines()
    kept = [line for line in listing
            if not re.search(r"\t(docs/.*|.*\.md|tests/mutation/.*)$", line)]
    return hashlib.sha1("\n".join(kept + [sanitize]).encode()).hexdigest()


def coverage_map(workdir, src, rev, sanitize, timeout):
    """{"programs": [[name, seconds], ...], "lines": {file: {line: [program
    indices]}}} for the tree in src, from a coverage build that runs every
    test program once; a line listed holds code, and the programs given
    executed it.  The unmutated tree must pass every program here."""
    path = os.path.join(workdir, "coverage.json")
    key = coverage_key(rev, sanitize)
    if os.path.exists(path):
        with open(path) as f:
            kept = json.load(f)
        if kept.get("key") == key:
            return kept, False
    build = os.path.join(workdir, "coverage")
    configure_and_build(src, build, build_flags(sanitize, coverage=True))
    real_src = os.path.realpath(src)
    notes = [os.path.join(d, n) for d, _, names in os.walk(build) for n in names
             if n.endswith(".gcno")]
    programs, lines = [], {}
    for cmd, env in test_commands(build):
        for d, _, names in os.walk(build):
            for n in names:
                if n.endswith(".gcda"):
                    os.remove(os.path.join(d, n))
        started = time.monotonic()
        verdict, why = run_tests([(cmd, env)], build, timeout * 4)
        if verdict != "survived":
            sys.exit(f"the unmutated tree fails its tests ({why})")
        index = len(programs)
        programs.append([program_name(cmd), time.monotonic() - started])
        useful = []  # objects with lines of the tree: the only ones read again
        for note in notes:
            docs = sh(["gcov", "--json-format", "--stdout", note], build).stdout.splitlines()
            for doc in map(json.loads, docs):
                for f in doc["files"]:
                    # Names are relative to where the object was compiled.
                    name = os.path.join(doc["current_working_directory"], f["file"])
                    rel = os.path.relpath(os.path.realpath(name), real_src)
                    if rel.startswith("..") or rel.startswith("tests/"):
                        continue
                    if note not in useful:
                        useful.append(note)
                    by_line = lines.setdefault(rel, {})
                    for line in f["lines"]:
                        users = by_line.setdefault(str(line["line_number"]), [])
                        if line["count"] > 0 and index not in users:
                            users.append(index)
        notes = useful
    kept = {"key": key, "programs": programs, "lines": lines}
    with open(path, "w") as f:
        json.dump(kept, f)
    return kept, True


def programs_for(mutant, text, cov):
    """Indices of the programs that execute a line of the mutant, or None
    when none of its lines holds code of its own (every program runs)."""
    path, off, old, _, _ = mutant
    first = line_of(text, off)
    by_line = cov["lines"].get(path, {})
    users = [by_line[str(n)] for n in range(first, first + old.count("\n") + 1)
             if str(n) in by_line]
    return set().union(*users) if users else None


def changed_lines(rev, dirs):
    """{file: set of line numbers} that commit rev adds or changes in dirs."""
    diff = sh(["git", "diff", "-U0", "--no-color", f"{rev}^", rev, "--"] + dirs, ROOT)
    if diff.returncode != 0:
        sys.exit(diff.stderr)
    out, current = {}, None
    for line in diff.stdout.splitlines():
        if line.startswith("+++ "):
            current = line[6:] if line.startswith("+++ b/") else None
        elif line.startswith("@@") and current:
            m = re.match(r"@@ -\S+ \+(\d+)(?:,(\d+))? @@", line)
            start, n = int(m.group(1)), int(m.group(2) or 1)
            out.setdefault(current, set()).update(range(start, start + n))
    return out


FAILED = re.compile(r"^\[  FAILED  \] (\w\S*\.\S+?),?(?: |$)", re.M)


def run_tests(commands, build, timeout, each=False):
    """'killed' with the program that failed, or 'survived'.  With each, all
    programs run and the reason names every failing test."""
    deadline = time.monotonic() + timeout
    failed = []
    for cmd, env in commands:
        left = deadline - time.monotonic()
        if left <= 0:
            return "killed", "timeout"
        try:
            r = subprocess.run(cmd, cwd=build, capture_output=True, timeout=left,
                               env={**os.environ, **env})
        except subprocess.TimeoutExpired:
            return "killed", "timeout"
        if r.returncode != 0:
            name = os.path.basename(cmd[0])
            if not each:
                return "killed", name
            tests = sorted(set(FAILED.findall(r.stdout.decode(errors="replace"))))
            failed.append(name + (": " + " ".join(tests) if tests else ""))
    return ("killed", "; ".join(failed)) if failed else ("survived", "")


def mutant_text(src, mutant, text=None):
    """"file:line: change"; text is the file's text when the caller has it."""
    path, off, old, new, kind = mutant
    if text is None:
        text = open(os.path.join(src, path)).read()
    return f"{path}:{line_of(text, off)}: {kind} {old!r} -> {new!r}"


def main():
    ap = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    ap.add_argument("--draw", type=int, default=1,
                    help="which fixed sample to take (same number, same sample)")
    ap.add_argument("--count", type=int,
                    help="sample size (default 150; with --changed every mutant of the lines)")
    ap.add_argument("--scope", help="comma-separated: lib, platform, tools (default lib; "
                                    "with --changed all three)")
    ap.add_argument("--rev", default="HEAD", help="the revision to mutate (default HEAD)")
    ap.add_argument("--changed", nargs="?", const="HEAD", metavar="REV",
                    help="mutate the lines commit REV (default HEAD) adds or changes")
    ap.add_argument("--workdir", default=os.path.join(ROOT, "build", "mutation"))
    ap.add_argument("--timeout", type=float, default=120, help="test time per mutant, seconds")
    ap.add_argument("--sanitize", choices=["leak", "address"], default="leak",
                    help="leak: LeakSanitizer only (fast); address: the test suite's own "
                         "AddressSanitizer and UBSan build (slower, catches more)")
    ap.add_argument("--list", action="store_true", help="print the sample and stop")
    ap.add_argument("--programs", help="run only the test programs whose name matches")
    ap.add_argument("--pick", help="test only the sample's mutants named in this file")
    ap.add_argument("--each", action="store_true",
                    help="run every program on every mutant and name the failing tests")
    ap.add_argument("--all-programs", action="store_true",
                    help="run every program on every mutant, not only those whose coverage "
                         "reaches its line")
    args = ap.parse_args()
    t0 = time.monotonic()

    if args.changed:
        args.rev = args.changed
    scopes = (args.scope or ("lib,platform,tools" if args.changed else "lib")).split(",")
    os.makedirs(args.workdir, exist_ok=True)
    src = copy_tree(args.workdir, args.rev)
    every = all_mutants(src, scopes)
    texts = {path: open(os.path.join(src, path)).read() for path in {m[0] for m in every}}
    if args.changed:
        touched = changed_lines(args.rev, [d for sc in scopes for d in SCOPES[sc]])

        def on_changed_line(m):
            first = line_of(texts[m[0]], m[1])
            return any(n in touched.get(m[0], ()) for n in range(first, first + m[2].count("\n") + 1))

        every = [m for m in every if on_changed_line(m)]
        count = len(every) if args.count is None else args.count
    else:
        count = 150 if args.count is None else args.count
    sample = every if args.changed and args.count is None else draw_sample(
        every, texts, args.draw, count)
    if args.pick:
        wanted = open(args.pick).read()
        sample = [m for m in sample if mutant_text(src, m, texts[m[0]]) in wanted]
    rev = sh(["git", "rev-parse", "--short", args.rev], ROOT).stdout.strip()
    if args.changed:
        print(f"{len(every)} mutants on the lines {rev} changes in {','.join(scopes)}; "
              f"testing {len(sample)}")
    else:
        print(f"{len(every)} mutants in {','.join(scopes)} at {rev}; "
              f"sample of {len(sample)} (draw {args.draw})")
    if args.list:
        for m in sample:
            print(mutant_text(src, m, texts[m[0]]))
        return 0
    if not sample:
        return 0

    build = os.path.join(args.workdir, "build")
    configure_and_build(src, build, build_flags(args.sanitize))
    commands = test_commands(build)
    if args.programs:
        commands = [c for c in commands if re.search(args.programs, program_name(c[0]))]
    cov = None
    if args.all_programs:
        # The baseline must pass; its timings put the fastest programs first.
        timed = []
        for cmd, env in commands:
            started = time.monotonic()
            verdict, why = run_tests([(cmd, env)], build, args.timeout * 4)
            if verdict != "survived":
                sys.exit(f"the unmutated tree fails its tests ({why})")
            timed.append(time.monotonic() - started)
        print(f"baseline built and tested in {time.monotonic() - t0:.0f} s; "
              f"{len(commands)} test programs")
    else:
        # The coverage build's run is the baseline: the same sources passed
        # every program there, and its timings order the programs.
        cov, made = coverage_map(args.workdir, src, args.rev, args.sanitize, args.timeout)
        index = {name: i for i, (name, _) in enumerate(cov["programs"])}
        timed = [cov["programs"][index[program_name(c)]][1] if program_name(c) in index else 0
                 for c, _ in commands]
        print(f"baseline built in {time.monotonic() - t0:.0f} s; coverage map of "
              f"{len(cov['programs'])} test programs " + ("made" if made else "kept") +
              f"; {len(commands)} test programs")
    commands = [c for _, c in sorted(zip(timed, commands), key=lambda t: t[0])]

    counts = {"killed": 0, "survived": 0, "did not compile": 0}
    survivors = []
    for i, mutant in enumerate(sample, 1):
        path, off, old, new, kind = mutant
        file = os.path.join(src, path)
        original = texts[path]
        assert original[off:off + len(old)] == old, (path, off, old)
        where = mutant_text(src, mutant, original)
        chosen = commands
        if cov is not None:
            users = programs_for(mutant, original, cov)
            if users is not None:
                chosen = [c for c in commands
                          if index.get(program_name(c[0]), -1) in users
                          or program_name(c[0]) not in index]
                # A process that a signal ends (a closed pipe, a timeout)
                # writes no coverage: the groups of one check script share
                # what any of them reached.
                scripts = {cmd[0] for cmd, _ in chosen if len(cmd) > 1}
                chosen = [c for c in commands if c in chosen or c[0][0] in scripts]
        try:
            with open(file, "w") as f:
                f.write(original[:off] + new + original[off + len(old):])
            started = time.monotonic()
            if sh(["cmake", "--build", build, "-j2"], ROOT).returncode != 0:
                verdict, why = "did not compile", ""
            elif not chosen:
                verdict, why = "survived", "no test reaches it"
            else:
                verdict, why = run_tests(chosen, build, args.timeout, args.each)
        finally:
            with open(file, "w") as f:
                f.write(original)
        counts[verdict] += 1
        if verdict == "survived":
            survivors.append(where + (f"  ({why})" if why else ""))
        print(f"[{i}/{len(sample)}] {verdict:15} {time.monotonic() - started:5.0f} s  {where}"
              + (f"  ({why})" if why else "") +
              (f"  [{len(chosen)} of {len(commands)} programs]" if cov is not None else ""),
              flush=True)
    # Leave the build matching the restored sources.
    sh(["cmake", "--build", build, "-j2"], ROOT)

    tested = counts["killed"] + counts["survived"]
    rate = 100.0 * counts["killed"] / tested if tested else 0.0
    what = f"lines changed by {rev}" if args.changed else f"draw {args.draw}"
    print(f"\n{what}, sample {len(sample)}: killed {counts['killed']}, "
          f"survived {counts['survived']}, did not compile {counts['did not compile']}; "
          f"kill rate {rate:.1f}% of the mutants that compiled; {time.monotonic() - t0:.0f} s")
    for s in survivors:
        print("survived:", s)
    return 0


if __name__ == "__main__":
    sys.exit(main())
