// The prefix attribute: parsing and printing of addresses, prefixes and
// match entries; single-prefix matching; prefix sets compiled into
// trees (against a linear scan of the single-prefix rule); registration,
// print, "assign", the retriever, and prefix-list decoding.
#include <arpa/inet.h>

#include <cstring>
#include <random>

#include "ipv4_range.h"
#include "kela_callbacks.hpp"
#include "kela_prefix.hpp"
#include "support.hpp"
#include "vog.h"

namespace {

using kt::Params;
using kt::take;

// ---- helpers ---------------------------------------------------------------------

struct Value {
    uint8_t family;
    uint8_t addr[16];
    uint8_t len;
};

Value v(const char *text, uint8_t len) {
    Value out{};
    out.family = std::strchr(text, ':') ? 10 : 2;
    EXPECT_EQ(inet_pton(out.family == 2 ? AF_INET : AF_INET6, text, out.addr), 1) << text;
    out.len = len;
    return out;
}

// A route record as the test client keeps it: one or more prefix values,
// or a getter status to report.
struct Route {
    std::vector<Value> values;
    vogno status = 0;
    bool allocate = false;  // hand out malloc'd addresses (free_addr set)
    size_t next = 0;
    int calls = 0;
};

vogno get_value(void *, void *route, shared_kela_prefix_addr_td *out, uint32_t *more) {
    auto *r = static_cast<Route *>(route);
    ++r->calls;
    if (r->status != 0) return r->status;
    if (r->values.empty()) return 19;
    Value &val = r->values[r->next];
    out->family = val.family;
    out->len = val.len;
    if (r->allocate) {
        out->addr = static_cast<uint8_t *>(std::malloc(16));
        std::memcpy(out->addr, val.addr, 16);
        out->free_addr = 1;
    } else {
        out->addr = val.addr;
    }
    r->next = (r->next + 1) % r->values.size();
    *more = r->next != 0 ? 1 : 0;
    return 0;
}

shared_kela_prefix_matchspec_td *spec(const char *a, const char *l, const char *g, const char *e) {
    shared_kela_prefix_matchspec_td *s = nullptr;
    const bool acl = std::strlen(l) > 3;
    vogno st = acl ? shared_kela_prefix_cvt_string_to_matchspec_acl(a, l, g, e, &s)
                   : shared_kela_prefix_cvt_string_to_matchspec(a, l, g, e, &s);
    EXPECT_EQ(st, 0u) << a << " " << l << " " << g << " " << e;
    return s;
}

int match(const char *a, const char *l, const char *g, const char *e, Value val, int kind) {
    kela::prefix::SpecPtr s(spec(a, l, g, e));
    shared_kela_prefix_addr_td pv{val.family, val.addr, val.len, 0};
    return s->is_acl ? shared_kela_prefix_match_acl(&pv, s.get())
                     : shared_kela_prefix_match(&pv, s.get(),
                                                static_cast<shared_kela_prefix_cmp_td>(kind));
}

// ---- parsing ----------------------------------------------------------------------

TEST(PrefixParse, AddressesPickTheirFamilyByColon) {
    ip_addr_t a;
    uint32_t max = 0;
    EXPECT_EQ(shared_kela_prefix_cvt_string_to_ipaddr("10.0.0.0", &a, &max), 0u);
    EXPECT_EQ(a.family, 2);
    EXPECT_EQ(a.length, 4);
    EXPECT_EQ(max, 32u);
    EXPECT_EQ(shared_kela_prefix_cvt_string_to_ipaddr("2001:db8::", &a, &max), 0u);
    EXPECT_EQ(a.family, 10);
    EXPECT_EQ(max, 128u);
    EXPECT_EQ(shared_kela_prefix_cvt_string_to_ipaddr("::", &a, &max), 0u);
    EXPECT_EQ(shared_kela_prefix_cvt_string_to_ipaddr("10.0.0.0:1", &a, &max),
              KEL_SHARED_ERR_BAD_VALUE);
    EXPECT_EQ(shared_kela_prefix_cvt_string_to_ipaddr("10.0.0.256", &a, &max),
              KEL_SHARED_ERR_BAD_VALUE);
    EXPECT_EQ(shared_kela_prefix_cvt_string_to_ipaddr("10.0.0.0/8", &a, &max),
              KEL_SHARED_ERR_BAD_VALUE);
}

TEST(PrefixParse, LengthFormBoundsAndStrictness) {
    struct Case {
        const char *a, *l, *g, *e;
        vogno status;
        uint8_t len = 0, ge = 0, le = 0;
    };
    const Case cases[] = {
        {"10.0.0.0", "8", "16", "24", 0, 8, 16, 24},
        {"10.0.0.0", "8", "24", "16", KEL_SHARED_ERR_BAD_LENGTH},
        {"10.0.0.0", "8", "8", "33", KEL_SHARED_ERR_BAD_LENGTH},
        {"10.0.0.0", "8", "8", "32", 0, 8, 8, 32},
        {"2001:db8::", "32", "32", "128", 0, 32, 32, 128},
        {"2001:db8::", "32", "32", "129", KEL_SHARED_ERR_BAD_LENGTH},
        {"10.0.0.0", "40", "8", "32", 0, 40, 8, 32},   // the length is not range-checked
        {"10.0.0.0", "300", "8", "32", 0, 44, 8, 32},  // low 8 bits
        {"10.0.0.0", "8x", "8", "32", KEL_SHARED_ERR_BAD_VALUE},
        {"10.0.0.0", "8", "8", " 32", 0, 8, 8, 32},
        {"10.0.0.0/8", "8", "8", "32", KEL_SHARED_ERR_BAD_VALUE},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(std::string(c.a) + " " + c.l + " " + c.g + " " + c.e);
        shared_kela_prefix_matchspec_td *s = nullptr;
        ASSERT_EQ(shared_kela_prefix_cvt_string_to_matchspec(c.a, c.l, c.g, c.e, &s), c.status);
        if (c.status != 0) {
            EXPECT_EQ(s, nullptr);
            continue;
        }
        EXPECT_EQ(s->len, c.len);
        EXPECT_EQ(s->ge, c.ge);
        EXPECT_EQ(s->le, c.le);
        EXPECT_EQ(s->mask, nullptr);
        EXPECT_EQ(s->is_acl, 0u);
        kela::prefix::free_spec(s);
    }
    shared_kela_prefix_matchspec_td *s = nullptr;
    EXPECT_EQ(shared_kela_prefix_cvt_string_to_matchspec("10.0.0.0", nullptr, "8", "8", &s),
              KEL_SHARED_ERR_BAD_VALUE);

    // Without the check flag numbers are lenient and no bound applies.
    ip_addr_t a;
    uint32_t len, ge, le;
    EXPECT_EQ(
        shared_kela_prefix_cvt_string_to_pfx("10.0.0.0", "12abc", "40", "3", &a, &len, &ge, &le, 0),
        0u);
    EXPECT_EQ(len, 12u);
    EXPECT_EQ(
        shared_kela_prefix_cvt_string_to_pfx("10.0.0.0", "8", "8", "8", &a, nullptr, &ge, &le, 1),
        KEL_SHARED_ERR_NULL_INPUT);
}

TEST(PrefixParse, AddressMaskFormHasNoBoundChecks) {
    kela::prefix::SpecPtr s(spec("10.0.0.0", "0.255.255.255", "30", "8"));
    ASSERT_TRUE(s);
    EXPECT_EQ(s->is_acl, 1u);
    EXPECT_EQ(s->len, 0);
    EXPECT_EQ(s->ge, 30);
    EXPECT_EQ(s->le, 8);
    ASSERT_NE(s->mask, nullptr);
    EXPECT_EQ(s->mask[0], 0);
    EXPECT_EQ(s->mask[1], 255);
    shared_kela_prefix_matchspec_td *bad = nullptr;
    EXPECT_EQ(
        shared_kela_prefix_cvt_string_to_matchspec_acl("10.0.0.0", "0.255.255.255", "x", "8", &bad),
        KEL_SHARED_ERR_BAD_VALUE);
    EXPECT_EQ(bad, nullptr);
}

TEST(PrefixPrint, ValuesAndHostPrefixes) {
    Value a = v("10.1.0.0", 16);
    shared_kela_prefix_addr_td pa{2, a.addr, 16, 0};
    EXPECT_EQ(take(shared_kela_prefix_cvt_pfx_to_string(&pa, 0)), "10.1.0.0/16");
    EXPECT_EQ(take(shared_kela_prefix_cvt_pfx_to_string(&pa, 1)), "10.1.0.0");
    EXPECT_EQ(take(shared_kela_prefix_cvt_pfx_to_string(nullptr, 0)), "<<error prefix>>");
    Value b = v("2001:db8::1", 0);
    shared_kela_prefix_addr_td pb{10, b.addr, 128, 0};
    EXPECT_EQ(take(shared_kela_prefix_cvt_pfx_to_string(&pb, 0)), "2001:db8::1/128");

    ip_addr_t ip;
    ASSERT_EQ(shared_kela_prefix_cvt_string_to_ipaddr("192.0.2.1", &ip, nullptr), 0u);
    shared_kela_prefix_addr_td host{0, nullptr, 0, 7};
    ASSERT_EQ(shared_kela_prefix_ipaddr_to_pfxaddr(&ip, &host), 0u);
    EXPECT_EQ(host.addr, ip.addr) << "points into the input";
    EXPECT_EQ(host.len, 32);
    EXPECT_EQ(host.free_addr, 7u) << "left as it was";
}

TEST(PrefixPrintDeathTest, UnknownFamiliesStopTheProcess) {
    EXPECT_DEATH(shared_kela_prefix_key_len(7), "uchar_t shared_kela_prefix_key_len\\(uint8_t\\)");
    EXPECT_DEATH(shared_kela_prefix_key_bytes(0),
                 "uchar_t shared_kela_prefix_key_bytes\\(uint8_t\\)");
}

// ---- single-prefix matching -----------------------------------------------------------

TEST(PrefixMatch, LengthFormRules) {
    struct Case {
        const char *l, *g, *e;
        const char *value;
        uint8_t len;
        int kind, want;
    };
    const Case cases[] = {
        {"8", "8", "8", "10.0.0.0", 8, 1, 1},
        {"8", "8", "8", "10.1.0.0", 16, 1, 0},
        {"8", "8", "8", "10.0.0.0", 9, 1, 0},
        {"8", "8", "8", "11.0.0.0", 8, 1, 0},
        {"8", "0", "0", "10.0.0.0", 8, 1, 1},
        {"8", "16", "24", "10.1.2.0", 24, 1, 1},
        {"8", "16", "24", "10.255.0.0", 16, 1, 1},
        {"8", "16", "24", "10.1.2.0", 25, 1, 0},
        {"8", "16", "24", "10.0.0.0", 8, 1, 0},
        {"8", "16", "24", "11.1.2.0", 24, 1, 0},
        {"8", "8", "8", "10.1.0.0", 16, 2, 1},
        {"8", "8", "8", "10.1.2.3", 32, 2, 1},
        {"8", "8", "8", "10.0.0.0", 8, 2, 0},
        {"8", "8", "8", "10.0.0.0", 8, 3, 1},
        {"8", "8", "8", "10.1.0.0", 16, 3, 1},
        {"8", "8", "8", "0.0.0.0", 0, 3, 0},
        {"8", "16", "16", "10.1.0.0", 16, 2, 0},
        {"8", "16", "16", "10.1.0.0", 17, 2, 1},
        {"8", "8", "8", "10.1.2.3", 0, 1, 0},  // no length: taken at 8, other bits differ
        {"8", "8", "8", "10.0.0.0", 0, 1, 1},
        {"8", "8", "8", "10.0.0.0", 0, 7, 1},  // unknown kind: 1
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(std::string("10.0.0.0/") + c.l + " ge " + c.g + " le " + c.e + " vs " +
                     c.value + "/" + std::to_string(c.len) + " kind " + std::to_string(c.kind));
        EXPECT_EQ(match("10.0.0.0", c.l, c.g, c.e, v(c.value, c.len), c.kind), c.want);
    }
    EXPECT_EQ(match("2001:db8::", "32", "48", "64", v("2001:db8:1::", 48), 1), 1);
    EXPECT_EQ(match("2001:db8::", "32", "48", "64", v("2001:db8:1:2::", 64), 1), 1);
    EXPECT_EQ(match("2001:db8::", "32", "48", "64", v("2001:db8:1::", 47), 1), 0);
    EXPECT_EQ(match("2001:db8::", "32", "48", "64", v("2001:db9::", 48), 1), 0);
    for (int kind = 1; kind <= 3; ++kind) {
        EXPECT_EQ(match("::", "0", "0", "128", v("10.0.0.0", 8), kind), 0) << "families never mix";
        EXPECT_EQ(match("0.0.0.0", "0", "0", "32", v("::", 0), kind), 0);
    }
}

TEST(PrefixMatch, LongerKindsStoreTheFamilyMaximum) {
    kela::prefix::SpecPtr s(spec("2001:db8::", "32", "32", "48"));
    Value val = v("2001:db8:1::", 64);
    shared_kela_prefix_addr_td pv{10, val.addr, 64, 0};
    EXPECT_EQ(shared_kela_prefix_match(&pv, s.get(), SHARED_KELA_PREFIX_CMP_MATCH), 0);
    EXPECT_EQ(s->le, 48);
    EXPECT_EQ(shared_kela_prefix_match(&pv, s.get(), SHARED_KELA_PREFIX_CMP_ORLONGER), 1);
    EXPECT_EQ(s->le, 128);
}

TEST(PrefixMatch, AddressMaskForm) {
    EXPECT_EQ(match("10.0.0.0", "0.255.255.255", "8", "24", v("10.9.9.0", 24), 1), 1);
    EXPECT_EQ(match("10.0.0.0", "0.255.255.255", "8", "24", v("10.9.9.0", 25), 1), 0);
    EXPECT_EQ(match("10.0.0.0", "0.255.255.255", "8", "24", v("11.0.0.0", 8), 1), 0);
    EXPECT_EQ(match("10.0.0.0", "0.0.255.0", "24", "24", v("10.0.7.0", 24), 1), 1);
    EXPECT_EQ(match("10.0.0.0", "0.0.255.0", "24", "24", v("10.0.7.1", 24), 1), 0);
    EXPECT_EQ(match("2001:db8::", "0:ffff::", "32", "64", v("2001:1234::", 48), 1), 1);
    EXPECT_EQ(match("2001:db8::", "0:ffff::", "32", "64", v("2002:db8::", 48), 1), 0);
}

// ---- the attribute ------------------------------------------------------------------

vogno set_value(shared_kela_prefix_desc_td *, void *route, void *slot,
                shared_kela_prefix_desc_td *) {
    auto *r = static_cast<Route *>(route);
    const ip_addr_t *a = static_cast<const ip_addr_t *>(slot);
    Value val{};
    val.family = a->family;
    std::memcpy(val.addr, a->addr, 16);
    val.len = a->family == 2 ? 32 : 128;
    r->values = {val};
    return 0;
}

vogno is_default(shared_kela_prefix_extra_op_td *, void *route, uint8_t arg, int32_t *out) {
    auto *r = static_cast<Route *>(route);
    *out = !r->values.empty() && r->values[0].len == arg;
    return 0;
}

class PrefixAttr : public kt::FrameworkTest {
  protected:
    void SetUp() override {
        kt::FrameworkTest::SetUp();
        ASSERT_EQ(shared_kela_prefix_base_init(nullptr, nullptr, 0, &desc_, locs_, locs_, nullptr,
                                               nullptr),
                  0u);
    }

