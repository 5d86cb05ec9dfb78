// SPDX-License-Identifier: Apache-2.0
// The parameter segment list, and the 32-bit "matches-any" value sets that
// walk it.
#include <algorithm>
#include <cstring>
#include <random>
#include <tuple>

#include "support.hpp"

namespace {

using kt::Params;
using kt::Verdict;

// The record's segment start, segment end and cursor.
using Pos = std::tuple<int32_t, int32_t, int32_t>;
Pos pos(const kel_shared_sl_td *sl) {
    return {sl->seg_start, sl->seg_end, sl->cursor};
}
std::string text(const char *s) {
    return s ? s : "<null>";
}

TEST(SegmentList, WorkedExampleStepByStep) {
    Params p{"arg0:1", "10", "arg1:2", "20", "30", "arg2:1", "40"};
    kel_shared_sl_td *sl = kel_shared_sl_create(7, p.vec());
    ASSERT_NE(sl, nullptr);
    EXPECT_EQ(pos(sl), (Pos{0, 2, 1}));
    // Each step: a call (a: argument, n: argument_next, i: argument_index,
    // s: segment_next, r: segment_reset, R: reset), what it returns and the
    // record after it.
    auto call = [&](char c) -> std::string {
        switch (c) {
            case 'a':
                return text(kel_shared_sl_argument(sl));
            case 'n':
                return text(kel_shared_sl_argument_next(sl));
            case 'i':
                return std::to_string(kel_shared_sl_argument_index(sl));
            case 's':
                return std::to_string(kel_shared_sl_segment_next(sl));
            case 'r':
                return std::to_string(kel_shared_sl_segment_reset(sl));
            default:
                return std::to_string(kel_shared_sl_reset(sl));
        }
    };
    const std::tuple<char, const char *, Pos> steps[] = {
        {'a', "10", {0, 2, 1}},     {'i', "0", {0, 2, 1}},
        {'n', "<null>", {0, 2, 2}}, {'s', "2", {2, 5, 3}},
        {'a', "20", {2, 5, 3}},     {'n', "30", {2, 5, 4}},
        {'i', "1", {2, 5, 4}},      {'n', "<null>", {2, 5, 5}},
        {'n', "<null>", {2, 5, 5}},  // never past the segment end
        {'r', "2", {2, 5, 3}},      {'s', "1", {5, 7, 6}},
        {'a', "40", {5, 7, 6}},     {'s', "-1", {5, 7, 6}},
        {'R', "1", {0, 2, 1}},
    };
    for (auto [c, ret, after] : steps) {
        EXPECT_EQ(call(c), ret) << c;
        EXPECT_EQ(pos(sl), after) << c << " " << ret;
    }
    kel_shared_sl_destroy(sl);
}

TEST(SegmentList, WhatCountsAsAFirstHeader) {
    struct Case {
        std::vector<const char *> texts;
        uint32_t n;
        int32_t count;  // -1: create refuses
    };
    const Case cases[] = {
        {{"arg0: 2", "a", "b"}, 3, 2},
        {{"arg0:2x", "a", "b"}, 3, 2},
        {{"arg0:+1", "a"}, 2, 1},
        {{"arg 0:1", "a"}, 2, 1},
        {{"arg-0:1", "a"}, 2, 1},
        {{"arg1:1", "a"}, 2, -1},
        {{"foo", "a"}, 2, -1},
        {{"arg0", "a"}, 2, -1},
        {{"arg0:", "a"}, 2, -1},
        {{"Arg0:1", "a"}, 2, -1},
        {{"arg0 :1", "a"}, 2, -1},
        {{"arg0:-1", "a"}, 2, -1},
        {{"arg0:-2", "a"}, 2, -1},
        {{"arg0:3", "a", "b", "c"}, 3, -1},
        {{"arg0:1", "a"}, 0, -1},
        {{"arg0:0"}, 1, 0},
        {{"arg0:-19000000000000000000"}, 1, 0},  // saturates to LONG_MIN, cut to int: 0
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.texts[0]);
        std::vector<char *> v;
        for (const char *t : c.texts) v.push_back(const_cast<char *>(t));
        kel_shared_sl_td *sl = kel_shared_sl_create(c.n, v.data());
        if (c.count < 0) {
            EXPECT_EQ(sl, nullptr);
            continue;
        }
        ASSERT_NE(sl, nullptr);
        EXPECT_EQ(sl->seg_end - sl->seg_start - 1, c.count);
        EXPECT_EQ(kel_shared_sl_argument_index(sl), 0);
        if (c.count == 0) {  // a lone header
            EXPECT_EQ(kel_shared_sl_argument(sl), nullptr);
            EXPECT_EQ(kel_shared_sl_segment_next(sl), -1);
            EXPECT_EQ(kel_shared_sl_reset(sl), 0);
        }
        kel_shared_sl_destroy(sl);
    }
}

