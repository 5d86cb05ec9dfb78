/* SPDX-License-Identifier: Apache-2.0 */
/*
 * Platform B-tree keyed by 64-bit values, holding pointer values; every
 * byte it needs comes from the allocation callback it was given.
 */
#ifndef KELA_PLATFORM_BTREE_S_H
#define KELA_PLATFORM_BTREE_S_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#ifndef VOGNO_T_DEFINED
#define VOGNO_T_DEFINED
typedef uint32_t vogno;
#endif

/* Allocates `size` bytes into *out; returns 0 or a status. */
typedef vogno (*btree_s_alloc_fn)(void **out, uint32_t size);
typedef void (*btree_s_free_fn)(void *p);

/* Makes a new empty tree and stores its handle in *head (an existing handle
 * there is replaced, not released: whoever copied it keeps using it).
 * `order` is the tree's minimum degree. */
vogno btree_s_init(uint32_t order, btree_s_alloc_fn alloc, btree_s_free_fn release, void **head);

/* 0 when `key` is present (its value stored in *value), non-zero otherwise. */
vogno btree_s_find(void *tree, uint64_t key, void **value);

/* Adds key -> value; a key already present is refused.  `flags` is
 * reserved (0). */
vogno btree_s_insert(void *tree, uint64_t key, void *value, uint32_t flags);

#ifdef __cplusplus
}
#endif

#endif /* KELA_PLATFORM_BTREE_S_H */
