// SPDX-License-Identifier: Apache-2.0
// The registration recipe as every type runs it, seen from the framework:
// order of calls, location merging, stop at the first failure with its
// message, ownership of argument lists, and the range entry points.
#include <algorithm>
#include <array>
#include <cstring>

#include "support.hpp"

namespace {

// Platform calls made by a registration, without the one-time start-up
// (which only the first registration of a process makes).
std::vector<std::string> framework_calls() {
    std::vector<std::string> out;
    for (auto &line : kt::trace())
        if (line.rfind("rasf_", 0) == 0) out.push_back(line);
    return out;
}

// The calls an integer attribute "pref" makes with the default locations.
std::vector<std::string> worked_example(bool with_any) {
    std::vector<std::string> calls = {
        "rasf_kela_new(pref, uint32_t, 1.0)", "rasf_kela_add_location(import, pref)",
        "rasf_kela_add_location(export, pref)", "rasf_kela_add_base_function_print(pref)",
        "rasf_kela_add_base_function_cmp(pref)"};
    for (std::string o : {"exact-match", "matches-any", "le", "ge"}) {
        if (o == "matches-any" && !with_any) continue;
        calls.insert(calls.end(),
                     {"rasf_kela_add_cmp(" + o + ", pref)",
                      "rasf_kela_add_cmp_location(" + o + ", pref, import)",
                      "rasf_kela_add_cmp_location(" + o + ", pref, export)", "rasf_args_new()",
                      o == "matches-any" ? "rasf_args_infinite_add(uint32_t, 1.0, 0)"
                                         : "rasf_args_single_add(uint32_t, 1.0)",
                      "rasf_kela_add_cmp_args(" + o + ", pref)"});
    }
    calls.insert(calls.end(),
                 {"rasf_kela_add_set(assign, pref)",
                  "rasf_kela_add_set_location(assign, pref, export)", "rasf_args_new()",
                  "rasf_args_single_add(uint32_t, 1.0)", "rasf_kela_add_set_args(assign, pref)",
                  "rasf_kela_add_retriever((null), pref, uint32_t, 1.0)",
                  "rasf_kela_add_retriever_location((null), pref, import)",
                  "rasf_kela_add_retriever_location((null), pref, export)", "rasf_args_new()",
                  "rasf_kela_add_retriever_args((null), pref)"});
    return calls;
}

class Registration : public kt::FrameworkTest {};

// 32 bits add "matches-any" second, with an open run of arguments.
TEST_F(Registration, IntegerWorkedExampleMakesExactlyTheseCalls) {
    shared_kela_uint8_desc_td d{"pref", 2, 10, 20};
    char buf[64] = "untouched";
    int reg_ctx = 0;
    kref_trace_start();
    ASSERT_EQ(shared_kela_uint8_base_init(&reg_ctx, buf, sizeof buf, &d), 0u);
    EXPECT_EQ(framework_calls(), worked_example(false));
    EXPECT_STREQ(buf, "untouched");
    EXPECT_EQ(std::tuple(d.min, d.max), std::tuple(0, 255));

    // Everything was registered with the client's descriptor as context.
    rasf_attr_t *attr = kref_attr_find("pref");
    EXPECT_EQ(kref_attr_reg_ctx(attr), &reg_ctx);
    void *print_ctx = nullptr, *cmp_ctx = nullptr;
    EXPECT_NE(kref_attr_base_print(attr, &print_ctx), nullptr);
    EXPECT_NE(kref_attr_base_cmp(attr, &cmp_ctx), nullptr);
    EXPECT_EQ(std::tuple(print_ctx, cmp_ctx), std::tuple(&d, &d));
    for (kref_kind_t kind : {KREF_CMP, KREF_SET, KREF_RETR}) {
        for (size_t i = 0; i < kref_attr_op_count(attr, kind); ++i) {
            kref_op_info_t info{};
            ASSERT_EQ(kref_attr_op_at(attr, kind, i, &info), 0u);
            EXPECT_EQ(std::tuple(info.desc, info.free_fn), std::tuple(&d, nullptr));
        }
    }

    kref_reset();
    kref_trace_start();
    shared_kela_uint32_desc_td d32{"pref", 0, 0, 0, nullptr};
    ASSERT_EQ(shared_kela_uint32_base_init(nullptr, nullptr, 0, &d32), 0u);
    EXPECT_EQ(framework_calls(), worked_example(true));
    EXPECT_EQ(d32.max, 0xFFFFFFFFu);
}

// ---- location lists ---------------------------------------------------------

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

// Each type's failure messages name the failing call, and an argument-list
// call the place of its list in the source.
struct Injected {
    const char *type;  // an attribute of kt::EveryType
    const char *op;
    uint32_t nth;
    const char *message;
};

void PrintTo(const Injected &i, std::ostream *os) {
    *os << i.type << " " << i.op << " #" << i.nth;
}

class FirstFailure : public kt::FrameworkTest, public ::testing::WithParamInterface<Injected> {};

TEST_P(FirstFailure, StopsWritesItsMessageAndReturnsItsStatus) {
    const Injected &f = GetParam();
    const vogno injected = 0x0BADF00Du;
    kt::EveryType types;
    char buf[128];
    std::memset(buf, 'X', sizeof buf);
    kref_trace_start();
    kref_fault_set(f.op, f.nth, injected);
    EXPECT_EQ(types.register_one(f.type, buf, sizeof buf), injected);
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
    const std::string op = f.op;
    const bool list_built =
        (op.rfind("rasf_args_", 0) == 0 && op != "rasf_args_new") || op.ends_with("_args");
    EXPECT_EQ(
        std::vector<std::string>(calls.begin() + failed + 1, calls.end()),
        list_built ? std::vector<std::string>{"rasf_args_free()"} : std::vector<std::string>{});
    EXPECT_EQ(kref_attr_find(f.type) != nullptr, op != "rasf_kela_new");
}

// Each kind of argument-list entry once (the numbers of every list: below).
const Injected kInjected[] = {
    {"u8", "rasf_kela_new", 1, "rasf_kela_new:u8"},
    {"u8", "rasf_kela_add_location", 2, "rasf_kela_add_location export to u8"},
    {"u8", "rasf_kela_add_base_function_print", 1, "rasf_kela_add_base_function_print"},
    {"u8", "rasf_kela_add_base_function_cmp", 1, "rasf_kela_add_base_function_cmp"},
    {"u8", "rasf_kela_add_cmp", 2, "rasf_kela_add_cmp_function le to u8"},
    {"u8", "rasf_kela_add_cmp_location", 3, "rasf_kela_add_cmp_location le to u8 location import"},
    {"u8", "rasf_args_new", 1, "rasf_args_new at kela_uint8@919"},
    {"u8", "rasf_args_single_add", 3, "rasf_args_single_add: uint32_t:1.0 at kela_uint8@952"},
    {"u8", "rasf_kela_add_cmp_args", 1, "rasf_kela_add_cmp_args exact-match on u8"},
    {"u8", "rasf_kela_add_set", 1, "rasf_kela_add_set_function assign to u8"},
    {"u8", "rasf_kela_add_set_location", 1,
     "rasf_kela_add_set_location assign to u8 location export"},
    {"u8", "rasf_kela_add_set_args", 1, "rasf_kela_add_set_args assign on u8"},
    {"u8", "rasf_kela_add_retriever", 1, "rasf_kela_add_retriever_function (built-in) to u8"},
    {"u8", "rasf_kela_add_retriever_location", 2,
     "rasf_kela_add_retriever_location (built-in) to u8 location export"},
    {"u8", "rasf_kela_add_retriever_args", 1, "rasf_kela_add_retriever_args (built-in) on u8"},
    {"u32", "rasf_args_infinite_add", 1,
     "rasf_args_infinite_add: uint32_t:1.0 (0 ) at kela_uint32@1296"},
    {"u32", "rasf_kela_add_cmp_location", 3,
     "rasf_kela_add_cmp_location matches-any to u32 location import"},
    {"px", "rasf_args_single_add", 1, "rasf_args_single_add: ip_addr_t:1.0 at kela_prefix@2915"},
    {"v4", "rasf_args_single_add", 1, "rasf_args_single_add: ipv4_addr_t:1.0 at kela_ipv4@821"},
    {"track", "rasf_args_n_add", 1, "rasf_args_n_add: : (1,3) at kela_track@317"},
};

// Named by index; a failure names the row through PrintTo.
INSTANTIATE_TEST_SUITE_P(EveryType, FirstFailure, ::testing::ValuesIn(kInjected));

// Every argument-list call of every type names its place in its failure
// message: failing each in turn gives these numbers (lists made, then
// single, open-run and bounded entries), in kt::EveryType::kAttrs order.
TEST_F(Registration, EveryArgumentListCallNamesItsPlace) {
    const char *const want[] = {"919 935 951 967 983 920 936 952 968",
                                "930 946 962 978 994 931 947 963 979",
                                "1279 1295 1311 1327 1343 1359 1280 1312 1328 1344 1296",
                                "606 620 634 607 621",
                                "793 808 822 837 794 823 809",
                                "265 266",
                                "2859 2877 2895 2914 2938 2915 2860 2878 2896 2939",
                                "820 821 822 823 824",
                                "658 659",
                                "1506 1521 1507 1522",
                                "316 317"};
    kt::EveryType types;
    for (size_t i = 0; i < std::size(want); ++i) {
        std::string got;
        for (const char *op : {"rasf_args_new", "rasf_args_single_add", "rasf_args_infinite_add",
                               "rasf_args_n_add"}) {
            for (uint32_t nth = 1;; ++nth) {
                char buf[128] = "";
                kref_reset();
                kref_fault_set(op, nth, 5);
                const vogno st = types.register_one(kt::EveryType::kAttrs[i], buf, sizeof buf);
                if (kref_fault_pending() != 0) {  // registered: no message
                    EXPECT_EQ(std::tuple(st, std::string(buf)), std::tuple(0u, ""));
                    break;
                }
                EXPECT_EQ(st, 5u);
                got += (got.empty() ? "" : " ") + std::string(std::strrchr(buf, '@') + 1);
            }
            kref_fault_clear();
        }
        EXPECT_EQ(got, want[i]) << kt::EveryType::kAttrs[i];
    }
}

TEST_F(Registration, ErrorBufferBounds) {
    shared_kela_uint8_desc_td d{"a-rather-long-attribute-name", 0, 0, 0};
    // The length given, then what the buffer holds: nothing for no room,
    // never more than the length, and no buffer at all is fine.
    for (auto [len, want] : {std::pair{0, "XXXXXXXXXXXXXXX"},
                             {-3, "XXXXXXXXXXXXXXX"},
                             {10, "rasf_kela"},
                             {10, nullptr}}) {
        std::array<char, 16> buf;
        buf.fill('X');
        buf[15] = '\0';
        kref_fault_set("rasf_kela_new", 1, 5);
        EXPECT_EQ(shared_kela_uint8_base_init(nullptr, want ? buf.data() : nullptr, len, &d), 5u);
        if (want == nullptr) continue;
        EXPECT_STREQ(buf.data(), want) << len;
        EXPECT_EQ(buf[10], 'X') << "nothing beyond the given length";
    }
}

// ---- range entry points -----------------------------------------------------

TEST_F(Registration, RangeFormsKeepTheClientsRangeAndV2Overwrites) {
    shared_kela_uint16_desc_td a{"a", 0, 10, 20}, b{"b", 0, 10, 20}, c{"c", 0, 10, 20};
    const char *l[] = {"import", nullptr};
    EXPECT_EQ(shared_kela_uint16_range_base_init(nullptr, nullptr, 0, &a, l, l, l, l), 0u);
    EXPECT_EQ(shared_kela_uint16_shared_base_init(nullptr, nullptr, 0, &b, l, l, l, l), 0u);
    EXPECT_EQ(shared_kela_uint16_base_init_v2(nullptr, nullptr, 0, &c, l, l, l, l), 0u);
    EXPECT_EQ(std::tuple(a.min, a.max, b.min, b.max, c.min, c.max),
              std::tuple(10, 20, 10, 20, 0, 65535));

    // A failed v2 registration has already widened the range.
    shared_kela_uint32_desc_td d{"d", 0, 10, 20, nullptr};
    kref_fault_set("rasf_kela_new", 1, 9);
    EXPECT_EQ(shared_kela_uint32_base_init_v2(nullptr, nullptr, 0, &d, l, l, l, l), 9u);
    EXPECT_EQ(std::tuple(d.min, d.max), std::tuple(0u, 0xFFFFFFFFu));
}

}  // namespace
