// SPDX-License-Identifier: Apache-2.0
// Routing-state attributes against the reference routing table and
// asynchronous client: rib-has-route "in" and "async", track "is".
#include <arpa/inet.h>

#include <cstring>

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
        std::vector<kref_item_t> items;
        for (const auto &e : entries) items.push_back({static_cast<uint32_t>(e.size()), e.data()});
        kref_stmt_t *s = nullptr;
        char *m = nullptr;
        EXPECT_EQ(kref_compile(attr, KREF_CMP, op, location, items.size(), items.data(), &m, &s),
                  want);
        if (msg) *msg = take(m);
        std::free(m);
        return s;
    }
    shared_kela_rhr_desc_td rhr_{"ignored", get_conn};
    int track_ = 0;  // the track type reads nothing of its descriptor
};

TEST_F(State, RibHasRouteRegistration) {
    kref_reset();
    kref_trace_start();
    const char *ops[] = {"import", "export", nullptr};
    ASSERT_EQ(shared_kela_rhr_base_init(nullptr, nullptr, 0, &rhr_, ops, nullptr, nullptr, nullptr),
              0u);
    std::vector<std::string> calls;
    for (auto &l : kt::trace())
        if (l.rfind("rasf_", 0) == 0) calls.push_back(l);
    EXPECT_EQ(calls, (std::vector<std::string>{
                         "rasf_kela_new(rib-has-route, (null), 1.0)",
                         "rasf_kela_add_location(import, rib-has-route)",
                         "rasf_kela_add_location(export, rib-has-route)",
                         "rasf_kela_add_base_function_print(rib-has-route)",
                         "rasf_kela_add_base_function_cmp(rib-has-route)",
                         "rasf_kela_add_cmp(in, rib-has-route)",
                         "rasf_kela_add_cmp_location(in, rib-has-route, import)", "rasf_args_new()",
                         "rasf_args_infinite_add(uint32_t, 1.0, 0)",
                         "rasf_kela_add_cmp_args(in, rib-has-route)",
                         "rasf_kela_add_cmp(async, rib-has-route)",
                         "rasf_kela_add_cmp_location(async, rib-has-route, import)",
                         "rasf_kela_add_cmp_location(async, rib-has-route, export)",
                         "rasf_args_new()", "rasf_args_infinite_add(uint32_t, 1.0, 0)",
                         "rasf_kela_add_cmp_args(async, rib-has-route)"}));
    void *ctx = &ctx;
    kref_attr_base_print(kref_attr_find("rib-has-route"), &ctx);
    EXPECT_EQ(ctx, nullptr) << "base functions without descriptor";
    std::string msg;
    compile("rib-has-route", "in", {{"10.0.0.0", "8", "8", "8"}}, KREF_ERR_LOCATION, &msg,
            "export");
    kref_stmt_free(
        compile("rib-has-route", "async", {{"10.0.0.0", "8", "8", "8"}}, 0, &msg, "export"));

    kref_reset();
    char buf[80];
    kref_fault_set("rasf_args_new", 2, 5);
    EXPECT_EQ(
        shared_kela_rhr_base_init(nullptr, buf, sizeof buf, &rhr_, ops, nullptr, nullptr, nullptr),
        5u);
    EXPECT_STREQ(buf, "rasf_args_new at kela_ribhasroute@1521");
    kref_reset();
    kref_fault_set("rasf_args_n_add", 1, 5);
    EXPECT_EQ(shared_kela_track_base_init(nullptr, buf, sizeof buf, nullptr, ops, nullptr, nullptr,
                                          nullptr),
              5u);
    EXPECT_STREQ(buf, "rasf_args_n_add: : (1,3) at kela_track@317");
    kref_reset();
    const char *none[] = {nullptr};
    EXPECT_EQ(shared_kela_rhr_base_init(nullptr, buf, sizeof buf, &rhr_, none, none, none, ops),
              KEL_SHARED_ERR_NO_LOCATIONS)
        << "\"in\" needs a first operator location";
}

