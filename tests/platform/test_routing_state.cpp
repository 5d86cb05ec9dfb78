// The routing table, the B-tree and the asynchronous client on their own.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <random>
#include <set>

#include "btree_s.h"
#include "kela_ref.h"
#include "kela_ref_state.h"
#include "pcl_async.h"

namespace {

struct Addr {
    uint8_t b[16] = {};
};
Addr a(const char *text) {
    Addr out;
    EXPECT_EQ(inet_pton(std::strchr(text, ':') ? AF_INET6 : AF_INET, text, out.b), 1) << text;
    return out;
}

class RoutingState : public ::testing::Test {
  protected:
    void SetUp() override { kref_state_reset(); }
    void TearDown() override { kref_state_reset(); }
    int exact(const char *p, uint32_t len, int kind = IP_RIB_LOOKUP_EXACT, rib_tableid_td t = 0) {
        int found = -1;
        ip_rib_route2 *r = nullptr;
        const int afi = std::strchr(p, ':') ? IP_RIB_AFI_IPV6 : IP_RIB_AFI_IPV4;
        EXPECT_EQ(ip_rib_route_lookup2(kref_rib_conn(afi), t, a(p).b, len, kind, 0, &r, &found),
                  0u);
        return found;
    }
    int range(const char *p, uint32_t first, uint32_t last, rib_tableid_td t = 0) {
        int found = -1;
        ip_rib_route2 *r = nullptr;
        const int afi = std::strchr(p, ':') ? IP_RIB_AFI_IPV6 : IP_RIB_AFI_IPV4;
        EXPECT_EQ(ip_rib_route_lookup_longer_range2(kref_rib_conn(afi), t, a(p).b, first, last, &r,
                                                    &found),
                  0u);
        return found;
    }
};

TEST_F(RoutingState, ExactAndRangeLookupsPerFamilyAndTable) {
    ASSERT_EQ(kref_rib_add(IP_RIB_AFI_IPV4, 0, a("10.1.2.0").b, 24, "192.0.2.1"), 0u);
    ASSERT_EQ(kref_rib_add(IP_RIB_AFI_IPV4, 0, a("10.1.2.99").b, 24, "again"), 0u)
        << "host bits ignored";
    ASSERT_EQ(kref_rib_add(IP_RIB_AFI_IPV6, 5, a("2001:db8::").b, 48, nullptr), 0u);
    EXPECT_EQ(kref_rib_count(IP_RIB_AFI_IPV4, 0), 1u);
    EXPECT_EQ(ip_rib_client_get_afi(kref_rib_conn(IP_RIB_AFI_IPV6)), IP_RIB_AFI_IPV6);

    EXPECT_EQ(exact("10.1.2.0", 24), 1);
    EXPECT_EQ(exact("10.1.2.0", 23), 0);
    EXPECT_EQ(exact("10.1.2.7", 32, IP_RIB_LOOKUP_BEST), 1);
    EXPECT_EQ(exact("2001:db8::", 48), 0) << "table 0 of IPv6 is empty";
    EXPECT_EQ(exact("2001:db8::", 48, IP_RIB_LOOKUP_EXACT, 5), 1);

    EXPECT_EQ(range("10.0.0.0", 8, 24), 1);
    EXPECT_EQ(range("10.0.0.0", 8, 23), 0) << "the /24 is too long";
    EXPECT_EQ(range("10.1.2.0", 24, 24), 1);
    EXPECT_EQ(range("10.2.0.0", 16, 32), 0);
    EXPECT_EQ(range("11.0.0.0", 8, 32), 0) << "a neighbour's routes are not under it";
    EXPECT_EQ(range("2001:db8::", 32, 64, 5), 1);

    int found = 0;
    ip_rib_route2 *r = nullptr;
    ASSERT_EQ(ip_rib_route_lookup2(kref_rib_conn(1), 0, a("10.1.2.0").b, 24, 3, 0, &r, &found), 0u);
    EXPECT_STREQ(kref_rib_route_data(r), "again");
    ASSERT_EQ(kref_rib_remove(IP_RIB_AFI_IPV4, 0, a("10.1.2.0").b, 24), 0u);
    EXPECT_EQ(kref_rib_remove(IP_RIB_AFI_IPV4, 0, a("10.1.2.0").b, 24), KREF_ERR_NOT_FOUND);
    EXPECT_EQ(exact("10.1.2.0", 24), 0);
    EXPECT_EQ(kref_rib_add(3, 0, a("10.0.0.0").b, 8, nullptr), KREF_ERR_BAD_ARG);
    EXPECT_EQ(kref_rib_add(IP_RIB_AFI_IPV4, 0, a("10.0.0.0").b, 33, nullptr), KREF_ERR_BAD_ARG);
}

TEST_F(RoutingState, RangeLookupAgreesWithAScan) {
    std::mt19937 rng(5);
    std::vector<std::pair<uint32_t, uint8_t>> routes;
    for (int i = 0; i < 3000; ++i) {
        uint32_t addr = (10u << 24) | (rng() & 0x00FFFFFFu);
        uint8_t len = static_cast<uint8_t>(8 + rng() % 25);
        addr &= len == 0 ? 0 : 0xFFFFFFFFu << (32 - len);
        routes.emplace_back(addr, len);
        uint32_t be = htonl(addr);
        ASSERT_EQ(kref_rib_add(IP_RIB_AFI_IPV4, 0, reinterpret_cast<uint8_t *>(&be), len, nullptr),
                  0u);
    }
    for (int i = 0; i < 3000; ++i) {
        const uint8_t first = static_cast<uint8_t>(8 + rng() % 25),
                      last = static_cast<uint8_t>(first + rng() % (33 - first));
        const uint32_t p = ((10u << 24) | (rng() & 0x00FFFFFFu)) & (0xFFFFFFFFu << (32 - first));
        int want = 0;
        for (auto [addr, len] : routes)
            want |= len >= first && len <= last && (addr & (0xFFFFFFFFu << (32 - first))) == p;
        const uint32_t be = htonl(p);
        int found = -1;
        ip_rib_route2 *r = nullptr;
        ASSERT_EQ(ip_rib_route_lookup_longer_range2(kref_rib_conn(1), 0,
                                                    reinterpret_cast<const uint8_t *>(&be), first,
                                                    last, &r, &found),
                  0u);
        ASSERT_EQ(found, want) << i;
    }
}

int allocations = 0;
bool refuse = false;
vogno counting_alloc(void **out, uint32_t size) {
    if (refuse) return 0xC2C60200u;
    ++allocations;
    *out = std::malloc(size);
    return 0;
}
void counting_free(void *p) {
    std::free(p);
}

TEST(Btree, FindInsertThroughTheCallbacks) {
    void *head = nullptr;
    ASSERT_EQ(btree_s_init(2, counting_alloc, counting_free, &head), 0u);
    void *first = head;
    int values[100];
    for (int i = 0; i < 100; ++i)
        ASSERT_EQ(btree_s_insert(head, static_cast<uint64_t>(i) * 7919u, &values[i], 0), 0u);
    EXPECT_GT(allocations, 0) << "the tree's memory comes from the callback";
    EXPECT_NE(btree_s_insert(head, 7919u, &values[0], 0), 0u) << "a key is there once";
    void *v = nullptr;
    EXPECT_EQ(btree_s_find(head, 99u * 7919u, &v), 0u);
    EXPECT_EQ(v, &values[99]);
    EXPECT_NE(btree_s_find(head, 5, &v), 0u);
    refuse = true;
    EXPECT_EQ(btree_s_insert(head, 1, &values[0], 0), 0xC2C60200u)
        << "the callback's status comes back";
    refuse = false;
    EXPECT_NE(btree_s_find(head, 1, &v), 0u);
    ASSERT_EQ(btree_s_init(2, counting_alloc, counting_free, &head), 0u);
    EXPECT_NE(head, first) << "a new tree; the old handle stays valid";
    EXPECT_EQ(btree_s_find(first, 0, &v), 0u);
    EXPECT_NE(btree_s_find(head, 0, &v), 0u);
}

int notified = 0;
vogno on_change(void *, void *id, void *answer, void *, void *, void *) {
    ++notified;
    EXPECT_EQ(reinterpret_cast<uintptr_t>(answer) <= 1, true);
    (void)id;
    return 0;
}

TEST_F(RoutingState, AsyncRequestsAreAnsweredAnewWhenRoutesChange) {
    pcl_rhr_v4_entry v4[1] = {};
    std::memcpy(v4[0].addr, a("10.9.0.0").b, 4);
    v4[0].len = 16;
    pcl_rhr_v6_entry v6[1] = {};
    std::memcpy(v6[0].addr, a("2001:db8::").b, 16);
    v6[0].len = 32;
    pcl_rhr_request req{};
    req.session = 2;
    req.n_v4 = 1;
    req.v4 = v4;
    req.n_v6 = 1;
    req.v6 = v6;
    req.key = 77;
    uint32_t id = 0;
    ASSERT_EQ(pcl_async_rib_has_route_register(&req, &id, on_change), 0u);
    EXPECT_NE(id, 0u);
    std::memset(v4, 0xEE, sizeof v4);  // the client copied what it needs
    uint8_t answer = 9;
    ASSERT_EQ(pcl_async_fetch_rib_has_route_result(id, &answer), 0u);
    EXPECT_EQ(answer, 0);
    notified = 0;
    ASSERT_EQ(kref_rib_add(IP_RIB_AFI_IPV6, 2, a("2001:db8::").b, 32, nullptr), 0u);
    EXPECT_EQ(notified, 1);
    ASSERT_EQ(pcl_async_fetch_rib_has_route_result(id, &answer), 0u);
    EXPECT_EQ(answer, 1);
    ASSERT_EQ(kref_rib_add(IP_RIB_AFI_IPV4, 2, a("10.9.0.0").b, 16, nullptr), 0u);
    EXPECT_EQ(notified, 1) << "still 1: no change, no notification";
    ASSERT_EQ(kref_rib_remove(IP_RIB_AFI_IPV6, 2, a("2001:db8::").b, 32), 0u);
    ASSERT_EQ(kref_rib_remove(IP_RIB_AFI_IPV4, 2, a("10.9.0.0").b, 16), 0u);
    EXPECT_EQ(notified, 2);
    ASSERT_EQ(pcl_async_fetch_rib_has_route_result(id, &answer), 0u);
    EXPECT_EQ(answer, 0);
    EXPECT_EQ(pcl_async_fetch_rib_has_route_result(id + 100, &answer), KREF_ERR_NOT_FOUND);
}

int ot_calls = 0;
vogno on_state(const char *, uint32_t, void *) {
    ++ot_calls;
    return 0;
}

TEST_F(RoutingState, TrackedObjects) {
    uint32_t known = 9;
    ASSERT_EQ(pcl_async_search_track_name("T1", &known), 0u);
    EXPECT_EQ(known, 0u);
    EXPECT_EQ(pcl_aysnc_ot_compute_state("T1", PCL_OT_STATE_DOWN), 1)
        << "objects never set are down";
    ASSERT_EQ(pcl_async_insert_track_name("T1", nullptr, PCL_OT_STATE_UP, on_state), 0u);
    ASSERT_EQ(pcl_async_search_track_name("T1", &known), 0u);
    EXPECT_EQ(known, 1u);
    ot_calls = 0;
    ASSERT_EQ(kref_track_set("T1", 1), 0u);
    EXPECT_EQ(ot_calls, 0) << "not registered for tracking yet";
    ASSERT_EQ(pcl_async_ot_register("T1"), 0u);
    ASSERT_EQ(kref_track_set("T1", 0), 0u);
    ASSERT_EQ(kref_track_set("T1", 0), 0u);
    EXPECT_EQ(ot_calls, 1) << "one change, one notification";
    EXPECT_EQ(pcl_aysnc_ot_compute_state("T1", PCL_OT_STATE_UP), 0);
}

}  // namespace
