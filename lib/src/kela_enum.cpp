// SPDX-License-Identifier: Apache-2.0
// Enumeration attribute: a 32-bit value that policies name with the
// client's table.
#include <strings.h>

#include <cstdio>

#include "kela_register.hpp"
#include "kela_single.hpp"

namespace {

using Desc = shared_kela_enum_desc_td;

const shared_kela_enum_name_td *first_named(const Desc *d) {
    return d->names != nullptr && d->names[0].name != nullptr ? d->names : nullptr;
}

vogno lookup(const Desc *d, const char *text, std::uint32_t *out) {
    return shared_kela_enum_cvt_string(text, d, nullptr, out);
}

vogno set_value(void *route, std::uint32_t count, void **slots, void *ctx) {
    if (vogno st = kela::set_checks(route, count, slots, ctx); st != 0) return st;
    kela::store_at(route, static_cast<Desc *>(ctx)->index * 4, kela::slot_u32(slots));
    return 0;
}

constexpr kela::OpSpec kOps[] = {
    {"exact-match", shared_kela_enum_cmp_match_veri, shared_kela_enum_cmp_match_cons, nullptr,
     kela::one_arg("uint32_t", 606, 607)},
};
constexpr kela::OpSpec kAssign{"assign", shared_kela_enum_set_assign_veri,
                               shared_kela_enum_set_assign_cons, nullptr,
                               kela::one_arg("uint32_t", 620, 621)};
constexpr kela::OpSpec kRetriever{nullptr, shared_kela_enum_retr_veri, shared_kela_enum_retr_cons,
                                  nullptr, kela::no_args(634)};
constexpr kela::TypeSpec kSpec{
    "kela_enum", "uint32_t", shared_kela_enum_base_print, shared_kela_enum_base_cmp, kOps,
    &kAssign,    &kRetriever};

}  // namespace

extern "C" {

KELA_SHARED_API vogno shared_kela_enum_cvt_string(const char *text, const Desc *desc, void *,
                                                  uint32_t *out) {
    if (text == nullptr) return KEL_SHARED_ERR_NULL_PARAM;
    if (desc == nullptr) return KEL_SHARED_ERR_NO_PARAM_ARRAY;
    const shared_kela_enum_name_td *e = first_named(desc);
    for (; e != nullptr && e->name != nullptr; ++e) {
        if (strcasecmp(e->name, text) == 0) {
            if (out != nullptr) *out = static_cast<std::uint32_t>(e->value);
            return 0;
        }
    }
    return KEL_SHARED_ERR_BAD_VALUE;
}

KELA_SHARED_API char *shared_kela_enum_base_print(void *, void *route, void *desc) {
    if (route == nullptr) return strdup("<<No route?>>");
    if (desc == nullptr) return strdup("<<Internal error (no context)>>");
    const Desc *d = static_cast<Desc *>(desc);
    const std::int32_t v = static_cast<std::int32_t>(kela::word_of(route, d));
    for (const shared_kela_enum_name_td *e = first_named(d); e != nullptr && e->name != nullptr;
         ++e)
        if (e->value == v) return strdup(e->name);
    char buf[30];  // the most negative value loses the closing character
    std::snprintf(buf, sizeof buf, "<< unknown enum %d >>", v);
    return strdup(buf);
}

KELA_SHARED_API vogno shared_kela_enum_base_cmp(void *a, void *b, void *desc, int32_t *outcome) {
    return kela::word_base_cmp<Desc>(a, b, desc, outcome);
}

KELA_SHARED_API vogno shared_kela_enum_cmp_match_veri(uint32_t, char **params, void *desc,
                                                      char **msg) {
    return kela::named_match_veri(params, msg, [&](const char *text) {
        return lookup(static_cast<Desc *>(desc), text, nullptr);
    });
}

KELA_SHARED_API vogno shared_kela_enum_cmp_match_cons(uint32_t count, char **params, void **slots,
                                                      void *desc, rasf_inst_t **out) {
    return kela::single_cmp_cons(count, params, slots, desc, out, &kela::word_equals_cmp<Desc>,
                                 [&](const char *text, std::uint32_t *v) {
                                     return lookup(static_cast<Desc *>(desc), text, v);
                                 });
}

KELA_SHARED_API vogno shared_kela_enum_set_assign_veri(uint32_t count, char **params, void *desc,
                                                       char **msg) {
    return kela::named_assign_veri(count, params, msg, [&](const char *text) {
        return lookup(static_cast<Desc *>(desc), text, nullptr);
    });
}

KELA_SHARED_API vogno shared_kela_enum_set_assign_cons(uint32_t count, char **params, void **slots,
                                                       void *desc, rasf_inst_t **out) {
    return kela::single_set_cons(count, params, slots, desc, out, &set_value,
                                 [&](const char *text, std::uint32_t *v) {
                                     return lookup(static_cast<Desc *>(desc), text, v);
                                 });
}

KELA_SHARED_API vogno shared_kela_enum_retr_veri(uint32_t count, char **params, void *desc,
                                                 char **msg) {
    return kela::named_retr_veri(count, params, desc, msg);
}

KELA_SHARED_API vogno shared_kela_enum_retr_cons(uint32_t count, char **params, void **slots,
                                                 void *desc, rasf_inst_t **out) {
    return kela::retriever_cons(count, params, slots, desc, out, &kela::word_retrieve<Desc>);
}

}  // extern "C"

KELA_REGISTRATION_ENTRY(shared_kela_enum_base_init_v2, Desc, kSpec)
