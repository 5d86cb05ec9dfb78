// SPDX-License-Identifier: Apache-2.0
// Every constructor of every registered operator, setter and retriever (and
// the retriever constructors that clients may register themselves), taken
// from the framework's registry so that no operator is left out because it
// shares code with another:
//  - each refusal of invalid input gives its status and leaves the caller's
//    instance pointer as documented (untouched, or null where the
//    constructor had already started building);
//  - each allocation, of the valid input and of every refusal, fails once;
//  - each platform call the constructor makes fails once, and the instance
//    pointer is then null.
// No failure may leave an instance behind; LeakSanitizer reports anything
// a failure path forgot to release.
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "alloc_hook.hpp"
#include "kela_callbacks.hpp"
#include "kela_ref_state.h"
#include "support.hpp"

namespace {

using Texts = std::vector<std::optional<std::string>>;

// The caller's instance pointer after a failure.
enum Out { U /* untouched */, N /* null */ };
// What of the call is missing.
enum Shape : unsigned { kAsIs = 0, kNoParams = 1, kNoSlots = 2, kNoDesc = 4 };

struct Refusal {
    Texts texts;
    unsigned shape;
    vogno status;
    Out out;
};

struct Row {
    const char *attr = nullptr;  // registered attribute, or null for a direct constructor
    kref_kind_t kind = KREF_CMP;
    const char *op = nullptr;  // null: the retriever
    Texts valid = {};
    std::vector<Refusal> refusals = {};
    rasf_construct_fn direct = nullptr;  // constructors no registration uses
    // After a failed allocation other than the first (the first makes the
    // context, before anything is built).
    Out late_alloc = U;
};

// Something no constructor would ever store.
rasf_inst_t *const kSentinel = reinterpret_cast<rasf_inst_t *>(std::uintptr_t{0x5a5a5a5a});

constexpr vogno kNullInput = KEL_SHARED_ERR_NULL_INPUT;
constexpr vogno kNullParam = KEL_SHARED_ERR_NULL_PARAM;
constexpr vogno kCount = KEL_SHARED_ERR_PARAM_COUNT;
constexpr vogno kBad = KEL_SHARED_ERR_BAD_VALUE;
constexpr vogno kNoArray = KEL_SHARED_ERR_NO_PARAM_ARRAY;
constexpr vogno kVariable = KEL_SHARED_ERR_VARIABLE;
constexpr vogno kClient = 0x3333;  // the client converter's refusal
constexpr auto kVar = std::nullopt;

Texts seg(std::initializer_list<std::initializer_list<const char *>> items) {
    return kt::segments(items);
}

// clang-format off
std::vector<Row> rows() {
    std::vector<Row> r;
    for (const char *a : {"u8", "u16", "u32"}) {
        for (const char *op : {"exact-match", "le", "ge"})
            r.push_back({.attr = a, .kind = KREF_CMP, .op = op, .valid = {"7"}, .refusals = {
                {{"7", "8"}, kAsIs, kCount, U}, {{kVar}, kAsIs, kNullParam, U},
                {{"7"}, kNoSlots, kNullInput, U}}});
        r.push_back({.attr = a, .kind = KREF_SET, .op = "assign", .valid = {"7"}, .refusals = {
            {{"7", "8"}, kAsIs, kCount, U}, {{"7"}, kNoParams, kNullInput, U},
            {{kVar}, kAsIs, kNullParam, U}}});
        r.push_back({.attr = a, .kind = KREF_RETR});
    }
    r.push_back({.attr = "u32", .kind = KREF_CMP, .op = "matches-any", .valid = seg({{"5"}, {"7"}}),
                 .refusals = {
        {seg({{"5"}}), kNoDesc, kNoArray, U}, {{}, kAsIs, kNullInput, U},
        {seg({{"5"}, {"x"}}), kAsIs, kBad, U}, {seg({{"5", "6"}}), kAsIs, 4, U},
        {{"5"}, kAsIs, kNullInput, U}, {{"arg1:1", "5"}, kAsIs, kNullInput, U},
        {seg({{"5"}}), kNoParams, kNullInput, U}, {seg({{"5"}}), kNoSlots, kNullInput, U}}});
    for (kref_kind_t kind : {KREF_CMP, KREF_SET})
        r.push_back({.attr = "en", .kind = kind, .op = kind == KREF_CMP ? "exact-match" : "assign",
                     .valid = {"red"},
                     .refusals = {
            {{"blue"}, kAsIs, kBad, U}, {{"red", "red"}, kAsIs, kCount, U}}});
    r.push_back({.attr = "en", .kind = KREF_RETR, .valid = {"x"}});
    for (kref_kind_t kind : {KREF_CMP, KREF_SET})
        r.push_back({.attr = "bm", .kind = kind, .op = kind == KREF_CMP ? "exact-match" : "assign",
                     .valid = {"ab"},
                     .refusals = {
            {{"bad"}, kAsIs, kClient, U}, {{"ab", "ab"}, kAsIs, kCount, U}}});
    r.push_back({.attr = "bm", .kind = KREF_CMP, .op = "matches-any",
                 .valid = seg({{"a"}, {"abc"}}),
                 .refusals = {
        {seg({{"a"}, {"bad"}}), kAsIs, kClient, U}, {seg({{"a", "b"}}), kAsIs, 4, U},
        {{"a"}, kAsIs, kNullInput, U}, {{}, kAsIs, kCount, U}}});
    r.push_back({.attr = "bm", .kind = KREF_RETR, .valid = {"x"}});
    r.push_back({.attr = "fl", .kind = KREF_SET, .op = "assign", .valid = {"blackhole"},
                 .refusals = {
        {{"nope"}, kAsIs, kClient, U}, {{"blackhole", "x"}, kAsIs, kCount, U}}});
    // Wild, length-form, one key with three entries between two entries of
    // a longer key on the same address (out of order: they are sorted, and
    // the two meet), mask form and IPv6.
    const Texts set = seg({{"0.0.0.0", "0", "0", "8"}, {"10.0.0.0", "16", "16", "16"},
                           {"10.0.0.0", "8", "8", "24"}, {"10.0.0.0", "8", "16", "16"},
                           {"10.0.0.0", "8", "20", "20"}, {"10.0.0.0", "16", "16", "24"},
                           {"172.16.0.0", "0.15.255.255", "16", "24"},
                           {"2001:db8::", "32", "32", "48"}});
    for (const char *op : {"pfxmatch", "pfxlonger", "pfxorlonger"})
        r.push_back({.attr = "px", .kind = KREF_CMP, .op = op, .valid = set, .refusals = {
            {set, kNoDesc, kNoArray, U}, {{kVar}, kAsIs, kVariable, U},
            {seg({{"10.0.0.0", "8", "8", "24"}, {"10.0.0.300", "8", "8", "8"}}), kAsIs, 4, U},
            {seg({{"10.0.0.0", "8", "8", "24"}, {"10.0.0.0", "8"}}), kAsIs, 4, U},
            {seg({{"10.0.0.0", "8", "8", "24"}, {nullptr, "8", "8", "8"}}), kAsIs, 4, U},
            {{"10.0.0.0", "8", "8", "24"}, kAsIs, kBad, U}}});
    r.push_back({.attr = "px", .kind = KREF_CMP, .op = "covered"});
    r.push_back({.attr = "px", .kind = KREF_SET, .op = "assign", .valid = {"10.0.0.1"},
                 .refusals = {
        {{"10.0.0.1", "x"}, kAsIs, kCount, U}, {{"10.0.0.1"}, kNoParams, kNullParam, U},
        {{kVar}, kAsIs, kNullParam, U}}});
    const Texts four = {"10.1.0.0", "16", "16", "32"};
    r.push_back({.attr = "v4", .kind = KREF_CMP, .op = "pfxmatch", .valid = four, .refusals = {
        {four, kNoDesc, kNoArray, U}, {four, kNoSlots, kNullInput, U},
        {{"10.1.0.300", "16", "16", "32"}, kAsIs, kBad, U}}});
    r.push_back({.attr = "mac", .kind = KREF_CMP, .op = "macaddrmatch",
                 .valid = seg({{"0011.2233.4455"}, {"abab.abab.abab"}}),
                 .refusals = {
        {seg({{"0011.2233.4455"}}), kNoDesc, kNoArray, U},
        {seg({{"0011.2233.4455"}, {nullptr}}), kAsIs, kNullParam, U},
        {seg({{"0011.2233.4455"}, {"a", "b"}}), kAsIs, 4, U}, {{kVar}, kAsIs, kVariable, U}}});
    // "in" has started to build once its context exists: every refusal from
    // then on hands back null.
    const Texts host = seg({{"10.0.0.0", "8", "8", "8"}});
    r.push_back({.attr = "rib-has-route", .kind = KREF_CMP, .op = "in",
                 .valid = seg({{"10.0.0.0", "8", "8", "24"}, {"2001:db8::", "32", "32", "32"}}),
                              .refusals = {
        {host, kNoDesc, kNoArray, U}, {{kVar}, kAsIs, kVariable, U},
        {seg({{"10.0.0.0", "8", "8", "8"}, {"10.0.0.0", "8", "16", "24"}}), kAsIs, 4, N},
        {seg({{"10.0.0.0", "8", "8", "8"}, {"10.0.0.300", "8", "8", "8"}}), kAsIs, 4, N},
        {seg({{"10.0.0.0", "8", "8", "8"}, {"10.0.0.0", "8", "8"}}), kAsIs, 4, N},
        {{"10.0.0.0", "8", "8", "8"}, kAsIs, kBad, N}, {{"10.0.0.0"}, kAsIs, kBad, N}},
                 .late_alloc = N});
    r.push_back({.attr = "rib-has-route", .kind = KREF_CMP, .op = "async",
                 .valid = seg({{"10.0.0.0", "8", "8", "8"}, {"2001:db8::", "32", "32", "32"}}),
                              .refusals = {
        {host, kNoDesc, kNoArray, U}, {host, kNoSlots, kNullInput, U},
        {{kVar}, kAsIs, kVariable, U}}});
    const Texts is = {"x", "T1", "up"};
    r.push_back({.attr = "track", .kind = KREF_CMP, .op = "is", .valid = is, .refusals = {
        {is, kNoDesc, kNoArray, U}, {is, kNoSlots, kNullInput, U}}});
    // Retriever constructors a client may register on its own.
    for (rasf_construct_fn f : {shared_kela_prefix_retr_cons, shared_kela_ipv4_retr_cons,
                                shared_kela_rhr_retr_cons})
        r.push_back({.kind = KREF_RETR, .direct = f});
    return r;
}
// clang-format on

class Constructors : public kt::FrameworkTest {
  protected:
    void SetUp() override {
        kt::FrameworkTest::SetUp();
        kref_state_reset();
        ASSERT_EQ(types_.register_all(), 0u);
    }
    void TearDown() override {
        kt::alloc::reset();
        kref_state_reset();
        kt::FrameworkTest::TearDown();
    }

