// SPDX-License-Identifier: Apache-2.0
// The types whose texts the client defines: enumeration (a name table),
// bit-masked values (client converter, mask word) and 64-bit flags (client
// parse callback, mask in the descriptor).
#include <cstring>

#include "support.hpp"

namespace {

using kt::Params;
using kt::take;
using kt::Verdict;

const shared_kela_enum_name_td kColours[] = {{1, "red"}, {2, "green"}, {2, "verde"}, {0, nullptr}};

// The client's bit-masked text form: "v<number>", strict or lenient; "bad" never.
vogno parse_value(const char *text, void *ctx, int strict, uint32_t *out) {
    ++*static_cast<int *>(ctx);
    if (text[0] != 'v') return 0x2222u;
    char *end = nullptr;
    unsigned long v = std::strtoul(text + 1, &end, 10);
    if (strict && *end != '\0') return 0x3333u;
    if (out) *out = static_cast<uint32_t>(v);
    return 0;
}
char *print_value(void *, void *route, void *) {
    return strdup(("v" + std::to_string(static_cast<uint32_t *>(route)[0])).c_str());
}

vogno parse_flags(const char *text, void *, uint64_t *mask) {
    uint64_t m = std::strcmp(text, "blackhole") == 0   ? 0x1
                 : std::strcmp(text, "no-export") == 0 ? 0x100
                                                       : 0;
    if (m == 0) return 0x4444u;
    if (mask) *mask = m;
    return 0;
}

// All three types registered: "colour", "community" and "flags".
class Named : public kt::FrameworkTest {
  protected:
    void SetUp() override {
        kt::FrameworkTest::SetUp();
        const char *const *l = kt::kLocations;
        ASSERT_EQ(shared_kela_enum_base_init_v2(nullptr, nullptr, 0, &enum_, l, l, l, nullptr), 0u);
        ASSERT_EQ(shared_kela_bitmasked_base_init_v2(nullptr, nullptr, 0, &bits_, l, l, l, nullptr),
                  0u);
        ASSERT_EQ(
            shared_kela_flag64_base_init_v2(nullptr, nullptr, 0, &flags_, l, l, nullptr, nullptr),
            0u);
    }

