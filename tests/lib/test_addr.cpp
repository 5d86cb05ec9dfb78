// The IPv4 address attribute ("pfxmatch" over four constants) and the MAC
// address attribute ("macaddrmatch" over a list), with their converters.
#include <arpa/inet.h>

#include <cstring>
#include <random>

#include "support.hpp"

namespace {

using kt::Params;
using kt::take;

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
        kref_trace_start();
        ASSERT_EQ(shared_kela_ipv4_base_init(nullptr, nullptr, 0, &desc_), 0u);
    }
    // Verifies and, when accepted, compiles "pfxmatch a l g e".
    vogno compile(std::vector<const char *> texts, kref_stmt_t **stmt, std::string *msg = nullptr) {
        std::vector<kref_item_t> items;
        for (const char *&t : texts) items.push_back({1, &t});
        char *m = nullptr;
        vogno st = kref_compile("nexthop", KREF_CMP, "pfxmatch", "import", items.size(),
                                items.data(), &m, stmt);
        if (msg) *msg = take(m);
        std::free(m);
        return st;
    }
    int eval(kref_stmt_t *s, V4Route r) {
        int32_t out = -1;
        EXPECT_EQ(kref_eval(s, &r, nullptr, &out), 0u);
        return out;
    }
    shared_kela_ipv4_desc_td desc_{"nexthop", offsetof(V4Route, addr), offsetof(V4Route, len)};
};

TEST_F(Ipv4, RegistersPfxmatchWithFourArguments) {
    std::vector<std::string> args;
    for (auto &l : kt::trace())
        if (l.rfind("rasf_args_", 0) == 0 || l.rfind("rasf_kela_add_cmp(", 0) == 0 ||
            l.rfind("rasf_kela_new", 0) == 0)
            args.push_back(l);
    EXPECT_EQ(args,
              (std::vector<std::string>{
                  "rasf_kela_new(nexthop, (null), 1.0)", "rasf_kela_add_cmp(pfxmatch, nexthop)",
                  "rasf_args_new()", "rasf_args_single_add(ipv4_addr_t, 1.0)",
                  "rasf_args_single_add(uint32_t, 1.0)", "rasf_args_single_add(uint32_t, 1.0)",
                  "rasf_args_single_add(uint32_t, 1.0)"}));
    char buf[80];
    for (auto [nth, text] :
         {std::pair{1u, "rasf_args_single_add: ipv4_addr_t:1.0 at kela_ipv4@821"},
          std::pair{4u, "rasf_args_single_add: uint32_t:1.0 at kela_ipv4@824"}}) {
        kref_reset();
        kref_fault_set("rasf_args_single_add", nth, 8);
        EXPECT_EQ(shared_kela_ipv4_base_init(nullptr, buf, sizeof buf, &desc_), 8u);
        EXPECT_STREQ(buf, text);
    }
}

TEST_F(Ipv4, PfxmatchComparesLeadingBitsWithinTheBounds) {
    kref_stmt_t *s = nullptr;
    ASSERT_EQ(compile({"10.0.0.0", "8", "8", "32"}, &s), 0u);
    EXPECT_EQ(eval(s, route("10.1.0.0", 16)), 1);
    EXPECT_EQ(eval(s, route("10.1.0.0", 7)), 0) << "below ge";
    EXPECT_EQ(eval(s, route("11.0.0.0", 8)), 0);
    EXPECT_EQ(eval(s, route("10.255.255.255", 32)), 1);
    kref_stmt_free(s);
    ASSERT_EQ(compile({"10.0.0.0", "8", "0", "32"}, &s), 0u);
    EXPECT_EQ(eval(s, route("0.0.0.0", 0)), 1) << "zero bits compared";
    kref_stmt_free(s);
    ASSERT_EQ(compile({"10.1.2.0", "23", "24", "24"}, &s), 0u);
    EXPECT_EQ(eval(s, route("10.1.3.0", 24)), 1) << "only the first min(23, 24) bits";
    EXPECT_EQ(eval(s, route("10.1.4.0", 24)), 0);
    kref_stmt_free(s);
}

