// SPDX-License-Identifier: Apache-2.0
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
#include <sys/mman.h>

#include <algorithm>
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

// Trees past a few hundred entries get a lookup index, built by the first
// lookup after the last insert.  Its answers are full-length longest
// matches: for every key, the longest entry covering it.  They change only
// at the ends of entries, so the key space falls into runs of one answer;
// the index finds a key's run in as few reads as possible:
//  - a direct table over the key's first T bits (T up to 16) counted from
//    where the tree first branches (the keys of a set drawn from a few
//    blocks share their leading bits): 256 KiB at most, which the caches
//    keep;
//  - below a slot whose keys need more bits, a run node when the slot has
//    up to 64 runs: their starts, then their answers, in a few adjacent
//    cache lines read together; else a table of the next 8 bits (or fewer)
//    whose slots go on the same way.
// So a key of a large IPv4 set costs the table, one run node or table read,
// and the entry; of a large IPv6 set, one read more per 8 bits of dense keys.
// A run node also says, for each run, which run holds the entry covering
// the run's answer: a lookup then asks for every covering entry at once,
// and the lookups of a prefix set that go on to those entries find them
// already read instead of waiting for each in turn.
//
// Each node also names the longest entry covering all of it (its fallback),
// the answer for lookups bounded before its bits begin.  A lookup bounded
// inside the answer's length climbs to the entries covering it (rn_up, set
// by the same pass).
//
// Entries are named by 29-bit offsets from the lowest entry, in units of 16
// bytes when every entry is 16-aligned (as allocations are), else 8 (they
// begin with pointers); a tree whose entries lie too far apart for that is
// walked from the root.  A slot whose keys hold a single entry names it
// with a flag, "check the key against it": the entry covering it is the
// slot's fallback, so no node is needed.  Indexes of two megabytes and
// more live in their own mapping, asked for huge pages, so that their reads
// do not also miss the address translation.
//
// A reference to an answer or a node, 32 bits: 00, the check flag and an
// entry offset plus one (0: no entry); 01, the run node's lines (4 bits)
// and where it begins in the line pool (26 bits), so that all its lines are
// asked for at once; or 1, the table's stride (5 bits) and where its slots
// begin in the slot pool (26 bits; the slot before them holds its fallback).
constexpr std::uint32_t kRunTag = 0x40000000u, kTableTag = 0x80000000u;
constexpr std::uint32_t kCheck = 0x20000000u, kRefLimit = 0x20000000u, kPoolLimit = 1u << 26;

// Run node: a header (bits: the runs split bits [depth, depth + bits) of the
// key; runs; wide: starts are 32-bit, else 16; lines; the fallback and the
// next entries covering it), the runs' starts (the first is 0), for each run
// the run holding the entry covering its answer (kNoRun: none in this node),
// and the answers.
constexpr unsigned kOuter = 4;
struct RunHeader {
    std::uint8_t bits, runs, wide, lines;
    std::uint32_t outer[kOuter];  // the fallback, then the entries covering it, nearest first
};
struct alignas(64) Line {
    unsigned char bytes[64];
};
constexpr unsigned kMaxRuns = 64;
constexpr std::uint8_t kNoRun = 0xFF;
struct RunLayout {
    std::size_t parents, answers, size;
    RunLayout(unsigned runs, bool wide)
        : parents((sizeof(RunHeader) + runs * (wide ? 4u : 2u) + 3) / 4 * 4),
          answers((parents + runs + 3) / 4 * 4),
          size(answers + 4 * runs) {}
};

// A lookup key as a 128-bit number in two words, its first bit the top bit
// of `hi` and every bit past its length zero: the index reads any bits of
// it with a shift or two instead of gathering bytes for each step.
struct KeyWord {
    std::uint64_t hi, lo;
};

struct RadixIndex {
    unsigned skip;      // every entry agrees with `common` on its first skip bits (or on all of
    KeyWord common;     // its own, when shorter): the table indexes the T bits after those
    KeyWord skip_mask;  // the first skip bits set
    radix_node *chain;  // the longest entry up to skip long (they form one chain), if any
    unsigned top_bits;  // T
    bool narrow;        // no entry is longer than 64 bits
    std::uint64_t generation;   // unique in the process: names this tree as it now is
    std::uintptr_t base;        // the lowest entry; entry offsets count from it
    unsigned scale;             // log2 of the offsets' unit
    unsigned hot_from, hot_to;  // an entry's bytes that a lookup reads: its link up to its key
    const std::uint32_t *top;   // 1 << T references
    const Line *lines;          // run nodes
    const std::uint32_t *pool;  // slots of the tables below the top one
    std::size_t mapped;         // bytes mapped for this index (0: allocated by malloc)
};

// The links the last insert walked down, above the one it changed, and the
// bit each step tested.  Sets are inserted in key order, so the next key
// mostly shares a long start with the last: its walk begins where their
// paths part instead of at the root.  A step above that point behaves for
// the new key as it did for the last one: every entry below the side it
// took agrees with the last key up to its bit, and so with the new key.
// Kept only while a tree of some size is being filled.
constexpr unsigned kMaxPath = 2 * 129 + 1;
struct InsertPath {
    unsigned depth = 0;  // links kept
    unsigned len = 0;    // the last key's length
    KeyWord key{0, 0};   // the last key
    void **link[kMaxPath];
    unsigned bit[kMaxPath];  // the bit the step from link[i] tested
};
constexpr std::size_t kPathFrom = 64;  // entries before a tree keeps its insert path

