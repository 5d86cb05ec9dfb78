// SPDX-License-Identifier: Apache-2.0
// Internals shared by the prefix sources (values, matching, prefix sets,
// the attribute) and by the address types that parse the same texts.
#ifndef KELA_PREFIX_HPP
#define KELA_PREFIX_HPP

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>

#include "kela_internal.hpp"
#include "kela_shared.h"
#include "radix.h"

namespace kela::prefix {

inline constexpr std::uint8_t kV4 = 2;
inline constexpr std::uint8_t kV6 = 10;

// Stops the process: a state the library's own parsers cannot produce.
[[noreturn]] void assertion(const char *prototype);

inline bool known_family(std::uint8_t family) {
    return family == kV4 || family == kV6;
}

// Releases an entry: its mask, then the record (null accepted).
inline void free_spec(shared_kela_prefix_matchspec_td *spec) {
    if (spec != nullptr) {
        std::free(spec->mask);
        std::free(spec);
    }
}
struct SpecDeleter {
    void operator()(shared_kela_prefix_matchspec_td *s) const noexcept { free_spec(s); }
};
using SpecPtr = std::unique_ptr<shared_kela_prefix_matchspec_td, SpecDeleter>;

// The size of an entry record of the family.
inline std::size_t spec_bytes(std::uint8_t family) {
    return offsetof(shared_kela_prefix_matchspec_td, addr) + shared_kela_prefix_key_bytes(family);
}

// A zero-filled entry record with room for the family's key bytes.
inline SpecPtr alloc_spec(std::uint8_t family) {
    return SpecPtr(
        static_cast<shared_kela_prefix_matchspec_td *>(std::calloc(1, spec_bytes(family))));
}

// A heap copy of a length-form entry record (no mask); null when it cannot
// be allocated.
inline SpecPtr copy_spec(const shared_kela_prefix_matchspec_td *from) {
    SpecPtr spec = alloc_spec(from->family);
    if (spec) std::memcpy(spec.get(), from, spec_bytes(from->family));
    return spec;
}

// Room on the stack for an entry record of either family, so that a parse
// need not allocate before it knows where the record will live.
struct SpecRoom {
    alignas(shared_kela_prefix_matchspec_td) unsigned char bytes
        [sizeof(shared_kela_prefix_matchspec_td) + 16] = {};
    shared_kela_prefix_matchspec_td *spec() {
        return reinterpret_cast<shared_kela_prefix_matchspec_td *>(bytes);
    }
};

// Parses a length-form entry (address, length, ge, le; strict numbers,
// ge <= le <= the family maximum) into `out`, which has room for 16
// address bytes.  The texts are not null.
vogno parse_length_form(const char *addr_text, const char *len_text, const char *ge_text,
                        const char *le_text, shared_kela_prefix_matchspec_td *out);

// The first n bits of a byte (n = 0 to 7; 0 selects nothing).
inline std::uint8_t partial_byte_mask(unsigned n) {
    return static_cast<std::uint8_t>(0xFF00u >> n);
}

// Whether two byte strings agree on their first n bits.
inline bool leading_bits_equal(const std::uint8_t *a, const std::uint8_t *b, unsigned n) {
    const unsigned full = n / 8;
    if (std::memcmp(a, b, full) != 0) return false;
    return n % 8 == 0 || ((a[full] ^ b[full]) & partial_byte_mask(n % 8)) == 0;
}

// Parses an address of the family (2: 4 bytes, 10: 16 bytes) into out.
bool parse_address(std::uint8_t family, const char *text, std::uint8_t *out);

// The instance print of the prefix-set operators: the print context with
// each '%' replaced by "A/L[ ge G][ le E][ eq E] ...)" of the vector's first
// (address, length, ge, le) entry; `mask_form` hides the bounds of an
// address/mask entry.  Newly allocated; null when that fails.
char *print_first_entry(std::uint32_t count, char **params, const char *print_ctx, bool mask_form);

// Frees a value's address when the getter allocated it for this call.
inline void release_value(shared_kela_prefix_addr_td &v) {
    if (v.free_addr != 0 && v.addr != nullptr) std::free(v.addr);
    v.addr = nullptr;
}

}  // namespace kela::prefix

// ---- the prefix-set match context ---------------------------------------------

// Tree entry: the entries filed under one key (also the wild list, whose
// key is not used).  A tree entry carries its first entry record right
// after this header, and the tree reads the key from that record's address
// (its bits past the key length do not count): most keys hold a single
// entry, and a lookup then finds all it reads in two cache lines.  The tree
// entries of a set lie in one block, in key order (96 bytes an IPv4 key,
// 112 an IPv6 one).
struct shared_kela_prefix_info_td {
    radix_node hdr;
    shared_kela_prefix_matchspec_td **specs;  // &first while it holds one entry
    std::int32_t count;
    std::uint8_t flags;  // kFirstInside, kInBlock
    std::uint8_t keylen;
    shared_kela_prefix_matchspec_td *first;
};

namespace kela::prefix {
// `first` lives in the tree entry itself: never freed alone.
inline constexpr std::uint8_t kFirstInside = 1;
// The tree entry lies in its set's block: freed with the block.
inline constexpr std::uint8_t kInBlock = 2;
}  // namespace kela::prefix

// One wildcard mask of a family, with the tree of its entries.
struct shared_kela_prefix_list_node {
    radix_head *head;
    shared_kela_prefix_list_node *next;
    std::uint8_t keylen;
    std::uint8_t key[];
};

// Entry of a mask node's tree: address AND NOT mask.
struct shared_kela_prefix_acl_entry {
    radix_node hdr;
    shared_kela_prefix_matchspec_td *spec;
    std::uint8_t keylen;
    std::uint8_t key[];
};

struct shared_kela_prefix_match_ctx_td {
    radix_head *v4_head;
    radix_head *v6_head;
    shared_kela_prefix_info_td *v4_wild;
    shared_kela_prefix_info_td *v6_wild;
    shared_kela_prefix_list_node **v4_lists;
    shared_kela_prefix_list_node **v6_lists;
    shared_kela_prefix_get_value_fn get_value;
    shared_kela_prefix_cmp_td cmp;
    char *print_ctx;
    void *block;  // the tree entries of both families
};

namespace kela::prefix {

vogno match_ctx_build(std::uint32_t count, char **params, shared_kela_prefix_match_ctx_td *ctx);
vogno match_ctx_cmp(void *route, std::uint32_t count, void **slots, void *ctx,
                    std::int32_t *result);

// The family's tree and wild list; another family stops the process.
radix_head *family_head(shared_kela_prefix_match_ctx_td *ctx, std::uint8_t family);
shared_kela_prefix_info_td *family_wild(shared_kela_prefix_match_ctx_td *ctx, std::uint8_t family);

}  // namespace kela::prefix

#endif  // KELA_PREFIX_HPP
