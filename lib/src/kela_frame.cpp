// SPDX-License-Identifier: Apache-2.0
// Library start-up (the error domain), the message record it logs with,
// location merging, and the instance builder every constructor uses.
#include <cstring>

#include "kela_internal.hpp"
#include "kela_shared.h"
#include "vog.h"
#include "vup_msg.h"

static_assert(sizeof(vup_msg_rec_td) == 72, "the message facility expects a 72-byte record");
static_assert(offsetof(vup_msg_rec_td, format) == 8);
static_assert(offsetof(vup_msg_rec_td, facility) == 24);
static_assert(offsetof(vup_msg_rec_td, attributes) == 48);
static_assert(offsetof(vup_msg_rec_td, identifier) == 64);

extern "C" {

KELA_SHARED_API extern const vup_msg_rec_td vup_msg_rec_kel_shared_err_dll_reg = {
    nullptr,
    "Unable to register vogno dll %s because %s",
    nullptr,
    "KEL_SHARED",
    "ROUTING",
    "ERR_DLL_REG",
    0x00040000u,
    0u,
    nullptr,
    KEL_SHARED_COMPONENT << 16,  // 0x07090000
    0u,
};

KELA_SHARED_API const vup_msg_rec_td *vup_msg_rec_kel_shared_err_dll_reg_getfn(void) {
    return &vup_msg_rec_kel_shared_err_dll_reg;
}

}  // extern "C"

namespace {
// Set before the domain registration is attempted and never cleared, so a
// failed registration is not retried.  A plain byte: the first registration
// of a process must not race another (documented in the header).
unsigned char g_started = 0;
}  // namespace

extern "C" KELA_SHARED_API void kela_shared_init_if_needed(void) {
    if (g_started == 1) return;
    g_started = 1;
    vogno st = vog_register_dll(KEL_SHARED_COMPONENT, KEL_SHARED_ERR_DLL_NAME);
    if (st == 0) return;
    vup_errmsg(vup_msg_rec_kel_shared_err_dll_reg_getfn(), 4, KEL_SHARED_ERR_DLL_NAME,
               vog_strerror(st));
}

extern "C" KELA_SHARED_API vogno kela_shared_merge_locations(const char ***out,
                                                             const char *const *op_locs,
                                                             const char *const *set_locs,
                                                             const char *const *retr_locs,
                                                             const char *const *attr_locs) {
    if (out == nullptr) return KEL_SHARED_ERR_NULL_RESULT;
    *out = nullptr;
    const char *const *lists[] = {op_locs, set_locs, retr_locs, attr_locs};

    std::size_t total = 0;
    for (const char *const *list : lists)
        for (std::size_t i = 0; list != nullptr && list[i] != nullptr; ++i) ++total;
    if (total == 0) return KEL_SHARED_ERR_NO_LOCATIONS;

    kela::CPtr<const char *> merged(
        static_cast<const char **>(std::calloc(total + 1, sizeof(const char *))));
    if (!merged) return KEL_SHARED_ERR_NO_MEMORY;

    std::size_t n = 0;
    for (const char *const *list : lists) {
        for (std::size_t i = 0; list != nullptr && list[i] != nullptr; ++i) {
            bool seen = false;
            for (std::size_t j = 0; j < n && !seen; ++j)
                seen = std::strcmp(merged.get()[j], list[i]) == 0;
            if (!seen) merged.get()[n++] = list[i];
        }
    }
    *out = merged.release();
    return 0;
}

namespace kela {

InstanceBuilder::InstanceBuilder(InstKind kind, rasf_inst_t **out, std::uint32_t count,
                                 char **params, void **slots, void *ctx)
    : kind_(kind), out_(out) {
    if (out == nullptr) {
        status_ = KEL_SHARED_ERR_NULL_RESULT;
        return;
    }
    switch (kind) {
        case InstKind::Cmp:
            status_ = rasf_new_cmp_instance(&inst_, count, params, slots, ctx);
            break;
        case InstKind::Set:
            status_ = rasf_new_set_instance(&inst_, count, params, slots, ctx);
            break;
        case InstKind::Retriever:
            status_ = rasf_new_retriever_instance(&inst_, count, params, slots, ctx);
            break;
    }
}

vogno InstanceBuilder::finish() {
    if (status_ != 0 && inst_ != nullptr) {
        switch (kind_) {
            case InstKind::Cmp:
                rasf_free_cmp_instance(inst_);
                break;
            case InstKind::Set:
                rasf_free_set_instance(inst_);
                break;
            case InstKind::Retriever:
                rasf_free_retriever_instance(inst_);
                break;
        }
        inst_ = nullptr;
    }
    if (out_ != nullptr) *out_ = inst_;
    inst_ = nullptr;
    return status_;
}

InstanceBuilder::~InstanceBuilder() {
    // finish() hands the instance over; one never handed over is released.
    if (inst_ != nullptr) {
        status_ = status_ != 0 ? status_ : KEL_SHARED_ERR_NULL_RESULT;
        out_ = nullptr;
        finish();
    }
}

}  // namespace kela
