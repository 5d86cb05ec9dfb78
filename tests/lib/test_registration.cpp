// SPDX-License-Identifier: Apache-2.0
// The registration recipe as every type runs it, seen from the framework:
// order of calls, location merging, stop at the first failure with its
// message, ownership of argument lists, and the range entry points.
#include <array>
#include <cstring>

#include "support.hpp"

namespace {

using kt::trace;

// Platform calls made by a registration, without the one-time start-up
// (which only the first registration of a process makes).
std::vector<std::string> framework_calls() {
    std::vector<std::string> out;
    for (auto &line : trace())
        if (line.rfind("rasf_", 0) == 0) out.push_back(line);
    return out;
}

std::vector<std::string> operator_calls(const char *op, const char *attr, bool open_run) {
    std::string o = op, a = attr;
    return {"rasf_kela_add_cmp(" + o + ", " + a + ")",
            "rasf_kela_add_cmp_location(" + o + ", " + a + ", import)",
            "rasf_kela_add_cmp_location(" + o + ", " + a + ", export)",
            "rasf_args_new()",
            open_run ? "rasf_args_infinite_add(uint32_t, 1.0, 0)"
                     : "rasf_args_single_add(uint32_t, 1.0)",
            "rasf_kela_add_cmp_args(" + o + ", " + a + ")"};
}

std::vector<std::string> worked_example(bool with_any) {
    std::vector<std::string> calls = {
        "rasf_kela_new(pref, uint32_t, 1.0)",    "rasf_kela_add_location(import, pref)",
        "rasf_kela_add_location(export, pref)",  "rasf_kela_add_base_function_print(pref)",
        "rasf_kela_add_base_function_cmp(pref)",
    };
    auto add = [&](std::vector<std::string> more) {
        calls.insert(calls.end(), more.begin(), more.end());
    };
    add(operator_calls("exact-match", "pref", false));
    if (with_any) add(operator_calls("matches-any", "pref", true));
    add(operator_calls("le", "pref", false));
    add(operator_calls("ge", "pref", false));
    add({"rasf_kela_add_set(assign, pref)", "rasf_kela_add_set_location(assign, pref, export)",
         "rasf_args_new()", "rasf_args_single_add(uint32_t, 1.0)",
         "rasf_kela_add_set_args(assign, pref)",
         "rasf_kela_add_retriever((null), pref, uint32_t, 1.0)",
         "rasf_kela_add_retriever_location((null), pref, import)",
         "rasf_kela_add_retriever_location((null), pref, export)", "rasf_args_new()",
         "rasf_kela_add_retriever_args((null), pref)"});
    return calls;
}

class Registration : public kt::FrameworkTest {};

TEST_F(Registration, Uint8WorkedExampleMakesExactlyTheseCalls) {
    shared_kela_uint8_desc_td d{"pref", 2, 10, 20};
    char buf[64] = "untouched";
    kref_trace_start();
    ASSERT_EQ(shared_kela_uint8_base_init(nullptr, buf, sizeof buf, &d), 0u);
    EXPECT_EQ(framework_calls(), worked_example(false));
    EXPECT_STREQ(buf, "untouched");
    EXPECT_EQ(d.min, 0);
    EXPECT_EQ(d.max, 255);

    // Everything was registered with the client's descriptor as context.
    rasf_attr_t *attr = kref_attr_find("pref");
    ASSERT_NE(attr, nullptr);
    void *ctx = nullptr;
    EXPECT_NE(kref_attr_base_print(attr, &ctx), nullptr);
    EXPECT_EQ(ctx, &d);
    EXPECT_NE(kref_attr_base_cmp(attr, &ctx), nullptr);
    EXPECT_EQ(ctx, &d);
    for (kref_kind_t kind : {KREF_CMP, KREF_SET, KREF_RETR}) {
        for (size_t i = 0; i < kref_attr_op_count(attr, kind); ++i) {
            kref_op_info_t info{};
            ASSERT_EQ(kref_attr_op_at(attr, kind, i, &info), 0u);
            EXPECT_EQ(info.desc, &d);
            EXPECT_EQ(info.free_fn, nullptr);
        }
    }
}

TEST_F(Registration, Uint32AddsMatchesAnySecondWithAnOpenRun) {
    shared_kela_uint32_desc_td d{"pref", 0, 0, 0, nullptr};
    kref_trace_start();
    ASSERT_EQ(shared_kela_uint32_base_init(nullptr, nullptr, 0, &d), 0u);
    EXPECT_EQ(framework_calls(), worked_example(true));
    kref_op_info_t any{};
    ASSERT_EQ(kref_attr_op(kref_attr_find("pref"), KREF_CMP, "matches-any", &any), 0u);
    EXPECT_EQ(any.free_fn, &shared_kela_uint32_cmp_any_free);
    EXPECT_EQ(d.max, 0xFFFFFFFFu);
}

TEST_F(Registration, RegistrationContextReachesTheFramework) {
    shared_kela_uint16_desc_td d{"tag", 0, 0, 0};
    int reg_ctx = 0;
    ASSERT_EQ(shared_kela_uint16_base_init(&reg_ctx, nullptr, 0, &d), 0u);
    EXPECT_EQ(kref_attr_reg_ctx(kref_attr_find("tag")), &reg_ctx);
    EXPECT_STREQ(kref_attr_value_type(kref_attr_find("tag")), "uint32_t");
}

// ---- location lists ---------------------------------------------------------

TEST(MergeLocations, FirstOccurrenceKeepsItsPlaceAndDuplicatesGo) {
    const char *ops[] = {"import", "export", "import", nullptr};
    const char *sets[] = {"export", "peer", nullptr};
    const char *attrs[] = {"import", "table", "peer", nullptr};
    const char **out = nullptr;
    ASSERT_EQ(kela_shared_merge_locations(&out, ops, sets, nullptr, attrs), 0u);
    ASSERT_NE(out, nullptr);
    std::vector<std::string> got;
    for (size_t i = 0; out[i] != nullptr; ++i) got.emplace_back(out[i]);
    EXPECT_EQ(got, (std::vector<std::string>{"import", "export", "peer", "table"}));
    EXPECT_EQ(out[0], ops[0]) << "the merged list holds the callers' pointers";
    EXPECT_EQ(out[2], sets[1]);
    std::free(out);
}

TEST(MergeLocations, ComparesTextsNotPointers) {
    char a[] = "import", b[] = "import";
    const char *ops[] = {a, nullptr};
    const char *attrs[] = {b, nullptr};
    const char **out = nullptr;
    ASSERT_EQ(kela_shared_merge_locations(&out, ops, nullptr, nullptr, attrs), 0u);
    EXPECT_EQ(out[0], a);
    EXPECT_EQ(out[1], nullptr);
    std::free(out);
}

TEST(MergeLocations, NothingToMergeIsRefusedWithNullOutput) {
    const char *empty[] = {nullptr};
    const char *dummy[] = {"x", nullptr};
    const char **out = dummy;  // must be overwritten
    EXPECT_EQ(kela_shared_merge_locations(&out, nullptr, empty, nullptr, empty),
              KEL_SHARED_ERR_NO_LOCATIONS);
    EXPECT_EQ(out, nullptr);
}

TEST_F(Registration, EmptyLocationListsMakeNoFrameworkCall) {
    shared_kela_uint32_desc_td d{"m", 0, 0, 0, nullptr};
    const char *empty[] = {nullptr};
    char buf[32] = "untouched";
    kref_trace_start();
    EXPECT_EQ(shared_kela_uint32_base_init_v2(nullptr, buf, sizeof buf, &d, empty, nullptr, empty,
                                              nullptr),
              KEL_SHARED_ERR_NO_LOCATIONS);
    EXPECT_TRUE(framework_calls().empty());
    EXPECT_STREQ(buf, "untouched");
    EXPECT_EQ(kref_attr_find("m"), nullptr);
}

TEST_F(Registration, EachListIsUsedWhereItBelongs) {
    // "import" given both for operators and for the attribute is declared
    // once; the operator list is still walked as passed, duplicate included.
    shared_kela_uint8_desc_td d{"pref", 0, 0, 0};
    const char *ops[] = {"import", "import", nullptr};
    const char *sets[] = {"export", nullptr};
    const char *retrs[] = {"table", nullptr};
    const char *attrs[] = {"import", "extra", nullptr};
    kref_trace_start();
    ASSERT_EQ(shared_kela_uint8_shared_base_init(nullptr, nullptr, 0, &d, ops, sets, retrs, attrs),
              0u);
    auto calls = framework_calls();
    auto count = [&](const std::string &line) {
        return std::count(calls.begin(), calls.end(), line);
    };
    EXPECT_EQ(count("rasf_kela_add_location(import, pref)"), 1);
    EXPECT_EQ(std::vector<std::string>(calls.begin() + 1, calls.begin() + 5),
              (std::vector<std::string>{
                  "rasf_kela_add_location(import, pref)", "rasf_kela_add_location(export, pref)",
                  "rasf_kela_add_location(table, pref)", "rasf_kela_add_location(extra, pref)"}));
    EXPECT_EQ(count("rasf_kela_add_cmp_location(le, pref, import)"), 2);
    EXPECT_EQ(count("rasf_kela_add_set_location(assign, pref, export)"), 1);
    EXPECT_EQ(count("rasf_kela_add_retriever_location((null), pref, table)"), 1);
    EXPECT_EQ(count("rasf_kela_add_cmp_location(le, pref, extra)"), 0)
        << "attribute locations add no operator";
}

// ---- stop at the first failure ---------------------------------------------

struct Injected {
    const char *op;
    uint32_t nth;
    const char *message;
    bool frees_args;  // the library must release the list it built
};

void PrintTo(const Injected &i, std::ostream *os) {
    *os << i.op << " #" << i.nth;
}

class FirstFailure : public kt::FrameworkTest, public ::testing::WithParamInterface<Injected> {};

TEST_P(FirstFailure, StopsWritesItsMessageAndReturnsItsStatus) {
    const Injected &f = GetParam();
    const vogno injected = 0x0BADF00Du;
    shared_kela_uint8_desc_td d{"pref", 0, 0, 0};
    char buf[128];
    std::memset(buf, 'X', sizeof buf);
    kref_trace_start();
    kref_fault_set(f.op, f.nth, injected);
    EXPECT_EQ(shared_kela_uint8_base_init(nullptr, buf, sizeof buf, &d), injected);
    EXPECT_STREQ(buf, f.message);
    EXPECT_EQ(kref_fault_pending(), 0u);

    // Nothing after the failing call except the release of the list built
    // for it; nothing registered is withdrawn.
    auto calls = framework_calls();
    const std::string prefix = std::string(f.op) + "(";
    size_t failed = calls.size(), seen = 0;
    for (size_t i = 0; i < calls.size() && failed == calls.size(); ++i)
        if (calls[i].rfind(prefix, 0) == 0 && ++seen == f.nth) failed = i;
    ASSERT_LT(failed, calls.size()) << "the injected call was never made";
    std::vector<std::string> after(calls.begin() + failed + 1, calls.end());
    if (f.frees_args)
        EXPECT_EQ(after, std::vector<std::string>{"rasf_args_free()"});
    else
        EXPECT_TRUE(after.empty()) << after.front();
    if (std::strcmp(f.op, "rasf_kela_new") != 0) {
        EXPECT_NE(kref_attr_find("pref"), nullptr);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Uint8, FirstFailure,
    ::testing::Values(
        Injected{"rasf_kela_new", 1, "rasf_kela_new:pref", false},
        Injected{"rasf_kela_add_location", 2, "rasf_kela_add_location export to pref", false},
        Injected{"rasf_kela_add_base_function_print", 1, "rasf_kela_add_base_function_print",
                 false},
        Injected{"rasf_kela_add_base_function_cmp", 1, "rasf_kela_add_base_function_cmp", false},
        Injected{"rasf_kela_add_cmp", 2, "rasf_kela_add_cmp_function le to pref", false},
        Injected{"rasf_kela_add_cmp_location", 3,
                 "rasf_kela_add_cmp_location le to pref location import", false},
        Injected{"rasf_args_new", 1, "rasf_args_new at kela_uint8@919", false},
        Injected{"rasf_args_single_add", 3, "rasf_args_single_add: uint32_t:1.0 at kela_uint8@952",
                 true},
        Injected{"rasf_kela_add_cmp_args", 1, "rasf_kela_add_cmp_args exact-match on pref", true},
        Injected{"rasf_kela_add_set", 1, "rasf_kela_add_set_function assign to pref", false},
        Injected{"rasf_kela_add_set_location", 1,
                 "rasf_kela_add_set_location assign to pref location export", false},
        Injected{"rasf_args_new", 4, "rasf_args_new at kela_uint8@967", false},
        Injected{"rasf_args_single_add", 4, "rasf_args_single_add: uint32_t:1.0 at kela_uint8@968",
                 true},
        Injected{"rasf_kela_add_set_args", 1, "rasf_kela_add_set_args assign on pref", true},
        Injected{"rasf_kela_add_retriever", 1,
                 "rasf_kela_add_retriever_function (built-in) to pref", false},
        Injected{"rasf_kela_add_retriever_location", 2,
                 "rasf_kela_add_retriever_location (built-in) to pref location export", false},
        Injected{"rasf_args_new", 5, "rasf_args_new at kela_uint8@983", false},
        Injected{"rasf_kela_add_retriever_args", 1,
                 "rasf_kela_add_retriever_args (built-in) on pref", true}),
    [](const ::testing::TestParamInfo<Injected> &info) {
        return std::string(info.param.op) + "_" + std::to_string(info.param.nth);
    });

TEST_F(Registration, PerFileNumbersOfTheOtherWidths) {
    shared_kela_uint32_desc_td d32{"pref", 0, 0, 0, nullptr};
    shared_kela_uint16_desc_td d16{"pref", 0, 0, 0};
    char buf[128];
    auto run32 = [&](const char *op, uint32_t nth) {
        kref_reset();
        kref_fault_set(op, nth, 77);
        EXPECT_EQ(shared_kela_uint32_base_init(nullptr, buf, sizeof buf, &d32), 77u);
        return std::string(buf);
    };
    auto run16 = [&](const char *op, uint32_t nth) {
        kref_reset();
        kref_fault_set(op, nth, 77);
        EXPECT_EQ(shared_kela_uint16_base_init(nullptr, buf, sizeof buf, &d16), 77u);
        return std::string(buf);
    };
    EXPECT_EQ(run32("rasf_args_new", 2), "rasf_args_new at kela_uint32@1295");
    EXPECT_EQ(run32("rasf_args_infinite_add", 1),
              "rasf_args_infinite_add: uint32_t:1.0 (0 ) at kela_uint32@1296");
    EXPECT_EQ(run32("rasf_args_single_add", 2),
              "rasf_args_single_add: uint32_t:1.0 at kela_uint32@1312");
    EXPECT_EQ(run32("rasf_args_new", 6), "rasf_args_new at kela_uint32@1359");
    EXPECT_EQ(run32("rasf_kela_add_cmp_location", 3),
              "rasf_kela_add_cmp_location matches-any to pref location import");
    EXPECT_EQ(run16("rasf_args_new", 3), "rasf_args_new at kela_uint16@962");
    EXPECT_EQ(run16("rasf_args_single_add", 4),
              "rasf_args_single_add: uint32_t:1.0 at kela_uint16@979");
    EXPECT_EQ(run16("rasf_args_new", 5), "rasf_args_new at kela_uint16@994");
}

TEST_F(Registration, ErrorBufferBounds) {
    shared_kela_uint8_desc_td d{"a-rather-long-attribute-name", 0, 0, 0};
    std::array<char, 16> buf;

    buf.fill('X');
    kref_fault_set("rasf_kela_new", 1, 5);
    EXPECT_EQ(shared_kela_uint8_base_init(nullptr, buf.data(), 0, &d), 5u);
    EXPECT_TRUE(std::all_of(buf.begin(), buf.end(), [](char c) { return c == 'X'; }))
        << "length 0: nothing written";

    kref_fault_set("rasf_kela_new", 1, 5);
    EXPECT_EQ(shared_kela_uint8_base_init(nullptr, buf.data(), -3, &d), 5u);
    EXPECT_TRUE(std::all_of(buf.begin(), buf.end(), [](char c) { return c == 'X'; }));

    kref_fault_set("rasf_kela_new", 1, 5);
    EXPECT_EQ(shared_kela_uint8_base_init(nullptr, buf.data(), 10, &d), 5u);
    EXPECT_STREQ(buf.data(), "rasf_kela");
    EXPECT_EQ(buf[10], 'X') << "nothing beyond the given length";

    kref_fault_set("rasf_kela_new", 1, 5);
    EXPECT_EQ(shared_kela_uint8_base_init(nullptr, nullptr, 10, &d), 5u) << "no buffer at all";
}

// ---- range entry points -----------------------------------------------------

TEST_F(Registration, RangeFormsKeepTheClientsRangeAndV2Overwrites) {
    shared_kela_uint16_desc_td a{"a", 0, 10, 20}, b{"b", 0, 10, 20}, c{"c", 0, 10, 20};
    const char *locs[] = {"import", nullptr};
    EXPECT_EQ(shared_kela_uint16_range_base_init(nullptr, nullptr, 0, &a, locs, locs, locs, locs),
              0u);
    EXPECT_EQ(shared_kela_uint16_shared_base_init(nullptr, nullptr, 0, &b, locs, locs, locs, locs),
              0u);
    EXPECT_EQ(shared_kela_uint16_base_init_v2(nullptr, nullptr, 0, &c, locs, locs, locs, locs), 0u);
    EXPECT_EQ(a.min, 10);
    EXPECT_EQ(a.max, 20);
    EXPECT_EQ(b.min, 10);
    EXPECT_EQ(b.max, 20);
    EXPECT_EQ(c.min, 0);
    EXPECT_EQ(c.max, 65535);

    // A failed v2 registration has already widened the range.
    shared_kela_uint32_desc_td d{"d", 0, 10, 20, nullptr};
    kref_fault_set("rasf_kela_new", 1, 9);
    EXPECT_EQ(shared_kela_uint32_base_init_v2(nullptr, nullptr, 0, &d, locs, locs, locs, locs), 9u);
    EXPECT_EQ(d.min, 0u);
    EXPECT_EQ(d.max, 0xFFFFFFFFu);
}

TEST_F(Registration, NullDescriptorIsRefusedBeforeTheFramework) {
    kref_trace_start();
    EXPECT_EQ(shared_kela_uint32_base_init(nullptr, nullptr, 0, nullptr),
              KEL_SHARED_ERR_NULL_INPUT);
    EXPECT_TRUE(framework_calls().empty());
}

}  // namespace

// A framework or client that recognises a type by its registered callbacks
// must find the exported functions themselves, not private twins.
TEST_F(Registration, RegisteredCallbacksAreTheExportedFunctions) {
    kt::EveryType types;
    ASSERT_EQ(types.register_all(), 0u);

    enum Role { Print, Cmp, Verify, Construct, Free };
    struct Case {
        const char *attr;
        kref_kind_t kind;  // for the operator roles
        const char *op;    // null: the retriever
        Role role;
        const void *want;
    };
    auto fn = [](auto f) { return reinterpret_cast<const void *>(f); };
    const Case cases[] = {
#define KT_UINT(W, A)                                                              \
    {A, KREF_CMP, nullptr, Print, fn(shared_kela_##W##_base_print)},               \
        {A, KREF_CMP, nullptr, Cmp, fn(shared_kela_##W##_base_cmp)},               \
        {A, KREF_SET, "assign", Construct, fn(shared_kela_##W##_set_assign_cons)}, \
        {A, KREF_RETR, nullptr, Verify, fn(shared_kela_##W##_retr_veri)},          \
        {A, KREF_RETR, nullptr, Construct, fn(shared_kela_##W##_retr_cons)}
        KT_UINT(uint8, "u8"),
        KT_UINT(uint16, "u16"),
        KT_UINT(uint32, "u32"),
#undef KT_UINT
        {"u32", KREF_CMP, "matches-any", Verify, fn(shared_kela_uint32_cmp_any_veri)},
        {"u32", KREF_CMP, "matches-any", Construct, fn(shared_kela_uint32_cmp_any_cons)},
        {"u32", KREF_CMP, "matches-any", Free, fn(shared_kela_uint32_cmp_any_free)},
        {"en", KREF_CMP, nullptr, Print, fn(shared_kela_enum_base_print)},
        {"en", KREF_CMP, nullptr, Cmp, fn(shared_kela_enum_base_cmp)},
        {"en", KREF_CMP, "exact-match", Verify, fn(shared_kela_enum_cmp_match_veri)},
        {"en", KREF_CMP, "exact-match", Construct, fn(shared_kela_enum_cmp_match_cons)},
        {"en", KREF_SET, "assign", Verify, fn(shared_kela_enum_set_assign_veri)},
        {"en", KREF_SET, "assign", Construct, fn(shared_kela_enum_set_assign_cons)},
        {"en", KREF_RETR, nullptr, Verify, fn(shared_kela_enum_retr_veri)},
        {"en", KREF_RETR, nullptr, Construct, fn(shared_kela_enum_retr_cons)},
        {"bm", KREF_CMP, nullptr, Print, fn(shared_kela_bitmasked_base_print)},
        {"bm", KREF_CMP, nullptr, Cmp, fn(shared_kela_bitmasked_base_cmp)},
        {"bm", KREF_CMP, "exact-match", Verify, fn(shared_kela_bitmasked_cmp_match_veri)},
        {"bm", KREF_CMP, "exact-match", Construct, fn(shared_kela_bitmasked_cmp_match_cons)},
        {"bm", KREF_SET, "assign", Verify, fn(shared_kela_bitmasked_set_assign_veri)},
        {"bm", KREF_SET, "assign", Construct, fn(shared_kela_bitmasked_set_assign_cons)},
        {"bm", KREF_RETR, nullptr, Verify, fn(shared_kela_bitmasked_retr_veri)},
        {"bm", KREF_RETR, nullptr, Construct, fn(shared_kela_bitmasked_retr_cons)},
        {"fl", KREF_CMP, nullptr, Print, fn(shared_kela_flag64_base_print)},
        {"fl", KREF_SET, "assign", Verify, fn(shared_kela_flag64_set_assign_veri)},
        {"fl", KREF_SET, "assign", Construct, fn(shared_kela_flag64_set_assign_cons)},
        {"px", KREF_CMP, nullptr, Print, fn(shared_kela_prefix_base_print)},
        {"px", KREF_CMP, nullptr, Cmp, fn(shared_kela_prefix_base_cmp)},
        {"px", KREF_CMP, "pfxmatch", Verify, fn(shared_kela_prefix_cmp_match_veri)},
        {"px", KREF_CMP, "pfxmatch", Construct, fn(shared_kela_prefix_cmp_match_cons)},
        {"px", KREF_CMP, "pfxmatch", Free, fn(shared_kela_prefix_cmp_match_free)},
        {"px", KREF_CMP, "pfxlonger", Verify, fn(shared_kela_prefix_cmp_match_veri)},
        {"px", KREF_CMP, "pfxlonger", Construct, fn(shared_kela_prefix_cmp_longer_cons)},
        {"px", KREF_CMP, "pfxlonger", Free, fn(shared_kela_prefix_cmp_match_free)},
        {"px", KREF_CMP, "pfxorlonger", Verify, fn(shared_kela_prefix_cmp_match_veri)},
        {"px", KREF_CMP, "pfxorlonger", Construct, fn(shared_kela_prefix_cmp_orlonger_cons)},
        {"px", KREF_CMP, "pfxorlonger", Free, fn(shared_kela_prefix_cmp_match_free)},
        {"px", KREF_SET, "assign", Verify, fn(shared_kela_prefix_set_assign_veri)},
        {"px", KREF_SET, "assign", Construct, fn(shared_kela_prefix_set_assign_cons)},
        {"v4", KREF_CMP, nullptr, Print, fn(shared_kela_ipv4_base_print)},
        {"v4", KREF_CMP, nullptr, Cmp, fn(shared_kela_ipv4_base_cmp)},
        {"v4", KREF_CMP, "pfxmatch", Verify, fn(shared_kela_ipv4_cmp_match_veri)},
        {"v4", KREF_CMP, "pfxmatch", Construct, fn(shared_kela_ipv4_cmp_match_cons)},
        {"v4", KREF_CMP, "pfxmatch", Free, fn(shared_kela_ipv4_cmp_match_free)},
        {"mac", KREF_CMP, nullptr, Print, fn(shared_kela_mac_address_base_print)},
        {"mac", KREF_CMP, nullptr, Cmp, fn(shared_kela_mac_address_base_cmp)},
        {"mac", KREF_CMP, "macaddrmatch", Verify, fn(shared_kela_mac_address_cmp_match_veri)},
        {"mac", KREF_CMP, "macaddrmatch", Construct, fn(shared_kela_mac_address_cmp_match_cons)},
        {"mac", KREF_CMP, "macaddrmatch", Free, fn(shared_kela_mac_address_cmp_match_free)},
    };
    for (const Case &c : cases) {
        rasf_attr_t *attr = kref_attr_find(c.attr);
        ASSERT_NE(attr, nullptr) << c.attr;
        const void *got = nullptr;
        void *ctx = nullptr;
        kref_op_info_t op{};
        if (c.role == Print) got = fn(kref_attr_base_print(attr, &ctx));
        if (c.role == Cmp) got = fn(kref_attr_base_cmp(attr, &ctx));
        if (c.role >= Verify) {
            const vogno st = c.op != nullptr ? kref_attr_op(attr, c.kind, c.op, &op)
                                             : kref_attr_op_at(attr, c.kind, 0, &op);
            ASSERT_EQ(st, 0u) << c.attr << " " << (c.op ? c.op : "(retriever)");
            got = c.role == Verify      ? fn(op.verify)
                  : c.role == Construct ? fn(op.construct)
                                        : fn(op.free_fn);
        }
        EXPECT_EQ(got, c.want) << c.attr << " " << (c.op ? c.op : "(base/retriever)") << " role "
                               << c.role;
    }
}
