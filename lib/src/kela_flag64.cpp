// SPDX-License-Identifier: Apache-2.0
// 64-bit flag attribute: policies only set bits, with "assign"; which bits a
// text stands for is the client's parse callback's business.
#include "kela_register.hpp"
#include "kela_single.hpp"

namespace {

using Desc = shared_kela_flag64_desc_td;

vogno set_flags(void *route, std::uint32_t count, void **slots, void *ctx) {
    if (vogno st = kela::set_checks(route, count, slots, ctx); st != 0) return st;
    const Desc *d = static_cast<Desc *>(ctx);
    const auto at = static_cast<std::int64_t>(d->flag_offset);
    kela::store_at(route, at, kela::load_at<std::uint64_t>(route, at) | d->mask);
    return 0;
}

constexpr kela::OpSpec kAssign{"assign", shared_kela_flag64_set_assign_veri,
                               shared_kela_flag64_set_assign_cons, nullptr,
                               kela::one_arg("uint32_t", 265, 266)};
constexpr kela::TypeSpec kSpec{
    "kela_flag64", "uint32_t", shared_kela_flag64_base_print, nullptr, {}, &kAssign, nullptr};

}  // namespace

extern "C" {

KELA_SHARED_API char *shared_kela_flag64_base_print(void *fw_value, void *route, void *desc) {
    auto *d = static_cast<Desc *>(desc);
    if (d == nullptr || d->print == nullptr) return nullptr;
    auto *flags = route != nullptr ? reinterpret_cast<std::uint64_t *>(
                                         static_cast<unsigned char *>(route) + d->flag_offset)
                                   : nullptr;
    return d->print(fw_value, flags, d);
}

KELA_SHARED_API vogno shared_kela_flag64_set_assign_veri(uint32_t count, char **params, void *desc,
                                                         char **msg) {
    return kela::named_assign_veri(count, params, msg, [&](const char *text) -> vogno {
        const Desc *d = static_cast<Desc *>(desc);
        if (d == nullptr || d->parse == nullptr) return KEL_SHARED_ERR_NO_PARAM_ARRAY;
        return d->parse(text, d->client_ctx, nullptr);
    });
}

KELA_SHARED_API vogno shared_kela_flag64_set_assign_cons(uint32_t count, char **params,
                                                         void **slots, void *desc,
                                                         rasf_inst_t **out) {
    // The mask lives in the descriptor (one per attribute: the most recently
    // compiled "assign" wins); the slot only receives a 32-bit zero.
    return kela::single_set_cons(count, params, slots, desc, out, &set_flags,
                                 [&](const char *text, std::uint32_t *v) -> vogno {
                                     Desc *d = static_cast<Desc *>(desc);
                                     if (d == nullptr || d->parse == nullptr)
                                         return KEL_SHARED_ERR_NO_PARAM_ARRAY;
                                     *v = 0;
                                     return d->parse(text, d->client_ctx, &d->mask);
                                 });
}

}  // extern "C"

KELA_REGISTRATION_ENTRY(shared_kela_flag64_base_init_v2, Desc, kSpec)
