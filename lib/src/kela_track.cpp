// SPDX-License-Identifier: Apache-2.0
// The "track" attribute: is a tracked object up or down?  The update
// function registers interest with the asynchronous policy client; the
// compare reads the state it computes.
#include <atomic>
#include <cstdio>
#include <cstring>

#include "kela_callbacks.hpp"
#include "kela_internal.hpp"
#include "kela_register.hpp"
#include "pcl_async.h"

namespace {

using Ctx = shared_kela_track_ctx_td;

constexpr std::size_t kMaxName = 32;

// Neither "up" nor "down": the text names no state to wait for.
constexpr std::uint8_t kNoState = 0;

std::uint8_t state_of(const char *text) {
    if (std::strcmp(text, "up") == 0) return PCL_OT_STATE_UP;
    if (std::strcmp(text, "down") == 0) return PCL_OT_STATE_DOWN;
    return kNoState;
}

vogno update(void *rec, void *context, std::uint32_t count, char **params) {
    if (params == nullptr || count < 3 || params[1] == nullptr || params[2] == nullptr)
        return KEL_SHARED_ERR_NULL_INPUT;
    if (rec == nullptr) return 2;
    auto *ctx = static_cast<Ctx *>(context);
    // An instance compiled without parameters has no context to fill.
    if (ctx == nullptr) return KEL_SHARED_ERR_NO_PARAM_ARRAY;
    const char *name = params[1];
    // The instance's parameters never change, so the first copy of the name
    // serves every later update; the context is then only read, which lets
    // evaluations run on several threads at once.
    std::atomic_ref<char *> held(ctx->name);
    if (held.load(std::memory_order_acquire) == nullptr) {
        char *copy = strdup(name);
        if (copy == nullptr) return KEL_SHARED_ERR_NO_MEMORY;
        char *expected = nullptr;
        if (!held.compare_exchange_strong(expected, copy, std::memory_order_acq_rel))
            std::free(copy);
    }
    pcli_aysnc_ot_update_track_names(rec, count, params);
    if (const std::uint8_t s = state_of(params[2]); s != kNoState)
        std::atomic_ref<std::uint8_t>(ctx->state).store(s, std::memory_order_relaxed);
    const std::uint32_t wanted = state_of(params[2]);
    std::uint32_t known = 0;
    if (pcl_async_search_track_name(name, &known) != 0) return 0;
    if (known == 0) {
        pcl_async_insert_track_name(name, rec, wanted, kela_async_object_track_callback);
        pcl_async_ot_register(name);
    } else if (known == 1) {
        pcl_async_insert_track_name(name, rec, wanted, nullptr);
    }
    return 0;
}

vogno run(void *, std::uint32_t, void **, void *context, std::int32_t *outcome) {
    auto *ctx = static_cast<Ctx *>(context);
    if (ctx == nullptr) return 2;
    const char *name = std::atomic_ref<char *>(ctx->name).load(std::memory_order_acquire);
    if (name == nullptr) return 0;  // not updated yet
    const std::uint8_t state =
        std::atomic_ref<std::uint8_t>(ctx->state).load(std::memory_order_relaxed);
    if (outcome != nullptr) *outcome = pcl_aysnc_ot_compute_state(name, state);
    return 0;
}

char *print(std::uint32_t, std::uint32_t count, char **params, void **, const char *) {
    char *text = static_cast<char *>(std::calloc(1, 128));
    if (text != nullptr && count == 3 && params != nullptr && params[1] != nullptr &&
        params[2] != nullptr)
        std::snprintf(text, 128, "<<%s is %s>>", params[1], params[2]);
    return text;
}

char *base_print(void *, void *route, void *) {
    return strdup(route != nullptr ? "<<track-id>>" : "<<no track>>");
}

vogno base_cmp(void *a, void *b, void *, std::int32_t *outcome) {
    if (a == nullptr || b == nullptr || outcome == nullptr) return KEL_SHARED_ERR_NO_PARAM_ARRAY;
    *outcome = 1;
    return 0;
}

constexpr kela::OpSpec kOps[] = {
    {"is", shared_kela_track_cmp_veri, shared_kela_track_cmp_cons, shared_kela_track_cmp_free,
     kela::ArgList{316, 1, {{kela::ArgKind::Run, "", 1, 3, 317, ""}}}},
};
constexpr kela::TypeSpec kSpec{"kela_track", nullptr, base_print, base_cmp, kOps,
                               nullptr,      nullptr, "track",    true};

}  // namespace

extern "C" {

vogno shared_kela_track_cmp_veri(uint32_t count, char **params, void *, char **msg) {
    auto refuse = [&](vogno st, const char *text) {
        kela::msg_replace(msg, text);
        return st;
    };
    if (count == 0) return refuse(KEL_SHARED_ERR_NULL_INPUT, "Internal error:  no parameters");
    if (count != 3 || params == nullptr || params[0] == nullptr || params[1] == nullptr ||
        params[2] == nullptr)
        return refuse(KEL_SHARED_ERR_BAD_VALUE, "malformed track parameters");
    if (std::strlen(params[1]) > kMaxName)
        return refuse(KEL_SHARED_ERR_BAD_VALUE,
                      "length of track name should be equal or less than 32");
    if (state_of(params[2]) == kNoState)
        return refuse(KEL_SHARED_ERR_BAD_VALUE, "Internal error:  wrong track status parameter");
    return 0;
}

vogno shared_kela_track_cmp_cons(uint32_t count, char **params, void **slots, void *desc,
                                 rasf_inst_t **out) {
    if (desc == nullptr) return KEL_SHARED_ERR_NO_PARAM_ARRAY;
    if (count != 0 && slots == nullptr) return KEL_SHARED_ERR_NULL_INPUT;
    kela::CPtr<Ctx> ctx;
    if (count != 0) {
        ctx = kela::zalloc<Ctx>();
        if (!ctx) return KEL_SHARED_ERR_NO_MEMORY;
    }
    vogno st = kela::InstanceBuilder(kela::InstKind::Cmp, out, count, params, slots, ctx.get())
                   .add(rasf_kela_add_cmp_instance_function_cmp, &run)
                   .add(rasf_kela_add_cmp_instance_function_update, &update)
                   .add(rasf_kela_add_cmp_instance_function_print, &print)
                   .add(rasf_kela_add_cmp_instance_function_print_ctx, "track async (%")
                   .finish();
    if (st == 0) ctx.release();
    return st;
}

vogno shared_kela_track_cmp_free(void *context) {
    auto *ctx = static_cast<Ctx *>(context);
    if (ctx != nullptr) {
        std::free(ctx->name);
        std::free(ctx);
    }
    return 0;
}

KELA_SHARED_API vogno kela_async_object_track_callback(const char *name, uint32_t state,
                                                       void *cookie) {
    return pcli_async_object_track_callback(name, state, cookie);
}

}  // extern "C"

KELA_REGISTRATION_ENTRY(shared_kela_track_base_init, void, kSpec)
