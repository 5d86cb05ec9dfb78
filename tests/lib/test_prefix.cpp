// SPDX-License-Identifier: Apache-2.0
// The prefix attribute: parsing and printing of addresses, prefixes and
// match entries; single-prefix matching; what prefix sets do beyond the
// single-entry rule (test_prefix_set_diff.cpp holds them to it);
// registration, print, "assign", the retriever, and prefix-list decoding.
#include <arpa/inet.h>

#include <array>
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
using kt::Verdict;

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

// An entry of either form: a length of more than three characters is a mask.
shared_kela_prefix_matchspec_td *spec(const char *a, const char *l, const char *g, const char *e) {
    shared_kela_prefix_matchspec_td *s = nullptr;
    vogno st = std::strlen(l) > 3 ? shared_kela_prefix_cvt_string_to_matchspec_acl(a, l, g, e, &s)
                                  : shared_kela_prefix_cvt_string_to_matchspec(a, l, g, e, &s);
    EXPECT_EQ(st, 0u) << a << " " << l << " " << g << " " << e;
    return s;
}

int match(shared_kela_prefix_matchspec_td *s, Value val, int kind) {
    shared_kela_prefix_addr_td pv{val.family, val.addr, val.len, 0};
    return s->is_acl
               ? shared_kela_prefix_match_acl(&pv, s)
               : shared_kela_prefix_match(&pv, s, static_cast<shared_kela_prefix_cmp_td>(kind));
}

// ---- parsing ----------------------------------------------------------------------

TEST(PrefixParse, LengthFormBoundsAndStrictness) {
    // The texts (address, length, ge, le), the status and the entry's len,
    // ge and le.
    using Case = std::tuple<std::array<const char *, 4>, vogno, std::tuple<int, int, int>>;
    const Case cases[] = {
        {{"10.0.0.0", "8", "16", "24"}, 0, {8, 16, 24}},
        {{"10.0.0.0", "8", "8", "33"}, KEL_SHARED_ERR_BAD_LENGTH, {}},
        {{"10.0.0.0", "8", "8", "32"}, 0, {8, 8, 32}},
        {{"10.0.0.0", "32", "32", "32"}, 0, {32, 32, 32}},  // all at the family maximum
        {{"2001:db8::", "32", "32", "128"}, 0, {32, 32, 128}},
        {{"2001:db8::", "32", "32", "129"}, KEL_SHARED_ERR_BAD_LENGTH, {}},
        {{"2001:db8::", "128", "128", "128"}, 0, {128, 128, 128}},
        {{"10.0.0.0", "40", "8", "32"}, 0, {40, 8, 32}},   // the length is not range-checked
        {{"10.0.0.0", "300", "8", "32"}, 0, {44, 8, 32}},  // low 8 bits
        {{"10.0.0.0", "8x", "8", "32"}, KEL_SHARED_ERR_BAD_VALUE, {}},
        {{"10.0.0.256", "8", "8", "32"}, KEL_SHARED_ERR_BAD_VALUE, {}},
    };
    for (auto [t, status, made] : cases) {
        SCOPED_TRACE(std::string(t[0]) + " " + t[1] + " " + t[2] + " " + t[3]);
        shared_kela_prefix_matchspec_td *s = nullptr;
        ASSERT_EQ(shared_kela_prefix_cvt_string_to_matchspec(t[0], t[1], t[2], t[3], &s), status);
        if (status != 0) {
            EXPECT_EQ(s, nullptr);
            continue;
        }
        EXPECT_EQ(std::tuple(s->len, s->ge, s->le), made);
        EXPECT_EQ(s->is_acl, 0u);
        kela::prefix::free_spec(s);
    }

    // Without the check flag numbers are lenient and no bound applies.
    ip_addr_t a;
    uint32_t len, ge, le;
    EXPECT_EQ(
        shared_kela_prefix_cvt_string_to_pfx("10.0.0.0", "12abc", "40", "3", &a, &len, &ge, &le, 0),
        0u);
    EXPECT_EQ(len, 12u);

    // The address/mask form checks no bound, only that the numbers are numbers.
    kela::prefix::SpecPtr acl(spec("10.0.0.0", "0.255.255.255", "30", "8"));
    EXPECT_EQ(std::tuple(acl->is_acl, acl->len, acl->ge, acl->le), std::tuple(1u, 0, 30, 8));
    shared_kela_prefix_matchspec_td *s = nullptr;
    EXPECT_EQ(
        shared_kela_prefix_cvt_string_to_matchspec_acl("10.0.0.0", "0.255.255.255", "x", "8", &s),
        KEL_SHARED_ERR_BAD_VALUE);
    EXPECT_EQ(s, nullptr);
}

