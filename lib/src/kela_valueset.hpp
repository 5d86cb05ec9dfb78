// SPDX-License-Identifier: Apache-2.0
// Value sets: a list of 32-bit constants, one single-argument segment each,
// compiled into a value block (a 32-bit count followed by the values in
// ascending order) that travels in a private copy of the descriptor.  The
// 32-bit integer type and the bit-masked type share this; they differ in the
// converter and in their checks.
#ifndef KELA_VALUESET_HPP
#define KELA_VALUESET_HPP

#include <cstdint>

#include "kela_internal.hpp"
#include "kela_segments.hpp"
#include "sorted_array.h"

namespace kela {

// Room for every constant a vector of `strings` texts can carry (one header
// and one text per constant), zero-filled.
inline CPtr<std::uint32_t> make_value_block(std::uint32_t strings) {
    return zalloc<std::uint32_t>(4 + 2 * static_cast<std::size_t>(strings));
}

inline void value_block_add(std::uint32_t *block, std::uint32_t v) {
    sorted_array_add(block + 1, block, v);
}

inline bool value_block_has(const std::uint32_t *block, std::uint32_t v) {
    std::uint32_t index = 0;
    return sorted_array_get_index(block + 1, block[0] + 1, &index, v) != 0;
}

// Walks the constants of a value-set vector: each single-argument segment's
// text is converted (strict) and handed to `each`; returns the first failing
// status, the plain number 4 for a segment of another width, or 0.
template <typename Convert, typename Each>
vogno walk_value_list(Segments &segs, Convert &&convert, Each &&each) {
    vogno st = 0;
    WalkEnd end = segs.each(
        1,
        [&](char **args) -> vogno {
            std::uint32_t v = 0;
            if (vogno c = convert(args[0], &v); c != 0) return c;
            return each(v);
        },
        &st);
    return end == WalkEnd::Mismatch ? 4 : st;
}

// Releases a descriptor copy and the value block it owns (null accepted).
template <typename Desc>
vogno free_value_set_copy(void *ctx) {
    if (Desc *copy = static_cast<Desc *>(ctx); copy != nullptr) {
        std::free(copy->value_set);
        std::free(copy);
    }
    return 0;
}

// The checks a list verifier makes before walking: the descriptor, the
// count, the vector.
inline vogno list_veri_checks(std::uint32_t count, char **params, const void *desc, char **msg) {
    if (desc == nullptr) {
        msg_if_empty(msg, "Invalid context pointer");
        return KEL_SHARED_ERR_NULL_RESULT;
    }
    if (count == 0) {
        msg_if_empty(msg, "Internal error: no parameters");
        return KEL_SHARED_ERR_PARAM_COUNT;
    }
    if (params == nullptr) {
        msg_if_empty(msg, "NULL parameter vector");
        return KEL_SHARED_ERR_NULL_INPUT;
    }
    return 0;
}

// The verifier's walk once its own argument checks passed: the list must
// open a segment list, every constant must convert (strict) and pass
// `check(value, msg)`; a segment of another width is the plain number 4.
template <typename Convert, typename Check>
vogno value_set_verify_list(std::uint32_t count, char **params, char **msg, Convert &&convert,
                            Check &&check) {
    Segments segs(count, params);
    if (!segs) {
        msg_if_empty(msg, "Internal error: malformed parameters");
        return KEL_SHARED_ERR_BAD_VALUE;
    }
    vogno st = walk_value_list(segs, convert, [&](std::uint32_t v) { return check(v, msg); });
    if (st == 4) msg_if_empty(msg, "Parameter mismatch.");
    return st;
}

// Constructor of "matches-any": a private copy of the descriptor that owns
// the value block.  `precheck(count, params, slots)` gives the type's own
// argument tests, run after the copy was made.
template <typename Desc, typename Precheck, typename Convert>
vogno value_set_cons(std::uint32_t count, char **params, void **slots, void *desc,
                     rasf_inst_t **out, rasf_cmp_fn cmp, Precheck &&precheck, Convert &&convert) {
    CPtr<Desc> copy = zalloc<Desc>();
    CPtr<std::uint32_t> block = make_value_block(count);
    if (!copy || !block) return KEL_SHARED_ERR_NO_MEMORY;
    if (desc == nullptr) return KEL_SHARED_ERR_NO_PARAM_ARRAY;
    *copy = *static_cast<Desc *>(desc);
    if (vogno st = precheck(count, params, slots); st != 0) return st;
    Segments segs(count, params);
    if (!segs) return KEL_SHARED_ERR_NULL_INPUT;
    vogno st = walk_value_list(
        segs, [&](const char *t, std::uint32_t *v) { return convert(copy.get(), t, v); },
        [&](std::uint32_t v) -> vogno {
            value_block_add(block.get(), v);
            return 0;
        });
    if (st != 0) return st;
    copy->value_set = block.get();
    st = InstanceBuilder(InstKind::Cmp, out, count, params, slots, copy.get())
             .add(rasf_kela_add_cmp_instance_function_cmp, cmp)
             .finish();
    if (st != 0) return st;
    block.release();  // owned by the copy, which the instance owns
    copy.release();
    return 0;
}

// Compare of "matches-any": the route's 32-bit word at the copy's index is
// looked up in the value block.
template <typename Desc>
vogno value_set_cmp(void *route, std::uint32_t count, void **slots, void *ctx,
                    std::int32_t *outcome) {
    // Inputs before the outcome pointer here, unlike the single-constant
    // compares.
    if (count == 0 || slots == nullptr) return KEL_SHARED_ERR_NULL_INPUT;
    if (outcome == nullptr) return KEL_SHARED_ERR_NULL_RESULT;
    const Desc *copy = static_cast<Desc *>(ctx);
    if (route == nullptr || copy == nullptr) return KEL_SHARED_ERR_NULL_RESULT;
    const std::uint32_t v = load_at<std::uint32_t>(route, copy->index * 4);
    *outcome = value_block_has(static_cast<const std::uint32_t *>(copy->value_set), v) ? 1 : 0;
    return 0;
}

}  // namespace kela

#endif  // KELA_VALUESET_HPP
