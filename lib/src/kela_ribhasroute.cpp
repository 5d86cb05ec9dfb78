// SPDX-License-Identifier: Apache-2.0
// The "rib-has-route" attribute: does the routing table hold a route for an
// entry of a prefix set?  "in" asks the routing-table client while a route
// is evaluated; "async" hands the question to the asynchronous policy client
// once per evaluation key and reads its answer back.
#include <atomic>
#include <cstdio>
#include <cstring>

#include "btree_s.h"
#include "kela_callbacks.hpp"
#include "kela_prefix.hpp"
#include "kela_register.hpp"
#include "kela_segments.hpp"
#include "kela_uint.hpp"
#include "pcl_async.h"

using namespace kela::prefix;

extern "C" {
KELA_SHARED_API void *kela_eecompi_rhr_info_list = nullptr;
}

namespace {

using Desc = shared_kela_rhr_desc_td;
using MatchCtx = shared_kela_rhr_match_ctx_td;
using AsyncCtx = shared_kela_rhr_async_ctx_td;

constexpr std::uint32_t kMaxAsyncEntries = 16;

// ---- shared by both operators ------------------------------------------------------

char *print(std::uint32_t, std::uint32_t count, char **params, void **, const char *print_ctx) {
    if (count == 0 || params == nullptr) return nullptr;
    return print_first_entry(count, params, print_ctx, false);
}

// The verifier's walk: each entry converts strictly; `shape` checks its
// bounds and may refuse with a message and status.
template <typename Shape>
vogno verify_entries(std::uint32_t count, char **params, char **msg, Shape &&shape) {
    using kela::msg_replace;
    kela::Segments segs(count, params);
    if (!segs) {
        msg_replace(msg, "Internal error:  malformed paramters");
        return KEL_SHARED_ERR_BAD_VALUE;
    }
    const char *refusal = nullptr;
    vogno st = 0;
    kela::WalkEnd end = segs.each(
        4,
        [&](char **a) -> vogno {
            ip_addr_t addr;
            std::uint32_t len = 0, ge = 0, le = 0;
            if (vogno c = shared_kela_rhr_cvt_string_to_pfx(a[0], a[1], a[2], a[3], &addr, &len,
                                                            &ge, &le, 1);
                c != 0) {
                refusal = "Invalid prefix match parameters.";
                return c;
            }
            return shape(len, ge, le, &refusal);
        },
        &st);
    if (end == kela::WalkEnd::Mismatch) {
        msg_replace(msg, "Parameter mismatch.");
        return 4;
    }
    if (end == kela::WalkEnd::Stopped) msg_replace(msg, refusal);
    return st;
}

// The verifiers' checks before anything is parsed.
vogno veri_checks(std::uint32_t count, char **params, char **msg) {
    if (count == 0) {
        kela::msg_replace(msg, "Internal error:  no parameters");
        return KEL_SHARED_ERR_NULL_INPUT;
    }
    if (params == nullptr) {
        kela::msg_replace(msg, "Internal error:  no parameter array");
        return KEL_SHARED_ERR_NULL_INPUT;
    }
    return 0;
}

// The constructors' common checks.
vogno cons_checks(std::uint32_t count, void **slots, void *desc) {
    if (desc == nullptr) return KEL_SHARED_ERR_NO_PARAM_ARRAY;
    if (count != 0 && slots == nullptr) return KEL_SHARED_ERR_NULL_INPUT;
    if (slots != nullptr && count != 0 && slots[0] == nullptr) return KEL_SHARED_ERR_VARIABLE;
    return 0;
}

// ---- "in" ------------------------------------------------------------------------------

vogno match_update(void *, void *, std::uint32_t, char **) {
    return 0;
}

vogno match_run(void *route, std::uint32_t count, void **, void *context, std::int32_t *outcome) {
    if (outcome != nullptr) *outcome = 0;
    if (route == nullptr) return KEL_SHARED_ERR_NO_PARAM_ARRAY;
    if (count == 0) return 0;
    auto *ctx = static_cast<MatchCtx *>(context);
    if (ctx == nullptr || outcome == nullptr || ctx->get_value == nullptr)
        return KEL_SHARED_ERR_NO_PARAM_ARRAY;
    ip_rib_conn_p conn = nullptr;
    rib_tableid_td table = 0;
    if (vogno st = ctx->get_value(route, &conn, &table); st != 0) return st;
    // A failing entry does not stop the walk; the last status made is kept.
    vogno st = 0;
    for (std::int32_t i = 0; i < ctx->count && *outcome != 1; ++i) {
        int found = 0;
        ip_rib_route2 *r = nullptr;
        st = shared_kela_rhr_match(conn, table, ctx->specs[i], &found, &r);
        *outcome = found != 0 ? 1 : 0;
    }
    return st;
}

void free_match_ctx(MatchCtx *ctx) {
    if (ctx == nullptr) return;
    for (std::int32_t i = 0; i < ctx->count; ++i) free_spec(ctx->specs[i]);
    std::free(ctx->specs);
    std::free(ctx);
}

// Fills the context's entries; 4 for anything but exact-length
// entries of four texts.
vogno build_specs(std::uint32_t count, char **params, MatchCtx *ctx) {
    kela::Segments segs(count, params);
    if (!segs) return KEL_SHARED_ERR_BAD_VALUE;
    vogno st = 0;
    kela::WalkEnd end = segs.each(
        4,
        [&](char **a) -> vogno {
            shared_kela_prefix_matchspec_td *raw = nullptr;
            if (shared_kela_prefix_cvt_string_to_matchspec(a[0], a[1], a[2], a[3], &raw) != 0)
                return 4;
            SpecPtr spec(raw);
            if (spec->len != spec->ge) return 4;
            auto **grown = static_cast<shared_kela_prefix_matchspec_td **>(
                std::realloc(ctx->specs, (static_cast<std::size_t>(ctx->count) + 1) * sizeof(raw)));
            if (grown == nullptr) return KEL_SHARED_ERR_NO_MEMORY;
            ctx->specs = grown;
            ctx->specs[ctx->count++] = spec.release();
            return 0;
        },
        &st);
    return end == kela::WalkEnd::Mismatch ? 4 : st;
}

// ---- "async" -------------------------------------------------------------------------

vogno info_alloc(void **out, std::uint32_t size) {
    *out = std::malloc(size);
    return *out != nullptr ? 0 : KEL_SHARED_FOREIGN_BTREE_NO_MEMORY;
}
void info_free(void *p) {
    std::free(p);
}
vogno info_insert(void *tree, std::uint64_t key, void *value) {
    return btree_s_insert(tree, key, value, 0);
}

// Fields of the evaluation record the request copies.
struct EvalFields {
    std::uint64_t session;
    std::uint16_t client;
    std::uint8_t afi;
    std::uint64_t key;
};
EvalFields read_eval(const void *rec) {
    return {kela::load_at<std::uint64_t>(rec, 0), kela::load_at<std::uint16_t>(rec, 8),
            kela::load_at<std::uint8_t>(rec, 10), kela::load_at<std::uint64_t>(rec, 16)};
}

vogno async_update(void *rec, void *context, std::uint32_t count, char **params) {
    auto *ctx = static_cast<AsyncCtx *>(context);
    if (rec == nullptr || ctx == nullptr) return KEL_SHARED_ERR_NO_PARAM_ARRAY;
    const EvalFields ev = read_eval(rec);
    void *known = nullptr;
    if (btree_s_find(ctx->info_list, ev.key, &known) == 0) return 0;  // already requested
    if (count < 5 || params == nullptr) return KEL_SHARED_ERR_PARAM_COUNT;

    const std::uint32_t entries = count / 5;
    std::uint32_t n4 = 0, n6 = 0;
    for (std::uint32_t i = 0; i < entries; ++i) {
        const char *a = params[5 * i + 1];
        (a != nullptr && std::strchr(a, ':') != nullptr ? n6 : n4) += 1;
    }
    kela::CPtr<pcl_rhr_v4_entry> v4(
        static_cast<pcl_rhr_v4_entry *>(std::calloc(n4 ? n4 : 1, sizeof(pcl_rhr_v4_entry))));
    kela::CPtr<pcl_rhr_v6_entry> v6(
        static_cast<pcl_rhr_v6_entry *>(std::calloc(n6 ? n6 : 1, sizeof(pcl_rhr_v6_entry))));
    if (!v4 || !v6) return KEL_SHARED_ERR_NO_MEMORY;
    std::uint32_t i4 = 0, i6 = 0;
    for (std::uint32_t i = 0; i < entries; ++i) {
        const char *a = params[5 * i + 1], *l = params[5 * i + 2];
        const std::uint8_t len = static_cast<std::uint8_t>(l != nullptr ? std::atoi(l) : 0);
        if (a != nullptr && std::strchr(a, ':') != nullptr) {
            parse_address(kV6, a, v6.get()[i6].addr);
            v6.get()[i6++].len = len;
        } else {
            if (a != nullptr) parse_address(kV4, a, v4.get()[i4].addr);
            v4.get()[i4++].len = len;
        }
    }
    pcl_rhr_request req{};
    static_assert(sizeof(pcl_rhr_request) == 56);
    req.client = ev.client;
    req.afi = ev.afi;
    req.session = ev.session;
    req.n_v4 = n4;
    req.v4 = v4.get();
    req.n_v6 = n6;
    req.v6 = v6.get();
    req.key = ev.key;
    std::uint32_t id = 0;
    const vogno st = pcl_async_rib_has_route_register(&req, &id, kela_rib_callback);
    kela::CPtr<std::uint32_t> cell(
        st == 0 ? static_cast<std::uint32_t *>(std::malloc(sizeof(std::uint32_t))) : nullptr);
    if (cell) *cell = id;
    if (ctx->info_list != nullptr && ev.key != 0 && id != 0 && cell) {
        if (vogno ins = info_insert(ctx->info_list, ev.key, cell.get()); ins != 0) return ins;
        cell.release();  // the tree keeps it
        pcli_rhr_async_set_ctx(ev.key, ctx);
        std::atomic_ref<std::uint32_t>(ctx->handed).store(1, std::memory_order_relaxed);
        return 0;
    }
    return st;
}

vogno async_run(void *, std::uint32_t, void **, void *context, std::int32_t *outcome, void *,
                std::uint64_t key) {
    auto *ctx = static_cast<AsyncCtx *>(context);
    if (ctx == nullptr || key == 0) return 2;
    if (outcome != nullptr) *outcome = 0;
    void *cell = nullptr;
    if (btree_s_find(ctx->info_list, key, &cell) != 0 || cell == nullptr) return 16;
    std::uint8_t answer = 0;
    pcl_async_fetch_rib_has_route_result(*static_cast<std::uint32_t *>(cell), &answer);
    if (outcome != nullptr) *outcome = answer;
    return 0;
}

vogno refuse_retrieve(void *, void *, void *, std::uint32_t *, void *) {
    return KEL_SHARED_ERR_PARAMS_NOT_ALLOWED;
}

char *base_print(void *, void *route, void *) {
    return strdup(route != nullptr ? "<<rib-has-route>>" : "<<no prefix>>");
}

vogno base_cmp(void *a, void *b, void *, std::int32_t *outcome) {
    if (a == nullptr || b == nullptr || outcome == nullptr) return KEL_SHARED_ERR_NO_PARAM_ARRAY;
    *outcome = 1;
    return 0;
}

constexpr kela::OpSpec kOps[] = {
    {"in", shared_kela_rhr_cmp_match_veri, shared_kela_rhr_cmp_match_cons,
     shared_kela_rhr_cmp_match_free, kela::open_run("uint32_t", 1506, 1507), true},
    {"async", shared_kela_rhr_cmp_async_veri, shared_kela_rhr_cmp_async_cons,
     shared_kela_rhr_cmp_async_free, kela::open_run("uint32_t", 1521, 1522)},
};
constexpr kela::TypeSpec kSpec{
    "kela_ribhasroute", nullptr, base_print, base_cmp, kOps, nullptr, nullptr,
    "rib-has-route",    true};

}  // namespace

