// The reference platform on its own, driven by a small attribute type
// written here: what the registry keeps and refuses, how statements are laid
// out and compiled, evaluation order, ownership of instance contexts, the
// hooks, the error texts and the sorted array.
#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "kela_ref.h"
#include "kela_ref_hooks.h"
#include "sorted_array.h"
#include "vog.h"
#include "vup_msg.h"

namespace {

// ---- a toy attribute type: "flag" compares a route byte with a constant ----

struct Calls {
    int verify = 0, construct = 0, free_fn = 0, update = 0, cmp = 0;
    std::vector<std::string> seen;  // the vector the verifier got
    std::vector<bool> slot_null;
    uint64_t key = 0;
    std::string order;
} calls;

vogno toy_verify(uint32_t count, char **params, void *, char **msg) {
    ++calls.verify;
    calls.seen.clear();
    for (uint32_t i = 0; i < count; ++i) calls.seen.push_back(params[i] ? params[i] : "<var>");
    if (count > 0 && params[0] != nullptr && std::strcmp(params[0], "bad") == 0) {
        *msg = strdup("bad is refused");
        return 42;
    }
    return 0;
}

vogno toy_cmp(void *route, uint32_t, void **slots, void *ctx, int32_t *outcome) {
    ++calls.cmp;
    calls.order += "c";
    *outcome = *static_cast<unsigned char *>(route) == *static_cast<unsigned char *>(ctx) ? 1 : 0;
    (void)slots;
    return 0;
}

vogno toy_update(void *rec, void *, uint32_t, char **) {
    ++calls.update;
    calls.order += "u";
    calls.key = rec != nullptr ? static_cast<kref_eval_rec_t *>(rec)->key : 0;
    return 0;
}

vogno toy_construct(uint32_t count, char **params, void **slots, void *, rasf_inst_t **out) {
    ++calls.construct;
    calls.slot_null.clear();
    for (uint32_t i = 0; i < count; ++i) calls.slot_null.push_back(slots[i] == nullptr);
    auto *ctx = static_cast<unsigned char *>(std::malloc(1));
    *ctx = static_cast<unsigned char>(count > 0 && params[0] ? std::atoi(params[0]) : 0);
    rasf_inst_t *inst = nullptr;
    vogno st = rasf_new_cmp_instance(&inst, count, params, slots, ctx);
    if (st == 0) st = rasf_kela_add_cmp_instance_function_cmp(inst, toy_cmp);
    if (st == 0) st = rasf_kela_add_cmp_instance_function_update(inst, toy_update);
    if (st != 0) {
        if (inst) rasf_free_cmp_instance(inst);
        std::free(ctx);
        return st;
    }
    *out = inst;
    return 0;
}

vogno toy_free(void *ctx) {
    ++calls.free_fn;
    std::free(ctx);
    return 0;
}

char *toy_print(void *, void *route, void *) {
    return strdup(route ? "route" : "none");
}

class Platform : public ::testing::Test {
  protected:
    void SetUp() override {
        calls = {};
        kref_reset();
        kref_fault_clear();
        ASSERT_EQ(rasf_kela_new("flag", &calls, nullptr, "1.0", &attr_), 0u);
        ASSERT_EQ(rasf_kela_add_location("import", attr_), 0u);
        ASSERT_EQ(rasf_kela_add_location("export", attr_), 0u);
        ASSERT_EQ(rasf_kela_add_base_function_print(attr_, toy_print, nullptr), 0u);
    }
    void TearDown() override {
        kref_reset();
        kref_trace_stop();
        kref_fault_clear();
        EXPECT_EQ(kref_live_instances(), 0u);
        EXPECT_EQ(kref_live_args(), 0u);
    }

    // Registers operator `op` with the given argument-type list.
    void add_op(const char *op, std::vector<kref_arg_info_t> entries) {
        ASSERT_EQ(rasf_kela_add_cmp(op, attr_, toy_verify, toy_construct, toy_free, nullptr), 0u);
        ASSERT_EQ(rasf_kela_add_cmp_location(op, attr_, "import"), 0u);
        rasf_args_t *args = nullptr;
        ASSERT_EQ(rasf_args_new(&args), 0u);
        for (const auto &e : entries) {
            vogno st = e.kind == KREF_ARG_SINGLE ? rasf_args_single_add(args, e.type, "1.0")
                       : e.kind == KREF_ARG_INFINITE
                           ? rasf_args_infinite_add(args, e.type, "1.0", e.lower)
                           : rasf_args_n_add(args, e.type, "1.0", e.lower, e.upper);
            ASSERT_EQ(st, 0u);
        }
        ASSERT_EQ(rasf_kela_add_cmp_args(op, attr_, args), 0u);
    }