    shared_kela_enum_desc_td enum_{"colour", 1, kColours};
    int calls_ = 0;
    shared_kela_bitmasked_desc_td bits_{"community", &calls_, print_value, parse_value,
                                        0,           2,       0x4,         nullptr};
    shared_kela_flag64_desc_td flags_{"flags", nullptr, nullptr, parse_flags, 8, 0};
    alignas(8) uint32_t route_[6] = {};
};

// ---- enumeration --------------------------------------------------------------------

TEST_F(Named, EnumNamesAreCaseInsensitiveAndTheFirstEntryWins) {
    for (auto [text, status, value] : {std::tuple{"red", 0u, 1u},
                                       {"RED", 0u, 1u},
                                       {"Green", 0u, 2u},
                                       {"verde", 0u, 2u},
                                       {"blue", KEL_SHARED_ERR_BAD_VALUE, 77u}}) {
        uint32_t v = 77;
        EXPECT_EQ(shared_kela_enum_cvt_string(text, &enum_, nullptr, &v), status) << text;
        EXPECT_EQ(v, value) << text;
    }

    // Print names the first entry of a value.
    rasf_attr_t *attr = kref_attr_find("colour");
    auto print = [&](uint32_t v) {
        route_[1] = v;
        return take(kref_attr_print(attr, route_));
    };
    EXPECT_EQ(print(2), "green");
    EXPECT_EQ(print(7), "<< unknown enum 7 >>");
    EXPECT_EQ(print(0xFFFFFFFFu), "<< unknown enum -1 >>");
    EXPECT_EQ(print(0x80000000u), "<< unknown enum -2147483648 >") << "29 characters fit";
    route_[1] = 1;
    shared_kela_enum_desc_td none{"x", 1, nullptr};
    EXPECT_EQ(take(shared_kela_enum_base_print(nullptr, route_, &none)), "<< unknown enum 1 >>");
    EXPECT_EQ(take(shared_kela_enum_base_print(nullptr, nullptr, &enum_)), "<<No route?>>");
}

TEST_F(Named, EnumCountIsTheConstructorsBusinessForTheOperatorAndTheVerifiersForAssign) {
    // (The operator's constructor refuses two: tests/alloc's table.)
    EXPECT_EQ(kt::verify(shared_kela_enum_cmp_match_veri, &enum_, {"red", "green"}),
              (Verdict{0, "<null>"}));
    EXPECT_EQ(kt::verify(shared_kela_enum_set_assign_veri, &enum_, {"red", "green"}),
              (Verdict{KEL_SHARED_ERR_PARAM_COUNT, "Requires exactly one parameter"}));
    // (The retriever's verifier is the bit-masked type's: tested there.)
}

TEST_F(Named, EnumAssignAndRetrieveTheirWord) {
    kref_stmt_t *set = kt::compile("colour", KREF_SET, "assign", {{"GREEN"}});
    kref_stmt_t *get = kt::compile("colour", KREF_RETR, nullptr, {{"GREEN"}});
    EXPECT_EQ(kref_apply(set, route_), 0u);
    EXPECT_EQ(route_[1], 2u);
    EXPECT_EQ(route_[0] | route_[2], 0u) << "only the attribute's word";
    route_[1] = 7;
    uint32_t got = 0;
    EXPECT_EQ(kref_retrieve(get, route_, &got), 0u);
    EXPECT_EQ(got, 7u);
    kref_stmt_free(set);
    kref_stmt_free(get);
}

// ---- bit-masked -------------------------------------------------------------------------

TEST_F(Named, BitmaskedAssignWritesTheValueAndOrsTheMask) {
    kref_stmt_t *set = kt::compile("community", KREF_SET, "assign", {{"v7"}});
    route_[2] = 0x1;
    EXPECT_EQ(kref_apply(set, route_), 0u);
    EXPECT_EQ(route_[0], 7u);
    EXPECT_EQ(route_[2], 0x5u) << "the mask word's other bits stay";
    kref_stmt_free(set);

    // The client's statuses come back as they are; verifiers convert
    // strictly, constructors leniently (a refused text: tests/tool's corpus).
    Params trailing{"v7x"};
    EXPECT_EQ(shared_kela_bitmasked_set_assign_veri(1, trailing.vec(), &bits_, nullptr), 0x3333u);
    EXPECT_EQ(shared_kela_bitmasked_cmp_match_veri(1, trailing.vec(), &bits_, nullptr), 0x3333u);
    rasf_inst_t *inst = nullptr;
    auto cons = shared_kela_bitmasked_cmp_match_cons;
    ASSERT_EQ(cons(1, trailing.vec(), trailing.slots(), &bits_, &inst), 0u);
    EXPECT_EQ(trailing.slot_u32(0), 7u);
    rasf_free_cmp_instance(inst);
    ASSERT_EQ(
        shared_kela_bitmasked_set_assign_cons(1, trailing.vec(), trailing.slots(), &bits_, &inst),
        0u);
    rasf_free_set_instance(inst);
}

// The walk over the list is the integers' "matches-any" (tested there, and
// evaluated in the example policy's goldens); the refusals are its own.
TEST_F(Named, BitmaskedMatchesAnyRefusals) {
    kref_op_info_t info{};
    ASSERT_EQ(kref_attr_op(kref_attr_find("community"), KREF_CMP, "matches-any", &info), 0u);
    // A refused constant is reported by its status alone.
    Params refused{"arg0:1", "v1", "arg1:1", "bad"};
    EXPECT_EQ(kt::verify(info.verify, &bits_, &refused), (Verdict{0x2222u, "<null>"}));
    Params trailing{"arg0:1", "v7x"};  // converted strictly by both
    EXPECT_EQ(kt::verify(info.verify, &bits_, &trailing).status, 0x3333u);
    rasf_inst_t *inst = nullptr;
    EXPECT_EQ(info.construct(2, trailing.vec(), trailing.slots(), &bits_, &inst), 0x3333u);
    for (auto [p, n] : {std::pair{&refused, 0}, {nullptr, 2}})  // no count, or no vector
        EXPECT_EQ(kt::verify(info.verify, &bits_, p, n),
                  (Verdict{KEL_SHARED_ERR_PARAM_COUNT, "Internal error: no parameters"}));
    EXPECT_EQ(info.construct(refused.count(), nullptr, refused.slots(), &bits_, &inst),
              KEL_SHARED_ERR_NULL_PARAM);
}

TEST_F(Named, BitmaskedBaseFunctionsAndRetriever) {
    rasf_attr_t *attr = kref_attr_find("community");
    route_[0] = 12;
    EXPECT_EQ(take(kref_attr_print(attr, route_)), "v12");
    alignas(4) uint32_t other[4] = {12, 99, 99, 99};
    int32_t out = -1;
    EXPECT_EQ(kref_attr_compare(attr, route_, other, &out), 0u);
    EXPECT_EQ(out, 1) << "only word index counts";
    // MAC addresses clear the outcome when a route is missing.
    out = -1;
    EXPECT_EQ(shared_kela_mac_address_base_cmp(nullptr, other, &bits_, &out),
              KEL_SHARED_ERR_NULL_INPUT);
    EXPECT_EQ(out, 0);
    // The retriever's verifier (the enumeration's too) wants a first text.
    Params x{"x"}, var{std::nullopt};
    for (auto [p, want] : {std::pair{&x, vogno{0}}, {&var, KEL_SHARED_ERR_VARIABLE}})
        EXPECT_EQ(kt::verify(shared_kela_bitmasked_retr_veri, &bits_, p, 1).status, want);
}

// ---- 64-bit flags -------------------------------------------------------------------------

TEST_F(Named, FlagsAssignOrsTheParsedMaskAtTheOffset) {
    kref_stmt_t *set =
        kt::compile("flags", KREF_SET, "assign", {{"blackhole"}}, 0, nullptr, "export");
    alignas(8) uint64_t route[3] = {0, 0x10, 0};
    EXPECT_EQ(kref_apply(set, route), 0u);
    EXPECT_EQ(route[1], 0x11u);
    kref_stmt_free(set);

    // The client's refusal comes back as it is; the constructor tests the
    // count before the vectors (its other refusals: tests/alloc).
    EXPECT_EQ(kt::verify(shared_kela_flag64_set_assign_veri, &flags_, {"bogus"}).status, 0x4444u);
    rasf_inst_t *inst = nullptr;
    EXPECT_EQ(shared_kela_flag64_set_assign_cons(2, nullptr, nullptr, &flags_, &inst),
              KEL_SHARED_ERR_PARAM_COUNT);
}

}  // namespace
