// SPDX-License-Identifier: Apache-2.0
// Prefix sets compiled for "pfxmatch", "pfxlonger" and "pfxorlonger": per
// family a wild list (all-zero addresses, tried against every prefix), a
// radix tree of length-form entries keyed by their shortest
// relevant prefix, and per wildcard mask a tree of address/mask entries.
#include <algorithm>
#include <cstring>
#include <utility>

#include "kela_callbacks.hpp"
#include "kela_prefix.hpp"
#include "kela_segments.hpp"

using namespace kela::prefix;

namespace {

using Info = shared_kela_prefix_info_td;
using AclEntry = shared_kela_prefix_acl_entry;
using MaskNode = shared_kela_prefix_list_node;
using Ctx = shared_kela_prefix_match_ctx_td;

void info_free(void *entry) {
    auto *info = static_cast<Info *>(entry);
    if (info == nullptr) return;
    for (std::int32_t i = (info->flags & kFirstInside) != 0 ? 1 : 0; i < info->count; ++i)
        free_spec(info->specs[i]);
    if (info->specs != &info->first) std::free(info->specs);
    if ((info->flags & kInBlock) == 0) std::free(info);
}

void acl_entry_free(void *entry) {
    auto *acl = static_cast<AclEntry *>(entry);
    if (acl == nullptr) return;
    free_spec(acl->spec);
    std::free(acl);
}

void free_lists(MaskNode **anchor) {
    if (anchor == nullptr) return;
    for (MaskNode *node = *anchor; node != nullptr;) {
        MaskNode *next = node->next;
        rn_tree_destroy(&node->head);
        std::free(node);
        node = next;
    }
    std::free(anchor);
}

// Everything the context owns but its print text; the first six fields end
// up null.
void teardown(Ctx *ctx) {
    rn_tree_destroy(&ctx->v4_head);
    rn_tree_destroy(&ctx->v6_head);
    std::free(ctx->block);  // the tree entries, once the trees have let go of them
    ctx->block = nullptr;
    info_free(ctx->v4_wild);
    info_free(ctx->v6_wild);
    free_lists(ctx->v4_lists);
    free_lists(ctx->v6_lists);
    ctx->v4_wild = ctx->v6_wild = nullptr;
    ctx->v4_lists = ctx->v6_lists = nullptr;
}

bool all_zero(const std::uint8_t *bytes, std::size_t n) {
    for (std::size_t i = 0; i < n; ++i)
        if (bytes[i] != 0) return false;
    return true;
}

// Appends an entry unless one with the same len, ge and le is
// already filed there (the addresses agree on the filed bits): then the new
// one is released and *spec becomes null.  `upper` (when not 0) becomes the
// filed entry's le: the longer kinds match with the family maximum
// as upper bound, and setting it while the set is private to its build
// keeps evaluations from ever writing to a shared entry.
vogno info_add_matchspec(Info *info, shared_kela_prefix_matchspec_td **spec, std::uint8_t upper) {
    shared_kela_prefix_matchspec_td *s = *spec;
    const std::uint8_t le = upper != 0 ? upper : s->le;
    for (std::int32_t i = 0; i < info->count; ++i) {
        const shared_kela_prefix_matchspec_td *o = info->specs[i];
        if (o->len == s->len && o->ge == s->ge && o->le == le) {
            free_spec(s);
            *spec = nullptr;
            return 0;
        }
    }
    // Most keys hold a single entry: it lives in the record itself, and only
    // a second one moves the list to an array of its own.
    if (info->count == 0) {
        info->first = s;
        info->specs = &info->first;
        info->count = 1;
    } else {
        const std::size_t n = static_cast<std::size_t>(info->count) + 1;
        auto **grown = static_cast<shared_kela_prefix_matchspec_td **>(
            info->specs == &info->first
                ? std::malloc(n * sizeof(shared_kela_prefix_matchspec_td *))
                : std::realloc(info->specs, n * sizeof(shared_kela_prefix_matchspec_td *)));
        if (grown == nullptr) return KEL_SHARED_ERR_NO_MEMORY;
        if (info->specs == &info->first) grown[0] = info->first;
        grown[info->count++] = s;
        info->specs = grown;
    }
    if (upper != 0) s->le = upper;
    return 0;
}

// A new mask node for the entry's mask, put at the front of its
// family's list; null when it cannot be made.
MaskNode *new_mask_node(Ctx *ctx, const shared_kela_prefix_matchspec_td *spec) {
    MaskNode **anchor = spec->family == kV4 ? ctx->v4_lists : ctx->v6_lists;
    const std::uint8_t bytes = shared_kela_prefix_key_bytes(spec->family);
    kela::CPtr<MaskNode> node = kela::zalloc<MaskNode>(offsetof(MaskNode, key) + bytes);
    if (!node) return nullptr;
    node->keylen = static_cast<std::uint8_t>(bytes * 8);
    std::memcpy(node->key, spec->mask, bytes);
    node->head = rn_tree_init(offsetof(AclEntry, key), offsetof(AclEntry, keylen), acl_entry_free);
    if (node->head == nullptr) return nullptr;
    node->next = *anchor;
    *anchor = node.get();
    return node.release();
}

void compute_acl_key(AclEntry *entry, const shared_kela_prefix_matchspec_td *spec) {
    const std::uint8_t bytes = shared_kela_prefix_key_bytes(spec->family);
    entry->keylen = static_cast<std::uint8_t>(bytes * 8);
    for (std::uint8_t i = 0; i < bytes; ++i)
        entry->key[i] = static_cast<std::uint8_t>(spec->addr[i] & ~spec->mask[i]);
}

// Files an address/mask entry in the tree of its mask.  The same
// address under the same mask with other bounds cannot share an entry; it
// goes to a further node of the same mask rather than being lost (every node
// is probed at lookup).  The same bounds again is a duplicate and dropped.
vogno add_acl(Ctx *ctx, SpecPtr spec) {
    const std::uint8_t bytes = shared_kela_prefix_key_bytes(spec->family);
    kela::CPtr<AclEntry> entry = kela::zalloc<AclEntry>(offsetof(AclEntry, key) + bytes);
    if (!entry) return KEL_SHARED_ERR_NO_MEMORY;
    compute_acl_key(entry.get(), spec.get());
    MaskNode *first = spec->family == kV4 ? *ctx->v4_lists : *ctx->v6_lists;
    for (MaskNode *node = first; node != nullptr; node = node->next) {
        if (std::memcmp(node->key, spec->mask, node->keylen / 8) != 0) continue;
        if (rn_insert(node->head, entry.get()) == 0) {
            entry.release()->spec = spec.release();
            return 0;
        }
        auto *held = static_cast<AclEntry *>(rn_search(node->head, entry->key, entry->keylen));
        if (held != nullptr && held->spec->ge == spec->ge && held->spec->le == spec->le) return 0;
    }
    MaskNode *node = new_mask_node(ctx, spec.get());
    if (node == nullptr) return KEL_SHARED_ERR_NO_MEMORY;
    if (rn_insert(node->head, entry.get()) != 0) return KEL_SHARED_ERR_TREE_INSERT;
    entry.release()->spec = spec.release();
    return 0;
}

// The le that the context's kind makes every filed entry use.
std::uint8_t upper_bound(const Ctx *ctx, std::uint8_t family) {
    const bool longer =
        ctx->cmp == SHARED_KELA_PREFIX_CMP_LONGER || ctx->cmp == SHARED_KELA_PREFIX_CMP_ORLONGER;
    return longer ? shared_kela_prefix_key_len(family) : 0;
}

// A tree entry of the family: header, then its first entry record, padded
// so that the next one is 8-aligned (its pointers need no more, and every
// byte of padding is a byte per entry of a set of a million):
//
//   0       40     48     52    53    54     56      64          84    88
//   | tree   | specs | count | flags | keylen | first | entry record | key |
//   | header |                                       | (family .. le, mask, is_acl)
//
// (IPv4; an IPv6 key takes 16 bytes: 104 in all.)
constexpr std::size_t tree_entry_bytes(std::uint8_t family) {
    return (sizeof(Info) + offsetof(shared_kela_prefix_matchspec_td, addr) +
            (family == kV4 ? 4 : 16) + 7) /
           8 * 8;
}
static_assert(tree_entry_bytes(kV4) == 88 && tree_entry_bytes(kV6) == 104);

shared_kela_prefix_matchspec_td *inside_spec(Info *info) {
    return reinterpret_cast<shared_kela_prefix_matchspec_td *>(info + 1);
}

// Where the tree reads a tree entry's key and its length.
constexpr std::size_t kKeyOffset = sizeof(Info) + offsetof(shared_kela_prefix_matchspec_td, addr);

// Room for a sort's second copy, one place for both families.
void *sort_room(std::size_t bytes) {
    return std::malloc(bytes);
}

// Length-form entries of one family wait here, as parsed, until every entry
// is read; then they become tree entries laid out in one block in key order,
// and go into their tree in that order: each insert finds most of its path
// still in the cache from the one before, and a set costs one allocation
// for all its keys instead of one each.  The sort is stable, so entries of
// one key keep the order they were given in.  `Bytes` is the family's
// address size: an IPv4 entry waits in 12 bytes.
template <unsigned Bytes>
class Pending {
  public:
    Pending() = default;
    Pending(const Pending &) = delete;
    Pending &operator=(const Pending &) = delete;
    ~Pending() { std::free(items_); }

