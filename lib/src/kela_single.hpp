// SPDX-License-Identifier: Apache-2.0
// The single-constant pattern shared by the scalar types (integers,
// enumerations, bit-masked values, 64-bit flags): an operator or setter
// with one constant parameter, converted by the constructor into the first
// value slot, and a set function that writes it into the route record.
// The types differ only in their converter and in what the set function
// writes.
#ifndef KELA_SINGLE_HPP
#define KELA_SINGLE_HPP

#include <cstdint>

#include "kela_internal.hpp"

namespace kela {

// Constructor of a one-constant operator: vectors first, then the count.
// `convert(text, &value)` returns a status; the value goes into the first
// slot before the instance is made (and stays there if that fails).
template <typename Convert>
vogno single_cmp_cons(std::uint32_t count, char **params, void **slots, void *ctx,
                      rasf_inst_t **out, rasf_cmp_fn cmp, Convert &&convert) {
    if (params == nullptr || slots == nullptr) return KEL_SHARED_ERR_NULL_INPUT;
    if (params[0] == nullptr) return KEL_SHARED_ERR_NULL_PARAM;
    if (count != 1) return KEL_SHARED_ERR_PARAM_COUNT;
    if (slots[0] == nullptr) return KEL_SHARED_ERR_VARIABLE;
    std::uint32_t v = 0;
    if (vogno st = convert(params[0], &v); st != 0) return st;
    set_slot_u32(slots, v);
    return InstanceBuilder(InstKind::Cmp, out, count, params, slots, ctx)
        .add(rasf_kela_add_cmp_instance_function_cmp, cmp)
        .finish();
}

// Constructor of a one-constant setter: the count first, then the vectors.
template <typename Convert>
vogno single_set_cons(std::uint32_t count, char **params, void **slots, void *ctx,
                      rasf_inst_t **out, rasf_set_fn set, Convert &&convert) {
    if (count != 1) return KEL_SHARED_ERR_PARAM_COUNT;
    if (params == nullptr || slots == nullptr) return KEL_SHARED_ERR_NULL_INPUT;
    if (params[0] == nullptr) return KEL_SHARED_ERR_NULL_PARAM;
    if (slots[0] == nullptr) return KEL_SHARED_ERR_VARIABLE;
    std::uint32_t v = 0;
    if (vogno st = convert(params[0], &v); st != 0) return st;
    set_slot_u32(slots, v);
    return InstanceBuilder(InstKind::Set, out, count, params, slots, ctx)
        .add(rasf_kela_add_set_instance_function_set, set)
        .finish();
}

// The checks every set function makes before writing; 0 when it may write.
inline vogno set_checks(const void *route, std::uint32_t count, void *const *slots,
                        const void *ctx) {
    if (count == 0 || slots == nullptr) return KEL_SHARED_ERR_NULL_INPUT;
    if (slots[0] == nullptr) return KEL_SHARED_ERR_NULL_PARAM;
    if (route == nullptr || ctx == nullptr) return KEL_SHARED_ERR_NULL_RESULT;
    return 0;
}

// Constructor of a retriever with the descriptor as context.
inline vogno retriever_cons(std::uint32_t count, char **params, void **slots, void *ctx,
                            rasf_inst_t **out, rasf_retrieve_fn retrieve) {
    return InstanceBuilder(InstKind::Retriever, out, count, params, slots, ctx)
        .add(rasf_kela_add_retriever_instance_function_retrieve, retrieve)
        .finish();
}

// Stores a verifier message for a text the type's converter refused.
inline void refuse_text(char **msg) {
    msg_replace(msg, "- Type not supported at this attachpoint");
}

// ---- types whose value is one 32-bit word of the route record ---------------
// (the enumeration and bit-masked types: Desc has an `index` in words)

template <typename Desc>
std::uint32_t word_of(const void *route, const Desc *d) {
    return load_at<std::uint32_t>(route, d->index * 4);
}

// Base compare: 1 when both routes hold the same word.
template <typename Desc>
vogno word_base_cmp(void *a, void *b, void *desc, std::int32_t *outcome) {
    if (a == nullptr || b == nullptr || desc == nullptr || outcome == nullptr)
        return KEL_SHARED_ERR_NULL_INPUT;
    const Desc *d = static_cast<Desc *>(desc);
    *outcome = word_of(a, d) == word_of(b, d) ? 1 : 0;
    return 0;
}

// "exact-match" compare: the route's word equals the constant in the slot.
template <typename Desc>
vogno word_equals_cmp(void *route, std::uint32_t count, void **slots, void *ctx,
                      std::int32_t *outcome) {
    if (route == nullptr || ctx == nullptr || outcome == nullptr) return KEL_SHARED_ERR_NULL_RESULT;
    if (count == 0 || slots == nullptr || slots[0] == nullptr) return KEL_SHARED_ERR_NULL_INPUT;
    *outcome = word_of(route, static_cast<Desc *>(ctx)) == slot_u32(slots) ? 1 : 0;
    return 0;
}

// Retrieve: the route's word.
template <typename Desc>
vogno word_retrieve(void *route, void *, void *, std::uint32_t *out, void *ctx) {
    if (route == nullptr || ctx == nullptr || out == nullptr) return KEL_SHARED_ERR_NULL_RESULT;
    *out = word_of(route, static_cast<Desc *>(ctx));
    return 0;
}

// Retriever verifier of the named types: a first parameter must be present
// (a missing vector counts as a missing parameter).
inline vogno named_retr_veri(std::uint32_t, char **params, void *, char **) {
    return params != nullptr && params[0] != nullptr ? 0 : KEL_SHARED_ERR_VARIABLE;
}

// "exact-match" verifier of the types with a converter of their own: the
// count is left to the constructor.  `check(text)` returns the converter's
// status.
template <typename Check>
vogno named_match_veri(char **params, char **msg, Check &&check) {
    if (params == nullptr) return KEL_SHARED_ERR_NULL_INPUT;
    if (params[0] == nullptr) return KEL_SHARED_ERR_NULL_PARAM;
    vogno st = check(params[0]);
    if (st != 0) refuse_text(msg);
    return st;
}

// The checks a one-constant verifier makes before converting: the count,
// the vector, a variable.  `store` is the verifier's message policy;
// `variable` the message for a variable, or null for none.
using MessageStore = void (*)(char **msg, const char *text);
inline vogno one_param_checks(std::uint32_t count, char **params, char **msg, MessageStore store,
                              const char *variable) {
    if (count != 1) {
        store(msg, "Requires exactly one parameter");
        return KEL_SHARED_ERR_PARAM_COUNT;
    }
    if (params == nullptr) {
        store(msg, "NULL parameter vector");
        return KEL_SHARED_ERR_NULL_INPUT;
    }
    if (params[0] == nullptr) {
        if (variable != nullptr) store(msg, variable);
        return KEL_SHARED_ERR_NULL_PARAM;
    }
    return 0;
}

// "assign" verifier of the types with a converter of their own.
template <typename Check>
vogno named_assign_veri(std::uint32_t count, char **params, char **msg, Check &&check) {
    if (vogno st = one_param_checks(count, params, msg, msg_replace, nullptr); st != 0) return st;
    vogno st = check(params[0]);
    if (st != 0) refuse_text(msg);
    return st;
}

}  // namespace kela

#endif  // KELA_SINGLE_HPP