TEST_F(Ipv4, VerifierRefusalsAndTheLenientConstructor) {
    kref_stmt_t *s = nullptr;
    std::string msg;
    EXPECT_EQ(compile({"10.0.0.0", "33", "8", "32"}, &s, &msg), KEL_SHARED_ERR_BAD_LENGTH);
    EXPECT_EQ(msg, "Invalid prefix match parameters.");
    EXPECT_EQ(compile({"10.0.0.0", "8", "24", "16"}, &s, &msg), KEL_SHARED_ERR_BAD_LENGTH);
    EXPECT_EQ(compile({"10.0.0.0", "8x", "8", "32"}, &s, &msg), KEL_SHARED_ERR_BAD_VALUE);
    EXPECT_EQ(msg, "Invalid prefix match parameters.");
    EXPECT_EQ(compile({"10.0.0.0", "8", "8"}, &s, &msg), KEL_SHARED_ERR_PARAM_COUNT);
    EXPECT_EQ(msg, "Requires exactly four paramters.");
    EXPECT_EQ(compile({"10.1.255.0", "20", "20", "32"}, &s, &msg), KEL_SHARED_ERR_HOST_BITS);
    EXPECT_EQ(msg, "Invalid prefix: Bits set outside of mask.");
    EXPECT_EQ(compile({"10.1.2.3", "24", "24", "32"}, &s, &msg), 0u)
        << "the fourth byte is not stored";
    kref_stmt_free(s);
    Params var{"10.0.0.0", std::nullopt, "8", "8"};
    char *m = nullptr;
    EXPECT_EQ(shared_kela_ipv4_cmp_match_veri(4, var.vec(), &desc_, &m), KEL_SHARED_ERR_VARIABLE);
    EXPECT_EQ(take(m), "Does not (yet) substitute for variables.");
    EXPECT_EQ(shared_kela_ipv4_cmp_match_veri(4, nullptr, &desc_, &m), KEL_SHARED_ERR_NULL_INPUT);
    EXPECT_EQ(take(m), "Internal error:  no parameter array");
    EXPECT_EQ(shared_kela_ipv4_cmp_match_veri(4, var.vec(), nullptr, &m),
              KEL_SHARED_ERR_NO_PARAM_ARRAY);
    EXPECT_EQ(m, nullptr);

    // The constructor reads its numbers leniently: "8x" is 8.
    Params lenient{"10.0.0.0", "8x", "8", "32"};
    rasf_inst_t *inst = nullptr;
    ASSERT_EQ(shared_kela_ipv4_cmp_match_cons(4, lenient.vec(), lenient.slots(), &desc_, &inst),
              0u);
    kref_inst_info_t info{};
    ASSERT_EQ(kref_inst_get(inst, &info), 0u);
    auto *rec = static_cast<shared_kela_pfxmatch_td *>(info.ctx);
    EXPECT_EQ(rec->len, 8);
    EXPECT_EQ(rec->owner, &desc_);
    V4Route r = route("10.9.0.0", 16);
    int32_t out = -1;
    EXPECT_EQ(info.cmp(&r, 4, lenient.slots(), info.ctx, &out), 0u);
    EXPECT_EQ(out, 1);
    EXPECT_EQ(info.cmp(nullptr, 4, lenient.slots(), info.ctx, &out), KEL_SHARED_ERR_NULL_INPUT);
    EXPECT_EQ(info.cmp(&r, 4, lenient.slots(), info.ctx, nullptr), KEL_SHARED_ERR_NULL_RESULT);
    shared_kela_ipv4_cmp_match_free(info.ctx);
    rasf_free_cmp_instance(inst);
    void *no_slot[4] = {};
    EXPECT_EQ(shared_kela_ipv4_cmp_match_cons(4, lenient.vec(), no_slot, &desc_, &inst),
              KEL_SHARED_ERR_VARIABLE);
    kref_fault_set_after("rasf_new_cmp_instance", 1, 9);
    EXPECT_EQ(shared_kela_ipv4_cmp_match_cons(4, lenient.vec(), lenient.slots(), &desc_, &inst),
              9u);
    EXPECT_EQ(inst, nullptr);
}