// (Address and length: the attribute's base print below.)
TEST(PrefixPrint, ValuesAndHostPrefixes) {
    Value a = v("10.1.0.0", 16), b = v("2001:db8::1", 0);
    shared_kela_prefix_addr_td pa{2, a.addr, 16, 0}, pb{10, b.addr, 128, 0};
    EXPECT_EQ(take(shared_kela_prefix_cvt_pfx_to_string(&pa, 1)), "10.1.0.0");
    EXPECT_EQ(take(shared_kela_prefix_cvt_pfx_to_string(nullptr, 0)), "<<error prefix>>");
    EXPECT_EQ(take(shared_kela_prefix_cvt_pfx_to_string(&pb, 0)), "2001:db8::1/128");

    // A parsed address, its family picked by a colon, made a host prefix
    // that points into it; free_addr is left as it was.
    for (auto [text, family, bytes, len] :
         {std::tuple{"192.0.2.1", 2, 4, 32}, {"2001:db8::", 10, 16, 128}}) {
        ip_addr_t ip;
        std::memset(&ip, 0xff, sizeof ip);
        ASSERT_EQ(shared_kela_prefix_cvt_string_to_ipaddr(text, &ip, nullptr), 0u);
        EXPECT_EQ(ip.addr[15], 0) << "cleared first";
        shared_kela_prefix_addr_td host{0, nullptr, 0, 7};
        ASSERT_EQ(shared_kela_prefix_ipaddr_to_pfxaddr(&ip, &host), 0u);
        EXPECT_EQ(std::tuple(ip.family, ip.length, host.family, host.len, host.free_addr),
                  std::tuple(family, bytes, family, len, 7u))
            << text;
        EXPECT_EQ(host.addr, ip.addr) << text;
    }
}

TEST(PrefixPrintDeathTest, UnknownFamiliesStopTheProcess) {
    EXPECT_DEATH(shared_kela_prefix_key_len(7), "uchar_t shared_kela_prefix_key_len\\(uint8_t\\)");
    EXPECT_DEATH(shared_kela_prefix_key_bytes(0),
                 "uchar_t shared_kela_prefix_key_bytes\\(uint8_t\\)");
}

// ---- single-prefix matching -----------------------------------------------------------

