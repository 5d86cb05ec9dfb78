// SPDX-License-Identifier: Apache-2.0
// The unsigned integer attributes, all three widths: conversion, the
// verifier's order of checks and messages, the constructors' status orders,
// width-exact reads and writes, print and retriever.  (Constructors that
// fail after the framework made an instance: tests/alloc.)
#include <array>
#include <cstring>
#include <limits>

#include "support.hpp"

namespace {

using kt::Params;
using kt::take;
using kt::Verdict;

template <typename D, typename V, vogno (*Init)(void *, char *, int32_t, D *)>
struct WidthOf {
    using Desc = D;
    using Value = V;
    static constexpr uint32_t kFull = std::numeric_limits<V>::max();
    static vogno init(D *d) { return Init(nullptr, nullptr, 0, d); }
};
using W8 = WidthOf<shared_kela_uint8_desc_td, uint8_t, shared_kela_uint8_base_init>;
using W16 = WidthOf<shared_kela_uint16_desc_td, uint16_t, shared_kela_uint16_base_init>;
using W32 = WidthOf<shared_kela_uint32_desc_td, uint32_t, shared_kela_uint32_base_init>;

template <typename W>
class UintWidth : public kt::FrameworkTest {
  protected:
    using Value = typename W::Value;

    void SetUp() override {
        kt::FrameworkTest::SetUp();
        desc_.name = "metric";
        desc_.index = 3;
        ASSERT_EQ(W::init(&desc_), 0u);
        attr_ = kref_attr_find("metric");
        route_.fill(0x11);
    }
    kref_op_info_t op(kref_kind_t kind, const char *name) {
        kref_op_info_t info{};
        EXPECT_EQ(kref_attr_op(attr_, kind, name, &info), 0u);
        return info;
    }
    // Compiles `op text` and evaluates it against the route holding v.
    int32_t outcome(const char *name, const char *text, Value v) {
        kref_stmt_t *stmt = kt::compile("metric", KREF_CMP, name, {{text}}, 0, nullptr, "import");
        std::memcpy(route_.data() + 3 * sizeof(Value), &v, sizeof v);
        const int32_t out = kt::eval(stmt, route_.data());
        kref_stmt_free(stmt);
        return out;
    }