TEST(SegmentList, LaterHeadersEndTheWalkWhenTheyDoNotFitAndResetRefuses) {
    // Only the first header's index is checked; a malformed header or one
    // whose arguments run past the end stops the walk like the end does,
    // and the refused step leaves the record as it was.
    Params p{"arg0:1", "a", "arg7:1", "b", "junk", "c", "arg2:5", "d"}, bad{"arg1:1", "x"};
    kel_shared_sl_td *sl = kel_shared_sl_create(p.count(), p.vec());
    ASSERT_NE(sl, nullptr);
    EXPECT_EQ(kel_shared_sl_segment_next(sl), 1);
    EXPECT_EQ(text(kel_shared_sl_argument(sl)), "b");
    EXPECT_EQ(kel_shared_sl_segment_next(sl), -1);
    EXPECT_EQ(pos(sl), (Pos{2, 4, 3}));
    sl->count = 3;  // the segment no longer fits
    EXPECT_EQ(kel_shared_sl_segment_reset(sl), -1);
    // A reset onto a vector whose first header is wrong refuses and leaves
    // the record alone.
    sl->vector = bad.vec();
    sl->count = 2;
    EXPECT_EQ(kel_shared_sl_reset(sl), -1);
    EXPECT_EQ(pos(sl), (Pos{2, 4, 3}));
    kel_shared_sl_destroy(sl);
    // A negative count other than -1 is handed back as it is, by both moves.
    Params negative{"arg0:0", "arg1:-2"};
    sl = kel_shared_sl_create(negative.count(), negative.vec());
    EXPECT_EQ(kel_shared_sl_segment_next(sl), -2);
    EXPECT_EQ(kel_shared_sl_segment_reset(sl), -2);
    kel_shared_sl_destroy(sl);
    // A count beyond a long saturates to LONG_MAX, which cut to int is -1:
    // the end of the walk, not a segment of negative size.
    Params huge{"arg0:0", "arg1:19000000000000000000"};
    sl = kel_shared_sl_create(huge.count(), huge.vec());
    ASSERT_NE(sl, nullptr);
    EXPECT_EQ(kel_shared_sl_segment_next(sl), -1);
    kel_shared_sl_destroy(sl);
}

// ---- "matches-any" -----------------------------------------------------------

class MatchesAny : public kt::FrameworkTest {
  protected:
    void SetUp() override {
        kt::FrameworkTest::SetUp();
        const char *locs[] = {"import", nullptr};
        ASSERT_EQ(
            shared_kela_uint32_range_base_init(nullptr, nullptr, 0, &desc_, locs, locs, locs, locs),
            0u);
        kref_op_info_t info{};
        ASSERT_EQ(kref_attr_op(kref_attr_find("metric"), KREF_CMP, "matches-any", &info), 0u);
        verify_ = info.verify;
        construct_ = info.construct;
    }

    shared_kela_uint32_desc_td desc_{"metric", 1, 0, 100, nullptr};
    rasf_verify_fn verify_ = nullptr;
    rasf_construct_fn construct_ = nullptr;
    alignas(4) unsigned char route_[16] = {};
};

// Sets of one to two hundred values, duplicates included, in any order.
TEST_F(MatchesAny, AgreesWithALinearScanOnRandomSets) {
    std::mt19937 rng(12345);
    desc_.max = 0xFFFFFFFFu;
    for (int round = 0; round < 20; ++round) {
        std::vector<std::string> texts;
        std::vector<uint32_t> members;
        const int n = round == 0 ? 1 : 1 + static_cast<int>(rng() % 200);
        std::vector<std::vector<const char *>> list;
        for (int i = 0; i < n; ++i) {
            members.push_back(rng() % 1000);
            texts.push_back(std::to_string(members.back()));
        }
        for (auto &t : texts) list.push_back({t.c_str()});
        kref_stmt_t *stmt = kt::compile("metric", KREF_CMP, "matches-any", list);
        for (uint32_t v = 0; v < 1000; v += 7) {
            std::memcpy(route_ + 4, &v, 4);
            const bool member = std::find(members.begin(), members.end(), v) != members.end();
            ASSERT_EQ(kt::eval(stmt, route_), member ? 1 : 0) << v;
        }
        kref_stmt_free(stmt);
    }
}

