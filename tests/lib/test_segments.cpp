// SPDX-License-Identifier: Apache-2.0
// The parameter segment list, and the 32-bit "matches-any" value sets that
// walk it.
#include <algorithm>
#include <cstring>
#include <random>

#include "support.hpp"

namespace {

using kt::Params;
using kt::take;

struct Pos {
    int32_t start, end, cursor;
    bool operator==(const Pos &) const = default;
};
std::ostream &operator<<(std::ostream &os, const Pos &p) {
    return os << "{" << p.start << ", " << p.end << ", " << p.cursor << "}";
}
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
    EXPECT_EQ(text(kel_shared_sl_argument(sl)), "10");
    EXPECT_EQ(kel_shared_sl_argument_index(sl), 0);
    EXPECT_EQ(kel_shared_sl_argument_next(sl), nullptr);
    EXPECT_EQ(pos(sl), (Pos{0, 2, 2}));
    EXPECT_EQ(kel_shared_sl_segment_next(sl), 2);
    EXPECT_EQ(pos(sl), (Pos{2, 5, 3}));
    EXPECT_EQ(text(kel_shared_sl_argument(sl)), "20");
    EXPECT_EQ(text(kel_shared_sl_argument_next(sl)), "30");
    EXPECT_EQ(kel_shared_sl_argument_index(sl), 1);
    EXPECT_EQ(kel_shared_sl_argument_next(sl), nullptr);
    EXPECT_EQ(pos(sl), (Pos{2, 5, 5}));
    EXPECT_EQ(kel_shared_sl_argument_next(sl), nullptr) << "never past the segment end";
    EXPECT_EQ(pos(sl), (Pos{2, 5, 5}));
    EXPECT_EQ(kel_shared_sl_segment_reset(sl), 2);
    EXPECT_EQ(pos(sl), (Pos{2, 5, 3}));
    EXPECT_EQ(kel_shared_sl_segment_next(sl), 1);
    EXPECT_EQ(pos(sl), (Pos{5, 7, 6}));
    EXPECT_EQ(text(kel_shared_sl_argument(sl)), "40");
    EXPECT_EQ(kel_shared_sl_segment_next(sl), -1);
    EXPECT_EQ(pos(sl), (Pos{5, 7, 6}));
    EXPECT_EQ(kel_shared_sl_reset(sl), 1);
    EXPECT_EQ(pos(sl), (Pos{0, 2, 1}));
    kel_shared_sl_destroy(sl);

    // One text fewer: the last segment would reach past the vector.
    sl = kel_shared_sl_create(6, p.vec());
    ASSERT_NE(sl, nullptr);
    EXPECT_EQ(kel_shared_sl_segment_next(sl), 2);
    EXPECT_EQ(kel_shared_sl_segment_next(sl), -1);
    EXPECT_EQ(pos(sl), (Pos{2, 5, 3})) << "a refused step leaves the record as it was";
    kel_shared_sl_destroy(sl);
}

TEST(SegmentList, WhatCountsAsAFirstHeader) {
    struct Case {
        std::vector<const char *> texts;
        uint32_t n;
        int32_t count;  // -1: create refuses
    };
    const Case cases[] = {
        {{"arg0: 2", "a", "b"}, 3, 2}, {{"arg0:2x", "a", "b"}, 3, 2},
        {{"arg0:+1", "a"}, 2, 1},      {{"arg 0:1", "a"}, 2, 1},
        {{"arg-0:1", "a"}, 2, 1},      {{"arg1:1", "a"}, 2, -1},
        {{"foo", "a"}, 2, -1},         {{"arg0", "a"}, 2, -1},
        {{"arg0:", "a"}, 2, -1},       {{"Arg0:1", "a"}, 2, -1},
        {{"arg0 :1", "a"}, 2, -1},     {{"arg0:-1", "a"}, 2, -1},
        {{"arg0:-2", "a"}, 2, -1},     {{"arg0:3", "a", "b", "c"}, 3, -1},
        {{"arg0:1", "a"}, 0, -1},      {{"arg0:0"}, 1, 0},
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
        if (c.count == 0) {
            EXPECT_EQ(kel_shared_sl_argument(sl), nullptr);
            EXPECT_EQ(kel_shared_sl_segment_next(sl), -1);
        }
        kel_shared_sl_destroy(sl);
    }
    EXPECT_EQ(kel_shared_sl_create(1, nullptr), nullptr);
    kel_shared_sl_destroy(nullptr);
    EXPECT_EQ(kel_shared_sl_segment_reset(nullptr), -1);
}

