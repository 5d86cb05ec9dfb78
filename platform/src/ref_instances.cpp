// SPDX-License-Identifier: Apache-2.0
// Compiled instances: what constructors make and attach functions to.
// Releasing an instance never touches its instance context.
#include "ref_internal.hpp"

namespace {

vogno free_instance(kref_kind_t kind, rasf_inst_t *inst) {
    if (inst == nullptr || inst->kind != kind) return KREF_ERR_BAD_ARG;
    kref::destroy_instance(inst);
    return 0;
}

}  // namespace

namespace kref {

void destroy_instance(rasf_inst *inst) {
    delete inst;
    --registry().live_instances;
}

vogno release_instance(kref_kind_t kind, rasf_inst *inst, bool &released) {
    static constexpr const char *kOps[] = {"rasf_free_cmp_instance", "rasf_free_set_instance",
                                           "rasf_free_retriever_instance"};
    released = false;
    if (kind < KREF_CMP || kind > KREF_RETR) return KREF_ERR_BAD_ARG;
    KREF_ENTER(kOps[kind]);
    const vogno st = free_instance(kind, inst);
    released = st == 0;
    return KREF_RESULT(st);
}

}  // namespace kref

namespace {

vogno new_instance(kref_kind_t kind, rasf_inst_t **inst, uint32_t count, char **params,
                   void **slots, void *ctx) {
    if (inst == nullptr) return KREF_ERR_BAD_ARG;
    *inst = new rasf_inst{kind, count, params, slots, ctx};
    ++kref::registry().live_instances;
    return 0;
}

// Attaches one function (or text) to an instance of the right kind.
template <typename T>
vogno attach(rasf_inst_t *inst, kref_kind_t kind, T rasf_inst::*field, T value) {
    if (inst == nullptr || inst->kind != kind) return KREF_ERR_BAD_ARG;
    inst->*field = value;
    return 0;
}

}  // namespace

extern "C" {

vogno rasf_new_cmp_instance(rasf_inst_t **inst, uint32_t count, char **params, void **slots,
                            void *ctx) {
    KREF_ENTER("rasf_new_cmp_instance", std::int64_t{count});
    return KREF_RESULT(new_instance(KREF_CMP, inst, count, params, slots, ctx));
}

vogno rasf_kela_add_cmp_instance_function_cmp(rasf_inst_t *inst, rasf_cmp_fn fn) {
    KREF_ENTER("rasf_kela_add_cmp_instance_function_cmp");
    return KREF_RESULT(attach(inst, KREF_CMP, &rasf_inst::cmp, fn));
}

vogno rasf_kela_add_cmp_instance_function_cmp_async(rasf_inst_t *inst, rasf_cmp_async_fn fn) {
    KREF_ENTER("rasf_kela_add_cmp_instance_function_cmp_async");
    return KREF_RESULT(attach(inst, KREF_CMP, &rasf_inst::cmp_async, fn));
}

vogno rasf_kela_add_cmp_instance_function_print(rasf_inst_t *inst, rasf_print_fn fn) {
    KREF_ENTER("rasf_kela_add_cmp_instance_function_print");
    return KREF_RESULT(attach(inst, KREF_CMP, &rasf_inst::print, fn));
}

vogno rasf_kela_add_cmp_instance_function_print_ctx(rasf_inst_t *inst, const char *print_ctx) {
    KREF_ENTER("rasf_kela_add_cmp_instance_function_print_ctx", print_ctx);
    return KREF_RESULT(attach(inst, KREF_CMP, &rasf_inst::print_ctx, print_ctx));
}

vogno rasf_kela_add_cmp_instance_function_update(rasf_inst_t *inst, rasf_update_fn fn) {
    KREF_ENTER("rasf_kela_add_cmp_instance_function_update");
    return KREF_RESULT(attach(inst, KREF_CMP, &rasf_inst::update, fn));
}

vogno rasf_free_cmp_instance(rasf_inst_t *inst) {
    bool released = false;
    return kref::release_instance(KREF_CMP, inst, released);
}

vogno rasf_new_set_instance(rasf_inst_t **inst, uint32_t count, char **params, void **slots,
                            void *ctx) {
    KREF_ENTER("rasf_new_set_instance", std::int64_t{count});
    return KREF_RESULT(new_instance(KREF_SET, inst, count, params, slots, ctx));
}

vogno rasf_kela_add_set_instance_function_set(rasf_inst_t *inst, rasf_set_fn fn) {
    KREF_ENTER("rasf_kela_add_set_instance_function_set");
    return KREF_RESULT(attach(inst, KREF_SET, &rasf_inst::set, fn));
}

vogno rasf_kela_add_set_instance_function_print(rasf_inst_t *inst, rasf_set_print_fn fn) {
    KREF_ENTER("rasf_kela_add_set_instance_function_print");
    return KREF_RESULT(attach(inst, KREF_SET, &rasf_inst::set_print, fn));
}

vogno rasf_free_set_instance(rasf_inst_t *inst) {
    bool released = false;
    return kref::release_instance(KREF_SET, inst, released);
}

vogno rasf_new_retriever_instance(rasf_inst_t **inst, uint32_t count, char **params, void **slots,
                                  void *ctx) {
    KREF_ENTER("rasf_new_retriever_instance", std::int64_t{count});
    return KREF_RESULT(new_instance(KREF_RETR, inst, count, params, slots, ctx));
}

vogno rasf_kela_add_retriever_instance_function_retrieve(rasf_inst_t *inst, rasf_retrieve_fn fn) {
    KREF_ENTER("rasf_kela_add_retriever_instance_function_retrieve");
    return KREF_RESULT(attach(inst, KREF_RETR, &rasf_inst::retrieve, fn));
}

vogno rasf_free_retriever_instance(rasf_inst_t *inst) {
    bool released = false;
    return kref::release_instance(KREF_RETR, inst, released);
}

vogno kref_inst_get(const rasf_inst_t *inst, kref_inst_info_t *out) {
    if (inst == nullptr || out == nullptr) return KREF_ERR_BAD_ARG;
    *out = {inst->kind, inst->count,     inst->params,  inst->slots,     inst->ctx,
            inst->cmp,  inst->cmp_async, inst->print,   inst->print_ctx, inst->update,
            inst->set,  inst->set_print, inst->retrieve};
    return 0;
}

}  // extern "C"