// A constant that is not a number: tests/tool's bad-input corpus.
TEST_F(MatchesAny, VerifierRefusals) {
    const std::string range = "Value (300) not within acceptable range: 0 - 100";
    const Verdict mismatch{4, "Parameter mismatch."};
    EXPECT_EQ(kt::verify(verify_, &desc_, kt::segments({{"5"}, {"300"}, {"7"}, {"400"}})),
              (Verdict{KEL_SHARED_ERR_ABOVE_MAX, range}));
    EXPECT_EQ(kt::verify(verify_, &desc_, kt::segments({{"5"}, {nullptr}})),
              (Verdict{KEL_SHARED_ERR_NULL_PARAM, "<null>"}));
    EXPECT_EQ(kt::verify(verify_, &desc_, kt::segments({{"5"}, {"6", "7"}})), mismatch);
    EXPECT_EQ(kt::verify(verify_, &desc_, kt::segments({{"5", "6"}})), mismatch);
    EXPECT_EQ(kt::verify(verify_, &desc_, {"arg1:1", "5"}),
              (Verdict{KEL_SHARED_ERR_BAD_VALUE, "Internal error: malformed parameters"}));
    EXPECT_EQ(kt::verify(verify_, nullptr, kt::segments({{"5"}})),
              (Verdict{KEL_SHARED_ERR_NULL_RESULT, "Invalid context pointer"}));
    EXPECT_EQ(kt::verify(verify_, &desc_, kt::segments({{"5"}, {"100"}, {"0"}})),
              (Verdict{0, "<null>"}));
    desc_.min = 10;
    EXPECT_EQ(
        kt::verify(verify_, &desc_, {"arg0:1", "5"}),
        (Verdict{KEL_SHARED_ERR_BELOW_MIN, "Value (5) not within acceptable range: 10 - 100"}));
    EXPECT_EQ(kt::verify(verify_, &desc_, {"arg0:1", "5"}, 0),
              (Verdict{KEL_SHARED_ERR_PARAM_COUNT, "Internal error: no parameters"}));
    EXPECT_EQ(kt::verify(verify_, &desc_, nullptr, 2),
              (Verdict{KEL_SHARED_ERR_NULL_INPUT, "NULL parameter vector"}));
}

TEST_F(MatchesAny, InstanceKeepsItsOwnCopyOfTheDescriptor) {
    Params p{"arg0:1", "42"};
    rasf_inst_t *inst = nullptr;
    ASSERT_EQ(construct_(2, p.vec(), p.slots(), &desc_, &inst), 0u);
    kref_inst_info_t info = kt::inst_info(inst);
    auto *copy = static_cast<shared_kela_uint32_desc_td *>(info.ctx);
    ASSERT_NE(copy, &desc_);
    EXPECT_EQ(desc_.value_set, nullptr) << "the client's record is not written";

    desc_.index = 0;  // later client changes do not reach the instance
    uint32_t v = 42;
    std::memcpy(route_ + 4, &v, 4);
    int32_t out = -1;
    EXPECT_EQ(kt::nulls("0RIRR", info.cmp, route_, 2u, p.slots(), info.ctx, &out), "0RIRR");
    EXPECT_EQ(out, 1);
    EXPECT_EQ(info.cmp(route_, 0, p.slots(), info.ctx, nullptr), KEL_SHARED_ERR_NULL_INPUT)
        << "inputs are tested before the outcome pointer";

    EXPECT_EQ(shared_kela_uint32_cmp_any_free(info.ctx), 0u);
    EXPECT_EQ(rasf_free_cmp_instance(inst), 0u);
    auto *bare =
        static_cast<shared_kela_uint32_desc_td *>(calloc(1, sizeof(shared_kela_uint32_desc_td)));
    EXPECT_EQ(shared_kela_uint32_cmp_any_free(bare), 0u) << "a copy without value block";
}

}  // namespace