TEST(SegmentList, LaterHeadersEndTheWalkWhenTheyDoNotFit) {
    // Only the first header's index is checked; a malformed header or one
    // whose arguments run past the end stops the walk like the end does.
    Params p{"arg0:1", "a", "arg7:1", "b", "junk", "c", "arg2:5", "d"};
    kel_shared_sl_td *sl = kel_shared_sl_create(p.count(), p.vec());
    ASSERT_NE(sl, nullptr);
    EXPECT_EQ(kel_shared_sl_segment_next(sl), 1);
    EXPECT_EQ(text(kel_shared_sl_argument(sl)), "b");
    EXPECT_EQ(kel_shared_sl_segment_next(sl), -1);
    EXPECT_EQ(pos(sl), (Pos{2, 4, 3}));
    kel_shared_sl_destroy(sl);

    Params q{"arg0:1", "a", "arg1:5", "b"};
    sl = kel_shared_sl_create(q.count(), q.vec());
    EXPECT_EQ(kel_shared_sl_segment_next(sl), -1);
    kel_shared_sl_destroy(sl);
}

TEST(SegmentList, ResetRefusesAndLeavesTheRecordAlone) {
    Params good{"arg0:1", "a", "arg1:1", "b"};
    kel_shared_sl_td *sl = kel_shared_sl_create(4, good.vec());
    ASSERT_NE(sl, nullptr);
    ASSERT_EQ(kel_shared_sl_segment_next(sl), 1);
    Params bad{"arg1:1", "x"};
    sl->vector = bad.vec();
    sl->count = 2;
    Pos before = pos(sl);
    EXPECT_EQ(kel_shared_sl_reset(sl), -1);
    EXPECT_EQ(pos(sl), before);
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

    // Compiles "matches-any {list}" and evaluates each value in turn.
    std::vector<int32_t> outcomes(std::vector<const char *> list, std::vector<uint32_t> values) {
        std::vector<kref_item_t> items;
        for (const char *&t : list) items.push_back({1, &t});
        kref_stmt_t *stmt = nullptr;
        char *msg = nullptr;
        EXPECT_EQ(kref_compile("metric", KREF_CMP, "matches-any", nullptr, items.size(),
                               items.data(), &msg, &stmt),
                  0u)
            << take(msg);
        std::vector<int32_t> out;
        for (uint32_t v : values) {
            std::memcpy(route_ + 4, &v, 4);
            int32_t o = -1;
            EXPECT_EQ(kref_eval(stmt, route_, nullptr, &o), 0u);
            out.push_back(o);
        }
        kref_stmt_free(stmt);
        return out;
    }

    shared_kela_uint32_desc_td desc_{"metric", 1, 0, 100, nullptr};
    rasf_verify_fn verify_ = nullptr;
    rasf_construct_fn construct_ = nullptr;
    alignas(4) unsigned char route_[16] = {};
};

TEST_F(MatchesAny, MatchesByEqualityWhateverTheOrder) {
    EXPECT_EQ(outcomes({"5", "10", "15"}, {10, 11, 0, 5, 15, 16}),
              (std::vector<int32_t>{1, 0, 0, 1, 1, 0}));
    EXPECT_EQ(outcomes({"15", "5", "10"}, {10, 11, 0, 5, 15, 16}),
              (std::vector<int32_t>{1, 0, 0, 1, 1, 0}));
    EXPECT_EQ(outcomes({"7"}, {6, 7, 8}), (std::vector<int32_t>{0, 1, 0}));
    EXPECT_EQ(outcomes({"7", "7", "3"}, {7, 3, 5}), (std::vector<int32_t>{1, 1, 0}));
}

