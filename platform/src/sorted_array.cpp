// SPDX-License-Identifier: Apache-2.0
// Sorted array of 32-bit values: binary-search insert into caller-provided
// room, binary-search lookup.
#include "sorted_array.h"

#include <algorithm>
#include <cstring>

extern "C" {

void sorted_array_add(uint32_t *elements, uint32_t *count, uint32_t value) {
    // After any equal values, so equal values keep their insertion order.
    uint32_t *end = elements + *count;
    uint32_t *at = std::upper_bound(elements, end, value);
    std::memmove(at + 1, at, static_cast<std::size_t>(end - at) * sizeof *at);
    *at = value;
    ++*count;
}

int sorted_array_get_index(const uint32_t *elements, uint32_t bound, uint32_t *index,
                           uint32_t value) {
    // Callers pass their element count plus one.
    if (bound == 0) return 0;
    const uint32_t *end = elements + (bound - 1);
    const uint32_t *at = std::lower_bound(elements, end, value);
    if (at == end || *at != value) return 0;
    if (index != nullptr) *index = static_cast<uint32_t>(at - elements);
    return 1;
}

}  // extern "C"
