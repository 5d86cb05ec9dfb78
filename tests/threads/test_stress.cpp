// SPDX-License-Identifier: Apache-2.0
// The routing state under four threads (KELA_STRESS_SECONDS, 4 by default):
// after every round each request must carry the routing table's answer, as
// its last notification must; at the end no request may remain.
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <barrier>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <functional>
#include <latch>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "kela_ref.h"
#include "kela_ref_state.h"
#include "kela_shared.h"
#include "pcl_async.h"

namespace {

// 10.0.<i>.0/24, then 2001:db8:<i>::/48 in tables 1 and 2: few enough that
// two threads often change the same route.
struct Pfx {
    int afi;
    std::uint8_t len, addr[16];
};
Pfx pool(unsigned i) {
    i %= 9;
    if (i < 7) return {IP_RIB_AFI_IPV4, 24, {10, 0, static_cast<std::uint8_t>(i)}};
    return {IP_RIB_AFI_IPV6, 48, {0x20, 0x01, 0x0d, 0xb8, 0, static_cast<std::uint8_t>(i - 7)}};
}

// Compiled statements ask for 172.16.<i>.0/24 in table 9, present for even i.
constexpr rib_tableid_td kStaticTable = 9;
constexpr int kStaticRoutes = 64;

// The last notification per request identifier: (identifier << 8) | answer.
std::array<std::atomic<std::uint64_t>, 1 << 16> g_last;
vogno on_change(void *, void *id, void *answer, void *, void *, void *) {
    const auto i = reinterpret_cast<std::uintptr_t>(id);
    g_last[i % g_last.size()] =
        (std::uint64_t{i} << 8) | (reinterpret_cast<std::uintptr_t>(answer) & 0xFF);
    return 0;
}

struct Shared {
    // Between rounds the workers park while the answers are checked.
    std::atomic<bool> pause{false}, stop{false};
    std::barrier<> sync{5};
    std::atomic<std::uint64_t> round{1};
    std::mutex mu;
    std::vector<std::string> problems;
    std::vector<std::uint64_t> direct_keys;  // registrations still held
    std::vector<kref_stmt_t *> stmts;        // what evaluators evaluate