TEST_F(MatchesAny, AgreesWithALinearScanOnRandomSets) {
    std::mt19937 rng(12345);
    desc_.max = 0xFFFFFFFFu;
    for (int round = 0; round < 20; ++round) {
        std::vector<std::string> texts;
        std::vector<uint32_t> members;
        const int n = 1 + static_cast<int>(rng() % 200);
        for (int i = 0; i < n; ++i) {
            members.push_back(rng() % 1000);
            texts.push_back(std::to_string(members.back()));
        }
        std::vector<const char *> list;
        for (auto &t : texts) list.push_back(t.c_str());
        std::vector<uint32_t> probes;
        std::vector<int32_t> want;
        for (uint32_t v = 0; v < 1000; v += 7) {
            probes.push_back(v);
            want.push_back(std::find(members.begin(), members.end(), v) != members.end());
        }
        EXPECT_EQ(outcomes(list, probes), want);
    }
}

TEST_F(MatchesAny, VerifierRefusals) {
    struct Case {
        std::vector<std::optional<std::string>> texts;
        void *desc;
        vogno status;
        const char *message;
    };
    const Case cases[] = {
        {kt::segments({{"5"}, {"300"}, {"7"}, {"400"}}), &desc_, KEL_SHARED_ERR_ABOVE_MAX,
         "Value (300) not within acceptable range: 0 - 100"},
        {kt::segments({{"5"}, {"x"}}), &desc_, KEL_SHARED_ERR_BAD_VALUE, nullptr},
        {kt::segments({{"5"}, {nullptr}}), &desc_, KEL_SHARED_ERR_NULL_PARAM, nullptr},
        {kt::segments({{"5"}, {"6", "7"}}), &desc_, 4, "Parameter mismatch."},
        {kt::segments({{"5", "6"}}), &desc_, 4, "Parameter mismatch."},
        {{"arg1:1", "5"}, &desc_, KEL_SHARED_ERR_BAD_VALUE, "Internal error: malformed parameters"},
        {kt::segments({{"5"}}), nullptr, KEL_SHARED_ERR_NULL_RESULT, "Invalid context pointer"},
        {kt::segments({{"5"}, {"100"}, {"0"}}), &desc_, 0, nullptr},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.message ? c.message : "status only");
        std::vector<char *> raw;
        for (auto &t : c.texts) raw.push_back(t ? strdup(t->c_str()) : nullptr);
        char *msg = nullptr;
        EXPECT_EQ(verify_(static_cast<uint32_t>(raw.size()), raw.data(), c.desc, &msg), c.status);
        EXPECT_EQ(take(msg), c.message ? c.message : "<null>");
        for (char *r : raw) std::free(r);
    }
    desc_.min = 10;
    Params low{"arg0:1", "5"};
    char *msg = nullptr;
    EXPECT_EQ(verify_(2, low.vec(), &desc_, &msg), KEL_SHARED_ERR_BELOW_MIN);
    EXPECT_EQ(take(msg), "Value (5) not within acceptable range: 10 - 100");
    EXPECT_EQ(verify_(0, low.vec(), &desc_, &msg), KEL_SHARED_ERR_PARAM_COUNT);
    EXPECT_EQ(take(msg), "Internal error: no parameters");
    EXPECT_EQ(verify_(2, nullptr, &desc_, &msg), KEL_SHARED_ERR_NULL_INPUT);
    EXPECT_EQ(take(msg), "NULL parameter vector");
}

