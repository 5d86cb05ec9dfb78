// The reference platform on its own, driven by a small attribute type
// written here: what the registry keeps and refuses, how statements are laid
// out and compiled, evaluation order, ownership of instance contexts, the
// hooks, the error texts and the sorted array.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "kela_ref.h"
#include "kela_ref_hooks.h"
#include "sorted_array.h"
#include "vog.h"
#include "vup_msg.h"

namespace {

// ---- a toy attribute type: "flag" compares a route byte with a constant ----

// How the toy constructor behaves.
enum class Cons { Normal, Async, NoCompare, Fail, FailLeavingInstance, NoInstance };

// Per thread, so that statements can be compiled and evaluated on several.
struct Calls {
    int verify = 0, construct = 0, free_fn = 0;
    std::vector<std::string> seen;  // the vector the verifier got
    std::vector<bool> slot_null;
    bool msg_was_null = false;  // what *msg held when the verifier was called
    uint64_t key = 0;
    bool fw_arg_null = false;  // what the asynchronous compare got
    void *desc = nullptr;
    std::string order;
    Cons cons = Cons::Normal;
    vogno update_status = 0;
    rasf_inst_t *left_behind = nullptr;  // by Cons::FailLeavingInstance
};
thread_local Calls calls;

int g_desc;  // the descriptor every toy function is registered with

vogno toy_verify(uint32_t count, char **params, void *desc, char **msg) {
    ++calls.verify;
    calls.desc = desc;
    calls.msg_was_null = msg != nullptr && *msg == nullptr;
    calls.seen.clear();
    for (uint32_t i = 0; i < count; ++i) calls.seen.push_back(params[i] ? params[i] : "<var>");
    if (count > 0 && params[0] != nullptr && std::strcmp(params[0], "bad") == 0) {
        *msg = strdup("bad is refused");
        return 42;
    }
    return 0;
}

unsigned char constant(void *ctx) {
    return *static_cast<unsigned char *>(ctx);
}

vogno toy_cmp(void *route, uint32_t, void **, void *ctx, int32_t *outcome) {
    calls.order += "c";
    *outcome = *static_cast<unsigned char *>(route) == constant(ctx) ? 1 : 0;
    return 0;
}

vogno toy_cmp_async(void *route, uint32_t count, void **slots, void *ctx, int32_t *outcome,
                    void *fw_arg, uint64_t key) {
    calls.order += "a";
    calls.fw_arg_null = fw_arg == nullptr;
    calls.key = key;
    return toy_cmp(route, count, slots, ctx, outcome);
}

vogno toy_update(void *rec, void *, uint32_t, char **) {
    calls.order += "u";
    calls.key = rec != nullptr ? static_cast<kref_eval_rec_t *>(rec)->key : 0;
    return calls.update_status;
}

char *toy_print(uint32_t, uint32_t count, char **params, void **, const char *print_ctx) {
    std::string s = print_ctx != nullptr ? print_ctx : "?";
    for (uint32_t i = 0; i < count; ++i) s += std::string(" ") + (params[i] ? params[i] : "$");
    return strdup(s.c_str());
}

// The common end of the toy constructors: hand the instance over, or release
// what was made.
vogno finish(vogno st, rasf_inst_t *inst, vogno (*release)(rasf_inst_t *), void *ctx,
             rasf_inst_t **out) {
    if (st == 0) {
        *out = inst;
        return 0;
    }
    if (inst != nullptr) release(inst);
    std::free(ctx);
    return st;
}

vogno toy_construct(uint32_t count, char **params, void **slots, void *, rasf_inst_t **out) {
    ++calls.construct;
    calls.slot_null.clear();
    for (uint32_t i = 0; i < count; ++i) calls.slot_null.push_back(slots[i] == nullptr);
    if (calls.cons == Cons::Fail) return 17;
    if (calls.cons == Cons::NoInstance) return 0;
    auto *ctx = static_cast<unsigned char *>(std::malloc(1));
    *ctx = static_cast<unsigned char>(count > 0 && params[0] ? std::atoi(params[0]) : 0);
    rasf_inst_t *inst = nullptr;
    vogno st = rasf_new_cmp_instance(&inst, count, params, slots, ctx);
    if (st == 0 && calls.cons == Cons::FailLeavingInstance) {
        calls.left_behind = *out = inst;  // a careless constructor
        return 18;
    }
    if (st == 0 && calls.cons == Cons::Normal)
        st = rasf_kela_add_cmp_instance_function_cmp(inst, toy_cmp);
    if (st == 0 && calls.cons == Cons::Async)
        st = rasf_kela_add_cmp_instance_function_cmp_async(inst, toy_cmp_async);
    if (st == 0) st = rasf_kela_add_cmp_instance_function_update(inst, toy_update);
    if (st == 0) st = rasf_kela_add_cmp_instance_function_print(inst, toy_print);
    if (st == 0) st = rasf_kela_add_cmp_instance_function_print_ctx(inst, "flag is");
    return finish(st, inst, rasf_free_cmp_instance, ctx, out);
}

vogno toy_free(void *ctx) {
    ++calls.free_fn;
    std::free(ctx);
    return 0;
}

// The setter writes its constant into the route; the retriever reads the
// route byte.
vogno toy_set(void *route, uint32_t, void **, void *ctx) {
    *static_cast<unsigned char *>(route) = constant(ctx);
    return 0;
}

char *toy_set_print(uint32_t, uint32_t, char **, void **, void *ctx) {
    return strdup(("flag := " + std::to_string(constant(ctx))).c_str());
}

vogno toy_set_construct(uint32_t count, char **params, void **slots, void *, rasf_inst_t **out) {
    auto *ctx = static_cast<unsigned char *>(std::malloc(1));
    *ctx = static_cast<unsigned char>(std::atoi(params[0]));
    rasf_inst_t *inst = nullptr;
    vogno st = rasf_new_set_instance(&inst, count, params, slots, ctx);
    if (st == 0) st = rasf_kela_add_set_instance_function_set(inst, toy_set);
    if (st == 0) st = rasf_kela_add_set_instance_function_print(inst, toy_set_print);
    return finish(st, inst, rasf_free_set_instance, ctx, out);
}

vogno toy_retrieve(void *route, void *fw1, void *fw2, uint32_t *out, void *) {
    if (fw1 != nullptr || fw2 != nullptr) return 99;
    *out = *static_cast<unsigned char *>(route) + 1000u;
    return 0;
}

vogno toy_retr_construct(uint32_t count, char **params, void **slots, void *, rasf_inst_t **out) {
    rasf_inst_t *inst = nullptr;
    vogno st = rasf_new_retriever_instance(&inst, count, params, slots, nullptr);
    if (st == 0) st = rasf_kela_add_retriever_instance_function_retrieve(inst, toy_retrieve);
    return finish(st, inst, rasf_free_retriever_instance, nullptr, out);
}

char *toy_base_print(void *fw_value, void *route, void *desc) {
    return strdup(fw_value == nullptr && desc == &g_desc && route ? "route" : "wrong call");
}

vogno toy_base_cmp(void *a, void *b, void *desc, int32_t *outcome) {
    if (desc != &g_desc) return 1;
    *outcome = *static_cast<unsigned char *>(a) - *static_cast<unsigned char *>(b);
    return 0;
}

// One argument-type list entry as "kind type version lower upper".
std::string entry(const rasf_args_t *args, size_t i) {
    kref_arg_info_t a{};
    if (kref_args_at(args, i, &a) != 0) return "none";
    return std::to_string(a.kind) + " " + a.type + " " + a.version + " " + std::to_string(a.lower) +
           " " + std::to_string(a.upper);
}

std::vector<std::string> trace_lines() {
    std::vector<std::string> lines;
    for (size_t i = 0; i < kref_trace_count(); ++i) lines.emplace_back(kref_trace_at(i));
    return lines;
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
    }
    void TearDown() override {
        kref_reset();
        kref_trace_stop();
        kref_fault_clear();
        EXPECT_EQ(kref_live_instances(), 0u);
        EXPECT_EQ(kref_live_args(), 0u);
    }

