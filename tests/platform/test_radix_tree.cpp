// SPDX-License-Identifier: Apache-2.0
// The radix tree against an independent reference (the entries kept per
// length in a map), for both key widths, with the repeated bounded lookups
// the prefix sets make and inserts after lookups, which prefix sets never do.
#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <map>
#include <random>
#include <thread>
#include <vector>

#include "radix.h"

namespace {

struct Entry {
    radix_node hdr;
    int id;
    uint8_t keylen;
    uint8_t key[16];
};

int destroyed = 0;
void destroy(void *e) {
    ++destroyed;
    std::free(e);
}

using Key = std::array<uint8_t, 16>;

// The first len bits of key, the rest cleared.
Key cut(const uint8_t *key, unsigned len) {
    Key k{};
    std::memcpy(k.data(), key, len / 8);
    if (len % 8 != 0) k[len / 8] = static_cast<uint8_t>(key[len / 8] & (0xFF00u >> (len % 8)));
    return k;
}

class Radix : public ::testing::Test {
  protected:
    void SetUp() override {
        destroyed = 0;
        head_ = rn_tree_init(offsetof(Entry, key), offsetof(Entry, keylen), destroy);
        ASSERT_NE(head_, nullptr);
    }
    void TearDown() override {
        const size_t n = rn_tree_count(head_);
        rn_tree_destroy(&head_);
        EXPECT_EQ(head_, nullptr);
        EXPECT_EQ(destroyed, static_cast<int>(n)) << "the destructor runs once per entry";
    }
    // Inserts (key, len); returns what rn_insert said.  Host bits are kept
    // as given: the tree must ignore them.
    int add(const uint8_t *key, unsigned len, int id) {
        auto *e = static_cast<Entry *>(std::calloc(1, sizeof(Entry)));
        e->id = id;
        e->keylen = static_cast<uint8_t>(len);
        std::memcpy(e->key, key, 16);
        int st = rn_insert(head_, e);
        if (st != 0)
            std::free(e);
        else
            ref_[{len, cut(key, len)}] = e;
        return st;
    }
    // The reference longest match: the longest length up to len with an
    // entry equal to the key's first bits.
    const Entry *longest(const uint8_t *key, unsigned len) const {
        for (int l = static_cast<int>(len); l >= 0; --l) {
            auto it = ref_.find({static_cast<unsigned>(l), cut(key, static_cast<unsigned>(l))});
            if (it != ref_.end()) return it->second;
        }
        return nullptr;
    }
    const Entry *lookup(const uint8_t *key, unsigned len) {
        return static_cast<const Entry *>(rn_lookup(head_, key, static_cast<uint8_t>(len)));
    }
    radix_head *head_ = nullptr;
    std::map<std::pair<unsigned, Key>, const Entry *> ref_;
};

// ---- the lookup index against the reference, shape by shape -------------------------

struct Gen {
    std::mt19937 rng;
    unsigned pick(unsigned n) { return rng() % n; }
    void random(uint8_t *k, unsigned bytes) {
        std::memset(k, 0, 16);
        for (unsigned i = 0; i < bytes; ++i) k[i] = static_cast<uint8_t>(rng());
    }
};

// An entry's key and length, drawn for one shape.
using Draw = void (*)(Gen &, uint8_t *key, unsigned &len);

// Every length along a few paths: chains longer than a node names.
void chain32(Gen &g, uint8_t *k, unsigned &len) {
    g.random(k, 4);
    k[0] = 10;
    k[1] = static_cast<uint8_t>(g.pick(2));
    k[2] = static_cast<uint8_t>(k[2] & 0x0F);
    len = 8 + g.pick(25);
}

struct Shape {
    const char *name;
    unsigned bits;
    int entries;
    Draw draw;
};

const Shape kShapes[] = {
    // Keys anywhere, any length: sparse, mostly run nodes.
    {"random32", 32, 6000,
     [](Gen &g, uint8_t *k, unsigned &len) {
         g.random(k, 4);
         len = g.pick(33);
     }},
    {"random128", 128, 6000,
     [](Gen &g, uint8_t *k, unsigned &len) {
         g.random(k, 16);
         len = g.pick(129);
     }},
    // Routing-table shapes (long covering chains, regions dense enough for
    // tables, run nodes past 16 bits) are tests/lib/test_prefix_set_diff.cpp's.
    {"chains32", 32, 3000, chain32},
    // Too few entries for an index: every lookup walks from the root.
    {"small32", 32, 200, chain32},
};

class RadixShapes : public Radix, public ::testing::WithParamInterface<Shape> {
  protected:
    // Every query's longest match, then each bounded lookup below the last
    // answer (as a prefix set walks its covering keys), against the
    // reference.  Half the queries extend an entry, half are drawn anew.
    void check_queries(Gen &g, int n) {
        const Shape shape = GetParam();
        std::vector<const Entry *> entries;
        for (const auto &kv : ref_) entries.push_back(kv.second);
        int mismatches = 0;
        for (int i = 0; i < n && mismatches < 5; ++i) {
            uint8_t q[16];
            unsigned len;
            shape.draw(g, q, len);
            if (i % 2 == 0) {
                const Entry *e = entries[g.pick(static_cast<unsigned>(entries.size()))];
                const Key base = cut(e->key, e->keylen);
                for (unsigned b = 0; b < e->keylen; ++b)
                    q[b / 8] = static_cast<uint8_t>((q[b / 8] & ~(0x80u >> (b % 8))) | base[b / 8]);
                len = std::min(shape.bits, e->keylen + g.pick(9));
            }
            for (;;) {
                const Entry *want = longest(q, len), *got = lookup(q, len);
                if (got != want) {
                    ++mismatches;
                    ADD_FAILURE() << shape.name << " query " << i << " /" << len << ": got "
                                  << (got ? got->id : -1) << ", want " << (want ? want->id : -1);
                }
                if (got == nullptr || got->keylen == 0 || got->keylen > len) break;
                len = got->keylen - 1u;
            }
        }
    }
};

TEST_P(RadixShapes, AgreeWithTheReferenceAlsoAfterFurtherInserts) {
    const Shape shape = GetParam();
    Gen g{std::mt19937(shape.bits * 31 + static_cast<unsigned>(shape.entries))};
    auto insert = [&](int n) {
        for (int i = 0; i < n; ++i) {
            uint8_t k[16];
            unsigned len;
            shape.draw(g, k, len);
            // The exact search walks from the root, index or not.
            const auto held = ref_.find({len, cut(k, len)});
            const bool dup = held != ref_.end();
            EXPECT_EQ(rn_search(head_, k, len), dup ? held->second : nullptr);
            EXPECT_EQ(add(k, len, static_cast<int>(ref_.size())) != 0, dup);
        }
    };
    insert(shape.entries);
    check_queries(g, 20000);
    // Inserts after lookups: the index must answer for the new entries too.
    insert(shape.entries / 10);
    check_queries(g, 20000);
}

INSTANTIATE_TEST_SUITE_P(Shapes, RadixShapes, ::testing::ValuesIn(kShapes),
                         [](const ::testing::TestParamInfo<Shape> &i) { return i.param.name; });

// A key in 0/8 to 3/8 below 3 random bytes.
std::array<uint8_t, 16> near_key(std::mt19937 &rng) {
    return {static_cast<uint8_t>(rng() % 4), static_cast<uint8_t>(rng()),
            static_cast<uint8_t>(rng()), static_cast<uint8_t>(rng())};
}

// Two large trees with the same keys, read by four threads at once (the
// first lookups build both indexes together).  A lookup in one tree,
// bounded below an answer the other has just given this thread, must still
// answer from its own entries.
TEST_F(Radix, ConcurrentReadersOfTwoTreesGetTheirOwnAnswers) {
    radix_head *other = rn_tree_init(offsetof(Entry, key), offsetof(Entry, keylen), destroy);
    std::mt19937 rng(5);
    int other_count = 0;
    for (int i = 0; i < 3000; ++i) {
        const auto k = near_key(rng);
        const unsigned len = 8 + rng() % 17;
        if (add(k.data(), len, i) != 0) continue;
        auto *e = static_cast<Entry *>(std::calloc(1, sizeof(Entry)));
        e->id = -1 - i;  // the twin of entry i
        e->keylen = static_cast<uint8_t>(len);
        std::memcpy(e->key, k.data(), 16);
        ASSERT_EQ(rn_insert(other, e), 0);
        ++other_count;
    }
    // Per query: this tree's answer, and the other tree's id below it (0: none).
    std::vector<std::array<uint8_t, 16>> queries(2000);
    std::vector<std::pair<const Entry *, int>> want;
    for (auto &q : queries) {
        const Entry *e = longest((q = near_key(rng)).data(), 24);
        const Entry *below = e != nullptr ? longest(q.data(), e->keylen - 1u) : nullptr;
        want.emplace_back(e, below != nullptr ? -1 - below->id : 0);
    }
    std::vector<int> wrong(4, 0);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&, t] {
            for (int round = 0; round < 5; ++round)
                for (size_t i = 0; i < queries.size(); ++i) {
                    const auto [mine, theirs] = want[i];
                    wrong[t] += lookup(queries[i].data(), 24) != mine;
                    if (mine == nullptr) continue;
                    const auto *e = static_cast<const Entry *>(rn_lookup(
                        other, queries[i].data(), static_cast<uint8_t>(mine->keylen - 1)));
                    wrong[t] += (e != nullptr ? e->id : 0) != theirs;
                }
        });
    for (auto &th : threads) th.join();
    EXPECT_EQ(wrong, std::vector<int>(4, 0));
    rn_tree_destroy(&other);
    destroyed -= other_count;
}

}  // namespace