TEST_F(MatchesAny, ConstructorRefusalsLeaveNothingBehind) {
    rasf_inst_t *inst = nullptr;
    Params mismatch{"arg0:1", "5", "arg1:2", "6", "7"};
    EXPECT_EQ(construct_(mismatch.count(), mismatch.vec(), mismatch.slots(), &desc_, &inst), 4u);
    Params malformed{"arg1:1", "5"};
    EXPECT_EQ(construct_(2, malformed.vec(), malformed.slots(), &desc_, &inst),
              KEL_SHARED_ERR_NULL_INPUT);
    EXPECT_EQ(construct_(0, malformed.vec(), malformed.slots(), &desc_, &inst),
              KEL_SHARED_ERR_NULL_INPUT);
    EXPECT_EQ(construct_(2, nullptr, malformed.slots(), &desc_, &inst), KEL_SHARED_ERR_NULL_INPUT);
    Params ok{"arg0:1", "5"};
    EXPECT_EQ(construct_(2, ok.vec(), nullptr, &desc_, &inst), KEL_SHARED_ERR_NULL_INPUT);
    EXPECT_EQ(construct_(2, ok.vec(), ok.slots(), nullptr, &inst), KEL_SHARED_ERR_NO_PARAM_ARRAY);
    Params bad{"arg0:1", "5x"};
    EXPECT_EQ(construct_(2, bad.vec(), bad.slots(), &desc_, &inst), KEL_SHARED_ERR_BAD_VALUE);

    for (const char *op : {"rasf_new_cmp_instance", "rasf_kela_add_cmp_instance_function_cmp"}) {
        inst = reinterpret_cast<rasf_inst_t *>(&ok);
        kref_fault_set_after(op, 1, 0x77u);
        EXPECT_EQ(construct_(2, ok.vec(), ok.slots(), &desc_, &inst), 0x77u);
        EXPECT_EQ(inst, nullptr);
    }
    EXPECT_EQ(kref_live_instances(), 0u);
    // LeakSanitizer checks that the copies and value blocks went too.
}

TEST_F(MatchesAny, InstanceKeepsItsOwnCopyOfTheDescriptor) {
    Params p{"arg0:1", "42"};
    rasf_inst_t *inst = nullptr;
    ASSERT_EQ(construct_(2, p.vec(), p.slots(), &desc_, &inst), 0u);
    kref_inst_info_t info{};
    ASSERT_EQ(kref_inst_get(inst, &info), 0u);
    auto *copy = static_cast<shared_kela_uint32_desc_td *>(info.ctx);
    ASSERT_NE(copy, &desc_);
    EXPECT_EQ(desc_.value_set, nullptr) << "the client's record is not written";
    ASSERT_NE(copy->value_set, nullptr);
    EXPECT_EQ(static_cast<uint32_t *>(copy->value_set)[0], 1u);
    EXPECT_EQ(static_cast<uint32_t *>(copy->value_set)[1], 42u);

    desc_.index = 0;  // later client changes do not reach the instance
    uint32_t v = 42;
    std::memcpy(route_ + 4, &v, 4);
    int32_t out = -1;
    EXPECT_EQ(info.cmp(route_, 2, p.slots(), info.ctx, &out), 0u);
    EXPECT_EQ(out, 1);
    EXPECT_EQ(info.cmp(route_, 0, p.slots(), info.ctx, nullptr), KEL_SHARED_ERR_NULL_INPUT)
        << "inputs are tested before the outcome pointer";
    EXPECT_EQ(info.cmp(route_, 2, p.slots(), info.ctx, nullptr), KEL_SHARED_ERR_NULL_RESULT);
    EXPECT_EQ(info.cmp(nullptr, 2, p.slots(), info.ctx, &out), KEL_SHARED_ERR_NULL_RESULT);

    EXPECT_EQ(shared_kela_uint32_cmp_any_free(info.ctx), 0u);
    EXPECT_EQ(rasf_free_cmp_instance(inst), 0u);
    EXPECT_EQ(shared_kela_uint32_cmp_any_free(nullptr), 0u);
    auto *bare =
        static_cast<shared_kela_uint32_desc_td *>(calloc(1, sizeof(shared_kela_uint32_desc_td)));
    EXPECT_EQ(shared_kela_uint32_cmp_any_free(bare), 0u) << "a copy without value block";
}

}  // namespace