    bool go_on() {
        if (!pause.load(std::memory_order_relaxed)) return true;
        sync.arrive_and_wait();  // parked
        sync.arrive_and_wait();  // checked
        return !stop.load();
    }
    void problem(const std::string &what, vogno st = 0, int out = 0) {
        std::lock_guard lock(mu);
        if (problems.size() < 5)
            problems.push_back(what + " " + std::to_string(st) + " " + std::to_string(out));
    }
};

using Texts = std::vector<std::array<const char *, 4>>;
kref_stmt_t *compile_async(const Texts &entries, vogno *st) {
    std::vector<kref_item_t> items;
    for (const auto &t : entries) items.push_back({4, t.data()});
    kref_stmt_t *s = nullptr;
    *st = kref_compile("rib-has-route", KREF_CMP, "async", nullptr, items.size(), items.data(),
                       nullptr, &s);
    return s;
}

void do_register(Shared &run, unsigned t) {
    std::mt19937 rng(t);
    std::deque<std::uint64_t> held;
    std::uint64_t key = std::uint64_t{0xA0 + t} << 32;
    while (run.go_on()) {
        pcl_rhr_v4_entry v4[3] = {};
        pcl_rhr_v6_entry v6[3] = {};
        pcl_rhr_request req{};
        req.session = 1 + rng() % 2, req.key = ++key, req.v4 = v4, req.v6 = v6;
        for (unsigned n = 1 + rng() % 3; n != 0; --n) {
            const Pfx p = pool(rng());
            if (p.afi == IP_RIB_AFI_IPV4)
                v4[req.n_v4++] = {{p.addr[0], p.addr[1], p.addr[2], p.addr[3]}, p.len, {}};
            else
                std::memcpy(v6[req.n_v6].addr, p.addr, 16), v6[req.n_v6++].len = p.len;
        }
        std::uint32_t id = 0;
        if (pcl_async_rib_has_route_register(&req, &id, on_change) != 0 || id == 0)
            run.problem("a registration was refused");
        held.push_back(req.key);
        if (held.size() > 64) kref_eval_release(held.front()), held.pop_front();
    }
    std::lock_guard lock(run.mu);
    run.direct_keys.insert(run.direct_keys.end(), held.begin(), held.end());
}

void do_churn(Shared &run, unsigned t) {
    std::mt19937 rng(100 + t);
    while (run.go_on()) {
        const Pfx p = pool(rng());
        const rib_tableid_td table = 1 + rng() % 2;
        (void)(rng() % 2 != 0 ? kref_rib_add(p.afi, table, p.addr, p.len, nullptr)
                              : kref_rib_remove(p.afi, table, p.addr, p.len));
    }
}

void do_reset(Shared &run, unsigned) {
    while (run.go_on()) {
        kref_state_reset();
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
}

// A new key per evaluation, as a client evaluating route after route does,
// and now and then one used a moment ago.
void do_evaluate(Shared &run, unsigned t) {
    std::mt19937 rng(200 + t);
    const std::uint64_t base = std::uint64_t{0xE0 + t} << 32;
    std::uint64_t key = base;
    while (run.go_on()) {
        kref_eval_rec_t rec{};
        rec.key = rng() % 8 == 0 && key > base + 4 ? key - 1 - rng() % 4 : ++key;
        rec.session = 1 + rec.key % 2;
        for (kref_stmt_t *s : run.stmts) {
            std::int32_t out = -1;
            const vogno st = kref_eval(s, nullptr, &rec, &out);
            if (st != 0 || (out != 0 && out != 1)) run.problem("evaluation", st, out);
        }
    }
}

// All threads use the round's key: statements that shared a request tree
// (constructors run side by side) would read each other's answers, the odd
// routes' the even ones'.
void do_compile(Shared &run, unsigned t) {
    for (unsigned n = t; run.go_on(); n += 4) {
        const int i = static_cast<int>(n % kStaticRoutes);
        const std::string addr = "172.16." + std::to_string(i) + ".0";
        vogno st = 0;
        kref_stmt_t *s = compile_async({{addr.c_str(), "24", "24", "24"}}, &st);
        if (st != 0) run.problem("compile", st);
        if (st != 0) continue;
        kref_eval_rec_t rec{};
        rec.session = kStaticTable, rec.key = run.round.load();
        std::int32_t out = -1;
        st = kref_eval(s, nullptr, &rec, &out);
        if (st != 0 || out != (i % 2 == 0 ? 1 : 0)) run.problem(addr, st, out);
        kref_stmt_free(s);
    }
}

// Requests checked, answers not the table's, last notifications not the answer.
struct Tally {
    std::size_t seen = 0, wrong = 0, stale = 0;
};

void check_answers(Tally &tally) {
    pcl_rhr_request probe{};
    probe.key = 0xFFFFFFFFFFFFull;
    std::uint32_t top = 0;  // the highest identifier so far
    ASSERT_EQ(pcl_async_rib_has_route_register(&probe, &top, nullptr), 0u);
    const std::size_t live = kref_async_requests();
    for (std::uint32_t id = top, seen = 0; id != 0 && seen < live; --id) {
        std::uint64_t session = 0;
        if (kref_async_request_info(id, &session, nullptr, nullptr, nullptr, nullptr, nullptr) != 0)
            continue;
        ++seen, ++tally.seen;
        std::uint8_t want = 0, got = 9, len = 0, addr[16];
        int afi = 0, found = 0;
        for (std::uint32_t e = 0; kref_async_request_entry(id, e, &afi, addr, &len) == 0; ++e) {
            ip_rib_route2 *r = nullptr;
            ip_rib_route_lookup2(kref_rib_conn(afi), static_cast<rib_tableid_td>(session), addr,
                                 len, IP_RIB_LOOKUP_EXACT, 0, &r, &found);
            want |= found != 0 ? 1 : 0;
        }
        pcl_async_fetch_rib_has_route_result(id, &got);
        tally.wrong += got != want;
        const std::uint64_t last = g_last[id % g_last.size()].load();
        tally.stale += (last >> 8) == id && (last & 0xFF) != got;
    }
    kref_eval_release(probe.key);
}

// "rib-has-route" registered once for the process.
void register_rhr() {
    static shared_kela_rhr_desc_td desc{"rib-has-route", nullptr};
    static const vogno st = [] {
        const char *ops[] = {"import", nullptr};
        return shared_kela_rhr_base_init(nullptr, nullptr, 0, &desc, ops, nullptr, nullptr,
                                         nullptr);
    }();
    ASSERT_EQ(st, 0u);
}

using Work = void (*)(Shared &, unsigned);
const Work R = do_register, C = do_churn, Z = do_reset, E = do_evaluate, K = do_compile;
struct Scenario {
    const char *name;
    Work roles[4];
};
const Scenario kScenarios[] = {
    {"NotificationsWhileResetsFreeRequests", {R, C, C, Z}},
    {"EvaluationsWhileRoutesChangeAndResetsRun", {E, E, C, Z}},
    {"EvaluationsAndRegistrationsWhileTwoThreadsChangeRoutes", {E, R, C, C}},
    {"AsyncStatementsCompiledAtOnce", {K, K, K, K}},
};

void PrintTo(const Scenario &s, std::ostream *os) {
    *os << s.name;
}
using Stress = ::testing::TestWithParam<Scenario>;

TEST_P(Stress, AnswersFollowTheRoutingTable) {
    const char *env = std::getenv("KELA_STRESS_SECONDS");
    const auto span = std::chrono::duration<double>((env != nullptr ? std::atof(env) : 4.0) /
                                                    std::size(kScenarios));
    // A missed change of a route shows until that route changes again: every
    // round ends with a check.
    constexpr std::chrono::milliseconds kRound{20};

    register_rhr();
    kref_state_reset();
    for (int i = 0; i < kStaticRoutes; i += 2) {
        const std::uint8_t a[4] = {172, 16, static_cast<std::uint8_t>(i), 0};
        ASSERT_EQ(kref_rib_add(IP_RIB_AFI_IPV4, kStaticTable, a, 24, nullptr), 0u);
    }
    Shared run;
    Tally tally;
    for (const Texts &set :
         {Texts{{"10.0.0.0", "24", "24", "24"}},
          Texts{{"10.0.1.0", "24", "24", "24"}, {"2001:db8::", "48", "48", "48"}},
          Texts{{"10.0.2.0", "24", "24", "24"},
                {"10.0.3.0", "24", "24", "24"},
                {"10.0.4.0", "24", "24", "24"}}}) {
        vogno st = 0;
        run.stmts.push_back(compile_async(set, &st));
        ASSERT_EQ(st, 0u);
    }
    std::vector<std::thread> threads;
    for (unsigned t = 0; t < 4; ++t) threads.emplace_back(GetParam().roles[t], std::ref(run), t);
    const auto end = std::chrono::steady_clock::now() + span;
    while (!run.stop) {
        std::this_thread::sleep_for(kRound);
        run.stop = std::chrono::steady_clock::now() + kRound >= end;
        run.pause = true;
        run.sync.arrive_and_wait();
        check_answers(tally);
        ++run.round;
        run.pause = false;
        run.sync.arrive_and_wait();
    }
    for (auto &th : threads) th.join();

    for (std::uint64_t k : run.direct_keys) kref_eval_release(k);
    for (kref_stmt_t *s : run.stmts) kref_stmt_free(s);
    EXPECT_GT(tally.seen, 0u) << "no request to check";
    EXPECT_EQ(tally.wrong, 0u) << "answers that are not the routing table's, of " << tally.seen;
    EXPECT_EQ(tally.stale, 0u) << "last notifications that are not the answer";
    EXPECT_EQ(kref_async_requests(), 0u) << "requests outlived their evaluations";
    EXPECT_TRUE(run.problems.empty()) << ::testing::PrintToString(run.problems);
}

INSTANTIATE_TEST_SUITE_P(Scenarios, Stress, ::testing::ValuesIn(kScenarios),
                         [](const auto &info) { return std::string(info.param.name); });

// How long an evaluation's requests live: one "async" statement asking for a
// route the table holds, evaluated under keys 1, 2, ...  (One request per key
// however often it is evaluated: State.AsyncRegistersOncePerKey... in tests/lib.)
TEST(Keys, RequestsLiveAsLongAsTheirEvaluation) {
    register_rhr();
    kref_state_reset();
    vogno st = 0;
    kref_stmt_t *stmt = compile_async({{"10.0.0.0", "24", "24", "24"}}, &st);
    ASSERT_EQ(st, 0u);
    kref_inst_info_t info{};
    ASSERT_EQ(kref_inst_get(kref_stmt_instance(stmt), &info), 0u);
    static const std::uint8_t route[4] = {10, 0, 0, 0};
    auto add_route = [] { ASSERT_EQ(kref_rib_add(IP_RIB_AFI_IPV4, 1, route, 24, nullptr), 0u); };
    auto eval = [&](std::uint64_t key) {
        kref_eval_rec_t rec{};
        rec.session = 1, rec.key = key;
        std::int32_t out = -1;
        EXPECT_EQ(kref_eval(stmt, nullptr, &rec, &out), key != 0 ? 0u : 2u);
        EXPECT_EQ(out, key != 0 ? 1 : -1) << "the route is in the table";
    };
    auto key1_in_tree = [&] {
        std::int32_t out = 0;
        return info.cmp_async(nullptr, 0, nullptr, info.ctx, &out, nullptr, 1) != 16;
    };
    // Whether another thread evaluates under key 1 meanwhile, the steps, the
    // requests left and whether key 1 is still in the request tree.
    struct Case {
        const char *name;
        bool held_elsewhere;
        std::function<void()> steps;
        std::size_t requests;
        bool in_tree;
    };
    const Case cases[] = {
        {.name = "the next key ends the evaluation",
         .held_elsewhere = false,
         .steps = [&] { eval(1), eval(2); },
         .requests = 1,
         .in_tree = false},
        {.name = "the thread's end ends it",
         .held_elsewhere = false,
         .steps = [&] { std::thread([&] { eval(1); }).join(); },
         .requests = 0,
         .in_tree = false},
        {.name = "a release ends it",
         .held_elsewhere = false,
         .steps = [&] { eval(1), kref_eval_release(1); },
         .requests = 0,
         .in_tree = false},
        {.name = "a key-less evaluation leaves nothing",
         .held_elsewhere = false,
         .steps = [&] { eval(0); },
         .requests = 0,
         .in_tree = false},
        {.name = "a key another thread evaluates stays",
         .held_elsewhere = true,
         .steps = [&] { eval(1), eval(2); },
         .requests = 2,
         .in_tree = true},
        {.name = "a reset empties the trees: the key asks again",
         .held_elsewhere = false,
         .steps = [&] { eval(1), kref_state_reset(), add_route(), eval(1); },
         .requests = 1,
         .in_tree = true},
    };
    for (const auto &[name, held_elsewhere, steps, requests, in_tree] : cases) {
        SCOPED_TRACE(name);
        kref_state_reset();
        add_route();
        std::latch inside(1), done(1);
        std::thread holder;
        if (held_elsewhere) {
            holder = std::thread([&] { eval(1), inside.count_down(), done.wait(); });
            inside.wait();
        }
        steps();
        EXPECT_EQ(std::pair(kref_async_requests(), key1_in_tree()), std::pair(requests, in_tree));
        if (held_elsewhere) {
            done.count_down(), holder.join();
            EXPECT_FALSE(key1_in_tree()) << "released by the last thread leaving";
        }
    }
    kref_stmt_free(stmt);
    kref_state_reset();
}

}  // namespace