    // Room for n entries at once: growing by copies would touch the
    // memory two or three times over.
    vogno reserve(std::size_t n) {
        if (n <= cap_) return 0;
        auto *grown = static_cast<Item *>(std::realloc(items_, n * sizeof(Item)));
        if (grown == nullptr) return KEL_SHARED_ERR_NO_MEMORY;
        items_ = grown;
        cap_ = n;
        return 0;
    }

    vogno push(const shared_kela_prefix_matchspec_td *parsed) {
        if (n_ == cap_) {
            if (vogno st = reserve(cap_ == 0 ? 64 : cap_ * 2); st != 0) return st;
        }
        Item &it = items_[n_++];
        it.keylen = std::min({parsed->len, parsed->ge, parsed->le});
        it.len = parsed->len;
        it.ge = parsed->ge;
        it.le = parsed->le;
        std::memcpy(it.addr, parsed->addr, Bytes);
        // The key: the address cut to keylen.
        for (unsigned i = 0; i < Bytes; ++i)
            it.key[i] =
                8 * (i + 1) <= it.keylen ? it.addr[i]
                : 8 * i < it.keylen
                    ? static_cast<std::uint8_t>(it.addr[i] & partial_byte_mask(it.keylen % 8))
                    : 0;
        return 0;
    }

