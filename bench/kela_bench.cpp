// Benchmarks of the hot paths, each paired with the baseline it is judged
// against in the same run (bench/report.py turns the pairs into ratios):
//  - prefix-set lookup against a linear scan of the single-prefix rule;
//  - set build from texts against parsing the same texts only;
//  - memory per entry of a built set;
//  - uint32 "matches-any" against a linear scan;
//  - the radix tree alone: insert and bounded longest match.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <malloc.h>

#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "kela_ref.h"
#include "kela_shared.h"
#include "qv_inet.h"
#include "radix.h"

namespace {

constexpr unsigned kFixedState = 20261122;

// ---- realistic prefix sets --------------------------------------------------------------

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

struct Entry {
    std::string addr, len, ge, le;
};

std::string text_of(bool v6, const uint8_t *a) {
    char buf[64];
    inet_ntop(v6 ? AF_INET6 : AF_INET, a, buf, sizeof buf);
    return buf;
}

void clear_host_bits(uint8_t *a, int bytes, int len) {
    for (int b = len; b < bytes * 8; ++b) a[b / 8] &= static_cast<uint8_t>(~(0x80u >> (b % 8)));
}

std::vector<Entry> make_set(bool v6, int n, std::mt19937 &rng) {
    std::vector<Entry> out;
    const int bytes = v6 ? 16 : 4, max = v6 ? 128 : 32;
    for (int i = 0; i < n; ++i) {
        uint8_t a[16] = {};
        for (int b = 0; b < bytes; ++b) a[b] = static_cast<uint8_t>(rng());
        if (v6) {
            a[0] = 0x20;
            a[1] = static_cast<uint8_t>(0x01 + rng() % 4);
        } else {
            a[0] = static_cast<uint8_t>(1 + rng() % 222);
        }
        const int len = v6 ? v6_length(rng) : v4_length(rng);
        clear_host_bits(a, bytes, len);
        std::string ge = std::to_string(len), le = ge;
        if (rng() % 10 == 0) le = std::to_string(len + static_cast<int>(rng() % (max - len + 1)));
        out.push_back({text_of(v6, a), std::to_string(len), ge, le});
    }
    return out;
}

// ---- a client's prefix value -----------------------------------------------------------

struct Query {
    uint8_t family;
    uint8_t len;
    uint8_t addr[16];
};

vogno get_value(void *, void *route, shared_kela_prefix_addr_td *v, uint32_t *more) {
    auto *q = static_cast<Query *>(route);
    v->family = q->family;
    v->addr = q->addr;
    v->len = q->len;
    v->free_addr = 0;
    *more = 0;
    return 0;
}

shared_kela_prefix_desc_td g_desc{"destination", get_value, nullptr, nullptr, 0};

// Half the queries fall inside an entry of the set, half anywhere.
std::vector<Query> make_queries(bool v6, const std::vector<Entry> &set, int n, std::mt19937 &rng) {
    std::vector<Query> out;
    const int bytes = v6 ? 16 : 4, max = v6 ? 128 : 32;
    for (int i = 0; i < n; ++i) {
        Query q{static_cast<uint8_t>(v6 ? 10 : 2), 0, {}};
        for (int b = 0; b < bytes; ++b) q.addr[b] = static_cast<uint8_t>(rng());
        q.len = static_cast<uint8_t>(v6 ? 48 : 24);
        if (i % 2 == 0) {
            const Entry &e = set[rng() % set.size()];
            uint8_t base[16] = {};
            inet_pton(v6 ? AF_INET6 : AF_INET, e.addr.c_str(), base);
            const int len = std::stoi(e.len);
            for (int b = 0; b < len; ++b) {
                const uint8_t bit = static_cast<uint8_t>(0x80u >> (b % 8));
                q.addr[b / 8] = static_cast<uint8_t>((q.addr[b / 8] & ~bit) | (base[b / 8] & bit));
            }
            q.len = static_cast<uint8_t>(rng() % 2 ? len : std::min(max, len + static_cast<int>(rng() % 9)));
        }
        clear_host_bits(q.addr, bytes, q.len);  // routes carry clean prefixes
        out.push_back(q);
    }
    return out;
}

// A parameter vector in the framework's layout, and a compiled set.
struct Vector {
    std::vector<std::string> texts;
    std::vector<char *> ptrs;
    std::vector<void *> slots;
    explicit Vector(const std::vector<Entry> &set) {
        for (std::size_t i = 0; i < set.size(); ++i) {
            texts.push_back("arg" + std::to_string(i) + ":4");
            texts.push_back(set[i].addr);
            texts.push_back(set[i].len);
            texts.push_back(set[i].ge);
            texts.push_back(set[i].le);
        }
        for (auto &t : texts) ptrs.push_back(t.data());
        slots.assign(ptrs.size(), this);
    }
    uint32_t count() const { return static_cast<uint32_t>(ptrs.size()); }
};

struct Fixture {
    std::vector<Entry> set;
    std::vector<Query> queries;
    std::unique_ptr<Vector> vec;
    rasf_inst_t *inst = nullptr;
    kref_inst_info_t info{};
    std::vector<shared_kela_prefix_matchspec_td *> specs;  // for the linear scan
    double bytes_per_entry = 0;

