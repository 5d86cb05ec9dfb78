// SPDX-License-Identifier: Apache-2.0
// The prefix attribute: registration, the prefix-set operators with their
// verifier, constructors and print, the client's extra operators, the setter
// "assign", the refusing retriever, and prefix-list decoding.
#include <cstdio>
#include <cstring>
#include <string>

#include "kela_prefix.hpp"
#include "kela_register.hpp"
#include "kela_segments.hpp"
#include "kela_uint.hpp"
#include "vog.h"

using namespace kela::prefix;

namespace {

using Ctx = shared_kela_prefix_match_ctx_td;
using Desc = shared_kela_prefix_desc_td;

// ---- prefix-set operators -------------------------------------------------------

vogno construct_set(std::uint32_t count, char **params, void **slots, void *desc, rasf_inst_t **out,
                    shared_kela_prefix_cmp_td kind);

char *set_print(std::uint32_t, std::uint32_t count, char **params, void **, const char *print_ctx) {
    if (count == 0) return strdup("");
    return print_first_entry(count, params, print_ctx, true);
}

vogno construct_set(std::uint32_t count, char **params, void **slots, void *desc, rasf_inst_t **out,
                    shared_kela_prefix_cmp_td kind) {
    if (slots == nullptr && count != 0 && desc != nullptr) return KEL_SHARED_ERR_NULL_INPUT;
    if (slots != nullptr && desc != nullptr && count != 0 && slots[0] == nullptr)
        return KEL_SHARED_ERR_VARIABLE;
    if (desc == nullptr) return KEL_SHARED_ERR_NO_PARAM_ARRAY;
    const Desc *d = static_cast<const Desc *>(desc);

    std::unique_ptr<Ctx, vogno (*)(void *)> ctx(static_cast<Ctx *>(std::calloc(1, sizeof(Ctx))),
                                                shared_kela_prefix_cmp_match_free);
    if (!ctx) return KEL_SHARED_ERR_NO_MEMORY;
    ctx->get_value = d->get_value;
    ctx->cmp = kind;
    if (vogno st = match_ctx_build(count, params, ctx.get()); st != 0) return st;

    const char *print_ctx = nullptr;
    if (kind == SHARED_KELA_PREFIX_CMP_MATCH) {
        // Without room for the text the operator simply prints nothing.
        const std::size_t n = std::strlen(kela::nz(d->name)) + std::strlen(" in (%") + 1;
        ctx->print_ctx = static_cast<char *>(std::malloc(n));
        if (ctx->print_ctx != nullptr)
            std::snprintf(ctx->print_ctx, n, "%s%s", kela::nz(d->name), " in (%");
        print_ctx = ctx->print_ctx;
    } else {
        print_ctx = kind == SHARED_KELA_PREFIX_CMP_LONGER ? "destination longer-than (%"
                                                          : "destination or-longer (%";
    }
    kela::InstanceBuilder inst(kela::InstKind::Cmp, out, count, params, slots, ctx.get());
    inst.add(rasf_kela_add_cmp_instance_function_cmp, &match_ctx_cmp)
        .add(rasf_kela_add_cmp_instance_function_print, &set_print);
    if (print_ctx != nullptr) inst.add(rasf_kela_add_cmp_instance_function_print_ctx, print_ctx);
    if (vogno st = inst.finish(); st != 0) return st;
    ctx.release();
    return 0;
}

// ---- extra operators ----------------------------------------------------------------

vogno extra_veri(std::uint32_t count, char **params, void *, char **msg) {
    if (count == 0 && params == nullptr) return 0;
    kela::msg_if_empty(msg, "Parameters are not allowed !!!");
    return KEL_SHARED_ERR_PARAM_COUNT;
}

vogno extra_cmp(void *route, std::uint32_t, void **, void *ctx, std::int32_t *outcome) {
    if (outcome == nullptr) return KEL_SHARED_ERR_NULL_RESULT;
    *outcome = 0;
    auto *entry = static_cast<shared_kela_prefix_extra_op_td *>(ctx);
    if (entry == nullptr || route == nullptr || entry->test == nullptr)
        return KEL_SHARED_ERR_NULL_RESULT;
    std::int32_t flag = 0;
    if (vogno st = entry->test(entry, route, entry->arg, &flag); st != 0) return st;
    if (flag != 0) *outcome = 1;
    return 0;
}

vogno extra_cons(std::uint32_t count, char **params, void **slots, void *entry, rasf_inst_t **out) {
    return kela::InstanceBuilder(kela::InstKind::Cmp, out, count, params, slots, entry)
        .add(rasf_kela_add_cmp_instance_function_cmp, &extra_cmp)
        .finish();
}

void register_extra_ops(kela::Registration &reg, void *desc) {
    static constexpr kela::OpSpec kExtra{nullptr, extra_veri, extra_cons, nullptr,
                                         kela::open_run("uint32_t", 2938, 2939)};
    auto *d = static_cast<Desc *>(desc);
    for (std::uint32_t i = 0; i < d->n_ops && d->ops != nullptr; ++i) {
        kela::OpSpec op = kExtra;
        op.name = d->ops[i].name;
        reg.add_operator(op, d->ops[i].locations, &d->ops[i]);
    }
}

// ---- "assign" -------------------------------------------------------------------------

vogno assign_set(void *route, std::uint32_t, void **slots, void *desc) {
    auto *d = static_cast<Desc *>(desc);
    if (d == nullptr || d->set_value == nullptr) return KEL_SHARED_ERR_NULL_RESULT;
    // The framework filled the slot for its "ip_addr_t" argument; it goes to
    // the client unread.
    return d->set_value(d, route, slots != nullptr ? slots[0] : nullptr, d);
}

char *assign_print(std::uint32_t, std::uint32_t count, char **params, void **, void *desc) {
    if (count == 0 || params == nullptr || params[0] == nullptr) return nullptr;
    const char *name = kela::nz(desc != nullptr ? static_cast<Desc *>(desc)->name : nullptr);
    const std::size_t n = std::strlen("set %s %s") + std::strlen(name) + std::strlen(params[0]) + 1;
    char *text = static_cast<char *>(std::malloc(n));
    if (text != nullptr) std::snprintf(text, n, "set %s %s", name, params[0]);
    return text;
}

vogno cmp_match_cons(std::uint32_t c, char **p, void **s, void *d, rasf_inst_t **o) {
    return construct_set(c, p, s, d, o, SHARED_KELA_PREFIX_CMP_MATCH);
}

constexpr kela::OpSpec kOps[] = {
    {"pfxmatch", shared_kela_prefix_cmp_match_veri, shared_kela_prefix_cmp_match_cons,
     shared_kela_prefix_cmp_match_free, kela::open_run("uint32_t", 2859, 2860)},
    {"pfxlonger", shared_kela_prefix_cmp_match_veri, shared_kela_prefix_cmp_longer_cons,
     shared_kela_prefix_cmp_match_free, kela::open_run("uint32_t", 2877, 2878)},
    {"pfxorlonger", shared_kela_prefix_cmp_match_veri, shared_kela_prefix_cmp_orlonger_cons,
     shared_kela_prefix_cmp_match_free, kela::open_run("uint32_t", 2895, 2896)},
};
constexpr kela::OpSpec kAssign{"assign", shared_kela_prefix_set_assign_veri,
                               shared_kela_prefix_set_assign_cons, nullptr,
                               kela::one_arg("ip_addr_t", 2914, 2915)};
constexpr kela::TypeSpec kSpec{"kela_prefix",
                               nullptr,
                               shared_kela_prefix_base_print,
                               shared_kela_prefix_base_cmp,
                               kOps,
                               &kAssign,
                               nullptr,
                               nullptr,
                               false,
                               register_extra_ops};

// ---- decoding ---------------------------------------------------------------------------

using SpecArray = shared_kela_prefix_matchspec_td **;

// Resizes the array to `n` slots, zero-filling slots beyond `used`; false
// (array unchanged) when it cannot.
bool resize(SpecArray *array, std::size_t used, std::size_t n) {
    if (n == 0) {
        std::free(*array);
        *array = nullptr;
        return true;
    }
    auto grown = static_cast<SpecArray>(std::realloc(*array, n * sizeof(**array)));
    if (grown == nullptr) return false;
    for (std::size_t i = used; i < n; ++i) grown[i] = nullptr;
    *array = grown;
    return true;
}

}  // namespace

