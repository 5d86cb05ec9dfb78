// SPDX-License-Identifier: Apache-2.0
// Address text conversion: texts read here by the C library's inet_pton
// rule, written by its inet_ntop; and the IPv4 prefix-range rule.
#include <arpa/inet.h>
#include <sys/socket.h>

#include <cstring>

#include "ipv4_range.h"
#include "qv_inet.h"

namespace {
int native_family(int family) {
    return family == QV_AF_INET ? AF_INET : family == QV_AF_INET6 ? AF_INET6 : -1;
}

// Dotted IPv4 as inet_pton reads it: four decimal parts of 0 to 255, no
// leading zero, nothing else; dst is written only on success.  Read here
// because building a large prefix set converts one address per entry, and
// the C library's version costs several times as much.
int parse_ipv4(const char *text, void *dst) {
    auto digit = [](char c) { return static_cast<unsigned>(static_cast<unsigned char>(c)) - '0'; };
    unsigned char out[4];
    const char *p = text;
    for (unsigned i = 0; i < 4; ++i) {
        unsigned v = digit(*p);
        if (v > 9) return 0;
        if (const unsigned d1 = digit(*++p); d1 <= 9) {
            if (v == 0) return 0;  // a leading zero
            v = v * 10 + d1;
            if (const unsigned d2 = digit(*++p); d2 <= 9) {
                v = v * 10 + d2;
                if (v > 255 || digit(*++p) <= 9) return 0;
            }
        }
        out[i] = static_cast<unsigned char>(v);
        if (*p++ != (i < 3 ? '.' : '\0')) return 0;
    }
    std::memcpy(dst, out, 4);
    return 1;
}

// IPv6 as inet_pton reads it: up to eight groups of one to four hex
// digits, one "::" standing for the zero groups left out, and dotted IPv4
// for the last two; dst is written only on success.  Read here for the same
// reason as IPv4.
int parse_ipv6(const char *text, void *dst) {
    unsigned char out[16] = {};
    unsigned at = 0;           // bytes written
    int gap = -1;              // where "::" stands, in bytes
    const char *token = text;  // where the current group began
    unsigned digits = 0, value = 0;
    const char *p = text;
    // A leading "::" is one token; a lone leading ':' is refused.
    if (*p == ':' && *++p != ':') return 0;
    while (*p != '\0') {
        const unsigned c = static_cast<unsigned char>(*p++);
        const unsigned d = c - '0' <= 9            ? c - '0'
                           : (c | 0x20) - 'a' <= 5 ? (c | 0x20) - 'a' + 10
                                                   : 16;
        if (d < 16) {
            if (digits == 4) return 0;
            value = value << 4 | d;
            ++digits;
            continue;
        }
        if (c == ':') {
            token = p;
            if (digits == 0) {
                if (gap >= 0) return 0;
                gap = static_cast<int>(at);
                continue;
            }
            if (*p == '\0' || at + 2 > 16) return 0;
            out[at++] = static_cast<unsigned char>(value >> 8);
            out[at++] = static_cast<unsigned char>(value);
            digits = value = 0;
            continue;
        }
        if (c == '.' && at + 4 <= 16 && parse_ipv4(token, out + at) == 1) {
            at += 4;
            digits = 0;
            break;
        }
        return 0;
    }
    if (digits > 0) {
        if (at + 2 > 16) return 0;
        out[at++] = static_cast<unsigned char>(value >> 8);
        out[at++] = static_cast<unsigned char>(value);
    }
    if (gap >= 0) {
        if (at == 16) return 0;  // "::" must stand for at least one group
        const unsigned tail = at - static_cast<unsigned>(gap);
        std::memmove(out + 16 - tail, out + gap, tail);
        std::memset(out + gap, 0, 16 - tail - static_cast<unsigned>(gap));
        at = 16;
    }
    if (at != 16) return 0;
    std::memcpy(dst, out, 16);
    return 1;
}

}  // namespace

extern "C" {

int qv_inet_pton(int family, const char *text, void *dst) {
    const int af = native_family(family);
    if (af < 0) return -1;
    if (text == nullptr || dst == nullptr) return 0;
    return af == AF_INET ? parse_ipv4(text, dst) : parse_ipv6(text, dst);
}

const char *qv_inet_ntop(int family, const void *src, char *buf, size_t size) {
    const int af = native_family(family);
    if (af < 0 || src == nullptr || buf == nullptr) return nullptr;
    return inet_ntop(af, src, buf, static_cast<socklen_t>(size));
}

int ipv4_compare_prefix_range(const uint8_t *addr, uint32_t len, const uint8_t *spec_addr,
                              uint32_t spec_len, uint32_t ge, uint32_t le) {
    const uint32_t low_len = spec_len > ge ? spec_len : ge;
    const uint32_t high_len = spec_len > le ? spec_len : le;
    if (low_len > len || high_len < len) return 0;
    const uint32_t lo = spec_len < ge ? spec_len : ge;
    const uint32_t hi = le > 32 ? 32 : le;
    uint32_t a, s;
    std::memcpy(&a, addr, 4);
    std::memcpy(&s, spec_addr, 4);
    const uint32_t d = ntohl(a) ^ ntohl(s);
    // Free bits: positions lo .. hi-1, counted from the most significant.
    const uint32_t host = lo > 31 ? 0u : 0xFFFFFFFFu >> lo;
    const uint32_t net = hi == 0 ? 0u : hi >= 32 ? 0xFFFFFFFFu : 0xFFFFFFFFu << (32 - hi);
    return (d & ~(host & net)) == 0 ? 1 : 0;
}

}  // extern "C"