    // Compiles `op` over (address, length-or-mask, ge, le) entries.
    kref_stmt_t *compile(const char *op, const std::vector<std::vector<const char *>> &entries,
                         vogno want = 0, std::string *msg_out = nullptr) {
        std::vector<kref_item_t> items;
        for (const auto &e : entries) items.push_back({static_cast<uint32_t>(e.size()), e.data()});
        kref_stmt_t *stmt = nullptr;
        char *msg = nullptr;
        EXPECT_EQ(kref_compile("destination", KREF_CMP, op, "import", items.size(), items.data(),
                               &msg, &stmt),
                  want);
        if (msg_out) *msg_out = take(msg);
        std::free(msg);
        return stmt;
    }
    int eval(kref_stmt_t *stmt, Route r, vogno want = 0) {
        int32_t out = -1;
        EXPECT_EQ(kref_eval(stmt, &r, nullptr, &out), want);
        return out;
    }

    shared_kela_prefix_extra_op_td extra_[1] = {{"is-default", kExtraLocs, is_default, 0}};
    shared_kela_prefix_desc_td desc_{"destination", get_value, set_value, extra_, 1};
    static constexpr const char *locs_[] = {"import", "export", nullptr};
    static constexpr const char *kExtraLocs[] = {"export", nullptr};
};

TEST_F(PrefixAttr, RegistersOperatorsSetterThenExtrasWithTheirNumbers) {
    kref_reset();
    kref_trace_start();
    ASSERT_EQ(
        shared_kela_prefix_base_init(nullptr, nullptr, 0, &desc_, locs_, locs_, nullptr, nullptr),
        0u);
    std::vector<std::string> decl;
    for (auto &l : kt::trace())
        if (l.rfind("rasf_kela_add_cmp(", 0) == 0 || l.rfind("rasf_kela_add_set(", 0) == 0 ||
            l.rfind("rasf_kela_add_retriever(", 0) == 0 || l.rfind("rasf_kela_new", 0) == 0 ||
            l.rfind("rasf_args_", 0) == 0)
            decl.push_back(l);
    EXPECT_EQ(
        decl,
        (std::vector<std::string>{
            "rasf_kela_new(destination, (null), 1.0)", "rasf_kela_add_cmp(pfxmatch, destination)",
            "rasf_args_new()", "rasf_args_infinite_add(uint32_t, 1.0, 0)",
            "rasf_kela_add_cmp(pfxlonger, destination)", "rasf_args_new()",
            "rasf_args_infinite_add(uint32_t, 1.0, 0)",
            "rasf_kela_add_cmp(pfxorlonger, destination)", "rasf_args_new()",
            "rasf_args_infinite_add(uint32_t, 1.0, 0)", "rasf_kela_add_set(assign, destination)",
            "rasf_args_new()", "rasf_args_single_add(ip_addr_t, 1.0)",
            "rasf_kela_add_cmp(is-default, destination)", "rasf_args_new()",
            "rasf_args_infinite_add(uint32_t, 1.0, 0)"}));
    kref_op_info_t info{};
    ASSERT_EQ(kref_attr_op(kref_attr_find("destination"), KREF_CMP, "is-default", &info), 0u);
    EXPECT_EQ(info.desc, &extra_[0]) << "the entry is the extra operator's context";
    ASSERT_EQ(info.n_locations, 1u);
    EXPECT_STREQ(info.locations[0], "export");

    struct Case {
        const char *op;
        uint32_t nth;
        const char *message;
    };
    for (const Case &c : {Case{"rasf_args_new", 1, "rasf_args_new at kela_prefix@2859"},
                          Case{"rasf_args_infinite_add", 2,
                               "rasf_args_infinite_add: uint32_t:1.0 (0 ) at kela_prefix@2878"},
                          Case{"rasf_args_new", 3, "rasf_args_new at kela_prefix@2895"},
                          Case{"rasf_args_single_add", 1,
                               "rasf_args_single_add: ip_addr_t:1.0 at kela_prefix@2915"},
                          Case{"rasf_args_new", 5, "rasf_args_new at kela_prefix@2938"},
                          Case{"rasf_args_infinite_add", 4,
                               "rasf_args_infinite_add: uint32_t:1.0 (0 ) at kela_prefix@2939"}}) {
        kref_reset();
        kref_fault_set(c.op, c.nth, 3);
        char buf[100];
        EXPECT_EQ(shared_kela_prefix_base_init(nullptr, buf, sizeof buf, &desc_, locs_, locs_,
                                               nullptr, nullptr),
                  3u);
        EXPECT_STREQ(buf, c.message);
    }
}

TEST_F(PrefixAttr, SetsMatchWildTreeAndMaskEntries) {
    kref_stmt_t *set = compile("pfxmatch", {{"0.0.0.0", "0", "0", "8"},
                                            {"10.0.0.0", "8", "8", "32"},
                                            {"10.1.0.0", "16", "16", "16"},
                                            {"172.16.0.0", "0.15.255.255", "12", "24"},
                                            {"192.168.0.0", "0.0.255.255", "16", "24"},
                                            {"2001:db8::", "32", "48", "64"}});
    ASSERT_NE(set, nullptr);
    EXPECT_EQ(eval(set, {{v("9.0.0.0", 7)}}), 1) << "wild entry";
    EXPECT_EQ(eval(set, {{v("9.0.0.0", 9)}}), 0);
    EXPECT_EQ(eval(set, {{v("10.1.0.0", 17)}}), 1) << "10.1/16 refuses, 10/8 accepts";
    EXPECT_EQ(eval(set, {{v("10.1.0.0", 16)}}), 1);
    EXPECT_EQ(eval(set, {{v("11.0.0.0", 16)}}), 0);
    EXPECT_EQ(eval(set, {{v("172.20.1.0", 24)}}), 1) << "second mask";
    EXPECT_EQ(eval(set, {{v("172.32.1.0", 24)}}), 0);
    EXPECT_EQ(eval(set, {{v("192.168.9.0", 24)}}), 1);
    EXPECT_EQ(eval(set, {{v("192.168.9.0", 25)}}), 0);
    EXPECT_EQ(eval(set, {{v("2001:db8:5::", 56)}}), 1);
    EXPECT_EQ(eval(set, {{v("2001:db8:5::", 65)}}), 0);
    EXPECT_EQ(eval(set, {{v("11.0.0.0", 16), v("10.0.0.0", 12)}}), 1)
        << "second value of the route";
    Route none;
    EXPECT_EQ(eval(set, none), 0) << "status 19: no value";
    Route sixteen{{v("10.0.0.0", 8)}, 16};
    EXPECT_EQ(eval(set, sixteen), 0);
    Route failing{{v("10.0.0.0", 8)}, 5};
    EXPECT_EQ(eval(set, failing, 5), 0) << "other getter statuses are passed on";
    Route allocated{{v("11.0.0.0", 16), v("12.0.0.0", 9)}, 0, true};
    EXPECT_EQ(eval(set, allocated), 0) << "free_addr honoured (LeakSanitizer)";
    kref_stmt_free(set);
}

TEST_F(PrefixAttr, OneAddressAndMaskWithSeveralBoundsKeepsThemAll) {
    kref_stmt_t *set = compile("pfxmatch", {{"10.0.0.0", "0.255.255.255", "8", "8"},
                                            {"10.0.0.0", "0.255.255.255", "8", "8"},
                                            {"10.0.0.0", "0.255.255.255", "24", "24"}});
    ASSERT_NE(set, nullptr);
    EXPECT_EQ(eval(set, {{v("10.1.2.0", 24)}}), 1);
    EXPECT_EQ(eval(set, {{v("10.0.0.0", 8)}}), 1);
    EXPECT_EQ(eval(set, {{v("10.0.0.0", 16)}}), 0);
    kref_inst_info_t info{};
    ASSERT_EQ(kref_inst_get(kref_stmt_instance(set), &info), 0u);
    auto *ctx = static_cast<shared_kela_prefix_match_ctx_td *>(info.ctx);
    int nodes = 0;
    for (auto *n = *ctx->v4_lists; n != nullptr; n = n->next) ++nodes;
    EXPECT_EQ(nodes, 2) << "the true duplicate is dropped, the other bounds get a second node";
    kref_stmt_free(set);
}

TEST_F(PrefixAttr, MoreValuesAreFetchedUntilOneMatches) {
    kref_stmt_t *set = compile("pfxmatch", {{"10.0.0.0", "8", "8", "8"}});
    Route r{{v("1.0.0.0", 8), v("10.0.0.0", 8), v("2.0.0.0", 8)}};
    int32_t out = -1;
    ASSERT_EQ(kref_eval(set, &r, nullptr, &out), 0u);
    EXPECT_EQ(out, 1);
    EXPECT_EQ(r.calls, 2) << "later values are not fetched";
    kref_stmt_free(set);
}

TEST_F(PrefixAttr, DuplicatesShareOneEntryAndLongerKindsUseTheMaximum) {
    Params p{"arg0:4", "10.0.0.0", "8",      "8",        "8", "arg1:4", "10.0.0.0", "8",
             "8",      "8",        "arg2:4", "10.0.0.0", "8", "16",     "24"};
    rasf_inst_t *inst = nullptr;
    ASSERT_EQ(shared_kela_prefix_cmp_longer_cons(p.count(), p.vec(), p.slots(), &desc_, &inst), 0u);
    kref_inst_info_t info{};
    ASSERT_EQ(kref_inst_get(inst, &info), 0u);
    auto *ctx = static_cast<shared_kela_prefix_match_ctx_td *>(info.ctx);
    uint8_t key[4] = {10, 0, 0, 0};
    auto *entry = static_cast<shared_kela_prefix_info_td *>(rn_search(ctx->v4_head, key, 8));
    ASSERT_NE(entry, nullptr);
    ASSERT_EQ(entry->count, 2) << "the second (10/8 8 8) is dropped; (8 16 24) shares the key";
    EXPECT_EQ(entry->specs[0]->le, 32) << "longer kinds match up to the family maximum";
    EXPECT_EQ(entry->specs[1]->ge, 16);
    EXPECT_STREQ(info.print_ctx, "destination longer-than (%");
    EXPECT_EQ(shared_kela_prefix_cmp_match_free(info.ctx), 0u);
    EXPECT_EQ(rasf_free_cmp_instance(inst), 0u);
}

TEST_F(PrefixAttr, VerifierAndConstructorRefusals) {
    std::string msg;
    kref_stmt_t *s =
        compile("pfxmatch", {{"10.0.0.0", "8", "24", "16"}}, KEL_SHARED_ERR_BAD_LENGTH, &msg);
    EXPECT_EQ(s, nullptr);
    EXPECT_EQ(msg, "Invalid prefix match parameters.");
    compile("pfxmatch", {{"10.0.0.0", "8", "16"}}, 4, &msg);
    EXPECT_EQ(msg, "Parameter mismatch.");
    Params acl{"arg0:4", "10.0.0.0", "0.255.255.255", "x", "y"};
    EXPECT_EQ(shared_kela_prefix_cmp_match_veri(acl.count(), acl.vec(), &desc_, nullptr), 0u)
        << "the verifier does not examine the bounds of address/mask entries";
    compile("pfxmatch", {{"10.0.0.0", "0.255.255.255", "x", "y"}}, 4, &msg);  // the build does
    compile("pfxmatch", {{"10.0.0.0", "0.255.255.25x", "8", "8"}}, KEL_SHARED_ERR_BAD_VALUE, &msg);
    EXPECT_EQ(msg, "Invalid prefix match parameters.");

    rasf_verify_fn verify = shared_kela_prefix_cmp_match_veri;
    char *m = nullptr;
    Params bad{"arg1:4", "10.0.0.0", "8", "8", "8"};
    EXPECT_EQ(verify(bad.count(), bad.vec(), &desc_, &m), KEL_SHARED_ERR_BAD_VALUE);
    EXPECT_EQ(take(m), "Internal error:  malformed paramters");
    EXPECT_EQ(verify(5, nullptr, &desc_, &m), KEL_SHARED_ERR_NULL_INPUT);
    EXPECT_EQ(take(m), "Internal error:  no parameter array");
    EXPECT_EQ(verify(0xFFFFFFFFu, bad.vec(), &desc_, &m), KEL_SHARED_ERR_NULL_INPUT);
    EXPECT_EQ(take(m), "Internal error:  no parameter array");
    EXPECT_EQ(verify(0, nullptr, &desc_, &m), 0u);

    // Constructors: variables, missing descriptor, failed builds.
    rasf_inst_t *inst = nullptr;
    Params good{"arg0:4", "10.0.0.0", "8", "8", "8"};
    void *no_slots[5] = {nullptr, nullptr, nullptr, nullptr, nullptr};
    EXPECT_EQ(shared_kela_prefix_cmp_match_cons(5, good.vec(), no_slots, &desc_, &inst),
              KEL_SHARED_ERR_VARIABLE);
    EXPECT_EQ(shared_kela_prefix_cmp_match_cons(5, good.vec(), nullptr, &desc_, &inst),
              KEL_SHARED_ERR_NULL_INPUT);
    EXPECT_EQ(shared_kela_prefix_cmp_match_cons(5, good.vec(), good.slots(), nullptr, &inst),
              KEL_SHARED_ERR_NO_PARAM_ARRAY);
    Params three{"arg0:4", "10.0.0.0", "8", "8", "8", "arg1:3", "10.0.0.0", "8", "8"};
    EXPECT_EQ(
        shared_kela_prefix_cmp_match_cons(three.count(), three.vec(), three.slots(), &desc_, &inst),
        4u);
    Params bad_addr{"arg0:4", "10.0.0.0", "8", "8", "8", "arg1:4", "10.0.0.300", "8", "8", "8"};
    EXPECT_EQ(shared_kela_prefix_cmp_match_cons(bad_addr.count(), bad_addr.vec(), bad_addr.slots(),
                                                &desc_, &inst),
              4u);
    EXPECT_EQ(inst, nullptr);
    for (const char *op : {"rasf_new_cmp_instance", "rasf_kela_add_cmp_instance_function_print",
                           "rasf_kela_add_cmp_instance_function_print_ctx"}) {
        kref_fault_set_after(op, 1, 77);
        EXPECT_EQ(shared_kela_prefix_cmp_match_cons(5, good.vec(), good.slots(), &desc_, &inst),
                  77u)
            << op;
        EXPECT_EQ(inst, nullptr);
    }

    // The empty set matches nothing.
    ASSERT_EQ(shared_kela_prefix_cmp_match_cons(0, nullptr, nullptr, &desc_, &inst), 0u);
    kref_inst_info_t info{};
    ASSERT_EQ(kref_inst_get(inst, &info), 0u);
    Route r{{v("10.0.0.0", 8)}};
    int32_t out = -1;
    EXPECT_EQ(info.cmp(&r, 0, nullptr, info.ctx, &out), 0u);
    EXPECT_EQ(out, 0);
    shared_kela_prefix_cmp_match_free(info.ctx);
    rasf_free_cmp_instance(inst);
    EXPECT_EQ(info.cmp(&r, 0, nullptr, nullptr, &out), KEL_SHARED_ERR_NO_PARAM_ARRAY);
}

TEST_F(PrefixAttr, PrintsTheFirstEntry) {
    struct Case {
        const char *op;
        std::vector<const char *> entry;
        const char *text;
    };
    const Case cases[] = {
        {"pfxmatch", {"10.0.0.0", "8", "16", "24"}, "destination in (10.0.0.0/8 ge 16 le 24 ...)"},
        {"pfxmatch", {"10.0.0.0", "8", "8", "32"}, "destination in (10.0.0.0/8 ...)"},
        {"pfxmatch", {"10.0.0.0", "8", "8", "8"}, "destination in (10.0.0.0/8 eq 8 ...)"},
        {"pfxmatch", {"10.0.0.0", "8", "16", "32"}, "destination in (10.0.0.0/8 ge 16 ...)"},
        {"pfxmatch", {"10.0.0.0", "8", "8", "24"}, "destination in (10.0.0.0/8 le 24 ...)"},
        {"pfxmatch",
         {"10.0.0.0", "0.255.255.255", "8", "24"},
         "destination in (10.0.0.0/0.255.255.255 ...)"},
        {"pfxmatch", {"2001:db8::", "32", "32", "128"}, "destination in (2001:db8::/32 ...)"},
        {"pfxlonger", {"10.0.0.0", "8", "8", "32"}, "destination longer-than (10.0.0.0/8 ...)"},
        {"pfxorlonger", {"10.0.0.0", "8", "8", "32"}, "destination or-longer (10.0.0.0/8 ...)"},
    };
    for (const Case &c : cases) {
        kref_stmt_t *s = compile(c.op, {c.entry, {"11.0.0.0", "8", "8", "8"}});
        ASSERT_NE(s, nullptr);
        EXPECT_EQ(take(kref_stmt_print(s)), c.text);
        kref_stmt_free(s);
    }
}

TEST_F(PrefixAttr, AssignRetrieverAndExtraOperator) {
    Params ok{"10.0.0.1"}, v6{"2001:db8::1"}, pfx{"10.0.0.0/8"};
    char *m = nullptr;
    EXPECT_EQ(shared_kela_prefix_set_assign_veri(1, ok.vec(), &desc_, &m), 0u);
    EXPECT_EQ(take(m), vog_strerror(0)) << "a message even on success";
    EXPECT_EQ(shared_kela_prefix_set_assign_veri(1, v6.vec(), &desc_, &m), 0u);
    std::free(m);
    m = nullptr;
    EXPECT_EQ(shared_kela_prefix_set_assign_veri(1, pfx.vec(), &desc_, &m),
              KEL_SHARED_ERR_BAD_VALUE);
    EXPECT_EQ(take(m), vog_strerror(KEL_SHARED_ERR_BAD_VALUE));
    EXPECT_EQ(shared_kela_prefix_set_assign_veri(2, ok.vec(), &desc_, nullptr),
              KEL_SHARED_ERR_PARAM_COUNT);
    EXPECT_EQ(shared_kela_prefix_set_assign_veri(1, nullptr, &desc_, nullptr),
              KEL_SHARED_ERR_NULL_PARAM);

    const char *texts[] = {"10.0.0.1"};
    kref_item_t item{1, texts};
    kref_stmt_t *stmt = nullptr;
    ASSERT_EQ(kref_compile("destination", KREF_SET, "assign", "export", 1, &item, nullptr, &stmt),
              0u);
    EXPECT_EQ(take(kref_stmt_print(stmt)), "set destination 10.0.0.1");
    Route r;
    EXPECT_EQ(kref_apply(stmt, &r), 0u);
    ASSERT_EQ(r.values.size(), 1u);
    EXPECT_EQ(r.values[0].addr[3], 1) << "the framework's address record reached the client";
    kref_stmt_free(stmt);
    rasf_inst_t *inst = nullptr;
    void *no_slot[1] = {nullptr};
    EXPECT_EQ(shared_kela_prefix_set_assign_cons(1, ok.vec(), no_slot, &desc_, &inst),
              KEL_SHARED_ERR_NULL_PARAM);

    EXPECT_EQ(shared_kela_prefix_retr_veri(0, nullptr, &desc_, nullptr),
              KEL_SHARED_ERR_PARAMS_NOT_ALLOWED);
    ASSERT_EQ(shared_kela_prefix_retr_cons(0, nullptr, nullptr, &desc_, &inst), 0u);
    kref_inst_info_t info{};
    ASSERT_EQ(kref_inst_get(inst, &info), 0u);
    EXPECT_EQ(info.ctx, nullptr);
    uint32_t got = 0;
    EXPECT_EQ(info.retrieve(&r, nullptr, nullptr, &got, nullptr),
              KEL_SHARED_ERR_PARAMS_NOT_ALLOWED);
    rasf_free_retriever_instance(inst);

    ASSERT_EQ(
        kref_compile("destination", KREF_CMP, "is-default", "export", 0, nullptr, nullptr, &stmt),
        0u);
    EXPECT_EQ(eval(stmt, {{v("0.0.0.0", 0)}}), 1);
    EXPECT_EQ(eval(stmt, {{v("10.0.0.0", 8)}}), 0);
    kref_stmt_free(stmt);
    std::string msg;
    EXPECT_EQ(
        kref_compile("destination", KREF_CMP, "is-default", "import", 0, nullptr, nullptr, &stmt),
        KREF_ERR_LOCATION);
    const char *one[] = {"1"};
    kref_item_t arg{1, one};
    char *em = nullptr;
    EXPECT_EQ(kref_compile("destination", KREF_CMP, "is-default", nullptr, 1, &arg, &em, &stmt),
              KEL_SHARED_ERR_PARAM_COUNT);
    EXPECT_EQ(take(em), "Parameters are not allowed !!!");
}

TEST_F(PrefixAttr, BasePrintAndCompare) {
    rasf_attr_t *attr = kref_attr_find("destination");
    Route a{{v("10.1.0.0", 16)}}, b{{v("10.1.0.0", 24)}}, c{{v("2001:db8::", 32)}};
    EXPECT_EQ(take(kref_attr_print(attr, &a)), "10.1.0.0/16");
    Route none;
    EXPECT_EQ(take(kref_attr_print(attr, &none)), "<<no prefix>>");
    int32_t out = 9;
    EXPECT_EQ(kref_attr_compare(attr, &a, &b, &out), 0u);
    EXPECT_EQ(out, 0) << "lengths are not compared";
    EXPECT_EQ(kref_attr_compare(attr, &a, &c, &out), 0u);
    EXPECT_EQ(out, 0) << "families differ";
    Route d{{v("10.2.0.0", 16)}};
    EXPECT_EQ(kref_attr_compare(attr, &a, &d, &out), 0u);
    EXPECT_LT(out, 0);
    EXPECT_EQ(kref_attr_compare(attr, nullptr, &d, &out), KEL_SHARED_ERR_NULL_INPUT);
    EXPECT_EQ(kref_attr_compare(attr, &a, &d, nullptr), KEL_SHARED_ERR_NULL_RESULT);
}

// ---- decoding ----------------------------------------------------------------------------

TEST(PrefixDecode, FlagsChooseWhatIsKeptAndDecodingAppends) {
    Params p{"arg0:4", "10.0.0.0", "8", "8", "8", "arg1:4", "10.0.0.0", "8", "16", "24"};
    for (uint32_t flags : {0u, 1u, 2u, 3u}) {
        shared_kela_pcl_query_pfx_ctx_t q{};
        q.flags = flags;
        shared_kela_decode_pfxs(p.count(), p.vec(), &q);
        EXPECT_EQ(q.status, 0u);
        EXPECT_EQ(q.count, int(flags == 0 ? 0 : flags == 3 ? 2 : 1)) << flags;
        if (flags == 1 || flags == 2) {
            EXPECT_EQ(q.pfxs[0]->le, flags == 1 ? 8 : 24);
        }
        shared_kela_decode_pfxs(p.count(), p.vec(), &q);
        EXPECT_EQ(q.count, int(flags == 0 ? 0 : flags == 3 ? 4 : 2)) << "appended";
        shared_kela_free_query_ctx(&q);
        EXPECT_EQ(q.pfxs, nullptr);
        EXPECT_EQ(q.count, 0);
        EXPECT_EQ(q.flags, 0u);
    }
    Params acl{"arg0:4", "10.0.0.0", "0.255.255.255", "8", "24"};
    shared_kela_pcl_query_pfx_ctx_t q{};
    q.flags = 4;
    shared_kela_decode_pfxs(acl.count(), acl.vec(), &q);
    ASSERT_EQ(q.count, 1);
    EXPECT_EQ(q.pfxs[0]->is_acl, 1u);
    shared_kela_free_query_ctx(&q);
}

TEST(PrefixDecode, FailuresKeepWhatWasDecoded) {
    shared_kela_pcl_query_pfx_ctx_t q{};
    q.flags = 3;
    Params three{"arg0:4", "10.0.0.0", "8", "8", "8", "arg1:3", "1.0.0.0", "8", "8"};
    shared_kela_decode_pfxs(three.count(), three.vec(), &q);
    EXPECT_EQ(q.status, 4u);
    EXPECT_EQ(q.count, 1);
    Params bad{"arg0:4", "10.0.0.0", "8", "8", "8", "arg1:4", "1.0.0.x", "8", "8", "8"};
    shared_kela_decode_pfxs(bad.count(), bad.vec(), &q);
    EXPECT_EQ(q.status, 4u);
    EXPECT_EQ(q.count, 2);
    Params malformed{"foo"};
    shared_kela_decode_pfxs(1, malformed.vec(), &q);
    EXPECT_EQ(q.status, KEL_SHARED_ERR_BAD_VALUE);
    EXPECT_EQ(q.count, 2);
    shared_kela_decode_pfxs(4, nullptr, &q);
    EXPECT_EQ(q.status, KEL_SHARED_ERR_BAD_VALUE);
    shared_kela_decode_pfxs(0, nullptr, &q);
    EXPECT_EQ(q.status, 0u);
    // More entries than the first reservation: the array grows.
    std::vector<std::string> texts;
    for (int i = 0; i < 60; ++i)
        for (const std::string &t :
             {std::string("arg") + std::to_string(i) + ":4", "10." + std::to_string(i) + ".0.0",
              std::string("16"), std::string("16"), std::string("16")})
            texts.push_back(t);
    std::vector<char *> raw;
    for (auto &t : texts) raw.push_back(t.data());
    shared_kela_decode_pfxs(static_cast<uint32_t>(raw.size()) - 3, raw.data(),
                            &q);  // last entry cut short
    EXPECT_EQ(q.status, 0u) << "a last header reaching past the end ends the walk";
    EXPECT_EQ(q.count, 2 + 59);
    shared_kela_free_query_ctx(&q);
    shared_kela_free_query_ctx(nullptr);
}

// ---- large sets against the single-prefix rule ------------------------------------------

// Random entries whose prefixes cluster the way routing tables do.
struct RandomSets {
    std::mt19937 rng{20261122};
    std::vector<std::string> addrs;