extern "C" {

KELA_SHARED_API vogno shared_kela_prefix_cmp_match_veri(uint32_t count, char **params, void *,
                                                        char **msg) {
    using kela::msg_if_empty;
    if (static_cast<std::int32_t>(count) < 0 || (count != 0 && params == nullptr)) {
        msg_if_empty(msg, "Internal error:  no parameter array");
        return KEL_SHARED_ERR_NULL_INPUT;
    }
    if (count == 0) return 0;
    kela::Segments segs(count, params);
    if (!segs) {
        msg_if_empty(msg, "Internal error:  malformed paramters");
        return KEL_SHARED_ERR_BAD_VALUE;
    }
    vogno st = 0;
    kela::WalkEnd end = segs.each(
        4,
        [](char **a) -> vogno {
            ip_addr_t addr, mask;
            if (a[1] != nullptr && std::strlen(a[1]) > 3)
                return shared_kela_prefix_cvt_string_to_pfx_acl(a[0], a[1], &addr, &mask);
            std::uint32_t len, ge, le;
            return shared_kela_prefix_cvt_string_to_pfx(a[0], a[1], a[2], a[3], &addr, &len, &ge,
                                                        &le, 1);
        },
        &st);
    if (end == kela::WalkEnd::Stopped) {
        msg_if_empty(msg, "Invalid prefix match parameters.");
        return st;
    }
    if (end == kela::WalkEnd::Mismatch) {
        msg_if_empty(msg, "Parameter mismatch.");
        return 4;
    }
    return 0;
}

KELA_SHARED_API vogno shared_kela_prefix_cmp_match_cons(uint32_t count, char **params, void **slots,
                                                        void *desc, rasf_inst_t **inst) {
    return cmp_match_cons(count, params, slots, desc, inst);
}

KELA_SHARED_API vogno shared_kela_prefix_cmp_longer_cons(uint32_t count, char **params,
                                                         void **slots, void *desc,
                                                         rasf_inst_t **inst) {
    return construct_set(count, params, slots, desc, inst, SHARED_KELA_PREFIX_CMP_LONGER);
}

KELA_SHARED_API vogno shared_kela_prefix_cmp_orlonger_cons(uint32_t count, char **params,
                                                           void **slots, void *desc,
                                                           rasf_inst_t **inst) {
    return construct_set(count, params, slots, desc, inst, SHARED_KELA_PREFIX_CMP_ORLONGER);
}

KELA_SHARED_API vogno shared_kela_prefix_set_assign_veri(uint32_t count, char **params, void *,
                                                         char **msg) {
    vogno st = 0;
    ip_addr_t addr;
    if (count != 1)
        st = KEL_SHARED_ERR_PARAM_COUNT;
    else if (params == nullptr || params[0] == nullptr)  // a variable is not a bare address
        st = KEL_SHARED_ERR_NULL_PARAM;
    else if (shared_kela_prefix_cvt_string_to_ipaddr(params[0], &addr, nullptr) != 0)
        st = KEL_SHARED_ERR_BAD_VALUE;
    kela::msg_replace(msg, vog_strerror(st));
    return st;
}

KELA_SHARED_API vogno shared_kela_prefix_set_assign_cons(uint32_t count, char **params,
                                                         void **slots, void *desc,
                                                         rasf_inst_t **inst) {
    if (count != 1) return KEL_SHARED_ERR_PARAM_COUNT;
    if (params == nullptr || slots == nullptr || slots[0] == nullptr)
        return KEL_SHARED_ERR_NULL_PARAM;
    return kela::InstanceBuilder(kela::InstKind::Set, inst, 1, params, slots, desc)
        .add(rasf_kela_add_set_instance_function_set, &assign_set)
        .add(rasf_kela_add_set_instance_function_print, &assign_print)
        .finish();
}

KELA_SHARED_API vogno shared_kela_prefix_retr_veri(uint32_t, char **, void *, char **) {
    return KEL_SHARED_ERR_PARAMS_NOT_ALLOWED;
}

KELA_SHARED_API vogno shared_kela_prefix_retr_retrieve(void *, void *, void *, uint32_t *, void *) {
    return KEL_SHARED_ERR_PARAMS_NOT_ALLOWED;
}

KELA_SHARED_API vogno shared_kela_prefix_retr_cons(uint32_t count, char **params, void **slots,
                                                   void *, rasf_inst_t **inst) {
    return kela::InstanceBuilder(kela::InstKind::Retriever, inst, count, params, slots, nullptr)
        .add(rasf_kela_add_retriever_instance_function_retrieve, &shared_kela_prefix_retr_retrieve)
        .finish();
}

KELA_SHARED_API void shared_kela_decode_pfxs(uint32_t count, char **params,
                                             shared_kela_pcl_query_pfx_ctx_t *q) {
    if (q == nullptr)
        assertion(
            "void shared_kela_decode_pfxs(uint32_t, char **, shared_kela_pcl_query_pfx_ctx_t *)");
    if (count == 0) {
        q->status = 0;
        return;
    }
    if (params == nullptr) {
        q->status = KEL_SHARED_ERR_BAD_VALUE;
        return;
    }
    std::size_t used = q->count > 0 ? static_cast<std::size_t>(q->count) : 0;
    std::size_t room = used + count / 5;
    if (!resize(&q->pfxs, used, room)) {
        q->status = KEL_SHARED_ERR_NO_MEMORY;
        return;
    }
    kela::Segments segs(count, params);
    if (!segs) {
        q->status = KEL_SHARED_ERR_BAD_VALUE;
        resize(&q->pfxs, used, used);
        return;
    }
    vogno st = 0;
    kela::WalkEnd end = segs.each(
        4,
        [&](char **a) -> vogno {
            if (used == room) {
                if (!resize(&q->pfxs, used, room + 20)) return KEL_SHARED_ERR_NO_MEMORY;
                room += 20;
            }
            shared_kela_prefix_matchspec_td *spec = nullptr;
            if ((q->flags & SHARED_KELA_QUERY_ACL) != 0) {
                if (shared_kela_prefix_cvt_string_to_matchspec_acl(a[0], a[1], a[2], a[3], &spec) !=
                    0)
                    return 4;
                q->pfxs[used++] = spec;
                return 0;
            }
            if ((q->flags & (SHARED_KELA_QUERY_EXACT | SHARED_KELA_QUERY_RANGE)) == 0) return 0;
            if (shared_kela_prefix_cvt_string_to_matchspec(a[0], a[1], a[2], a[3], &spec) != 0)
                return 4;
            const bool exact = spec->len == spec->ge && spec->ge == spec->le;
            if ((exact && (q->flags & SHARED_KELA_QUERY_EXACT) != 0) ||
                (!exact && (q->flags & SHARED_KELA_QUERY_RANGE) != 0))
                q->pfxs[used++] = spec;
            else
                free_spec(spec);
            return 0;
        },
        &st);
    q->status = end == kela::WalkEnd::Complete ? 0 : end == kela::WalkEnd::Mismatch ? 4 : st;
    resize(&q->pfxs, used, used);  // shrinking cannot fail to keep the elements
    q->count = static_cast<std::int32_t>(used);
}

KELA_SHARED_API void shared_kela_free_query_ctx(shared_kela_pcl_query_pfx_ctx_t *q) {
    if (q == nullptr) return;
    for (std::int32_t i = 0; i < q->count; ++i) free_spec(q->pfxs[i]);
    std::free(q->pfxs);
    std::memset(q, 0, sizeof *q);
}

}  // extern "C"

KELA_REGISTRATION_ENTRY(shared_kela_prefix_base_init, shared_kela_prefix_desc_td, kSpec)