struct radix_head {
    std::size_t key_offset = 0;
    std::size_t keylen_offset = 0;
    rn_destructor_fn destructor = nullptr;
    void *root = nullptr;  // tagged link
    std::size_t count = 0;
    std::atomic<RadixIndex *> index{nullptr};
    // No index to make until the next insert: a single chain, or entries too
    // far apart to be named by offsets.  Lookups read it without the lock.
    std::atomic<bool> unindexable{false};
    std::mutex index_mu;
    InsertPath *last_insert = nullptr;  // while a large tree is being filled
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

// rn_up holds two things: the address of the nearest entry covering this
// one in its low 56 bits (user-space addresses stay below 2^56), and the bit
// that the entry's glue node tests in its top byte (0 to 127).  One word
// instead of two keeps the header at 40 bytes, and a set's records with it.
constexpr unsigned kGlueShift = 56;
constexpr std::uintptr_t kUpMask = (std::uintptr_t{1} << kGlueShift) - 1;
inline radix_node *up_of(const radix_node *n) {
    // Packed with the glue bit: see above.
    return reinterpret_cast<radix_node *>(n->rn_up & kUpMask);  // NOLINT(performance-no-int-to-ptr)
}
inline unsigned glue_bit(const radix_node *n) {
    return static_cast<unsigned>(n->rn_up >> kGlueShift);
}
inline void set_up(radix_node *n, const radix_node *up) {
    n->rn_up = (n->rn_up & ~kUpMask) | reinterpret_cast<std::uintptr_t>(up);
}
inline void set_glue_bit(radix_node *n, unsigned bit) {
    n->rn_up = (n->rn_up & kUpMask) | std::uintptr_t{bit} << kGlueShift;
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
// Keys are at most 16 bytes: a loop is shorter than a call to memcmp.
inline bool prefix_equal(const std::uint8_t *a, const std::uint8_t *b, unsigned n) {
    const unsigned full = n >> 3;
    for (unsigned i = 0; i < full; ++i)
        if (a[i] != b[i]) return false;
    const unsigned rest = n & 7;
    return rest == 0 || ((a[full] ^ b[full]) & (0xFF00u >> rest) & 0xFFu) == 0;
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
constexpr unsigned kTopMinBits = 8, kTopMaxBits = 16, kTableBits = 8;
constexpr std::size_t kMapFrom = std::size_t{2} << 20;  // indexes this large get their own mapping
constexpr std::size_t kHugePage = std::size_t{2} << 20;

// About eight table slots per entry, up to 2^16: a small set's keys then
// mostly end in the table itself, without a run node to search.
unsigned top_bits(std::size_t count) {
    unsigned b = 0;
    while ((std::size_t{1} << (b + 1)) <= count * 8) ++b;
    return b < kTopMinBits ? kTopMinBits : b > kTopMaxBits ? kTopMaxBits : b;
}

inline std::uint64_t load_be(const std::uint8_t *p, std::uint64_t x) {
    std::memcpy(&x, p, 8);
    return __builtin_bswap64(x);
}
inline std::uint32_t load_be(const std::uint8_t *p, std::uint32_t x) {
    std::memcpy(&x, p, 4);
    return __builtin_bswap32(x);
}
inline std::uint16_t load_be(const std::uint8_t *p, std::uint16_t x) {
    std::memcpy(&x, p, 2);
    return __builtin_bswap16(x);
}

// The first `bits` bits set (bits <= 128).
__attribute__((always_inline)) inline KeyWord leading_ones(unsigned bits) {
    const std::uint64_t all = ~std::uint64_t{0};
    if (bits == 0) return {0, 0};
    if (bits <= 64) return {all << (64 - bits), 0};
    return {all, all << (128 - bits)};
}

// A key of `len` bits as a KeyWord, `m` being leading_ones(len).  Only
// the key's own (len + 7) / 8 bytes are read: two loads that overlap in the
// middle cover any count.
__attribute__((always_inline)) inline KeyWord key_word(const std::uint8_t *key, unsigned len,
                                                       const KeyWord &m) {
    const unsigned n = (len + 7) / 8;
    KeyWord k{0, 0};
    if (n > 8) {
        k.hi = load_be(key, std::uint64_t{});
        k.lo = load_be(key + n - 8, std::uint64_t{}) << (128 - 8 * n);
    } else if (n >= 4) {
        k.hi = std::uint64_t{load_be(key, std::uint32_t{})} << 32 |
               std::uint64_t{load_be(key + n - 4, std::uint32_t{})} << (64 - 8 * n);
    } else if (n >= 2) {
        k.hi = std::uint64_t{load_be(key, std::uint16_t{})} << 48 |
               std::uint64_t{load_be(key + n - 2, std::uint16_t{})} << (64 - 8 * n);
    } else if (n == 1) {
        k.hi = std::uint64_t{key[0]} << 56;
    }
    return {k.hi & m.hi, k.lo & m.lo};
}
__attribute__((always_inline)) inline KeyWord key_word(const std::uint8_t *key, unsigned len) {
    return key_word(key, len, leading_ones(len));
}

// Bits [from, from + count) of a key word as a number (count <= 32).
inline std::uint32_t bits_of(const KeyWord &k, unsigned from, unsigned count) {
    if (count == 0) return 0;
    if (from + count <= 64) return static_cast<std::uint32_t>((k.hi << from) >> (64 - count));
    if (from >= 128) return 0;
    using Wide = unsigned __int128;
    const Wide w = Wide{k.hi} << 64 | k.lo;
    return static_cast<std::uint32_t>((w << from) >> (128 - count));
}

// The same three for trees whose entries are all at most 64 bits long
// (every IPv4 tree, most IPv6 ones): their lookups need only the first
// word of a key, bounded at 64 bits, and skip the second word's work.
template <bool Narrow>
inline KeyWord ones(unsigned bits) {
    // Without a branch: bits 0 shifts by 0 and is then cleared, 64 shifts by 0.
    if constexpr (Narrow)
        return {(~std::uint64_t{0} << ((64 - bits) & 63)) & -std::uint64_t{bits != 0}, 0};
    return leading_ones(bits);
}
template <bool Narrow>
inline KeyWord word_of(const std::uint8_t *key, unsigned len, const KeyWord &m) {
    if constexpr (Narrow) {
        const unsigned n = (len + 7) / 8;  // 0 to 8
        std::uint64_t w = 0;
        if (n >= 4)
            w = std::uint64_t{load_be(key, std::uint32_t{})} << 32 |
                std::uint64_t{load_be(key + n - 4, std::uint32_t{})} << (64 - 8 * n);
        else if (n >= 2)
            w = std::uint64_t{load_be(key, std::uint16_t{})} << 48 |
                std::uint64_t{load_be(key + n - 2, std::uint16_t{})} << (64 - 8 * n);
        else if (n == 1)
            w = std::uint64_t{key[0]} << 56;
        return {w & m.hi, 0};
    }
    return key_word(key, len, m);
}
// count >= 1 on the narrow path, and from + count <= 64.
template <bool Narrow>
inline std::uint32_t bits_in(const KeyWord &k, unsigned from, unsigned count) {
    if constexpr (Narrow) return static_cast<std::uint32_t>((k.hi << from) >> (64 - count));
    return bits_of(k, from, count);
}

// Whether two key words agree on the bits of a mask.
inline bool agree(const KeyWord &a, const KeyWord &b, const KeyWord &mask) {
    return (((a.hi ^ b.hi) & mask.hi) | ((a.lo ^ b.lo) & mask.lo)) == 0;
}

// The first bit where two key words differ, looking at no more than n bits.
inline unsigned first_difference(const KeyWord &a, const KeyWord &b, unsigned n) {
    const std::uint64_t hi = a.hi ^ b.hi, lo = a.lo ^ b.lo;
    const unsigned at = hi != 0   ? static_cast<unsigned>(__builtin_clzll(hi))
                        : lo != 0 ? 64 + static_cast<unsigned>(__builtin_clzll(lo))
                                  : 128;
    return at < n ? at : n;
}

// Bit b of a key word (b < 128).
inline unsigned bit_of(const KeyWord &k, unsigned b) {
    return static_cast<unsigned>(b < 64 ? k.hi >> (63 - b) : k.lo >> (127 - b)) & 1;
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
            return glue_bit(glue_owner(l));
        }
        const radix_node *e = entry_node(l);
        last = e;
        if (e->rn_link[0] != nullptr && e->rn_link[1] != nullptr) break;
        l = e->rn_link[0] != nullptr ? e->rn_link[0] : e->rn_link[1];
    }
    *from = last;
    return last != nullptr ? t.len(last) : 0;
}

// A tree's entries in key order with their keys and lengths, read in the
// same visit: the index is made from these without reading the entries
// again (a large set's entries are far more than the caches hold).
struct Ordered {
    std::vector<radix_node *> entries;
    std::vector<KeyWord> keys;
    std::vector<std::uint8_t> lens;
};

// Every entry in key order, each before the entries it covers, and each
// entry's rn_up set on the way: everything below an entry extends its key,
// so the nearest entry above it on its path is the nearest one covering it.
Ordered entries_in_order(const radix_head *h) {
    const Tree t{h};
    Ordered out;
    out.entries.reserve(h->count);
    out.keys.reserve(h->count);
    out.lens.reserve(h->count);
    std::vector<std::pair<Link, radix_node *>> stack;
    if (h->root != nullptr) stack.emplace_back(h->root, nullptr);
    while (!stack.empty()) {
        auto [l, up] = stack.back();
        stack.pop_back();
        if (is_glue(l)) {
            const radix_node *g = glue_owner(l);
            for (int side = 1; side >= 0; --side)
                if (g->rn_glue_link[side] != nullptr) stack.emplace_back(g->rn_glue_link[side], up);
            continue;
        }
        radix_node *e = entry_node(l);
        set_up(e, up);
        out.entries.push_back(e);
        out.lens.push_back(t.len(e));
        out.keys.push_back(key_word(t.key(e), out.lens.back()));
        for (int side = 1; side >= 0; --side)
            if (e->rn_link[side] != nullptr) stack.emplace_back(e->rn_link[side], e);
    }
    return out;
}

// Makes the top table, line nodes and slot pool from the entries in key
// order (each before the entries it covers).
class IndexBuilder {
  public:
    IndexBuilder(const Ordered &ordered, std::uintptr_t base, unsigned scale)
        : e_(ordered.entries), key_(ordered.keys), len_(ordered.lens), base_(base), scale_(scale) {}

