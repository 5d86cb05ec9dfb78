// SPDX-License-Identifier: Apache-2.0
// The routing table, the B-tree and the asynchronous client on their own.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <random>

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

constexpr int kRange = 0;  // not a lookup kind of the client: the longer-range lookup

// Asks the routing table about prefix/len; a range lookup takes routes up to
// `last` long.
int ask(const char *prefix, uint32_t len, int kind, rib_tableid_td table = 0, uint32_t last = 0) {
    ip_rib_conn_p conn =
        kref_rib_conn(std::strchr(prefix, ':') ? IP_RIB_AFI_IPV6 : IP_RIB_AFI_IPV4);
    ip_rib_route2 *r = nullptr;
    int found = -1;
    EXPECT_EQ(
        kind == kRange
            ? ip_rib_route_lookup_longer_range2(conn, table, a(prefix).b, len, last, &r, &found)
            : ip_rib_route_lookup2(conn, table, a(prefix).b, len, kind, 0, &r, &found),
        0u);
    return found;
}

class RoutingState : public ::testing::Test {
  protected:
    void SetUp() override { kref_state_reset(); }
    void TearDown() override { kref_state_reset(); }
};

// The IPv4 range lookup against every kind of neighbour is
// RangeLookupAgreesWithAScan's, the refusal of over-long prefixes
// AsyncEntriesLongerThanTheirFamilyAreRefused's.
TEST_F(RoutingState, ExactAndRangeLookupsPerFamilyAndTable) {
    ASSERT_EQ(kref_rib_add(IP_RIB_AFI_IPV4, 0, a("10.1.2.0").b, 24, "192.0.2.1"), 0u);
    ASSERT_EQ(kref_rib_add(IP_RIB_AFI_IPV4, 0, a("10.1.2.99").b, 24, nullptr), 0u);
    ASSERT_EQ(kref_rib_add(IP_RIB_AFI_IPV6, 5, a("2001:db8::").b, 48, nullptr), 0u);
    EXPECT_EQ(kref_rib_count(IP_RIB_AFI_IPV4, 0), 1u) << "host bits ignored: the same route";
    EXPECT_EQ(ask("10.1.2.0", 24, IP_RIB_LOOKUP_EXACT), 1);
    EXPECT_EQ(ask("10.1.2.0", 23, IP_RIB_LOOKUP_EXACT), 0);
    EXPECT_EQ(ask("10.1.2.7", 32, IP_RIB_LOOKUP_BEST), 1);
    EXPECT_EQ(ask("2001:db8::", 48, IP_RIB_LOOKUP_EXACT), 0) << "table 0 of IPv6 is empty";
    EXPECT_EQ(ask("2001:db8::", 48, IP_RIB_LOOKUP_EXACT, 5), 1);
    EXPECT_EQ(ask("2001:db8::", 32, kRange, 5, 64), 1);
    EXPECT_EQ(ask("2001:db8::", 32, kRange, 5, 47), 0);

    ASSERT_EQ(kref_rib_remove(IP_RIB_AFI_IPV4, 0, a("10.1.2.0").b, 24), 0u);
    EXPECT_EQ(kref_rib_remove(IP_RIB_AFI_IPV4, 0, a("10.1.2.0").b, 24), KREF_ERR_NOT_FOUND);
    EXPECT_EQ(ask("10.1.2.0", 24, IP_RIB_LOOKUP_EXACT), 0);
    EXPECT_EQ(kref_rib_add(3, 0, a("10.0.0.0").b, 8, nullptr), KREF_ERR_BAD_ARG);
}

TEST_F(RoutingState, RangeLookupAgreesWithAScan) {
    std::mt19937 rng(5);
    // A random prefix inside 10/8 no shorter than /8.
    auto prefix = [&rng](uint32_t len) {
        return ((10u << 24) | (rng() & 0x00FFFFFFu)) & (0xFFFFFFFFu << (32 - len));
    };
    std::vector<std::pair<uint32_t, uint32_t>> routes;
    for (int i = 0; i < 3000; ++i) {
        const uint32_t len = 8 + rng() % 25, p = prefix(len), be = htonl(p);
        routes.emplace_back(p, len);
        ASSERT_EQ(kref_rib_add(IP_RIB_AFI_IPV4, 0, reinterpret_cast<const uint8_t *>(&be),
                               static_cast<uint8_t>(len), nullptr),
                  0u);
    }
    for (int i = 0; i < 3000; ++i) {
        const uint32_t first = 8 + rng() % 25, last = first + rng() % (33 - first);
        const uint32_t p = prefix(first);
        int want = 0;
        for (auto [addr, len] : routes)
            want |= len >= first && len <= last && (addr & (0xFFFFFFFFu << (32 - first))) == p;
        char text[16];
        const uint32_t be = htonl(p);
        ASSERT_EQ(ask(inet_ntop(AF_INET, &be, text, sizeof text), first, kRange, 0, last), want)
            << i;
    }
}

vogno alloc(void **out, uint32_t size) {
    *out = std::malloc(size);
    return *out != nullptr ? 0 : 1;
}
void release(void *p) {
    std::free(p);
}

