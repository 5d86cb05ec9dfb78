// The types whose texts the client defines: enumeration (a name table),
// bit-masked values (client converter, mask word) and 64-bit flags (client
// parse callback, mask in the descriptor).
#include <cstring>

#include "support.hpp"

namespace {

using kt::Params;
using kt::take;

const char *kLocs[] = {"import", "export", nullptr};

std::vector<std::string> declared() {
    std::vector<std::string> out;
    for (auto &l : kt::trace())
        if (l.rfind("rasf_kela_add_cmp(", 0) == 0 || l.rfind("rasf_kela_add_set(", 0) == 0 ||
            l.rfind("rasf_kela_add_retriever(", 0) == 0 || l.rfind("rasf_kela_add_base", 0) == 0 ||
            l.rfind("rasf_args_", 0) == 0)
            out.push_back(l);
    return out;
}

// ---- enumeration --------------------------------------------------------------------

const shared_kela_enum_name_td kColours[] = {{1, "red"}, {2, "green"}, {2, "verde"}, {0, nullptr}};

class Enum : public kt::FrameworkTest {
  protected:
    void SetUp() override {
        kt::FrameworkTest::SetUp();
        kref_trace_start();
        ASSERT_EQ(shared_kela_enum_base_init_v2(nullptr, nullptr, 0, &desc_, kLocs, kLocs, kLocs,
                                                nullptr),
                  0u);
    }
    shared_kela_enum_desc_td desc_{"colour", 1, kColours};
    alignas(4) uint32_t route_[4] = {};
};

TEST_F(Enum, RegistersExactMatchAssignAndRetriever) {
    EXPECT_EQ(
        declared(),
        (std::vector<std::string>{
            "rasf_kela_add_base_function_print(colour)", "rasf_kela_add_base_function_cmp(colour)",
            "rasf_kela_add_cmp(exact-match, colour)", "rasf_args_new()",
            "rasf_args_single_add(uint32_t, 1.0)", "rasf_kela_add_set(assign, colour)",
            "rasf_args_new()", "rasf_args_single_add(uint32_t, 1.0)",
            "rasf_kela_add_retriever((null), colour, uint32_t, 1.0)", "rasf_args_new()"}));
    kref_reset();
    char buf[80];
    kref_fault_set("rasf_args_single_add", 2, 6);
    EXPECT_EQ(shared_kela_enum_base_init_v2(nullptr, buf, sizeof buf, &desc_, kLocs, kLocs, kLocs,
                                            nullptr),
              6u);
    EXPECT_STREQ(buf, "rasf_args_single_add: uint32_t:1.0 at kela_enum@621");
    kref_reset();
    kref_fault_set("rasf_args_new", 3, 6);
    EXPECT_EQ(shared_kela_enum_base_init_v2(nullptr, buf, sizeof buf, &desc_, kLocs, kLocs, kLocs,
                                            nullptr),
              6u);
    EXPECT_STREQ(buf, "rasf_args_new at kela_enum@634");
}

TEST_F(Enum, NamesAreCaseInsensitiveAndTheFirstEntryWins) {
    struct Case {
        const char *text;
        vogno status;
        uint32_t value;
    };
    for (const Case &c : {Case{"red", 0, 1}, Case{"RED", 0, 1}, Case{"Green", 0, 2},
                          Case{"verde", 0, 2}, Case{"blue", KEL_SHARED_ERR_BAD_VALUE, 77}}) {
        uint32_t v = 77;
        EXPECT_EQ(shared_kela_enum_cvt_string(c.text, &desc_, nullptr, &v), c.status) << c.text;
        EXPECT_EQ(v, c.value) << c.text;
    }
    EXPECT_EQ(shared_kela_enum_cvt_string(nullptr, &desc_, nullptr, nullptr),
              KEL_SHARED_ERR_NULL_PARAM);
    shared_kela_enum_desc_td none{"x", 0, nullptr};
    EXPECT_EQ(shared_kela_enum_cvt_string("red", &none, nullptr, nullptr),
              KEL_SHARED_ERR_BAD_VALUE);

    Params blue{"blue"};
    char *msg = nullptr;
    EXPECT_EQ(shared_kela_enum_cmp_match_veri(1, blue.vec(), &desc_, &msg),
              KEL_SHARED_ERR_BAD_VALUE);
    EXPECT_EQ(take(msg), "- Type not supported at this attachpoint");
}

TEST_F(Enum, PrintNamesTheFirstEntryOfAValue) {
    rasf_attr_t *attr = kref_attr_find("colour");
    route_[1] = 2;
    EXPECT_EQ(take(kref_attr_print(attr, route_)), "green");
    route_[1] = 7;
    EXPECT_EQ(take(kref_attr_print(attr, route_)), "<< unknown enum 7 >>");
    route_[1] = 0xFFFFFFFFu;
    EXPECT_EQ(take(kref_attr_print(attr, route_)), "<< unknown enum -1 >>");
    route_[1] = 0x80000000u;  // the buffer holds 29 characters
    EXPECT_EQ(take(kref_attr_print(attr, route_)), "<< unknown enum -2147483648 >");
    shared_kela_enum_desc_td none{"x", 1, nullptr};
    route_[1] = 1;
    EXPECT_EQ(take(shared_kela_enum_base_print(nullptr, route_, &none)), "<< unknown enum 1 >>");
    EXPECT_EQ(take(shared_kela_enum_base_print(nullptr, nullptr, &desc_)), "<<No route?>>");
}

TEST_F(Enum, CountIsTheConstructorsBusinessForTheOperatorAndTheVerifiersForAssign) {
    Params two{"red", "green"};
    char *msg = nullptr;
    EXPECT_EQ(shared_kela_enum_cmp_match_veri(2, two.vec(), &desc_, &msg), 0u);
    EXPECT_EQ(msg, nullptr);
    rasf_inst_t *inst = nullptr;
    EXPECT_EQ(shared_kela_enum_cmp_match_cons(2, two.vec(), two.slots(), &desc_, &inst),
              KEL_SHARED_ERR_PARAM_COUNT);
    EXPECT_EQ(shared_kela_enum_set_assign_veri(2, two.vec(), &desc_, &msg),
              KEL_SHARED_ERR_PARAM_COUNT);
    EXPECT_EQ(take(msg), "Requires exactly one parameter");

    Params one{"RED"};
    EXPECT_EQ(shared_kela_enum_retr_veri(1, one.vec(), &desc_, nullptr), 0u);
    Params var{std::nullopt};
    EXPECT_EQ(shared_kela_enum_retr_veri(1, var.vec(), &desc_, nullptr), KEL_SHARED_ERR_VARIABLE);
    EXPECT_EQ(shared_kela_enum_retr_veri(0, nullptr, &desc_, nullptr), KEL_SHARED_ERR_VARIABLE);
}

TEST_F(Enum, CompileEvaluateAssignRetrieve) {
    const char *green[] = {"GREEN"};
    kref_item_t item{1, green};
    kref_stmt_t *eq = nullptr, *set = nullptr, *get = nullptr;
    ASSERT_EQ(kref_compile("colour", KREF_CMP, "exact-match", nullptr, 1, &item, nullptr, &eq), 0u);
    ASSERT_EQ(kref_compile("colour", KREF_SET, "assign", nullptr, 1, &item, nullptr, &set), 0u);
    ASSERT_EQ(kref_compile("colour", KREF_RETR, nullptr, nullptr, 1, &item, nullptr, &get), 0u);
    int32_t out = -1;
    route_[1] = 1;
    EXPECT_EQ(kref_eval(eq, route_, nullptr, &out), 0u);
    EXPECT_EQ(out, 0);
    EXPECT_EQ(kref_apply(set, route_), 0u);
    EXPECT_EQ(route_[1], 2u);
    EXPECT_EQ(route_[0], 0u);
    EXPECT_EQ(kref_eval(eq, route_, nullptr, &out), 0u);
    EXPECT_EQ(out, 1);
    uint32_t got = 0;
    EXPECT_EQ(kref_retrieve(get, route_, &got), 0u);
    EXPECT_EQ(got, 2u);
    kref_stmt_free(eq);
    kref_stmt_free(set);
    kref_stmt_free(get);
}

// ---- bit-masked -------------------------------------------------------------------------

// The client's text form: "v<number>", strict or lenient; "bad" never.
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

class Bitmasked : public kt::FrameworkTest {
  protected:
    void SetUp() override {
        kt::FrameworkTest::SetUp();
        kref_trace_start();
        ASSERT_EQ(shared_kela_bitmasked_base_init_v2(nullptr, nullptr, 0, &desc_, kLocs, kLocs,
                                                     kLocs, nullptr),
                  0u);
    }
    int calls_ = 0;
    shared_kela_bitmasked_desc_td desc_{"community", &calls_, print_value, parse_value,
                                        0,           2,       0x4,         nullptr};
    alignas(4) uint32_t route_[4] = {};
};

TEST_F(Bitmasked, RegistersWithItsNumbers) {
    auto d = declared();
    ASSERT_EQ(d.size(), 13u);
    EXPECT_EQ(d[5], "rasf_kela_add_cmp(matches-any, community)");
    EXPECT_EQ(d[7], "rasf_args_infinite_add(uint32_t, 1.0, 0)");
    for (auto [op, nth, text] :
         {std::tuple{"rasf_args_new", 1u, "rasf_args_new at kela_bitmasked@793"},
          std::tuple{"rasf_args_infinite_add", 1u,
                     "rasf_args_infinite_add: uint32_t:1.0 (0 ) at kela_bitmasked@809"},
          std::tuple{"rasf_args_single_add", 2u,
                     "rasf_args_single_add: uint32_t:1.0 at kela_bitmasked@823"},
          std::tuple{"rasf_args_new", 4u, "rasf_args_new at kela_bitmasked@837"}}) {
        kref_reset();
        kref_fault_set(op, nth, 6);
        char buf[90];
        EXPECT_EQ(shared_kela_bitmasked_base_init_v2(nullptr, buf, sizeof buf, &desc_, kLocs, kLocs,
                                                     kLocs, nullptr),
                  6u);
        EXPECT_STREQ(buf, text);
    }
}

TEST_F(Bitmasked, AssignWritesTheValueAndOrsTheMask) {
    const char *seven[] = {"v7"};
    kref_item_t item{1, seven};
    kref_stmt_t *set = nullptr;
    ASSERT_EQ(kref_compile("community", KREF_SET, "assign", nullptr, 1, &item, nullptr, &set), 0u);
    route_[2] = 0x1;
    route_[3] = 0xABCD;
    EXPECT_EQ(kref_apply(set, route_), 0u);
    EXPECT_EQ(route_[0], 7u);
    EXPECT_EQ(route_[2], 0x5u) << "the mask word's other bits stay";
    EXPECT_EQ(route_[3], 0xABCDu);
    kref_stmt_free(set);

    char *msg = nullptr;
    Params two{"v1", "v2"}, bad{"bad"};
    EXPECT_EQ(shared_kela_bitmasked_set_assign_veri(2, two.vec(), &desc_, &msg),
              KEL_SHARED_ERR_PARAM_COUNT);
    EXPECT_EQ(take(msg), "Requires exactly one parameter");
    EXPECT_EQ(shared_kela_bitmasked_set_assign_veri(1, bad.vec(), &desc_, &msg), 0x2222u);
    EXPECT_EQ(take(msg), "- Type not supported at this attachpoint");
    EXPECT_EQ(shared_kela_bitmasked_cmp_match_veri(1, bad.vec(), &desc_, &msg), 0x2222u);
    EXPECT_EQ(take(msg), "- Type not supported at this attachpoint");
    Params trailing{"v7x"};
    rasf_inst_t *inst = nullptr;
    EXPECT_EQ(shared_kela_bitmasked_cmp_match_veri(1, trailing.vec(), &desc_, nullptr), 0x3333u)
        << "strict";
    ASSERT_EQ(
        shared_kela_bitmasked_cmp_match_cons(1, trailing.vec(), trailing.slots(), &desc_, &inst),
        0u)
        << "lenient";
    EXPECT_EQ(trailing.slot_u32(0), 7u);
    rasf_free_cmp_instance(inst);
}

TEST_F(Bitmasked, MatchesAnyOverClientTexts) {
    const char *list[] = {"v9", "v3", "v5"};
    kref_item_t items[] = {{1, list}, {1, list + 1}, {1, list + 2}};
    kref_stmt_t *any = nullptr;
    ASSERT_EQ(kref_compile("community", KREF_CMP, "matches-any", nullptr, 3, items, nullptr, &any),
              0u);
    int32_t out = -1;
    route_[0] = 3;
    EXPECT_EQ(kref_eval(any, route_, nullptr, &out), 0u);
    EXPECT_EQ(out, 1);
    route_[0] = 4;
    EXPECT_EQ(kref_eval(any, route_, nullptr, &out), 0u);
    EXPECT_EQ(out, 0);
    kref_stmt_free(any);

    kref_op_info_t info{};
    ASSERT_EQ(kref_attr_op(kref_attr_find("community"), KREF_CMP, "matches-any", &info), 0u);
    char *msg = nullptr;
    Params mismatch{"arg0:1", "v1", "arg1:2", "v2", "v3"};
    EXPECT_EQ(info.verify(mismatch.count(), mismatch.vec(), &desc_, &msg), 4u);
    EXPECT_EQ(take(msg), "Parameter mismatch.");
    rasf_inst_t *inst = nullptr;
    EXPECT_EQ(info.construct(mismatch.count(), mismatch.vec(), mismatch.slots(), &desc_, &inst),
              4u);
    Params refused{"arg0:1", "v1", "arg1:1", "bad"};
    EXPECT_EQ(info.verify(refused.count(), refused.vec(), &desc_, &msg), 0x2222u);
    EXPECT_EQ(msg, nullptr) << "a refused constant is reported by status alone";
    EXPECT_EQ(info.verify(0, nullptr, &desc_, &msg), KEL_SHARED_ERR_PARAM_COUNT);
    EXPECT_EQ(take(msg), "Internal error: no parameters");
    EXPECT_EQ(info.construct(refused.count(), nullptr, refused.slots(), &desc_, &inst),
              KEL_SHARED_ERR_NULL_PARAM);
    EXPECT_EQ(info.construct(0, refused.vec(), refused.slots(), &desc_, &inst),
              KEL_SHARED_ERR_PARAM_COUNT);
}

TEST_F(Bitmasked, BaseFunctionsAndRetriever) {
    rasf_attr_t *attr = kref_attr_find("community");
    route_[0] = 12;
    EXPECT_EQ(take(kref_attr_print(attr, route_)), "v12");
    alignas(4) uint32_t other[4] = {12, 99, 99, 99};
    int32_t out = -1;
    EXPECT_EQ(kref_attr_compare(attr, route_, other, &out), 0u);
    EXPECT_EQ(out, 1) << "only word index counts";
    Params any{"x"};
    EXPECT_EQ(shared_kela_bitmasked_retr_veri(1, any.vec(), &desc_, nullptr), 0u);
    EXPECT_EQ(shared_kela_bitmasked_retr_veri(1, nullptr, &desc_, nullptr),
              KEL_SHARED_ERR_VARIABLE);
}

// ---- 64-bit flags -------------------------------------------------------------------------

vogno parse_flags(const char *text, void *, uint64_t *mask) {
    uint64_t m = std::strcmp(text, "blackhole") == 0   ? 0x1
                 : std::strcmp(text, "no-export") == 0 ? 0x100
                                                       : 0;
    if (m == 0) return 0x4444u;
    if (mask) *mask = m;
    return 0;
}
char *print_flags(void *, uint64_t *flags, shared_kela_flag64_desc_td *) {
    return strdup(flags ? std::to_string(*flags).c_str() : "none");
}

class Flag64 : public kt::FrameworkTest {
  protected:
    void SetUp() override {
        kt::FrameworkTest::SetUp();
        kref_trace_start();
        ASSERT_EQ(shared_kela_flag64_base_init_v2(nullptr, nullptr, 0, &desc_, kLocs, kLocs,
                                                  nullptr, nullptr),
                  0u);
    }
    shared_kela_flag64_desc_td desc_{"flags", nullptr, print_flags, parse_flags, 8, 0};
    alignas(8) uint64_t route_[3] = {};
};

TEST_F(Flag64, OnlyAssignAndNoBaseCompare) {
    EXPECT_EQ(declared(),
              (std::vector<std::string>{"rasf_kela_add_base_function_print(flags)",
                                        "rasf_kela_add_set(assign, flags)", "rasf_args_new()",
                                        "rasf_args_single_add(uint32_t, 1.0)"}));
    kref_reset();
    char buf[80];
    kref_fault_set("rasf_args_new", 1, 6);
    EXPECT_EQ(shared_kela_flag64_base_init_v2(nullptr, buf, sizeof buf, &desc_, kLocs, kLocs,
                                              nullptr, nullptr),
              6u);
    EXPECT_STREQ(buf, "rasf_args_new at kela_flag64@265");
    kref_reset();
    kref_fault_set("rasf_args_single_add", 1, 6);
    EXPECT_EQ(shared_kela_flag64_base_init_v2(nullptr, buf, sizeof buf, &desc_, kLocs, kLocs,
                                              nullptr, nullptr),
              6u);
    EXPECT_STREQ(buf, "rasf_args_single_add: uint32_t:1.0 at kela_flag64@266");
}

TEST_F(Flag64, AssignOrsTheParsedMaskAtTheOffset) {
    const char *bh[] = {"blackhole"};
    kref_item_t item{1, bh};
    kref_stmt_t *set = nullptr;
    ASSERT_EQ(kref_compile("flags", KREF_SET, "assign", "export", 1, &item, nullptr, &set), 0u);
    EXPECT_EQ(desc_.mask, 0x1u) << "the constructor writes the mask into the descriptor";
    EXPECT_EQ(kref_stmt_slots(set)[0] != nullptr, true);
    route_[1] = 0x10;
    EXPECT_EQ(kref_apply(set, route_), 0u);
    EXPECT_EQ(route_[1], 0x11u);
    EXPECT_EQ(route_[0], 0u);
    EXPECT_EQ(take(kref_attr_print(kref_attr_find("flags"), route_)), "17");
    kref_stmt_free(set);

    Params two{"a", "b"}, unknown{"bogus"};
    char *msg = nullptr;
    EXPECT_EQ(shared_kela_flag64_set_assign_veri(2, two.vec(), &desc_, &msg),
              KEL_SHARED_ERR_PARAM_COUNT);
    EXPECT_EQ(take(msg), "Requires exactly one parameter");
    EXPECT_EQ(shared_kela_flag64_set_assign_veri(1, unknown.vec(), &desc_, &msg), 0x4444u);
    EXPECT_EQ(take(msg), "- Type not supported at this attachpoint");
    rasf_inst_t *inst = reinterpret_cast<rasf_inst_t *>(&msg);
    EXPECT_EQ(shared_kela_flag64_set_assign_cons(1, unknown.vec(), unknown.slots(), &desc_, &inst),
              0x4444u);
    EXPECT_EQ(inst, reinterpret_cast<rasf_inst_t *>(&msg)) << "the instance store is not touched";
    EXPECT_EQ(shared_kela_flag64_set_assign_cons(2, nullptr, nullptr, &desc_, &inst),
              KEL_SHARED_ERR_PARAM_COUNT);
}

}  // namespace
