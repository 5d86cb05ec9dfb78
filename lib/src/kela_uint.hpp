// SPDX-License-Identifier: Apache-2.0
// Unsigned integer attributes of 8, 16 and 32 bits, written once.
//
// A width is described by a small traits record:
//   Desc       the client's descriptor record
//   Value      the element type in the route record
//   kFile      source file named in registration messages
//   kFullMax   the range base_init_v2 writes into the descriptor
//   kNumbers   the numbers of the argument-list messages (UintMessages)
//   kValueSet  whether the width has "matches-any" (32 bits only), then
//              registered second as kAnyOp
//   kPrint ... the width's exported base functions, setter constructor and
//              retriever callbacks (KELA_UINT_REGISTERED): those, not the
//              template's own functions, are what the framework receives,
//              so that a client comparing registered pointers with the
//              exported names recognises them
// Every value the module computes with is an unsigned 32-bit number; only
// the route record holds the value in its own width.
#ifndef KELA_UINT_HPP
#define KELA_UINT_HPP

#include <array>
#include <cstdint>
#include <cstdio>

#include "kela_internal.hpp"
#include "kela_register.hpp"
#include "kela_single.hpp"
#include "kela_valueset.hpp"

namespace kela {

// Decimal text to 32 bits, as every width (and the address types) parse
// numbers: strtoul semantics reduced to the low 32 bits.
vogno cvt_decimal(const char *text, int strict, std::uint32_t *out);
// "Value (%u) not within acceptable range: %u - %u", newly allocated.
char *range_message(std::uint32_t value, std::uint32_t min, std::uint32_t max);
// A newly allocated copy of the route's value in decimal, or of the texts
// that stand for a missing route or descriptor.
char *print_decimal(bool have_route, bool have_desc, std::uint32_t value);

// The numbers that name each registration call in its failure message:
// per one-argument operator, its rasf_args_new and then its entry, and the
// retriever's rasf_args_new. Each width has its own block of numbers.
struct OneArgMessages {
    int list = 0;
    int entry = 0;
};
struct UintMessages {
    OneArgMessages exact, le, ge, assign;
    int retriever_list = 0;
};

constexpr ArgList one_arg(const char *type, OneArgMessages m) {
    return one_arg(type, m.list, m.entry);
}

enum class Relation { Equal, AtMost, AtLeast };

constexpr bool holds(Relation r, std::uint32_t v, std::uint32_t k) {
    switch (r) {
        case Relation::Equal:
            return v == k;
        case Relation::AtMost:
            return v <= k;
        case Relation::AtLeast:
            return v >= k;
    }
    return false;
}

template <typename W>
struct Uint {
    using Desc = typename W::Desc;
    using Value = typename W::Value;

    static std::int64_t offset(const Desc *d) {
        return d->index * static_cast<std::int64_t>(sizeof(Value));
    }
    static std::uint32_t value_of(const void *route, const Desc *d) {
        return load_at<Value>(route, offset(d));
    }

    // ---- value functions ------------------------------------------------
    static char *base_print(void *, void *route, void *desc) {
        std::uint32_t v = 0;
        if (route != nullptr && desc != nullptr) v = value_of(route, static_cast<Desc *>(desc));
        return print_decimal(route != nullptr, desc != nullptr, v);
    }

    static vogno base_cmp(void *a, void *b, void *desc, std::int32_t *outcome) {
        if (a == nullptr || b == nullptr || desc == nullptr || outcome == nullptr)
            return KEL_SHARED_ERR_NULL_INPUT;
        const Desc *d = static_cast<Desc *>(desc);
        *outcome = value_of(a, d) == value_of(b, d) ? 1 : 0;
        return 0;
    }

    static vogno get_val(const void *route, const Desc *d, std::uint32_t *out) {
        if (route == nullptr || d == nullptr || out == nullptr) return KEL_SHARED_ERR_NULL_RESULT;
        *out = value_of(route, d);
        return 0;
    }

    // ---- one constant: "exact-match", "le", "ge", "assign" ----------------
    static vogno match_veri(std::uint32_t count, char **params, void *desc, char **msg) {
        if (desc == nullptr) {
            msg_if_empty(msg, "Invalid context pointer");
            return KEL_SHARED_ERR_NULL_RESULT;
        }
        if (vogno st = one_param_checks(count, params, msg, msg_if_empty,
                                        "Cannot handle variables at this time");
            st != 0)
            return st;
        std::uint32_t v = 0;
        if (vogno st = cvt_decimal(params[0], 1, &v); st != 0) {
            msg_if_empty(msg, "Invalid constructor string - Must be a number");
            return st;
        }
        const Desc *d = static_cast<Desc *>(desc);
        const std::uint32_t min = d->min, max = d->max;
        vogno st = v > max ? KEL_SHARED_ERR_ABOVE_MAX : v < min ? KEL_SHARED_ERR_BELOW_MIN : 0;
        if (st != 0 && msg != nullptr) msg_replace_owned(msg, range_message(v, min, max));
        return st;
    }