    std::size_t keys() const {
        std::size_t n = 0;
        for (std::size_t i = 0; i < n_; ++i) n += i == 0 || !same_key(items_[i - 1], items_[i]);
        return n;
    }

    vogno sort() {
        if (n_ < 2 || in_order()) return 0;
        kela::CPtr<Item> spare(static_cast<Item *>(sort_room(n_ * sizeof(Item))));
        if (!spare) return KEL_SHARED_ERR_NO_MEMORY;
        Item *from = items_, *to = spare.get();
        // Least significant first: the key length, then the key's bytes
        // from the last; a column that all keys share needs no pass (the
        // tail of most keys is zeros).
        for (int column = Bytes; column >= 0; --column) {
            auto digit = [column](const Item &it) -> unsigned {
                return column == Bytes ? it.keylen : it.key[column];
            };
            std::size_t count[256] = {};
            for (std::size_t i = 0; i < n_; ++i) ++count[digit(from[i])];
            if (count[digit(from[0])] == n_) continue;
            std::size_t at = 0;
            for (std::size_t &c : count) at += std::exchange(c, at);
            for (std::size_t i = 0; i < n_; ++i) to[count[digit(from[i])]++] = from[i];
            std::swap(from, to);
        }
        if (from != items_) std::memcpy(items_, from, n_ * sizeof(Item));
        return 0;
    }

    // Lays the sorted entries out as tree entries from `at` on, one per
    // key, and inserts them into the family's tree; `at` moves past them.
    vogno file(Ctx *ctx, std::uint8_t family, unsigned char *&at) const {
        radix_head *tree = family_head(ctx, family);
        const std::uint8_t upper = upper_bound(ctx, family);
        for (std::size_t i = 0; i < n_;) {
            auto *info = reinterpret_cast<Info *>(at);
            at += tree_entry_bytes(family);
            info->flags = kFirstInside | kInBlock;
            info->keylen = items_[i].keylen;
            shared_kela_prefix_matchspec_td *first = inside_spec(info);
            fill(items_[i], family, first);
            // A new tree entry takes its first entry in place, which cannot
            // fail.
            info_add_matchspec(info, &first, upper);
            for (++i; i < n_ && same_key(items_[i - 1], items_[i]); ++i) {
                SpecPtr spec = alloc_spec(family);
                if (!spec) {
                    info_free(info);
                    return KEL_SHARED_ERR_NO_MEMORY;
                }
                fill(items_[i], family, spec.get());
                shared_kela_prefix_matchspec_td *raw = spec.release();
                if (vogno st = info_add_matchspec(info, &raw, upper); st != 0) {
                    free_spec(raw);
                    info_free(info);
                    return st;
                }
            }
            // One tree entry per key and length: the tree cannot refuse it.
            if (rn_insert(tree, info) != 0) {
                info_free(info);
                return KEL_SHARED_ERR_TREE_INSERT;
            }
        }
        return 0;
    }

