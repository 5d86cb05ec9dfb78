// SPDX-License-Identifier: Apache-2.0
// Library start-up.  The start-up flag is process-wide and is set by the
// first registration of a process, so each case runs in a child process of
// its own, and nothing here registers in the parent.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "kela_ref.h"
#include "kela_ref_hooks.h"
#include "kela_shared.h"
#include "vog.h"

namespace {

size_t count_lines(const char *prefix) {
    size_t n = 0;
    for (size_t i = 0; i < kref_trace_count(); ++i)
        if (std::strncmp(kref_trace_at(i), prefix, std::strlen(prefix)) == 0) ++n;
    return n;
}

#define CHILD_CHECK(cond)                                 \
    do {                                                  \
        if (!(cond)) {                                    \
            fprintf(stderr, "check failed: %s\n", #cond); \
            std::exit(1);                                 \
        }                                                 \
    } while (0)

void child_registers_once() {
    kref_log_capture(1);
    kref_trace_start();
    kela_shared_init_if_needed();
    CHILD_CHECK(kref_trace_count() == 1);
    CHILD_CHECK(std::string(kref_trace_at(0)) ==
                "vog_register_dll(1801, vogno/libkelshared_error.dll)");
    kela_shared_init_if_needed();
    shared_kela_uint8_desc_td d{"x", 0, 0, 0};
    CHILD_CHECK(shared_kela_uint8_base_init(nullptr, nullptr, 0, &d) == 0);
    CHILD_CHECK(count_lines("vog_register_dll(") == 1);
    CHILD_CHECK(kref_log_count() == 0);
    std::exit(0);
}

TEST(StartupDeathTest, RegistersTheDomainOnceAndNeverAgain) {
    EXPECT_EXIT(child_registers_once(), ::testing::ExitedWithCode(0), "");
}

void child_failed_registration() {
    kref_log_capture(1);
    kref_trace_start();
    kref_fault_set("vog_register_dll", 1, KREF_ERR_EXISTS);
    // The registration that runs the start-up carries on regardless.
    shared_kela_uint32_desc_td d{"metric", 0, 0, 0, nullptr};
    CHILD_CHECK(shared_kela_uint32_base_init(nullptr, nullptr, 0, &d) == 0);
    CHILD_CHECK(kref_attr_find("metric") != nullptr);
    kela_shared_init_if_needed();
    shared_kela_uint32_desc_td e{"other", 0, 0, 0, nullptr};
    CHILD_CHECK(shared_kela_uint32_base_init(nullptr, nullptr, 0, &e) == 0);
    CHILD_CHECK(count_lines("vog_register_dll(") == 1);
    CHILD_CHECK(count_lines("vup_errmsg(") == 1);
    CHILD_CHECK(kref_log_count() == 1);
    const std::string want = std::string("Unable to register vogno dll ") +
                             "vogno/libkelshared_error.dll because " +
                             vog_strerror(KREF_ERR_EXISTS);
    const std::string line = kref_log_at(0);
    fprintf(stderr, "%s\n", line.c_str());
    CHILD_CHECK(line.find(want) != std::string::npos);
    CHILD_CHECK(line.find("KEL_SHARED") != std::string::npos);
    CHILD_CHECK(line.find("ERR_DLL_REG") != std::string::npos);
    std::exit(0);
}

TEST(StartupDeathTest, AFailedRegistrationIsLoggedOnceAndNotRetried) {
    EXPECT_EXIT(child_failed_registration(), ::testing::ExitedWithCode(0), "");
}

TEST(Startup, MessageRecordLayout) {
    const vup_msg_rec_td *rec = vup_msg_rec_kel_shared_err_dll_reg_getfn();
    ASSERT_EQ(rec, &vup_msg_rec_kel_shared_err_dll_reg);
    static_assert(sizeof(vup_msg_rec_td) == 72);
    const unsigned char *bytes = reinterpret_cast<const unsigned char *>(rec);
    auto word64 = [&](size_t off) {
        uint64_t v;
        std::memcpy(&v, bytes + off, 8);
        return v;
    };
    auto word32 = [&](size_t off) {
        uint32_t v;
        std::memcpy(&v, bytes + off, 4);
        return v;
    };
    auto text = [&](size_t off) {
        return std::string(reinterpret_cast<const char *>(word64(off)));
    };
    EXPECT_EQ(word64(0), 0u);
    EXPECT_EQ(text(8), "Unable to register vogno dll %s because %s");
    EXPECT_EQ(word64(16), 0u);
    EXPECT_EQ(text(24), "KEL_SHARED");
    EXPECT_EQ(text(32), "ROUTING");
    EXPECT_EQ(text(40), "ERR_DLL_REG");
    EXPECT_EQ(word32(48), 0x00040000u);
    EXPECT_EQ(word32(52), 0u);
    EXPECT_EQ(word64(56), 0u);
    EXPECT_EQ(word32(64), 0x07090000u);
    EXPECT_EQ(word32(68), 0u);
}

}  // namespace