// The example policy's goldens hold the plain cases of each kind (inside,
// outside, at le); here the rest of the rule.
TEST(PrefixMatch, SingleEntryRules) {
    // The entry (address, length or mask, ge, le), the value and its length,
    // the kind of match and the outcome.
    using Case =
        std::tuple<std::array<const char *, 4>, std::pair<const char *, uint8_t>, int, int>;
    const Case cases[] = {
        {{"10.0.0.0", "8", "8", "8"}, {"10.0.0.0", 8}, 1, 1},
        {{"10.0.0.0", "8", "8", "8"}, {"10.0.0.0", 9}, 1, 0},
        {{"10.0.0.0", "8", "8", "8"}, {"11.0.0.0", 8}, 1, 0},
        {{"10.0.0.0", "8", "0", "0"}, {"10.0.0.0", 8}, 1, 1},
        {{"10.0.0.0", "8", "16", "24"}, {"10.255.0.0", 16}, 1, 1},
        {{"10.0.0.0", "8", "16", "24"}, {"10.0.0.0", 8}, 1, 0},
        {{"10.0.0.0", "8", "16", "24"}, {"11.1.2.0", 24}, 1, 0},
        {{"10.0.0.0", "8", "8", "8"}, {"0.0.0.0", 0}, 3, 0},
        {{"10.0.0.0", "8", "16", "16"}, {"10.1.0.0", 16}, 2, 0},
        {{"10.0.0.0", "8", "16", "16"}, {"10.1.0.0", 17}, 2, 1},
        {{"10.0.0.0", "8", "8", "8"}, {"10.1.2.3", 0}, 1, 0},  // no length: taken at 8, bits differ
        {{"10.0.0.0", "8", "8", "8"}, {"10.0.0.0", 0}, 1, 1},
        {{"10.0.0.0", "8", "8", "8"}, {"10.0.0.0", 0}, 7, 1},  // unknown kind: 1
        {{"2001:db8::", "32", "48", "64"}, {"2001:db8:1:2::", 64}, 1, 1},
        {{"2001:db8::", "32", "48", "64"}, {"2001:db9::", 48}, 1, 0},
        {{"2001:db8::", "64", "64", "64"}, {"2001:db8:0:1::", 64}, 1, 0},  // in the second word
        {{"2001:db8::", "32", "32", "48"}, {"2001:db8:1::", 64}, 3, 1},    // le taken as 128
        {{"2001:db8:ff00::", "48", "48", "48"}, {"2001:db8:fe00::", 48}, 1, 0},  // second word
        {{"2001:db8::", "40", "40", "48"}, {"2001:db8:80::", 48}, 1, 1},         // bit 40 is free
        {{"2001:db8::", "32", "32", "48"}, {"2001:db8:0:8000::", 48}, 1, 0},     // bit 48 is not
        {{"2001:db8::", "128", "128", "128"}, {"2001:db8::1", 128}, 1, 0},       // nor bit 127
        // Families never mix.
        {{"::", "0", "0", "128"}, {"10.0.0.0", 8}, 3, 0},
        {{"0.0.0.0", "0", "0", "32"}, {"::", 0}, 3, 0},
        // Address/mask entries: the mask's bits are free, the bounds apply as given.
        {{"10.0.0.0", "0.255.255.255", "8", "24"}, {"10.9.9.0", 25}, 1, 0},
        {{"10.0.0.0", "0.255.255.255", "8", "24"}, {"11.0.0.0", 8}, 1, 0},
        {{"10.0.0.0", "0.0.255.0", "24", "24"}, {"10.0.7.0", 24}, 1, 1},
        {{"10.0.0.0", "0.0.255.0", "24", "24"}, {"10.0.7.1", 24}, 1, 0},
        {{"2001:db8::", "0:ffff::", "32", "64"}, {"2001:1234::", 48}, 1, 1},
        {{"2001:db8::", "0:ffff::", "32", "64"}, {"2002:db8::", 48}, 1, 0},
    };
    for (auto [e, value, kind, want] : cases) {
        kela::prefix::SpecPtr s(spec(e[0], e[1], e[2], e[3]));
        EXPECT_EQ(match(s.get(), v(value.first, value.second), kind), want)
            << e[0] << "/" << e[1] << " ge " << e[2] << " le " << e[3] << " vs " << value.first
            << "/" << int(value.second) << " kind " << kind;
    }
}

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

// ---- the attribute ------------------------------------------------------------------

// Stand-ins: the example policy's client evaluates "assign" and its extra
// operator; here they are only registered, printed and refused.
vogno set_value(shared_kela_prefix_desc_td *, void *, void *, shared_kela_prefix_desc_td *) {
    return 0;
}
vogno is_default(shared_kela_prefix_extra_op_td *, void *, uint8_t, int32_t *out) {
    *out = 1;
    return 0;
}

class PrefixAttr : public kt::FrameworkTest {
  protected:
    void SetUp() override {
        kt::FrameworkTest::SetUp();
        const char *const *l = kt::kLocations;
        ASSERT_EQ(shared_kela_prefix_base_init(nullptr, nullptr, 0, &desc_, l, l, nullptr, nullptr),
                  0u);
    }

    kref_stmt_t *compile(const char *op, const std::vector<std::vector<const char *>> &entries,
                         vogno want = 0, std::string *msg = nullptr) {
        return kt::compile("destination", KREF_CMP, op, entries, want, msg);
    }

