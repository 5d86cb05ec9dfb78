// SPDX-License-Identifier: Apache-2.0
// Prefix sets of routing-table shape against the single-entry rule applied
// to every entry: IPv4 and IPv6, the three kinds, keys holding several
// entries, long covering chains, dense and sparse regions, and queries under
// entries, shorter than them and anywhere.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "kela_ref.h"
#include "kela_shared.h"
#include "support.hpp"

namespace {

struct Query {
    uint8_t family, len, addr[16];
};

vogno get_value(void *, void *route, shared_kela_prefix_addr_td *v, uint32_t *more) {
    auto *q = static_cast<Query *>(route);
    *v = {q->family, q->addr, q->len, 0};
    *more = 0;
    return 0;
}

struct Entry {
    uint8_t addr[16];
    int len, ge, le;
};

// One family's set drawn like a routing table, or like an IRR filter list.
struct Shape {
    const char *name;
    bool v6;
    int entries;
    void (*draw)(std::mt19937 &, Entry &);
};

void clear_host_bits(Entry &e, int bits) {
    for (int b = e.len; b < bits; ++b) e.addr[b / 8] &= static_cast<uint8_t>(~(0x80u >> (b % 8)));
}

const Shape kShapes[] = {
    // Many /24s under few short prefixes, /16 to /23 between them: long
    // covering chains and regions dense enough for tables.
    {"table_v4", false, 60000,
     [](std::mt19937 &rng, Entry &e) {
         for (auto &b : e.addr) b = static_cast<uint8_t>(rng());
         e.addr[0] = static_cast<uint8_t>(1 + rng() % 30 * 7);
         e.addr[1] = static_cast<uint8_t>(rng() % 20);
         const unsigned r = rng() % 100;
         e.len = r < 2    ? 8 + static_cast<int>(rng() % 5)
                 : r < 12 ? 16 + static_cast<int>(rng() % 6)
                 : r < 35 ? 22 + static_cast<int>(rng() % 2)
                 : r < 95 ? 24
                          : 25 + static_cast<int>(rng() % 8);
         clear_host_bits(e, 32);
     }},
    // /48s under /32s under a few shorter blocks, some to /64.
    {"table_v6", true, 30000,
     [](std::mt19937 &rng, Entry &e) {
         for (auto &b : e.addr) b = static_cast<uint8_t>(rng());
         e.addr[0] = 0x2a;
         e.addr[1] = static_cast<uint8_t>(rng() % 8);
         e.addr[2] = static_cast<uint8_t>(rng() % 16);
         const unsigned r = rng() % 100;
         e.len = r < 3    ? 19 + static_cast<int>(rng() % 10)
                 : r < 30 ? 32
                 : r < 45 ? 33 + static_cast<int>(rng() % 15)
                 : r < 92 ? 48
                          : 49 + static_cast<int>(rng() % 16);
         clear_host_bits(e, 128);
     }},
    // A small filter: keys anywhere, one or two entries deep.
    {"sparse_v4", false, 800,
     [](std::mt19937 &rng, Entry &e) {
         for (auto &b : e.addr) b = static_cast<uint8_t>(rng());
         e.len = 8 + static_cast<int>(rng() % 25);
         clear_host_bits(e, 32);
     }},
};

struct Case {
    Shape shape;
    int kind;
};

class PrefixSetDiff : public kt::FrameworkTest, public ::testing::WithParamInterface<Case> {};

TEST_P(PrefixSetDiff, AgreesWithTheSingleEntryRule) {
    const Shape &shape = GetParam().shape;
    const int kind = GetParam().kind;
    const int bits = shape.v6 ? 128 : 32;
    std::mt19937 rng(static_cast<unsigned>(shape.entries * 7 + kind));

    // The set: one entry in ten with an le of its length + 4, one in
    // twenty with a ge/le range, and one in ten a second entry on a key
    // already drawn, with other bounds.
    std::vector<Entry> set;
    for (int i = 0; i < shape.entries; ++i) {
        Entry e{};
        if (i > 0 && rng() % 10 == 0) {
            e = set[rng() % set.size()];
            e.ge = std::min(bits, e.len + static_cast<int>(rng() % 3));
            e.le = std::min(bits, e.ge + static_cast<int>(rng() % 5));
        } else {
            shape.draw(rng, e);
            e.ge = e.le = e.len;
            if (rng() % 10 == 0) e.le = std::min(bits, e.len + 4);
            if (rng() % 20 == 0) {
                e.ge = std::min(bits, e.len + 2);
                e.le = std::min(bits, e.ge + static_cast<int>(rng() % 8));
            }
        }
        set.push_back(e);
    }
    std::vector<std::string> texts;
    char buf[64];
    for (std::size_t i = 0; i < set.size(); ++i) {
        inet_ntop(shape.v6 ? AF_INET6 : AF_INET, set[i].addr, buf, sizeof buf);
        for (const std::string &t :
             {"arg" + std::to_string(i) + ":4", std::string(buf), std::to_string(set[i].len),
              std::to_string(set[i].ge), std::to_string(set[i].le)})
            texts.push_back(t);
    }
    std::vector<char *> vec;
    for (auto &t : texts) vec.push_back(t.data());
    std::vector<void *> slots(vec.size(), &texts);
    shared_kela_prefix_desc_td desc{"destination", get_value, nullptr, nullptr, 0};
    rasf_construct_fn cons = kind == 1   ? shared_kela_prefix_cmp_match_cons
                             : kind == 2 ? shared_kela_prefix_cmp_longer_cons
                                         : shared_kela_prefix_cmp_orlonger_cons;
    rasf_inst_t *inst = nullptr;
    ASSERT_EQ(cons(static_cast<uint32_t>(vec.size()), vec.data(), slots.data(), &desc, &inst), 0u);
    kref_inst_info_t info{};
    ASSERT_EQ(kref_inst_get(inst, &info), 0u);

    // The reference: each entry parsed on its own and its own rule applied.
    // An entry can accept a value only if their first min(len, ge, le)
    // bits agree, so the entries are kept under those bits, a shortcut
    // that leaves the rule itself to decide.
    using Key = std::array<uint8_t, 16>;
    auto cut = [](const uint8_t *a, int n) {
        Key k{};
        for (int b = 0; b < n; ++b) k[b / 8] |= static_cast<uint8_t>(a[b / 8] & (0x80u >> (b % 8)));
        return k;
    };
    std::map<std::pair<int, Key>, std::vector<shared_kela_prefix_matchspec_td *>> by_key;
    for (std::size_t i = 0; i < set.size(); ++i) {
        shared_kela_prefix_matchspec_td *s = nullptr;
        ASSERT_EQ(shared_kela_prefix_cvt_string_to_matchspec(vec[5 * i + 1], vec[5 * i + 2],
                                                             vec[5 * i + 3], vec[5 * i + 4], &s),
                  0u);
        const int keylen = std::min({s->len, s->ge, s->le});
        by_key[{keylen, cut(s->addr, keylen)}].push_back(s);
    }
    auto want = [&](Query &q) {
        shared_kela_prefix_addr_td v{q.family, q.addr, q.len, 0};
        for (int l = 0; l <= q.len; ++l) {
            auto it = by_key.find({l, cut(q.addr, l)});
            if (it == by_key.end()) continue;
            for (auto *s : it->second)
                if (shared_kela_prefix_match(&v, s, static_cast<shared_kela_prefix_cmp_td>(kind)))
                    return 1;
        }
        return 0;
    };

    // Queries under an entry (its length or up to 8 bits longer), shorter
    // than an entry (the lookup ends above the index's nodes), and drawn
    // like the entries.
    int hits = 0, mismatches = 0;
    for (int i = 0; i < 20000 && mismatches < 5; ++i) {
        Query q{static_cast<uint8_t>(shape.v6 ? 10 : 2), 0, {}};
        Entry e{};
        shape.draw(rng, e);
        std::memcpy(q.addr, e.addr, 16);
        q.len = static_cast<uint8_t>(e.len);
        if (i % 3 != 2) {
            const Entry &base = set[rng() % set.size()];
            const Key k = cut(base.addr, base.len);
            for (int b = 0; b < base.len; ++b) {
                const auto bit = static_cast<uint8_t>(0x80u >> (b % 8));
                q.addr[b / 8] = static_cast<uint8_t>((q.addr[b / 8] & ~bit) | (k[b / 8] & bit));
            }
            q.len = static_cast<uint8_t>(
                i % 3 == 0 ? std::min(bits, base.len + static_cast<int>(rng() % 9))
                           : std::max(2, base.len - static_cast<int>(rng() % 12)));
        }
        for (int b = q.len; b < bits; ++b)
            q.addr[b / 8] &= static_cast<uint8_t>(~(0x80u >> (b % 8)));
        int32_t got = -1;
        ASSERT_EQ(info.cmp(&q, info.count, info.slots, info.ctx, &got), 0u);
        const int expected = want(q);
        hits += expected;
        if (got != expected && ++mismatches <= 5) {
            inet_ntop(shape.v6 ? AF_INET6 : AF_INET, q.addr, buf, sizeof buf);
            ADD_FAILURE() << shape.name << " kind " << kind << ": " << buf << "/" << int(q.len)
                          << ": set says " << got << ", the rule says " << expected;
        }
    }
    EXPECT_GT(hits, 1000) << "the queries must exercise matches too";
    for (auto &kv : by_key)
        for (auto *s : kv.second) std::free(s);
    shared_kela_prefix_cmp_match_free(info.ctx);
    rasf_free_cmp_instance(inst);
}

std::vector<Case> cases() {
    std::vector<Case> out;
    for (const Shape &s : kShapes)
        for (int kind = 1; kind <= 3; ++kind) out.push_back({s, kind});
    return out;
}

std::string case_name(const ::testing::TestParamInfo<Case> &i) {
    static const char *const kKinds[] = {"", "match", "longer", "orlonger"};
    return std::string(i.param.shape.name) + "_" + kKinds[i.param.kind];
}

INSTANTIATE_TEST_SUITE_P(Shapes, PrefixSetDiff, ::testing::ValuesIn(cases()), case_name);

}  // namespace
