// SPDX-License-Identifier: Apache-2.0
// Bit-masked attribute: a 32-bit value word with the client's own text form,
// paired with a mask word in which "assign" sets the attribute's bits.
#include "kela_register.hpp"
#include "kela_single.hpp"
#include "kela_valueset.hpp"

namespace {

using Desc = shared_kela_bitmasked_desc_td;

vogno parse(const Desc *d, const char *text, int strict, std::uint32_t *out) {
    if (d == nullptr || d->parse_value == nullptr) return KEL_SHARED_ERR_NO_PARAM_ARRAY;
    return d->parse_value(text, d->cb_ctx, strict, out);
}

vogno set_value(void *route, std::uint32_t count, void **slots, void *ctx) {
    if (vogno st = kela::set_checks(route, count, slots, ctx); st != 0) return st;
    const Desc *d = static_cast<Desc *>(ctx);
    kela::store_at(route, d->index * 4, kela::slot_u32(slots));
    // Assigning only ever adds the attribute's bits to the mask word.
    const std::uint32_t mask_word = kela::load_at<std::uint32_t>(route, d->mask_index * 4);
    kela::store_at(route, d->mask_index * 4, mask_word | d->mask);
    return 0;
}

vogno any_veri(std::uint32_t count, char **params, void *desc, char **msg) {
    if (desc == nullptr) {
        kela::msg_if_empty(msg, "Invalid context pointer");
        return KEL_SHARED_ERR_NULL_RESULT;
    }
    if (count == 0 || params == nullptr) {
        kela::msg_if_empty(msg, "Internal error: no parameters");
        return KEL_SHARED_ERR_PARAM_COUNT;
    }
    const Desc *d = static_cast<Desc *>(desc);
    return kela::value_set_verify_list(
        count, params, msg, [&](const char *t, std::uint32_t *) { return parse(d, t, 1, nullptr); },
        [](std::uint32_t, char **) -> vogno { return 0; });
}

vogno any_cons(std::uint32_t count, char **params, void **slots, void *desc, rasf_inst_t **out) {
    return kela::value_set_cons<Desc>(
        count, params, slots, desc, out, &kela::value_set_cmp<Desc>,
        [](std::uint32_t n, char **p, void **s) -> vogno {
            if (s == nullptr) return KEL_SHARED_ERR_NULL_INPUT;
            if (p == nullptr) return KEL_SHARED_ERR_NULL_PARAM;
            return n == 0 ? KEL_SHARED_ERR_PARAM_COUNT : 0;
        },
        [](const Desc *copy, const char *t, std::uint32_t *v) { return parse(copy, t, 1, v); });
}

constexpr kela::OpSpec kOps[] = {
    {"exact-match", shared_kela_bitmasked_cmp_match_veri, shared_kela_bitmasked_cmp_match_cons,
     nullptr, kela::one_arg("uint32_t", 793, 794)},
    {"matches-any", any_veri, any_cons, kela::free_value_set_copy<Desc>,
     kela::open_run("uint32_t", 808, 809)},
};
constexpr kela::OpSpec kAssign{"assign", shared_kela_bitmasked_set_assign_veri,
                               shared_kela_bitmasked_set_assign_cons, nullptr,
                               kela::one_arg("uint32_t", 822, 823)};
constexpr kela::OpSpec kRetriever{nullptr, shared_kela_bitmasked_retr_veri,
                                  shared_kela_bitmasked_retr_cons, nullptr, kela::no_args(837)};
constexpr kela::TypeSpec kSpec{"kela_bitmasked",
                               "uint32_t",
                               shared_kela_bitmasked_base_print,
                               shared_kela_bitmasked_base_cmp,
                               kOps,
                               &kAssign,
                               &kRetriever};

}  // namespace

extern "C" {

KELA_SHARED_API char *shared_kela_bitmasked_base_print(void *fw_value, void *route, void *desc) {
    const Desc *d = static_cast<Desc *>(desc);
    if (d == nullptr || d->print_value == nullptr) return nullptr;
    return d->print_value(fw_value, route, d->cb_ctx);
}

KELA_SHARED_API vogno shared_kela_bitmasked_base_cmp(void *a, void *b, void *desc,
                                                     int32_t *outcome) {
    return kela::word_base_cmp<Desc>(a, b, desc, outcome);
}

KELA_SHARED_API vogno shared_kela_bitmasked_cmp_match_veri(uint32_t, char **params, void *desc,
                                                           char **msg) {
    return kela::named_match_veri(params, msg, [&](const char *text) {
        return parse(static_cast<Desc *>(desc), text, 1, nullptr);
    });
}

KELA_SHARED_API vogno shared_kela_bitmasked_cmp_match_cons(uint32_t count, char **params,
                                                           void **slots, void *desc,
                                                           rasf_inst_t **out) {
    return kela::single_cmp_cons(count, params, slots, desc, out, &kela::word_equals_cmp<Desc>,
                                 [&](const char *text, std::uint32_t *v) {
                                     return parse(static_cast<Desc *>(desc), text, 0, v);
                                 });
}

KELA_SHARED_API vogno shared_kela_bitmasked_set_assign_veri(uint32_t count, char **params,
                                                            void *desc, char **msg) {
    return kela::named_assign_veri(count, params, msg, [&](const char *text) {
        return parse(static_cast<Desc *>(desc), text, 1, nullptr);
    });
}

KELA_SHARED_API vogno shared_kela_bitmasked_set_assign_cons(uint32_t count, char **params,
                                                            void **slots, void *desc,
                                                            rasf_inst_t **out) {
    return kela::single_set_cons(count, params, slots, desc, out, &set_value,
                                 [&](const char *text, std::uint32_t *v) {
                                     return parse(static_cast<Desc *>(desc), text, 0, v);
                                 });
}

KELA_SHARED_API vogno shared_kela_bitmasked_retr_veri(uint32_t count, char **params, void *desc,
                                                      char **msg) {
    return kela::named_retr_veri(count, params, desc, msg);
}

KELA_SHARED_API vogno shared_kela_bitmasked_retr_cons(uint32_t count, char **params, void **slots,
                                                      void *desc, rasf_inst_t **out) {
    return kela::retriever_cons(count, params, slots, desc, out, &kela::word_retrieve<Desc>);
}

}  // extern "C"

KELA_REGISTRATION_ENTRY(shared_kela_bitmasked_base_init_v2, Desc, kSpec)
