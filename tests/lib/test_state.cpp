// SPDX-License-Identifier: Apache-2.0
// Routing-state attributes against the reference routing table and
// asynchronous client: rib-has-route "in" and "async", track "is".
#include <arpa/inet.h>

#include <cstring>
#include <utility>

#include "kela_callbacks.hpp"
#include "kela_ref_state.h"
#include "pcl_async.h"
#include "support.hpp"

namespace {

using kt::Params;
using kt::take;

struct Route {
    rib_tableid_td table;
    int afi;  // the connection the route's module uses
};

vogno get_conn(void *route, ip_rib_conn_p *conn, rib_tableid_td *table) {
    auto *r = static_cast<Route *>(route);
    *conn = kref_rib_conn(r->afi);
    *table = r->table;
    return 0;
}

void add(const char *prefix, uint8_t len, rib_tableid_td table = 0) {
    uint8_t a[16] = {};
    const bool v6 = std::strchr(prefix, ':') != nullptr;
    ASSERT_EQ(inet_pton(v6 ? AF_INET6 : AF_INET, prefix, a), 1);
    ASSERT_EQ(kref_rib_add(v6 ? IP_RIB_AFI_IPV6 : IP_RIB_AFI_IPV4, table, a, len, "nh"), 0u);
}

class State : public kt::FrameworkTest {
  protected:
    void SetUp() override {
        kt::FrameworkTest::SetUp();
        kref_state_reset();
        const char *ops[] = {"import", "export", nullptr};
        ASSERT_EQ(
            shared_kela_rhr_base_init(nullptr, nullptr, 0, &rhr_, ops, nullptr, nullptr, nullptr),
            0u);
        ASSERT_EQ(shared_kela_track_base_init(nullptr, nullptr, 0, &track_, ops, nullptr, nullptr,
                                              nullptr),
                  0u);
    }
    void TearDown() override {
        kref_state_reset();
        kt::FrameworkTest::TearDown();
    }
    kref_stmt_t *compile(const char *attr, const char *op,
                         const std::vector<std::vector<const char *>> &entries, vogno want = 0,
                         std::string *msg = nullptr, const char *location = nullptr) {
        return kt::compile(attr, KREF_CMP, op, entries, want, msg, location);
    }
    shared_kela_rhr_desc_td rhr_{"ignored", get_conn};
    int track_ = 0;  // the track type reads nothing of its descriptor
};

// "in" is declared at the first operator location only, "async" at all.
TEST_F(State, RibHasRouteLocations) {
    compile("rib-has-route", "in", {{"10.0.0.0", "8", "8", "8"}}, KREF_ERR_LOCATION, nullptr,
            "export");
    kref_stmt_free(
        compile("rib-has-route", "async", {{"10.0.0.0", "8", "8", "8"}}, 0, nullptr, "export"));
    void *ctx = &ctx;
    kref_attr_base_print(kref_attr_find("rib-has-route"), &ctx);
    EXPECT_EQ(ctx, nullptr) << "base functions without descriptor";
    kref_reset();
    const char *none[] = {nullptr}, *ops[] = {"import", nullptr};
    EXPECT_EQ(shared_kela_rhr_base_init(nullptr, nullptr, 0, &rhr_, none, none, none, ops),
              KEL_SHARED_ERR_NO_LOCATIONS)
        << "\"in\" needs a first operator location";
}

// The refusals of a gap, a bound above 32, an async range, a 17th async
// entry, a 33-character name and a state in capitals are in tests/tool's
// bad-input corpus.
TEST_F(State, VerifierRules) {
    const char *const gaps = "The rib-has-route operator does not support gaps in prefix ranges.";
    const char *const invalid = "Invalid prefix match parameters.";
    const char *const mismatch = "Parameter mismatch.";
    const std::string name32(32, 'n');
    const char *const track_bad = "malformed track parameters";
    const vogno bad = KEL_SHARED_ERR_BAD_VALUE;
    std::vector<std::vector<const char *>> sixteen(16, {"10.0.0.0", "8", "8", "8"});
    struct Case {
        const char *attr, *op;
        std::vector<std::vector<const char *>> items;
        kt::Verdict want;
    };
    const Case cases[] = {
        {"rib-has-route", "in", {{"10.0.0.0", "8", "8", "24"}}, {0, "<null>"}},
        {"rib-has-route", "in", {{"10.0.0.0", "8 ", "8", "8"}}, {bad, invalid}},
        {"rib-has-route", "in", {{"10.0.0.0", "8", "8"}}, {4, mismatch}},
        {"rib-has-route", "async", {{"10.0.0.0", "8", "16", "16"}}, {3, gaps}},
        {"rib-has-route", "async", sixteen, {0, "<null>"}},
        {"track", "is", {{"x"}, {name32.c_str()}, {"up"}}, {0, "<null>"}},
        {"track", "is", {{"x"}, {"T1"}, {"down"}}, {0, "<null>"}},
        {"track", "is", {{"x"}, {"T1"}}, {bad, track_bad}},
        {"track", "is", {{nullptr}, {"T1"}, {"up"}}, {bad, track_bad}},
        {"track", "is", {{"x"}, {nullptr}, {"up"}}, {bad, track_bad}},
        {"track", "is", {{"x"}, {"T1"}, {nullptr}}, {bad, track_bad}},
        {"track", "is", {{"x"}, {"T1"}, {"up"}, {"y"}}, {bad, track_bad}},
    };
    for (const Case &c : cases) {
        std::string msg;
        kref_stmt_free(compile(c.attr, c.op, c.items, c.want.status, &msg));
        EXPECT_EQ(msg, c.want.message) << c.op << " " << c.items[0][0];
    }
    char *m = nullptr;
    EXPECT_EQ(shared_kela_rhr_cmp_match_veri(0, nullptr, &rhr_, &m), KEL_SHARED_ERR_NULL_INPUT);
    EXPECT_EQ(take(m), "Internal error:  no parameters");
    EXPECT_EQ(shared_kela_rhr_cmp_async_veri(5, nullptr, &rhr_, &m), KEL_SHARED_ERR_NULL_INPUT);
    EXPECT_EQ(take(m), "Internal error:  no parameter array");
}

TEST_F(State, InAsksTheRoutingTable) {
    add("10.1.0.0", 16);
    add("0.0.0.0", 0, 7);
    add("2001:db8::", 32);
    Route v4{0, IP_RIB_AFI_IPV4}, table7{7, IP_RIB_AFI_IPV4};
    const std::vector<const char *> v6 = {"2001:db8::", "32", "32", "32"},
                                    here = {"10.1.0.0", "16", "16", "16"},
                                    absent = {"10.9.0.0", "16", "16", "16"};
    // An IPv6 entry's family mismatch is overridden by a matching later
    // entry; a matching entry ends the walk; the mismatch is reported last.
    for (auto [entries, status, want] :
         {std::tuple{std::vector{v6, here}, vogno{0}, 1},
          {std::vector{here, v6}, 0, 1},
          {std::vector{absent, v6}, KEL_SHARED_FOREIGN_RIB_AFI_MISMATCH, 0}}) {
        kref_stmt_t *s = compile("rib-has-route", "in", entries);
        int32_t out = 1;  // a caller's earlier outcome does not cut the walk short
        EXPECT_EQ(kref_eval(s, &v4, nullptr, &out), status);
        EXPECT_EQ(out, want) << entries[0][0];
        kref_stmt_free(s);
    }

    // Ranges ask for any route under the prefix; the default route is kind 2.
    kref_trace_start();
    kref_stmt_t *s =
        compile("rib-has-route", "in", {{"10.0.0.0", "8", "8", "24"}, {"0.0.0.0", "0", "0", "0"}});
    EXPECT_EQ(kt::eval(s, &v4), 1);
    EXPECT_EQ(kt::eval(s, &table7), 1);
    std::vector<std::string> lookups;
    for (auto &l : kt::trace())
        if (l.rfind("ip_rib_", 0) == 0) lookups.push_back(l);
    EXPECT_EQ(lookups,
              (std::vector<std::string>{
                  "ip_rib_route_lookup2(0, 8, 3)", "ip_rib_route_lookup_longer_range2(0, 8, 24)",
                  "ip_rib_route_lookup2(7, 8, 3)", "ip_rib_route_lookup_longer_range2(7, 8, 24)",
                  "ip_rib_route_lookup2(7, 0, 2)"}));
    EXPECT_EQ(take(kref_stmt_print(s)), "rib-has-route in (10.0.0.0/8 le 24 ...)");
    // Each pointer missing in turn (kt::nulls' letters), and a context
    // without its getter.
    kref_inst_info_t info = kt::inst_info(kref_stmt_instance(s));
    void **slots = kref_stmt_slots(s);
    int32_t out = 0;
    EXPECT_EQ(kt::nulls("0A0AA", info.cmp, &v4, 10u, slots, info.ctx, &out), "0A0AA");
    shared_kela_rhr_match_ctx_td no_getter{nullptr, 0, nullptr};
    EXPECT_EQ(info.cmp(&v4, 10, slots, &no_getter, &out), KEL_SHARED_ERR_NO_PARAM_ARRAY);
    kref_stmt_free(s);
}

TEST_F(State, AsyncRegistersOncePerKeyAndFollowsTheRoutingTable) {
    kref_stmt_t *s = compile("rib-has-route", "async",
                             {{"10.0.0.0", "8", "8", "8"},
                              {"2001:db8::", "32", "32", "32"},
                              {"10.2.0.0", "16", "16", "16"}});
    kref_inst_info_t info = kt::inst_info(kref_stmt_instance(s));
    auto answer = [&](void *ctx, uint64_t key, vogno status) {
        int32_t out = -1;
        EXPECT_EQ(info.cmp_async(nullptr, 15, nullptr, ctx, &out, nullptr, key), status);
        return out;
    };
    EXPECT_EQ(answer(info.ctx, 42, 16), 0) << "nothing requested yet";

    // The session names the routing table the client answers from.
    kref_eval_rec_t rec{.session = 3, .client = 0x1234, .afi = 1, .reserved = {}, .key = 42};
    EXPECT_EQ(kt::eval(s, nullptr, 0, &rec), 0);
    ASSERT_EQ(kref_async_requests(), 1u);
    uint64_t session = 0, key = 0;
    uint16_t client = 0;
    uint32_t afi = 0, n4 = 0, n6 = 0;
    ASSERT_EQ(kref_async_request_info(1, &session, &client, &afi, &key, &n4, &n6), 0u);
    EXPECT_EQ(std::tuple(session, client, afi, key, n4, n6),
              std::tuple(3u, 0x1234, 1u, 42u, 2u, 1u));
    uint8_t addr[16], len = 0;
    int fam = 0;
    ASSERT_EQ(kref_async_request_entry(1, 1, &fam, addr, &len), 0u);
    EXPECT_EQ(std::tuple(fam, addr[1], len), std::tuple(IP_RIB_AFI_IPV4, 2, 16))
        << "IPv4 entries in parameter order";
    EXPECT_EQ(kref_async_ctx(42), info.ctx);
    EXPECT_EQ(kt::eval(s, nullptr, 0, &rec), 0);
    EXPECT_EQ(kref_async_requests(), 1u) << "a second update registers nothing";

    // A route appears: the client's answer reaches the compare.  (Answers
    // following every change, under threads: tests/threads.)
    add("10.2.0.0", 16, 3);
    EXPECT_EQ(answer(info.ctx, 42, 0), 1);
    answer(nullptr, 42, 2);
    answer(info.ctx, 0, 2);
    EXPECT_EQ(take(kref_stmt_print(s)), "rib-has-route async (10.0.0.0/8 eq 8 ...)");
    kref_stmt_free(s);
    EXPECT_NE(kela_eecompi_rhr_info_list, nullptr);

    // Without parameters there is no context.
    rasf_inst_t *inst = nullptr;
    ASSERT_EQ(shared_kela_rhr_cmp_async_cons(0, nullptr, nullptr, &rhr_, &inst), 0u);
    ASSERT_EQ(kref_inst_get(inst, &info), 0u);
    EXPECT_EQ(info.update(&rec, info.ctx, 0, nullptr), KEL_SHARED_ERR_NO_PARAM_ARRAY);
    answer(info.ctx, 42, 2);
    rasf_free_cmp_instance(inst);
}

TEST_F(State, TrackFollowsTheObjectsState) {
    kref_stmt_t *up = compile("track", "is", {{"x"}, {"T1"}, {"up"}});
    kref_stmt_t *down = compile("track", "is", {{"x"}, {"T1"}, {"down"}});
    EXPECT_EQ(take(kref_stmt_print(down)), "<<T1 is down>>");
    kref_inst_info_t info = kt::inst_info(kref_stmt_instance(up));
    int32_t out = 77;
    EXPECT_EQ(info.cmp(nullptr, 3, nullptr, info.ctx, &out), 0u);
    EXPECT_EQ(out, 77) << "before the first update the outcome is left alone";
    kref_eval_rec_t any{};
    kt::Params no_name{"x", std::nullopt, "up"}, no_state{"x", "T1", std::nullopt};
    for (kt::Params *p : {&no_name, &no_state})
        EXPECT_EQ(info.update(&any, info.ctx, 3, p->vec()), KEL_SHARED_ERR_NULL_INPUT);

    kref_trace_start();
    kref_eval_rec_t rec{};
    rec.key = 1;
    ASSERT_EQ(kref_track_set("T1", 1), 0u);
    EXPECT_EQ(kt::eval(up, nullptr, 0, &rec), 1);
    EXPECT_EQ(kt::eval(down, nullptr, 0, &rec), 0);
    std::vector<std::string> client;
    for (auto &l : kt::trace())
        if (l.rfind("pcl_", 0) == 0) client.push_back(l);
    EXPECT_EQ(client, (std::vector<std::string>{"pcl_async_insert_track_name(T1, 1, callback)",
                                                "pcl_async_ot_register(T1)",
                                                "pcl_async_insert_track_name(T1, 2, (null))"}))
        << "the first interest brings the callback and the registration";
    EXPECT_EQ(kref_track_registered("T1"), 1);

    const size_t before = kref_track_notifications();
    ASSERT_EQ(kref_track_set("T1", 0), 0u);
    EXPECT_EQ(kref_track_notifications(), before + 1);
    EXPECT_EQ(kt::eval(up, nullptr, 0, &rec), 0) << "the object went down";
    EXPECT_EQ(kt::eval(down, nullptr, 0, &rec), 1);
    kt::eval(up, nullptr, 2);  // no evaluation record
    kref_stmt_free(up);
    kref_stmt_free(down);
}

TEST_F(State, BaseFunctionsAndRetrievers) {
    rasf_attr_t *rhr = kref_attr_find("rib-has-route"), *track = kref_attr_find("track");
    Route r{0, 1}, other{5, 2};
    EXPECT_EQ(take(kref_attr_print(rhr, &r)), "<<rib-has-route>>");
    EXPECT_EQ(take(kref_attr_print(rhr, nullptr)), "<<no prefix>>");
    EXPECT_EQ(take(kref_attr_print(track, &r)), "<<track-id>>");
    EXPECT_EQ(take(kref_attr_print(track, nullptr)), "<<no track>>");
    int32_t out = 0;
    for (rasf_attr_t *attr : {rhr, track}) {
        EXPECT_EQ(kref_attr_compare(attr, &r, &other, &out), 0u);
        EXPECT_EQ(std::exchange(out, 0), 1) << "any two routes are alike";
        EXPECT_EQ(kref_attr_compare(attr, &r, nullptr, &out), KEL_SHARED_ERR_NO_PARAM_ARRAY);
    }
    rasf_inst_t *inst = nullptr;
    ASSERT_EQ(shared_kela_rhr_retr_cons(0, nullptr, nullptr, &rhr_, &inst), 0u);
    kref_inst_info_t info = kt::inst_info(inst);
    uint32_t v = 0;
    EXPECT_EQ(info.retrieve(&r, nullptr, nullptr, &v, nullptr), KEL_SHARED_ERR_PARAMS_NOT_ALLOWED);
    rasf_free_retriever_instance(inst);
}

}  // namespace