    rasf_args_t *make_args(const std::vector<kref_arg_info_t> &entries) {
        rasf_args_t *args = nullptr;
        EXPECT_EQ(rasf_args_new(&args), 0u);
        for (const auto &e : entries) {
            vogno st = e.kind == KREF_ARG_SINGLE ? rasf_args_single_add(args, e.type, e.version)
                       : e.kind == KREF_ARG_INFINITE
                           ? rasf_args_infinite_add(args, e.type, e.version, e.lower)
                           : rasf_args_n_add(args, e.type, e.version, e.lower, e.upper);
            EXPECT_EQ(st, 0u);
        }
        return args;
    }

    // Registers operator `op` (usable at import) with the given list.
    void add_op(const char *op, const std::vector<kref_arg_info_t> &entries) {
        ASSERT_EQ(rasf_kela_add_cmp(op, attr_, toy_verify, toy_construct, toy_free, &g_desc), 0u);
        ASSERT_EQ(rasf_kela_add_cmp_location(op, attr_, "import"), 0u);
        ASSERT_EQ(rasf_kela_add_cmp_args(op, attr_, make_args(entries)), 0u);
    }

    // Compiles "flag <op> <texts...>", one text per item.
    vogno compile(const char *op, std::vector<const char *> texts, kref_stmt_t **stmt,
                  const char *location = nullptr, kref_kind_t kind = KREF_CMP) {
        texts_ = std::move(texts);
        items_.clear();
        for (const char *&t : texts_) items_.push_back({1, &t});
        return kref_compile("flag", kind, op, location, items_.size(), items_.data(), nullptr,
                            stmt);
    }

    rasf_attr_t *attr_ = nullptr;
    std::vector<const char *> texts_;
    std::vector<kref_item_t> items_;
};

const kref_arg_info_t kSingle{KREF_ARG_SINGLE, "uint32_t", "1.0", 1, 1};
const kref_arg_info_t kRun{KREF_ARG_INFINITE, "uint32_t", "2.0", 1, -1};
const kref_arg_info_t kTwo{KREF_ARG_N, "string", "1.0", 1, 2};

// ---- registry ------------------------------------------------------------------