TEST_F(State, VerifierRules) {
    std::string msg;
    compile("rib-has-route", "in", {{"10.0.0.0", "8", "16", "24"}}, 3, &msg);
    EXPECT_EQ(msg, "The rib-has-route operator does not support gaps in prefix ranges.");
    kref_stmt_free(compile("rib-has-route", "in", {{"10.0.0.0", "8", "8", "24"}}));
    compile("rib-has-route", "in", {{"10.0.0.0", "8", "8", "40"}}, KEL_SHARED_ERR_BAD_LENGTH, &msg);
    EXPECT_EQ(msg, "Invalid prefix match parameters.");
    compile("rib-has-route", "in", {{"10.0.0.0", "8 ", "8", "8"}}, KEL_SHARED_ERR_BAD_VALUE, &msg);
    compile("rib-has-route", "in", {{"10.0.0.0", "8", "8"}}, 4, &msg);
    EXPECT_EQ(msg, "Parameter mismatch.");
    compile("rib-has-route", "async", {{"10.0.0.0", "8", "8", "24"}}, 3, &msg);
    EXPECT_EQ(msg, "The rib-has-route async operator does not support prefix ranges.");
    compile("rib-has-route", "async", {{"10.0.0.0", "8", "16", "16"}}, 3, &msg);
    EXPECT_EQ(msg, "The rib-has-route operator does not support gaps in prefix ranges.");

    std::vector<std::vector<const char *>> sixteen(16, {"10.0.0.0", "8", "8", "8"});
    kref_stmt_free(compile("rib-has-route", "async", sixteen));
    auto seventeen = sixteen;
    seventeen.push_back({"not an address", "x", "y", "z"});
    compile("rib-has-route", "async", seventeen, 3, &msg);
    EXPECT_EQ(msg, "Internal error: RHR async supports maximum of 16 entries in prefix-set")
        << "refused before any entry is parsed";
    char *m = nullptr;
    EXPECT_EQ(shared_kela_rhr_cmp_match_veri(0, nullptr, &rhr_, &m), KEL_SHARED_ERR_NULL_INPUT);
    EXPECT_EQ(take(m), "Internal error:  no parameters");
    EXPECT_EQ(shared_kela_rhr_cmp_async_veri(5, nullptr, &rhr_, &m), KEL_SHARED_ERR_NULL_INPUT);
    EXPECT_EQ(take(m), "Internal error:  no parameter array");

    const std::string name32(32, 'n'), name33(33, 'n');
    struct Case {
        std::vector<const char *> texts;
        vogno status;
        const char *message;
    };
    for (const Case &c :
         {Case{{"x", name32.c_str(), "up"}, 0, nullptr},
          Case{{"x", name33.c_str(), "up"},
               KEL_SHARED_ERR_BAD_VALUE,
               "length of track name should be equal or less than 32"},
          Case{{"x", "T1", "Up"},
               KEL_SHARED_ERR_BAD_VALUE,
               "Internal error:  wrong track status parameter"},
          Case{{"x", "T1", "down"}, 0, nullptr},
          Case{{"x", "T1"}, KEL_SHARED_ERR_BAD_VALUE, "malformed track parameters"},
          Case{{"x", "T1", "up", "y"}, KEL_SHARED_ERR_BAD_VALUE, "malformed track parameters"}}) {
        std::vector<kref_item_t> items;
        for (const char *const &t : c.texts) items.push_back({1, &t});
        kref_stmt_t *s = nullptr;
        char *tm = nullptr;
        EXPECT_EQ(
            kref_compile("track", KREF_CMP, "is", nullptr, items.size(), items.data(), &tm, &s),
            c.status);
        EXPECT_EQ(take(tm), c.message ? c.message : "<null>");
        kref_stmt_free(s);
    }
}