    static constexpr const char *kExtraLocs[] = {"export", nullptr};
    shared_kela_prefix_extra_op_td extra_[1] = {{"is-default", kExtraLocs, is_default, 0}};
    shared_kela_prefix_desc_td desc_{"destination", get_value, set_value, extra_, 1};
};

// The route's side of a set: each of its values in turn, the getter's
// statuses, and addresses handed over to be freed.  (Which entries accept
// which values: the linear-scan comparison and the example policy's goldens.)
TEST_F(PrefixAttr, SetsTryEveryValueOfARoute) {
    kref_stmt_t *set = compile(
        "pfxmatch", {{"10.0.0.0", "8", "8", "32"}, {"192.168.0.0", "0.0.255.255", "16", "16"}});
    ASSERT_NE(set, nullptr);
    struct Case {
        Route route;
        vogno status = 0;
        int outcome = 0, fetches = 0;
        const char *why = "";
    };
    // clang-format off
    const Case cases[] = {
        {.route = {}, .fetches = 1, .why = "status 19: no value"},
        {.route = {{v("10.0.0.0", 8)}, 16}, .fetches = 1, .why = "status 16: no value"},
        {.route = {{v("10.0.0.0", 8)}, 5}, .status = 5, .fetches = 1, .why = "other getter statuses are passed on"},
        {.route = {{v("11.0.0.0", 16), v("12.0.0.0", 9)}, 0, true}, .fetches = 2, .why = "free_addr (LeakSanitizer)"},
        {.route = {{v("11.0.0.0", 16), v("10.0.0.0", 8), v("2.0.0.0", 16)}}, .outcome = 1, .fetches = 2, .why = "the second matches"},
    };
    // clang-format on
    for (auto [route, status, want, calls, why] : cases) {
        EXPECT_EQ(kt::eval(set, &route, status), want) << why;
        EXPECT_EQ(route.calls, calls) << why;
    }
    kref_stmt_free(set);
    set = compile("pfxmatch", {});  // an empty set asks for no value
    Route failing{{v("10.0.0.0", 8)}, 5};
    EXPECT_EQ(kt::eval(set, &failing), 0);
    EXPECT_EQ(failing.calls, 0);
    kref_stmt_free(set);
    // Entries that differ in le alone are both kept, not taken for one; a
    // mask entry is filed with its own mask, not one that agrees on 3 bytes.
    for (auto [a, b, at] :
         {std::tuple{std::vector<const char *>{"0.0.0.0", "0", "0", "0"},
                     std::vector<const char *>{"0.0.0.0", "0", "0", "24"}, v("10.0.0.0", 8)},
          {{"10.0.1.0", "0.0.0.0", "32", "32"},
           {"10.0.0.0", "0.0.0.255", "32", "32"},
           v("10.0.0.7", 32)}}) {
        set = compile("pfxmatch", {a, b});
        Route r{{at}};
        EXPECT_EQ(kt::eval(set, &r), 1) << b[0] << " " << b[1];
        kref_stmt_free(set);
    }
}

