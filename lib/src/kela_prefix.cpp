// SPDX-License-Identifier: Apache-2.0
// IP addresses, prefixes and match entries: parsing, printing, the
// attribute's base functions, and single-prefix matching.
#include "kela_prefix.hpp"

#include <cstdio>
#include <cstring>

#include "ipv4_range.h"
#include "kela_callbacks.hpp"
#include "kela_uint.hpp"
#include "qv_inet.h"

namespace kela::prefix {

bool parse_address(std::uint8_t family, const char *text, std::uint8_t *out) {
    return qv_inet_pton(family == kV6 ? QV_AF_INET6 : QV_AF_INET, text, out) == 1;
}

char *print_first_entry(std::uint32_t count, char **params, const char *print_ctx, bool mask_form) {
    auto at = [&](std::uint32_t i) -> const char * {
        return i < count && params[i] != nullptr ? params[i] : "";
    };
    // The first segment's header is params[0]; its four texts follow.
    const char *a = at(1), *l = at(2), *g = at(3), *e = at(4);
    // Address/mask entries carry a mask where the length goes; their bounds
    // are not shown.
    const bool bounds = !mask_form || (std::strlen(l) & 0xFF) < 4;
    const char *max = std::strchr(a, ':') != nullptr ? "128" : "32";
    auto same = [](const char *x, const char *y) { return std::strcmp(x, y) == 0; };
    const char *ge = "", *le = "", *eq = "", *ge_v = "", *le_v = "", *eq_v = "";
    if (bounds) {
        if (!same(g, l) && !same(g, e)) ge = " ge ", ge_v = g;
        if (!same(e, max) && !same(g, e)) le = " le ", le_v = e;
        if (same(g, e) && !(same(e, max) && same(g, l))) eq = " eq ", eq_v = e;
    }
    // Every '%' of the print context stands for the entry.  Everything is
    // written into one C-heap text: a print function that runs out of
    // memory gives null, it never throws.
    static const char kEntry[] = "%s/%s%s%s%s%s%s%s ...)";
    const int n = std::snprintf(nullptr, 0, kEntry, a, l, ge, ge_v, le, le_v, eq, eq_v);
    if (n < 0) return nullptr;
    const char *ctx = print_ctx != nullptr ? print_ctx : "%";
    std::size_t total = 0;
    for (const char *c = ctx; *c != '\0'; ++c) total += *c == '%' ? static_cast<std::size_t>(n) : 1;
    char *text = static_cast<char *>(std::malloc(total + 1));
    if (text == nullptr) return nullptr;
    char *out = text;
    for (const char *c = ctx; *c != '\0'; ++c) {
        if (*c == '%') {
            // Room for the entry and its terminator: the terminator lands
            // where the next character (or the final one) goes.
            std::snprintf(out, static_cast<std::size_t>(n) + 1, kEntry, a, l, ge, ge_v, le, le_v,
                          eq, eq_v);
            out += n;
        } else {
            *out++ = *c;
        }
    }
    *out = '\0';
    return text;
}

void assertion(const char *prototype) {
    std::fprintf(stderr, "kela_prefix: assertion failed in %s\n", prototype);
    std::abort();
}

}  // namespace kela::prefix

using namespace kela::prefix;

namespace {

// A length: one or two digits alone (nearly every one) read here, anything
// else by the general reader, which gives these the same value.  A large
// set's build reads three an entry.
vogno cvt_length(const char *text, int strict, std::uint32_t *out) {
    if (const unsigned d0 =
            text != nullptr ? static_cast<unsigned char>(text[0]) - unsigned{'0'} : 10;
        d0 <= 9) {
        if (text[1] == '\0') {
            *out = d0;
            return 0;
        }
        if (const unsigned d1 = static_cast<unsigned char>(text[1]) - unsigned{'0'};
            d1 <= 9 && text[2] == '\0') {
            *out = d0 * 10 + d1;
            return 0;
        }
    }
    return kela::cvt_decimal(text, strict, out);
}

// Parses the three numbers of an entry.
vogno parse_bounds(const char *len_text, const char *ge_text, const char *le_text, int strict,
                   std::uint32_t *len, std::uint32_t *ge, std::uint32_t *le) {
    vogno st = 0;
    if (len != nullptr && (st = cvt_length(len_text, strict, len)) != 0) return st;
    if ((st = cvt_length(ge_text, strict, ge)) != 0) return st;
    return cvt_length(le_text, strict, le);
}

std::uint32_t word_at(const std::uint8_t *p, int w) {
    return (std::uint32_t{p[4 * w]} << 24) | (std::uint32_t{p[4 * w + 1]} << 16) |
           (std::uint32_t{p[4 * w + 2]} << 8) | std::uint32_t{p[4 * w + 3]};
}

}  // namespace

