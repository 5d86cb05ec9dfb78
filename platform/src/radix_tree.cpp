// Radix tree over prefixes: a path-compressed binary trie whose nodes live
// in the entries' own headers, so inserting allocates nothing and a lookup
// reads one node per branching level.
//
// Two kinds of node, both inside entries:
//  - the entry node (the header at the start of the entry): tests the bit at
//    the entry's own length; everything below extends the entry's key;
//  - the glue node (the second half of some entry's header): a pure
//    branching node at a bit where two subtrees part.
// Child links are tagged: low bit set = glue node (address of an entry's
// rn_glue_link), clear = entry.  Along a path the tested bits strictly
// increase, so lookups only ever walk downwards.
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>
#include <utility>
#include <vector>

#include "kela_ref_hooks.h"
#include "radix.h"

// Trees past a few hundred entries get a direct index of B bits (B grows
// with the tree, from 8 to 20), built by the first lookup after the last
// insert.  The indexed bits start where the tree first branches, as the
// keys of a set drawn from a few blocks share their leading bits.  For each
// value of those bits a slot holds the best entry ending before them on its
// path and the node where the walk goes on.  A lookup then starts near the
// depth of its answer instead of at the root, so that a large set costs
// about as many dependent memory reads as a small one.  Both halves of a
// slot share one cache line.
//
// The same pass links every entry to the nearest shorter entry covering it
// (rn_up).  A lookup bounded before the slot's bits end, as the repeated
// lookups of a prefix set are, climbs those links from the slot's best
// entry instead of walking down from the root.
struct IndexSlot {
    void *start;       // tagged link to walk on from; null: the walk ends
    radix_node *best;  // best entry ending before the indexed bits do
};
struct RadixIndex {
    unsigned bits;
    unsigned skip;              // every entry agrees with `common` on its first skip bits (or on all
    std::uint8_t common[16];    // of its own, when shorter): the slots index the B bits after those
    std::uint64_t generation;  // unique in the process: names this tree as it now is
    IndexSlot *slot;           // 1 << bits of them, right after this header
};

struct radix_head {
    std::size_t key_offset = 0;
    std::size_t keylen_offset = 0;
    rn_destructor_fn destructor = nullptr;
    void *root = nullptr;  // tagged link
    std::size_t count = 0;
    std::atomic<RadixIndex *> index{nullptr};
    std::mutex index_mu;
};

