#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Proves that the allocation-failure sweep reaches every allocation site of
the library.

The sites are read from the static library's own code: every call to
malloc, calloc, realloc or strdup, found through the relocations of the
disassembly, named by its function, its return offset in that function and
its source line.  The sweep is then run with KELA_ALLOC_SITES set, so the
failing allocator writes where each failed allocation returned to; those
addresses are named the same way through the test executable's symbol and
line tables.  Every site of the library must be among them.

The library must not allocate through operator new at all: an exception
cannot cross the C interface, and those allocations could not be failed by
the sweep.

usage: check_sites.py LIBRARY.a TEST-EXECUTABLE [gtest filter]
"""
import bisect
import os
import re
import subprocess
import sys
import tempfile

ALLOCATORS = {"malloc", "calloc", "realloc", "strdup"}


def run(*cmd):
    return subprocess.run(cmd, check=True, capture_output=True, text=True).stdout


def library_sites(archive):
    """{site: source line} of every allocation call.

    A site is (function, return offset, unit): the unit (the source file)
    tells apart local functions of the same name in different files; it is
    empty for functions with external linkage, which the link makes one.
    """
    sites = {}
    unit = func = start = where = None
    member = re.compile(r"^(\S+)\.o:\s+file format")
    header = re.compile(r"^([0-9a-f]+) <(.+)>:$")
    source = re.compile(r"^/\S+:(\d+)")
    reloc = re.compile(r"^\s+([0-9a-f]+): R_X86_64_(?:PLT32|PC32)\s+([A-Za-z_]\w*)")
    local = local_functions(archive)
    for line in run("objdump", "-d", "-r", "-l", "--no-show-raw-insn", archive).splitlines():
        if m := member.match(line):
            unit = m.group(1)
        elif m := header.match(line):
            func, start, where = m.group(2), int(m.group(1), 16), None
        elif m := source.match(line):
            where = m.group(1)
        elif (m := reloc.match(line)) and m.group(2) in ALLOCATORS and func:
            # The displacement is the call's last field: the call returns
            # to the byte after it.
            site = (func, int(m.group(1), 16) + 4 - start, unit if (unit, func) in local else "")
            sites[site] = f"{unit}, line {where}"
    return sites


def local_functions(archive):
    """{(unit, function)} of the functions with internal linkage."""
    found = set()
    for line in run("nm", "-A", "--defined-only", archive).splitlines():
        where, kind, name = line.rsplit(None, 2)
        if kind == "t":
            found.add((where.split(":")[-2].removesuffix(".o"), name))
    return found


def forbidden_references(archive):
    """Allocating C++ runtime functions the library refers to."""
    names = run("nm", "-u", "-C", archive).split()
    return sorted({n for n in names if n.startswith(("operator new", "std::__cxx11::basic_string"))})


def reached_sites(binary, gtest_filter):
    """The sites the sweep failed at, named as library_sites names them."""
    with tempfile.NamedTemporaryFile("r", suffix=".sites") as out:
        env = dict(os.environ, KELA_ALLOC_SITES=out.name)
        subprocess.run([binary, f"--gtest_filter={gtest_filter}"], check=True, env=env,
                       stdout=subprocess.DEVNULL)
        addrs = sorted({int(line.split()[-1], 16) for line in out
                        if os.path.realpath(line.split()[0]) == os.path.realpath(binary)})
    symbols = []
    for line in run("nm", "-n", "--defined-only", binary).splitlines():
        addr, kind, *name = line.split()
        if kind.lower() in "tw" and name:
            symbols.append((int(addr, 16), name[0]))
    starts = [a for a, _ in symbols]
    reached = set()
    for addr in addrs:
        i = bisect.bisect_right(starts, addr) - 1
        if i < 0:
            continue
        # The unit of a function is the file its first instruction is from.
        unit = os.path.basename(run("addr2line", "-e", binary, hex(starts[i])).split(":")[0])
        # Every name the function goes by (aliases share an address).
        j = i
        while j >= 0 and starts[j] == starts[i]:
            reached.add((symbols[j][1], addr - starts[i], unit))
            reached.add((symbols[j][1], addr - starts[i], ""))
            j -= 1
    return reached


def main():
    archive, binary = sys.argv[1], sys.argv[2]
    gtest_filter = sys.argv[3] if len(sys.argv) > 3 else "AllocSweep.*:Constructors.*"
    bad = forbidden_references(archive)
    if bad:
        print("the library allocates outside the C allocator:", *bad, sep="\n  ")
        return 1
    sites = library_sites(archive)
    if not sites:
        print("no allocation site found in", archive)
        return 1
    missing = sorted(set(sites) - reached_sites(binary, gtest_filter), key=lambda s: sites[s])
    print(f"allocation sites of the library: {len(sites)}, reached by the sweep: "
          f"{len(sites) - len(missing)}")
    for site in missing:
        demangled = run("c++filt", site[0]).strip()
        print(f"  not reached: {sites[site]}: {demangled} (+{site[1]:#x})")
    return 1 if missing else 0


if __name__ == "__main__":
    sys.exit(main())
