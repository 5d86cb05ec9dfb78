// SPDX-License-Identifier: Apache-2.0
// IPv4 address attribute: an address and a prefix length at offsets of the
// route record, and "pfxmatch" over four constants.
#include <cstdio>
#include <cstring>

#include "kela_prefix.hpp"
#include "kela_register.hpp"
#include "kela_single.hpp"
#include "kela_uint.hpp"
#include "qv_inet.h"

using namespace kela::prefix;

namespace {

using Desc = shared_kela_ipv4_desc_td;
using Record = shared_kela_pfxmatch_td;

const std::uint8_t *addr_of(const void *route, const Desc *d) {
    return static_cast<const std::uint8_t *>(route) + d->addr_offset;
}
std::uint8_t len_of(const void *route, const Desc *d) {
    return static_cast<const std::uint8_t *>(route)[d->len_offset];
}
// A route's address holds 32 bits, whatever its length byte says.
unsigned clamp32(unsigned n) {
    return n > 32 ? 32 : n;
}

vogno refuse_retrieve(void *, void *, void *, std::uint32_t *, void *) {
    return KEL_SHARED_ERR_PARAMS_NOT_ALLOWED;
}

vogno match_run(void *route, std::uint32_t, void **, void *ctx, std::int32_t *outcome) {
    if (route == nullptr || ctx == nullptr) return KEL_SHARED_ERR_NULL_INPUT;
    const Record *r = static_cast<const Record *>(ctx);
    if (outcome == nullptr || r->owner == nullptr) return KEL_SHARED_ERR_NULL_RESULT;
    const Desc *d = static_cast<const Desc *>(r->owner);
    const unsigned len = len_of(route, d);
    if (len > r->le || len < r->ge) {
        *outcome = 0;
        return 0;
    }
    const unsigned bits = clamp32(len < r->len ? len : r->len);
    *outcome = leading_bits_equal(addr_of(route, d), r->addr, bits) ? 1 : 0;
    return 0;
}

constexpr kela::OpSpec kOps[] = {
    {"pfxmatch", shared_kela_ipv4_cmp_match_veri, shared_kela_ipv4_cmp_match_cons,
     shared_kela_ipv4_cmp_match_free,
     kela::ArgList{820,
                   4,
                   {{kela::ArgKind::Single, "ipv4_addr_t", 0, 0, 821},
                    {kela::ArgKind::Single, "uint32_t", 0, 0, 822},
                    {kela::ArgKind::Single, "uint32_t", 0, 0, 823},
                    {kela::ArgKind::Single, "uint32_t", 0, 0, 824}}}},
};
constexpr kela::TypeSpec kSpec{
    "kela_ipv4", nullptr, shared_kela_ipv4_base_print, shared_kela_ipv4_base_cmp, kOps,
    nullptr,     nullptr};

}  // namespace

