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

}  // namespace kela

#endif  // KELA_VALUESET_HPP