    Fixture(bool v6, int n) {
        std::mt19937 rng(kFixedState + static_cast<unsigned>(n) + (v6 ? 7u : 0u));
        set = make_set(v6, n, rng);
        queries = make_queries(v6, set, 4096, rng);
        vec = std::make_unique<Vector>(set);
        const std::size_t before = mallinfo2().uordblks;
        if (shared_kela_prefix_cmp_match_cons(vec->count(), vec->ptrs.data(), vec->slots.data(), &g_desc, &inst) != 0)
            std::abort();
        kref_inst_get(inst, &info);
        // The first lookup makes the trees' lookup indexes: they count too.
        int32_t out = 0;
        info.cmp(&queries[0], vec->count(), vec->slots.data(), info.ctx, &out);
        bytes_per_entry = static_cast<double>(mallinfo2().uordblks - before) / n;
        for (const Entry &e : set) {
            shared_kela_prefix_matchspec_td *s = nullptr;
            shared_kela_prefix_cvt_string_to_matchspec(e.addr.c_str(), e.len.c_str(), e.ge.c_str(), e.le.c_str(), &s);
            specs.push_back(s);
        }
    }
    ~Fixture() {
        shared_kela_prefix_cmp_match_free(info.ctx);
        rasf_free_cmp_instance(inst);
        for (auto *s : specs) std::free(s);
    }
};

Fixture &fixture(bool v6, int n) {
    static std::map<std::pair<bool, int>, std::unique_ptr<Fixture>> cache;
    auto &f = cache[{v6, n}];
    if (!f) f = std::make_unique<Fixture>(v6, n);
    return *f;
}

void BM_SetLookup(benchmark::State &state, bool v6) {
    Fixture &f = fixture(v6, static_cast<int>(state.range(0)));
    std::size_t i = 0, hits = 0;
    for (auto _ : state) {
        Query &q = f.queries[i++ % f.queries.size()];
        int32_t out = 0;
        f.info.cmp(&q, f.vec->count(), f.vec->slots.data(), f.info.ctx, &out);
        hits += static_cast<std::size_t>(out);
        benchmark::DoNotOptimize(out);
    }
    state.counters["bytes_per_entry"] = f.bytes_per_entry;
    state.counters["hit_rate"] = static_cast<double>(hits) / static_cast<double>(state.iterations());
}

void BM_LinearScan(benchmark::State &state, bool v6) {
    Fixture &f = fixture(v6, static_cast<int>(state.range(0)));
    std::size_t i = 0;
    for (auto _ : state) {
        Query &q = f.queries[i++ % f.queries.size()];
        shared_kela_prefix_addr_td v{q.family, q.addr, q.len, 0};
        int hit = 0;
        for (auto *s : f.specs)
            if (shared_kela_prefix_match(&v, s, SHARED_KELA_PREFIX_CMP_MATCH)) {
                hit = 1;
                break;
            }
        benchmark::DoNotOptimize(hit);
    }
}

BENCHMARK_CAPTURE(BM_SetLookup, v4, false)->Arg(1000)->Arg(10000)->Arg(100000)->Arg(1000000);
BENCHMARK_CAPTURE(BM_SetLookup, v6, true)->Arg(1000)->Arg(10000)->Arg(100000)->Arg(1000000);
BENCHMARK_CAPTURE(BM_LinearScan, v4, false)->Arg(1000)->Arg(10000)->Arg(100000)->Arg(1000000)->MinTime(0.5);
BENCHMARK_CAPTURE(BM_LinearScan, v6, true)->Arg(1000)->Arg(10000)->Arg(100000)->Arg(1000000)->MinTime(0.5);

// ---- build against parse-only ------------------------------------------------------------

void BM_Build(benchmark::State &state) {
    Fixture &f = fixture(false, static_cast<int>(state.range(0)));
    for (auto _ : state) {
        rasf_inst_t *inst = nullptr;
        shared_kela_prefix_cmp_match_cons(f.vec->count(), f.vec->ptrs.data(), f.vec->slots.data(), &g_desc, &inst);
        kref_inst_info_t info{};
        kref_inst_get(inst, &info);
        state.PauseTiming();
        shared_kela_prefix_cmp_match_free(info.ctx);
        rasf_free_cmp_instance(inst);
        state.ResumeTiming();
    }
    state.counters["per_entry_ns"] =
        benchmark::Counter(static_cast<double>(state.range(0)), benchmark::Counter::kIsIterationInvariantRate |
                                                                    benchmark::Counter::kInvert);
}

void BM_ParseOnly(benchmark::State &state) {
    Fixture &f = fixture(false, static_cast<int>(state.range(0)));
    for (auto _ : state) {
        for (const Entry &e : f.set) {
            uint8_t a[16];
            uint32_t l, g, x;
            benchmark::DoNotOptimize(qv_inet_pton(QV_AF_INET, e.addr.c_str(), a));
            shared_kela_uint32_cvt_string(e.len.c_str(), nullptr, 1, &l);
            shared_kela_uint32_cvt_string(e.ge.c_str(), nullptr, 1, &g);
            shared_kela_uint32_cvt_string(e.le.c_str(), nullptr, 1, &x);
            benchmark::DoNotOptimize(l + g + x);
        }
    }
    state.counters["per_entry_ns"] =
        benchmark::Counter(static_cast<double>(state.range(0)), benchmark::Counter::kIsIterationInvariantRate |
                                                                    benchmark::Counter::kInvert);
}

BENCHMARK(BM_Build)->Arg(100000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ParseOnly)->Arg(100000)->Unit(benchmark::kMillisecond);

// ---- uint32 "matches-any" --------------------------------------------------------------------


struct AnySet {
    std::vector<uint32_t> values;
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
        shared_kela_uint32_cmp_any_cons(static_cast<uint32_t>(ptrs.size()), ptrs.data(), slots.data(), &desc, &inst);
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
        uint32_t route = i % 2 ? s.values[i % s.values.size()] : static_cast<uint32_t>(i * 2654435761u);
        ++i;
        int32_t out = 0;
        s.info.cmp(&route, 2, s.slots.data(), s.info.ctx, &out);
        benchmark::DoNotOptimize(out);
    }
}

