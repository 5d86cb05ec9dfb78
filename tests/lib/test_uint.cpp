// The unsigned integer attributes, all three widths: conversion, the
// verifier's order of checks and messages, the constructors' status orders,
// compare boundaries, width-exact reads and writes, print, retriever, and
// constructors that fail after the framework made an instance.
#include <array>
#include <cstring>
#include <limits>

#include "support.hpp"

namespace {

using kt::Params;
using kt::take;

template <typename D, typename V,
          vogno (*Init)(void *, char *, int32_t, D *, const char *const *, const char *const *,
                        const char *const *, const char *const *)>
struct WidthOf {
    using Desc = D;
    using Value = V;
    static constexpr uint32_t kFull = std::numeric_limits<V>::max();
    static vogno init_v2(D *d) {
        static const char *locs[] = {"import", "export", nullptr};
        return Init(nullptr, nullptr, 0, d, locs, locs, locs, locs);
    }
};
using W8 = WidthOf<shared_kela_uint8_desc_td, uint8_t, shared_kela_uint8_base_init_v2>;
using W16 = WidthOf<shared_kela_uint16_desc_td, uint16_t, shared_kela_uint16_base_init_v2>;
using W32 = WidthOf<shared_kela_uint32_desc_td, uint32_t, shared_kela_uint32_base_init_v2>;

template <typename W>
class UintWidth : public kt::FrameworkTest {
  protected:
    using Desc = typename W::Desc;
    using Value = typename W::Value;

    void SetUp() override {
        kt::FrameworkTest::SetUp();
        desc_.name = "metric";
        desc_.index = 3;
        ASSERT_EQ(W::init_v2(&desc_), 0u);
        attr_ = kref_attr_find("metric");
        ASSERT_NE(attr_, nullptr);
        route_.fill(0x11);
    }

    kref_op_info_t op(kref_kind_t kind, const char *name) {
        kref_op_info_t info{};
        EXPECT_EQ(kref_attr_op(attr_, kind, name, &info), 0u);
        return info;
    }
    void put(Value v) { std::memcpy(route_.data() + 3 * sizeof(Value), &v, sizeof v); }
    Value get() const {
        Value v;
        std::memcpy(&v, route_.data() + 3 * sizeof(Value), sizeof v);
        return v;
    }

    // Compiles `op text` and evaluates it against the route holding v.
    int32_t outcome(const char *name, const char *text, Value v) {
        const char *texts[] = {text};
        kref_item_t item{1, texts};
        kref_stmt_t *stmt = nullptr;
        char *msg = nullptr;
        EXPECT_EQ(kref_compile("metric", KREF_CMP, name, "import", 1, &item, &msg, &stmt), 0u)
            << kt::take(msg);
        put(v);
        int32_t out = -1;
        EXPECT_EQ(kref_eval(stmt, route_.data(), nullptr, &out), 0u);
        kref_stmt_free(stmt);
        return out;
    }

    Desc desc_{};
    rasf_attr_t *attr_ = nullptr;
    alignas(8) std::array<unsigned char, 32> route_{};
};

using Widths = ::testing::Types<W8, W16, W32>;
TYPED_TEST_SUITE(UintWidth, Widths);

TYPED_TEST(UintWidth, VerifierChecksInOrderWithTheirMessages) {
    rasf_verify_fn verify = this->op(KREF_CMP, "exact-match").verify;
    struct Case {
        void *desc;
        std::vector<std::optional<std::string>> texts;
        bool null_vector;
        vogno status;
        const char *message;
    };
    const std::string full = std::to_string(TypeParam::kFull);
    const Case cases[] = {
        {nullptr, {"x", "y"}, true, KEL_SHARED_ERR_NULL_RESULT, "Invalid context pointer"},
        {&this->desc_,
         {"1", "2"},
         true,
         KEL_SHARED_ERR_PARAM_COUNT,
         "Requires exactly one parameter"},
        {&this->desc_, {"1"}, true, KEL_SHARED_ERR_NULL_INPUT, "NULL parameter vector"},
        {&this->desc_,
         {std::nullopt},
         false,
         KEL_SHARED_ERR_NULL_PARAM,
         "Cannot handle variables at this time"},
        {&this->desc_,
         {"7 "},
         false,
         KEL_SHARED_ERR_BAD_VALUE,
         "Invalid constructor string - Must be a number"},
        {&this->desc_,
         {"0x7"},
         false,
         KEL_SHARED_ERR_BAD_VALUE,
         "Invalid constructor string - Must be a number"},
        {&this->desc_, {"4294967296"}, false, 0, nullptr},  // wraps to 0
        {&this->desc_, {" 7"}, false, 0, nullptr},
        {&this->desc_, {"+7"}, false, 0, nullptr},
        {&this->desc_, {""}, false, 0, nullptr},
        {&this->desc_, {full}, false, 0, nullptr},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.message ? c.message : "accepted");
        std::vector<std::optional<std::string>> texts = c.texts;
        Params p{};
        std::unique_ptr<Params> owned;
        std::vector<char *> raw;
        for (auto &t : texts) raw.push_back(t ? strdup(t->c_str()) : nullptr);
        char *msg = nullptr;
        EXPECT_EQ(verify(static_cast<uint32_t>(raw.size()), c.null_vector ? nullptr : raw.data(),
                         c.desc, &msg),
                  c.status);
        EXPECT_EQ(take(msg), c.message ? c.message : "<null>");
        for (char *r : raw) std::free(r);
    }
}