TEST_F(Platform, RegistryKeepsWhatWasRegisteredInOrder) {
    char type[] = "uint8_t";
    rasf_attr_t *second = nullptr;
    ASSERT_EQ(rasf_kela_new("second", nullptr, type, "1.0", &second), 0u);
    type[0] = 'x';  // the framework keeps its own copy
    EXPECT_STREQ(kref_attr_value_type(second), "uint8_t");
    EXPECT_EQ(kref_attr_count(), 2u);
    EXPECT_EQ(kref_attr_at(0), attr_);
    EXPECT_EQ(kref_attr_at(1), second);
    EXPECT_EQ(kref_attr_reg_ctx(attr_), &calls);
    EXPECT_EQ(kref_attr_value_type(attr_), nullptr);

    EXPECT_EQ(rasf_kela_add_location("import", attr_), 0u) << "attribute locations are a set";
    ASSERT_EQ(kref_attr_location_count(attr_), 2u);
    EXPECT_STREQ(kref_attr_location_at(attr_, 1), "export");

    add_op("eq", {kSingle});
    ASSERT_EQ(rasf_kela_add_cmp("any", attr_, toy_verify, toy_construct, nullptr, nullptr), 0u);
    ASSERT_EQ(rasf_kela_add_cmp_args("any", attr_, make_args({kRun, kTwo})), 0u);
    ASSERT_EQ(rasf_kela_add_set("assign", attr_, toy_verify, toy_set_construct, toy_free, nullptr),
              0u);
    ASSERT_EQ(rasf_kela_add_retriever(nullptr, attr_, "uint32_t", "3.0", toy_verify,
                                      toy_retr_construct, nullptr, &g_desc),
              0u);
    for (const char *loc : {"export", "import", "export"})  // duplicates are kept
        ASSERT_EQ(rasf_kela_add_retriever_location(nullptr, attr_, loc), 0u);
    ASSERT_EQ(rasf_kela_add_base_function_cmp(attr_, toy_base_cmp, &g_desc), 0u);

    EXPECT_EQ(kref_attr_op_count(attr_, KREF_CMP), 2u);
    EXPECT_EQ(kref_attr_op_count(attr_, KREF_SET), 1u);
    EXPECT_EQ(kref_attr_op_count(attr_, KREF_RETR), 1u);
    kref_op_info_t info{};
    ASSERT_EQ(kref_attr_op_at(attr_, KREF_CMP, 1, &info), 0u);
    EXPECT_STREQ(info.name, "any");
    EXPECT_EQ(info.free_fn, nullptr);
    EXPECT_EQ(info.n_locations, 0u);
    EXPECT_EQ(info.value_type, nullptr);
    EXPECT_EQ(kref_args_count(info.args), 2u);
    EXPECT_EQ(entry(info.args, 0), "1 uint32_t 2.0 1 -1");
    EXPECT_EQ(entry(info.args, 1), "2 string 1.0 1 2");
    EXPECT_EQ(entry(info.args, 2), "none");

    ASSERT_EQ(kref_attr_op(attr_, KREF_CMP, "eq", &info), 0u);
    EXPECT_EQ(info.verify, toy_verify);
    EXPECT_EQ(info.construct, toy_construct);
    EXPECT_EQ(info.free_fn, toy_free);
    EXPECT_EQ(info.desc, &g_desc);

    ASSERT_EQ(kref_attr_op(attr_, KREF_RETR, nullptr, &info), 0u);
    EXPECT_EQ(info.name, nullptr);
    EXPECT_STREQ(info.value_type, "uint32_t");
    EXPECT_STREQ(info.version, "3.0");
    ASSERT_EQ(info.n_locations, 3u);
    EXPECT_STREQ(info.locations[0], "export");
    EXPECT_STREQ(info.locations[2], "export");
    EXPECT_EQ(info.args, nullptr);

    void *desc = nullptr;
    EXPECT_EQ(kref_attr_base_cmp(attr_, &desc), toy_base_cmp);
    EXPECT_EQ(desc, &g_desc);
    EXPECT_EQ(kref_attr_base_print(attr_, &desc), nullptr);
}

