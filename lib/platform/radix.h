/* SPDX-License-Identifier: Apache-2.0 */
/*
 * Platform radix tree over bit-string keys with lengths (prefixes).
 *
 * The tree does not allocate per entry: every entry the caller inserts
 * begins with a `struct radix_node` header that the tree uses for its own
 * links.  The entry carries its key bytes (network order, bit 0 is the most
 * significant bit of the first byte) at one byte offset and its key length
 * in bits (0 to 128) in an 8-bit field at another; both offsets are given
 * when the tree is created.  An entry's key and length must not change while
 * it is in the tree.  A tree may be read by any number of threads at once
 * while nobody inserts.  Lookups neither allocate nor lock, except the
 * first lookup after inserts into a large tree, which builds the tree's
 * lookup index (once, under the tree's own lock).
 */
#ifndef KELA_PLATFORM_RADIX_H
#define KELA_PLATFORM_RADIX_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Reserved for the tree; callers leave it alone (zero-filled is fine). */
struct radix_node {
    void *rn_link[2];      /* the entry's own node: its two subtrees */
    void *rn_glue_link[2]; /* a branching node the entry lends the tree */
    uintptr_t rn_up;       /* the nearest shorter entry covering this one, and
                              the bit that branching node tests */
};

struct radix_head;

typedef void (*rn_destructor_fn)(void *entry);

/* A new empty tree, or null when it cannot be allocated.  `destructor` is
 * called on every entry by rn_tree_destroy (may be null). */
struct radix_head *rn_tree_init(size_t key_offset, size_t keylen_offset,
                                rn_destructor_fn destructor);

/* Adds `entry` (which begins with a struct radix_node).  Returns 0 when
 * added, non-zero when refused: an entry with the same key and length is
 * already in the tree, the length is above 128, or the entry lies at an
 * address of 2^56 or above. */
int rn_insert(struct radix_head *head, void *entry);

/* The entry whose length equals `len` and whose key equals the first `len`
 * bits of `key`, or null. */
void *rn_search(struct radix_head *head, const uint8_t *key, uint8_t len);

/* Longest match: of the entries whose length is at most `len` and whose key
 * equals the first bits of `key` over that length, the one with the
 * longest length; null if none. */
void *rn_lookup(struct radix_head *head, const uint8_t *key, uint8_t len);

/* Calls the destructor on every entry, frees the tree and sets *head to
 * null.  A null pointer or null tree is accepted. */
void rn_tree_destroy(struct radix_head **head);

/* Number of entries in the tree. */
size_t rn_tree_count(const struct radix_head *head);

#ifdef __cplusplus
}
#endif

#endif /* KELA_PLATFORM_RADIX_H */