    // The constructor and free function of a row, as registered.
    void resolve(const Row &row, rasf_construct_fn *cons, rasf_free_fn *free_fn, void **desc) {
        *cons = row.direct;
        *free_fn = nullptr;
        *desc = &types_.px;
        if (row.attr == nullptr) return;
        kref_op_info_t op{};
        rasf_attr_t *attr = kref_attr_find(row.attr);
        ASSERT_NE(attr, nullptr) << row.attr;
        const vogno st = row.op != nullptr ? kref_attr_op(attr, row.kind, row.op, &op)
                                           : kref_attr_op_at(attr, row.kind, 0, &op);
        ASSERT_EQ(st, 0u);
        *cons = op.construct;
        *free_fn = op.free_fn;
        // The routing-state attributes carry no descriptor of their own;
        // their constructors want one all the same.
        *desc = op.desc != nullptr ? op.desc : static_cast<void *>(&types_.rhr);
    }

    // One call; a produced instance is released at once.
    vogno call(rasf_construct_fn cons, rasf_free_fn free_fn, void *desc, kt::Params &p,
               unsigned shape, rasf_inst_t **out) {
        *out = kSentinel;
        const vogno st =
            cons(p.count(), shape & kNoParams ? nullptr : p.vec(),
                 shape & kNoSlots ? nullptr : p.slots(), shape & kNoDesc ? nullptr : desc, out);
        if (st == 0 && *out != kSentinel && *out != nullptr) {
            kref_inst_info_t info{};
            kref_inst_get(*out, &info);
            if (free_fn != nullptr) free_fn(info.ctx);
            if (info.kind == KREF_CMP) rasf_free_cmp_instance(*out);
            if (info.kind == KREF_SET) rasf_free_set_instance(*out);
            if (info.kind == KREF_RETR) rasf_free_retriever_instance(*out);
        }
        return st;
    }

