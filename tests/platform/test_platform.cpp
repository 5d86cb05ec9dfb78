// SPDX-License-Identifier: Apache-2.0
// The reference platform on its own, driven by a small attribute type
// written here: how statements are laid out, compiled and evaluated, and who
// owns instance contexts.  The registry, hooks, error texts and logging are
// exercised by every test of tests/lib, tests/alloc and tests/startup.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <random>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "kela_ref.h"
#include "kela_ref_hooks.h"
#include "qv_inet.h"

namespace {

// ---- a toy attribute type: "flag" compares a route byte with a constant ----

// How the toy constructor behaves.
enum class Cons { Normal, Async, NoCompare, Fail, FailLeavingInstance, NoInstance };

struct Calls {
    int verify = 0, construct = 0, free_fn = 0;
    std::string seen;          // the vector the verifier got, "$" for a variable
    std::string slots;         // what the constructor got: "s" a slot, "-" none
    std::string order;         // update, compare, asynchronous compare: "u", "c", "a"
    bool fw_arg_null = false;  // the compare's fw_arg
    uint64_t key = 0;
    Cons cons = Cons::Normal;
    vogno update_status = 0;
    rasf_inst_t *left_behind = nullptr;  // by Cons::FailLeavingInstance
} calls;

vogno toy_verify(uint32_t count, char **params, void *, char **msg) {
    ++calls.verify;
    calls.seen.clear();
    for (uint32_t i = 0; i < count; ++i)
        calls.seen += std::string(i ? " " : "") + (params[i] ? params[i] : "$");
    if (count == 0 || params[0] == nullptr || std::strcmp(params[0], "bad") != 0) return 0;
    *msg = strdup("bad is refused");
    return 42;
}

vogno toy_cmp(void *route, uint32_t, void **, void *ctx, int32_t *outcome) {
    calls.order += "c";
    *outcome = *static_cast<unsigned char *>(route) == *static_cast<unsigned char *>(ctx) ? 1 : 0;
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

// The constructor leaves the statuses of the attach calls alone: no fault is
// armed while a test compiles.
vogno toy_construct(uint32_t count, char **params, void **slots, void *, rasf_inst_t **out) {
    ++calls.construct;
    calls.slots.clear();
    for (uint32_t i = 0; i < count; ++i) calls.slots += slots[i] ? "s" : "-";
    if (calls.cons == Cons::Fail) return 17;
    if (calls.cons == Cons::NoInstance) return 0;
    auto *ctx = static_cast<unsigned char *>(std::malloc(1));
    *ctx = static_cast<unsigned char>(std::atoi(params[0]));
    rasf_new_cmp_instance(out, count, params, slots, ctx);
    if (calls.cons == Cons::FailLeavingInstance) {
        calls.left_behind = *out;  // a careless constructor
        return 18;
    }
    if (calls.cons == Cons::Normal) rasf_kela_add_cmp_instance_function_cmp(*out, toy_cmp);
    if (calls.cons == Cons::Async)
        rasf_kela_add_cmp_instance_function_cmp_async(*out, toy_cmp_async);
    return rasf_kela_add_cmp_instance_function_update(*out, toy_update);
}

vogno toy_free(void *ctx) {
    ++calls.free_fn;
    std::free(ctx);
    return 0;
}

// ---- helpers -------------------------------------------------------------------

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
        ASSERT_EQ(rasf_kela_add_cmp(op, attr_, toy_verify, toy_construct, toy_free, nullptr), 0u);
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

    static constexpr kref_arg_info_t kSingle{KREF_ARG_SINGLE, "uint32_t", "1.0", 1, 1};
    static constexpr kref_arg_info_t kRun{KREF_ARG_INFINITE, "uint32_t", "2.0", 1, -1};
    static constexpr kref_arg_info_t kTwo{KREF_ARG_N, "string", "1.0", 1, 2};
    rasf_attr_t *attr_ = nullptr;
    std::vector<const char *> texts_;
    std::vector<kref_item_t> items_;
};

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
    const char *one[] = {"1"};
    kref_item_t item{1, one};
    kref_stmt_t *stmt = nullptr;
    // Refused by the verifier (its message released when nobody takes it:
    // LeakSanitizer; one taken is every verifier test's of tests/lib), then
    // before the verifier is called.
    int call = 0;  // the calls run in the order listed
    for (auto [got, want] :
         {std::pair<vogno, vogno>{compile("one", {"bad"}, &stmt), 42},
          {compile("one", {"1"}, &stmt, "export"), KREF_ERR_LOCATION},
          {compile("two", {"1"}, &stmt), KREF_ERR_NOT_FOUND},
          {compile("one", {"1"}, &stmt, nullptr, KREF_SET), KREF_ERR_NOT_FOUND},
          {kref_compile("none", KREF_CMP, "one", nullptr, 1, &item, nullptr, &stmt),
           KREF_ERR_NOT_FOUND}})
        EXPECT_EQ(got, want) << "call " << call++;
    EXPECT_EQ(calls.verify, 1);
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

}  // namespace