    std::vector<std::uint32_t> top;
    std::vector<Line> lines;
    std::vector<std::uint32_t> pool;
    bool too_large = false;  // more nodes or slots than references can name

    std::uint32_t ref(const radix_node *e) const {
        if (e == nullptr) return 0;
        return static_cast<std::uint32_t>(
            ((reinterpret_cast<std::uintptr_t>(e) - base_) >> scale_) + 1);
    }
    const radix_node *entry(std::uint32_t r) const {
        if (r == 0) return nullptr;
        // Entries are named by their offset in the block.
        const std::uintptr_t at = base_ + ((std::uintptr_t{r & (kCheck - 1)} - 1) << scale_);
        return reinterpret_cast<const radix_node *>(at);  // NOLINT(performance-no-int-to-ptr)
    }

    // The table over bits [skip, skip + bits) for entries [lo, hi), all
    // longer than skip; `up` covers them all.
    void build_top(unsigned skip, unsigned bits, std::size_t lo, std::size_t hi, std::uint32_t up) {
        std::vector<Group> groups;
        paint(skip, bits, lo, hi, up, top, groups);
        for (const Group &g : groups) {
            const std::uint32_t r = build(skip + bits, g.lo, g.hi, top[g.slot]);
            top[g.slot] = r;
        }
    }

  private:
    struct Group {
        std::uint32_t slot;
        std::size_t lo, hi;  // entries longer than the slot, inside it
    };