TEST_F(Platform, RegistryRefusals) {
    rasf_attr_t *other = nullptr;
    EXPECT_EQ(rasf_kela_new("flag", nullptr, nullptr, "1.0", &other), KREF_ERR_EXISTS);
    EXPECT_EQ(rasf_kela_new(nullptr, nullptr, nullptr, "1.0", &other), KREF_ERR_BAD_ARG);
    EXPECT_EQ(rasf_kela_new("x", nullptr, nullptr, "1.0", nullptr), KREF_ERR_BAD_ARG);
    EXPECT_EQ(kref_attr_count(), 1u) << "nothing registered by a refused call";
    EXPECT_EQ(rasf_kela_add_location("import", nullptr), KREF_ERR_BAD_ARG);

    add_op("eq", {kSingle});
    EXPECT_EQ(rasf_kela_add_cmp("eq", attr_, toy_verify, toy_construct, nullptr, nullptr),
              KREF_ERR_EXISTS);
    EXPECT_EQ(rasf_kela_add_cmp(nullptr, attr_, toy_verify, toy_construct, nullptr, nullptr),
              KREF_ERR_BAD_ARG);
    EXPECT_EQ(rasf_kela_add_cmp("x", nullptr, toy_verify, toy_construct, nullptr, nullptr),
              KREF_ERR_BAD_ARG);
    EXPECT_EQ(rasf_kela_add_cmp_location("nope", attr_, "import"), KREF_ERR_NOT_FOUND);
    EXPECT_EQ(rasf_kela_add_cmp_location("eq", attr_, "table"), KREF_ERR_LOCATION);
    EXPECT_EQ(rasf_kela_add_set_location("eq", attr_, "import"), KREF_ERR_NOT_FOUND)
        << "operators and setters are separate lists";

    ASSERT_EQ(rasf_kela_add_base_function_print(attr_, toy_base_print, nullptr), 0u);
    EXPECT_EQ(rasf_kela_add_base_function_print(attr_, toy_base_print, nullptr), KREF_ERR_EXISTS);
    ASSERT_EQ(rasf_kela_add_base_function_cmp(attr_, toy_base_cmp, nullptr), 0u);
    EXPECT_EQ(rasf_kela_add_base_function_cmp(attr_, toy_base_cmp, nullptr), KREF_ERR_EXISTS);

    rasf_args_t *args = nullptr;
    ASSERT_EQ(rasf_args_new(&args), 0u);
    EXPECT_EQ(kref_live_args(), 1u);
    EXPECT_EQ(rasf_kela_add_cmp_args("eq", attr_, args), KREF_ERR_ARGS_OWNED);
    EXPECT_EQ(rasf_kela_add_set_args("assign", attr_, args), KREF_ERR_NOT_FOUND);
    EXPECT_EQ(rasf_args_n_add(args, "t", "1.0", 3, 2), KREF_ERR_BAD_ARG);
    EXPECT_EQ(rasf_args_single_add(args, nullptr, "1.0"), KREF_ERR_BAD_ARG);
    EXPECT_EQ(kref_args_count(args), 0u);
    EXPECT_EQ(kref_live_args(), 1u) << "a refused list stays with its creator";
    EXPECT_EQ(rasf_args_free(args), 0u);

    ASSERT_EQ(rasf_kela_add_retriever(nullptr, attr_, "uint32_t", "1.0", toy_verify, toy_construct,
                                      nullptr, nullptr),
              0u);
    EXPECT_EQ(rasf_kela_add_retriever(nullptr, attr_, "uint32_t", "1.0", toy_verify, toy_construct,
                                      nullptr, nullptr),
              KREF_ERR_EXISTS);
    EXPECT_EQ(rasf_kela_add_retriever("named", attr_, "uint32_t", "1.0", toy_verify, toy_construct,
                                      nullptr, nullptr),
              KREF_ERR_BAD_ARG)
        << "the retriever has no name";
    EXPECT_EQ(rasf_kela_add_retriever_location(nullptr, attr_, "table"), KREF_ERR_LOCATION);
    ASSERT_EQ(rasf_kela_add_retriever_args(nullptr, attr_, make_args({})), 0u);
    ASSERT_EQ(rasf_args_new(&args), 0u);
    EXPECT_EQ(rasf_kela_add_retriever_args(nullptr, attr_, args), KREF_ERR_ARGS_OWNED);
    EXPECT_EQ(rasf_args_free(args), 0u);
}

TEST_F(Platform, InstanceFunctionsOfAnotherKindAreRefused) {
    rasf_inst_t *cmp = nullptr, *set = nullptr, *retr = nullptr;
    int ctx = 0;
    ASSERT_EQ(rasf_new_cmp_instance(&cmp, 0, nullptr, nullptr, &ctx), 0u);
    ASSERT_EQ(rasf_new_set_instance(&set, 0, nullptr, nullptr, &ctx), 0u);
    ASSERT_EQ(rasf_new_retriever_instance(&retr, 0, nullptr, nullptr, &ctx), 0u);
    for (rasf_inst_t *i : {set, retr, static_cast<rasf_inst_t *>(nullptr)}) {
        EXPECT_EQ(rasf_kela_add_cmp_instance_function_cmp_async(i, toy_cmp_async),
                  KREF_ERR_BAD_ARG);
        EXPECT_EQ(rasf_kela_add_cmp_instance_function_print_ctx(i, "x"), KREF_ERR_BAD_ARG);
        EXPECT_EQ(rasf_free_cmp_instance(i), KREF_ERR_BAD_ARG);
    }
    EXPECT_EQ(rasf_kela_add_set_instance_function_set(retr, toy_set), KREF_ERR_BAD_ARG);
    EXPECT_EQ(rasf_free_set_instance(cmp), KREF_ERR_BAD_ARG);
    EXPECT_EQ(rasf_kela_add_retriever_instance_function_retrieve(set, toy_retrieve),
              KREF_ERR_BAD_ARG);
    EXPECT_EQ(rasf_free_retriever_instance(cmp), KREF_ERR_BAD_ARG);
    EXPECT_EQ(kref_live_instances(), 3u) << "a refused release frees nothing";
    kref_inst_info_t info{};
    ASSERT_EQ(kref_inst_get(set, &info), 0u);
    EXPECT_EQ(info.kind, KREF_SET);
    EXPECT_EQ(info.ctx, &ctx);
    EXPECT_EQ(info.set, nullptr);
    EXPECT_EQ(rasf_free_cmp_instance(cmp), 0u);
    EXPECT_EQ(rasf_free_set_instance(set), 0u);
    EXPECT_EQ(rasf_free_retriever_instance(retr), 0u);
    EXPECT_EQ(ctx, 0) << "the context is not touched";
}

// ---- statements ----------------------------------------------------------------