namespace kela::prefix {

vogno parse_length_form(const char *addr_text, const char *len_text, const char *ge_text,
                        const char *le_text, shared_kela_prefix_matchspec_td *out) {
    ip_addr_t addr;
    std::uint32_t len = 0, ge = 0, le = 0;
    if (vogno st = shared_kela_prefix_cvt_string_to_pfx(addr_text, len_text, ge_text, le_text,
                                                        &addr, &len, &ge, &le, 1);
        st != 0)
        return st;
    out->family = addr.family;
    std::memcpy(out->addr, addr.addr, shared_kela_prefix_key_bytes(addr.family));
    out->len = static_cast<std::uint8_t>(len);
    out->ge = static_cast<std::uint8_t>(ge);
    out->le = static_cast<std::uint8_t>(le);
    return 0;
}

}  // namespace kela::prefix

extern "C" {

KELA_SHARED_API uint8_t shared_kela_prefix_key_len(uint8_t family) {
    if (family == kV4) return 32;
    if (family == kV6) return 128;
    assertion("uchar_t shared_kela_prefix_key_len(uint8_t)");
}

KELA_SHARED_API uint8_t shared_kela_prefix_key_bytes(uint8_t family) {
    if (family == kV4) return 4;
    if (family == kV6) return 16;
    assertion("uchar_t shared_kela_prefix_key_bytes(uint8_t)");
}

KELA_SHARED_API vogno shared_kela_prefix_cvt_string_to_ipaddr(const char *text, ip_addr_t *out,
                                                              uint32_t *maxlen) {
    if (text == nullptr || out == nullptr) return KEL_SHARED_ERR_NULL_INPUT;
    std::memset(out, 0, sizeof *out);
    const bool v6 = std::strchr(text, ':') != nullptr;
    if (!parse_address(v6 ? kV6 : kV4, text, out->addr)) return KEL_SHARED_ERR_BAD_VALUE;
    out->family = v6 ? kV6 : kV4;
    out->length = v6 ? 16 : 4;
    if (maxlen != nullptr) *maxlen = v6 ? 128 : 32;
    return 0;
}

KELA_SHARED_API vogno shared_kela_prefix_cvt_string_to_pfx_acl(const char *addr_text,
                                                               const char *mask_text,
                                                               ip_addr_t *addr, ip_addr_t *mask) {
    if (addr_text == nullptr || mask_text == nullptr || addr == nullptr || mask == nullptr)
        return KEL_SHARED_ERR_NULL_INPUT;
    if (vogno st = shared_kela_prefix_cvt_string_to_ipaddr(addr_text, addr, nullptr); st != 0)
        return st;
    return shared_kela_prefix_cvt_string_to_ipaddr(mask_text, mask, nullptr);
}

KELA_SHARED_API vogno shared_kela_prefix_cvt_string_to_pfx(const char *addr_text,
                                                           const char *len_text,
                                                           const char *ge_text, const char *le_text,
                                                           ip_addr_t *addr, uint32_t *len,
                                                           uint32_t *ge, uint32_t *le, int check) {
    if (addr_text == nullptr || len_text == nullptr || ge_text == nullptr || le_text == nullptr ||
        addr == nullptr || len == nullptr || ge == nullptr || le == nullptr)
        return KEL_SHARED_ERR_NULL_INPUT;
    std::uint32_t max = 0;
    if (vogno st = shared_kela_prefix_cvt_string_to_ipaddr(addr_text, addr, &max); st != 0)
        return st;
    vogno st = parse_bounds(len_text, ge_text, le_text, check, len, ge, le);
    if (check == 0 || st != 0) return st;
    if (*ge > *le || *le > max) return KEL_SHARED_ERR_BAD_LENGTH;
    return 0;
}

KELA_SHARED_API vogno shared_kela_prefix_cvt_string_to_matchspec(
    const char *addr_text, const char *len_text, const char *ge_text, const char *le_text,
    shared_kela_prefix_matchspec_td **out) {
    if (addr_text == nullptr || len_text == nullptr || ge_text == nullptr || le_text == nullptr)
        return KEL_SHARED_ERR_BAD_VALUE;
    if (out == nullptr) return KEL_SHARED_ERR_NULL_RESULT;
    SpecRoom room;
    if (vogno st = parse_length_form(addr_text, len_text, ge_text, le_text, room.spec()); st != 0)
        return st;
    SpecPtr spec = copy_spec(room.spec());
    if (!spec) return KEL_SHARED_ERR_NO_MEMORY;
    *out = spec.release();
    return 0;
}

KELA_SHARED_API vogno shared_kela_prefix_cvt_string_to_matchspec_acl(
    const char *addr_text, const char *mask_text, const char *ge_text, const char *le_text,
    shared_kela_prefix_matchspec_td **out) {
    if (addr_text == nullptr || mask_text == nullptr || ge_text == nullptr || le_text == nullptr)
        return KEL_SHARED_ERR_BAD_VALUE;
    if (out == nullptr) return KEL_SHARED_ERR_NULL_RESULT;
    ip_addr_t addr, mask;
    if (vogno st = shared_kela_prefix_cvt_string_to_pfx_acl(addr_text, mask_text, &addr, &mask);
        st != 0)
        return st;
    const std::uint8_t bytes = shared_kela_prefix_key_bytes(addr.family);
    SpecPtr spec = alloc_spec(addr.family);
    if (!spec) return KEL_SHARED_ERR_NO_MEMORY;
    spec->mask = static_cast<std::uint8_t *>(std::calloc(1, bytes));
    if (spec->mask == nullptr) return KEL_SHARED_ERR_NO_MEMORY;
    spec->family = addr.family;
    std::memcpy(spec->addr, addr.addr, bytes);
    // The two families are not compared: the mask's leading bytes are taken.
    std::memcpy(spec->mask, mask.addr, bytes);
    std::uint32_t ge = 0, le = 0;
    if (vogno st = parse_bounds(nullptr, ge_text, le_text, 1, nullptr, &ge, &le); st != 0)
        return st;
    spec->ge = static_cast<std::uint8_t>(ge);
    spec->le = static_cast<std::uint8_t>(le);
    spec->is_acl = 1;
    *out = spec.release();
    return 0;
}

KELA_SHARED_API vogno shared_kela_prefix_ipaddr_to_pfxaddr(ip_addr_t *in,
                                                           shared_kela_prefix_addr_td *out) {
    if (in == nullptr || out == nullptr) return KEL_SHARED_ERR_NULL_INPUT;
    if (!known_family(in->family))
        assertion(
            "vogno shared_kela_prefix_ipaddr_to_pfxaddr(ip_addr_t *, shared_kela_prefix_addr_td "
            "*)");
    out->family = in->family;
    out->addr = in->addr;
    out->len = shared_kela_prefix_key_len(in->family);
    return 0;
}

KELA_SHARED_API char *shared_kela_prefix_cvt_pfx_to_string(const shared_kela_prefix_addr_td *pfx,
                                                           int addr_only) {
    // The text is chosen first and copied once.
    static const char kError[] = "<<error prefix>>";
    char addr[46];
    char text[50];
    const char *chosen = kError;
    if (pfx != nullptr && pfx->addr != nullptr &&
        qv_inet_ntop(pfx->family, pfx->addr, addr, sizeof addr) != nullptr && addr[0] != '\0') {
        if (addr_only != 0)
            chosen = addr;
        else if (std::snprintf(text, sizeof text, "%s/%u", addr, unsigned{pfx->len}) > 0)
            chosen = text;
    }
    return strdup(chosen);
}

KELA_SHARED_API char *shared_kela_prefix_base_print(void *, void *route, void *desc) {
    static const char kNoPrefix[] = "<<no prefix>>";
    auto *d = static_cast<shared_kela_prefix_desc_td *>(desc);
    if (d == nullptr || d->get_value == nullptr) return strdup(kNoPrefix);
    kela::CPtr<char> prepared(route == nullptr ? strdup(kNoPrefix) : nullptr);
    shared_kela_prefix_addr_td value{};
    std::uint32_t more = 0;
    if (d->get_value(d, route, &value, &more) != 0)
        return prepared ? prepared.release() : strdup(kNoPrefix);
    char *text = shared_kela_prefix_cvt_pfx_to_string(&value, 0);
    release_value(value);
    return text;
}

KELA_SHARED_API vogno shared_kela_prefix_base_cmp(void *route_a, void *route_b, void *desc,
                                                  int32_t *outcome) {
    auto *d = static_cast<shared_kela_prefix_desc_td *>(desc);
    if (route_a == nullptr || route_b == nullptr || d == nullptr) {
        if (outcome != nullptr) *outcome = 0;
        return KEL_SHARED_ERR_NULL_INPUT;
    }
    if (outcome == nullptr) return KEL_SHARED_ERR_NULL_RESULT;
    *outcome = 0;
    shared_kela_prefix_addr_td a{}, b{};
    std::uint32_t more = 0;
    if (vogno st = d->get_value(d, route_a, &a, &more); st != 0) return st;
    if (vogno st = d->get_value(d, route_b, &b, &more); st != 0) {
        release_value(a);
        return st;
    }
    vogno st = 0;
    if (a.family == b.family) {
        if (known_family(a.family) && a.addr != nullptr && b.addr != nullptr)
            *outcome = std::memcmp(a.addr, b.addr, shared_kela_prefix_key_bytes(a.family));
        else
            st = KEL_SHARED_ERR_HOST_BITS;
    }
    release_value(a);
    release_value(b);
    return st;
}

// ---- single-prefix matching ------------------------------------------------------

KELA_SHARED_API int shared_kela_prefix_compare_ipv6_range(const uint8_t *addr, uint32_t len,
                                                          const uint8_t *spec_addr,
                                                          uint32_t spec_len, uint32_t ge,
                                                          uint32_t le) {
    if ((spec_len > ge ? spec_len : ge) > len) return 0;
    if ((spec_len > le ? spec_len : le) < len) return 0;
    const std::int64_t lo = spec_len < ge ? spec_len : ge;
    const std::int64_t hi = le;
    for (int w = 0; w < 4; ++w) {
        const std::uint32_t d = word_at(addr, w) ^ word_at(spec_addr, w);
        const std::int64_t lo_w = std::max<std::int64_t>(lo - 32 * w, 0);
        const std::int64_t hi_w =
            std::min<std::int64_t>(std::max<std::int64_t>(hi - 32 * w, 0), 32);
        const std::uint32_t host = lo_w > 31 ? 0u : 0xFFFFFFFFu >> lo_w;
        const std::uint32_t net = hi_w == 0    ? 0u
                                  : hi_w == 32 ? 0xFFFFFFFFu
                                               : 0xFFFFFFFFu << (32 - hi_w);
        if ((d & ~(host & net)) != 0) return 0;
    }
    return 1;
}

KELA_SHARED_API int shared_kela_prefix_match(shared_kela_prefix_addr_td *value,
                                             shared_kela_prefix_matchspec_td *spec,
                                             shared_kela_prefix_cmp_td kind) {
    if (value == nullptr || spec == nullptr || value->family != spec->family ||
        value->addr == nullptr)
        return 0;
    std::uint32_t len = value->len;
    // An address given without a length is taken at the entry's.
    if (len == 0) len = value->addr[0] != 0 ? spec->len : 0;
    if (kind == SHARED_KELA_PREFIX_CMP_ORLONGER || kind == SHARED_KELA_PREFIX_CMP_LONGER) {
        if (!known_family(spec->family))
            assertion(
                "int shared_kela_prefix_match(shared_kela_prefix_addr_td *, "
                "shared_kela_prefix_matchspec_td *, shared_kela_prefix_cmp_td)");
        if (kind == SHARED_KELA_PREFIX_CMP_LONGER && std::max(spec->len, spec->ge) >= len) return 0;
        // Compiled sets are read by many evaluations at once: the maximum
        // is stored there when the set is built, so this store never races.
        const std::uint8_t max = shared_kela_prefix_key_len(spec->family);
        if (spec->le != max) spec->le = max;
    }
    if (spec->family == kV6)
        return shared_kela_prefix_compare_ipv6_range(value->addr, len, spec->addr, spec->len,
                                                     spec->ge, spec->le);
    if (spec->family == kV4)
        return ipv4_compare_prefix_range(value->addr, len, spec->addr, spec->len, spec->ge,
                                         spec->le);
    assertion(
        "int shared_kela_prefix_match(shared_kela_prefix_addr_td *, "
        "shared_kela_prefix_matchspec_td *, shared_kela_prefix_cmp_td)");
}

int shared_kela_prefix_match_acl(shared_kela_prefix_addr_td *value,
                                 shared_kela_prefix_matchspec_td *spec) {
    if (value == nullptr || spec == nullptr || value->family != spec->family) return 0;
    if (value->len < spec->ge || value->len > spec->le) return 0;
    if (spec->family == kV4) {
        if (value->addr == nullptr || spec->mask == nullptr) return 0;
        for (int i = 0; i < 4; ++i)
            if (((spec->addr[i] ^ value->addr[i]) & ~spec->mask[i]) != 0) return 0;
        return 1;
    }
    if (spec->family == kV6) {
        if (value->addr == nullptr || spec->mask == nullptr) return 0;
        for (int w = 0; w < 4; ++w) {
            const std::uint32_t keep = ~word_at(spec->mask, w);
            if ((word_at(value->addr, w) & keep) != (word_at(spec->addr, w) & keep)) return 0;
        }
        return 1;
    }
    assertion(
        "int shared_kela_prefix_match_acl(shared_kela_prefix_addr_td *, "
        "shared_kela_prefix_matchspec_td *)");
}

}  // extern "C"
