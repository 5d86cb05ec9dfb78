// SPDX-License-Identifier: Apache-2.0
// Benchmarks of the hot paths, each paired with what it is judged against
// (bench/report.py turns one run into docs/performance.md):
//  - prefix-set lookup on cold queries: 200,000 distinct queries per set,
//    each asked once per pass, in random order, so that a set larger than the
//    caches is read from memory as it is when a full table is filtered; a
//    warm column, labelled as such, cycles over 4,096 queries;
//  - generated sets of 1k to 1M entries, and the real routing table that
//    bench/run.sh fetches (KELA_BENCH_DATA names its directory), IPv4 and
//    IPv6;
//  - radix lookups per query and memory per entry, every index included;
//  - set build from texts against parsing the same texts only;
//  - uint32 "matches-any" against a linear scan; the radix tree alone.
//
// `kela_bench --write-sets DIR` writes every set with its cold and warm
// queries as files, which the side-by-side programs (kela_side and the
// peer's) read.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <malloc.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <unordered_set>
#include <vector>

#include "kela_client.hpp"
#include "kela_ref.h"
#include "kela_ref_hooks.h"
#include "kela_shared.h"
#include "qv_inet.h"
#include "radix.h"

namespace {

constexpr unsigned kFixedState = 20261122;
constexpr std::size_t kColdQueries = 200000;
constexpr std::size_t kWarmQueries = 4096;

// ---- sets ----------------------------------------------------------------------------------

struct Entry {
    std::string addr, len, ge, le;
    std::uint8_t bytes[16];
    int length;
};

int v4_length(std::mt19937 &rng) {
    const double r = std::uniform_real_distribution<>(0, 1)(rng);
    if (r < 0.60) return 24;
    if (r < 0.80) return 22 + static_cast<int>(rng() % 2);
    if (r < 0.97) return 16 + static_cast<int>(rng() % 6);
    return 8 + static_cast<int>(rng() % 8);
}
int v6_length(std::mt19937 &rng) {
    const double r = std::uniform_real_distribution<>(0, 1)(rng);
    if (r < 0.55) return 48;
    return 32 + static_cast<int>(rng() % 13);
}

std::string text_of(bool v6, const std::uint8_t *a) {
    char buf[64];
    inet_ntop(v6 ? AF_INET6 : AF_INET, a, buf, sizeof buf);
    return buf;
}

void clear_host_bits(std::uint8_t *a, int bytes, int len) {
    for (int b = len; b < bytes * 8; ++b)
        a[b / 8] &= static_cast<std::uint8_t>(~(0x80u >> (b % 8)));
}

Entry make_entry(bool v6, const std::uint8_t *a, int len, int le) {
    Entry e{text_of(v6, a), std::to_string(len), std::to_string(len), std::to_string(le), {}, len};
    std::memcpy(e.bytes, a, v6 ? 16 : 4);
    return e;
}

// Prefixes shaped like a public table (mostly /24, /48), one in ten with a
// random le.
std::vector<Entry> generated_set(bool v6, int n) {
    std::mt19937 rng(kFixedState + static_cast<unsigned>(n) + (v6 ? 7u : 0u));
    std::vector<Entry> out;
    const int bytes = v6 ? 16 : 4, max = v6 ? 128 : 32;
    for (int i = 0; i < n; ++i) {
        std::uint8_t a[16] = {};
        for (int b = 0; b < bytes; ++b) a[b] = static_cast<std::uint8_t>(rng());
        if (v6) {
            a[0] = 0x20;
            a[1] = static_cast<std::uint8_t>(0x01 + rng() % 4);
        } else {
            a[0] = static_cast<std::uint8_t>(1 + rng() % 222);
        }
        const int len = v6 ? v6_length(rng) : v4_length(rng);
        clear_host_bits(a, bytes, len);
        const int le = rng() % 10 == 0 ? len + static_cast<int>(rng() % (max - len + 1)) : len;
        out.push_back(make_entry(v6, a, len, le));
    }
    return out;
}

// The real table as bench/generate.py writes it: "A/L" or "A/L le E" a line.
std::vector<Entry> read_set(bool v6, const std::string &path) {
    std::vector<Entry> out;
    std::ifstream in(path);
    std::string line;
    while (std::getline(in, line)) {
        const std::size_t slash = line.find('/');
        if (slash == std::string::npos) continue;
        std::uint8_t a[16] = {};
        if (inet_pton(v6 ? AF_INET6 : AF_INET, line.substr(0, slash).c_str(), a) != 1) continue;
        const int len = std::atoi(line.c_str() + slash + 1);
        const std::size_t le_at = line.find(" le ");
        out.push_back(make_entry(
            v6, a, len, le_at == std::string::npos ? len : std::atoi(line.c_str() + le_at + 4)));
    }
    return out;
}

std::string data_dir() {
    const char *d = std::getenv("KELA_BENCH_DATA");
    return d != nullptr ? d : "";
}

// ---- a client's prefix value -----------------------------------------------------------------

using bench::g_desc;
using bench::Query;
using bench::Vector;

// n distinct queries in random order: half under an entry of the set (its
// length or up to 8 bits longer), half anywhere (IPv4: any unicast address;
// IPv6: global unicast, 2000::/3) with a table-shaped length.
std::vector<Query> make_queries(bool v6, const std::vector<Entry> &set, std::size_t n,
                                unsigned state) {
    std::mt19937 rng(state);
    std::vector<Query> out;
    std::unordered_set<std::string> seen;
    const int bytes = v6 ? 16 : 4, max = v6 ? 128 : 32;
    while (out.size() < n) {
        Query q{static_cast<std::uint8_t>(v6 ? 10 : 2), 0, {}};
        for (int b = 0; b < bytes; ++b) q.addr[b] = static_cast<std::uint8_t>(rng());
        if (out.size() % 2 == 0) {
            const Entry &e = set[rng() % set.size()];
            for (int b = 0; b < e.length; ++b) {
                const auto bit = static_cast<std::uint8_t>(0x80u >> (b % 8));
                q.addr[b / 8] =
                    static_cast<std::uint8_t>((q.addr[b / 8] & ~bit) | (e.bytes[b / 8] & bit));
            }
            q.len = static_cast<std::uint8_t>(
                rng() % 2 ? e.length : std::min(max, e.length + static_cast<int>(rng() % 9)));
        } else {
            if (v6)
                q.addr[0] = static_cast<std::uint8_t>(0x20 | (q.addr[0] & 0x1F));
            else
                q.addr[0] = static_cast<std::uint8_t>(1 + rng() % 223);
            q.len = static_cast<std::uint8_t>(v6 ? v6_length(rng) : v4_length(rng));
        }
        clear_host_bits(q.addr, bytes, q.len);  // routes carry clean prefixes
        if (seen.insert(std::string(reinterpret_cast<const char *>(&q), sizeof q)).second)
            out.push_back(q);
    }
    return out;
}

Vector vector_of(const std::vector<Entry> &set) {
    Vector v;
    v.texts.reserve(set.size() * 5);
    for (const Entry &e : set) v.add(e.addr, e.len, e.ge, e.le);
    v.seal();
    return v;
}

// Bytes the allocator has handed out, small and large (mapped) blocks
// alike, and what the radix indexes map for themselves.
std::size_t allocated_bytes() {
    const struct mallinfo2 m = mallinfo2();
    return m.uordblks + m.hblkhd + kref_radix_mapped_bytes();
}

// A compiled set with its cold and warm queries.
struct Fixture {
    bool v6;
    std::vector<Entry> set;
    std::vector<Query> cold, warm;
    Vector vec;
    rasf_inst_t *inst = nullptr;
    kref_inst_info_t info{};
    double bytes_per_entry = 0;