    typename W::Desc desc_{};
    rasf_attr_t *attr_ = nullptr;
    alignas(8) std::array<unsigned char, 32> route_{};
};

using Widths = ::testing::Types<W8, W16, W32>;
TYPED_TEST_SUITE(UintWidth, Widths);

// "le" and "assign" share the verifier of every one-constant operator.
TYPED_TEST(UintWidth, VerifiersCheckInOrderWithTheirMessages) {
    using V = typename TypeParam::Value;
    const V full = TypeParam::kFull;
    const bool narrow = TypeParam::kFull < 0xFFFFFFFFu;
    const std::string top = std::to_string(full), above = std::to_string(uint64_t{full} + 1);
    auto range = [](const std::string &v, const std::string &lo, const std::string &hi) {
        return "Value (" + v + ") not within acceptable range: " + lo + " - " + hi;
    };
    // Fixed messages keep a caller's text, the range message replaces it.
    using Case = std::tuple<V, V, std::string, Verdict>;  // min, max, text
    const Case cases[] = {
        {0, full, "0x7", {KEL_SHARED_ERR_BAD_VALUE, "kept"}},  // converted strictly
        {0, full, top, {0, "kept"}},
        {0,
         full,
         above,
         {narrow ? KEL_SHARED_ERR_ABOVE_MAX : 0, narrow ? range(above, "0", top) : "kept"}},
        {0,
         full,
         "-1",
         {narrow ? KEL_SHARED_ERR_ABOVE_MAX : 0, narrow ? range("4294967295", "0", top) : "kept"}},
        {10, 20, "5", {KEL_SHARED_ERR_BELOW_MIN, range("5", "10", "20")}},
        {full, full, "0", {KEL_SHARED_ERR_BELOW_MIN, range("0", top, top)}},
        // An inverted range refuses everything: above max first, the rest below min.
        {20, 10, "15", {KEL_SHARED_ERR_ABOVE_MAX, range("15", "20", "10")}},
        {20, 10, "25", {KEL_SHARED_ERR_ABOVE_MAX, range("25", "20", "10")}},
        {20, 10, "5", {KEL_SHARED_ERR_BELOW_MIN, range("5", "20", "10")}},
    };
    for (auto [kind, name] : {std::pair{KREF_CMP, "le"}, std::pair{KREF_SET, "assign"}}) {
        SCOPED_TRACE(name);
        rasf_verify_fn verify = this->op(kind, name).verify;
        for (const auto &[min, max, text, want] : cases) {
            this->desc_.min = min;
            this->desc_.max = max;
            Params p{text};
            char keep[] = "caller's text";
            char *msg = keep;
            EXPECT_EQ(verify(1, p.vec(), &this->desc_, &msg), want.status) << text;
            EXPECT_EQ(msg == keep ? "kept" : take(msg), want.message) << text;
        }
        // The checks before the conversion, in order; their messages leave
        // a caller's text alone.
        Params var{std::nullopt};
        using Shape = std::tuple<uint32_t, char **, void *, Verdict>;
        const Shape shapes[] = {
            {2, nullptr, nullptr, {KEL_SHARED_ERR_NULL_RESULT, "Invalid context pointer"}},
            {2,
             nullptr,
             &this->desc_,
             {KEL_SHARED_ERR_PARAM_COUNT, "Requires exactly one parameter"}},
            {1, nullptr, &this->desc_, {KEL_SHARED_ERR_NULL_INPUT, "NULL parameter vector"}},
            {1,
             var.vec(),
             &this->desc_,
             {KEL_SHARED_ERR_NULL_PARAM, "Cannot handle variables at this time"}},
        };
        for (auto [n, vec, desc, want] : shapes) {
            char *msg = nullptr;
            EXPECT_EQ(verify(n, vec, desc, &msg), want.status);
            EXPECT_EQ(take(msg), want.message);
            char keep[] = "caller's text";
            msg = keep;
            verify(n, vec, desc, &msg);
            EXPECT_EQ(msg, keep);
        }
    }
}

// The refusals every constructor shares are in tests/alloc's table; here
// their order and the lenient conversion.
TYPED_TEST(UintWidth, ConstructorsTestTheirArgumentsInTheirOwnOrder) {
    rasf_construct_fn le = this->op(KREF_CMP, "le").construct;
    rasf_construct_fn assign = this->op(KREF_SET, "assign").construct;
    rasf_inst_t *inst = nullptr;
    Params p{"1", "2"}, text{"5"};
    // Operators test the vectors first, the setter tests the count first.
    EXPECT_EQ(le(2, nullptr, p.slots(), &this->desc_, &inst), KEL_SHARED_ERR_NULL_INPUT);
    EXPECT_EQ(assign(2, nullptr, p.slots(), &this->desc_, &inst), KEL_SHARED_ERR_PARAM_COUNT);
    void *no_slot[] = {nullptr};  // a text with a slot but no slot storage: a variable
    for (rasf_construct_fn cons : {le, assign})
        EXPECT_EQ(cons(1, text.vec(), no_slot, &this->desc_, &inst), KEL_SHARED_ERR_VARIABLE);
    EXPECT_EQ(inst, nullptr);

    // The constructor converts leniently into the slot, without range check.
    Params lenient{"12abc"};
    ASSERT_EQ(le(1, lenient.vec(), lenient.slots(), &this->desc_, &inst), 0u);
    EXPECT_EQ(lenient.slot_u32(0), 12u);
    EXPECT_EQ(rasf_free_cmp_instance(inst), 0u);
}

TYPED_TEST(UintWidth, InstanceFunctionsRefuseMissingPiecesAndWriteExactlyTheirElement) {
    kref_stmt_t *stmt = kt::compile("metric", KREF_CMP, "ge", {{"5"}});
    kref_inst_info_t info = kt::inst_info(kref_stmt_instance(stmt));
    void **slots = kref_stmt_slots(stmt);
    unsigned char *route = this->route_.data();
    // No count, then each pointer missing in turn (kt::nulls' letters).
    int32_t out = 9;
    EXPECT_EQ(info.cmp(route, 0, slots, info.ctx, &out), KEL_SHARED_ERR_NULL_INPUT);
    EXPECT_EQ(kt::nulls("xRIRR", info.cmp, route, 1u, slots, info.ctx, &out), "xRIRR");
    EXPECT_EQ(out, 9) << "no outcome stored on failure";
    kref_stmt_free(stmt);

    // Built by the constructor: the verifier would refuse 65535 on 8 bits.
    Params p{"65535"};
    rasf_inst_t *inst = nullptr;
    ASSERT_EQ(this->op(KREF_SET, "assign").construct(1, p.vec(), p.slots(), &this->desc_, &inst),
              0u);
    info = kt::inst_info(inst);
    void *empty[] = {nullptr};
    EXPECT_EQ(info.set(route, 0, p.slots(), info.ctx), KEL_SHARED_ERR_NULL_INPUT);
    EXPECT_EQ(info.set(route, 1, empty, info.ctx), KEL_SHARED_ERR_NULL_PARAM);
    EXPECT_EQ(kt::nulls("0RIR", info.set, route, 1u, p.slots(), info.ctx), "0RIR");
    EXPECT_EQ(rasf_free_set_instance(inst), 0u);
    // Only the width's element changed: 65535 cut to the width, little-endian.
    const size_t w = sizeof(typename TypeParam::Value);
    for (size_t i = 0; i < this->route_.size(); ++i) {
        const bool inside = i >= 3 * w && i < 4 * w;
        EXPECT_EQ(route[i], inside ? (i - 3 * w < 2 ? 0xFF : 0x00) : 0x11) << "byte " << i;
    }
}

// The example policy's goldens hold each width at the bounds of its "le",
// "ge" and "exact-match"; here every reader of the route meets the width's
// own maximum, and the retriever reads nothing.
TYPED_TEST(UintWidth, ReadersTakeTheWholeWidthThroughTheDescriptor) {
    const auto full = static_cast<typename TypeParam::Value>(TypeParam::kFull);
    const std::string full_text = std::to_string(TypeParam::kFull);
    unsigned char *route = this->route_.data();
    EXPECT_EQ(this->outcome("exact-match", full_text.c_str(), full - 1), 0);
    EXPECT_EQ(this->outcome("le", "0", full), 0);
    EXPECT_EQ(this->outcome("ge", "10", full), 1);
    EXPECT_EQ(this->outcome("exact-match", full_text.c_str(), full), 1);
    EXPECT_EQ(take(kref_attr_print(this->attr_, route)), full_text);
    EXPECT_EQ(take(kref_attr_print(this->attr_, nullptr)), "<<No route?>>");
    rasf_base_print_fn print = kref_attr_base_print(this->attr_, nullptr);
    EXPECT_EQ(take(print(nullptr, route, nullptr)), "<<Internal error (no context)>>");

    alignas(8) std::array<unsigned char, 32> other = this->route_;
    int32_t out = -1;
    other[0] ^= 0xFF;  // outside the element
    EXPECT_EQ(kref_attr_compare(this->attr_, route, other.data(), &out), 0u);
    EXPECT_EQ(out, 1);
    other[3 * sizeof(typename TypeParam::Value)] ^= 0x01;
    EXPECT_EQ(kref_attr_compare(this->attr_, route, other.data(), &out), 0u);
    EXPECT_EQ(out, 0);

    // The retriever takes no parameter and reads nothing.
    rasf_verify_fn verify = this->op(KREF_RETR, nullptr).verify;
    EXPECT_EQ(kt::verify(verify, &this->desc_, {"1"}),
              (Verdict{KEL_SHARED_ERR_PARAM_COUNT, "<null>"}));
    kref_stmt_t *stmt = kt::compile("metric", KREF_RETR, nullptr, {});
    uint32_t got = 1234;
    EXPECT_EQ(kref_retrieve(stmt, route, &got), 0u);
    EXPECT_EQ(got, 1234u);
    kref_stmt_free(stmt);
}

TEST(UintConvert, StrtoulSemanticsReducedTo32Bits) {
    using Case = std::tuple<const char *, int, vogno, uint32_t>;  // text, strict
    const Case cases[] = {
        {"4294967295", 1, 0, 4294967295u},
        {"4294967296", 1, 0, 0},
        {"99999999999999999999", 1, 0, 4294967295u},  // saturates, then low 32 bits
        {"-1", 1, 0, 4294967295u},
        {"-4294967295", 1, 0, 1},
        {"  +17", 1, 0, 17},
        {"", 1, 0, 0},
        {"12abc", 1, KEL_SHARED_ERR_BAD_VALUE, 99},
        {"12abc", 0, 0, 12},
        {"abc", 0, 0, 0},
        {"7 ", 1, KEL_SHARED_ERR_BAD_VALUE, 99},
    };
    for (auto cvt : {shared_kela_uint8_cvt_string, shared_kela_uint16_cvt_string,
                     shared_kela_uint32_cvt_string}) {
        for (auto [text, strict, status, value] : cases) {
            uint32_t v = 99;
            EXPECT_EQ(cvt(text, nullptr, strict, &v), status) << text;
            EXPECT_EQ(v, value) << text;
        }
    }
}

// Clients compare statuses by number: each name keeps its place in the domain.
TEST(ErrorCodes, DomainLayout) {
    const vogno in_order[] = {KEL_SHARED_ERR_BAD_AFI,     KEL_SHARED_ERR_NO_PARAM_ARRAY,
                              KEL_SHARED_ERR_NULL_RESULT, KEL_SHARED_ERR_PARAM_COUNT,
                              KEL_SHARED_ERR_NULL_PARAM,  KEL_SHARED_ERR_BAD_VALUE,
                              KEL_SHARED_ERR_NULL_INPUT,  KEL_SHARED_ERR_BAD_LENGTH,
                              KEL_SHARED_ERR_ABOVE_MAX,   KEL_SHARED_ERR_BELOW_MIN,
                              KEL_SHARED_ERR_NO_MEMORY,   KEL_SHARED_ERR_PARAMS_NOT_ALLOWED,
                              KEL_SHARED_ERR_VARIABLE,    KEL_SHARED_ERR_NO_LOCATIONS,
                              KEL_SHARED_ERR_HOST_BITS,   KEL_SHARED_ERR_UNUSED_16,
                              KEL_SHARED_ERR_TREE_INSERT};
    for (uint32_t n = 1; n <= 17; ++n)
        EXPECT_EQ(in_order[n - 1], 0x40000000u | (1801u << 15) | (n << 9)) << n;
}

}  // namespace