void BM_MatchesAnyLinear(benchmark::State &state) {
    AnySet &s = any_set();
    std::size_t i = 0;
    for (auto _ : state) {
        uint32_t route = i % 2 ? s.values[i % s.values.size()] : static_cast<uint32_t>(i * 2654435761u);
        ++i;
        int hit = 0;
        for (uint32_t v : s.values)
            if (v == route) {
                hit = 1;
                break;
            }
        benchmark::DoNotOptimize(hit);
    }
}

BENCHMARK(BM_MatchesAny);
BENCHMARK(BM_MatchesAnyLinear);

// ---- the radix tree alone ----------------------------------------------------------------------

struct TreeEntry {
    radix_node hdr;
    uint8_t keylen;
    uint8_t key[4];
};

std::vector<TreeEntry> tree_entries(int n) {
    std::mt19937 rng(kFixedState);
    std::vector<TreeEntry> out(static_cast<std::size_t>(n));
    for (auto &e : out) {
        e.keylen = static_cast<uint8_t>(v4_length(rng));
        uint32_t a = rng() & (0xFFFFFFFFu << (32 - e.keylen));
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
        radix_head *h = rn_tree_init(offsetof(TreeEntry, key), offsetof(TreeEntry, keylen), nullptr);
        state.ResumeTiming();
        for (auto &e : entries) rn_insert(h, &e);
        state.PauseTiming();
        rn_tree_destroy(&h);
        state.ResumeTiming();
    }
    state.counters["per_op_ns"] = benchmark::Counter(static_cast<double>(state.range(0)),
                                                     benchmark::Counter::kIsIterationInvariantRate |
                                                         benchmark::Counter::kInvert);
}

void BM_RadixLookup(benchmark::State &state) {
    static auto entries = tree_entries(static_cast<int>(state.range(0)));
    static radix_head *h = [] {
        radix_head *t = rn_tree_init(offsetof(TreeEntry, key), offsetof(TreeEntry, keylen), nullptr);
        for (auto &e : entries) rn_insert(t, &e);
        return t;
    }();
    std::mt19937 rng(kFixedState + 1);
    std::vector<uint32_t> keys(4096);
    for (auto &k : keys) k = rng();
    std::size_t i = 0;
    for (auto _ : state) benchmark::DoNotOptimize(rn_lookup(h, reinterpret_cast<uint8_t *>(&keys[i++ % keys.size()]), 32));
}

BENCHMARK(BM_RadixInsert)->Args({100000, 0})->Args({100000, 1})->Unit(benchmark::kMillisecond);
BENCHMARK(BM_RadixLookup)->Arg(100000);

}  // namespace

BENCHMARK_MAIN();