    Fixture(bool is_v6, std::vector<Entry> entries)
        : v6(is_v6), set(std::move(entries)), vec(vector_of(set)) {
        cold = make_queries(v6, set, kColdQueries, kFixedState + static_cast<unsigned>(set.size()));
        warm = make_queries(v6, set, kWarmQueries, kFixedState + 1);
        const std::size_t before = allocated_bytes();
        if (shared_kela_prefix_cmp_match_cons(vec.count(), vec.ptrs.data(), vec.slots.data(),
                                              &g_desc, &inst) != 0)
            std::abort();
        kref_inst_get(inst, &info);
        // The first lookup makes the trees' lookup indexes: they count too.
        lookup(cold[0]);
        bytes_per_entry =
            static_cast<double>(allocated_bytes() - before) / static_cast<double>(set.size());
    }
    ~Fixture() {
        shared_kela_prefix_cmp_match_free(info.ctx);
        rasf_free_cmp_instance(inst);
    }
    Fixture(const Fixture &) = delete;
    Fixture &operator=(const Fixture &) = delete;

    int lookup(Query &q) {
        std::int32_t out = 0;
        info.cmp(&q, vec.count(), vec.slots.data(), info.ctx, &out);
        return out;
    }
    // One pass over the queries; the number that matched.
    std::size_t pass(std::vector<Query> &qs) {
        std::size_t hits = 0;
        for (Query &q : qs) hits += static_cast<std::size_t>(lookup(q));
        return hits;
    }
};

struct SetDef {
    const char *name;  // v4/1000, v4/real, ...
    bool v6;
    int n;  // 0: the real table
};

const SetDef kSets[] = {
    {"v4/1000", false, 1000},       {"v4/10000", false, 10000},  {"v4/100000", false, 100000},
    {"v4/1000000", false, 1000000}, {"v4/real", false, 0},       {"v6/1000", true, 1000},
    {"v6/10000", true, 10000},      {"v6/100000", true, 100000}, {"v6/1000000", true, 1000000},
    {"v6/real", true, 0},
};

bool available(const SetDef &d) {
    if (d.n != 0) return true;
    return std::ifstream(data_dir() + (d.v6 ? "/set-v6.txt" : "/set-v4.txt")).good();
}

Fixture &fixture(const SetDef &d) {
    static std::map<std::string, std::unique_ptr<Fixture>> cache;
    auto &f = cache[d.name];
    if (!f) {
        std::vector<Entry> entries =
            d.n != 0 ? generated_set(d.v6, d.n)
                     : read_set(d.v6, data_dir() + (d.v6 ? "/set-v6.txt" : "/set-v4.txt"));
        f = std::make_unique<Fixture>(d.v6, std::move(entries));
    }
    return *f;
}

// One iteration is one pass over 200,000 distinct queries.
void BM_Lookup(benchmark::State &state, const SetDef *d) {
    Fixture &f = fixture(*d);
    std::size_t hits = 0;
    const std::uint64_t radix_before = kref_radix_lookups();
    for (auto _ : state) hits += f.pass(f.cold);
    const double queries =
        static_cast<double>(state.iterations()) * static_cast<double>(f.cold.size());
    state.counters["queries_per_pass"] = static_cast<double>(f.cold.size());
    state.counters["entries"] = static_cast<double>(f.set.size());
    state.counters["bytes_per_entry"] = f.bytes_per_entry;
    state.counters["hit_rate"] = static_cast<double>(hits) / queries;
    state.counters["radix_per_query"] =
        static_cast<double>(kref_radix_lookups() - radix_before) / queries;
}

// Warm: the same 4,096 queries over and over stay in the caches.  Shown
// beside the cold figure, never instead of it.
void BM_LookupWarm(benchmark::State &state, const SetDef *d) {
    Fixture &f = fixture(*d);
    for (auto _ : state) benchmark::DoNotOptimize(f.pass(f.warm));
    state.counters["queries_per_pass"] = static_cast<double>(f.warm.size());
}

// The single-entry rule over every entry, first match wins.
void BM_LinearScan(benchmark::State &state, const SetDef *d) {
    Fixture &f = fixture(*d);
    std::vector<shared_kela_prefix_matchspec_td *> specs;
    for (const Entry &e : f.set) {
        shared_kela_prefix_matchspec_td *s = nullptr;
        shared_kela_prefix_cvt_string_to_matchspec(e.addr.c_str(), e.len.c_str(), e.ge.c_str(),
                                                   e.le.c_str(), &s);
        specs.push_back(s);
    }
    std::size_t i = 0;
    for (auto _ : state) {
        Query &q = f.cold[i++ % f.cold.size()];
        shared_kela_prefix_addr_td v{q.family, q.addr, q.len, 0};
        int hit = 0;
        for (auto *s : specs)
            if (shared_kela_prefix_match(&v, s, SHARED_KELA_PREFIX_CMP_MATCH)) {
                hit = 1;
                break;
            }
        benchmark::DoNotOptimize(hit);
    }
    for (auto *s : specs) std::free(s);
}

// ---- build against parse-only ---------------------------------------------------------------

void BM_Build(benchmark::State &state, const SetDef *d) {
    Fixture &f = fixture(*d);
    for (auto _ : state) {
        rasf_inst_t *inst = nullptr;
        shared_kela_prefix_cmp_match_cons(f.vec.count(), f.vec.ptrs.data(), f.vec.slots.data(),
                                          &g_desc, &inst);
        kref_inst_info_t info{};
        kref_inst_get(inst, &info);
        // The index is made by the first lookup: part of the build's cost.
        std::int32_t out = 0;
        info.cmp(&f.cold[0], f.vec.count(), f.vec.slots.data(), info.ctx, &out);
        state.PauseTiming();
        shared_kela_prefix_cmp_match_free(info.ctx);
        rasf_free_cmp_instance(inst);
        state.ResumeTiming();
    }
    state.counters["entries"] = static_cast<double>(f.set.size());
}

void BM_ParseOnly(benchmark::State &state, const SetDef *d) {
    Fixture &f = fixture(*d);
    const int family = d->v6 ? QV_AF_INET6 : QV_AF_INET;
    for (auto _ : state) {
        for (const Entry &e : f.set) {
            std::uint8_t a[16];
            std::uint32_t l, g, x;
            benchmark::DoNotOptimize(qv_inet_pton(family, e.addr.c_str(), a));
            shared_kela_uint32_cvt_string(e.len.c_str(), nullptr, 1, &l);
            shared_kela_uint32_cvt_string(e.ge.c_str(), nullptr, 1, &g);
            shared_kela_uint32_cvt_string(e.le.c_str(), nullptr, 1, &x);
            benchmark::DoNotOptimize(l + g + x);
        }
    }
    state.counters["entries"] = static_cast<double>(f.set.size());
}

// ---- uint32 "matches-any" -------------------------------------------------------------------

struct AnySet {
    std::vector<std::uint32_t> values;
    std::vector<std::string> texts;
    std::vector<char *> ptrs;
    std::vector<void *> slots;
    rasf_inst_t *inst = nullptr;
    kref_inst_info_t info{};
    shared_kela_uint32_desc_td desc{"metric", 0, 0, 0xFFFFFFFFu, nullptr};
    AnySet() {
        std::mt19937 rng(kFixedState);
        for (int i = 0; i < 10000; ++i) {
            values.push_back(rng());
            texts.push_back("arg" + std::to_string(i) + ":1");
            texts.push_back(std::to_string(values.back()));
        }
        for (auto &t : texts) ptrs.push_back(t.data());
        slots.assign(ptrs.size(), this);
        shared_kela_uint32_cmp_any_cons(static_cast<std::uint32_t>(ptrs.size()), ptrs.data(),
                                        slots.data(), &desc, &inst);
        kref_inst_get(inst, &info);
    }
};

AnySet &any_set() {
    static AnySet *s = new AnySet;
    return *s;
}

void BM_MatchesAny(benchmark::State &state) {
    AnySet &s = any_set();
    std::size_t i = 0;
    for (auto _ : state) {
        std::uint32_t route =
            i % 2 ? s.values[i % s.values.size()] : static_cast<std::uint32_t>(i * 2654435761u);
        ++i;
        std::int32_t out = 0;
        s.info.cmp(&route, 2, s.slots.data(), s.info.ctx, &out);
        benchmark::DoNotOptimize(out);
    }
}

void BM_MatchesAnyLinear(benchmark::State &state) {
    AnySet &s = any_set();
    std::size_t i = 0;
    for (auto _ : state) {
        std::uint32_t route =
            i % 2 ? s.values[i % s.values.size()] : static_cast<std::uint32_t>(i * 2654435761u);
        ++i;
        int hit = 0;
        for (std::uint32_t v : s.values)
            if (v == route) {
                hit = 1;
                break;
            }
        benchmark::DoNotOptimize(hit);
    }
}

// ---- the radix tree alone -------------------------------------------------------------------

struct TreeEntry {
    radix_node hdr;
    std::uint8_t keylen;
    std::uint8_t key[4];
};

std::vector<TreeEntry> tree_entries(int n) {
    std::mt19937 rng(kFixedState);
    std::vector<TreeEntry> out(static_cast<std::size_t>(n));
    for (auto &e : out) {
        e.keylen = static_cast<std::uint8_t>(v4_length(rng));
        std::uint32_t a = rng() & (0xFFFFFFFFu << (32 - e.keylen));
        a = htonl(a);
        std::memcpy(e.key, &a, 4);
    }
    return out;
}

// Inserts in random order, or (second argument 1) in key order, as a
// prefix set files its entries.
void BM_RadixInsert(benchmark::State &state) {
    for (auto _ : state) {
        state.PauseTiming();
        auto entries = tree_entries(static_cast<int>(state.range(0)));
        if (state.range(1) != 0)
            std::sort(entries.begin(), entries.end(), [](const TreeEntry &a, const TreeEntry &b) {
                return std::memcmp(a.key, b.key, 4) < 0;
            });
        radix_head *h =
            rn_tree_init(offsetof(TreeEntry, key), offsetof(TreeEntry, keylen), nullptr);
        state.ResumeTiming();
        for (auto &e : entries) rn_insert(h, &e);
        state.PauseTiming();
        rn_tree_destroy(&h);
        state.ResumeTiming();
    }
    state.counters["entries"] = static_cast<double>(state.range(0));
}

// Longest match over 200,000 distinct random keys, each once per pass.
void BM_RadixLookup(benchmark::State &state) {
    static auto entries = tree_entries(static_cast<int>(state.range(0)));
    static radix_head *h = [] {
        radix_head *t =
            rn_tree_init(offsetof(TreeEntry, key), offsetof(TreeEntry, keylen), nullptr);
        for (auto &e : entries) rn_insert(t, &e);
        return t;
    }();
    std::mt19937 rng(kFixedState + 1);
    std::vector<std::uint32_t> keys(kColdQueries);
    for (auto &k : keys) k = rng();
    for (auto _ : state)
        for (auto &k : keys)
            benchmark::DoNotOptimize(rn_lookup(h, reinterpret_cast<std::uint8_t *>(&k), 32));
    state.counters["queries_per_pass"] = static_cast<double>(keys.size());
}

// What a first touch of new memory costs here: the allocator hands out
// large blocks as fresh pages, and a build touches every byte of its set.
void BM_FirstTouch(benchmark::State &state) {
    constexpr std::size_t kBytes = std::size_t{64} << 20, kPage = 4096;
    for (auto _ : state) {
        auto *p = static_cast<char *>(std::malloc(kBytes));
        for (std::size_t at = 0; at < kBytes; at += kPage) p[at] = 1;
        benchmark::DoNotOptimize(p);
        std::free(p);
    }
    state.counters["pages"] = static_cast<double>(kBytes / kPage);
}

void register_all() {
    for (const SetDef &d : kSets) {
        if (!available(d)) {
            std::fprintf(stderr,
                         "kela_bench: no %s (set KELA_BENCH_DATA to the table's directory)\n",
                         d.name);
            continue;
        }
        benchmark::RegisterBenchmark((std::string("lookup/") + d.name).c_str(), BM_Lookup, &d)
            ->Unit(benchmark::kMillisecond);
        benchmark::RegisterBenchmark((std::string("lookup_warm/") + d.name).c_str(), BM_LookupWarm,
                                     &d)
            ->Unit(benchmark::kMicrosecond);
    }
    for (const SetDef &d : kSets)
        if (d.n != 0 && d.n <= 100000 && !d.v6)
            benchmark::RegisterBenchmark((std::string("scan/") + d.name).c_str(), BM_LinearScan,
                                         &d);
    for (const SetDef &d : kSets)
        if ((d.n == 0 || d.n == 100000) && available(d)) {
            benchmark::RegisterBenchmark((std::string("build/") + d.name).c_str(), BM_Build, &d)
                ->Unit(benchmark::kMillisecond);
            benchmark::RegisterBenchmark((std::string("parse/") + d.name).c_str(), BM_ParseOnly, &d)
                ->Unit(benchmark::kMillisecond);
        }
    benchmark::RegisterBenchmark("memory/first_touch", BM_FirstTouch)
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("any/set", BM_MatchesAny);
    benchmark::RegisterBenchmark("any/scan", BM_MatchesAnyLinear);
    benchmark::RegisterBenchmark("radix/insert", BM_RadixInsert)
        ->Args({100000, 0})
        ->Args({100000, 1})
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("radix/lookup", BM_RadixLookup)
        ->Arg(100000)
        ->Unit(benchmark::kMillisecond);
}

// The sets and their queries as files, for the side-by-side comparison
// (peer/side_by_side.h): NAME.set, NAME.cold and NAME.warm, NAME being the
// set's name with "-" for "/" (v4-1000, v6-real, ...).
int write_sets(const std::string &dir) {
    for (const SetDef &d : kSets) {
        if (!available(d)) continue;
        std::vector<Entry> set =
            d.n != 0 ? generated_set(d.v6, d.n)
                     : read_set(d.v6, data_dir() + (d.v6 ? "/set-v6.txt" : "/set-v4.txt"));
        std::string name = d.name;
        name[name.find('/')] = '-';
        const std::string base = dir + "/" + name;
        std::ofstream s(base + ".set");
        for (const Entry &e : set)
            s << e.addr << '/' << e.len << (e.le != e.len ? " le " + e.le : "") << '\n';
        auto write = [&](const char *ext, std::size_t n, unsigned state) {
            std::ofstream q(base + ext);
            for (const Query &x : make_queries(d.v6, set, n, state))
                q << text_of(d.v6, x.addr) << '/' << int{x.len} << '\n';
            return q.good();
        };
        if (!s.good() ||
            !write(".cold", kColdQueries, kFixedState + static_cast<unsigned>(set.size())) ||
            !write(".warm", kWarmQueries, kFixedState + 1)) {
            std::fprintf(stderr, "kela_bench: cannot write %s\n", base.c_str());
            return 1;
        }
    }
    return 0;
}

}  // namespace

int main(int argc, char **argv) {
    if (argc == 3 && std::strcmp(argv[1], "--write-sets") == 0) return write_sets(argv[2]);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    register_all();
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