    // Lenient conversion into the slot; the verifier has checked the range.
    static vogno lenient(const char *text, std::uint32_t *v) {
        cvt_decimal(text, 0, v);
        return 0;
    }

    static vogno match_cons(std::uint32_t count, char **params, void **slots, void *ctx,
                            rasf_inst_t **out, rasf_cmp_fn cmp) {
        return single_cmp_cons(count, params, slots, ctx, out, cmp, lenient);
    }

    template <Relation R>
    static vogno compare(void *route, std::uint32_t count, void **slots, void *ctx,
                         std::int32_t *outcome) {
        if (outcome == nullptr) return KEL_SHARED_ERR_NULL_RESULT;
        if (count == 0 || slots == nullptr || slots[0] == nullptr) return KEL_SHARED_ERR_NULL_INPUT;
        std::uint32_t v = 0;
        if (vogno st = get_val(route, static_cast<Desc *>(ctx), &v); st != 0) return st;
        *outcome = holds(R, v, slot_u32(slots)) ? 1 : 0;
        return 0;
    }

    template <Relation R>
    static vogno cons(std::uint32_t count, char **params, void **slots, void *desc,
                      rasf_inst_t **out) {
        return match_cons(count, params, slots, desc, out, &compare<R>);
    }

    static vogno assign_cons(std::uint32_t count, char **params, void **slots, void *ctx,
                             rasf_inst_t **out) {
        return single_set_cons(count, params, slots, ctx, out, &assign_set, lenient);
    }

    static vogno assign_set(void *route, std::uint32_t count, void **slots, void *ctx) {
        if (vogno st = set_checks(route, count, slots, ctx); st != 0) return st;
        store_at(route, offset(static_cast<Desc *>(ctx)), static_cast<Value>(slot_u32(slots)));
        return 0;
    }

    // ---- retriever ----------------------------------------------------------
    static vogno retr_veri(std::uint32_t count, char **, void *, char **) {
        return count != 0 ? KEL_SHARED_ERR_PARAM_COUNT : 0;
    }
    static vogno retr_retrieve(void *, void *, void *, std::uint32_t *, void *) { return 0; }
    static vogno retr_cons(std::uint32_t count, char **params, void **slots, void *ctx,
                           rasf_inst_t **out) {
        return retriever_cons(count, params, slots, ctx, out, &retr_retrieve);
    }

    // ---- registration ---------------------------------------------------------
    static constexpr auto make_ops() {
        constexpr auto &n = W::kNumbers;
        constexpr OpSpec exact{"exact-match", &match_veri, &cons<Relation::Equal>, nullptr,
                               one_arg("uint32_t", n.exact)};
        constexpr OpSpec le{"le", &match_veri, &cons<Relation::AtMost>, nullptr,
                            one_arg("uint32_t", n.le)};
        constexpr OpSpec ge{"ge", &match_veri, &cons<Relation::AtLeast>, nullptr,
                            one_arg("uint32_t", n.ge)};
        if constexpr (W::kValueSet) {
            return std::array<OpSpec, 4>{exact, W::kAnyOp, le, ge};
        } else {
            return std::array<OpSpec, 3>{exact, le, ge};
        }
    }
    static constexpr auto kOps = make_ops();
    static constexpr OpSpec kAssign{"assign", &match_veri, W::kAssignCons, nullptr,
                                    one_arg("uint32_t", W::kNumbers.assign)};
    static constexpr OpSpec kRetriever{nullptr, W::kRetrVeri, W::kRetrCons, nullptr,
                                       no_args(W::kNumbers.retriever_list)};
    static constexpr TypeSpec kSpec{W::kFile, "uint32_t", W::kPrint,  W::kCmp,
                                    kOps,     &kAssign,   &kRetriever};

    static vogno shared_init(void *reg_ctx, char *errbuf, std::int32_t errlen, Desc *desc,
                             const Locations &locs) {
        return register_type(kSpec, reg_ctx, errbuf, errlen, desc, locs);
    }
    static vogno init_v2(void *reg_ctx, char *errbuf, std::int32_t errlen, Desc *desc,
                         const Locations &locs) {
        if (desc != nullptr) {
            desc->min = 0;
            desc->max = W::kFullMax;
        }
        return shared_init(reg_ctx, errbuf, errlen, desc, locs);
    }
};

}  // namespace kela