TEST_F(PrefixAttr, VerifierAndConstructorRefusals) {
    std::string msg;
    compile("pfxmatch", {{"10.0.0.0", "8", "16"}}, 4, &msg);
    EXPECT_EQ(msg, "Parameter mismatch.");
    Params acl{"arg0:4", "10.0.0.0", "0.255.255.255", "x", "y"};
    EXPECT_EQ(shared_kela_prefix_cmp_match_veri(acl.count(), acl.vec(), &desc_, nullptr), 0u)
        << "the verifier does not examine the bounds of address/mask entries";
    Params v6{"arg0:4", "2001:db8::1", "128", "128", "128"}, mask{"arg0:4", "::", "::ff", "0", "8"};
    for (Params *p : {&v6, &mask})  // three characters are a length, more a mask
        EXPECT_EQ(shared_kela_prefix_cmp_match_veri(p->count(), p->vec(), &desc_, nullptr), 0u);
    compile("pfxmatch", {{"10.0.0.0", "0.255.255.255", "x", "y"}}, 4);  // the build does
    compile("pfxmatch", {{"10.0.0.0", "0.255.255.25x", "8", "8"}}, KEL_SHARED_ERR_BAD_VALUE);

    Params bad{"arg1:4", "10.0.0.0", "8", "8", "8"};
    const Verdict no_array{KEL_SHARED_ERR_NULL_INPUT, "Internal error:  no parameter array"};
    auto veri = shared_kela_prefix_cmp_match_veri;
    EXPECT_EQ(kt::verify(veri, &desc_, &bad),
              (Verdict{KEL_SHARED_ERR_BAD_VALUE, "Internal error:  malformed paramters"}));
    EXPECT_EQ(kt::verify(veri, &desc_, nullptr, 5), no_array);
    EXPECT_EQ(kt::verify(veri, &desc_, &bad, 0xFFFFFFFF), no_array);
    EXPECT_EQ(kt::verify(veri, &desc_, nullptr, 0), (Verdict{0, "<null>"}));

    // Constructors: missing slots, the empty set.
    auto cons = shared_kela_prefix_cmp_match_cons;
    rasf_inst_t *inst = nullptr;
    Params good{"arg0:4", "10.0.0.0", "8", "8", "8"};
    EXPECT_EQ(cons(5, good.vec(), nullptr, &desc_, &inst), KEL_SHARED_ERR_NULL_INPUT);
    // (The other refusals and the failing platform calls: tests/alloc.)
    // The empty set matches nothing; without its context a set refuses.
    kref_stmt_t *empty = compile("pfxmatch", {});
    Route r{{v("10.0.0.0", 8)}};
    EXPECT_EQ(kt::eval(empty, &r), 0);
    kref_stmt_free(empty);
    int32_t out = -1;
    EXPECT_EQ(kela::prefix::match_ctx_cmp(&r, 0, nullptr, nullptr, &out),
              KEL_SHARED_ERR_NO_PARAM_ARRAY);
}

TEST_F(PrefixAttr, PrintsTheFirstEntry) {
    using Case = std::tuple<const char *, std::vector<const char *>, const char *>;
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
    for (const auto &[op, entry, text] : cases) {
        kref_stmt_t *s = compile(op, {entry, {"11.0.0.0", "8", "8", "8"}});
        ASSERT_NE(s, nullptr);
        EXPECT_EQ(take(kref_stmt_print(s)), text);
        kref_stmt_free(s);
    }
}

TEST_F(PrefixAttr, AssignRetrieverAndExtraOperatorRefusals) {
    auto veri = shared_kela_prefix_set_assign_veri;
    Params ok{"10.0.0.1"};
    EXPECT_EQ(kt::verify(veri, &desc_, &ok), (Verdict{0, vog_strerror(0)}))
        << "a message even on success";
    EXPECT_EQ(veri(2, ok.vec(), &desc_, nullptr), KEL_SHARED_ERR_PARAM_COUNT);
    kref_stmt_t *stmt = kt::compile("destination", KREF_SET, "assign", {{"10.0.0.1"}});
    EXPECT_EQ(take(kref_stmt_print(stmt)), "set destination 10.0.0.1");
    kref_stmt_free(stmt);

    // The retriever can be made but refuses every use (its verifier: the
    // null-argument table).
    rasf_inst_t *inst = nullptr;
    ASSERT_EQ(shared_kela_prefix_retr_cons(0, nullptr, nullptr, &desc_, &inst), 0u);
    uint32_t got = 0;
    EXPECT_EQ(kt::inst_info(inst).retrieve(nullptr, nullptr, nullptr, &got, nullptr),
              KEL_SHARED_ERR_PARAMS_NOT_ALLOWED);
    rasf_free_retriever_instance(inst);

    // A client's extra operator takes no parameters and is offered only at its
    // own locations (its entry as context: the goldens evaluate "is-default").
    std::string msg;
    compile("is-default", {{"1"}}, KEL_SHARED_ERR_PARAM_COUNT, &msg);
    EXPECT_EQ(msg, "Parameters are not allowed !!!");
    for (auto [where, status] : {std::pair{"export", vogno{0}}, {"import", KREF_ERR_LOCATION}})
        kref_stmt_free(
            kt::compile("destination", KREF_CMP, "is-default", {}, status, nullptr, where));
}