namespace {

using Link = void *;

inline bool is_glue(Link l) {
    return (reinterpret_cast<std::uintptr_t>(l) & 1u) != 0;
}
inline radix_node *glue_owner(Link l) {
    // The tag marks the glue half; the owner is the header it belongs to.
    // Tagged links are the point of this layout.
    auto *links = reinterpret_cast<void **>(  // NOLINT(performance-no-int-to-ptr)
        reinterpret_cast<std::uintptr_t>(l) & ~std::uintptr_t{1});
    return reinterpret_cast<radix_node *>(reinterpret_cast<char *>(links) -
                                          offsetof(radix_node, rn_glue_link));
}
inline Link glue_link_of(radix_node *n) {
    return reinterpret_cast<Link>(  // NOLINT(performance-no-int-to-ptr)
        reinterpret_cast<std::uintptr_t>(&n->rn_glue_link) | 1u);
}
inline radix_node *entry_node(Link l) {
    return static_cast<radix_node *>(l);
}

struct Tree {
    const radix_head *h;
    const std::uint8_t *key(const radix_node *e) const {
        return reinterpret_cast<const std::uint8_t *>(e) + h->key_offset;
    }
    std::uint8_t len(const radix_node *e) const {
        return *(reinterpret_cast<const std::uint8_t *>(e) + h->keylen_offset);
    }
};

inline int bit_at(const std::uint8_t *key, unsigned b) {
    return (key[b >> 3] >> (7 - (b & 7))) & 1;
}

// Whether a and b agree on their first n bits.
inline bool prefix_equal(const std::uint8_t *a, const std::uint8_t *b, unsigned n) {
    const unsigned full = n >> 3;
    if (std::memcmp(a, b, full) != 0) return false;
    const unsigned rest = n & 7;
    return rest == 0 || ((a[full] ^ b[full]) & (0xFF00u >> rest) & 0xFFu) == 0;
}

// First bit where a and b differ, looking at no more than n bits.
inline unsigned first_difference(const std::uint8_t *a, const std::uint8_t *b, unsigned n) {
    for (unsigned i = 0; i < (n + 7) / 8; ++i) {
        const unsigned x = a[i] ^ b[i];
        if (x != 0) {
            const unsigned b0 = i * 8 + static_cast<unsigned>(__builtin_clz(x) - 24);
            return b0 < n ? b0 : n;
        }
    }
    return n;
}

// Any entry in the subtree of a link.  A glue node's owner always lies
// below it (the owner is one of the two sides it was made for, and entries
// never move out of a subtree), so this reads one node.
radix_node *some_entry(Link l) {
    return is_glue(l) ? glue_owner(l) : entry_node(l);
}

// Trees below this size are walked from the root: they stay in the cache
// anyway, and the index would cost more than the tree.
constexpr std::size_t kIndexFrom = 256;
constexpr unsigned kIndexMinBits = 8, kIndexMaxBits = 20;

// About one slot per entry: the index never costs more than 16 bytes an
// entry.
unsigned index_bits(std::size_t count) {
    unsigned b = 0;
    while ((std::size_t{1} << (b + 1)) <= count) ++b;
    return b < kIndexMinBits ? kIndexMinBits : b > kIndexMaxBits ? kIndexMaxBits : b;
}

// Bits [from, from + count) of a key of `len` bits as a number, bits past
// `len` as zeros (count <= 24; no byte past the key's length is read).
std::uint32_t bits_at(const std::uint8_t *key, unsigned len, unsigned from, unsigned count) {
    const unsigned end = len < from + count ? len : from + count;
    if (end <= from) return 0;
    const unsigned first = from / 8, bytes = (end + 7) / 8;
    std::uint32_t w = 0;
    for (unsigned i = first; i < first + 4; ++i) w = w << 8 | (i < bytes ? key[i] : 0u);
    const unsigned lead = from - first * 8, kept = end - from;  // lead + count <= 31
    w = (w << lead) >> (32 - count);
    return kept < count ? w & ~((std::uint32_t{1} << (count - kept)) - 1) : w;
}

inline void set_bit(std::uint8_t *key, unsigned b, int v) {
    const auto m = static_cast<std::uint8_t>(0x80u >> (b & 7));
    key[b >> 3] = static_cast<std::uint8_t>(v != 0 ? key[b >> 3] | m : key[b >> 3] & ~m);
}

// Fills the slots of every key that starts with the first `known` bits of
// `k` with where a walk from the root would be at bit skip + B.  A node that
// needs a bit not yet known splits the key in two; each slot is filled
// once, so the whole index takes O(2^B + entries) steps.
void fill_index(const radix_head *h, RadixIndex &ix, Link l, const std::uint8_t *k,
                unsigned known, radix_node *best) {
    const Tree t{h};
    const unsigned end = ix.skip + ix.bits;
    auto fill = [&](Link start, radix_node *b) {
        const unsigned free_bits = end - known;
        const std::uint32_t p = bits_at(k, known, ix.skip, ix.bits) >> free_bits;
        const std::uint32_t from = p << free_bits, to = (p + 1) << free_bits;
        for (std::uint32_t i = from; i < to; ++i) ix.slot[i] = {start, b};
    };
    auto split = [&] {
        std::uint8_t half[16];
        std::memcpy(half, k, sizeof half);
        for (int v = 0; v < 2; ++v) {
            set_bit(half, known, v);
            fill_index(h, ix, l, half, known + 1, best);
        }
    };
    for (;;) {
        if (l == nullptr) return fill(nullptr, best);
        if (is_glue(l)) {
            const radix_node *g = glue_owner(l);
            if (g->rn_glue_bit >= end) return fill(l, best);
            if (g->rn_glue_bit >= known) return split();
            l = g->rn_glue_link[bit_at(k, g->rn_glue_bit)];
            continue;
        }
        radix_node *e = entry_node(l);
        const unsigned el = t.len(e);
        if (el >= end) return fill(l, best);
        if (!prefix_equal(t.key(e), k, el < known ? el : known)) return fill(nullptr, best);
        if (el >= known) return split();  // bits up to el (and bit el itself) are needed
        best = e;
        l = e->rn_link[bit_at(k, el)];
    }
}

// Where the tree first branches: the entries above that bit form one chain,
// and every entry agrees with the one found there on the bits before it.
// Keys from a few blocks of a large space share many leading bits; the
// index then spends its slots on the bits that tell entries apart.
unsigned first_branch(const radix_head *h, const radix_node **from) {
    const Tree t{h};
    Link l = h->root;
    const radix_node *last = nullptr;
    while (l != nullptr) {
        if (is_glue(l)) {
            *from = glue_owner(l);
            return glue_owner(l)->rn_glue_bit;
        }
        const radix_node *e = entry_node(l);
        last = e;
        if (e->rn_link[0] != nullptr && e->rn_link[1] != nullptr) break;
        l = e->rn_link[0] != nullptr ? e->rn_link[0] : e->rn_link[1];
    }
    *from = last;
    return last != nullptr ? t.len(last) : 0;
}

// Sets every entry's rn_up: everything below an entry extends its key, so
// the nearest entry above it on its path is the nearest one covering it.
void link_up(const radix_head *h) {
    std::vector<std::pair<Link, radix_node *>> stack;
    if (h->root != nullptr) stack.emplace_back(h->root, nullptr);
    while (!stack.empty()) {
        auto [l, up] = stack.back();
        stack.pop_back();
        if (is_glue(l)) {
            const radix_node *g = glue_owner(l);
            for (Link c : g->rn_glue_link)
                if (c != nullptr) stack.emplace_back(c, up);
            continue;
        }
        radix_node *e = entry_node(l);
        e->rn_up = up;
        for (Link c : e->rn_link)
            if (c != nullptr) stack.emplace_back(c, e);
    }
}

// The index of a large tree, made by the first lookup that needs it; null
// when it cannot be allocated (lookups then walk from the root).
const RadixIndex *index_of(radix_head *h) {
    if (const RadixIndex *ix = h->index.load(std::memory_order_acquire)) return ix;
    std::lock_guard lock(h->index_mu);
    if (const RadixIndex *ix = h->index.load(std::memory_order_relaxed)) return ix;
    const unsigned bits = index_bits(h->count);
    auto *ix = static_cast<RadixIndex *>(
        std::malloc(sizeof(RadixIndex) + (std::size_t{1} << bits) * sizeof(IndexSlot)));
    if (ix == nullptr) return nullptr;
    static std::atomic<std::uint64_t> generations{0};
    ix->bits = bits;
    const radix_node *from = nullptr;
    const unsigned branch = first_branch(h, &from);
    ix->skip = branch < 128 - bits ? branch : 128 - bits;
    std::memset(ix->common, 0, sizeof ix->common);
    if (from != nullptr) {
        std::memcpy(ix->common, Tree{h}.key(from), (ix->skip + 7) / 8);
        if (ix->skip % 8 != 0) ix->common[ix->skip / 8] &= static_cast<std::uint8_t>(0xFF00u >> (ix->skip % 8));
    }
    ix->generation = generations.fetch_add(1, std::memory_order_relaxed) + 1;
    ix->slot = reinterpret_cast<IndexSlot *>(ix + 1);
    fill_index(h, *ix, h->root, ix->common, ix->skip, nullptr);
    link_up(h);
    h->index.store(ix, std::memory_order_release);
    return ix;
}

// Walks down from link l, `best` being the best entry above it.
radix_node *walk(const Tree &t, Link l, const uint8_t *key, unsigned len, radix_node *best) {
    while (l != nullptr) {
        if (is_glue(l)) {
            const radix_node *g = glue_owner(l);
            if (g->rn_glue_bit >= len) break;
            l = g->rn_glue_link[bit_at(key, g->rn_glue_bit)];
            continue;
        }
        radix_node *e = entry_node(l);
        // The links and the key length may lie on different cache lines, and
        // which link is read depends on the length: ask for both lines at
        // once rather than wait for one miss after the other.
        __builtin_prefetch(e->rn_link);
        const unsigned el = t.len(e);
        // Everything below extends this entry's key: a mismatch here ends it.
        if (el > len || !prefix_equal(t.key(e), key, el)) break;
        best = e;
        if (el == len) break;
        l = e->rn_link[bit_at(key, el)];
    }
    return best;
}

// The first of e and the entries covering it that is at most len long.
radix_node *climb(const Tree &t, radix_node *e, unsigned len) {
    while (e != nullptr && t.len(e) > len) e = static_cast<radix_node *>(e->rn_up);
    return e;
}

// This thread's last indexed answer, if any; its generation says whether
// the entry still belongs to a live, unchanged tree.
struct LastAnswer {
    std::uint64_t generation = 0;
    radix_node *entry = nullptr;
};
thread_local LastAnswer t_last;
thread_local std::uint64_t t_lookups = 0;

radix_node *remember(const RadixIndex *ix, radix_node *found) {
    if (found != nullptr) t_last = {ix->generation, found};
    return found;
}

// Longest match at most `len` long.  Searches (used while sets are built,
// between inserts) walk from the root; lookups use the index of a large
// tree.
radix_node *longest_match(radix_head *head, const uint8_t *key, uint8_t len, bool use_index) {
    if (head == nullptr || key == nullptr) return nullptr;
    const Tree t{head};
    if (use_index && head->count >= kIndexFrom) {
        if (const RadixIndex *ix = index_of(head)) {
            // A key that extends this thread's last answer, bounded below
            // its length, is answered by an entry covering that answer: the
            // walk down a prefix set's covering keys costs no index slot.
            LastAnswer &last = t_last;
            if (last.generation == ix->generation && len < t.len(last.entry) &&
                prefix_equal(t.key(last.entry), key, t.len(last.entry))) {
                return remember(ix, climb(t, static_cast<radix_node *>(last.entry->rn_up), len));
            }
            // Keys off the common bits are answered by the chain above them.
            if (len < ix->skip || !prefix_equal(ix->common, key, ix->skip))
                return remember(ix, walk(t, head->root, key, len, nullptr));
            const IndexSlot &s = ix->slot[bits_at(key, len, ix->skip, ix->bits)];
            if (len < ix->skip + ix->bits) {
                // Every entry that can answer ends before the slot's bits do:
                // the slot's best entry or one that covers it.
                return remember(ix, climb(t, s.best, len));
            }
            return remember(ix, walk(t, s.start, key, len, s.best));
        }
    }
    return walk(t, head->root, key, len, nullptr);
}

}  // namespace