    rasf_attr_t *attr_ = nullptr;
};

const kref_arg_info_t kSingle{KREF_ARG_SINGLE, "uint32_t", "1.0", 0, 0};
const kref_arg_info_t kRun{KREF_ARG_INFINITE, "uint32_t", "1.0", 0, 0};
const kref_arg_info_t kTwo{KREF_ARG_N, "string", "1.0", 1, 2};

TEST_F(Platform, RegistryKeepsWhatWasRegisteredInOrder) {
    add_op("eq", {kSingle});
    add_op("any", {kRun});
    ASSERT_EQ(rasf_kela_add_cmp_location("eq", attr_, "import"), 0u) << "duplicates are kept";
    ASSERT_EQ(rasf_kela_add_location("import", attr_), 0u) << "attribute locations are a set";

    EXPECT_EQ(kref_attr_find("flag"), attr_);
    EXPECT_EQ(kref_attr_reg_ctx(attr_), &calls);
    EXPECT_EQ(kref_attr_value_type(attr_), nullptr);
    EXPECT_EQ(kref_attr_location_count(attr_), 2u);
    ASSERT_EQ(kref_attr_op_count(attr_, KREF_CMP), 2u);
    kref_op_info_t info{};
    ASSERT_EQ(kref_attr_op_at(attr_, KREF_CMP, 1, &info), 0u);
    EXPECT_STREQ(info.name, "any");
    ASSERT_EQ(kref_attr_op(attr_, KREF_CMP, "eq", &info), 0u);
    EXPECT_EQ(info.n_locations, 2u);
    EXPECT_STREQ(info.locations[1], "import");
    EXPECT_EQ(info.free_fn, toy_free);
    ASSERT_EQ(kref_args_count(info.args), 1u);
    kref_arg_info_t a{};
    ASSERT_EQ(kref_args_at(info.args, 0, &a), 0u);
    EXPECT_EQ(a.kind, KREF_ARG_SINGLE);
    EXPECT_STREQ(a.type, "uint32_t");
}

TEST_F(Platform, RegistryRefusals) {
    rasf_attr_t *other = nullptr;
    EXPECT_EQ(rasf_kela_new("flag", nullptr, nullptr, "1.0", &other), KREF_ERR_EXISTS);
    EXPECT_EQ(rasf_kela_new(nullptr, nullptr, nullptr, "1.0", &other), KREF_ERR_BAD_ARG);
    add_op("eq", {kSingle});
    EXPECT_EQ(rasf_kela_add_cmp("eq", attr_, toy_verify, toy_construct, nullptr, nullptr),
              KREF_ERR_EXISTS);
    EXPECT_EQ(rasf_kela_add_cmp_location("nope", attr_, "import"), KREF_ERR_NOT_FOUND);
    EXPECT_EQ(rasf_kela_add_cmp_location("eq", attr_, "table"), KREF_ERR_LOCATION);
    EXPECT_EQ(rasf_kela_add_base_function_print(attr_, toy_print, nullptr), KREF_ERR_EXISTS);

    rasf_args_t *args = nullptr;
    ASSERT_EQ(rasf_args_new(&args), 0u);
    EXPECT_EQ(kref_live_args(), 1u);
    EXPECT_EQ(rasf_kela_add_cmp_args("eq", attr_, args), KREF_ERR_ARGS_OWNED);
    EXPECT_EQ(rasf_kela_add_set_args("assign", attr_, args), KREF_ERR_NOT_FOUND);
    EXPECT_EQ(rasf_args_free(args), 0u);

    ASSERT_EQ(rasf_kela_add_retriever(nullptr, attr_, "uint32_t", "1.0", toy_verify, toy_construct,
                                      nullptr, nullptr),
              0u);
    EXPECT_EQ(rasf_kela_add_retriever(nullptr, attr_, "uint32_t", "1.0", toy_verify, toy_construct,
                                      nullptr, nullptr),
              KREF_ERR_EXISTS);

    rasf_inst_t *inst = nullptr;
    ASSERT_EQ(rasf_new_cmp_instance(&inst, 0, nullptr, nullptr, nullptr), 0u);
    EXPECT_EQ(rasf_kela_add_set_instance_function_set(inst, nullptr), KREF_ERR_BAD_ARG);
    EXPECT_EQ(rasf_free_set_instance(inst), KREF_ERR_BAD_ARG) << "wrong kind: not freed";
    EXPECT_EQ(kref_live_instances(), 1u);
    EXPECT_EQ(rasf_free_cmp_instance(inst), 0u);
}

TEST_F(Platform, StatementsAreLaidOutAlongTheArgumentList) {
    add_op("one", {kSingle});
    add_op("list", {kSingle, kRun});
    add_op("pair", {kTwo});
    const char *a[] = {"7"}, *b[] = {"10.0.0.0", "8"}, *c[] = {nullptr}, *d[] = {"x", "y", "z"};
    kref_stmt_t *stmt = nullptr;

    kref_item_t one[] = {{1, a}, {1, d}};  // a leftover item is passed on as it is
    ASSERT_EQ(kref_compile("flag", KREF_CMP, "one", "import", 2, one, nullptr, &stmt), 0u);
    EXPECT_EQ(calls.seen, (std::vector<std::string>{"7", "x"}));
    kref_stmt_free(stmt);

    kref_item_t list[] = {{1, a}, {2, b}, {1, c}, {3, d}};
    ASSERT_EQ(kref_compile("flag", KREF_CMP, "list", nullptr, 4, list, nullptr, &stmt), 0u);
    EXPECT_EQ(calls.seen, (std::vector<std::string>{"7", "arg0:2", "10.0.0.0", "8", "arg1:1",
                                                    "<var>", "arg2:3", "x", "y", "z"}));
    EXPECT_EQ(calls.slot_null, (std::vector<bool>{false, false, false, false, false, true, false,
                                                  false, false, false}));
    void **slots = kref_stmt_slots(stmt);
    std::set<void *> distinct(slots, slots + kref_stmt_count(stmt));
    EXPECT_EQ(distinct.size(), 10u) << "nine slots of their own and the null one";
    EXPECT_EQ(kref_stmt_params(stmt)[kref_stmt_count(stmt)], nullptr);
    kref_stmt_free(stmt);

    kref_item_t pair[] = {{1, a}, {1, d}, {1, d + 1}};
    ASSERT_EQ(kref_compile("flag", KREF_CMP, "pair", nullptr, 3, pair, nullptr, &stmt), 0u);
    EXPECT_EQ(calls.seen, (std::vector<std::string>{"7", "x", "y"}));
    kref_stmt_free(stmt);
    EXPECT_EQ(calls.free_fn, 3);
}

TEST_F(Platform, CompileStopsAtTheVerifierAndChecksTheLocation) {
    add_op("one", {kSingle});
    const char *bad[] = {"bad"};
    kref_item_t item{1, bad};
    kref_stmt_t *stmt = nullptr;
    char *msg = nullptr;
    EXPECT_EQ(kref_compile("flag", KREF_CMP, "one", nullptr, 1, &item, &msg, &stmt), 42u);
    ASSERT_NE(msg, nullptr);
    EXPECT_STREQ(msg, "bad is refused");
    std::free(msg);
    EXPECT_EQ(kref_compile("flag", KREF_CMP, "one", nullptr, 1, &item, nullptr, &stmt), 42u)
        << "the message is released when nobody takes it";
    EXPECT_EQ(calls.construct, 0);
    EXPECT_EQ(kref_compile("flag", KREF_CMP, "one", "export", 1, &item, nullptr, &stmt),
              KREF_ERR_LOCATION);
    EXPECT_EQ(kref_compile("flag", KREF_CMP, "two", nullptr, 1, &item, nullptr, &stmt),
              KREF_ERR_NOT_FOUND);
    EXPECT_EQ(kref_compile("none", KREF_CMP, "one", nullptr, 1, &item, nullptr, &stmt),
              KREF_ERR_NOT_FOUND);
    EXPECT_EQ(stmt, nullptr);
}

TEST_F(Platform, EvaluationUpdatesFirstAndReleaseLeavesTheContextToTheFreeFunction) {
    add_op("one", {kSingle});
    const char *seven[] = {"7"};
    kref_item_t item{1, seven};
    kref_stmt_t *stmt = nullptr;
    ASSERT_EQ(kref_compile("flag", KREF_CMP, "one", nullptr, 1, &item, nullptr, &stmt), 0u);
    unsigned char route = 7;
    kref_eval_rec_t rec{};
    rec.key = 0x1122334455667788u;
    int32_t out = -1;
    EXPECT_EQ(kref_eval(stmt, &route, &rec, &out), 0u);
    EXPECT_EQ(out, 1);
    EXPECT_EQ(calls.order, "uc");
    EXPECT_EQ(calls.key, rec.key);
    EXPECT_EQ(kref_apply(stmt, &route), KREF_ERR_BAD_ARG) << "not a setter";

    // The framework's own release of an instance leaves the context alone;
    // LeakSanitizer would report it if the free function did not run.
    kref_inst_info_t info{};
    ASSERT_EQ(kref_inst_get(kref_stmt_instance(stmt), &info), 0u);
    EXPECT_EQ(*static_cast<unsigned char *>(info.ctx), 7);
    kref_stmt_free(stmt);
    EXPECT_EQ(calls.free_fn, 1);
}

TEST_F(Platform, FaultsFireOnceOnTheNthCall) {
    add_op("one", {kSingle});
    kref_trace_start();
    kref_fault_set("rasf_kela_add_cmp_location", 2, 99);
    EXPECT_EQ(kref_fault_pending(), 1u);
    EXPECT_EQ(rasf_kela_add_cmp_location("one", attr_, "import"), 0u);
    EXPECT_EQ(rasf_kela_add_cmp_location("one", attr_, "export"), 99u);
    EXPECT_EQ(rasf_kela_add_cmp_location("one", attr_, "export"), 0u);
    EXPECT_EQ(kref_fault_pending(), 0u);
    kref_op_info_t info{};
    ASSERT_EQ(kref_attr_op(attr_, KREF_CMP, "one", &info), 0u);
    EXPECT_EQ(info.n_locations, 3u) << "the failed call did nothing";

    kref_fault_set_after("rasf_new_cmp_instance", 1, 5);
    rasf_inst_t *inst = nullptr;
    EXPECT_EQ(rasf_new_cmp_instance(&inst, 0, nullptr, nullptr, nullptr), 5u);
    ASSERT_NE(inst, nullptr) << "after-mode carries the operation out";
    EXPECT_EQ(rasf_free_cmp_instance(inst), 0u);

    std::vector<std::string> lines;
    for (size_t i = 0; i < kref_trace_count(); ++i) lines.emplace_back(kref_trace_at(i));
    EXPECT_EQ(lines,
              (std::vector<std::string>{"rasf_kela_add_cmp_location(one, flag, import)",
                                        "rasf_kela_add_cmp_location(one, flag, export)",
                                        "rasf_kela_add_cmp_location(one, flag, export)",
                                        "rasf_new_cmp_instance(0)", "rasf_free_cmp_instance()"}));
}

TEST(PlatformErrors, EveryLibraryCodeHasItsOwnText) {
    std::set<std::string> texts;
    for (uint32_t n = 1; n <= 17; ++n) {
        std::string t = vog_strerror(0x43848000u + n * 0x200u);
        EXPECT_EQ(t.find("Unknown"), std::string::npos) << n;
        texts.insert(t);
    }
    EXPECT_EQ(texts.size(), 17u);
    EXPECT_STREQ(vog_strerror(0), "Success");
    EXPECT_NE(std::string(vog_strerror(0x12345678u)).find("0x12345678"), std::string::npos);
    EXPECT_NE(std::string(vog_strerror(KREF_ERR_LOCATION)).find("location"), std::string::npos);

    EXPECT_EQ(vog_register_dll(4242, "a.dll"), 0u);
    EXPECT_EQ(vog_register_dll(4242, "a.dll"), 0u);
    EXPECT_EQ(vog_register_dll(4242, "b.dll"), KREF_ERR_EXISTS);
    EXPECT_EQ(vog_register_dll(4243, nullptr), KREF_ERR_BAD_ARG);
}

TEST(PlatformErrors, MessageFacilityFormatsOneLine) {
    static const vup_msg_rec_td rec = {nullptr, "value %d of %s", nullptr, "FAC", "GRP", "MNEMO", 0,
                                       0,       nullptr,          0,       0};
    kref_log_capture(1);
    vup_errmsg(&rec, 3, 17, "things");
    vup_errmsg(nullptr, 3);
    ASSERT_EQ(kref_log_count(), 1u);
    EXPECT_STREQ(kref_log_at(0), "%FAC-3-MNEMO: value 17 of things");
    kref_log_capture(0);
}

TEST(SortedArray, InsertsInOrderAndLooksUpOnlyStoredElements) {
    uint32_t block[8] = {};
    uint32_t *elements = block + 1;
    for (uint32_t v : {5u, 1u, 9u, 5u}) sorted_array_add(elements, &block[0], v);
    EXPECT_EQ(block[0], 4u);
    EXPECT_EQ(std::vector<uint32_t>(elements, elements + 4), (std::vector<uint32_t>{1, 5, 5, 9}));
    uint32_t index = 77;
    EXPECT_NE(sorted_array_get_index(elements, block[0] + 1, &index, 9), 0);
    EXPECT_EQ(index, 3u);
    EXPECT_NE(sorted_array_get_index(elements, block[0] + 1, &index, 5), 0);
    EXPECT_EQ(sorted_array_get_index(elements, block[0] + 1, &index, 0), 0)
        << "the slot past the stored elements holds 0 but is not considered";
    EXPECT_EQ(sorted_array_get_index(elements, 1, &index, 1), 0) << "bound 1: nothing stored";
    EXPECT_EQ(sorted_array_get_index(elements, 0, &index, 1), 0);
}

}  // namespace