    // Fails each allocation of one call in turn (the vector is made first:
    // its texts are not the constructor's allocations).
    // The run without a failed allocation gives `clean`, leaving the
    // instance pointer as `refused` says when it refuses.
    void sweep_allocations(rasf_construct_fn cons, rasf_free_fn free_fn, void *desc,
                           const Texts &texts, unsigned shape, vogno clean, Out refused, Out late) {
        kt::Params p(texts);
        for (std::size_t n = 1; n < 1000; ++n) {
            SCOPED_TRACE("allocation " + std::to_string(n));
            rasf_inst_t *out = nullptr;
            kt::alloc::fail_at(n);
            const vogno st = call(cons, free_fn, desc, p, shape, &out);
            const bool fired = kt::alloc::failed();
            kt::alloc::reset();
            EXPECT_EQ(kref_live_instances(), 0u);
            if (!fired) {
                EXPECT_EQ(st, clean) << "the run without a failed allocation";
                EXPECT_EQ(out, st == 0 ? out : refused == N ? nullptr : kSentinel);
                break;
            }
            if (st == 0)  // a failure the constructor absorbs (a text it can do without)
                EXPECT_NE(out, kSentinel);
            else
                EXPECT_EQ(out, n > 1 && late == N ? nullptr : kSentinel);
            // No memory, an entry that could not be filed (4), a segment list
            // that could not be made (a malformed list: bad value or null
            // input), or the refusal the input gets anyway.
            const std::set<vogno> allowed = {0,
                                             clean,
                                             KEL_SHARED_ERR_NO_MEMORY,
                                             4,
                                             KEL_SHARED_ERR_BAD_VALUE,
                                             KEL_SHARED_ERR_NULL_INPUT};
            EXPECT_TRUE(allowed.count(st)) << std::hex << st;
        }
    }