TYPED_TEST(UintWidth, RangeRefusalsNameTheConvertedValueAndTheDescriptorRange) {
    rasf_verify_fn verify = this->op(KREF_CMP, "le").verify;
    const std::string range =
        " not within acceptable range: 0 - " + std::to_string(TypeParam::kFull);
    if (TypeParam::kFull < 0xFFFFFFFFu) {
        for (std::string text :
             {std::to_string(uint64_t{TypeParam::kFull} + 1), std::string("-1")}) {
            Params p{text};
            char *msg = nullptr;
            EXPECT_EQ(verify(1, p.vec(), &this->desc_, &msg), KEL_SHARED_ERR_ABOVE_MAX);
            const uint32_t v = text == "-1" ? 0xFFFFFFFFu : TypeParam::kFull + 1;
            EXPECT_EQ(take(msg), "Value (" + std::to_string(v) + ")" + range);
        }
    } else {
        Params p{"-1"};
        EXPECT_EQ(verify(1, p.vec(), &this->desc_, nullptr), 0u) << "-1 is the 32-bit maximum";
    }

    this->desc_.min = 10;
    this->desc_.max = 20;
    Params low{"5"};
    char *msg = nullptr;
    EXPECT_EQ(verify(1, low.vec(), &this->desc_, &msg), KEL_SHARED_ERR_BELOW_MIN);
    EXPECT_EQ(take(msg), "Value (5) not within acceptable range: 10 - 20");

    // An inverted range refuses everything: above max first, the rest below min.
    this->desc_.min = 20;
    this->desc_.max = 10;
    Params mid{"15"}, high{"25"};
    EXPECT_EQ(verify(1, mid.vec(), &this->desc_, nullptr), KEL_SHARED_ERR_ABOVE_MAX);
    EXPECT_EQ(verify(1, high.vec(), &this->desc_, nullptr), KEL_SHARED_ERR_ABOVE_MAX);
    Params five{"5"};
    EXPECT_EQ(verify(1, five.vec(), &this->desc_, nullptr), KEL_SHARED_ERR_BELOW_MIN);
}

TYPED_TEST(UintWidth, FixedMessagesKeepACallersTextTheRangeMessageReplacesIt) {
    rasf_verify_fn verify = this->op(KREF_SET, "assign").verify;
    char keep[] = "caller's text";
    char *msg = keep;
    Params two{"1", "2"};
    EXPECT_EQ(verify(2, two.vec(), &this->desc_, &msg), KEL_SHARED_ERR_PARAM_COUNT);
    EXPECT_EQ(msg, keep);
    this->desc_.max = 3;
    Params big{"4"};
    EXPECT_EQ(verify(1, big.vec(), &this->desc_, &msg), KEL_SHARED_ERR_ABOVE_MAX);
    ASSERT_NE(msg, keep);
    EXPECT_EQ(take(msg), "Value (4) not within acceptable range: 0 - 3");
}

TYPED_TEST(UintWidth, ComparisonsAtTheirBoundaries) {
    EXPECT_EQ(this->outcome("le", "10", 0), 1);
    EXPECT_EQ(this->outcome("le", "10", 10), 1);
    EXPECT_EQ(this->outcome("le", "10", 11), 0);
    EXPECT_EQ(this->outcome("ge", "10", 9), 0);
    EXPECT_EQ(this->outcome("ge", "10", 10), 1);
    EXPECT_EQ(this->outcome("ge", "10", TypeParam::kFull), 1);
    EXPECT_EQ(this->outcome("exact-match", "7", 7), 1);
    EXPECT_EQ(this->outcome("exact-match", "7", 8), 0);
    const std::string full = std::to_string(TypeParam::kFull);
    EXPECT_EQ(this->outcome("exact-match", full.c_str(), TypeParam::kFull), 1);
    EXPECT_EQ(this->outcome("le", "0", TypeParam::kFull), 0);
}

