// SPDX-License-Identifier: Apache-2.0
// The reference platform on its own, driven by a small attribute type
// written here: what the registry keeps and refuses, how statements are laid
// out, compiled and evaluated, who owns instance contexts, the hooks, the
// error texts and the sorted array.  Threads are tests/threads' business.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <set>
#include <string>
#include <tuple>
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

struct Calls {
    int verify = 0, construct = 0, free_fn = 0;
    std::string seen;   // the vector the verifier got, "$" for a variable
    std::string slots;  // what the constructor got: "s" a slot, "-" none
    std::string order;  // update, compare, asynchronous compare: "u", "c", "a"
    bool msg_was_null = false, fw_arg_null = false;  // *msg at verification, the compare's fw_arg
    void *desc = nullptr;
    uint64_t key = 0;
    Cons cons = Cons::Normal;
    vogno update_status = 0;
    rasf_inst_t *left_behind = nullptr;  // by Cons::FailLeavingInstance
} calls;

// The descriptors the toy operators, setter and retriever are registered
// with tell the constructor what to make.
kref_kind_t g_kind[] = {KREF_CMP, KREF_SET, KREF_RETR};

unsigned char constant(void *ctx) {
    return *static_cast<unsigned char *>(ctx);
}

vogno toy_verify(uint32_t count, char **params, void *desc, char **msg) {
    ++calls.verify;
    calls.desc = desc;
    calls.msg_was_null = msg != nullptr && *msg == nullptr;
    calls.seen.clear();
    for (uint32_t i = 0; i < count; ++i)
        calls.seen += std::string(i ? " " : "") + (params[i] ? params[i] : "$");
    if (count == 0 || params[0] == nullptr || std::strcmp(params[0], "bad") != 0) return 0;
    *msg = strdup("bad is refused");
    return 42;
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

char *toy_print(uint32_t, uint32_t, char **params, void **, const char *print_ctx) {
    return strdup((std::string(print_ctx) + " " + params[0]).c_str());
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

vogno toy_retrieve(void *route, void *fw1, void *fw2, uint32_t *out, void *) {
    if (fw1 != nullptr || fw2 != nullptr) return 99;
    *out = *static_cast<unsigned char *>(route) + 1000u;
    return 0;
}

// The constructors leave the statuses of the attach calls alone: on an
// instance of the kind just made they cannot fail (InstanceFunctions...),
// and no fault is armed while a test compiles.
vogno toy_construct(uint32_t count, char **params, void **slots, void *desc, rasf_inst_t **out) {
    const kref_kind_t kind = *static_cast<kref_kind_t *>(desc);
    if (kind == KREF_RETR) {
        rasf_new_retriever_instance(out, count, params, slots, nullptr);
        return rasf_kela_add_retriever_instance_function_retrieve(*out, toy_retrieve);
    }
    ++calls.construct;
    calls.slots.clear();
    for (uint32_t i = 0; i < count; ++i) calls.slots += slots[i] ? "s" : "-";
    if (calls.cons == Cons::Fail) return 17;
    if (calls.cons == Cons::NoInstance) return 0;
    auto *ctx = static_cast<unsigned char *>(std::malloc(1));
    *ctx = static_cast<unsigned char>(std::atoi(params[0]));
    if (kind == KREF_SET) {
        rasf_new_set_instance(out, count, params, slots, ctx);
        rasf_kela_add_set_instance_function_set(*out, toy_set);
        return rasf_kela_add_set_instance_function_print(*out, toy_set_print);
    }
    rasf_new_cmp_instance(out, count, params, slots, ctx);
    if (calls.cons == Cons::FailLeavingInstance) {
        calls.left_behind = *out;  // a careless constructor
        return 18;
    }
    if (calls.cons == Cons::Normal) rasf_kela_add_cmp_instance_function_cmp(*out, toy_cmp);
    if (calls.cons == Cons::Async)
        rasf_kela_add_cmp_instance_function_cmp_async(*out, toy_cmp_async);
    rasf_kela_add_cmp_instance_function_update(*out, toy_update);
    rasf_kela_add_cmp_instance_function_print(*out, toy_print);
    return rasf_kela_add_cmp_instance_function_print_ctx(*out, "flag is");
}

vogno toy_free(void *ctx) {
    ++calls.free_fn;
    std::free(ctx);
    return 0;
}

// ---- helpers -------------------------------------------------------------------

// Statuses of calls made in the order listed, each with the one it should be.
struct Status {
    vogno got, want;
};
void expect_statuses(std::initializer_list<Status> all) {
    size_t i = 0;
    for (const Status &s : all) EXPECT_EQ(s.got, s.want) << "call " << i++ << " of the list";
}

class Platform : public ::testing::Test {
  protected:
    // Every test has the attribute "flag" at import and export, and its
    // operator "one" at import.
    void SetUp() override {
        calls = {};
        kref_reset();
        kref_fault_clear();
        ASSERT_EQ(rasf_kela_new("flag", &calls, nullptr, "1.0", &attr_), 0u);
        ASSERT_EQ(rasf_kela_add_location("import", attr_), 0u);
        ASSERT_EQ(rasf_kela_add_location("export", attr_), 0u);
        add_op("one", {kSingle});
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
        for (const auto &e : entries)
            EXPECT_EQ(e.kind == KREF_ARG_SINGLE ? rasf_args_single_add(args, e.type, e.version)
                      : e.kind == KREF_ARG_INFINITE
                          ? rasf_args_infinite_add(args, e.type, e.version, e.lower)
                          : rasf_args_n_add(args, e.type, e.version, e.lower, e.upper),
                      0u);
        return args;
    }
    // Registers operator `op` (usable at import) with the given list.
    void add_op(const char *op, const std::vector<kref_arg_info_t> &entries) {
        ASSERT_EQ(rasf_kela_add_cmp(op, attr_, toy_verify, toy_construct, toy_free, &g_kind[0]),
                  0u);
        ASSERT_EQ(rasf_kela_add_cmp_location(op, attr_, "import"), 0u);
        ASSERT_EQ(rasf_kela_add_cmp_args(op, attr_, make_args(entries)), 0u);
    }
    vogno add_setter() {
        return rasf_kela_add_set("assign", attr_, toy_verify, toy_construct, toy_free, &g_kind[1]);
    }
    vogno add_retriever(const char *name = nullptr, const char *version = "1.0") {
        return rasf_kela_add_retriever(name, attr_, "uint32_t", version, toy_verify, toy_construct,
                                       nullptr, &g_kind[2]);
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

    static constexpr kref_arg_info_t kSingle{KREF_ARG_SINGLE, "uint32_t", "1.0", 1, 1};
    static constexpr kref_arg_info_t kRun{KREF_ARG_INFINITE, "uint32_t", "2.0", 1, -1};
    static constexpr kref_arg_info_t kTwo{KREF_ARG_N, "string", "1.0", 1, 2};
    rasf_attr_t *attr_ = nullptr;
    std::vector<const char *> texts_;
    std::vector<kref_item_t> items_;
};

// ---- registry ------------------------------------------------------------------
// What the library's own registrations leave is checked in tests/lib.

TEST_F(Platform, RegistryKeepsWhatWasRegisteredAndRefusesTheRest) {
    char type[] = "uint8_t";
    rasf_attr_t *second = nullptr, *other = nullptr;
    rasf_args_t *args = nullptr, *spare = nullptr;
    ASSERT_EQ(rasf_args_new(&args), 0u);
    ASSERT_EQ(rasf_args_new(&spare), 0u);
    const rasf_base_print_fn print = [](void *, void *, void *) -> char * { return nullptr; };
    const rasf_base_cmp_fn compare = [](void *, void *, void *, int32_t *) -> vogno { return 0; };
    auto cmp = [](const char *name, rasf_attr_t *attr) {
        return rasf_kela_add_cmp(name, attr, toy_verify, toy_construct, nullptr, nullptr);
    };
    EXPECT_EQ(kref_attr_base_print(attr_, nullptr), nullptr);
    expect_statuses({
        {rasf_kela_new("second", nullptr, type, "1.0", &second), 0},
        {rasf_kela_new("flag", nullptr, nullptr, "1.0", &other), KREF_ERR_EXISTS},
        {rasf_kela_new(nullptr, nullptr, nullptr, "1.0", &other), KREF_ERR_BAD_ARG},
        {rasf_kela_new("x", nullptr, nullptr, "1.0", nullptr), KREF_ERR_BAD_ARG},
        {rasf_kela_add_location("import", attr_), 0},  // attribute locations are a set
        {rasf_kela_add_location("import", nullptr), KREF_ERR_BAD_ARG},
        {cmp("any", attr_), 0},
        {cmp("one", attr_), KREF_ERR_EXISTS},
        {cmp(nullptr, attr_), KREF_ERR_BAD_ARG},
        {cmp("x", nullptr), KREF_ERR_BAD_ARG},
        {rasf_kela_add_cmp_args("any", attr_, make_args({kRun, kTwo})), 0},
        {rasf_kela_add_cmp_location("nope", attr_, "import"), KREF_ERR_NOT_FOUND},
        {rasf_kela_add_cmp_location("one", attr_, "table"), KREF_ERR_LOCATION},
        {rasf_kela_add_set_location("one", attr_, "import"), KREF_ERR_NOT_FOUND},  // own list
        {rasf_kela_add_base_function_print(attr_, print, nullptr), 0},
        {rasf_kela_add_base_function_print(attr_, print, nullptr), KREF_ERR_EXISTS},
        {rasf_kela_add_base_function_cmp(attr_, compare, nullptr), 0},
        {rasf_kela_add_base_function_cmp(attr_, compare, nullptr), KREF_ERR_EXISTS},
        {rasf_kela_add_cmp_args("one", attr_, args), KREF_ERR_ARGS_OWNED},
        {rasf_kela_add_set_args("assign", attr_, args), KREF_ERR_NOT_FOUND},
        {rasf_args_n_add(args, "t", "1.0", 3, 2), KREF_ERR_BAD_ARG},
        {rasf_args_single_add(args, nullptr, "1.0"), KREF_ERR_BAD_ARG},
        {add_setter(), 0},
        {add_retriever(nullptr, "3.0"), 0},
        {add_retriever(), KREF_ERR_EXISTS},
        {add_retriever("named"), KREF_ERR_BAD_ARG},  // the retriever has no name
        {rasf_kela_add_retriever_location(nullptr, attr_, "table"), KREF_ERR_LOCATION},
        {rasf_kela_add_retriever_args(nullptr, attr_, spare), 0},
        {rasf_kela_add_retriever_args(nullptr, attr_, args), KREF_ERR_ARGS_OWNED},
    });
    for (const char *loc : {"export", "import", "export"})  // duplicates are kept
        ASSERT_EQ(rasf_kela_add_retriever_location(nullptr, attr_, loc), 0u);
    type[0] = 'x';  // the framework keeps its own copy
    EXPECT_STREQ(kref_attr_value_type(second), "uint8_t");
    EXPECT_EQ(kref_attr_value_type(attr_), nullptr);
    EXPECT_EQ(std::tuple(kref_attr_count(), kref_attr_at(0), kref_attr_at(1)),
              std::tuple(2u, attr_, second))
        << "in order; nothing registered by a refused call";
    ASSERT_EQ(kref_attr_location_count(attr_), 2u);
    EXPECT_STREQ(kref_attr_location_at(attr_, 1), "export");
    EXPECT_EQ(kref_args_count(args), 0u);
    EXPECT_EQ(kref_live_args(), 1u) << "a refused list stays with its creator";
    EXPECT_EQ(rasf_args_free(args), 0u);

    EXPECT_EQ(std::tuple(kref_attr_op_count(attr_, KREF_CMP), kref_attr_op_count(attr_, KREF_SET),
                         kref_attr_op_count(attr_, KREF_RETR)),
              std::tuple(2u, 1u, 1u));
    kref_op_info_t info{};
    ASSERT_EQ(kref_attr_op(attr_, KREF_RETR, nullptr, &info), 0u);
    EXPECT_EQ(std::tuple(std::string(info.version), info.n_locations, kref_args_count(info.args)),
              std::tuple("3.0", 3u, 0u));
}

TEST_F(Platform, InstanceFunctionsOfAnotherKindAreRefused) {
    rasf_inst_t *cmp = nullptr, *set = nullptr, *retr = nullptr;
    ASSERT_EQ(rasf_new_cmp_instance(&cmp, 0, nullptr, nullptr, nullptr) |
                  rasf_new_set_instance(&set, 0, nullptr, nullptr, nullptr) |
                  rasf_new_retriever_instance(&retr, 0, nullptr, nullptr, nullptr),
              0u);
    expect_statuses(
        {{rasf_kela_add_cmp_instance_function_cmp_async(set, toy_cmp_async), KREF_ERR_BAD_ARG},
         {rasf_free_cmp_instance(retr), KREF_ERR_BAD_ARG},
         {rasf_kela_add_set_instance_function_set(retr, toy_set), KREF_ERR_BAD_ARG},
         {rasf_free_set_instance(cmp), KREF_ERR_BAD_ARG},
         {rasf_kela_add_retriever_instance_function_retrieve(set, toy_retrieve), KREF_ERR_BAD_ARG},
         {rasf_free_retriever_instance(nullptr), KREF_ERR_BAD_ARG}});
    EXPECT_EQ(kref_live_instances(), 3u) << "a refused release frees nothing";
    expect_statuses({{rasf_free_cmp_instance(cmp), 0},
                     {rasf_free_set_instance(set), 0},
                     {rasf_free_retriever_instance(retr), 0}});
}

// ---- statements ----------------------------------------------------------------

TEST_F(Platform, StatementsAreLaidOutAlongTheArgumentList) {
    add_op("list", {kSingle, kRun});
    add_op("pair", {kTwo, kRun});
    char seven[] = "7";
    const char *a[] = {seven}, *b[] = {"10.0.0.0", "8"}, *c[] = {nullptr}, *d[] = {"x", "y", "z"};
    kref_stmt_t *stmt = nullptr;

    kref_item_t one[] = {{1, a}, {1, d}};  // a leftover item is passed on as it is
    ASSERT_EQ(kref_compile("flag", KREF_CMP, "one", "import", 2, one, nullptr, &stmt), 0u);
    EXPECT_EQ(calls.seen, "7 x");
    EXPECT_EQ(calls.desc, &g_kind[0]);
    seven[0] = '9';
    EXPECT_STREQ(kref_stmt_params(stmt)[0], "7") << "the statement keeps copies";
    kref_stmt_free(stmt);

    kref_item_t list[] = {{1, a}, {2, b}, {1, c}, {3, d}};
    ASSERT_EQ(kref_compile("flag", KREF_CMP, "list", nullptr, 4, list, nullptr, &stmt), 0u);
    EXPECT_EQ(calls.seen, "9 arg0:2 10.0.0.0 8 arg1:1 $ arg2:3 x y z");
    EXPECT_EQ(calls.slots, "sssss-ssss");
    const uint32_t n = kref_stmt_count(stmt);
    ASSERT_EQ(n, 10u);
    void **slots = kref_stmt_slots(stmt);
    EXPECT_EQ(std::set<void *>(slots, slots + n).size(), 10u) << "nine of their own, one null";
    EXPECT_EQ(kref_stmt_params(stmt)[n], nullptr);
    for (uint32_t i = 0; i < n; ++i) {
        const auto *bytes = static_cast<unsigned char *>(slots[i]);
        if (bytes == nullptr) continue;
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(bytes) % alignof(std::max_align_t), 0u) << i;
        EXPECT_EQ(std::count(bytes, bytes + RASF_SLOT_SIZE, 0), RASF_SLOT_SIZE) << i;
    }
    std::memset(slots[0], 0xAB, RASF_SLOT_SIZE);  // whole slot writable, others untouched
    EXPECT_EQ(static_cast<unsigned char *>(slots[1])[0], 0);
    kref_stmt_free(stmt);

    kref_item_t pair[] = {{1, a}, {1, d}, {2, d + 1}};  // up to two, the third to the run
    ASSERT_EQ(kref_compile("flag", KREF_CMP, "pair", nullptr, 3, pair, nullptr, &stmt), 0u);
    EXPECT_EQ(calls.seen, "9 x arg0:2 y z");
    kref_stmt_free(stmt);
    // Each release ran the free function, which alone frees the context
    // (LeakSanitizer and AddressSanitizer watch both ways).
    EXPECT_EQ(calls.free_fn, 3);
}

TEST_F(Platform, CompileStopsAtTheFirstFailure) {
    const char *bad[] = {"bad"};
    kref_item_t item{1, bad};
    kref_stmt_t *stmt = nullptr;
    char *msg = nullptr;
    EXPECT_EQ(kref_compile("flag", KREF_CMP, "one", nullptr, 1, &item, &msg, &stmt), 42u);
    EXPECT_TRUE(calls.msg_was_null);
    EXPECT_STREQ(msg, "bad is refused");
    std::free(msg);
    // Refused by the verifier (its message released when nobody takes it:
    // LeakSanitizer), then before the verifier is called.
    expect_statuses({{kref_compile("flag", KREF_CMP, "one", nullptr, 1, &item, nullptr, &stmt), 42},
                     {compile("one", {"1"}, &stmt, "export"), KREF_ERR_LOCATION},
                     {compile("two", {"1"}, &stmt), KREF_ERR_NOT_FOUND},
                     {compile("one", {"1"}, &stmt, nullptr, KREF_SET), KREF_ERR_NOT_FOUND},
                     {kref_compile("none", KREF_CMP, "one", nullptr, 1, &item, nullptr, &stmt),
                      KREF_ERR_NOT_FOUND}});
    EXPECT_EQ(calls.verify, 2);
    EXPECT_EQ(calls.construct, 0);

    for (auto [cons, want] : {std::pair{Cons::Fail, 17u},
                              {Cons::NoInstance, KREF_ERR_BAD_ARG},
                              {Cons::FailLeavingInstance, 18u}}) {
        calls.cons = cons;
        EXPECT_EQ(compile("one", {"1"}, &stmt), want);
    }
    EXPECT_EQ(stmt, nullptr) << "set only on success";
    EXPECT_EQ(kref_live_instances(), 1u) << "what a failed constructor left is not touched";
    kref_inst_info_t info{};
    ASSERT_EQ(kref_inst_get(calls.left_behind, &info), 0u);
    std::free(info.ctx);
    EXPECT_EQ(rasf_free_cmp_instance(calls.left_behind), 0u);
    EXPECT_EQ(calls.free_fn, 0);
}

TEST_F(Platform, EvaluationUpdatesFirstThenCompares) {
    kref_eval_rec_t rec{};
    rec.key = 0x1122334455667788u;
    unsigned char route = 7;
    int32_t out = -1;
    for (auto [cons, order] :
         {std::pair{Cons::Normal, "uc"}, {Cons::Async, "uac"}, {Cons::NoCompare, "u"}}) {
        SCOPED_TRACE(order);
        calls = {};
        calls.cons = cons;
        kref_stmt_t *stmt = nullptr;
        ASSERT_EQ(compile("one", {"7"}, &stmt), 0u);
        route = 7;
        out = -1;
        EXPECT_EQ(kref_eval(stmt, &route, &rec, &out),
                  cons == Cons::NoCompare ? KREF_ERR_NO_FUNC : 0u);
        EXPECT_EQ(out, cons == Cons::NoCompare ? -1 : 1);
        EXPECT_EQ(calls.order, order);
        EXPECT_EQ(calls.key, rec.key);
        EXPECT_EQ(calls.fw_arg_null, cons == Cons::Async);
        route = 8;
        EXPECT_EQ(kref_eval(stmt, &route, nullptr, &out) == 0u, cons != Cons::NoCompare);
        EXPECT_EQ(out, cons == Cons::NoCompare ? -1 : 0);
        EXPECT_EQ(calls.key, 0u) << "no record: key 0";
        calls.update_status = 31;
        calls.order.clear();
        EXPECT_EQ(kref_eval(stmt, &route, &rec, &out), 31u);
        EXPECT_EQ(calls.order, "u") << "no compare after a failed update";
        kref_stmt_free(stmt);
    }
}

TEST_F(Platform, EachKindOfStatementRunsOnlyItsOwnFunctions) {
    ASSERT_EQ(add_setter(), 0u);
    ASSERT_EQ(rasf_kela_add_set_location("assign", attr_, "export"), 0u);
    ASSERT_EQ(rasf_kela_add_set_args("assign", attr_, make_args({kSingle})), 0u);
    ASSERT_EQ(add_retriever(), 0u);
    kref_stmt_t *cmp = nullptr, *set = nullptr, *retr = nullptr;
    ASSERT_EQ(compile("one", {"7"}, &cmp), 0u);
    ASSERT_EQ(compile("assign", {"42"}, &set, "export", KREF_SET), 0u);
    EXPECT_EQ(compile("assign", {"42"}, &retr, nullptr, KREF_RETR), KREF_ERR_BAD_ARG)
        << "the retriever has no name";
    ASSERT_EQ(compile(nullptr, {}, &retr, nullptr, KREF_RETR), 0u);

    unsigned char route = 7;
    int32_t out = -1;
    uint32_t value = 0;
    const vogno bad = KREF_ERR_BAD_ARG;
    struct Want {
        kref_stmt_t *stmt;
        vogno eval, apply, retrieve;
        const char *print;
    };
    for (const Want &w : {Want{cmp, 0, bad, bad, "flag is 7"}, Want{set, bad, 0, bad, "flag := 42"},
                          Want{retr, bad, bad, 0, nullptr}}) {
        EXPECT_EQ(kref_eval(w.stmt, &route, nullptr, &out), w.eval);
        EXPECT_EQ(kref_apply(w.stmt, &route), w.apply);
        EXPECT_EQ(kref_retrieve(w.stmt, &route, &value), w.retrieve);
        char *text = kref_stmt_print(w.stmt);
        EXPECT_STREQ(text, w.print);
        std::free(text);
    }
    EXPECT_EQ(out, 1);
    EXPECT_EQ(value, 1042u) << "the setter wrote 42, the retriever read it";
    for (kref_stmt_t *s : {cmp, set, retr}) kref_stmt_free(s);
    EXPECT_EQ(calls.free_fn, 2) << "the retriever registered no free function";
    // The library's types run the base functions in tests/lib; without them:
    EXPECT_EQ(kref_attr_print(attr_, &route), nullptr);
    EXPECT_EQ(kref_attr_compare(attr_, &route, &route, &out), KREF_ERR_NO_FUNC);
}

// ---- hooks ---------------------------------------------------------------------

// The library's tests make each registration call fail in turn and read the
// trace of what followed; these are the hooks' own rules.
TEST_F(Platform, FaultsFireOnceOnTheNthCallAndTheTraceKeepsItsLines) {
    kref_trace_start();
    kref_fault_set("rasf_kela_add_cmp_location", 2, 99);
    kref_fault_set("rasf_new_cmp_instance", 1, 98);
    EXPECT_EQ(kref_fault_pending(), 2u);
    EXPECT_EQ(rasf_kela_add_cmp_location("one", attr_, "import"), 0u);
    const char *first_line = kref_trace_at(0);  // short enough to live inside a string
    expect_statuses({{rasf_kela_add_cmp_location("one", attr_, "export"), 99},
                     {rasf_kela_add_cmp_location("one", attr_, "export"), 0}});
    EXPECT_EQ(kref_fault_pending(), 1u);
    kref_op_info_t info{};
    ASSERT_EQ(kref_attr_op(attr_, KREF_CMP, "one", &info), 0u);
    EXPECT_EQ(info.n_locations, 3u) << "the failed call did nothing";
    rasf_inst_t *inst = nullptr;
    EXPECT_EQ(rasf_new_cmp_instance(&inst, 0, nullptr, nullptr, nullptr), 98u);
    EXPECT_EQ(inst, nullptr);
    kref_fault_set_after("rasf_new_cmp_instance", 1, 5);
    EXPECT_EQ(rasf_new_cmp_instance(&inst, 3, nullptr, nullptr, nullptr), 5u);
    ASSERT_NE(inst, nullptr) << "after-mode carries the operation out";
    EXPECT_EQ(kref_live_instances(), 1u);
    EXPECT_EQ(rasf_kela_add_cmp_instance_function_print_ctx(inst, nullptr), 0u);
    EXPECT_EQ(rasf_free_cmp_instance(inst), 0u);
    kref_trace_stop();
    // A statement is released through the same operation, and still goes
    // when a fault refuses it (LeakSanitizer, live count).
    kref_stmt_t *stmt = nullptr;
    ASSERT_EQ(compile("one", {"3"}, &stmt), 0u);
    kref_fault_set("rasf_free_cmp_instance", 1, 7);
    kref_stmt_free(stmt);
    EXPECT_EQ(kref_fault_pending(), 0u);

    EXPECT_EQ(kref_trace_count(), 7u) << "failed calls are traced too; nothing after the stop";
    EXPECT_STREQ(first_line, "rasf_kela_add_cmp_location(one, flag, import)")
        << "a line handed out does not move";
}

TEST(PlatformLog, CapturedLinesAndFaults) {
    static const vup_msg_rec_td rec = {nullptr, "value %d of %s", nullptr, "FAC", "GRP", "MNEMO", 0,
                                       0,       nullptr,          0,       0};
    const std::string long_text(5000, 'q');  // longer than any fixed buffer
    kref_trace_start();
    kref_log_capture(1);
    vup_errmsg(&rec, 3, 17, "things");
    vup_errmsg(nullptr, 3);
    vup_errmsg(&rec, 6, 5, long_text.c_str());
    kref_fault_set("vup_errmsg", 1, 1);
    vup_errmsg(&rec, 3, 1, "dropped");
    kref_fault_set_after("vup_errmsg", 1, 1);
    vup_errmsg(&rec, 2, 2, "kept");
    std::vector<std::string> lines;
    for (size_t i = 0; i < kref_log_count(); ++i) lines.emplace_back(kref_log_at(i));
    EXPECT_EQ(lines, (std::vector<std::string>{"%FAC-3-MNEMO: value 17 of things",
                                               "%FAC-6-MNEMO: value 5 of " + long_text,
                                               "%FAC-2-MNEMO: value 2 of kept"}));
    kref_log_capture(0);
    kref_trace_stop();
    EXPECT_EQ(kref_log_count(), 0u);
    EXPECT_EQ(kref_trace_count(), 5u) << "a dropped message is traced too";
    EXPECT_EQ(std::string(kref_trace_at(0)) + " " + kref_trace_at(1),
              "vup_errmsg(MNEMO, 3) vup_errmsg((null), 3)");

    testing::internal::CaptureStderr();
    vup_errmsg(&rec, 5, 9, "stderr");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "%FAC-5-MNEMO: value 9 of stderr\n");
}

// ---- error texts ---------------------------------------------------------------

TEST(PlatformErrors, EveryKnownCodeHasItsOwnTextAndDomainsRegisterOnce) {
    auto library_code = [](uint32_t n) { return 0x40000000u | (1801u << 15) | (n << 9); };
    // The text of an unknown status is built from the status itself.
    EXPECT_STREQ(vog_strerror(0x12345678u), "Unknown status 0x12345678.");
    EXPECT_STREQ(vog_strerror(library_code(18)), "Unknown status 0x4384A400.")
        << "past the last code of the domain";
    std::vector<vogno> known = {0xA2D28400u, 0xC2C60200u};
    for (uint32_t n = 1; n <= 17; ++n) known.push_back(library_code(n));
    for (uint32_t n = 1; n <= 8; ++n) known.push_back(KREF_ERR(n));
    std::set<std::string> texts;
    for (vogno st : known) {
        const std::string t = vog_strerror(st);
        EXPECT_TRUE(!t.empty() && t.rfind("Unknown status", 0) == std::string::npos) << st;
        texts.insert(t);
    }
    EXPECT_EQ(texts.size(), known.size()) << "texts are distinct";
    EXPECT_STREQ(vog_strerror(0), "Success");
    EXPECT_NE(std::string(vog_strerror(KREF_ERR_LOCATION)).find("location"), std::string::npos);

    expect_statuses({{vog_register_dll(4242, "a.dll"), 0},
                     {vog_register_dll(4242, "a.dll"), 0},
                     {vog_register_dll(4242, "b.dll"), KREF_ERR_EXISTS},
                     {vog_register_dll(4243, nullptr), KREF_ERR_BAD_ARG},
                     {vog_register_dll(4243, "b.dll"), 0}});  // another component, its own name
}

// Inserting and finding values is run through the value sets of
// tests/lib/test_segments.cpp; what the library never asks for is here.
TEST(SortedArray, GivesThePositionAndSeesNothingPastTheBound) {
    uint32_t block[8] = {};
    for (uint32_t v : {5u, 1u, 9u, 5u}) sorted_array_add(block + 1, &block[0], v);
    uint32_t index = 77;
    EXPECT_NE(sorted_array_get_index(block + 1, block[0] + 1, &index, 9), 0);
    EXPECT_EQ(index, 3u);
    EXPECT_EQ(sorted_array_get_index(block + 1, block[0] + 1, &index, 0), 0)
        << "the slot past the stored elements holds 0 but is not considered";
    EXPECT_EQ(sorted_array_get_index(block + 1, 1, &index, 1), 0) << "bound 1: nothing stored";
    EXPECT_EQ(sorted_array_get_index(block + 1, 0, &index, 1), 0);
}

}  // namespace