    // best[s]: the longest entry of [lo, hi) up to depth + bits long that
    // covers slot s, else `up`; entries longer go into groups by slot.
    void paint(unsigned depth, unsigned bits, std::size_t lo, std::size_t hi, std::uint32_t up,
               std::vector<std::uint32_t> &best, std::vector<Group> &groups) const {
        best.assign(std::size_t{1} << bits, up);
        const unsigned end = depth + bits;
        for (std::size_t i = lo; i < hi;) {
            const radix_node *e = e_[i];
            const unsigned el = len_[i];
            const std::uint32_t slot = bits_of(key_[i], depth, bits);
            if (el <= end) {
                // Entries come before the entries they cover: a later one
                // paints over the part it covers.
                const std::uint32_t span = std::uint32_t{1} << (end - el);
                std::fill(best.begin() + slot, best.begin() + slot + span, ref(e));
                ++i;
                continue;
            }
            // The entries inside one slot follow each other.
            std::size_t j = i + 1;
            while (j < hi && len_[j] > end && bits_of(key_[j], depth, bits) == slot) ++j;
            groups.push_back({slot, i, j});
            i = j;
        }
    }

    // A run node's plan: runs of one answer over bits [depth, depth + bits)
    // for entries [lo, hi), as (start, answer) in order.  Entries longer
    // than depth + bits go below the position they start at, which becomes
    // a run of its own whose answer is kChild + the group's number.
    static constexpr std::uint32_t kChild = 0xF0000000u;
    struct Plan {
        std::vector<std::pair<std::uint64_t, std::uint32_t>> runs;
        std::vector<Group> groups;
        std::vector<std::uint32_t> below;  // what each group's position held without it
    };

    // False when more than kMaxRuns runs would be needed.
    bool plan(unsigned depth, unsigned bits, std::size_t lo, std::size_t hi, std::uint32_t up,
              Plan &out) const {
        auto &runs = out.runs;
        runs.assign(1, {0, up});
        auto begin = [&](std::uint64_t at, std::uint32_t answer) {
            if (runs.back().first == at) {
                runs.back().second = answer;
                if (runs.size() > 1 && runs[runs.size() - 2].second == answer) runs.pop_back();
            } else if (runs.back().second != answer) {
                runs.emplace_back(at, answer);
            }
        };
        const unsigned end = depth + bits;
        const std::uint64_t size = std::uint64_t{1} << bits;
        // Entries still open at the current position, innermost last.
        std::vector<std::pair<std::uint64_t, std::uint32_t>> open{{size, up}};
        auto close_before = [&](std::uint64_t at) {
            while (open.size() > 1 && open.back().first <= at) {
                const std::uint64_t stop = open.back().first;
                open.pop_back();
                if (stop < size) begin(stop, open.back().second);
            }
        };
        for (std::size_t i = lo; i < hi && runs.size() <= kMaxRuns;) {
            const radix_node *e = e_[i];
            const unsigned el = len_[i];
            const std::uint64_t start = bits_of(key_[i], depth, bits);
            close_before(start);
            if (el > end) {
                // The entries inside one position follow each other.
                std::size_t j = i + 1;
                while (j < hi && len_[j] > end && bits_of(key_[j], depth, bits) == start) ++j;
                out.below.push_back(open.back().second);
                begin(start, kChild + static_cast<std::uint32_t>(out.groups.size()));
                out.groups.push_back({static_cast<std::uint32_t>(start), i, j});
                if (start + 1 < size) begin(start + 1, open.back().second);
                i = j;
                continue;
            }
            begin(start, ref(e));
            open.emplace_back(start + (std::uint64_t{1} << (end - el)), ref(e));
            ++i;
        }
        close_before(size);
        return runs.size() <= kMaxRuns;
    }

    // The reference for the keys below depth that start like entries
    // [lo, hi) (all longer than depth), `up` covering them all.
    std::uint32_t build(unsigned depth, std::size_t lo, std::size_t hi, std::uint32_t up) {
        // A single entry: its own key tells whether it answers, and when it
        // does not, the entry covering it (`up`) does.
        if (hi - lo == 1) return kCheck | ref(e_[lo]);
        unsigned longest = 0;
        for (std::size_t i = lo; i < hi; ++i) longest = std::max<unsigned>(longest, len_[i]);
        const unsigned bits = std::min(longest - depth, 32u);
        Plan p;
        if (plan(depth, bits, lo, hi, up, p)) return run_node(depth, bits, p, up);
        return table(depth, std::min(kTableBits, longest - depth), lo, hi, up);
    }

    std::uint32_t run_node(unsigned depth, unsigned bits, const Plan &plan, std::uint32_t up) {
        const auto &runs = plan.runs;
        const auto n = static_cast<unsigned>(runs.size());
        const bool wide = bits > 16;
        const RunLayout at(n, wide);
        const std::size_t first = lines.size();
        const std::size_t count = (at.size + sizeof(Line) - 1) / sizeof(Line);
        if (first + count >= kPoolLimit) {
            too_large = true;
            return up;
        }
        lines.resize(first + count);
        RunHeader h{static_cast<std::uint8_t>(bits),
                    static_cast<std::uint8_t>(n),
                    static_cast<std::uint8_t>(wide),
                    static_cast<std::uint8_t>(count),
                    {up}};
        const radix_node *outer = entry(up);
        for (unsigned k = 1; k < kOuter && outer != nullptr; ++k) {
            outer = up_of(outer);
            h.outer[k] = ref(outer);
        }
        std::vector<std::uint32_t> answers(n);
        for (unsigned i = 0; i < n; ++i) {
            const std::uint32_t a = runs[i].second;
            answers[i] = a >= kChild ? build(depth + bits, plan.groups[a - kChild].lo,
                                             plan.groups[a - kChild].hi, plan.below[a - kChild])
                                     : a;
        }
        unsigned char *p = lines[first].bytes;  // children are built: the pool no longer moves
        std::memcpy(p, &h, sizeof h);
        for (unsigned i = 0; i < n; ++i) {
            if (wide) {
                const auto st = static_cast<std::uint32_t>(runs[i].first);
                std::memcpy(p + sizeof h + 4 * i, &st, 4);
            } else {
                const auto st = static_cast<std::uint16_t>(runs[i].first);
                std::memcpy(p + sizeof h + 2 * i, &st, 2);
            }
            std::memcpy(p + at.answers + 4 * i, &answers[i], 4);
            // The run of the entry covering this answer, if it has one here.
            std::uint8_t parent = kNoRun;
            if (runs[i].second < kChild) {
                if (const radix_node *e = entry(answers[i]); e != nullptr && up_of(e) != nullptr) {
                    const std::uint32_t up_ref = ref(up_of(e));
                    for (unsigned j = 0; j < n; ++j)
                        if (runs[j].second == up_ref) parent = static_cast<std::uint8_t>(j);
                }
            }
            p[at.parents + i] = parent;
        }
        return kRunTag | static_cast<std::uint32_t>(count) << 26 |
               static_cast<std::uint32_t>(first);
    }

