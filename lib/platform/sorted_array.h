/* SPDX-License-Identifier: Apache-2.0 */
/*
 * Platform sorted array of unsigned 32-bit values.
 *
 * The array is a plain run of elements in ascending order whose count the
 * caller keeps in a word of its own; the caller provides the room.
 */
#ifndef KELA_PLATFORM_SORTED_ARRAY_H
#define KELA_PLATFORM_SORTED_ARRAY_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Inserts `value` at its place in the ascending array of *count elements
 * that starts at `elements`, and increments *count.  A value already present
 * is inserted again, after the equal ones.  The array must have room for one
 * more element. */
void sorted_array_add(uint32_t *elements, uint32_t *count, uint32_t value);

/* Binary search.  `bound` is the number of stored elements plus one (callers
 * hand over their count + 1); only the stored elements are considered.
 * Returns non-zero when `value` is present and stores its position in
 * *index (when index is not null); returns 0 otherwise. */
int sorted_array_get_index(const uint32_t *elements, uint32_t bound, uint32_t *index,
                           uint32_t value);

#ifdef __cplusplus
}
#endif

#endif /* KELA_PLATFORM_SORTED_ARRAY_H */
