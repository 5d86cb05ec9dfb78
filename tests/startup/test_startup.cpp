// SPDX-License-Identifier: Apache-2.0
// Library start-up.  The start-up flag is process-wide and is set by the
// first registration of a process, so each case runs in a child process of
// its own, and nothing here registers in the parent.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <tuple>

#include "kela_ref.h"
#include "kela_ref_hooks.h"
#include "kela_shared.h"
#include "vog.h"

namespace {

size_t count_lines(const char *prefix) {
    size_t n = 0;
    for (size_t i = 0; i < kref_trace_count(); ++i)
        n += std::strncmp(kref_trace_at(i), prefix, std::strlen(prefix)) == 0;
    return n;
}

// Registers twice around a start-up of its own, the domain registration
// failing with `fault` (0: succeeding); exits 0 when the domain was asked
// for once and what was logged is `want`.
void child(vogno fault, const std::string &want) {
    kref_log_capture(1);
    kref_trace_start();
    if (fault != 0) kref_fault_set("vog_register_dll", 1, fault);
    shared_kela_uint32_desc_td d{"metric", 0, 0, 0, nullptr}, e{"other", 0, 0, 0, nullptr};
    const bool ok =
        shared_kela_uint32_base_init(nullptr, nullptr, 0, &d) == 0 &&
        std::string(kref_trace_at(0)) == "vog_register_dll(1801, vogno/libkelshared_error.dll)" &&
        kref_attr_find("metric") != nullptr;  // carries on regardless
    kela_shared_init_if_needed();
    const bool again = shared_kela_uint32_base_init(nullptr, nullptr, 0, &e) == 0;
    const std::string logged = kref_log_count() == 1 ? kref_log_at(0) : "";
    std::fprintf(stderr, "logged: %s\n", logged.c_str());
    std::exit(ok && again && count_lines("vog_register_dll(") == 1 && logged == want &&
                      count_lines("vup_errmsg(") == (want.empty() ? 0u : 1u)
                  ? 0
                  : 1);
}

TEST(StartupDeathTest, RegistersTheDomainOnceAndLogsAFailureOnceWithoutRetrying) {
    EXPECT_EXIT(child(0, ""), ::testing::ExitedWithCode(0), "");
    EXPECT_EXIT(child(KREF_ERR_EXISTS,
                      std::string("%KEL_SHARED-4-ERR_DLL_REG: Unable to register vogno dll "
                                  "vogno/libkelshared_error.dll because ") +
                          vog_strerror(KREF_ERR_EXISTS)),
                ::testing::ExitedWithCode(0), "");
}

// The format, facility and mnemonic show in the logged line above.
TEST(Startup, MessageRecord) {
    const vup_msg_rec_td *rec = vup_msg_rec_kel_shared_err_dll_reg_getfn();
    ASSERT_EQ(rec, &vup_msg_rec_kel_shared_err_dll_reg);
    EXPECT_EQ(std::tuple(std::string(rec->group), rec->attributes, rec->identifier, rec->reserved0,
                         rec->reserved1, rec->reserved2, rec->reserved3, rec->reserved4),
              std::tuple("ROUTING", 0x00040000u, 0x07090000u, nullptr, nullptr, 0u, nullptr, 0u));
}

}  // namespace
