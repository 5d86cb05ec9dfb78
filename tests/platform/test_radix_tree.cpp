// The radix tree against a plain scan over the same entries, for both key
// widths, and with the repeated bounded lookups the prefix sets make.
#include <gtest/gtest.h>

#include <cstring>
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

bool covers(const Entry &e, const uint8_t *key, unsigned len) {
    if (e.keylen > len) return false;
    for (unsigned b = 0; b < e.keylen; ++b)
        if (((e.key[b / 8] ^ key[b / 8]) >> (7 - b % 8)) & 1) return false;
    return true;
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
            entries_.push_back(e);
        return st;
    }
    const Entry *scan(const uint8_t *key, unsigned len) const {
        const Entry *best = nullptr;
        for (const Entry *e : entries_)
            if (covers(*e, key, len) && (best == nullptr || e->keylen > best->keylen)) best = e;
        return best;
    }
    radix_head *head_ = nullptr;
    std::vector<Entry *> entries_;
};

TEST_F(Radix, NestedPrefixesAndBounds) {
    const uint8_t k10[16] = {10}, k101[16] = {10, 1}, k1012[16] = {10, 1, 2}, zero[16] = {};
    EXPECT_EQ(rn_lookup(head_, k10, 32), nullptr) << "empty tree";
    ASSERT_EQ(add(k101, 16, 16), 0);
    ASSERT_EQ(add(zero, 0, 0), 0);
    ASSERT_EQ(add(k1012, 24, 24), 0);
    ASSERT_EQ(add(k10, 8, 8), 0);
    EXPECT_NE(add(k101, 16, 99), 0) << "same key and length";
    EXPECT_EQ(add(k101, 17, 17), 0) << "same key, other length";
    const uint8_t q[16] = {10, 1, 2, 3};
    auto id = [&](unsigned len) {
        auto *e = static_cast<Entry *>(rn_lookup(head_, q, static_cast<uint8_t>(len)));
        return e ? e->id : -1;
    };
    EXPECT_EQ(id(32), 24);
    EXPECT_EQ(id(23), 17);
    EXPECT_EQ(id(16), 16);
    EXPECT_EQ(id(15), 8);
    EXPECT_EQ(id(7), 0);
    EXPECT_EQ(static_cast<Entry *>(rn_search(head_, q, 24))->id, 24);
    EXPECT_EQ(rn_search(head_, q, 20), nullptr);
    const uint8_t other[16] = {11};
    EXPECT_EQ(static_cast<Entry *>(rn_lookup(head_, other, 32))->id, 0);
    EXPECT_EQ(rn_tree_count(head_), 5u);
}

TEST_F(Radix, HostBitsBeyondTheLengthAreIgnored) {
    const uint8_t dirty[16] = {10, 255, 255, 255};
    ASSERT_EQ(add(dirty, 8, 1), 0);
    const uint8_t q[16] = {10, 0, 0, 1};
    ASSERT_NE(rn_lookup(head_, q, 32), nullptr);
    EXPECT_NE(add(q, 8, 2), 0) << "the same /8 whatever its host bits";
}

struct Shape {
    unsigned bits;
    bool clustered;
};

class RadixRandom : public Radix, public ::testing::WithParamInterface<Shape> {};