TYPED_TEST(UintWidth, ConstructorsTestTheirArgumentsInTheirOwnOrder) {
    rasf_construct_fn le = this->op(KREF_CMP, "le").construct;
    rasf_construct_fn assign = this->op(KREF_SET, "assign").construct;
    rasf_inst_t *inst = nullptr;
    Params p{"1", "2"};
    // Operators test the vectors first, the setter tests the count first.
    EXPECT_EQ(le(2, nullptr, p.slots(), &this->desc_, &inst), KEL_SHARED_ERR_NULL_INPUT);
    EXPECT_EQ(assign(2, nullptr, p.slots(), &this->desc_, &inst), KEL_SHARED_ERR_PARAM_COUNT);
    EXPECT_EQ(le(1, p.vec(), nullptr, &this->desc_, &inst), KEL_SHARED_ERR_NULL_INPUT);
    EXPECT_EQ(le(2, p.vec(), p.slots(), &this->desc_, &inst), KEL_SHARED_ERR_PARAM_COUNT);

    Params var{std::nullopt};
    EXPECT_EQ(le(1, var.vec(), var.slots(), &this->desc_, &inst), KEL_SHARED_ERR_NULL_PARAM);
    EXPECT_EQ(assign(1, var.vec(), var.slots(), &this->desc_, &inst), KEL_SHARED_ERR_NULL_PARAM);

    // A text with a slot but no slot storage: a variable.
    Params text{"5"};
    void *no_slot[] = {nullptr};
    EXPECT_EQ(le(1, text.vec(), no_slot, &this->desc_, &inst), KEL_SHARED_ERR_VARIABLE);
    EXPECT_EQ(assign(1, text.vec(), no_slot, &this->desc_, &inst), KEL_SHARED_ERR_VARIABLE);
    EXPECT_EQ(inst, nullptr);

    // The constructor converts leniently into the slot, without range check.
    Params lenient{"12abc"};
    ASSERT_EQ(le(1, lenient.vec(), lenient.slots(), &this->desc_, &inst), 0u);
    EXPECT_EQ(lenient.slot_u32(0), 12u);
    EXPECT_EQ(rasf_free_cmp_instance(inst), 0u);
}

TYPED_TEST(UintWidth, AssignWritesExactlyTheElementOfItsWidth) {
    const char *texts[] = {"65535"};
    kref_item_t item{1, texts};
    kref_stmt_t *stmt = nullptr;
    // Through the constructor (the verifier would refuse 65535 on 8 bits).
    rasf_construct_fn assign = this->op(KREF_SET, "assign").construct;
    Params p{"65535"};
    rasf_inst_t *inst = nullptr;
    ASSERT_EQ(assign(1, p.vec(), p.slots(), &this->desc_, &inst), 0u);
    kref_inst_info_t info{};
    ASSERT_EQ(kref_inst_get(inst, &info), 0u);
    ASSERT_NE(info.set, nullptr);
    EXPECT_EQ(info.set(this->route_.data(), 1, p.slots(), info.ctx), 0u);
    EXPECT_EQ(rasf_free_set_instance(inst), 0u);

    const size_t w = sizeof(typename TypeParam::Value);
    for (size_t i = 0; i < this->route_.size(); ++i) {
        const bool inside = i >= 3 * w && i < 4 * w;
        const unsigned char want = inside ? (i - 3 * w < 2 ? 0xFF : 0x00) : 0x11;
        EXPECT_EQ(this->route_[i], want) << "byte " << i;
    }
    EXPECT_EQ(this->get(), static_cast<typename TypeParam::Value>(65535u));

    // And through a compiled statement.
    if (TypeParam::kFull >= 65535) {
        ASSERT_EQ(kref_compile("metric", KREF_SET, "assign", "export", 1, &item, nullptr, &stmt),
                  0u);
        this->put(0);
        EXPECT_EQ(kref_apply(stmt, this->route_.data()), 0u);
        EXPECT_EQ(this->get(), 65535u);
        kref_stmt_free(stmt);
    }
}