TEST_F(PrefixAttr, BasePrintAndCompare) {
    rasf_attr_t *attr = kref_attr_find("destination");
    Route a{{v("10.1.0.0", 16)}}, b{{v("10.1.0.0", 24)}}, c{{v("2001:db8::", 32)}},
        d{{v("10.2.0.0", 16)}}, none;
    EXPECT_EQ(take(kref_attr_print(attr, &a)), "10.1.0.0/16");
    EXPECT_EQ(take(kref_attr_print(attr, &none)), "<<no prefix>>");
    int32_t out = 9;
    EXPECT_EQ(kref_attr_compare(attr, &a, &b, &out), 0u);
    EXPECT_EQ(out, 0) << "lengths are not compared";
    EXPECT_EQ(kref_attr_compare(attr, &a, &c, &out), 0u);
    EXPECT_EQ(out, 0) << "families differ";
    EXPECT_EQ(kref_attr_compare(attr, &a, &d, &out), 0u);
    EXPECT_LT(out, 0);
}

// ---- decoding ----------------------------------------------------------------------------

// Flags 1 keep exact entries, 2 ranges, 4 address/mask entries; decoding
// appends, and a failure keeps what was decoded before it.
TEST(PrefixDecode, FlagsChooseWhatIsKeptAppendsAndFailuresKeep) {
    Params p{"arg0:4", "10.0.0.0", "8", "8", "8", "arg1:4", "10.0.0.0", "8", "16", "24"};
    for (uint32_t flags : {0u, 1u, 2u, 3u}) {
        shared_kela_pcl_query_pfx_ctx_t q{};
        q.flags = flags;
        const int kept = flags == 0 ? 0 : flags == 3 ? 2 : 1;
        for (int round = 1; round <= 2; ++round) {
            shared_kela_decode_pfxs(p.count(), p.vec(), &q);
            EXPECT_EQ(std::tuple(q.status, q.count), std::tuple(0u, round * kept)) << flags;
        }
        if (kept == 1) {
            const shared_kela_prefix_matchspec_td *e = q.pfxs[0];
            EXPECT_EQ((std::tuple<int, int, int>(e->len, e->ge, e->le)),
                      flags == 1 ? std::tuple(8, 8, 8) : std::tuple(8, 16, 24));
        }
        shared_kela_free_query_ctx(&q);
        EXPECT_EQ(std::tuple(q.pfxs, q.count, q.flags), std::tuple(nullptr, 0, 0u));
    }
    shared_kela_pcl_query_pfx_ctx_t q{};
    q.flags = 4;
    Params acl{"arg0:4", "10.0.0.0", "0.255.255.255", "8", "24"};
    shared_kela_decode_pfxs(acl.count(), acl.vec(), &q);
    ASSERT_EQ(q.count, 1);
    EXPECT_EQ(q.pfxs[0]->is_acl, 1u);
    q.flags = 3;
    Params three{"arg0:4", "10.0.0.0", "8", "8", "8", "arg1:3", "1.0.0.0", "8", "8"};
    Params bad{"arg0:4", "10.0.0.0", "8", "8", "8", "arg1:4", "1.0.0.x", "8", "8", "8"};
    Params malformed{"foo"};
    // A last header reaching past the end ends the walk like the end does.
    Params cut{"arg0:4", "10.0.0.0", "8", "8", "8", "arg1:4", "1.0.0.0", "8", "8"};
    for (auto [n, vec, status, count] : {std::tuple{three.count(), three.vec(), vogno{4}, 2},
                                         {bad.count(), bad.vec(), 4, 3},
                                         {1, malformed.vec(), KEL_SHARED_ERR_BAD_VALUE, 3},
                                         {4, nullptr, KEL_SHARED_ERR_BAD_VALUE, 3},
                                         {0, nullptr, 0, 3},
                                         {cut.count(), cut.vec(), 0, 4}}) {
        shared_kela_decode_pfxs(n, vec, &q);
        EXPECT_EQ(std::tuple(q.status, q.count), std::tuple(status, count)) << n;
    }
    shared_kela_free_query_ctx(&q);
}

}  // namespace