TEST_F(Platform, StatementsAreLaidOutAlongTheArgumentList) {
    add_op("one", {kSingle});
    add_op("list", {kSingle, kRun});
    add_op("pair", {kTwo, kRun});
    char seven[] = "7";
    const char *a[] = {seven}, *b[] = {"10.0.0.0", "8"}, *c[] = {nullptr}, *d[] = {"x", "y", "z"};
    kref_stmt_t *stmt = nullptr;

    kref_item_t one[] = {{1, a}, {1, d}};  // a leftover item is passed on as it is
    ASSERT_EQ(kref_compile("flag", KREF_CMP, "one", "import", 2, one, nullptr, &stmt), 0u);
    EXPECT_EQ(calls.seen, (std::vector<std::string>{"7", "x"}));
    EXPECT_EQ(calls.desc, &g_desc);
    seven[0] = '9';
    EXPECT_STREQ(kref_stmt_params(stmt)[0], "7") << "the statement keeps copies";
    kref_stmt_free(stmt);

    kref_item_t list[] = {{1, a}, {2, b}, {1, c}, {3, d}};
    ASSERT_EQ(kref_compile("flag", KREF_CMP, "list", nullptr, 4, list, nullptr, &stmt), 0u);
    EXPECT_EQ(calls.seen, (std::vector<std::string>{"9", "arg0:2", "10.0.0.0", "8", "arg1:1",
                                                    "<var>", "arg2:3", "x", "y", "z"}));
    EXPECT_EQ(calls.slot_null, (std::vector<bool>{false, false, false, false, false, true, false,
                                                  false, false, false}));
    const uint32_t n = kref_stmt_count(stmt);
    ASSERT_EQ(n, 10u);
    void **slots = kref_stmt_slots(stmt);
    std::set<void *> distinct(slots, slots + n);
    EXPECT_EQ(distinct.size(), 10u) << "nine slots of their own and the null one";
    EXPECT_EQ(kref_stmt_params(stmt)[n], nullptr);
    for (uint32_t i = 0; i < n; ++i) {
        if (slots[i] == nullptr) continue;
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(slots[i]) % alignof(std::max_align_t), 0u);
        const auto *bytes = static_cast<unsigned char *>(slots[i]);
        EXPECT_EQ(std::count(bytes, bytes + RASF_SLOT_SIZE, 0), RASF_SLOT_SIZE) << i;
    }
    std::memset(slots[0], 0xAB, RASF_SLOT_SIZE);  // whole slot writable, others untouched
    EXPECT_EQ(static_cast<unsigned char *>(slots[1])[0], 0);
    kref_stmt_free(stmt);

    kref_item_t pair[] = {{1, a}, {1, d}, {2, d + 1}};  // up to two, the third to the run
    ASSERT_EQ(kref_compile("flag", KREF_CMP, "pair", nullptr, 3, pair, nullptr, &stmt), 0u);
    EXPECT_EQ(calls.seen, (std::vector<std::string>{"9", "x", "arg0:2", "y", "z"}));
    kref_stmt_free(stmt);
    EXPECT_EQ(calls.free_fn, 3);
}

TEST_F(Platform, CompileStopsAtTheFirstFailure) {
    add_op("one", {kSingle});
    const char *bad[] = {"bad"};
    kref_item_t item{1, bad};
    kref_stmt_t *stmt = nullptr;
    char *msg = nullptr;
    EXPECT_EQ(kref_compile("flag", KREF_CMP, "one", nullptr, 1, &item, &msg, &stmt), 42u);
    EXPECT_TRUE(calls.msg_was_null);
    ASSERT_NE(msg, nullptr);
    EXPECT_STREQ(msg, "bad is refused");
    std::free(msg);
    EXPECT_EQ(kref_compile("flag", KREF_CMP, "one", nullptr, 1, &item, nullptr, &stmt), 42u)
        << "the message is released when nobody takes it (LeakSanitizer)";
    EXPECT_EQ(calls.construct, 0);

    EXPECT_EQ(compile("one", {"1"}, &stmt, "export"), KREF_ERR_LOCATION) << "not at export";
    EXPECT_EQ(compile("two", {"1"}, &stmt), KREF_ERR_NOT_FOUND);
    EXPECT_EQ(compile("one", {"1"}, &stmt, nullptr, KREF_SET), KREF_ERR_NOT_FOUND);
    EXPECT_EQ(kref_compile("none", KREF_CMP, "one", nullptr, 1, &item, nullptr, &stmt),
              KREF_ERR_NOT_FOUND);
    EXPECT_EQ(calls.verify, 2);

    calls.cons = Cons::Fail;
    EXPECT_EQ(compile("one", {"1"}, &stmt), 17u);
    calls.cons = Cons::NoInstance;
    EXPECT_EQ(compile("one", {"1"}, &stmt), KREF_ERR_BAD_ARG);
    calls.cons = Cons::FailLeavingInstance;
    EXPECT_EQ(compile("one", {"1"}, &stmt), 18u);
    EXPECT_EQ(kref_live_instances(), 1u) << "what a failed constructor left is not touched";
    kref_inst_info_t info{};
    ASSERT_EQ(kref_inst_get(calls.left_behind, &info), 0u);
    std::free(info.ctx);
    EXPECT_EQ(rasf_free_cmp_instance(calls.left_behind), 0u);
    EXPECT_EQ(calls.free_fn, 0);
    EXPECT_EQ(stmt, nullptr) << "set only on success";
}

