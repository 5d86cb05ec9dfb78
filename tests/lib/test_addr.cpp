// SPDX-License-Identifier: Apache-2.0
// The IPv4 address attribute ("pfxmatch" over four constants) and the MAC
// address attribute ("macaddrmatch" over a list), with their converters.
#include <arpa/inet.h>

#include <array>
#include <cstring>

#include "support.hpp"

namespace {

using kt::Params;
using kt::take;
using kt::Verdict;

// ---- IPv4 ---------------------------------------------------------------------------

struct V4Route {
    uint8_t pad[3];
    uint8_t len;
    uint8_t addr[4];
};

V4Route route(const char *addr, uint8_t len) {
    V4Route r{};
    EXPECT_EQ(inet_pton(AF_INET, addr, r.addr), 1);
    r.len = len;
    return r;
}

class Ipv4 : public kt::FrameworkTest {
  protected:
    void SetUp() override {
        kt::FrameworkTest::SetUp();
        ASSERT_EQ(shared_kela_ipv4_base_init(nullptr, nullptr, 0, &desc_), 0u);
    }
    shared_kela_ipv4_desc_td desc_{"nexthop", offsetof(V4Route, addr), offsetof(V4Route, len)};
};

// The example policy's goldens evaluate "pfxmatch" in and out of a prefix;
// here its bounds, its refusals and its record.
TEST_F(Ipv4, PfxmatchComparesLeadingBitsWithinTheBoundsAndRefuses) {
    const char *const invalid = "Invalid prefix match parameters.";
    const char *const four = "Requires exactly four paramters.";
    const char *const host = "Invalid prefix: Bits set outside of mask.";
    // Entry, verdict; then (when accepted) a route and the outcome.
    using Case = std::tuple<std::vector<const char *>, kt::Verdict,
                            std::pair<const char *, uint8_t>, int32_t>;
    const Case cases[] = {
        {{"10.0.0.0", "8", "8", "32"}, {0, "<null>"}, {"10.1.0.0", 7}, 0},     // below ge
        {{"10.0.0.0", "8", "0", "32"}, {0, "<null>"}, {"0.0.0.0", 0}, 1},      // zero bits compared
        {{"10.1.2.0", "23", "24", "24"}, {0, "<null>"}, {"10.1.3.0", 24}, 1},  // min(23, 24) bits
        {{"10.1.2.0", "23", "24", "24"}, {0, "<null>"}, {"10.1.4.0", 24}, 0},
        {{"10.1.2.3", "24", "24", "32"}, {0, "<null>"}, {"10.1.2.0", 24}, 1},  // byte 4 not stored
        {{"10.1.2.128", "25", "25", "32"}, {0, "<null>"}, {"10.1.2.200", 25}, 1},
        {{"10.1.2.129", "25", "25", "32"}, {KEL_SHARED_ERR_HOST_BITS, host}, {}, 0},
        {{"10.0.0.0", "8", "24", "16"}, {KEL_SHARED_ERR_BAD_LENGTH, invalid}, {}, 0},
        {{"10.0.0.0", "8x", "8", "32"}, {KEL_SHARED_ERR_BAD_VALUE, invalid}, {}, 0},
        {{"10.0.0.0", "8", "8"}, {KEL_SHARED_ERR_PARAM_COUNT, four}, {}, 0},
    };
    for (const auto &[entry, verdict, at, want] : cases) {
        std::vector<std::vector<const char *>> items;
        for (const char *t : entry) items.push_back({t});
        std::string msg;
        kref_stmt_t *s = kt::compile("nexthop", KREF_CMP, "pfxmatch", items, verdict.status, &msg);
        EXPECT_EQ(msg, verdict.message) << entry[0] << "/" << entry[1];
        if (s == nullptr) continue;
        V4Route r = route(at.first, at.second);
        EXPECT_EQ(kt::eval(s, &r), want) << at.first << "/" << int(at.second);
        kref_stmt_free(s);
    }
}

TEST_F(Ipv4, VerifierRefusalsAndTheLenientConstructor) {
    auto veri = shared_kela_ipv4_cmp_match_veri;
    auto cons = shared_kela_ipv4_cmp_match_cons;
    Params var{"10.0.0.0", std::nullopt, "8", "8"};
    EXPECT_EQ(kt::verify(veri, &desc_, &var),
              (Verdict{KEL_SHARED_ERR_VARIABLE, "Does not (yet) substitute for variables."}));
    EXPECT_EQ(kt::verify(veri, &desc_, nullptr, 4),
              (Verdict{KEL_SHARED_ERR_NULL_INPUT, "Internal error:  no parameter array"}));
    EXPECT_EQ(kt::verify(veri, nullptr, &var), (Verdict{KEL_SHARED_ERR_NO_PARAM_ARRAY, "<null>"}));

    // The constructor reads its numbers leniently: "8x" is 8.
    Params lenient{"10.0.0.0", "8x", "8", "32"};
    rasf_inst_t *inst = nullptr;
    ASSERT_EQ(cons(4, lenient.vec(), lenient.slots(), &desc_, &inst), 0u);
    kref_inst_info_t info = kt::inst_info(inst);
    V4Route r = route("10.9.0.0", 16);
    int32_t out = -1;
    EXPECT_EQ(info.cmp(&r, 4, lenient.slots(), info.ctx, &out), 0u);
    EXPECT_EQ(out, 1);
    EXPECT_EQ(info.cmp(nullptr, 4, lenient.slots(), info.ctx, &out), KEL_SHARED_ERR_NULL_INPUT);
    EXPECT_EQ(info.cmp(&r, 4, lenient.slots(), info.ctx, nullptr), KEL_SHARED_ERR_NULL_RESULT);
    shared_kela_ipv4_cmp_match_free(info.ctx);
    rasf_free_cmp_instance(inst);
    void *no_slot[4] = {};
    EXPECT_EQ(cons(4, lenient.vec(), no_slot, &desc_, &inst), KEL_SHARED_ERR_VARIABLE);
}

TEST(Ipv4Values, ConvertersHostBitsPrintAndCompare) {
    shared_kela_pfxmatch_td *r = nullptr;
    ASSERT_EQ(shared_kela_pfxmatch_cvt_string("2001:db8::", "32", "32", "64", 10, 1, &r), 0u);
    EXPECT_EQ(std::tuple(r->len, r->ge, r->le, r->addr[2], r->addr[3]),
              std::tuple(32, 32, 64, 0x0d, 0xb8));
    std::free(r);
    // Lenient: the length's low 8 bits, and no more than 16 bytes copied (ASan).
    ASSERT_EQ(shared_kela_pfxmatch_cvt_string("::1", "300", "1", "2", 10, 0, &r), 0u);
    EXPECT_EQ(r->len, 44);
    std::free(r);
    // Strict bounds: each of length, ge and le at most the family maximum,
    // ge at most le.
    using Bounds = std::tuple<std::array<const char *, 4>, int32_t, vogno>;  // family, status
    const vogno too_long = KEL_SHARED_ERR_BAD_LENGTH;
    for (auto [t, family, status] :
         {Bounds{{"10.0.0.0", "8", "8", "50"}, 7, KEL_SHARED_ERR_BAD_AFI},
          {{"10.0.0.0", "32", "32", "32"}, 2, 0},
          {{"2001:db8::", "128", "128", "128"}, 10, 0},
          {{"10.0.0.0", "33", "8", "8"}, 2, too_long},
          {{"10.0.0.0", "8", "33", "33"}, 2, too_long},
          {{"2001:db8::", "32", "32", "129"}, 10, too_long},
          {{"10.0.0.0", "8", "9", "8"}, 2, too_long}})
        EXPECT_EQ(shared_kela_pfxmatch_cvt_string(t[0], t[1], t[2], t[3], family, 1, nullptr),
                  status)
            << t[0] << " " << t[1] << " " << t[2] << " " << t[3];

    const uint8_t b[4] = {10, 1, 2, 0};
    for (auto [n, len, status] : {std::tuple{4, 23, vogno{0}},
                                  {4, 22, KEL_SHARED_ERR_HOST_BITS},
                                  {2, 8, KEL_SHARED_ERR_HOST_BITS},
                                  {4, 32, 0}})
        EXPECT_EQ(shared_kela_ip_check_prefix(b, n, len), status) << n << " " << len;
    const uint8_t late[4] = {10, 0, 1, 0};  // clean up to the byte after the length
    EXPECT_EQ(shared_kela_ip_check_prefix(late, 4, 8), KEL_SHARED_ERR_HOST_BITS);

    uint8_t out[4] = {9, 9, 9, 9};
    EXPECT_EQ(shared_kela_ipv4_cvt_string("1.2.3.x", nullptr, out), KEL_SHARED_ERR_BAD_VALUE);
    EXPECT_EQ(out[0], 9) << "not written on failure";

    shared_kela_ipv4_desc_td d{"nh", offsetof(V4Route, addr), offsetof(V4Route, len)};
    V4Route a = route("10.1.2.3", 24), same = route("10.1.2.200", 24),
            longer = route("10.1.2.3", 25), p = route("192.0.2.1", 32), low9 = route("10.0.0.0", 9),
            high9 = route("10.128.0.0", 9);
    for (auto [x, y, want] : {std::tuple{&a, &same, 1},
                              {&a, &longer, 0},
                              {&low9, &high9, 0}}) {  // the ninth bit is the only difference
        int32_t o = -1;
        EXPECT_EQ(shared_kela_ipv4_base_cmp(x, y, &d, &o), 0u);
        EXPECT_EQ(o, want);
    }
    // A length byte above 32 compares the 32 address bits, not what follows.
    alignas(8) uint8_t x[16] = {10, 1, 2, 3, 0x00}, y[16] = {10, 1, 2, 3, 0x80};
    x[8] = y[8] = 40;
    shared_kela_ipv4_desc_td wide{"nh", 0, 8};
    int32_t o = -1;
    EXPECT_EQ(shared_kela_ipv4_base_cmp(x, y, &wide, &o), 0u);
    EXPECT_EQ(o, 1);
    EXPECT_EQ(take(shared_kela_ipv4_base_print(nullptr, &p, &d)), "192.0.2.1/32");
    EXPECT_EQ(take(shared_kela_ipv4_base_print(nullptr, nullptr, &d)), "<<no destination prefix>>");

    EXPECT_EQ(kt::verify(shared_kela_ipv4_retr_veri, &d, {"x"}).status,
              KEL_SHARED_ERR_PARAMS_NOT_ALLOWED);
}

// ---- MAC ------------------------------------------------------------------------------

TEST(MacText, LenientDottedGroups) {
    const std::pair<const char *, std::array<uint8_t, 6>> cases[] = {
        {"0011.2233.4455", {0x00, 0x11, 0x22, 0x33, 0x44, 0x55}},
        {"AABB.ccDD.eeFF", {0xaa, 0xbb, 0xcc, 0xdd, 0xee, 0xff}},
        {"00:11:22:33:44:55", {}},
        {"0011.22.4455", {0x00, 0x11}},
        {"0011.2233", {0x00, 0x11, 0x22, 0x33}},
        {"00g1.0000.0000", {0x00, 0xf1}},  // 'g' counts as -1: -16 + 1, low 8 bits
        {"0011.2233.4455.6677.8899", {0x00, 0x11, 0x22, 0x33, 0x44, 0x55}},  // never past 6 bytes
    };
    for (const auto &[text, bytes] : cases) {
        auto *out = static_cast<uint8_t *>(std::calloc(1, 6));  // ASan sees any overrun
        EXPECT_EQ(shared_kela_cvt_string_to_mac_address(text, out), 0u) << text;
        EXPECT_EQ(std::memcmp(out, bytes.data(), 6), 0) << text;
        std::free(out);
    }
    EXPECT_EQ(HextoInt('\xff'), -1) << "a byte above 0x7F is no digit";

    const uint8_t bytes[8] = {0x00, 0x1a, 0x2b, 0x3c, 0x4d, 0x5e, 0x6f, 0x70};
    for (auto [n, text] :
         {std::pair{6, "001a.2b3c.4d5e"}, {0, ""}, {3, "001a.2b"}, {8, "001a.2b3c.4d5e"}})
        EXPECT_EQ(take(shared_kela_cvt_mac_address_to_string(bytes, static_cast<uint8_t>(n))),
                  text);
}

struct MacRoute {
    bool has;
    uint8_t mac[6];
};

vogno get_mac(void *, void *route, uint8_t *value) {
    auto *r = static_cast<MacRoute *>(route);
    if (!r->has) return 19;
    std::memcpy(value, r->mac, 6);
    return 0;
}

class Mac : public kt::FrameworkTest {
  protected:
    void SetUp() override {
        kt::FrameworkTest::SetUp();
        const char *locs[] = {"import", nullptr};
        ASSERT_EQ(shared_kela_mac_address_base_init(nullptr, nullptr, 0, &desc_, locs, nullptr,
                                                    nullptr, nullptr),
                  0u);
    }
    shared_kela_mac_address_desc_td desc_{"source-mac", get_mac};
};

// The example policy's goldens evaluate "macaddrmatch" over a list; here
// its verifier's refusals (the constructor's: tests/alloc's table).
TEST_F(Mac, MacaddrmatchRefusals) {
    auto veri = shared_kela_mac_address_cmp_match_veri;
    EXPECT_EQ(kt::verify(veri, &desc_, {"arg0:2", "0011.2233.4455", "aabb.ccdd.eeff"}),
              (Verdict{4, "Parameter mismatch."}));
    EXPECT_EQ(kt::verify(veri, &desc_, {"arg0:1", std::nullopt}),
              (Verdict{KEL_SHARED_ERR_NULL_PARAM, "<null>"}));
}

TEST_F(Mac, PrintAndCompareThroughTheCallback) {
    rasf_attr_t *attr = kref_attr_find("source-mac");
    MacRoute a{true, {0, 0x1a, 0x2b, 0x3c, 0x4d, 0x5e}}, b = a, none{false, {}};
    EXPECT_EQ(take(kref_attr_print(attr, &a)), "001a.2b3c.4d5e");
    EXPECT_EQ(take(kref_attr_print(attr, &none)), "<<no mac address>>");
    EXPECT_EQ(take(kref_attr_print(attr, nullptr)), "<<no route>>");
    int32_t out = -1;
    EXPECT_EQ(kref_attr_compare(attr, &a, &b, &out), 0u);
    EXPECT_EQ(out, 1);
    b.mac[5] ^= 1;
    EXPECT_EQ(kref_attr_compare(attr, &a, &b, &out), 0u);
    EXPECT_EQ(out, 0);
    EXPECT_EQ(kref_attr_compare(attr, &a, &none, &out), 19u) << "no MAC is passed on";
}

}  // namespace