  private:
    struct Item {
        std::uint8_t key[Bytes];
        std::uint8_t addr[Bytes];
        std::uint8_t keylen, len, ge, le;
    };

    // Sets copied from routing tables and address plans mostly come in
    // address order already: one look saves the sort's passes and its copy.
    bool in_order() const {
        for (std::size_t i = 1; i < n_; ++i) {
            const int c = std::memcmp(items_[i - 1].key, items_[i].key, Bytes);
            if (c > 0 || (c == 0 && items_[i - 1].keylen > items_[i].keylen)) return false;
        }
        return true;
    }

    static bool same_key(const Item &a, const Item &b) {
        return a.keylen == b.keylen && std::memcmp(a.key, b.key, Bytes) == 0;
    }

    static void fill(const Item &it, std::uint8_t family, shared_kela_prefix_matchspec_td *spec) {
        spec->family = family;
        spec->len = it.len;
        spec->ge = it.ge;
        spec->le = it.le;
        spec->mask = nullptr;
        spec->is_acl = 0;
        std::memcpy(spec->addr, it.addr, Bytes);
    }

    Item *items_ = nullptr;
    std::size_t n_ = 0, cap_ = 0;
};

// The length-form entries of both families, waiting to be filed.
struct PendingSet {
    Pending<4> v4;
    Pending<16> v6;

    vogno push(const shared_kela_prefix_matchspec_td *parsed) {
        return parsed->family == kV4 ? v4.push(parsed) : v6.push(parsed);
    }

    // Every waiting entry into its tree, the tree entries in one block.
    vogno file_all(Ctx *ctx) {
        if (vogno st = v4.sort(); st != 0) return st;
        if (vogno st = v6.sort(); st != 0) return st;
        const std::size_t n4 = v4.keys(), n6 = v6.keys();
        if (n4 + n6 == 0) return 0;
        ctx->block = std::calloc(1, n4 * tree_entry_bytes(kV4) + n6 * tree_entry_bytes(kV6));
        if (ctx->block == nullptr) return KEL_SHARED_ERR_NO_MEMORY;
        auto *at = static_cast<unsigned char *>(ctx->block);
        if (vogno st = v4.file(ctx, kV4, at); st != 0) return st;
        return v6.file(ctx, kV6, at);
    }
};

// Parses one entry of the vector and files it: wild and address/mask
// entries at once, length-form entries into `pending`.
vogno add_entry(Ctx *ctx, PendingSet &pending, const char *a1, const char *a2, const char *a3,
                const char *a4, bool acl) {
    SpecPtr spec;
    if (acl) {
        shared_kela_prefix_matchspec_td *raw = nullptr;
        if (vogno st = shared_kela_prefix_cvt_string_to_matchspec_acl(a1, a2, a3, a4, &raw);
            st != 0)
            return st;
        spec.reset(raw);
    } else {
        if (a1 == nullptr || a2 == nullptr || a3 == nullptr || a4 == nullptr)
            return KEL_SHARED_ERR_BAD_VALUE;
        // Parsed on the stack: a new key's record holds the entry itself.
        SpecRoom room;
        if (vogno st = parse_length_form(a1, a2, a3, a4, room.spec()); st != 0) return st;
        const shared_kela_prefix_matchspec_td *parsed = room.spec();
        if (!all_zero(parsed->addr, shared_kela_prefix_key_bytes(parsed->family)))
            return pending.push(parsed);
        spec = copy_spec(parsed);
        if (!spec) return KEL_SHARED_ERR_NO_MEMORY;
    }
    if (all_zero(spec->addr, shared_kela_prefix_key_bytes(spec->family))) {
        const std::uint8_t upper = upper_bound(ctx, spec->family);
        shared_kela_prefix_matchspec_td *raw = spec.release();
        vogno st = info_add_matchspec(family_wild(ctx, raw->family), &raw, upper);
        if (st != 0) free_spec(raw);
        return st;
    }
    return add_acl(ctx, std::move(spec));
}

}  // namespace