TEST(Ipv4Values, ConvertersHostBitsPrintAndCompare) {
    shared_kela_pfxmatch_td *r = nullptr;
    ASSERT_EQ(shared_kela_pfxmatch_cvt_string("2001:db8::", "32", "32", "64", 10, 1, &r), 0u);
    EXPECT_EQ(r->len, 32);
    EXPECT_EQ(r->le, 64);
    EXPECT_EQ(r->ge, 32);
    EXPECT_EQ(r->addr[2], 0x0d);
    EXPECT_EQ(r->addr[3], 0xb8);
    std::free(r);
    EXPECT_EQ(shared_kela_pfxmatch_cvt_string("10.0.0.0", "8", "8", "8", 7, 1, nullptr),
              KEL_SHARED_ERR_BAD_AFI);
    EXPECT_EQ(shared_kela_pfxmatch_cvt_string("10.0.0.0", nullptr, "8", "8", 2, 1, nullptr),
              KEL_SHARED_ERR_NULL_PARAM);
    EXPECT_EQ(shared_kela_pfxmatch_cvt_string("10.0.0.0", "40", "8", "50", 2, 0, nullptr), 0u)
        << "no range lenient";
    EXPECT_EQ(shared_kela_pfxmatch_cvt_string("2001:db8::", "129", "8", "8", 10, 1, nullptr),
              KEL_SHARED_ERR_BAD_LENGTH);

    const uint8_t b[4] = {10, 1, 2, 0};
    EXPECT_EQ(shared_kela_ip_check_prefix(b, 4, 23), 0u);
    EXPECT_EQ(shared_kela_ip_check_prefix(b, 4, 22), KEL_SHARED_ERR_HOST_BITS);
    EXPECT_EQ(shared_kela_ip_check_prefix(b, 2, 8), KEL_SHARED_ERR_HOST_BITS);
    EXPECT_EQ(shared_kela_ip_check_prefix(b, 4, 32), 0u);

    uint8_t out[4] = {9, 9, 9, 9};
    EXPECT_EQ(shared_kela_ipv4_cvt_string("1.2.3.x", nullptr, out), KEL_SHARED_ERR_BAD_VALUE);
    EXPECT_EQ(out[0], 9) << "not written on failure";
    EXPECT_EQ(shared_kela_ipv4_cvt_string(nullptr, nullptr, out), KEL_SHARED_ERR_NULL_INPUT);

    shared_kela_ipv4_desc_td d{"nh", offsetof(V4Route, addr), offsetof(V4Route, len)};
    V4Route a = route("10.1.2.3", 24), same = route("10.1.2.200", 24),
            longer = route("10.1.2.3", 25), p = route("192.0.2.1", 32);
    int32_t o = -1;
    EXPECT_EQ(shared_kela_ipv4_base_cmp(&a, &same, &d, &o), 0u);
    EXPECT_EQ(o, 1);
    EXPECT_EQ(shared_kela_ipv4_base_cmp(&a, &longer, &d, &o), 0u);
    EXPECT_EQ(o, 0);
    EXPECT_EQ(shared_kela_ipv4_base_cmp(&a, nullptr, &d, &o), KEL_SHARED_ERR_NULL_INPUT);
    EXPECT_EQ(shared_kela_ipv4_base_cmp(&a, &same, nullptr, &o), KEL_SHARED_ERR_NULL_RESULT);
    EXPECT_EQ(take(shared_kela_ipv4_base_print(nullptr, &p, &d)), "192.0.2.1/32");
    EXPECT_EQ(take(shared_kela_ipv4_base_print(nullptr, nullptr, &d)), "<<no destination prefix>>");

    Params one{"x"};
    EXPECT_EQ(shared_kela_ipv4_retr_veri(1, one.vec(), &d, nullptr),
              KEL_SHARED_ERR_PARAMS_NOT_ALLOWED);
    EXPECT_EQ(shared_kela_ipv4_retr_veri(0, nullptr, &d, nullptr), KEL_SHARED_ERR_VARIABLE);
}