TYPED_TEST(UintWidth, InstanceFunctionsRefuseMissingPieces) {
    const char *texts[] = {"5"};
    kref_item_t item{1, texts};
    kref_stmt_t *stmt = nullptr;
    ASSERT_EQ(kref_compile("metric", KREF_CMP, "ge", nullptr, 1, &item, nullptr, &stmt), 0u);
    kref_inst_info_t info{};
    ASSERT_EQ(kref_inst_get(kref_stmt_instance(stmt), &info), 0u);
    void **slots = kref_stmt_slots(stmt);
    int32_t out = 9;
    EXPECT_EQ(info.cmp(this->route_.data(), 1, slots, info.ctx, nullptr),
              KEL_SHARED_ERR_NULL_RESULT);
    EXPECT_EQ(info.cmp(this->route_.data(), 0, slots, info.ctx, &out), KEL_SHARED_ERR_NULL_INPUT);
    EXPECT_EQ(info.cmp(this->route_.data(), 1, nullptr, info.ctx, &out), KEL_SHARED_ERR_NULL_INPUT);
    EXPECT_EQ(info.cmp(nullptr, 1, slots, info.ctx, &out), KEL_SHARED_ERR_NULL_RESULT);
    EXPECT_EQ(info.cmp(this->route_.data(), 1, slots, nullptr, &out), KEL_SHARED_ERR_NULL_RESULT);
    EXPECT_EQ(out, 9) << "no outcome stored on failure";
    kref_stmt_free(stmt);

    ASSERT_EQ(kref_compile("metric", KREF_SET, "assign", nullptr, 1, &item, nullptr, &stmt), 0u);
    ASSERT_EQ(kref_inst_get(kref_stmt_instance(stmt), &info), 0u);
    slots = kref_stmt_slots(stmt);
    EXPECT_EQ(info.set(this->route_.data(), 0, slots, info.ctx), KEL_SHARED_ERR_NULL_INPUT);
    void *empty[] = {nullptr};
    EXPECT_EQ(info.set(this->route_.data(), 1, empty, info.ctx), KEL_SHARED_ERR_NULL_PARAM);
    EXPECT_EQ(info.set(nullptr, 1, slots, info.ctx), KEL_SHARED_ERR_NULL_RESULT);
    EXPECT_EQ(info.set(this->route_.data(), 1, slots, nullptr), KEL_SHARED_ERR_NULL_RESULT);
    kref_stmt_free(stmt);
}

TYPED_TEST(UintWidth, RetrieverTakesNoParameterAndReadsNothing) {
    kref_op_info_t r = this->op(KREF_RETR, nullptr);
    Params one{"1"};
    char *msg = nullptr;
    EXPECT_EQ(r.verify(1, one.vec(), &this->desc_, &msg), KEL_SHARED_ERR_PARAM_COUNT);
    EXPECT_EQ(msg, nullptr);
    EXPECT_EQ(r.verify(0, nullptr, &this->desc_, &msg), 0u);

    kref_stmt_t *stmt = nullptr;
    ASSERT_EQ(kref_compile("metric", KREF_RETR, nullptr, "import", 0, nullptr, nullptr, &stmt), 0u);
    uint32_t out = 1234;
    EXPECT_EQ(kref_retrieve(stmt, this->route_.data(), &out), 0u);
    EXPECT_EQ(out, 1234u);
    kref_stmt_free(stmt);
}

TYPED_TEST(UintWidth, PrintAndBaseCompareReadTheRouteThroughTheDescriptor) {
    this->put(static_cast<typename TypeParam::Value>(TypeParam::kFull));
    EXPECT_EQ(take(kref_attr_print(this->attr_, this->route_.data())),
              std::to_string(TypeParam::kFull));
    EXPECT_EQ(take(kref_attr_print(this->attr_, nullptr)), "<<No route?>>");
    rasf_base_print_fn print = kref_attr_base_print(this->attr_, nullptr);
    EXPECT_EQ(take(print(nullptr, this->route_.data(), nullptr)),
              "<<Internal error (no context)>>");

    alignas(8) std::array<unsigned char, 32> other = this->route_;
    int32_t out = -1;
    other[0] ^= 0xFF;  // outside the element
    EXPECT_EQ(kref_attr_compare(this->attr_, this->route_.data(), other.data(), &out), 0u);
    EXPECT_EQ(out, 1);
    other[3 * sizeof(typename TypeParam::Value)] ^= 0x01;
    EXPECT_EQ(kref_attr_compare(this->attr_, this->route_.data(), other.data(), &out), 0u);
    EXPECT_EQ(out, 0);
    EXPECT_EQ(kref_attr_compare(this->attr_, nullptr, other.data(), &out),
              KEL_SHARED_ERR_NULL_INPUT);
    EXPECT_EQ(kref_attr_compare(this->attr_, this->route_.data(), other.data(), nullptr),
              KEL_SHARED_ERR_NULL_INPUT);
}

