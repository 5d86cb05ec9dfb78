// SPDX-License-Identifier: Apache-2.0
// One compiled instance of every operator and setter (the bundled example
// policy) evaluated from four threads at once must give exactly the
// single-threaded outcomes.  Built under ThreadSanitizer by
// check_tsan.sh, so any data race fails the run.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "client.hpp"
#include "kela_ref.h"
#include "kela_ref_state.h"
#include "policy.hpp"

namespace {

struct Outcomes {
    std::vector<int> conditions;  // per route, per condition: outcome or -status
    std::vector<std::string> after;
};

// Every condition of every rule, then every action, on each route.
Outcomes run_all(kp::Policy &policy, const std::vector<kp::Route> &routes, std::uint64_t key_base) {
    Outcomes out;
    for (std::size_t i = 0; i < routes.size(); ++i) {
        kp::Route r = routes[i];
        kref_eval_rec_t rec{};
        rec.session = r.table;
        rec.key = key_base + i + 1;
        for (kp::Rule &rule : policy.rules) {
            for (kp::Condition &c : rule.conditions) {
                int32_t got = -1;
                const vogno st = kref_eval(c.stmt, &r, &rec, &got);
                out.conditions.push_back(st == 0 ? got : -1);
            }
            for (kp::Action &a : rule.actions)
                out.conditions.push_back(kref_apply(a.stmt, &r) == 0 ? 2 : -2);
        }
        for (const std::string &name : kp::settable_attributes()) {
            char *text = kref_attr_print(kref_attr_find(name.c_str()), &r);
            out.after.emplace_back(text != nullptr ? text : "?");
            std::free(text);
        }
    }
    return out;
}

TEST(Threads, EveryOperatorFromFourThreadsAtOnce) {
    std::string error;
    ASSERT_EQ(kp::register_attributes(error), 0u) << error;
    std::ifstream pf(KELA_SOURCE_DIR "/examples/policy.kp");
    std::stringstream text;
    text << pf.rdbuf();
    kp::Policy policy;
    kp::PolicyError perr;
    ASSERT_TRUE(kp::parse_policy(text.str(), policy, perr)) << perr.message;
    ASSERT_TRUE(kp::compile_policy(policy, "import", perr)) << perr.message;

    std::vector<kp::Route> routes;
    std::ifstream rf(KELA_SOURCE_DIR "/examples/routes.txt");
    for (std::string line; std::getline(rf, line);) {
        kp::Route r;
        kp::RouteError err;
        if (line.empty() || line[0] == '#') continue;
        const bool ok = line[0] == '{' ? kp::parse_route_json(line, r, err)
                                       : kp::parse_route_text(line, r, err);
        ASSERT_TRUE(ok) << line;
        routes.push_back(r);
        kref_rib_add(r.destination.family == 10 ? IP_RIB_AFI_IPV6 : IP_RIB_AFI_IPV4, r.table,
                     r.destination.addr, r.destination.len, nullptr);
    }
    kref_track_set("uplink1", 1);

    // The answers of the asynchronous operators are per evaluation key, so
    // every thread uses keys of its own; the outcomes must not depend on it.
    const Outcomes want = run_all(policy, routes, 1000);
    std::vector<Outcomes> got(4);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&, t] {
            for (int round = 0; round < 20; ++round)
                got[t] = run_all(policy, routes, 100000u * (t + 1) + 1000u * round);
        });
    for (auto &th : threads) th.join();
    for (int t = 0; t < 4; ++t) {
        EXPECT_EQ(got[t].conditions, want.conditions) << "thread " << t;
        EXPECT_EQ(got[t].after, want.after) << "thread " << t;
    }
    int true_conditions = 0;
    for (int v : want.conditions) true_conditions += v == 1;
    EXPECT_GT(true_conditions, 20) << "the routes exercise the conditions";
}

}  // namespace