    std::uint32_t table(unsigned depth, unsigned bits, std::size_t lo, std::size_t hi,
                        std::uint32_t up) {
        std::vector<std::uint32_t> best;
        std::vector<Group> groups;
        paint(depth, bits, lo, hi, up, best, groups);
        const std::size_t at = pool.size() + 1;
        if (at + best.size() >= kPoolLimit) {
            too_large = true;
            return up;
        }
        pool.push_back(up);
        pool.insert(pool.end(), best.begin(), best.end());
        for (const Group &g : groups) {
            const std::uint32_t r = build(depth + bits, g.lo, g.hi, best[g.slot]);
            pool[at + g.slot] = r;
        }
        return kTableTag | bits << 26 | static_cast<std::uint32_t>(at);
    }

    const std::vector<radix_node *> &e_;
    const std::vector<KeyWord> &key_;       // e_[i]'s key
    const std::vector<std::uint8_t> &len_;  // and its length
    std::uintptr_t base_;
    unsigned scale_;
};

std::atomic<std::size_t> g_mapped_bytes{0};

void free_index(RadixIndex *ix) {
    if (ix == nullptr) return;
    if (ix->mapped != 0) {
        g_mapped_bytes.fetch_sub(ix->mapped, std::memory_order_relaxed);
        munmap(ix, ix->mapped);
    } else {
        std::free(ix);
    }
}

// Room for an index of `bytes`: large ones in a mapping of their own on
// huge-page boundaries, asked for huge pages.
RadixIndex *alloc_index(std::size_t bytes) {
    if (bytes >= kMapFrom) {
        const std::size_t size = (bytes + kHugePage - 1) / kHugePage * kHugePage;
        void *p = mmap(nullptr, size + kHugePage, PROT_READ | PROT_WRITE,
                       MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (p != MAP_FAILED) {
            // Keep the huge-page-aligned part only.
            const auto at = reinterpret_cast<std::uintptr_t>(p);
            const std::uintptr_t aligned = (at + kHugePage - 1) & ~(kHugePage - 1);
            if (aligned > at) munmap(p, aligned - at);
            if (aligned + size < at + size + kHugePage)
                // NOLINTNEXTLINE(performance-no-int-to-ptr): the mapping's own tail
                munmap(reinterpret_cast<void *>(aligned + size), at + kHugePage - aligned);
            auto *mem = reinterpret_cast<void *>(aligned);  // NOLINT(performance-no-int-to-ptr)
            madvise(mem, size, MADV_HUGEPAGE);
            auto *ix = static_cast<RadixIndex *>(mem);
            ix->mapped = size;
            g_mapped_bytes.fetch_add(size, std::memory_order_relaxed);
            return ix;
        }
    }
    auto *ix = static_cast<RadixIndex *>(std::aligned_alloc(64, (bytes + 63) / 64 * 64));
    if (ix != nullptr) ix->mapped = 0;
    return ix;
}

// Entries spread over many megabytes are read at random by lookups, and
// on 4 KiB pages nearly every such read also misses the address
// translation (a quarter of a cold lookup's time in a set of a million).
// When the entries fill their range densely (a set's block, not entries
// scattered over a heap), the whole 2 MiB pages among them are made huge
// pages: the kernel copies them once, now, while the index is made.  Their
// contents stay as they are; a kernel that cannot leaves them as they were.
void collapse_to_huge_pages(std::uintptr_t lo, std::uintptr_t hi, std::size_t dense_bytes) {
#ifdef __linux__
    constexpr int kCollapse = 25;  // MADV_COLLAPSE (Linux 6.1), which libc's headers lack yet
    const std::uintptr_t from = (lo + kHugePage - 1) & ~(kHugePage - 1), to = hi & ~(kHugePage - 1);
    if (to >= from + kMapFrom && dense_bytes >= (hi - lo) / 2)
        // NOLINTNEXTLINE(performance-no-int-to-ptr): the entries' own pages
        madvise(reinterpret_cast<void *>(from), to - from, kCollapse);
#else
    (void)lo, (void)hi, (void)dense_bytes;
#endif
}

// The index of a large tree, made by the first lookup that needs it (the
// others wait for it); null when it cannot be made (lookups then walk from
// the root).
__attribute__((noinline, cold)) const RadixIndex *make_index(radix_head *h) {
    std::lock_guard lock(h->index_mu);
    if (const RadixIndex *ix = h->index.load(std::memory_order_relaxed)) return ix;
    // Lookups have begun: the tree is filled.
    delete std::exchange(h->last_insert, nullptr);
    if (h->unindexable.load(std::memory_order_relaxed)) return nullptr;
    const Tree t{h};
    const Ordered ordered = entries_in_order(h);
    const std::vector<radix_node *> &entries = ordered.entries;
    std::uintptr_t lo = UINTPTR_MAX, hi = 0;
    unsigned longest = 0;
    bool nameable = !entries.empty(), aligned16 = true;
    for (std::size_t i = 0; i < entries.size(); ++i) {
        const auto a = reinterpret_cast<std::uintptr_t>(entries[i]);
        lo = a < lo ? a : lo;
        hi = a > hi ? a : hi;
        longest = std::max<unsigned>(longest, ordered.lens[i]);
        nameable = nameable && a % 8 == 0;
        aligned16 = aligned16 && a % 16 == 0;
    }
    const unsigned scale = aligned16 ? 4 : 3;
    nameable = nameable && ((hi - lo) >> scale) + 1 < kRefLimit;
    const radix_node *from = nullptr;
    const unsigned skip = first_branch(h, &from);
    if (!nameable || longest <= skip) {
        // Entries that cannot be named, or a single chain, for which the
        // walk from the root is as short as any index.
        h->unindexable.store(true, std::memory_order_relaxed);
        return nullptr;
    }
    const unsigned bits = std::min(top_bits(h->count), longest - skip);
    const std::size_t span = std::max(h->key_offset + 16, h->keylen_offset + 1);
    collapse_to_huge_pages(lo, hi + span, h->count * span);

    // The entries up to skip long cover every other one and come first.
    IndexBuilder b(ordered, lo, scale);
    std::size_t first = 0;
    std::uint32_t up = 0;
    while (first < entries.size() && ordered.lens[first] <= skip) up = b.ref(entries[first++]);
    b.build_top(skip, bits, first, entries.size(), up);
    if (b.too_large) {
        h->unindexable.store(true, std::memory_order_relaxed);
        return nullptr;
    }

    const std::size_t top_at = (sizeof(RadixIndex) + 63) / 64 * 64;
    const std::size_t lines_at = (top_at + b.top.size() * 4 + 63) / 64 * 64;
    const std::size_t pool_at = lines_at + b.lines.size() * sizeof(Line);
    const std::size_t bytes = pool_at + b.pool.size() * 4;
    RadixIndex *ix = alloc_index(bytes);
    if (ix == nullptr) return nullptr;
    char *mem = reinterpret_cast<char *>(ix);
    static std::atomic<std::uint64_t> generations{0};
    ix->skip = skip;
    ix->common = from != nullptr ? key_word(t.key(from), skip) : KeyWord{0, 0};
    ix->skip_mask = leading_ones(skip);
    ix->chain = first > 0 ? entries[first - 1] : nullptr;
    ix->top_bits = bits;
    ix->narrow = longest <= 64;
    ix->generation = generations.fetch_add(1, std::memory_order_relaxed) + 1;
    ix->base = lo;
    ix->scale = scale;
    // What a lookup reads of an entry: the link up, the length and the key
    // (the child links only a walk from the root reads).
    ix->hot_from = static_cast<unsigned>(
        std::min({offsetof(radix_node, rn_up), h->keylen_offset, h->key_offset}));
    ix->hot_to =
        static_cast<unsigned>(std::max({offsetof(radix_node, rn_up) + sizeof(std::uintptr_t),
                                        h->keylen_offset + 1, h->key_offset + (longest + 7) / 8}));
    std::copy(b.top.begin(), b.top.end(), reinterpret_cast<std::uint32_t *>(mem + top_at));
    std::copy(b.lines.begin(), b.lines.end(), reinterpret_cast<Line *>(mem + lines_at));
    std::copy(b.pool.begin(), b.pool.end(), reinterpret_cast<std::uint32_t *>(mem + pool_at));
    ix->top = reinterpret_cast<const std::uint32_t *>(mem + top_at);
    ix->lines = reinterpret_cast<const Line *>(mem + lines_at);
    ix->pool = reinterpret_cast<const std::uint32_t *>(mem + pool_at);
    h->index.store(ix, std::memory_order_release);
    return ix;
}

// Walks down from link l, `best` being the best entry above it.
radix_node *walk(const Tree &t, Link l, const uint8_t *key, unsigned len, radix_node *best) {
    while (l != nullptr) {
        if (is_glue(l)) {
            const radix_node *g = glue_owner(l);
            const unsigned gb = glue_bit(g);
            if (gb >= len) break;
            l = g->rn_glue_link[bit_at(key, gb)];
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
    while (e != nullptr && t.len(e) > len) e = up_of(e);
    return e;
}

// This thread's last indexed answer, if any; its generation says whether
// the entry still belongs to a live, unchanged tree.  The key it answered
// is kept as a word, so that the next lookup can tell whether it may start
// from there without reading the entry again.
struct LastAnswer {
    std::uint64_t generation = 0;
    radix_node *entry = nullptr;
    unsigned len = 0;   // the entry's length
    KeyWord key{0, 0};  // the key it answered, as far as that lookup's bound
};
// Initial-exec: this library is loaded with the program, and the general
// model would cost a call into the dynamic linker on every lookup.
__attribute__((tls_model("initial-exec"))) thread_local LastAnswer t_last;
__attribute__((tls_model("initial-exec"))) thread_local std::uint64_t t_lookups = 0;

radix_node *remember(const Tree &t, const RadixIndex *ix, radix_node *found, const KeyWord &kw) {
    if (found != nullptr) t_last = {ix->generation, found, t.len(found), kw};
    return found;
}

// The entry an index answer names (0: none).
inline radix_node *entry_at(const RadixIndex &ix, std::uint32_t ref) {
    return ref == 0 ? nullptr
                    : reinterpret_cast<radix_node *>(  // NOLINT(performance-no-int-to-ptr)
                          ix.base + ((std::uintptr_t{ref & (kCheck - 1)} - 1) << ix.scale));
}

// Asks for the lines of an entry that a lookup reads, so that they arrive
// together.
inline void prefetch_entry(const RadixIndex &ix, std::uint32_t ref) {
    if (ref == 0) return;
    const char *e = reinterpret_cast<const char *>(entry_at(ix, ref));
    __builtin_prefetch(e + ix.hot_from);
    for (unsigned at = ix.hot_from + 64; at < ix.hot_to; at += 64) __builtin_prefetch(e + at);
    __builtin_prefetch(e + ix.hot_to - 1);
}

// The last run of a node starting at or before `at` (the first starts at 0).
template <typename Start>
inline unsigned run_at(const unsigned char *starts, unsigned runs, std::uint32_t at) {
    unsigned lo = 0;
    for (unsigned n = runs; n > 1;) {
        const unsigned half = n / 2;
        Start st;
        std::memcpy(&st, starts + sizeof(Start) * (lo + half), sizeof st);
        lo = st <= at ? lo + half : lo;
        n -= half;
    }
    return lo;
}

// The answer of a run node for position `at`; asks for every entry covering
// it that the node or its fallback names.
std::uint32_t run_answer(const RadixIndex &ix, const unsigned char *p, const RunHeader &h,
                         std::uint32_t at) {
    const RunLayout lay(h.runs, h.wide != 0);
    const unsigned i = h.wide != 0 ? run_at<std::uint32_t>(p + sizeof h, h.runs, at)
                                   : run_at<std::uint16_t>(p + sizeof h, h.runs, at);
    std::uint32_t answer;
    std::memcpy(&answer, p + lay.answers + 4 * i, 4);
    for (std::uint8_t r = p[lay.parents + i]; r != kNoRun; r = p[lay.parents + r]) {
        std::uint32_t up;
        std::memcpy(&up, p + lay.answers + 4 * r, 4);
        prefetch_entry(ix, up);
    }
    for (const std::uint32_t up : h.outer) prefetch_entry(ix, up);
    return answer;
}

// Longest match through the index, for keys that share the common bits.
template <bool Narrow>
__attribute__((always_inline)) inline radix_node *indexed_match(const Tree &t, const RadixIndex &ix,
                                                                unsigned len, const KeyWord &kw) {
    std::uint32_t ref = ix.top[bits_in<Narrow>(kw, ix.skip, ix.top_bits)];
    unsigned depth = ix.skip + ix.top_bits;
    while (ref >= kRunTag) {
        if (ref < kTableTag) {
            const unsigned char *p = ix.lines[ref & (kPoolLimit - 1)].bytes;
            // The node's lines are adjacent: ask for them all at once.
            for (unsigned l = 1, lines = (ref >> 26) & 15; l < lines; ++l)
                __builtin_prefetch(p + sizeof(Line) * l);
            RunHeader h;
            std::memcpy(&h, p, sizeof h);
            // Entries in the node are longer than a bound before it.
            if (len < depth) {
                ref = h.outer[0];
                break;
            }
            ref = run_answer(ix, p, h, bits_in<Narrow>(kw, depth, h.bits));
            depth += h.bits;
            continue;
        }
        const std::uint32_t at = ref & (kPoolLimit - 1);
        if (len < depth) {
            ref = ix.pool[at - 1];
            break;
        }
        const unsigned bits = (ref >> 26) & 31;
        ref = ix.pool[at + bits_in<Narrow>(kw, depth, bits)];
        depth += bits;
    }
    prefetch_entry(ix, ref);
    radix_node *e = entry_at(ix, ref);
    // A lone entry that the key leaves: the entry covering it answers.
    if ((ref & kCheck) != 0) {
        const unsigned el = std::min<unsigned>(t.len(e), len);
        const KeyWord m = ones<Narrow>(el);
        if (!agree(word_of<Narrow>(t.key(e), el, m), kw, m)) e = up_of(e);
    }
    // The answer covers the key to its full length; a bound inside it may
    // leave only the entries covering it.
    return climb(t, e, len);
}

// Longest match through a tree's index.
template <bool Narrow>
__attribute__((always_inline)) inline radix_node *indexed_lookup(const Tree &t,
                                                                 const RadixIndex *ix,
                                                                 const uint8_t *key, unsigned len) {
    // No entry is longer than 128 bits, none of a narrow tree longer than
    // 64: a longer bound finds what those find.
    if (const unsigned most = Narrow ? 64 : 128; len > most) len = most;
    const KeyWord m = ones<Narrow>(len);
    const KeyWord kw = word_of<Narrow>(key, len, m);
    // A key that agrees with this thread's last answered key over its own
    // bound, the bound being below the answer's length, is answered by an
    // entry covering that answer: the entries at most that long covering
    // the one key are those covering the other.  The walk down a prefix
    // set's covering keys costs no index slot.
    const LastAnswer &last = t_last;
    if (last.generation == ix->generation && len < last.len && agree(kw, last.key, m))
        return remember(t, ix, climb(t, up_of(last.entry), len), kw);
    // (A narrow tree's common bits lie in the first word.)
    if (len < ix->skip || ((kw.hi ^ ix->common.hi) & ix->skip_mask.hi) != 0 ||
        (!Narrow && ((kw.lo ^ ix->common.lo) & ix->skip_mask.lo) != 0)) {
        // Keys off the common bits are answered by the chain above them:
        // its longest entry that ends before the key leaves the common bits
        // (or the key itself ends).
        const std::uint64_t hi = (kw.hi ^ ix->common.hi) & ix->skip_mask.hi;
        const std::uint64_t lo = Narrow ? 0 : (kw.lo ^ ix->common.lo) & ix->skip_mask.lo;
        const unsigned parts = hi != 0   ? static_cast<unsigned>(__builtin_clzll(hi))
                               : lo != 0 ? 64 + static_cast<unsigned>(__builtin_clzll(lo))
                                         : ix->skip;
        return remember(t, ix, climb(t, ix->chain, std::min<unsigned>(parts, len)), kw);
    }
    return remember(t, ix, indexed_match<Narrow>(t, *ix, len, kw), kw);
}

// Keys past 64 bits, out of line: the narrow lookup stays in rn_lookup.
__attribute__((noinline)) radix_node *wide_lookup(const Tree &t, const RadixIndex *ix,
                                                  const uint8_t *key, unsigned len) {
    return indexed_lookup<false>(t, ix, key, len);
}

__attribute__((always_inline)) inline radix_node *indexed_lookup(const Tree &t,
                                                                 const RadixIndex *ix,
                                                                 const uint8_t *key, unsigned len) {
    return ix->narrow ? indexed_lookup<true>(t, ix, key, len) : wide_lookup(t, ix, key, len);
}

// Longest match at most `len` long.  Searches (used while sets are built,
// between inserts) walk from the root; lookups use the index of a large
// tree.  Lookups through an index that exists take the short way in
// rn_lookup instead.
__attribute__((noinline)) radix_node *longest_match(radix_head *head, const uint8_t *key,
                                                    uint8_t len, bool use_index) {
    if (head == nullptr || key == nullptr) return nullptr;
    const Tree t{head};
    if (use_index && head->count >= kIndexFrom) {
        const RadixIndex *ix = head->index.load(std::memory_order_acquire);
        if (ix == nullptr && !head->unindexable.load(std::memory_order_relaxed))
            ix = make_index(head);
        if (ix != nullptr) return indexed_lookup(t, ix, key, len);
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
    if (len > 128 || (reinterpret_cast<std::uintptr_t>(entry) & ~kUpMask) != 0) return -1;
    // Inserts never run beside lookups: the index is simply made anew later.
    free_index(head->index.exchange(nullptr));
    head->unindexable.store(false, std::memory_order_relaxed);
    n->rn_link[0] = n->rn_link[1] = nullptr;
    n->rn_glue_link[0] = n->rn_glue_link[1] = nullptr;
    n->rn_up = 0;
    if (head->root == nullptr) {
        head->root = n;
        ++head->count;
        return 0;
    }

    // Follow the new key as far as it leads, keeping every link taken, then
    // measure where it parts from an entry found there.  Each step goes at
    // least one bit deeper, alternating at worst between entries and glue
    // nodes, so kMaxPath links hold any path.  A tree being filled starts
    // where the new key parts from the last one's path.
    InsertPath *ip = head->last_insert;
    if (ip == nullptr && head->count >= kPathFrom)
        ip = head->last_insert = new (std::nothrow) InsertPath;
    Link *own_link[kMaxPath];
    unsigned own_bit[kMaxPath];
    Link **path = ip != nullptr ? ip->link : own_link;
    unsigned *bits = ip != nullptr ? ip->bit : own_bit;
    const KeyWord kw = key_word(k, len);
    unsigned depth = 0;
    if (ip != nullptr && ip->depth > 0) {
        // Steps test strictly increasing bits: the kept ones are those
        // before the first that tests a bit where the keys part or past the
        // new key's end.
        const unsigned stop = first_difference(kw, ip->key, std::min(len, ip->len));
        for (unsigned n = ip->depth; n > 0;) {
            const unsigned half = n / 2;
            if (bits[depth + half] < stop) {
                depth += half + 1;
                n -= half + 1;
            } else {
                n = half;
            }
        }
    }
    const unsigned kept = depth;  // steps that lead on towards the new key as they did
    for (Link *step = depth == 0 ? &head->root : path[depth];;) {
        path[depth++] = step;
        Link l = *step;
        if (l == nullptr) break;
        if (is_glue(l)) {
            radix_node *g = glue_owner(l);
            const unsigned gb = glue_bit(g);
            if (gb >= len) break;
            bits[depth - 1] = gb;
            step = &g->rn_glue_link[bit_of(kw, gb)];
        } else {
            radix_node *e = entry_node(l);
            const unsigned el = t.len(e);
            if (el >= len) break;
            bits[depth - 1] = el;
            step = &e->rn_link[bit_of(kw, el)];
        }
    }
    Link last = *path[depth - 1];
    const radix_node *ref = last != nullptr ? some_entry(last) : entry_node(*path[depth - 2]);
    const unsigned common = std::min(len, static_cast<unsigned>(t.len(ref)));
    const unsigned d = first_difference(kw, key_word(t.key(ref), common), common);

    // The link where the new entry (or a glue node) goes is on that path:
    // the first one that does not lead on towards bit d.  The links above
    // stay as they are: the next insert may start below them.
    auto keep = [&](unsigned links) {
        if (ip == nullptr) return;
        ip->depth = links;
        ip->len = len;
        ip->key = kw;
    };
    Link *at = nullptr;
    for (unsigned i = kept; at == nullptr; ++i) {
        Link x = *path[i];
        if (x == nullptr) {
            *path[i] = n;
            ++head->count;
            keep(i);
            return 0;
        }
        if (is_glue(x)) {
            if (glue_bit(glue_owner(x)) >= d) at = path[i];
        } else {
            radix_node *e = entry_node(x);
            const unsigned el = t.len(e);
            if (el == d && d == len) {  // same key and length
                keep(i);
                return 1;
            }
            if (!(el <= d && el < len)) at = path[i];
        }
        if (at != nullptr) keep(i);
    }

    Link x = *at;
    if (d == len) {
        // The new entry covers everything below this link.
        if (is_glue(x) && glue_bit(glue_owner(x)) == len) {
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
        const int side = static_cast<int>(bit_of(kw, d));
        set_glue_bit(n, d);
        n->rn_glue_link[side] = n;
        n->rn_glue_link[1 - side] = x;
        *at = glue_link_of(n);
    }
    ++head->count;
    return 0;
}

void *rn_lookup(struct radix_head *head, const uint8_t *key, uint8_t len) {
    ++t_lookups;
    // The common case, a tree with its index made, without a call.
    if (head != nullptr && key != nullptr) {
        if (const RadixIndex *ix = head->index.load(std::memory_order_acquire); ix != nullptr)
            return indexed_lookup(Tree{head}, ix, key, len);
    }
    return longest_match(head, key, len, true);
}

uint64_t kref_radix_lookups(void) {
    return t_lookups;
}

uint64_t kref_radix_mapped_bytes(void) {
    return g_mapped_bytes.load(std::memory_order_relaxed);
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
    free_index(h->index.load());
    delete h->last_insert;
    delete h;
    *head = nullptr;
}

}  // extern "C"