// Inside a width's traits: the exported functions that registration hands to
// the framework.
#define KELA_UINT_REGISTERED(W)                                                          \
    static constexpr rasf_base_print_fn kPrint = &shared_kela_##W##_base_print;          \
    static constexpr rasf_base_cmp_fn kCmp = &shared_kela_##W##_base_cmp;                \
    static constexpr rasf_construct_fn kAssignCons = &shared_kela_##W##_set_assign_cons; \
    static constexpr rasf_verify_fn kRetrVeri = &shared_kela_##W##_retr_veri;            \
    static constexpr rasf_construct_fn kRetrCons = &shared_kela_##W##_retr_cons

// The exported names of one width, each a one-line forward to the template.
#define KELA_UINT_EXPORTS(W, U)                                                                    \
    extern "C" {                                                                                   \
    KELA_SHARED_API vogno shared_kela_##W##_cvt_string(const char *text, void *, int strict,       \
                                                       uint32_t *out) {                            \
        return kela::cvt_decimal(text, strict, out);                                               \
    }                                                                                              \
    KELA_SHARED_API char *shared_kela_##W##_base_print(void *v, void *route, void *desc) {         \
        return U::base_print(v, route, desc);                                                      \
    }                                                                                              \
    KELA_SHARED_API vogno shared_kela_##W##_base_cmp(void *a, void *b, void *desc,                 \
                                                     int32_t *outcome) {                           \
        return U::base_cmp(a, b, desc, outcome);                                                   \
    }                                                                                              \
    KELA_SHARED_API vogno shared_kela_##W##_cmp_get_val(const void *route,                         \
                                                        const shared_kela_##W##_desc_td *desc,     \
                                                        uint32_t *out) {                           \
        return U::get_val(route, desc, out);                                                       \
    }                                                                                              \
    KELA_SHARED_API char *kela_##W##_range_error_string(uint32_t v, uint32_t min, uint32_t max) {  \
        return kela::range_message(v, min, max);                                                   \
    }                                                                                              \
    KELA_SHARED_API vogno shared_kela_##W##_match_cons(uint32_t count, char **params,              \
                                                       void **slots, void *ctx, rasf_inst_t **out, \
                                                       rasf_cmp_fn cmp) {                          \
        return U::match_cons(count, params, slots, ctx, out, cmp);                                 \
    }                                                                                              \
    KELA_SHARED_API vogno shared_kela_##W##_set_assign_cons(uint32_t count, char **params,         \
                                                            void **slots, void *ctx,               \
                                                            rasf_inst_t **out) {                   \
        return U::assign_cons(count, params, slots, ctx, out);                                     \
    }                                                                                              \
    KELA_SHARED_API vogno shared_kela_##W##_retr_veri(uint32_t count, char **params, void *desc,   \
                                                      char **msg) {                                \
        return U::retr_veri(count, params, desc, msg);                                             \
    }                                                                                              \
    KELA_SHARED_API vogno shared_kela_##W##_retr_cons(uint32_t count, char **params, void **slots, \
                                                      void *ctx, rasf_inst_t **out) {              \
        return U::retr_cons(count, params, slots, ctx, out);                                       \
    }                                                                                              \
    KELA_SHARED_API vogno shared_kela_##W##_shared_base_init(                                      \
        void *rc, char *eb, int32_t el, shared_kela_##W##_desc_td *desc, const char *const *ol,    \
        const char *const *sl, const char *const *rl, const char *const *al) {                     \
        return U::shared_init(rc, eb, el, desc, {ol, sl, rl, al});                                 \
    }                                                                                              \
    KELA_SHARED_API vogno shared_kela_##W##_range_base_init(                                       \
        void *rc, char *eb, int32_t el, shared_kela_##W##_desc_td *desc, const char *const *ol,    \
        const char *const *sl, const char *const *rl, const char *const *al) {                     \
        return U::shared_init(rc, eb, el, desc, {ol, sl, rl, al});                                 \
    }                                                                                              \
    KELA_SHARED_API vogno shared_kela_##W##_base_init_v2(                                          \
        void *rc, char *eb, int32_t el, shared_kela_##W##_desc_td *desc, const char *const *ol,    \
        const char *const *sl, const char *const *rl, const char *const *al) {                     \
        return U::init_v2(rc, eb, el, desc, {ol, sl, rl, al});                                     \
    }                                                                                              \
    KELA_SHARED_API vogno shared_kela_##W##_base_init(void *rc, char *eb, int32_t el,              \
                                                      shared_kela_##W##_desc_td *desc) {           \
        return U::init_v2(rc, eb, el, desc, kela::default_locations());                            \
    }                                                                                              \
    }

#endif  // KELA_UINT_HPP
