// SPDX-License-Identifier: Apache-2.0
// Allocation behaviour of the library, counted and failed through the
// wrapped allocator: evaluation allocates nothing, and every allocation
// point of the operations below fails cleanly (documented status, no leak,
// no instance left, null from print functions).
#include <cstring>
#include <functional>

#include "alloc_hook.hpp"
#include "support.hpp"

namespace {

using kt::Params;
using kt::take;

// Fails allocation 1, 2, 3, ... of `op` until it runs without reaching the
// failure; `op` checks its own outcome for a failing and a clean run.
// Returns the number of allocation points covered.
size_t sweep(const std::function<void(bool failing)> &op) {
    for (size_t n = 1;; ++n) {
        kt::alloc::fail_at(n);
        op(true);
        const bool fired = kt::alloc::failed();
        kt::alloc::reset();
        if (!fired) {
            // The run did not reach allocation n: it was a clean run.
            return n - 1;
        }
    }
}

class Allocation : public kt::FrameworkTest {
  protected:
    void SetUp() override {
        kt::FrameworkTest::SetUp();
        kt::alloc::reset();
        const char *locs[] = {"import", "export", nullptr};
        ASSERT_EQ(
            shared_kela_uint32_base_init_v2(nullptr, nullptr, 0, &desc_, locs, locs, locs, locs),
            0u);
    }
    void TearDown() override {
        kt::alloc::reset();
        kt::FrameworkTest::TearDown();
    }

    kref_stmt_t *compile(kref_kind_t kind, const char *op, std::vector<const char *> texts) {
        std::vector<kref_item_t> items;
        for (const char *&t : texts) items.push_back({1, &t});
        kref_stmt_t *stmt = nullptr;
        EXPECT_EQ(
            kref_compile("metric", kind, op, nullptr, items.size(), items.data(), nullptr, &stmt),
            0u);
        return stmt;
    }

    shared_kela_uint32_desc_td desc_{"metric", 1, 0, 0, nullptr};
    alignas(8) unsigned char route_[16] = {};
};

TEST_F(Allocation, EvaluationAllocatesNothing) {
    std::vector<kref_stmt_t *> cmps = {
        compile(KREF_CMP, "exact-match", {"5"}), compile(KREF_CMP, "le", {"5"}),
        compile(KREF_CMP, "ge", {"5"}), compile(KREF_CMP, "matches-any", {"9", "3", "5", "700"})};
    kref_stmt_t *assign = compile(KREF_SET, "assign", {"7"});
    kref_stmt_t *retr = compile(KREF_RETR, nullptr, {});

    kt::alloc::reset();
    int32_t hits = 0;
    for (uint32_t v = 0; v < 1000; ++v) {
        std::memcpy(route_ + 4, &v, 4);
        for (kref_stmt_t *s : cmps) {
            int32_t out = 0;
            kref_eval(s, route_, nullptr, &out);
            hits += out;
        }
        kref_apply(assign, route_);
        uint32_t got = 0;
        kref_retrieve(retr, route_, &got);
    }
    const size_t allocations = kt::alloc::count();
    EXPECT_EQ(allocations, 0u);
    EXPECT_EQ(hits, 1 + 6 + 995 + 4) << "the statements did evaluate";

    for (kref_stmt_t *s : cmps) kref_stmt_free(s);
    kref_stmt_free(assign);
    kref_stmt_free(retr);
}

TEST_F(Allocation, RegistrationFailsOnItsMergedList) {
    shared_kela_uint16_desc_td d{"tag", 0, 0, 0};
    size_t points = sweep([&](bool) {
        vogno st = shared_kela_uint16_base_init(nullptr, nullptr, 0, &d);
        if (kt::alloc::failed()) {
            EXPECT_EQ(st, KEL_SHARED_ERR_NO_MEMORY);
            EXPECT_EQ(kref_attr_find("tag"), nullptr) << "nothing registered";
        } else {
            EXPECT_EQ(st, 0u);
        }
    });
    EXPECT_EQ(points, 1u);
    const char *locs[] = {"import", nullptr};
    const char **out = nullptr;
    kt::alloc::fail_at(1);
    EXPECT_EQ(kela_shared_merge_locations(&out, locs, nullptr, nullptr, nullptr),
              KEL_SHARED_ERR_NO_MEMORY);
    EXPECT_EQ(out, nullptr);
}

TEST_F(Allocation, PrintsAndMessagesGiveNullWhenTheyCannotAllocate) {
    kt::alloc::fail_at(1);
    EXPECT_EQ(shared_kela_uint32_base_print(nullptr, route_, &desc_), nullptr);
    kt::alloc::fail_at(1);
    EXPECT_EQ(shared_kela_uint8_base_print(nullptr, nullptr, &desc_), nullptr);
    kt::alloc::fail_at(1);
    EXPECT_EQ(kela_uint16_range_error_string(1, 2, 3), nullptr);

    // A verifier whose message cannot be made still reports its status.
    kref_op_info_t le{};
    ASSERT_EQ(kref_attr_op(kref_attr_find("metric"), KREF_CMP, "le", &le), 0u);
    desc_.max = 3;
    for (const char *text : {"x", "4"}) {
        Params p{text};
        char *msg = nullptr;
        kt::alloc::fail_at(1);
        EXPECT_NE(le.verify(1, p.vec(), &desc_, &msg), 0u);
        EXPECT_TRUE(kt::alloc::failed());
        EXPECT_EQ(msg, nullptr);
    }
}

// The "matches-any" verifier: the segment list, then the message.
TEST_F(Allocation, MatchesAnyVerifierReportsWithoutItsMessage) {
    kref_op_info_t any{};
    ASSERT_EQ(kref_attr_op(kref_attr_find("metric"), KREF_CMP, "matches-any", &any), 0u);
    Params p{"arg0:1", "5", "arg1:1", "3"};
    desc_.max = 4;
    std::vector<std::pair<vogno, std::string>> runs;
    const size_t points = sweep([&](bool) {
        char *msg = nullptr;
        vogno st = any.verify(p.count(), p.vec(), &desc_, &msg);
        runs.emplace_back(st, take(msg));
    });
    const std::vector<std::pair<vogno, std::string>> want = {
        {KEL_SHARED_ERR_BAD_VALUE, "Internal error: malformed parameters"},
        {KEL_SHARED_ERR_ABOVE_MAX, "<null>"},
        {KEL_SHARED_ERR_ABOVE_MAX, "Value (5) not within acceptable range: 0 - 4"}};
    EXPECT_EQ(runs, want);
    EXPECT_EQ(points, 2u);
}

}  // namespace