TEST_P(RadixRandom, AgreesWithAScan) {
    const Shape shape = GetParam();
    std::mt19937 rng(shape.bits * 31 + shape.clustered);
    const unsigned bytes = shape.bits / 8;
    auto random_key = [&](uint8_t *k) {
        std::memset(k, 0, 16);
        for (unsigned i = 0; i < bytes; ++i) k[i] = static_cast<uint8_t>(rng());
        if (shape.clustered) {  // a few hot prefixes, as in routing tables
            k[0] = static_cast<uint8_t>(rng() % 3);
            k[1] = static_cast<uint8_t>(rng() % 4);
        }
    };
    for (int i = 0; i < 6000; ++i) {  // past the size at which large trees index their top
        uint8_t k[16];
        random_key(k);
        const unsigned len =
            shape.clustered ? 8 + rng() % (shape.bits - 7) : rng() % (shape.bits + 1);
        const bool dup = scan(k, len) != nullptr && scan(k, len)->keylen == len;
        EXPECT_EQ(add(k, len, i) != 0, dup) << i;
    }
    for (int i = 0; i < 20000; ++i) {
        uint8_t q[16];
        random_key(q);
        unsigned len = rng() % (shape.bits + 1);
        const Entry *want = scan(q, len);
        ASSERT_EQ(rn_lookup(head_, q, static_cast<uint8_t>(len)), want) << i;
        if (want != nullptr) {
            EXPECT_EQ(rn_search(head_, q, want->keylen), want);
            // The repeated bounded lookup visits every covering entry.
            size_t visits = 0;
            for (const Entry *e = want; e != nullptr && e->keylen > 0;
                 e = static_cast<const Entry *>(
                     rn_lookup(head_, q, static_cast<uint8_t>(e->keylen - 1))))
                ++visits;
            size_t covering = 0;
            for (const Entry *e : entries_) covering += covers(*e, q, len) && e->keylen > 0;
            EXPECT_EQ(visits, covering);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Widths, RadixRandom,
                         ::testing::Values(Shape{32, false}, Shape{32, true}, Shape{128, false},
                                           Shape{128, true}),
                         [](const ::testing::TestParamInfo<Shape> &i) {
                             return "bits" + std::to_string(i.param.bits) +
                                    (i.param.clustered ? "_clustered" : "_random");
                         });

// Past 2^17 entries the lookup index is wider than two bytes.  The
// reference is the exact search, which never uses the index: the longest
// match is the longest length with an exact entry on the query's path.
TEST_F(Radix, WideIndexAgreesWithExactSearches) {
    std::mt19937 rng(17);
    auto random_key = [&](uint8_t *k) {
        std::memset(k, 0, 16);
        for (int i = 0; i < 4; ++i) k[i] = static_cast<uint8_t>(rng());
        k[0] = static_cast<uint8_t>(rng() % 4);  // a few blocks: the first bits are shared
    };
    for (int i = 0; i < 140000; ++i) {
        uint8_t k[16];
        random_key(k);
        const unsigned r = rng() % 100;
        add(k, r < 2 ? rng() % 17 : r < 10 ? 17 + rng() % 6 : 23 + rng() % 10, i);
    }
    // Each query goes down its covering keys as a prefix set does: every
    // lookup after the first is bounded below the previous answer.
    for (int i = 0; i < 20000; ++i) {
        uint8_t q[16];
        random_key(q);
        if (i % 4 == 0) q[0] = static_cast<uint8_t>(rng());  // off the bits all entries share
        for (unsigned len = 16 + rng() % 17;;) {
            const void *want = nullptr;
            for (int l = static_cast<int>(len); l >= 0 && want == nullptr; --l)
                want = rn_search(head_, q, static_cast<uint8_t>(l));
            const auto *got = static_cast<const Entry *>(rn_lookup(head_, q, static_cast<uint8_t>(len)));
            ASSERT_EQ(got, want) << i << " /" << len;
            if (got == nullptr || got->keylen == 0) break;
            len = got->keylen - 1u;
        }
    }
}

TEST_F(Radix, AnswersOfOneTreeNeverLeakIntoAnother) {
    // Two large trees with the same keys: a lookup in one, bounded below an
    // answer just given by the other, must answer from its own entries.
    radix_head *other = rn_tree_init(offsetof(Entry, key), offsetof(Entry, keylen), destroy);
    std::mt19937 rng(5);
    int other_count = 0;
    for (int i = 0; i < 2000; ++i) {
        uint8_t k[16] = {static_cast<uint8_t>(rng() % 4), static_cast<uint8_t>(rng()),
                         static_cast<uint8_t>(rng())};
        const unsigned len = 8 + rng() % 17;
        if (add(k, len, i) != 0) continue;
        auto *e = static_cast<Entry *>(std::calloc(1, sizeof(Entry)));
        e->id = -1 - i;
        e->keylen = static_cast<uint8_t>(len);
        std::memcpy(e->key, k, 16);
        ASSERT_EQ(rn_insert(other, e), 0);
        ++other_count;
    }
    for (int i = 0; i < 2000; ++i) {
        uint8_t q[16] = {static_cast<uint8_t>(rng() % 4), static_cast<uint8_t>(rng()),
                         static_cast<uint8_t>(rng())};
        const auto *mine = static_cast<const Entry *>(rn_lookup(head_, q, 24));
        if (mine == nullptr || mine->keylen == 0) continue;
        const auto *theirs =
            static_cast<const Entry *>(rn_lookup(other, q, static_cast<uint8_t>(mine->keylen - 1)));
        ASSERT_TRUE(theirs == nullptr || theirs->id < 0) << i;
    }
    rn_tree_destroy(&other);
    destroyed -= other_count;
}

TEST_F(Radix, ConcurrentReadersSeeTheSameAnswers) {
    std::mt19937 rng(99);
    for (int i = 0; i < 3000; ++i) {
        uint8_t k[16] = {static_cast<uint8_t>(rng() % 8), static_cast<uint8_t>(rng()),
                         static_cast<uint8_t>(rng())};
        add(k, 8 + rng() % 17, i);
    }
    std::vector<std::array<uint8_t, 16>> queries(2000);
    std::vector<const void *> want;
    for (auto &q : queries) {
        q = {static_cast<uint8_t>(rng() % 8), static_cast<uint8_t>(rng()),
             static_cast<uint8_t>(rng()), static_cast<uint8_t>(rng())};
        want.push_back(scan(q.data(), 32));
    }
    std::vector<int> wrong(4, 0);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&, t] {
            for (int round = 0; round < 5; ++round)
                for (size_t i = 0; i < queries.size(); ++i)
                    wrong[t] += rn_lookup(head_, queries[i].data(), 32) != want[i];
        });
    for (auto &th : threads) th.join();
    EXPECT_EQ(wrong, std::vector<int>(4, 0));
}

}  // namespace