// Finding and adding keys is also the rib-has-route "async" operator's daily
// work (tests/lib/test_state.cpp), and a refused allocation is tests/alloc's.
TEST(Btree, AKeyIsThereOnceAndANewTreeLeavesTheOldOneAlone) {
    void *head = nullptr, *v = nullptr;
    ASSERT_EQ(btree_s_init(2, alloc, release, &head), 0u);
    void *first = head;
    int values[100];
    for (int i = 0; i < 100; ++i)
        ASSERT_EQ(btree_s_insert(head, static_cast<uint64_t>(i) * 7919u, &values[i], 0), 0u);
    EXPECT_NE(btree_s_insert(head, 7919u, &values[0], 0), 0u);
    EXPECT_EQ(btree_s_find(head, 7919u, &v), 0u);
    EXPECT_EQ(v, &values[1]) << "the first value stays";
    EXPECT_NE(btree_s_find(head, 5, &v), 0u);
    ASSERT_EQ(btree_s_init(2, alloc, release, &head), 0u);
    EXPECT_NE(head, first);
    EXPECT_EQ(btree_s_find(first, 0, &v), 0u) << "the old handle stays valid";
    EXPECT_NE(btree_s_find(head, 0, &v), 0u);
}

// What the client's last notification said.
int notified = 0;
uintptr_t notified_id = 0, notified_answer = 0;
vogno on_change(void *, void *id, void *answer, void *, void *, void *) {
    ++notified;
    notified_id = reinterpret_cast<uintptr_t>(id);
    notified_answer = reinterpret_cast<uintptr_t>(answer);
    return 0;
}

TEST_F(RoutingState, AsyncRequestsAreAnsweredAnewWhenRoutesChange) {
    pcl_rhr_v4_entry v4{{10, 9, 0, 0}, 16, {}};
    pcl_rhr_v6_entry v6{{0x20, 0x01, 0x0d, 0xb8}, 32, {}};  // 2001:db8::/32
    pcl_rhr_request req{};
    req.session = 2;  // the routing table asked
    req.n_v4 = req.n_v6 = 1;
    req.v4 = &v4;
    req.v6 = &v6;
    uint32_t id = 0;
    notified = 0, notified_answer = 0;
    ASSERT_EQ(pcl_async_rib_has_route_register(&req, &id, on_change), 0u);
    EXPECT_NE(id, 0u);
    std::memset(&v4, 0xEE, sizeof v4);  // the client copied what it needs
    // After each change: notifications so far, the last one's answer, the
    // answer now.  Any entry's route makes it yes; only a change is told.
    auto state = [&] {
        uint8_t answer = 9;
        EXPECT_EQ(pcl_async_fetch_rib_has_route_result(id, &answer), 0u);
        EXPECT_TRUE(notified == 0 || notified_id == id);
        return std::to_string(notified) + " " + std::to_string(notified_answer) + " " +
               std::to_string(answer);
    };
    EXPECT_EQ(state(), "0 0 0");
    ASSERT_EQ(kref_rib_add(IP_RIB_AFI_IPV6, 2, a("2001:db8::").b, 32, nullptr), 0u);
    EXPECT_EQ(state(), "1 1 1");
    ASSERT_EQ(kref_rib_add(IP_RIB_AFI_IPV4, 2, a("10.9.0.0").b, 16, nullptr), 0u);
    ASSERT_EQ(kref_rib_remove(IP_RIB_AFI_IPV6, 2, a("2001:db8::").b, 32), 0u);
    EXPECT_EQ(state(), "1 1 1") << "the other entry still answers yes";
    ASSERT_EQ(kref_rib_remove(IP_RIB_AFI_IPV4, 2, a("10.9.0.0").b, 16), 0u);
    EXPECT_EQ(state(), "2 0 0");
    uint8_t answer = 9;
    EXPECT_EQ(pcl_async_fetch_rib_has_route_result(id + 100, &answer), KREF_ERR_NOT_FOUND);
}

// An entry longer than its family's addresses could never be answered: the
// client refuses it, with no identifier, as the routing table refuses such
// a route.
TEST_F(RoutingState, AsyncEntriesLongerThanTheirFamilyAreRefused) {
    for (auto [l4, l6] : {std::pair<uint8_t, uint8_t>{32, 128}, {33, 128}, {32, 129}}) {
        pcl_rhr_v4_entry v4{{10, 9, 0, 0}, l4, {}};
        pcl_rhr_v6_entry v6{{0x20, 0x01, 0x0d, 0xb8}, l6, {}};
        const vogno rib = kref_rib_add(IP_RIB_AFI_IPV4, 0, v4.addr, l4, nullptr) |
                          kref_rib_add(IP_RIB_AFI_IPV6, 0, v6.addr, l6, nullptr);
        pcl_rhr_request req{};
        req.n_v4 = req.n_v6 = 1;
        req.v4 = &v4;
        req.v6 = &v6;
        uint32_t id = 0;
        EXPECT_EQ(pcl_async_rib_has_route_register(&req, &id, nullptr), rib) << +l4 << " " << +l6;
        EXPECT_EQ(id != 0, rib == 0);
    }
}

int ot_calls = 0;
vogno on_state(const char *, uint32_t, void *) {
    ++ot_calls;
    return 0;
}

// Which client calls the library makes, in order, is tests/lib's
// (State.TrackFollowsTheObjectsState); here what the library never sees.
TEST_F(RoutingState, TrackedObjectsNotifyOnlyRegisteredChanges) {
    EXPECT_EQ(pcl_aysnc_ot_compute_state("T1", PCL_OT_STATE_DOWN), 1) << "never set: down";
    ASSERT_EQ(pcl_async_insert_track_name("T1", nullptr, PCL_OT_STATE_UP, on_state), 0u);
    ot_calls = 0;
    ASSERT_EQ(kref_track_set("T1", 1), 0u);
    EXPECT_EQ(ot_calls, 0) << "not registered for tracking yet";
    ASSERT_EQ(pcl_async_ot_register("T1"), 0u);
    ASSERT_EQ(kref_track_set("T1", 0), 0u);
    ASSERT_EQ(kref_track_set("T1", 0), 0u);
    EXPECT_EQ(ot_calls, 1) << "one change, one notification";
}

}  // namespace
