// SPDX-License-Identifier: Apache-2.0
// MAC address attribute: a 6-byte address that the client's callback
// produces, "macaddrmatch" against a list, and the dotted text form.
#include <cstring>

#include "kela_internal.hpp"
#include "kela_register.hpp"
#include "kela_segments.hpp"
#include "kela_valueset.hpp"

namespace {

using Desc = shared_kela_mac_address_desc_td;
using Node = shared_kela_mac_address_node_td;
using Ctx = shared_kela_mac_address_match_ctx_td;

// A value as the library asks for it: 6 zero bytes and the length 6 until
// the client fills it.
struct MacValue {
    std::uint8_t bytes[7] = {0, 0, 0, 0, 0, 0, 6};
    unsigned len() const { return bytes[6] > 6 ? 6 : bytes[6]; }
};

bool same(const std::uint8_t *a, const std::uint8_t *b, unsigned n) {
    return std::memcmp(a, b, n) == 0;
}

void free_list(Node *n) {
    while (n != nullptr) {
        Node *next = n->next;
        std::free(n);
        n = next;
    }
}

// Builds the list of a "macaddrmatch" vector, newest first.  On failure
// nothing stays allocated and *first is null.
vogno build_list(std::uint32_t count, char **params, Node **first) {
    *first = nullptr;
    kela::Segments segs(count, params);
    if (!segs) return KEL_SHARED_ERR_BAD_VALUE;
    vogno st = 0;
    kela::WalkEnd end = segs.each(
        1,
        [&](char **args) -> vogno {
            std::uint8_t bytes[8] = {};
            if (vogno c = shared_kela_cvt_string_to_mac_address(args[0], bytes); c != 0) return c;
            Node *n = static_cast<Node *>(std::calloc(1, sizeof(Node)));
            if (n == nullptr) return KEL_SHARED_ERR_NO_MEMORY;
            std::memcpy(n->addr, bytes, 6);
            n->len = 6;
            n->next = *first;
            if (*first != nullptr) (*first)->prev = n;
            *first = n;
            return 0;
        },
        &st);
    if (end == kela::WalkEnd::Complete) return 0;
    free_list(*first);
    *first = nullptr;
    return end == kela::WalkEnd::Mismatch ? 4 : st;
}

constexpr kela::OpSpec kOps[] = {
    {"macaddrmatch", shared_kela_mac_address_cmp_match_veri, shared_kela_mac_address_cmp_match_cons,
     shared_kela_mac_address_cmp_match_free, kela::open_run("uint32_t", 658, 659)},
};
constexpr kela::TypeSpec kSpec{"kela_mac_address",
                               nullptr,
                               shared_kela_mac_address_base_print,
                               shared_kela_mac_address_base_cmp,
                               kOps,
                               nullptr,
                               nullptr};

}  // namespace

