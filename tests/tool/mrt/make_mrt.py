#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Writes a small MRT TABLE_DUMP_V2 file (RFC 6396) for kela-policy's
bgpdump test: a PEER_INDEX_TABLE with three peers, then RIB_IPV4_UNICAST and
RIB_IPV6_UNICAST records whose entries carry the path attributes of RFC 4271
(AS_PATH with four-octet AS numbers, as TABLE_DUMP_V2 requires) and RFC 1997
communities.  Usage: make_mrt.py OUT"""
import ipaddress
import struct
import sys

TIME = 1700000000
TABLE_DUMP_V2 = 13
PEER_INDEX_TABLE, RIB_IPV4_UNICAST, RIB_IPV6_UNICAST = 1, 2, 4


def mrt(subtype, body):
    return struct.pack(">IHHI", TIME, TABLE_DUMP_V2, subtype, len(body)) + body


def attr(flags, code, value):
    if len(value) > 255:
        return struct.pack(">BBH", flags | 0x10, code, len(value)) + value
    return struct.pack(">BBB", flags, code, len(value)) + value


def as_path(*segments):  # each segment: ("seq" | "set", [AS, ...])
    out = b""
    for kind, ases in segments:
        out += struct.pack(">BB", 2 if kind == "seq" else 1, len(ases))
        out += b"".join(struct.pack(">I", a) for a in ases)
    return attr(0x40, 2, out)


def attributes(origin, path, nexthop=None, med=None, local_pref=None, communities=(), mp_nexthop=None):
    out = attr(0x40, 1, bytes([origin])) + path
    if nexthop:
        out += attr(0x40, 3, ipaddress.IPv4Address(nexthop).packed)
    if med is not None:
        out += attr(0x80, 4, struct.pack(">I", med))
    if local_pref is not None:
        out += attr(0x40, 5, struct.pack(">I", local_pref))
    if communities:
        out += attr(0xC0, 8, b"".join(struct.pack(">HH", a, b) for a, b in communities))
    if mp_nexthop:
        # In a RIB entry MP_REACH_NLRI holds only the next hop (RFC 6396 4.3.4).
        nh = ipaddress.IPv6Address(mp_nexthop).packed
        out += attr(0x80, 14, bytes([len(nh)]) + nh)
    return out


def rib(subtype, seq, prefix, entries):  # entries: [(peer index, attributes)]
    net = ipaddress.ip_network(prefix)
    body = struct.pack(">IB", seq, net.prefixlen) + net.network_address.packed[: (net.prefixlen + 7) // 8]
    body += struct.pack(">H", len(entries))
    for peer, attrs in entries:
        body += struct.pack(">HIH", peer, TIME - 3600, len(attrs)) + attrs
    return mrt(subtype, body)


PEERS = [("192.0.2.1", 65001), ("192.0.2.2", 65010), ("2001:db8::1", 65001)]


def peer_index():
    body = ipaddress.IPv4Address("192.0.2.254").packed + struct.pack(">H", 4) + b"test"
    body += struct.pack(">H", len(PEERS))
    for ip, asn in PEERS:
        addr = ipaddress.ip_address(ip)
        body += struct.pack(">B", 0x02 | (1 if addr.version == 6 else 0))  # four-octet AS
        body += ipaddress.IPv4Address("10.255.0.%d" % (len(body) % 250)).packed + addr.packed
        body += struct.pack(">I", asn)
    return mrt(PEER_INDEX_TABLE, body)


IGP, EGP, INCOMPLETE = 0, 1, 2
NO_EXPORT, BLACKHOLE = (65535, 65281), (65535, 666)

records = [
    peer_index(),
    rib(RIB_IPV4_UNICAST, 0, "10.1.0.0/16", [
        (0, attributes(IGP, as_path(("seq", [65001, 65002])), "192.0.2.1", 20, 200, [(65000, 100), (65000, 101), NO_EXPORT])),
        (1, attributes(EGP, as_path(("seq", [65010, 65020, 65002])), "192.0.2.2", 5, 100)),
    ]),
    rib(RIB_IPV4_UNICAST, 1, "10.2.0.0/16", [
        (1, attributes(EGP, as_path(("seq", [65010]), ("set", [65020, 65030])), "192.0.2.2", 5, 100, [BLACKHOLE])),
    ]),
    rib(RIB_IPV4_UNICAST, 2, "192.0.2.128/25", [
        (0, attributes(INCOMPLETE, as_path(("seq", [65001])), "192.0.2.1")),
    ]),
    rib(RIB_IPV4_UNICAST, 3, "0.0.0.0/0", [
        (0, attributes(IGP, as_path(("seq", [65001, 65002, 65003, 65004])), "192.0.2.1", 0, 50)),
    ]),
    rib(RIB_IPV6_UNICAST, 4, "2001:db8:1::/48", [
        (2, attributes(IGP, as_path(("seq", [65001, 65005])), None, 10, 150, [(65000, 9), (65000, 2)], "2001:db8::1")),
    ]),
]
with open(sys.argv[1], "wb") as f:
    f.write(b"".join(records))