extern "C" {

KELA_SHARED_API vogno shared_kela_rhr_base_init(void *reg_ctx, char *errbuf, int32_t errlen,
                                                Desc *desc, const char *const *op_locs,
                                                const char *const *set_locs,
                                                const char *const *retr_locs,
                                                const char *const *attr_locs) {
    // "in" lives at the first operator location: without one it could be
    // used nowhere, so the registration is refused before it starts.
    if (op_locs == nullptr || op_locs[0] == nullptr) {
        kela_shared_init_if_needed();
        if (errbuf != nullptr && errlen > 0)
            std::snprintf(errbuf, static_cast<std::size_t>(errlen),
                          "rib-has-route: \"in\" needs an operator location");
        return KEL_SHARED_ERR_NO_LOCATIONS;
    }
    return kela::register_type(kSpec, reg_ctx, errbuf, errlen, desc,
                               {op_locs, set_locs, retr_locs, attr_locs});
}

KELA_SHARED_API vogno shared_kela_rhr_cvt_string_to_pfx(const char *addr_text, const char *len_text,
                                                        const char *ge_text, const char *le_text,
                                                        ip_addr_t *addr, uint32_t *len,
                                                        uint32_t *ge, uint32_t *le,
                                                        uint32_t check) {
    return shared_kela_prefix_cvt_string_to_pfx(addr_text, len_text, ge_text, le_text, addr, len,
                                                ge, le, static_cast<int>(check));
}

KELA_SHARED_API vogno shared_kela_rhr_match(ip_rib_conn_p conn, rib_tableid_td table,
                                            shared_kela_prefix_matchspec_td *spec, int *found,
                                            ip_rib_route2 **route) {
    *found = 0;
    if (!known_family(spec->family))
        assertion(
            "vogno shared_kela_rhr_match(ip_rib_conn_p, rib_tableid_td, "
            "shared_kela_prefix_matchspec_td *, int *, ip_rib_route2 **)");
    const std::uint8_t bytes = shared_kela_prefix_key_bytes(spec->family);
    bool zero = true;
    for (std::uint8_t i = 0; i < bytes; ++i) zero = zero && spec->addr[i] == 0;
    const int kind = zero ? IP_RIB_LOOKUP_DEFAULT : IP_RIB_LOOKUP_EXACT;
    const int afi = spec->family == kV4 ? IP_RIB_AFI_IPV4 : IP_RIB_AFI_IPV6;
    if (ip_rib_client_get_afi(conn) != afi) return KEL_SHARED_FOREIGN_RIB_AFI_MISMATCH;
    if (vogno st = ip_rib_route_lookup2(conn, table, spec->addr, spec->ge, kind, 0, route, found);
        st != 0)
        return st;
    if (*found != 0 || spec->ge == spec->le) return 0;
    return ip_rib_route_lookup_longer_range2(conn, table, spec->addr, spec->ge, spec->le, route,
                                             found);
}

vogno shared_kela_rhr_cmp_match_veri(uint32_t count, char **params, void *, char **msg) {
    if (vogno st = veri_checks(count, params, msg); st != 0) return st;
    return verify_entries(
        count, params, msg,
        [](std::uint32_t len, std::uint32_t ge, std::uint32_t, const char **why) -> vogno {
            if (len == ge) return 0;
            *why = "The rib-has-route operator does not support gaps in prefix ranges.";
            return 3;
        });
}

vogno shared_kela_rhr_cmp_match_cons(uint32_t count, char **params, void **slots, void *desc,
                                     rasf_inst_t **out) {
    if (vogno st = cons_checks(count, slots, desc); st != 0) return st;
    std::unique_ptr<MatchCtx, void (*)(MatchCtx *)> ctx(nullptr, free_match_ctx);
    if (count != 0) {
        ctx.reset(static_cast<MatchCtx *>(std::calloc(1, sizeof(MatchCtx))));
        if (!ctx) return KEL_SHARED_ERR_NO_MEMORY;
        ctx->get_value = static_cast<Desc *>(desc)->get_value;
        // Once the context exists the caller's instance is reset on every
        // refusal, as it is when the framework refuses the instance.
        if (vogno st = build_specs(count, params, ctx.get()); st != 0) {
            if (out != nullptr) *out = nullptr;
            return st;
        }
    }
    vogno st = kela::InstanceBuilder(kela::InstKind::Cmp, out, count, params, slots, ctx.get())
                   .add(rasf_kela_add_cmp_instance_function_cmp, &match_run)
                   .add(rasf_kela_add_cmp_instance_function_update, &match_update)
                   .add(rasf_kela_add_cmp_instance_function_print, &print)
                   .add(rasf_kela_add_cmp_instance_function_print_ctx, "rib-has-route in (%")
                   .finish();
    if (st == 0) ctx.release();
    return st;
}

vogno shared_kela_rhr_cmp_match_free(void *ctx) {
    free_match_ctx(static_cast<MatchCtx *>(ctx));
    return 0;
}

vogno shared_kela_rhr_cmp_async_veri(uint32_t count, char **params, void *, char **msg) {
    if (vogno st = veri_checks(count, params, msg); st != 0) return st;
    if (count > 5 * kMaxAsyncEntries) {
        kela::msg_replace(msg,
                          "Internal error: RHR async supports maximum of 16 entries in prefix-set");
        return 3;
    }
    return verify_entries(
        count, params, msg,
        [](std::uint32_t len, std::uint32_t ge, std::uint32_t le, const char **why) -> vogno {
            if (ge != le) {
                *why = "The rib-has-route async operator does not support prefix ranges.";
                return 3;
            }
            if (len != ge) {
                *why = "The rib-has-route operator does not support gaps in prefix ranges.";
                return 3;
            }
            return 0;
        });
}

vogno shared_kela_rhr_cmp_async_cons(uint32_t count, char **params, void **slots, void *desc,
                                     rasf_inst_t **out) {
    if (vogno st = cons_checks(count, slots, desc); st != 0) return st;
    // The instance is built in a local (the request tree comes after it):
    // without a place to hand it over it would be lost.
    if (out == nullptr) return KEL_SHARED_ERR_NULL_RESULT;
    kela::CPtr<AsyncCtx> ctx;
    if (count != 0) {
        ctx = kela::zalloc<AsyncCtx>();
        if (!ctx) return KEL_SHARED_ERR_NO_MEMORY;
    }
    rasf_inst_t *inst = nullptr;
    vogno st = kela::InstanceBuilder(kela::InstKind::Cmp, &inst, count, params, slots, ctx.get())
                   .add(rasf_kela_add_cmp_instance_function_cmp_async, &async_run)
                   .add(rasf_kela_add_cmp_instance_function_update, &async_update)
                   .add(rasf_kela_add_cmp_instance_function_print, &print)
                   .add(rasf_kela_add_cmp_instance_function_print_ctx, "rib-has-route async (%")
                   .finish();
    if (st == 0 && ctx) {
        st = btree_s_init(2, info_alloc, info_free, &kela_eecompi_rhr_info_list);
        if (st != 0) {
            rasf_free_cmp_instance(inst);
            inst = nullptr;
        } else {
            ctx->info_list = kela_eecompi_rhr_info_list;
        }
    }
    if (out != nullptr) *out = inst;
    if (st == 0) ctx.release();
    return st;
}

vogno shared_kela_rhr_cmp_async_free(void *context) {
    // The asynchronous client keeps the address of a context it was handed;
    // only one it never saw is released.
    auto *ctx = static_cast<AsyncCtx *>(context);
    if (ctx != nullptr && ctx->handed == 0) std::free(ctx);
    return 0;
}

KELA_SHARED_API vogno shared_kela_rhr_retr_veri(uint32_t, char **, void *, char **) {
    return KEL_SHARED_ERR_PARAMS_NOT_ALLOWED;
}

KELA_SHARED_API vogno shared_kela_rhr_retr_cons(uint32_t count, char **params, void **slots, void *,
                                                rasf_inst_t **out) {
    return kela::InstanceBuilder(kela::InstKind::Retriever, out, count, params, slots, nullptr)
        .add(rasf_kela_add_retriever_instance_function_retrieve, &refuse_retrieve)
        .finish();
}

KELA_SHARED_API vogno kela_rib_callback(void *, void *a2, void *a3, void *a4, void *a5, void *a6) {
    return pcli_rhr_async_client_callback(a2, a2, a3, a4, a5, a6);
}

}  // extern "C"