TEST_F(Platform, EvaluationUpdatesFirstAndReleaseLeavesTheContextToTheFreeFunction) {
    add_op("one", {kSingle});
    kref_stmt_t *stmt = nullptr;
    ASSERT_EQ(compile("one", {"7"}, &stmt), 0u);
    unsigned char route = 7;
    kref_eval_rec_t rec{};
    rec.key = 0x1122334455667788u;
    int32_t out = -1;
    EXPECT_EQ(kref_eval(stmt, &route, &rec, &out), 0u);
    EXPECT_EQ(out, 1);
    EXPECT_EQ(calls.order, "uc");
    EXPECT_EQ(calls.key, rec.key);
    route = 8;
    EXPECT_EQ(kref_eval(stmt, &route, nullptr, &out), 0u);
    EXPECT_EQ(out, 0);

    calls.update_status = 31;
    calls.order.clear();
    EXPECT_EQ(kref_eval(stmt, &route, &rec, &out), 31u);
    EXPECT_EQ(calls.order, "u") << "no compare after a failed update";
    EXPECT_EQ(kref_apply(stmt, &route), KREF_ERR_BAD_ARG) << "not a setter";
    uint32_t value = 0;
    EXPECT_EQ(kref_retrieve(stmt, &route, &value), KREF_ERR_BAD_ARG);
    char *text = kref_stmt_print(stmt);
    EXPECT_STREQ(text, "flag is 7");
    std::free(text);

    // The framework's own release of an instance leaves the context alone;
    // LeakSanitizer would report it if the free function did not run.
    kref_inst_info_t info{};
    ASSERT_EQ(kref_inst_get(kref_stmt_instance(stmt), &info), 0u);
    EXPECT_EQ(constant(info.ctx), 7);
    kref_stmt_free(stmt);
    EXPECT_EQ(calls.free_fn, 1);
}

TEST_F(Platform, AsynchronousCompareGetsTheKeyAndNoFunctionIsReported) {
    add_op("one", {kSingle});
    calls.cons = Cons::Async;
    kref_stmt_t *stmt = nullptr;
    ASSERT_EQ(compile("one", {"5"}, &stmt), 0u);
    unsigned char route = 5;
    kref_eval_rec_t rec{};
    rec.key = 0xFEDCBA9876543210u;
    int32_t out = -1;
    EXPECT_EQ(kref_eval(stmt, &route, &rec, &out), 0u);
    EXPECT_EQ(out, 1);
    EXPECT_EQ(calls.order, "uac");
    EXPECT_EQ(calls.key, rec.key);
    EXPECT_TRUE(calls.fw_arg_null);
    EXPECT_EQ(kref_eval(stmt, &route, nullptr, &out), 0u);
    EXPECT_EQ(calls.key, 0u) << "no record: key 0";
    kref_stmt_free(stmt);

    calls.cons = Cons::NoCompare;
    ASSERT_EQ(compile("one", {"5"}, &stmt), 0u);
    EXPECT_EQ(kref_eval(stmt, &route, &rec, &out), KREF_ERR_NO_FUNC);
    kref_stmt_free(stmt);
    EXPECT_EQ(calls.free_fn, 2);
}

TEST_F(Platform, SettersRetrieversAndBaseFunctions) {
    ASSERT_EQ(rasf_kela_add_set("assign", attr_, toy_verify, toy_set_construct, toy_free, nullptr),
              0u);
    ASSERT_EQ(rasf_kela_add_set_location("assign", attr_, "export"), 0u);
    ASSERT_EQ(rasf_kela_add_set_args("assign", attr_, make_args({kSingle})), 0u);
    ASSERT_EQ(rasf_kela_add_retriever(nullptr, attr_, "uint32_t", "1.0", toy_verify,
                                      toy_retr_construct, nullptr, nullptr),
              0u);
    ASSERT_EQ(rasf_kela_add_base_function_print(attr_, toy_base_print, &g_desc), 0u);

    kref_stmt_t *set = nullptr, *retr = nullptr;
    ASSERT_EQ(compile("assign", {"42"}, &set, "export", KREF_SET), 0u);
    EXPECT_EQ(compile("assign", {"42"}, &retr, nullptr, KREF_RETR), KREF_ERR_BAD_ARG)
        << "the retriever has no name";
    ASSERT_EQ(compile(nullptr, {}, &retr, nullptr, KREF_RETR), 0u);
    EXPECT_EQ(kref_stmt_count(retr), 0u);
    EXPECT_EQ(kref_stmt_kind(retr), KREF_RETR);

    unsigned char route = 0;
    EXPECT_EQ(kref_apply(set, &route), 0u);
    EXPECT_EQ(route, 42);
    char *text = kref_stmt_print(set);
    EXPECT_STREQ(text, "flag := 42");
    std::free(text);
    int32_t out = 0;
    EXPECT_EQ(kref_eval(set, &route, nullptr, &out), KREF_ERR_BAD_ARG);

    uint32_t value = 0;
    EXPECT_EQ(kref_retrieve(retr, &route, &value), 0u);
    EXPECT_EQ(value, 1042u);
    EXPECT_EQ(kref_stmt_print(retr), nullptr);
    kref_stmt_free(set);
    kref_stmt_free(retr);
    EXPECT_EQ(calls.free_fn, 1) << "the retriever registered no free function";

    text = kref_attr_print(attr_, &route);
    EXPECT_STREQ(text, "route");
    std::free(text);
    unsigned char other = 40;
    EXPECT_EQ(kref_attr_compare(attr_, &route, &other, &out), KREF_ERR_NO_FUNC);
    ASSERT_EQ(rasf_kela_add_base_function_cmp(attr_, toy_base_cmp, &g_desc), 0u);
    EXPECT_EQ(kref_attr_compare(attr_, &route, &other, &out), 0u);
    EXPECT_EQ(out, 2);
}