extern "C" {

struct radix_head *rn_tree_init(size_t key_offset, size_t keylen_offset,
                                rn_destructor_fn destructor) {
    auto *h = new (std::nothrow) radix_head;
    if (h == nullptr) return nullptr;
    h->key_offset = key_offset;
    h->keylen_offset = keylen_offset;
    h->destructor = destructor;
    return h;
}

size_t rn_tree_count(const struct radix_head *head) {
    return head != nullptr ? head->count : 0;
}

int rn_insert(struct radix_head *head, void *entry) {
    if (head == nullptr || entry == nullptr) return -1;
    const Tree t{head};
    auto *n = static_cast<radix_node *>(entry);
    const std::uint8_t *k = t.key(n);
    const unsigned len = t.len(n);
    if (len > 128) return -1;
    // Inserts never run beside lookups: the index is simply made anew later.
    std::free(head->index.exchange(nullptr));
    n->rn_link[0] = n->rn_link[1] = nullptr;
    n->rn_glue_link[0] = n->rn_glue_link[1] = nullptr;
    n->rn_up = nullptr;
    n->rn_glue_bit = 0;
    if (head->root == nullptr) {
        head->root = n;
        ++head->count;
        return 0;
    }

    // Follow the new key as far as it leads, keeping every link taken, then
    // measure where it parts from an entry found there.  Each step goes at
    // least one bit deeper, alternating at worst between entries and glue
    // nodes, so 2 * 129 + 1 links hold any path.
    Link *path[2 * 129 + 1];
    unsigned depth = 0;
    for (Link *step = &head->root;;) {
        path[depth++] = step;
        Link l = *step;
        if (l == nullptr) break;
        if (is_glue(l)) {
            radix_node *g = glue_owner(l);
            if (g->rn_glue_bit >= len) break;
            step = &g->rn_glue_link[bit_at(k, g->rn_glue_bit)];
        } else {
            radix_node *e = entry_node(l);
            if (t.len(e) >= len) break;
            step = &e->rn_link[bit_at(k, t.len(e))];
        }
    }
    Link last = *path[depth - 1];
    const radix_node *ref = last != nullptr ? some_entry(last) : entry_node(*path[depth - 2]);
    const unsigned ref_len = t.len(ref);
    const unsigned d = first_difference(k, t.key(ref), len < ref_len ? len : ref_len);

    // The link where the new entry (or a glue node) goes is on that path:
    // the first one that does not lead on towards bit d.
    Link *at = nullptr;
    for (unsigned i = 0; at == nullptr; ++i) {
        Link x = *path[i];
        if (x == nullptr) {
            *path[i] = n;
            ++head->count;
            return 0;
        }
        if (is_glue(x)) {
            if (glue_owner(x)->rn_glue_bit >= d) at = path[i];
        } else {
            radix_node *e = entry_node(x);
            const unsigned el = t.len(e);
            if (el == d && d == len) return 1;  // same key and length
            if (!(el <= d && el < len)) at = path[i];
        }
    }

    Link x = *at;
    if (d == len) {
        // The new entry covers everything below this link.
        if (is_glue(x) && glue_owner(x)->rn_glue_bit == len) {
            radix_node *g = glue_owner(x);
            n->rn_link[0] = g->rn_glue_link[0];
            n->rn_link[1] = g->rn_glue_link[1];
            g->rn_glue_link[0] = g->rn_glue_link[1] = nullptr;  // that glue node is retired
        } else {
            n->rn_link[bit_at(t.key(some_entry(x)), len)] = x;
        }
        *at = n;
    } else {
        // The keys part at bit d: the new entry's own glue node branches there.
        const int side = bit_at(k, d);
        n->rn_glue_bit = static_cast<std::uint8_t>(d);
        n->rn_glue_link[side] = n;
        n->rn_glue_link[1 - side] = x;
        *at = glue_link_of(n);
    }
    ++head->count;
    return 0;
}

void *rn_lookup(struct radix_head *head, const uint8_t *key, uint8_t len) {
    ++t_lookups;
    return longest_match(head, key, len, true);
}

uint64_t kref_radix_lookups(void) {
    return t_lookups;
}

void *rn_search(struct radix_head *head, const uint8_t *key, uint8_t len) {
    radix_node *e = longest_match(head, key, len, false);
    return e != nullptr && Tree{head}.len(e) == len ? e : nullptr;
}

void rn_tree_destroy(struct radix_head **head) {
    if (head == nullptr || *head == nullptr) return;
    radix_head *h = *head;
    // Glue nodes live inside entries: collect every entry before any is
    // released.
    std::vector<radix_node *> entries;
    entries.reserve(h->count);
    std::vector<Link> stack;
    if (h->root != nullptr) stack.push_back(h->root);
    while (!stack.empty()) {
        Link l = stack.back();
        stack.pop_back();
        radix_node *n = is_glue(l) ? glue_owner(l) : entry_node(l);
        void **links = is_glue(l) ? n->rn_glue_link : n->rn_link;
        if (!is_glue(l)) entries.push_back(n);
        for (int i = 0; i < 2; ++i)
            if (links[i] != nullptr) stack.push_back(links[i]);
    }
    if (h->destructor != nullptr)
        for (radix_node *e : entries) h->destructor(e);
    std::free(h->index.load());
    delete h;
    *head = nullptr;
}

}  // extern "C"
