#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Reproducible prefix sets and route streams for kela-policy runs.

    generate.py policy N > policy.kp    a rule with an N-entry prefix set
    generate.py routes M > routes.txt   M routes, half inside the set's space

Prefix lengths follow a public Internet table: mostly /24, then /22-/23,
/16-/21, few shorter; one entry in ten carries a ge/le range.  The random
state is fixed, so the same arguments give the same files.

A real table, from a CSV of address ranges ("first,last,...": routed
ranges with their origin AS):

    generate.py table ranges.csv > set.txt          one entry a line: A/L [le E]
    generate.py policy-of set.txt > policy.kp       a rule with that set
    generate.py routes-of set.txt M > routes.txt    M routes, half under its entries

Each range becomes its minimal list of prefixes; one entry in ten gets
"le L+4", as filters generated from routing registries allow a few more
specific prefixes.
"""
import ipaddress
import random
import sys

STATE = 20261122


def length(rng):
    r = rng.random()
    if r < 0.60:
        return 24
    if r < 0.80:
        return rng.choice((22, 23))
    if r < 0.97:
        return rng.randint(16, 21)
    return rng.randint(8, 15)


def prefix(rng):
    l = length(rng)
    a = rng.randint(1 << 24, (223 << 24) - 1) & (0xFFFFFFFF << (32 - l))
    return a, l


def dotted(a):
    return ".".join(str((a >> s) & 255) for s in (24, 16, 8, 0))


def policy(n):
    rng = random.Random(STATE)
    entries = []
    for _ in range(n):
        a, l = prefix(rng)
        e = f"{dotted(a)}/{l}"
        if rng.random() < 0.1:
            e += f" le {rng.randint(l, 32)}"
        entries.append(e)
    print("rule big-set")
    print("  if destination pfxmatch { " + ", ".join(entries) + " }")
    print("  set metric 10")
    print("  accept")
    print("default reject")


def routes(m):
    set_rng = random.Random(STATE)
    space = [prefix(set_rng) for _ in range(1000)]
    rng = random.Random(STATE + 1)
    out = sys.stdout
    for i in range(m):
        if i % 2 == 0:
            a, l = space[rng.randrange(len(space))]
            l2 = min(32, l + rng.randint(0, 8))
            a |= rng.getrandbits(32) & ((1 << (32 - l)) - 1)
            a &= 0xFFFFFFFF << (32 - l2) if l2 else 0
            a, l = a, l2
        else:
            a, l = prefix(rng)
        out.write(f"dest={dotted(a)}/{l} nexthop=192.0.2.{i % 250 + 1} metric={rng.randint(0, 1000)}\n")


def ranges_to_prefixes(first, last, bits):
    """The minimal list of prefixes covering first..last (inclusive)."""
    while first <= last:
        size = first & -first if first else 1 << bits
        while size > last - first + 1:
            size >>= 1
        yield first, bits - size.bit_length() + 1
        first += size


def table(csv_path):
    rng = random.Random(STATE)
    out = sys.stdout
    for line in open(csv_path, encoding="utf-8"):
        fields = line.split(",", 2)
        if len(fields) < 2:
            continue
        lo, hi = ipaddress.ip_address(fields[0]), ipaddress.ip_address(fields[1])
        bits = lo.max_prefixlen
        for a, l in ranges_to_prefixes(int(lo), int(hi), bits):
            e = f"{ipaddress.ip_address(a) if bits == 32 else ipaddress.IPv6Address(a)}/{l}"
            if rng.random() < 0.1:
                e += f" le {min(bits, l + 4)}"
            out.write(e + "\n")


def rules(n):
    """n rules of one condition each: the compile cost per rule."""
    out = sys.stdout
    for i in range(n):
        out.write(f"rule r{i}\n  if metric le {i}\n  accept\n")


def read_set(path):
    """(address as int, length, bits) of every entry of a set file."""
    out = []
    for line in open(path, encoding="utf-8"):
        net = ipaddress.ip_network(line.split()[0])
        out.append((int(net.network_address), net.prefixlen, net.max_prefixlen))
    return out


def policy_of(path):
    entries = [line.strip() for line in open(path, encoding="utf-8") if line.strip()]
    print("rule real-table")
    print("  if destination pfxmatch { " + ", ".join(entries) + " }")
    print("  set metric 10")
    print("  accept")
    print("default reject")


def routes_of(path, m):
    entries = [e for e in read_set(path) if e[2] == 32]
    rng = random.Random(STATE + 2)
    out = sys.stdout
    for i in range(m):
        if i % 2 == 0:
            a, l, _ = entries[rng.randrange(len(entries))]
            l2 = min(32, l + rng.randint(0, 8))
            a |= rng.getrandbits(32) & ((1 << (32 - l)) - 1)
            a &= (0xFFFFFFFF << (32 - l2)) & 0xFFFFFFFF
            l = l2
        else:
            a, l = prefix(rng)
        out.write(f"dest={dotted(a)}/{l} nexthop=192.0.2.{i % 250 + 1} metric={rng.randint(0, 1000)}\n")


if __name__ == "__main__":
    kind = sys.argv[1]
    if kind == "table":
        table(sys.argv[2])
    elif kind == "policy-of":
        policy_of(sys.argv[2])
    elif kind == "routes-of":
        routes_of(sys.argv[2], int(sys.argv[3]))
    else:
        {"policy": policy, "routes": routes, "rules": rules}[kind](int(sys.argv[2]))