namespace kela::prefix {

radix_head *family_head(Ctx *ctx, std::uint8_t family) {
    if (family == kV4) return ctx->v4_head;
    if (family == kV6) return ctx->v6_head;
    assertion(
        "struct radix_head *shared_kela_prefix_head(shared_kela_prefix_match_ctx_td *, uint8_t)");
}

shared_kela_prefix_info_td *family_wild(Ctx *ctx, std::uint8_t family) {
    if (family == kV4) return ctx->v4_wild;
    if (family == kV6) return ctx->v6_wild;
    assertion(
        "shared_kela_prefix_info_td *shared_kela_prefix_wild(shared_kela_prefix_match_ctx_td *, "
        "uint8_t)");
}

vogno match_ctx_build(std::uint32_t count, char **params, Ctx *ctx) {
    if (static_cast<std::int32_t>(count) < 0) return 4;
    if (ctx->v4_head != nullptr || ctx->v6_head != nullptr) return 3;
    ctx->v4_head = rn_tree_init(kKeyOffset, offsetof(Info, keylen), info_free);
    ctx->v6_head = rn_tree_init(kKeyOffset, offsetof(Info, keylen), info_free);
    ctx->v4_wild = static_cast<Info *>(std::calloc(1, sizeof(Info)));
    ctx->v6_wild = static_cast<Info *>(std::calloc(1, sizeof(Info)));
    ctx->v4_lists = static_cast<MaskNode **>(std::calloc(1, sizeof(MaskNode *)));
    ctx->v6_lists = static_cast<MaskNode **>(std::calloc(1, sizeof(MaskNode *)));
    if (!ctx->v4_head || !ctx->v6_head || !ctx->v4_wild || !ctx->v6_wild || !ctx->v4_lists ||
        !ctx->v6_lists) {
        teardown(ctx);
        return KEL_SHARED_ERR_NO_MEMORY;
    }
    if (count == 0) return 0;

    kela::Segments segs(count, params);
    if (!segs) {
        teardown(ctx);
        return KEL_SHARED_ERR_BAD_VALUE;
    }
    vogno st = 0;
    PendingSet pending;
    // An IPv4 set in one go: its texts name at most count / 5 entries.
    // The IPv6 array grows as it needs to.
    // (Failing here is failing to file an entry: status 4, as below.)
    if (pending.v4.reserve(count / 5) != 0) {
        teardown(ctx);
        return 4;
    }
    kela::WalkEnd end = segs.each(
        4,
        [&](char **a) {
            // An address/mask entry writes its mask where the length goes.
            const bool acl = a[1] != nullptr && a[1][0] != '\0' && a[1][1] != '\0' &&
                             a[1][2] != '\0' && a[1][3] != '\0';  // longer than 3
            return add_entry(ctx, pending, a[0], a[1], a[2], a[3], acl);
        },
        &st);
    if (end != kela::WalkEnd::Complete || pending.file_all(ctx) != 0) {
        teardown(ctx);
        return 4;
    }
    return 0;
}

}  // namespace kela::prefix