    std::string address(bool v6, const uint8_t *bytes) {
        char buf[64];
        inet_ntop(v6 ? AF_INET6 : AF_INET, bytes, buf, sizeof buf);
        return buf;
    }
    // One entry: address, length, ge, le as texts, sometimes address/mask.
    std::vector<std::string> entry(bool v6) {
        const int max = v6 ? 128 : 32;
        uint8_t bytes[16] = {};
        const int prefix_bytes = v6 ? 6 : 3;
        for (int i = 0; i < prefix_bytes; ++i)
            bytes[i] = static_cast<uint8_t>(rng() % (i == 0 ? 4 : 256) + (i == 0 ? 10 : 0));
        int len = v6 ? 16 + static_cast<int>(rng() % 49) : 8 + static_cast<int>(rng() % 25);
        if (rng() % 50 == 0) len = static_cast<int>(rng() % 8);
        for (int b = len; b < max; ++b) bytes[b / 8] &= static_cast<uint8_t>(~(0x80u >> (b % 8)));
        if (rng() % 200 == 0) std::memset(bytes, 0, sizeof bytes);  // wild
        if (!v6 && rng() % 100 == 0) {
            const char *masks[] = {"0.0.255.255", "0.255.0.255", "0.0.0.255"};
            return {address(v6, bytes), masks[rng() % 3], std::to_string(8 + rng() % 17), "32"};
        }
        int ge = len, le = len;
        if (rng() % 10 == 0) {
            ge = len + static_cast<int>(rng() % (max - len + 1));
            le = ge + static_cast<int>(rng() % (max - ge + 1));
            if (rng() % 3 == 0) ge = 0;
        }
        return {address(v6, bytes), std::to_string(len), std::to_string(ge), std::to_string(le)};
    }
    // Half the queries fall inside an entry of the set, half anywhere.
    Value query(bool v6, const std::vector<std::vector<std::string>> &entries) {
        Value q{};
        q.family = v6 ? 10 : 2;
        const int max = v6 ? 128 : 32;
        for (int i = 0; i < (v6 ? 16 : 4); ++i) q.addr[i] = static_cast<uint8_t>(rng() % 256);
        q.len = static_cast<uint8_t>(rng() % (max + 1));
        if (rng() % 2 == 0) {
            for (int tries = 0; tries < 8; ++tries) {
                const auto &e = entries[rng() % entries.size()];
                if ((std::strchr(e[0].c_str(), ':') != nullptr) != v6) continue;
                uint8_t base[16] = {};
                inet_pton(v6 ? AF_INET6 : AF_INET, e[0].c_str(), base);
                const int len = e[1].size() > 3 ? 8 : std::stoi(e[1]);
                for (int b = 0; b < len && b < max; ++b) {
                    const uint8_t bit = static_cast<uint8_t>(0x80u >> (b % 8));
                    q.addr[b / 8] =
                        static_cast<uint8_t>((q.addr[b / 8] & ~bit) | (base[b / 8] & bit));
                }
                q.len = static_cast<uint8_t>(std::min(max, len + static_cast<int>(rng() % 9)));
                break;
            }
        }
        return q;
    }
};

TEST_F(PrefixAttr, HundredThousandEntriesAgreeWithALinearScan) {
    RandomSets gen;
    for (int kind = 1; kind <= 3; ++kind) {
        const int n = kind == 1 ? 100000 : 20000;
        std::vector<std::vector<std::string>> entries;
        for (int i = 0; i < n; ++i) entries.push_back(gen.entry(i % 4 == 3));
        std::vector<std::string> flat;
        for (size_t i = 0; i < entries.size(); ++i) {
            flat.push_back("arg" + std::to_string(i) + ":4");
            flat.insert(flat.end(), entries[i].begin(), entries[i].end());
        }
        std::vector<char *> vec;
        for (auto &t : flat) vec.push_back(t.data());
        std::vector<void *> slots(vec.size(), &gen);  // constants everywhere

        rasf_construct_fn cons = kind == 1   ? shared_kela_prefix_cmp_match_cons
                                 : kind == 2 ? shared_kela_prefix_cmp_longer_cons
                                             : shared_kela_prefix_cmp_orlonger_cons;
        ASSERT_EQ(shared_kela_prefix_cmp_match_veri(static_cast<uint32_t>(vec.size()), vec.data(),
                                                    &desc_, nullptr),
                  0u);
        rasf_inst_t *inst = nullptr;
        ASSERT_EQ(cons(static_cast<uint32_t>(vec.size()), vec.data(), slots.data(), &desc_, &inst),
                  0u);
        kref_inst_info_t info{};
        ASSERT_EQ(kref_inst_get(inst, &info), 0u);

        std::vector<kela::prefix::SpecPtr> specs;
        for (auto &e : entries)
            specs.emplace_back(spec(e[0].c_str(), e[1].c_str(), e[2].c_str(), e[3].c_str()));
        int hits = 0, mismatches = 0;
        const int queries = kind == 1 ? 1500 : 3000;
        for (int i = 0; i < queries; ++i) {
            Value q = gen.query(i % 4 == 3, entries);
            shared_kela_prefix_addr_td pv{q.family, q.addr, q.len, 0};
            int want = 0;
            for (auto &s : specs) {
                const int m = s->is_acl
                                  ? shared_kela_prefix_match_acl(&pv, s.get())
                                  : shared_kela_prefix_match(
                                        &pv, s.get(), static_cast<shared_kela_prefix_cmp_td>(kind));
                if (m) {
                    want = 1;
                    break;
                }
            }
            Route r{{q}};
            int32_t got = -1;
            ASSERT_EQ(info.cmp(&r, static_cast<uint32_t>(vec.size()), slots.data(), info.ctx, &got),
                      0u);
            hits += want;
            if (got != want && ++mismatches < 5)
                ADD_FAILURE() << "kind " << kind << " query " << gen.address(q.family == 10, q.addr)
                              << "/" << int(q.len) << ": set says " << got << ", scan says "
                              << want;
        }
        EXPECT_EQ(mismatches, 0);
        EXPECT_GT(hits, 100) << "the queries must exercise matches too";
        shared_kela_prefix_cmp_match_free(info.ctx);
        rasf_free_cmp_instance(inst);
    }
}

}  // namespace

namespace {

// The platform's 32-bit range rule and the library's 128-bit one must agree
// on IPv4 prefixes laid into the first word.
TEST(PrefixMatch, Ipv4RuleAgreesWithTheWideRule) {
    std::mt19937 rng(7);
    for (int i = 0; i < 200000; ++i) {
        uint8_t a[16] = {}, s[16] = {};
        for (int b = 0; b < 4; ++b) {
            a[b] = static_cast<uint8_t>(rng());
            s[b] = rng() % 2 ? a[b] : static_cast<uint8_t>(a[b] ^ (1u << (rng() % 8)));
        }
        const uint32_t len = rng() % 33, sl = rng() % 33, ge = rng() % 33, le = rng() % 33;
        ASSERT_EQ(ipv4_compare_prefix_range(a, len, s, sl, ge, le),
                  shared_kela_prefix_compare_ipv6_range(a, len, s, sl, ge, le))
            << len << " " << sl << " " << ge << " " << le;
    }
}

}  // namespace