extern "C" {

KELA_SHARED_API vogno shared_kela_ipv4_cvt_string(const char *text, void *, uint8_t *out) {
    if (text == nullptr) return KEL_SHARED_ERR_NULL_INPUT;
    std::uint8_t bytes[4] = {};
    if (!parse_address(kV4, text, bytes)) return KEL_SHARED_ERR_BAD_VALUE;
    if (out != nullptr) std::memcpy(out, bytes, sizeof bytes);
    return 0;
}

KELA_SHARED_API vogno shared_kela_pfxmatch_cvt_string(const char *addr_text, const char *len_text,
                                                      const char *ge_text, const char *le_text,
                                                      int32_t family, int32_t strict,
                                                      shared_kela_pfxmatch_td **out) {
    std::uint8_t addr[16] = {};
    std::uint32_t max = 0;
    if (family == kV6) {
        if (addr_text == nullptr) return KEL_SHARED_ERR_NULL_INPUT;
        if (!parse_address(kV6, addr_text, addr)) return KEL_SHARED_ERR_BAD_VALUE;
        max = 128;
    } else if (family == kV4) {
        if (vogno st = shared_kela_ipv4_cvt_string(addr_text, nullptr, addr); st != 0) return st;
        max = 32;
    } else {
        return KEL_SHARED_ERR_BAD_AFI;
    }
    std::uint32_t len = 0, ge = 0, le = 0;
    for (auto [text, value] : {std::pair{len_text, &len}, {ge_text, &ge}, {le_text, &le}})
        if (vogno st = kela::cvt_decimal(text, strict, value); st != 0) return st;
    if (strict != 0 && (len > max || ge > max || le > max || ge > le))
        return KEL_SHARED_ERR_BAD_LENGTH;
    if (out == nullptr) return 0;
    // Only the bytes the (stored, 8-bit) length covers are kept.
    const std::uint8_t len8 = static_cast<std::uint8_t>(len);
    const std::size_t room = (len8 + 7u) / 8u;
    kela::CPtr<Record> r = kela::zalloc<Record>(offsetof(Record, addr) + room);
    if (!r) return KEL_SHARED_ERR_NO_MEMORY;
    std::memcpy(r->addr, addr, room < max / 8 ? room : max / 8);
    r->len = len8;
    r->le = static_cast<std::uint8_t>(le);
    r->ge = static_cast<std::uint8_t>(ge);
    *out = r.release();
    return 0;
}

KELA_SHARED_API vogno shared_kela_ip_check_prefix(const uint8_t *bytes, uint32_t n, uint32_t len) {
    const std::uint32_t k = len / 8;
    if (k >= n) return 0;
    if ((bytes[k] & (0xFFu >> (len % 8))) != 0) return KEL_SHARED_ERR_HOST_BITS;
    for (std::uint32_t i = k + 1; i < n; ++i)
        if (bytes[i] != 0) return KEL_SHARED_ERR_HOST_BITS;
    return 0;
}

KELA_SHARED_API char *shared_kela_ipv4_base_print(void *, void *route, void *desc) {
    if (route == nullptr) return strdup("<<no destination prefix>>");
    if (desc == nullptr) return strdup("<<Internal error (no context)>>");
    const Desc *d = static_cast<const Desc *>(desc);
    char addr[256];
    char text[256 + 8];  // an address text and "/255" always fit
    if (qv_inet_ntop(QV_AF_INET, addr_of(route, d), addr, sizeof addr) != nullptr)
        std::snprintf(text, sizeof text, "%s/%u", addr, unsigned{len_of(route, d)});
    else
        std::snprintf(text, sizeof text, "%s", "<<no valid representation for IPv4 address>>");
    return strdup(text);
}

KELA_SHARED_API vogno shared_kela_ipv4_base_cmp(void *a, void *b, void *desc, int32_t *outcome) {
    if (a == nullptr || b == nullptr) return KEL_SHARED_ERR_NULL_INPUT;
    if (desc == nullptr || outcome == nullptr) return KEL_SHARED_ERR_NULL_RESULT;
    const Desc *d = static_cast<const Desc *>(desc);
    const unsigned len = len_of(a, d);
    *outcome = len == len_of(b, d) && leading_bits_equal(addr_of(a, d), addr_of(b, d), clamp32(len))
                   ? 1
                   : 0;
    return 0;
}

KELA_SHARED_API vogno shared_kela_ipv4_cmp_match_veri(uint32_t count, char **params, void *desc,
                                                      char **msg) {
    auto refuse = [&](vogno st, const char *text) {
        if (text != nullptr) kela::msg_replace(msg, text);
        return st;
    };
    if (desc == nullptr) return refuse(KEL_SHARED_ERR_NO_PARAM_ARRAY, nullptr);
    if (params == nullptr)
        return refuse(KEL_SHARED_ERR_NULL_INPUT, "Internal error:  no parameter array");
    if (count != 4) return refuse(KEL_SHARED_ERR_PARAM_COUNT, "Requires exactly four paramters.");
    for (int i = 0; i < 4; ++i)
        if (params[i] == nullptr)
            return refuse(KEL_SHARED_ERR_VARIABLE, "Does not (yet) substitute for variables.");
    Record *raw = nullptr;
    if (vogno st = shared_kela_pfxmatch_cvt_string(params[0], params[1], params[2], params[3], kV4,
                                                   1, &raw);
        st != 0)
        return refuse(st, "Invalid prefix match parameters.");
    kela::CPtr<Record> r(raw);
    // Only the stored bytes are seen: bits of dropped bytes do not count.
    if (shared_kela_ip_check_prefix(r->addr, (r->len + 7u) / 8u, r->len) != 0)
        return refuse(KEL_SHARED_ERR_HOST_BITS, "Invalid prefix: Bits set outside of mask.");
    return 0;
}

KELA_SHARED_API vogno shared_kela_ipv4_cmp_match_cons(uint32_t count, char **params, void **slots,
                                                      void *desc, rasf_inst_t **out) {
    if (slots == nullptr && desc != nullptr) return KEL_SHARED_ERR_NULL_INPUT;
    if (desc == nullptr) return KEL_SHARED_ERR_NO_PARAM_ARRAY;
    if (slots[0] == nullptr) return KEL_SHARED_ERR_VARIABLE;
    // The verifier has accepted four texts; the numbers are read leniently.
    Record *raw = nullptr;
    if (vogno st = shared_kela_pfxmatch_cvt_string(params[0], params[1], params[2], params[3], kV4,
                                                   0, &raw);
        st != 0)
        return st;
    kela::CPtr<Record> r(raw);
    r->owner = desc;
    vogno st = kela::InstanceBuilder(kela::InstKind::Cmp, out, count, params, slots, r.get())
                   .add(rasf_kela_add_cmp_instance_function_cmp, &match_run)
                   .finish();
    if (st == 0) r.release();
    return st;
}

KELA_SHARED_API vogno shared_kela_ipv4_cmp_match_free(void *ctx) {
    std::free(ctx);
    return 0;
}

KELA_SHARED_API vogno shared_kela_ipv4_retr_veri(uint32_t, char **params, void *, char **) {
    return params != nullptr && params[0] != nullptr ? KEL_SHARED_ERR_PARAMS_NOT_ALLOWED
                                                     : KEL_SHARED_ERR_VARIABLE;
}

KELA_SHARED_API vogno shared_kela_ipv4_retr_cons(uint32_t count, char **params, void **slots,
                                                 void *, rasf_inst_t **out) {
    return kela::retriever_cons(count, params, slots, nullptr, out, &refuse_retrieve);
}

KELA_SHARED_API vogno shared_kela_ipv4_base_init(void *reg_ctx, char *errbuf, int32_t errlen,
                                                 Desc *desc) {
    return kela::register_type(kSpec, reg_ctx, errbuf, errlen, desc, kela::default_locations());
}

}  // extern "C"

KELA_REGISTRATION_ENTRY(shared_kela_ipv4_base_init_v2, Desc, kSpec)