// ---- MAC ------------------------------------------------------------------------------

TEST(MacText, LenientDottedGroups) {
    struct Case {
        const char *text;
        std::array<uint8_t, 6> bytes;
    };
    const Case cases[] = {
        {"0011.2233.4455", {0x00, 0x11, 0x22, 0x33, 0x44, 0x55}},
        {"AABB.ccDD.eeFF", {0xaa, 0xbb, 0xcc, 0xdd, 0xee, 0xff}},
        {"00:11:22:33:44:55", {}},
        {"0011.22.4455", {0x00, 0x11}},
        {"0011.2233", {0x00, 0x11, 0x22, 0x33}},
        {"00g1.0000.0000", {0x00, 0xf1}},  // 'g' counts as -1: -16 + 1, low 8 bits
        {"0011.2233.4455.6677.8899", {0x00, 0x11, 0x22, 0x33, 0x44, 0x55}},  // never past 6 bytes
        {"0011..2233", {0x00, 0x11}},
        {"", {}},
    };
    for (const Case &c : cases) {
        auto *out =
            static_cast<uint8_t *>(std::calloc(1, 6));  // exactly 6 bytes: ASan sees any overrun
        EXPECT_EQ(shared_kela_cvt_string_to_mac_address(c.text, out), 0u) << c.text;
        EXPECT_EQ(std::memcmp(out, c.bytes.data(), 6), 0) << c.text;
        std::free(out);
    }
    EXPECT_EQ(shared_kela_cvt_string_to_mac_address(nullptr, nullptr), KEL_SHARED_ERR_NULL_PARAM);
    EXPECT_EQ(HextoInt('F'), 15);
    EXPECT_EQ(HextoInt('a'), 10);
    EXPECT_EQ(HextoInt('9'), 9);
    EXPECT_EQ(HextoInt('g'), -1);
    EXPECT_EQ(HextoInt('\xff'), -1);

    const uint8_t bytes[8] = {0x00, 0x1a, 0x2b, 0x3c, 0x4d, 0x5e, 0x6f, 0x70};
    EXPECT_EQ(take(shared_kela_cvt_mac_address_to_string(bytes, 6)), "001a.2b3c.4d5e");
    EXPECT_EQ(take(shared_kela_cvt_mac_address_to_string(bytes, 0)), "");
    EXPECT_EQ(take(shared_kela_cvt_mac_address_to_string(bytes, 3)), "001a.2b");
    EXPECT_EQ(take(shared_kela_cvt_mac_address_to_string(bytes, 8)), "001a.2b3c.4d5e");
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

TEST_F(Mac, MacaddrmatchAgainstAList) {
    const char *list[] = {"0011.2233.4455", "aabb.ccdd.eeff"};
    kref_item_t items[] = {{1, list}, {1, list + 1}};
    kref_stmt_t *s = nullptr;
    ASSERT_EQ(kref_compile("source-mac", KREF_CMP, "macaddrmatch", nullptr, 2, items, nullptr, &s),
              0u);
    auto eval = [&](MacRoute r) {
        int32_t out = -1;
        EXPECT_EQ(kref_eval(s, &r, nullptr, &out), 0u);
        return out;
    };
    EXPECT_EQ(eval({true, {0xaa, 0xbb, 0xcc, 0xdd, 0xee, 0xff}}), 1);
    EXPECT_EQ(eval({true, {0x00, 0x11, 0x22, 0x33, 0x44, 0x55}}), 1);
    EXPECT_EQ(eval({true, {0x00, 0x11, 0x22, 0x33, 0x44, 0x56}}), 0);
    EXPECT_EQ(eval({false, {}}), 0) << "no MAC: no match, no error";
    kref_inst_info_t info{};
    ASSERT_EQ(kref_inst_get(kref_stmt_instance(s), &info), 0u);
    auto *ctx = static_cast<shared_kela_mac_address_match_ctx_td *>(info.ctx);
    EXPECT_EQ(ctx->first->addr[0], 0xaa) << "newest first";
    EXPECT_EQ(ctx->first->next->prev, ctx->first);
    kref_stmt_free(s);

    Params two{"arg0:2", "0011.2233.4455", "aabb.ccdd.eeff"};
    char *msg = nullptr;
    EXPECT_EQ(shared_kela_mac_address_cmp_match_veri(two.count(), two.vec(), &desc_, &msg), 4u);
    EXPECT_EQ(take(msg), "Parameter mismatch.");
    rasf_inst_t *inst = nullptr;
    EXPECT_EQ(
        shared_kela_mac_address_cmp_match_cons(two.count(), two.vec(), two.slots(), &desc_, &inst),
        4u);
    Params late{"arg0:1", "0011.2233.4455", "arg1:2", "a", "b"};
    EXPECT_EQ(shared_kela_mac_address_cmp_match_cons(late.count(), late.vec(), late.slots(), &desc_,
                                                     &inst),
              4u)
        << "entries made before the mismatch are released";
    Params var{"arg0:1", std::nullopt};
    EXPECT_EQ(shared_kela_mac_address_cmp_match_veri(var.count(), var.vec(), &desc_, &msg),
              KEL_SHARED_ERR_NULL_PARAM);
    EXPECT_EQ(msg, nullptr);
    EXPECT_EQ(shared_kela_mac_address_cmp_match_veri(0, var.vec(), &desc_, &msg),
              KEL_SHARED_ERR_PARAM_COUNT);
    EXPECT_EQ(take(msg), "Internal error: no parameters");
    EXPECT_EQ(shared_kela_mac_address_cmp_match_cons(2, var.vec(), var.slots(), nullptr, &inst),
              KEL_SHARED_ERR_NO_PARAM_ARRAY);
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

// Random texts through both converters: nothing but statuses may come out.
TEST(AddressFuzz, RandomTextsNeverOverrun) {
    std::mt19937 rng(4242);
    const std::string alphabet = "0123456789abcdefABCDEFgx.:/- \t";
    auto text = [&] {
        std::string s(rng() % 40, ' ');
        for (char &c : s)
            c = rng() % 8 == 0 ? static_cast<char>(rng() % 256) : alphabet[rng() % alphabet.size()];
        return s;
    };
    int accepted = 0;
    for (int i = 0; i < 20000; ++i) {
        const std::string a = text(), l = std::to_string(rng() % 300), g = text(),
                          e = std::to_string(rng() % 140);
        shared_kela_pfxmatch_td *r = nullptr;
        const int32_t family = rng() % 3 == 0 ? 10 : rng() % 10 == 0 ? 5 : 2;
        if (shared_kela_pfxmatch_cvt_string(a.c_str(), l.c_str(), g.c_str(), e.c_str(), family,
                                            rng() % 2, &r) == 0) {
            ++accepted;
            std::free(r);
        }
        auto *mac = static_cast<uint8_t *>(std::malloc(6));
        EXPECT_EQ(shared_kela_cvt_string_to_mac_address(text().c_str(), mac), 0u);
        std::free(mac);
    }
    // Some addresses must parse for the record path to be exercised too.
    for (const char *a : {"10.0.0.0", "::1"}) {
        shared_kela_pfxmatch_td *r = nullptr;
        EXPECT_EQ(shared_kela_pfxmatch_cvt_string(a, "300", "1", "2", std::strchr(a, ':') ? 10 : 2,
                                                  0, &r),
                  0u);
        std::free(r);
    }
    (void)accepted;
}

}  // namespace