extern "C" {

KELA_SHARED_API int HextoInt(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

KELA_SHARED_API vogno shared_kela_cvt_string_to_mac_address(const char *text, uint8_t *out) {
    if (text == nullptr) return KEL_SHARED_ERR_NULL_PARAM;
    // Groups of four digits between dots; the first group of another length
    // ends the conversion.  A fourth group would not fit the 6 bytes and is
    // not read.
    const char *group = text;
    for (int g = 0; g < 3; ++g) {
        const char *dot = std::strchr(group, '.');
        const std::size_t n =
            dot != nullptr ? static_cast<std::size_t>(dot - group) : std::strlen(group);
        if (n != 4) break;
        out[2 * g] = static_cast<std::uint8_t>(HextoInt(group[0]) * 16 + HextoInt(group[1]));
        out[2 * g + 1] = static_cast<std::uint8_t>(HextoInt(group[2]) * 16 + HextoInt(group[3]));
        if (dot == nullptr) break;
        group = dot + 1;
    }
    return 0;
}

KELA_SHARED_API char *shared_kela_cvt_mac_address_to_string(const uint8_t *bytes, uint8_t n) {
    static const char kDigits[] = "0123456789abcdef";
    char text[16];
    std::size_t at = 0;
    for (unsigned i = 0; i < n && i < 6; ++i) {
        if (i != 0 && i % 2 == 0) text[at++] = '.';
        text[at++] = kDigits[bytes[i] >> 4];
        text[at++] = kDigits[bytes[i] & 0xF];
    }
    text[at] = '\0';
    return strdup(text);
}

KELA_SHARED_API char *shared_kela_mac_address_base_print(void *, void *route, void *desc) {
    if (route == nullptr) return strdup("<<no route>>");
    auto *d = static_cast<Desc *>(desc);
    if (d == nullptr || d->get_value == nullptr) return strdup("<<Internal error (no context)>>");
    MacValue v;
    vogno st = d->get_value(d, route, v.bytes);
    if (st == 19) return strdup("<<no mac address>>");
    if (st != 0) return strdup("<<Internal error (no mac address)>>");
    return shared_kela_cvt_mac_address_to_string(v.bytes, static_cast<std::uint8_t>(v.len()));
}

KELA_SHARED_API vogno shared_kela_mac_address_base_cmp(void *a, void *b, void *desc,
                                                       int32_t *outcome) {
    if (a == nullptr || b == nullptr) {
        if (outcome != nullptr) *outcome = 0;
        return KEL_SHARED_ERR_NULL_INPUT;
    }
    auto *d = static_cast<Desc *>(desc);
    if (d == nullptr || outcome == nullptr || d->get_value == nullptr)
        return KEL_SHARED_ERR_NULL_RESULT;
    *outcome = 0;
    MacValue va, vb;
    if (vogno st = d->get_value(d, a, va.bytes); st != 0) return st;
    if (vogno st = d->get_value(d, b, vb.bytes); st != 0) return st;
    *outcome = same(va.bytes, vb.bytes, va.len()) ? 1 : 0;
    return 0;
}

KELA_SHARED_API vogno shared_kela_mac_address_cmp_match_veri(uint32_t count, char **params,
                                                             void *desc, char **msg) {
    using kela::msg_if_empty;
    if (vogno st = kela::list_veri_checks(count, params, desc, msg); st != 0) return st;
    kela::Segments segs(count, params);
    if (!segs) {
        msg_if_empty(msg, "Internal error: malformed parameters");
        return KEL_SHARED_ERR_BAD_VALUE;
    }
    std::uint8_t scratch[8];
    vogno st = 0;
    kela::WalkEnd end = segs.each(
        1, [&](char **args) { return shared_kela_cvt_string_to_mac_address(args[0], scratch); },
        &st);
    if (end == kela::WalkEnd::Mismatch) {
        msg_if_empty(msg, "Parameter mismatch.");
        return 4;
    }
    return st;
}

KELA_SHARED_API vogno shared_kela_mac_address_cmp_match_cons(uint32_t count, char **params,
                                                             void **slots, void *desc,
                                                             rasf_inst_t **out) {
    if (desc == nullptr) return KEL_SHARED_ERR_NO_PARAM_ARRAY;
    if (count != 0 && slots == nullptr) return KEL_SHARED_ERR_NULL_INPUT;
    if (slots != nullptr && count != 0 && slots[0] == nullptr) return KEL_SHARED_ERR_VARIABLE;
    std::unique_ptr<Ctx, vogno (*)(void *)> ctx(static_cast<Ctx *>(std::calloc(1, sizeof(Ctx))),
                                                shared_kela_mac_address_cmp_match_free);
    if (!ctx) return KEL_SHARED_ERR_NO_MEMORY;
    ctx->get_value = static_cast<Desc *>(desc)->get_value;
    if (vogno st = build_list(count, params, &ctx->first); st != 0) return st;
    vogno st =
        kela::InstanceBuilder(kela::InstKind::Cmp, out, count, params, slots, ctx.get())
            .add(rasf_kela_add_cmp_instance_function_cmp, &shared_kela_mac_address_cmp_match_run)
            .finish();
    if (st == 0) ctx.release();
    return st;
}

KELA_SHARED_API vogno shared_kela_mac_address_cmp_match_run(void *route, uint32_t count,
                                                            void **slots, void *context,
                                                            int32_t *outcome) {
    if (count == 0 || slots == nullptr) return KEL_SHARED_ERR_NULL_INPUT;
    if (outcome == nullptr) return KEL_SHARED_ERR_NULL_RESULT;
    *outcome = 0;
    auto *ctx = static_cast<Ctx *>(context);
    if (ctx == nullptr || ctx->get_value == nullptr) return KEL_SHARED_ERR_NO_PARAM_ARRAY;
    MacValue v;
    vogno st = ctx->get_value(ctx, route, v.bytes);
    if (st == 19) return 0;
    if (st != 0) return st;
    for (const Node *n = ctx->first; n != nullptr; n = n->next) {
        if (same(n->addr, v.bytes, v.len())) {
            *outcome = 1;
            break;
        }
    }
    return 0;
}

KELA_SHARED_API vogno shared_kela_mac_address_cmp_match_free(void *context) {
    auto *ctx = static_cast<Ctx *>(context);
    if (ctx == nullptr) return 0;
    free_list(ctx->first);
    std::free(ctx);
    return 0;
}

}  // extern "C"

KELA_REGISTRATION_ENTRY(shared_kela_mac_address_base_init, Desc, kSpec)