TEST_F(Platform, StatementsCompileAndEvaluateFromSeveralThreads) {
    add_op("one", {kSingle});
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&wrong, t] {
            const std::string text = std::to_string(t + 1);
            const char *texts[] = {text.c_str()};
            kref_item_t item{1, texts};
            for (int i = 0; i < 100; ++i) {
                kref_stmt_t *stmt = nullptr;
                if (kref_compile("flag", KREF_CMP, "one", "import", 1, &item, nullptr, &stmt) !=
                    0) {
                    ++wrong;
                    continue;
                }
                unsigned char route = static_cast<unsigned char>(t + 1);
                int32_t out = 0;
                if (kref_eval(stmt, &route, nullptr, &out) != 0 || out != 1 ||
                    std::strcmp(kref_stmt_params(stmt)[0], text.c_str()) != 0)
                    ++wrong;
                kref_stmt_free(stmt);
            }
        });
    }
    for (auto &th : threads) th.join();
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(kref_live_instances(), 0u);
}

// ---- hooks ---------------------------------------------------------------------

TEST_F(Platform, FaultsFireOnceOnTheNthCall) {
    add_op("one", {kSingle});
    kref_trace_start();
    kref_fault_set("rasf_kela_add_cmp_location", 2, 99);
    kref_fault_set("rasf_new_cmp_instance", 1, 98);
    EXPECT_EQ(kref_fault_pending(), 2u);
    EXPECT_EQ(rasf_kela_add_cmp_location("one", attr_, "import"), 0u);
    EXPECT_EQ(rasf_kela_add_cmp_location("one", attr_, "export"), 99u);
    EXPECT_EQ(rasf_kela_add_cmp_location("one", attr_, "export"), 0u);
    EXPECT_EQ(kref_fault_pending(), 1u);
    kref_op_info_t info{};
    ASSERT_EQ(kref_attr_op(attr_, KREF_CMP, "one", &info), 0u);
    EXPECT_EQ(info.n_locations, 3u) << "the failed call did nothing";

    rasf_inst_t *inst = nullptr;
    EXPECT_EQ(rasf_new_cmp_instance(&inst, 0, nullptr, nullptr, nullptr), 98u);
    EXPECT_EQ(inst, nullptr);
    EXPECT_EQ(kref_live_instances(), 0u);

    kref_fault_set_after("rasf_new_cmp_instance", 1, 5);
    EXPECT_EQ(rasf_new_cmp_instance(&inst, 0, nullptr, nullptr, nullptr), 5u);
    ASSERT_NE(inst, nullptr) << "after-mode carries the operation out";
    EXPECT_EQ(kref_live_instances(), 1u);
    EXPECT_EQ(rasf_free_cmp_instance(inst), 0u);
    EXPECT_EQ(kref_fault_pending(), 0u);

    EXPECT_EQ(trace_lines(),
              (std::vector<std::string>{"rasf_kela_add_cmp_location(one, flag, import)",
                                        "rasf_kela_add_cmp_location(one, flag, export)",
                                        "rasf_kela_add_cmp_location(one, flag, export)",
                                        "rasf_new_cmp_instance(0)", "rasf_new_cmp_instance(0)",
                                        "rasf_free_cmp_instance()"}));

    // A statement is released through the same operation, and still goes
    // when a fault refuses it (LeakSanitizer, live count).
    kref_stmt_t *stmt = nullptr;
    ASSERT_EQ(compile("one", {"3"}, &stmt), 0u);
    kref_fault_set("rasf_free_cmp_instance", 1, 7);
    kref_stmt_free(stmt);
    EXPECT_EQ(kref_fault_pending(), 0u);
    EXPECT_EQ(trace_lines().back(), "rasf_free_cmp_instance()");
}

