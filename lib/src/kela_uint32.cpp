// 32-bit unsigned integer attribute, the only width with "matches-any".
#include "kela_uint.hpp"

namespace {

using Desc = shared_kela_uint32_desc_td;

vogno any_cmp(void *route, std::uint32_t count, void **slots, void *ctx, std::int32_t *outcome) {
    // Inputs before the outcome pointer here, unlike the single-constant
    // compares.
    if (count == 0 || slots == nullptr) return KEL_SHARED_ERR_NULL_INPUT;
    if (outcome == nullptr) return KEL_SHARED_ERR_NULL_RESULT;
    const Desc *copy = static_cast<Desc *>(ctx);
    std::uint32_t v = 0;
    if (vogno st = shared_kela_uint32_cmp_get_val(route, copy, &v); st != 0) return st;
    *outcome =
        kela::value_block_has(static_cast<const std::uint32_t *>(copy->value_set), v) ? 1 : 0;
    return 0;
}

struct Width32 {
    using Desc = shared_kela_uint32_desc_td;
    using Value = std::uint32_t;
    static constexpr const char *kFile = "kela_uint32";
    static constexpr std::uint32_t kFullMax = 0xFFFFFFFFu;
    static constexpr int kNumbers[] = {1279, 1280, 1311, 1312, 1327, 1328, 1343, 1344, 1359};
    static constexpr bool kValueSet = true;
    static constexpr kela::OpSpec kAnyOp{
        "matches-any", shared_kela_uint32_cmp_any_veri, shared_kela_uint32_cmp_any_cons,
        shared_kela_uint32_cmp_any_free, kela::open_run("uint32_t", 1295, 1296)};
};

}  // namespace

KELA_UINT_EXPORTS(uint32, kela::Uint<Width32>)

extern "C" {

KELA_SHARED_API vogno shared_kela_uint32_cmp_any_veri(uint32_t count, char **params, void *desc,
                                                      char **msg) {
    using kela::msg_if_empty;
    if (desc == nullptr) {
        msg_if_empty(msg, "Invalid context pointer");
        return KEL_SHARED_ERR_NULL_RESULT;
    }
    if (count == 0) {
        msg_if_empty(msg, "Internal error: no parameters");
        return KEL_SHARED_ERR_PARAM_COUNT;
    }
    if (params == nullptr) {
        msg_if_empty(msg, "NULL parameter vector");
        return KEL_SHARED_ERR_NULL_INPUT;
    }
    kela::Segments segs(count, params);
    if (!segs) {
        msg_if_empty(msg, "Internal error: malformed parameters");
        return KEL_SHARED_ERR_BAD_VALUE;
    }
    const Desc *d = static_cast<Desc *>(desc);
    const std::uint32_t min = d->min, max = d->max;
    std::uint32_t refused = 0;
    vogno st = kela::walk_value_list(
        segs, [](const char *t, std::uint32_t *v) { return kela::cvt_decimal(t, 1, v); },
        [&](std::uint32_t v) -> vogno {
            refused = v;
            return v > max ? KEL_SHARED_ERR_ABOVE_MAX : v < min ? KEL_SHARED_ERR_BELOW_MIN : 0;
        });
    if (st == KEL_SHARED_ERR_ABOVE_MAX || st == KEL_SHARED_ERR_BELOW_MIN) {
        if (msg != nullptr && *msg == nullptr) *msg = kela::range_message(refused, min, max);
    } else if (st == 4) {
        msg_if_empty(msg, "Parameter mismatch.");
    }
    return st;
}

KELA_SHARED_API vogno shared_kela_uint32_cmp_any_cons(uint32_t count, char **params, void **slots,
                                                      void *desc, rasf_inst_t **out) {
    kela::CPtr<Desc> copy = kela::zalloc<Desc>();
    kela::CPtr<std::uint32_t> block = kela::make_value_block(count);
    if (!copy || !block) return KEL_SHARED_ERR_NO_MEMORY;
    if (desc == nullptr) return KEL_SHARED_ERR_NO_PARAM_ARRAY;
    *copy = *static_cast<Desc *>(desc);
    if (count == 0 || slots == nullptr) return KEL_SHARED_ERR_NULL_INPUT;
    kela::Segments segs(count, params);
    if (!segs) return KEL_SHARED_ERR_NULL_INPUT;

    // The verifier has checked the range already.
    vogno st = kela::walk_value_list(
        segs, [](const char *t, std::uint32_t *v) { return kela::cvt_decimal(t, 1, v); },
        [&](std::uint32_t v) -> vogno {
            kela::value_block_add(block.get(), v);
            return 0;
        });
    if (st != 0) return st;

    copy->value_set = block.get();
    st = kela::InstanceBuilder(kela::InstKind::Cmp, out, count, params, slots, copy.get())
             .add(rasf_kela_add_cmp_instance_function_cmp, &any_cmp)
             .finish();
    if (st != 0) return st;
    block.release();  // now owned by the copy, which the instance owns
    copy.release();
    return 0;
}

KELA_SHARED_API vogno shared_kela_uint32_cmp_any_free(void *ctx) {
    return kela::free_value_set_copy<Desc>(ctx);
}

}  // extern "C"