    // Fails each platform call the valid input makes, in turn; the
    // instance pointer is then null.
    void sweep_platform_calls(rasf_construct_fn cons, rasf_free_fn free_fn, void *desc,
                              const Texts &texts) {
        constexpr vogno kInjected = 0x77;
        kt::Params valid(texts);
        rasf_inst_t *out = nullptr;
        kref_trace_start();
        ASSERT_EQ(call(cons, free_fn, desc, valid, kAsIs, &out), 0u);
        kref_trace_stop();
        // The calls the valid input makes, each with its rank among calls of
        // the same name; the releases after the run are not the constructor's.
        std::vector<std::pair<std::string, uint32_t>> calls;
        std::map<std::string, uint32_t> seen;
        for (const std::string &line : kt::trace()) {
            const std::string name = line.substr(0, line.find('('));
            if (name.rfind("rasf_free_", 0) == 0) break;
            calls.emplace_back(name, ++seen[name]);
        }
        EXPECT_FALSE(calls.empty());
        for (const auto &[name, nth] : calls) {
            SCOPED_TRACE(name + " #" + std::to_string(nth));
            kref_fault_set(name.c_str(), nth, kInjected);
            EXPECT_EQ(call(cons, free_fn, desc, valid, kAsIs, &out), kInjected);
            kref_fault_clear();
            EXPECT_EQ(out, nullptr);
            EXPECT_EQ(kref_live_instances(), 0u);
        }
    }

    kt::EveryType types_;
};

std::string label(const Row &row) {
    return std::string(row.attr != nullptr ? row.attr : "(direct)") + " " +
           (row.op != nullptr ? row.op : "(retriever)");
}

TEST_F(Constructors, EveryRegisteredConstructorHasARow) {
    std::set<std::string> covered;
    for (const Row &row : rows()) covered.insert(label(row));
    for (std::size_t a = 0; a < kref_attr_count(); ++a) {
        rasf_attr_t *attr = kref_attr_at(a);
        for (kref_kind_t kind : {KREF_CMP, KREF_SET, KREF_RETR})
            for (std::size_t i = 0; i < kref_attr_op_count(attr, kind); ++i) {
                kref_op_info_t op{};
                ASSERT_EQ(kref_attr_op_at(attr, kind, i, &op), 0u);
                Row probe{.attr = kref_attr_name(attr), .kind = kind, .op = op.name};
                EXPECT_TRUE(covered.count(label(probe))) << label(probe) << " has no row";
            }
    }
}

// Each refusal, then each allocation of the valid input and of every
// refusal failing once, then each platform call of the valid input.
TEST_F(Constructors, EveryFailureOfEveryConstructorIsClean) {
    for (const Row &row : rows()) {
        SCOPED_TRACE(label(row));
        rasf_construct_fn cons = nullptr;
        rasf_free_fn free_fn = nullptr;
        void *desc = nullptr;
        ASSERT_NO_FATAL_FAILURE(resolve(row, &cons, &free_fn, &desc));
        sweep_allocations(cons, free_fn, desc, row.valid, kAsIs, 0, U, row.late_alloc);
        for (const Refusal &f : row.refusals)
            sweep_allocations(cons, free_fn, desc, f.texts, f.shape, f.status, f.out,
                              row.late_alloc);
        sweep_platform_calls(cons, free_fn, desc, row.valid);
        kt::Params p(row.valid);  // and no place for the instance
        EXPECT_EQ(cons(p.count(), p.vec(), p.slots(), desc, nullptr), KEL_SHARED_ERR_NULL_RESULT);
    }
}

}  // namespace