TYPED_TEST(UintWidth, ConstructorReleasesAnInstanceTheFrameworkMadeBeforeFailing) {
    struct Step {
        const char *op;
        bool after;
        kref_kind_t kind;
        const char *name;
    };
    const Step steps[] = {
        {"rasf_new_cmp_instance", true, KREF_CMP, "exact-match"},
        {"rasf_new_cmp_instance", false, KREF_CMP, "le"},
        {"rasf_kela_add_cmp_instance_function_cmp", false, KREF_CMP, "ge"},
        {"rasf_new_set_instance", true, KREF_SET, "assign"},
        {"rasf_kela_add_set_instance_function_set", false, KREF_SET, "assign"},
        {"rasf_new_retriever_instance", true, KREF_RETR, nullptr},
        {"rasf_kela_add_retriever_instance_function_retrieve", false, KREF_RETR, nullptr},
    };
    for (const Step &s : steps) {
        SCOPED_TRACE(s.op);
        Params p = s.kind == KREF_RETR ? Params{} : Params{"3"};
        rasf_construct_fn cons = this->op(s.kind, s.name).construct;
        rasf_inst_t *inst = reinterpret_cast<rasf_inst_t *>(&p);  // must be overwritten
        if (s.after)
            kref_fault_set_after(s.op, 1, 0x1234u);
        else
            kref_fault_set(s.op, 1, 0x1234u);
        EXPECT_EQ(cons(p.count(), p.vec(), p.slots(), &this->desc_, &inst), 0x1234u);
        EXPECT_EQ(inst, nullptr);
        EXPECT_EQ(kref_live_instances(), 0u);
        EXPECT_EQ(kref_fault_pending(), 0u);
    }
}

TEST(UintConvert, StrtoulSemanticsReducedTo32Bits) {
    struct Case {
        const char *text;
        int strict;
        vogno status;
        uint32_t value;
    };
    const Case cases[] = {
        {"42", 1, 0, 42},
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
        {nullptr, 0, KEL_SHARED_ERR_NULL_PARAM, 99},
    };
    using Cvt = vogno (*)(const char *, void *, int, uint32_t *);
    for (Cvt cvt : {shared_kela_uint8_cvt_string, shared_kela_uint16_cvt_string,
                    shared_kela_uint32_cvt_string}) {
        for (const Case &c : cases) {
            SCOPED_TRACE(c.text ? c.text : "(null)");
            uint32_t v = 99;
            EXPECT_EQ(cvt(c.text, nullptr, c.strict, &v), c.status);
            EXPECT_EQ(v, c.value);
        }
        EXPECT_EQ(cvt("5", nullptr, 1, nullptr), 0u) << "the output is optional";
    }
}

TEST(UintValues, GetValueAndRangeMessage) {
    alignas(4) unsigned char route[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    shared_kela_uint16_desc_td d{"x", 1, 0, 0};
    uint32_t v = 0;
    EXPECT_EQ(shared_kela_uint16_cmp_get_val(route, &d, &v), 0u);
    uint16_t expect;
    std::memcpy(&expect, route + 2, 2);
    EXPECT_EQ(v, expect);
    EXPECT_EQ(shared_kela_uint16_cmp_get_val(nullptr, &d, &v), KEL_SHARED_ERR_NULL_RESULT);
    EXPECT_EQ(shared_kela_uint16_cmp_get_val(route, nullptr, &v), KEL_SHARED_ERR_NULL_RESULT);
    EXPECT_EQ(shared_kela_uint16_cmp_get_val(route, &d, nullptr), KEL_SHARED_ERR_NULL_RESULT);

    EXPECT_EQ(take(kela_uint8_range_error_string(300, 0, 255)),
              "Value (300) not within acceptable range: 0 - 255");
    EXPECT_EQ(take(kela_uint32_range_error_string(4294967295u, 4294967295u, 4294967295u)),
              "Value (4294967295) not within acceptable range: 4294967295 - 4294967295");
}

TEST(ErrorCodes, DomainLayout) {
    EXPECT_EQ(KEL_SHARED_ERR_BAD_AFI, 0x43848200u);
    EXPECT_EQ(KEL_SHARED_ERR_PARAM_COUNT, 0x43848800u);
    EXPECT_EQ(KEL_SHARED_ERR_HOST_BITS, 0x43849E00u);
    EXPECT_EQ(KEL_SHARED_ERR_UNUSED_16, 0x4384A000u);
    EXPECT_EQ(KEL_SHARED_ERR_TREE_INSERT, 0x4384A200u);
    for (uint32_t n = 1; n <= 17; ++n)
        EXPECT_EQ(KEL_SHARED_ERR(n), 0x40000000u | (1801u << 15) | (n << 9));
}

}  // namespace