TEST_F(State, InAsksTheRoutingTable) {
    add("10.1.0.0", 16);
    add("0.0.0.0", 0, 7);
    add("2001:db8::", 32);
    kref_stmt_t *s = compile("rib-has-route", "in",
                             {{"2001:db8::", "32", "32", "32"}, {"10.1.0.0", "16", "16", "16"}});
    Route v4{0, IP_RIB_AFI_IPV4};
    int32_t out = -1;
    EXPECT_EQ(kref_eval(s, &v4, nullptr, &out), 0u);
    EXPECT_EQ(out, 1)
        << "the IPv6 entry's family mismatch is overridden by the matching last entry";
    kref_stmt_free(s);

    s = compile("rib-has-route", "in",
                {{"10.1.0.0", "16", "16", "16"}, {"2001:db8::", "32", "32", "32"}});
    EXPECT_EQ(kref_eval(s, &v4, nullptr, &out), 0u);
    EXPECT_EQ(out, 1) << "the first entry matched and ended the walk";
    kref_stmt_free(s);
    s = compile("rib-has-route", "in",
                {{"10.9.0.0", "16", "16", "16"}, {"2001:db8::", "32", "32", "32"}});
    EXPECT_EQ(kref_eval(s, &v4, nullptr, &out), KEL_SHARED_FOREIGN_RIB_AFI_MISMATCH);
    EXPECT_EQ(out, 0);
    kref_stmt_free(s);

    // Ranges ask for any route under the prefix; the default route is kind 2.
    kref_trace_start();
    s = compile("rib-has-route", "in", {{"10.0.0.0", "8", "8", "24"}, {"0.0.0.0", "0", "0", "0"}});
    EXPECT_EQ(kref_eval(s, &v4, nullptr, &out), 0u);
    EXPECT_EQ(out, 1);
    Route table7{7, IP_RIB_AFI_IPV4};
    EXPECT_EQ(kref_eval(s, &table7, nullptr, &out), 0u);
    EXPECT_EQ(out, 1);
    std::vector<std::string> lookups;
    for (auto &l : kt::trace())
        if (l.rfind("ip_rib_", 0) == 0) lookups.push_back(l);
    EXPECT_EQ(lookups,
              (std::vector<std::string>{
                  "ip_rib_route_lookup2(0, 8, 3)", "ip_rib_route_lookup_longer_range2(0, 8, 24)",
                  "ip_rib_route_lookup2(7, 8, 3)", "ip_rib_route_lookup_longer_range2(7, 8, 24)",
                  "ip_rib_route_lookup2(7, 0, 2)"}));
    EXPECT_EQ(take(kref_stmt_print(s)), "rib-has-route in (10.0.0.0/8 le 24 ...)");
    kref_stmt_free(s);
}

TEST_F(State, AsyncRegistersOncePerKeyAndFollowsTheRoutingTable) {
    kref_stmt_t *s = compile("rib-has-route", "async",
                             {{"10.0.0.0", "8", "8", "8"},
                              {"2001:db8::", "32", "32", "32"},
                              {"10.2.0.0", "16", "16", "16"}});
    kref_inst_info_t info{};
    ASSERT_EQ(kref_inst_get(kref_stmt_instance(s), &info), 0u);
    int32_t out = -1;
    EXPECT_EQ(info.cmp_async(nullptr, 15, nullptr, info.ctx, &out, nullptr, 42), 16u)
        << "nothing requested yet";
    EXPECT_EQ(out, 0);

    kref_eval_rec_t rec{};
    rec.session = 3;  // the routing table the client answers from
    rec.client = 0x1234;
    rec.afi = 1;
    rec.key = 42;
    EXPECT_EQ(kref_eval(s, nullptr, &rec, &out), 0u);
    EXPECT_EQ(out, 0);
    ASSERT_EQ(kref_async_requests(), 1u);
    uint64_t session = 0, key = 0;
    uint16_t client = 0;
    uint32_t afi = 0, n4 = 0, n6 = 0;
    ASSERT_EQ(kref_async_request_info(1, &session, &client, &afi, &key, &n4, &n6), 0u);
    EXPECT_EQ(session, 3u);
    EXPECT_EQ(client, 0x1234);
    EXPECT_EQ(afi, 1u);
    EXPECT_EQ(key, 42u);
    EXPECT_EQ(n4, 2u);
    EXPECT_EQ(n6, 1u);
    uint8_t addr[16];
    uint8_t len = 0;
    int fam = 0;
    ASSERT_EQ(kref_async_request_entry(1, 1, &fam, addr, &len), 0u);
    EXPECT_EQ(fam, IP_RIB_AFI_IPV4);
    EXPECT_EQ(addr[1], 2) << "IPv4 entries in parameter order";
    EXPECT_EQ(len, 16);
    EXPECT_EQ(kref_async_ctx(42), info.ctx);

    EXPECT_EQ(kref_eval(s, nullptr, &rec, &out), 0u);
    EXPECT_EQ(kref_async_requests(), 1u) << "a second update registers nothing";

    // A route appears: the client answers anew and notifies through the callback.
    const size_t before = kref_async_notifications();
    add("10.2.0.0", 16, 3);
    EXPECT_EQ(kref_async_notifications(), before + 1);
    EXPECT_EQ(info.cmp_async(nullptr, 15, nullptr, info.ctx, &out, nullptr, 42), 0u);
    EXPECT_EQ(out, 1);
    add("10.3.0.0", 16, 3);
    EXPECT_EQ(kref_async_notifications(), before + 1) << "unrelated routes change nothing";
    uint8_t gone[4] = {10, 2, 0, 0};
    ASSERT_EQ(kref_rib_remove(IP_RIB_AFI_IPV4, 3, gone, 16), 0u);
    EXPECT_EQ(kref_eval(s, nullptr, &rec, &out), 0u);
    EXPECT_EQ(out, 0);
    EXPECT_EQ(info.cmp_async(nullptr, 15, nullptr, nullptr, &out, nullptr, 42), 2u);
    EXPECT_EQ(info.cmp_async(nullptr, 15, nullptr, info.ctx, &out, nullptr, 0), 2u);
    EXPECT_EQ(take(kref_stmt_print(s)), "rib-has-route async (10.0.0.0/8 eq 8 ...)");
    kref_stmt_free(s);
    EXPECT_EQ(kela_eecompi_rhr_info_list != nullptr, true);

    // Without parameters there is no context.
    rasf_inst_t *inst = nullptr;
    ASSERT_EQ(shared_kela_rhr_cmp_async_cons(0, nullptr, nullptr, &rhr_, &inst), 0u);
    ASSERT_EQ(kref_inst_get(inst, &info), 0u);
    EXPECT_EQ(info.update(&rec, info.ctx, 0, nullptr), KEL_SHARED_ERR_NO_PARAM_ARRAY);
    EXPECT_EQ(info.cmp_async(nullptr, 0, nullptr, info.ctx, &out, nullptr, 42), 2u);
    rasf_free_cmp_instance(inst);
}