namespace {

// Whether an entry's bounds alone keep out a value of `len` bits (not 0):
// the first step of the range rule, which every entry test begins with.
// Most covering entries a lookup meets are kept out by their lengths; this
// answers for them without the call.  (The longer kinds' upper bound is the
// family maximum, stored when the set was built.)
inline bool kept_out(const shared_kela_prefix_matchspec_td *s, unsigned len,
                     shared_kela_prefix_cmp_td kind) {
    const unsigned lower = std::max(s->len, s->ge);
    if (kind == SHARED_KELA_PREFIX_CMP_LONGER) return len <= lower;
    if (kind == SHARED_KELA_PREFIX_CMP_ORLONGER) return len < lower;
    return len < lower || len > std::max(s->len, s->le);
}

// Whether an entry accepts the value, its bounds tested here first.
inline bool accepts(shared_kela_prefix_addr_td *value, shared_kela_prefix_matchspec_td *spec,
                    shared_kela_prefix_cmp_td kind) {
    return !(value->len != 0 && kept_out(spec, value->len, kind)) &&
           shared_kela_prefix_match(value, spec, kind) != 0;
}

// Whether any entry of a record of several (or of the wild list) accepts
// the value.  Kept out of line: the lookup's loop stays small.
__attribute__((noinline)) bool any_accepts(const Info *info, shared_kela_prefix_addr_td *value,
                                           shared_kela_prefix_cmp_td kind) {
    for (std::int32_t i = 0; i < info->count; ++i)
        if (accepts(value, info->specs[i], kind)) return true;
    return false;
}

// The mask phase: each mask's tree probed with the value's address under
// the mask.
__attribute__((noinline)) bool mask_accepts(const MaskNode *first,
                                            shared_kela_prefix_addr_td *value) {
    const std::uint8_t bytes = value->family == kV4 ? 4 : 16;
    for (const MaskNode *node = first; node != nullptr; node = node->next) {
        // The probe lives on the stack: evaluation allocates nothing.
        std::uint8_t probe[16];
        for (std::uint8_t i = 0; i < bytes; ++i)
            probe[i] = static_cast<std::uint8_t>(value->addr[i] & ~node->key[i]);
        auto *entry = static_cast<AclEntry *>(
            rn_lookup(node->head, probe, static_cast<std::uint8_t>(bytes * 8)));
        if (entry != nullptr && entry->spec->is_acl == 1 &&
            shared_kela_prefix_match_acl(value, entry->spec) != 0)
            return true;
    }
    return false;
}

// One value against the whole set: wild list, then the tree from the most
// to the least specific covering key, then each mask.
bool set_accepts(const Ctx *ctx, shared_kela_prefix_addr_td *value) {
    const bool v4 = value->family == kV4;
    const shared_kela_prefix_cmp_td kind = ctx->cmp;
    const Info *wild = v4 ? ctx->v4_wild : ctx->v6_wild;
    if (wild->count != 0 && any_accepts(wild, value, kind)) return true;

    radix_head *tree = v4 ? ctx->v4_head : ctx->v6_head;
    for (std::uint32_t n = value->len;;) {
        auto *entry =
            static_cast<Info *>(rn_lookup(tree, value->addr, static_cast<std::uint8_t>(n)));
        if (entry == nullptr) break;
        // Most keys hold one entry: `first` names it without going through
        // the array.
        if (entry->count == 1 ? accepts(value, entry->first, kind)
                              : any_accepts(entry, value, kind))
            return true;
        if (entry->keylen <= 1) break;
        n = entry->keylen - 1u;
    }

    const MaskNode *first = v4 ? *ctx->v4_lists : *ctx->v6_lists;
    return first != nullptr && mask_accepts(first, value);
}

}  // namespace

namespace kela::prefix {

vogno match_ctx_cmp(void *route, std::uint32_t count, void **, void *context,
                    std::int32_t *result) {
    if (result == nullptr) return KEL_SHARED_ERR_NULL_RESULT;
    *result = 0;
    auto *ctx = static_cast<Ctx *>(context);
    if (ctx == nullptr || ctx->v4_head == nullptr || ctx->v6_head == nullptr ||
        ctx->get_value == nullptr)
        return KEL_SHARED_ERR_NO_PARAM_ARRAY;
    if (count == 0) return 0;
    for (;;) {
        shared_kela_prefix_addr_td value{};
        std::uint32_t more = 0;
        vogno st = ctx->get_value(ctx, route, &value, &more);
        if (st == 16 || st == 19) return 0;  // the route has no value
        if (st != 0) return st;
        if (!known_family(value.family) || value.addr == nullptr) {
            release_value(value);
            return KEL_SHARED_ERR_NO_PARAM_ARRAY;
        }
        const bool accepted = set_accepts(ctx, &value);
        release_value(value);
        if (accepted) {
            *result = 1;
            return 0;
        }
        if (more == 0) return 0;
    }
}

}  // namespace kela::prefix

extern "C" KELA_SHARED_API vogno shared_kela_prefix_cmp_match_free(void *context) {
    auto *ctx = static_cast<Ctx *>(context);
    if (ctx == nullptr) return 0;
    teardown(ctx);
    std::free(ctx->print_ctx);
    std::free(ctx);
    return 0;
}
