// SPDX-License-Identifier: Apache-2.0
// Prefix sets of routing-table shape against the single-entry rule applied
// to every entry: IPv4 and IPv6, the three kinds, keys holding several
// entries, long covering chains, dense and sparse regions (the radix lookup
// index and its run nodes), wild and address/mask entries, and queries
// under entries, shorter than them and anywhere.
#include <array>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "prefix_model.hpp"
#include "support.hpp"

namespace {

using pm::cut;
using pm::Key;

// len is what queries under the entry keep of its address (all of it for
// an address/mask entry).
struct Entry {
    Key addr;
    int len, ge, le;
    const char *mask = nullptr;
};

// One family's set drawn like a routing table, or like a filter list: the
// leading bytes (base + rng() % mod * step; mod 0: any byte), then the
// length (below r of 100: base + rng() % spread).
struct Shape {
    const char *name = "";
    bool v6 = false;
    int entries = 0;
    std::array<std::array<int, 3>, 3> lead = {};
    std::vector<std::array<int, 3>> lens = {};
};

const Shape kShapes[] = {
    // Many /24s under few short prefixes, /16 to /23 between them: long
    // covering chains and regions dense enough for tables.
    {.name = "table_v4",
     .entries = 60000,
     .lead = {{{1, 30, 7}, {0, 20, 1}}},
     .lens = {{2, 8, 5}, {12, 16, 6}, {35, 22, 2}, {95, 24, 1}, {100, 25, 8}}},
    // /48s under /32s under a few shorter blocks, some to /64.
    {.name = "table_v6",
     .v6 = true,
     .entries = 30000,
     .lead = {{{0x2a, 1, 1}, {0, 8, 1}, {0, 16, 1}}},
     .lens = {{3, 19, 10}, {30, 32, 1}, {45, 33, 15}, {92, 48, 1}, {100, 49, 16}}},
    // A small filter: keys anywhere, one or two entries deep.
    {.name = "sparse_v4", .entries = 800, .lens = {{100, 8, 25}}},
};

void draw(const Shape &s, std::mt19937 &rng, Entry &e) {
    for (auto &b : e.addr) b = static_cast<uint8_t>(rng());
    for (int i = 0; i < 3; ++i)
        if (s.lead[i][1] != 0)
            e.addr[i] = static_cast<uint8_t>(s.lead[i][0] + rng() % s.lead[i][1] * s.lead[i][2]);
    const auto r = static_cast<int>(rng() % 100);
    for (auto [below, base, spread] : s.lens)
        if (r < below) {
            e.len = base + static_cast<int>(rng() % spread);
            break;
        }
}

void PrintTo(const Shape &s, std::ostream *os) {
    *os << s.name;
}

// A shape and a kind: 1 "pfxmatch", 2 "pfxlonger", 3 "pfxorlonger".
class PrefixSetDiff : public kt::FrameworkTest,
                      public ::testing::WithParamInterface<std::tuple<Shape, int>> {};

TEST_P(PrefixSetDiff, AgreesWithAScan) {
    const auto &[shape, kind] = GetParam();
    const int bits = shape.v6 ? 128 : 32;
    std::mt19937 rng(static_cast<unsigned>(shape.entries * 7 + kind));
    auto upto = [&](int n) { return static_cast<int>(rng() % (n + 1)); };

    // The set: one entry in ten with an le of its length + 4, one in
    // twenty with a ge/le range, one in ten a second entry on a key
    // already drawn with other bounds; a few address/mask entries, and for
    // "pfxmatch" a few wild ones (under the longer kinds a wild entry
    // accepts nearly every query and would hide the rest of the set).
    static const char *const kMasks[2][3] = {{"0.0.255.255", "0.255.0.255", "0.0.0.255"},
                                             {"::ffff:ffff", "0:ffff::", "::ff"}};
    std::vector<Entry> set;
    for (int i = 0; i < shape.entries; ++i) {
        Entry e{};
        const unsigned r = rng() % 300;
        if (i > 0 && r < 30) {
            e = set[rng() % set.size()];
            e.ge = std::min(bits, e.len + upto(2));
            e.le = std::min(bits, e.ge + upto(4));
        } else if (r < 32 && kind == 1) {  // wild
            e.ge = upto(1);
            e.le = e.ge + upto(bits / 4);
        } else if (r < 34) {
            draw(shape, rng, e);
            e.mask = kMasks[shape.v6][rng() % 3];
            e.len = bits;
            e.ge = upto(bits);
            e.le = e.ge + upto(bits - e.ge);
        } else {
            draw(shape, rng, e);
            e.ge = e.le = e.len;
            if (rng() % 10 == 0) e.le = std::min(bits, e.len + 4);
            if (rng() % 20 == 0) {
                e.ge = std::min(bits, e.len + 2);
                e.le = std::min(bits, e.ge + upto(7));
            }
        }
        if (e.mask == nullptr) e.addr = cut(e.addr.data(), e.len);
        set.push_back(e);
    }
    std::vector<pm::Entry> texts;
    for (const Entry &e : set)
        texts.push_back({pm::text(shape.v6, e.addr.data()), e.mask ? e.mask : std::to_string(e.len),
                         std::to_string(e.ge), std::to_string(e.le)});
    const pm::Set built(kind, texts);
    ASSERT_EQ(built.status(), 0u);

    // Queries under an entry (its length or up to 8 bits longer), shorter
    // than an entry (the lookup ends above the index's nodes), and drawn
    // like the entries.
    int hits = 0, mismatches = 0;
    for (int i = 0; i < 20000 && mismatches < 5; ++i) {
        Entry e{};
        draw(shape, rng, e);
        pm::Query q{static_cast<uint8_t>(shape.v6 ? 10 : 2), static_cast<uint8_t>(e.len), e.addr};
        if (i % 3 != 2) {
            const Entry &base = set[rng() % set.size()];
            Key keep;
            keep.fill(0xFF);
            keep = cut(keep.data(), base.len);
            for (int b = 0; b < 16; ++b)
                q.addr[b] = static_cast<uint8_t>((base.addr[b] & keep[b]) | (q.addr[b] & ~keep[b]));
            q.len = static_cast<uint8_t>(i % 3 == 0 ? std::min(bits, base.len + upto(8))
                                                    : std::max(2, base.len - upto(11)));
        }
        q.addr = cut(q.addr.data(), q.len);
        const int32_t got = built.answer(q), expected = built.rule(q);
        hits += expected;
        if (got != expected && ++mismatches <= 5)
            ADD_FAILURE() << shape.name << " kind " << kind << ": "
                          << pm::text(shape.v6, q.addr.data()) << "/" << int(q.len) << ": set says "
                          << got << ", the rule says " << expected;
    }
    EXPECT_GT(hits, 1000) << "the queries must exercise matches too";
}

std::string name(const ::testing::TestParamInfo<std::tuple<Shape, int>> &i) {
    static const char *const kKinds[] = {"", "match", "longer", "orlonger"};
    return std::string(std::get<0>(i.param).name) + "_" + kKinds[std::get<1>(i.param)];
}

INSTANTIATE_TEST_SUITE_P(Shapes, PrefixSetDiff,
                         ::testing::Combine(::testing::ValuesIn(kShapes),
                                            ::testing::Values(1, 2, 3)),
                         name);

}  // namespace
