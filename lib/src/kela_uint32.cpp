// SPDX-License-Identifier: Apache-2.0
// 32-bit unsigned integer attribute, the only width with "matches-any".
#include "kela_uint.hpp"

namespace {

using Desc = shared_kela_uint32_desc_td;

vogno strict_decimal(const char *text, std::uint32_t *v) {
    return kela::cvt_decimal(text, 1, v);
}

struct Width32 {
    using Desc = shared_kela_uint32_desc_td;
    using Value = std::uint32_t;
    static constexpr const char *kFile = "kela_uint32";
    static constexpr std::uint32_t kFullMax = 0xFFFFFFFFu;
    static constexpr kela::UintMessages kNumbers{.exact = {1279, 1280},
                                                 .le = {1311, 1312},
                                                 .ge = {1327, 1328},
                                                 .assign = {1343, 1344},
                                                 .retriever_list = 1359};
    KELA_UINT_REGISTERED(uint32);
    static constexpr bool kValueSet = true;
    static constexpr kela::OpSpec kAnyOp{
        "matches-any", shared_kela_uint32_cmp_any_veri, shared_kela_uint32_cmp_any_cons,
        shared_kela_uint32_cmp_any_free, kela::open_run("uint32_t", 1295, 1296)};
};

}  // namespace

KELA_UINT_EXPORTS(uint32, kela::Uint<Width32>)

extern "C" {

KELA_SHARED_API vogno shared_kela_uint32_cmp_any_veri(uint32_t count, char **params, void *desc,
                                                      char **msg) {
    if (vogno st = kela::list_veri_checks(count, params, desc, msg); st != 0) return st;
    const Desc *d = static_cast<Desc *>(desc);
    return kela::value_set_verify_list(count, params, msg, strict_decimal,
                                       [&](std::uint32_t v, char **m) -> vogno {
                                           vogno st = v > d->max   ? KEL_SHARED_ERR_ABOVE_MAX
                                                      : v < d->min ? KEL_SHARED_ERR_BELOW_MIN
                                                                   : 0;
                                           if (st != 0 && m != nullptr && *m == nullptr)
                                               *m = kela::range_message(v, d->min, d->max);
                                           return st;
                                       });
}

KELA_SHARED_API vogno shared_kela_uint32_cmp_any_cons(uint32_t count, char **params, void **slots,
                                                      void *desc, rasf_inst_t **out) {
    return kela::value_set_cons<Desc>(
        count, params, slots, desc, out, &kela::value_set_cmp<Desc>,
        [](std::uint32_t n, char **, void **s) -> vogno {
            return n == 0 || s == nullptr ? KEL_SHARED_ERR_NULL_INPUT : 0;
        },
        [](const Desc *, const char *t, std::uint32_t *v) { return strict_decimal(t, v); });
}

KELA_SHARED_API vogno shared_kela_uint32_cmp_any_free(void *ctx) {
    return kela::free_value_set_copy<Desc>(ctx);
}

}  // extern "C"