TEST_F(Platform, TraceWritesTextsAndNumbersAndKeepsItsLines) {
    kref_trace_start();
    rasf_attr_t *m = nullptr;
    ASSERT_EQ(rasf_kela_new("metric", nullptr, nullptr, "2.0", &m), 0u);
    rasf_args_t *args = nullptr;
    ASSERT_EQ(rasf_args_new(&args), 0u);
    const char *short_line = kref_trace_at(1);  // short enough to live inside a string
    ASSERT_EQ(rasf_args_infinite_add(args, "uint32_t", "1.0", 2), 0u);
    ASSERT_EQ(rasf_args_n_add(args, "string", "1.0", 1, 4), 0u);
    ASSERT_EQ(rasf_args_free(args), 0u);
    EXPECT_EQ(rasf_kela_add_location("import", nullptr), KREF_ERR_BAD_ARG);
    EXPECT_EQ(rasf_kela_add_retriever(nullptr, m, "uint32_t", "1.0", toy_verify, toy_construct,
                                      nullptr, nullptr),
              0u);
    rasf_inst_t *inst = nullptr;
    ASSERT_EQ(rasf_new_cmp_instance(&inst, 3, nullptr, nullptr, nullptr), 0u);
    ASSERT_EQ(rasf_kela_add_cmp_instance_function_print_ctx(inst, "is"), 0u);
    ASSERT_EQ(rasf_free_cmp_instance(inst), 0u);
    EXPECT_EQ(vog_register_dll(77, "x.so"), 0u);
    static const vup_msg_rec_td rec = {nullptr, "t", nullptr, "F", "G", "MN", 0, 0, nullptr, 0, 0};
    kref_log_capture(1);
    vup_errmsg(&rec, 4);
    kref_log_capture(0);
    kref_trace_stop();
    EXPECT_EQ(rasf_args_new(&args), 0u);
    EXPECT_EQ(rasf_args_free(args), 0u);

    EXPECT_EQ(trace_lines(), (std::vector<std::string>{
                                 "rasf_kela_new(metric, (null), 2.0)",
                                 "rasf_args_new()",
                                 "rasf_args_infinite_add(uint32_t, 1.0, 2)",
                                 "rasf_args_n_add(string, 1.0, 1, 4)",
                                 "rasf_args_free()",
                                 "rasf_kela_add_location(import, (null))",
                                 "rasf_kela_add_retriever((null), metric, uint32_t, 1.0)",
                                 "rasf_new_cmp_instance(3)",
                                 "rasf_kela_add_cmp_instance_function_print_ctx(is)",
                                 "rasf_free_cmp_instance()",
                                 "vog_register_dll(77, x.so)",
                                 "vup_errmsg(MN, 4)",
                             }));
    EXPECT_STREQ(short_line, "rasf_args_new()") << "a line handed out does not move";
}

TEST(PlatformLog, CapturedLinesAndFaults) {
    static const vup_msg_rec_td rec = {nullptr, "value %d of %s", nullptr, "FAC", "GRP", "MNEMO", 0,
                                       0,       nullptr,          0,       0};
    static const vup_msg_rec_td plain = {nullptr, "%s", nullptr, "F", "G", "LONG",
                                         0,       0,    nullptr, 0,   0};
    const std::string long_text(5000, 'q');
    kref_log_capture(1);
    vup_errmsg(&rec, 3, 17, "things");
    vup_errmsg(nullptr, 3);
    vup_errmsg(&plain, 6, long_text.c_str());
    kref_fault_set("vup_errmsg", 1, 1);
    vup_errmsg(&rec, 3, 1, "dropped");
    kref_fault_set_after("vup_errmsg", 1, 1);
    vup_errmsg(&rec, 2, 2, "kept");
    ASSERT_EQ(kref_log_count(), 3u);
    EXPECT_STREQ(kref_log_at(0), "%FAC-3-MNEMO: value 17 of things");
    EXPECT_EQ(std::string(kref_log_at(1)), "%F-6-LONG: " + long_text);
    EXPECT_STREQ(kref_log_at(2), "%FAC-2-MNEMO: value 2 of kept");
    kref_log_capture(0);
    EXPECT_EQ(kref_log_count(), 0u);

    testing::internal::CaptureStderr();
    vup_errmsg(&rec, 5, 9, "stderr");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "%FAC-5-MNEMO: value 9 of stderr\n");
}

// ---- error texts ---------------------------------------------------------------

vogno library_code(uint32_t n) {
    return 0x40000000u | (1801u << 15) | (n << 9);
}

TEST(PlatformErrors, EveryKnownCodeHasItsOwnText) {
    const std::string generic = vog_strerror(0x12345678u);
    EXPECT_NE(generic.find("0x12345678"), std::string::npos);
    std::set<std::string> texts;
    std::vector<vogno> known = {0xA2D28400u, 0xC2C60200u};
    for (uint32_t n = 1; n <= 17; ++n) known.push_back(library_code(n));
    for (uint32_t n = 1; n <= 8; ++n) known.push_back(KREF_ERR(n));
    for (vogno st : known) {
        std::string t = vog_strerror(st);
        char upper[16], lower[16];
        std::snprintf(upper, sizeof upper, "%08X", st);
        std::snprintf(lower, sizeof lower, "%08x", st);
        EXPECT_EQ(t.find(upper), std::string::npos) << "generic text for " << upper;
        EXPECT_EQ(t.find(lower), std::string::npos) << "generic text for " << upper;
        EXPECT_FALSE(t.empty());
        texts.insert(t);
    }
    EXPECT_EQ(texts.size(), known.size()) << "texts are distinct";
    EXPECT_STREQ(vog_strerror(0), "Success");
    EXPECT_NE(std::string(vog_strerror(library_code(18))).find("0x4384A400"), std::string::npos)
        << "past the last code of the domain";
    EXPECT_NE(std::string(vog_strerror(KREF_ERR_LOCATION)).find("location"), std::string::npos);
}

TEST(PlatformErrors, DomainRegistration) {
    EXPECT_EQ(vog_register_dll(4242, "a.dll"), 0u);
    EXPECT_EQ(vog_register_dll(4242, "a.dll"), 0u);
    EXPECT_EQ(vog_register_dll(4242, "b.dll"), KREF_ERR_EXISTS);
    EXPECT_EQ(vog_register_dll(4243, nullptr), KREF_ERR_BAD_ARG);
    EXPECT_EQ(vog_register_dll(4243, "b.dll"), 0u) << "another component, its own name";
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
