#!/usr/bin/env python3
"""Reproducible prefix sets and route streams for kela-policy runs.

    generate.py policy N > policy.kp    a rule with an N-entry prefix set
    generate.py routes M > routes.txt   M routes, half inside the set's space

Prefix lengths follow a public Internet table: mostly /24, then /22-/23,
/16-/21, few shorter; one entry in ten carries a ge/le range.  The random
state is fixed, so the same arguments give the same files.
"""
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


if __name__ == "__main__":
    kind, count = sys.argv[1], int(sys.argv[2])
    {"policy": policy, "routes": routes}[kind](count)