// The platform reads address texts itself; the C library's reader is the
// rule.  Hand-picked texts, then IPv6 texts assembled from random groups,
// gaps and IPv4 tails (most valid, many just not).
TEST(Address, TextsAreReadAsTheCLibraryReadsThem) {
    std::vector<std::string> v4 = {"0.0.0.0",
                                   "255.255.255.255",
                                   "10.1.2.3",
                                   "1.2.3",
                                   "1.2.3.4.5",
                                   "1.2.3.",
                                   ".1.2.3.4",
                                   "01.2.3.4",
                                   "1.2.3.04",
                                   "1.2.3.00",
                                   "256.1.1.1",
                                   "1.2.3.2555",
                                   "1..2.3",
                                   "",
                                   "1.2.3.4 ",
                                   " 1.2.3.4",
                                   "1.2.3.-4",
                                   "1.2.3.4x",
                                   "99999999999.1.1.1",
                                   "1.2.3.4\n"};
    std::vector<std::string> v6 = {"::",
                                   "::1",
                                   "1::",
                                   ":::",
                                   ":",
                                   "1:",
                                   ":1",
                                   "1:2:3:4:5:6:7:8",
                                   "1:2:3:4:5:6:7:8:9",
                                   "1:2:3:4:5:6:7::",
                                   "::2:3:4:5:6:7:8",
                                   "1::2::3",
                                   "12345::",
                                   "fFfF::AbCd",
                                   "g::",
                                   "::ffff:1.2.3.4",
                                   "::1.2.3.4",
                                   "1.2.3.4",
                                   "1:2:3:4:5:6:1.2.3.4",
                                   "1:2:3:4:5:6:7:1.2.3.4",
                                   "::a.2.3.4",
                                   "::1234.1.1.1",
                                   "1::2:3:4:5:6:7:8",
                                   "2001:db8::/32",
                                   "2001:db8:: ",
                                   "1:2:3:4:5:6:7:",
                                   "1::2:"};
    std::mt19937 rng(7);
    const char *const hex = "0123456789abcdefABCDEF";
    for (int i = 0; i < 20000; ++i) {
        std::string t;
        const unsigned groups = rng() % 10, gap = rng() % 12;
        for (unsigned g = 0; g < groups; ++g) {
            if (g > 0) t += ':';
            if (g == gap) t += ':';
            for (unsigned d = 1 + rng() % 5; d > 0; --d) t += hex[rng() % 22];
        }
        if (gap == groups && rng() % 2 != 0) t += "::";
        if (rng() % 4 == 0) t += (t.empty() || t.back() == ':' ? "" : ":") + v4[rng() % 4];
        v6.push_back(t);
    }
    for (const auto &[family, af, texts] :
         {std::tuple{QV_AF_INET, AF_INET, v4}, std::tuple{QV_AF_INET6, AF_INET6, v6}}) {
        for (const std::string &text : texts) {
            unsigned char ours[16], libc[16];
            std::memset(ours, 7, sizeof ours);
            std::memset(libc, 7, sizeof libc);
            ASSERT_EQ(qv_inet_pton(family, text.c_str(), ours), inet_pton(af, text.c_str(), libc))
                << text;
            ASSERT_EQ(0, std::memcmp(ours, libc, sizeof ours)) << text;
        }
    }
}