TEST_F(State, TrackFollowsTheObjectsState) {
    kref_stmt_t *up = compile("track", "is", {{"x"}, {"T1"}, {"up"}});
    kref_stmt_t *down = compile("track", "is", {{"x"}, {"T1"}, {"down"}});
    EXPECT_EQ(take(kref_stmt_print(down)), "<<T1 is down>>");
    kref_inst_info_t info{};
    ASSERT_EQ(kref_inst_get(kref_stmt_instance(up), &info), 0u);
    int32_t out = 77;
    EXPECT_EQ(info.cmp(nullptr, 3, nullptr, info.ctx, &out), 0u);
    EXPECT_EQ(out, 77) << "before the first update the outcome is left alone";

    kref_trace_start();
    kref_eval_rec_t rec{};
    rec.key = 1;
    ASSERT_EQ(kref_track_set("T1", 1), 0u);
    EXPECT_EQ(kref_eval(up, nullptr, &rec, &out), 0u);
    EXPECT_EQ(out, 1);
    EXPECT_EQ(kref_eval(down, nullptr, &rec, &out), 0u);
    EXPECT_EQ(out, 0);
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
    EXPECT_EQ(kref_eval(up, nullptr, &rec, &out), 0u);
    EXPECT_EQ(out, 0) << "the object went down";
    EXPECT_EQ(kref_eval(down, nullptr, &rec, &out), 0u);
    EXPECT_EQ(out, 1);
    EXPECT_EQ(kref_eval(up, nullptr, nullptr, &out), 2u) << "no evaluation record";
    kref_stmt_free(up);
    kref_stmt_free(down);
}

TEST_F(State, BaseFunctionsAndRetrievers) {
    rasf_attr_t *rhr = kref_attr_find("rib-has-route"), *track = kref_attr_find("track");
    Route r{0, 1};
    EXPECT_EQ(take(kref_attr_print(rhr, &r)), "<<rib-has-route>>");
    EXPECT_EQ(take(kref_attr_print(rhr, nullptr)), "<<no prefix>>");
    EXPECT_EQ(take(kref_attr_print(track, &r)), "<<track-id>>");
    EXPECT_EQ(take(kref_attr_print(track, nullptr)), "<<no track>>");
    int32_t out = 0;
    Route other{5, 2};
    EXPECT_EQ(kref_attr_compare(rhr, &r, &other, &out), 0u);
    EXPECT_EQ(out, 1);
    EXPECT_EQ(kref_attr_compare(track, &r, nullptr, &out), KEL_SHARED_ERR_NO_PARAM_ARRAY);
    EXPECT_EQ(shared_kela_rhr_retr_veri(0, nullptr, &rhr_, nullptr),
              KEL_SHARED_ERR_PARAMS_NOT_ALLOWED);
    rasf_inst_t *inst = nullptr;
    ASSERT_EQ(shared_kela_rhr_retr_cons(0, nullptr, nullptr, &rhr_, &inst), 0u);
    kref_inst_info_t info{};
    ASSERT_EQ(kref_inst_get(inst, &info), 0u);
    uint32_t v = 0;
    EXPECT_EQ(info.retrieve(&r, nullptr, nullptr, &v, nullptr), KEL_SHARED_ERR_PARAMS_NOT_ALLOWED);
    rasf_free_retriever_instance(inst);
}

}  // namespace
