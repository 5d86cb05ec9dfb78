/* SPDX-License-Identifier: Apache-2.0 */
/*
 * Platform attribute framework.
 *
 * The policy engine's attribute framework owns attributes, their operators,
 * setters and retrievers, the argument-type lists of those, and compiled
 * instances.  The handles below are opaque: a client stores them and passes
 * them back, it never looks inside.
 *
 * Ownership: an argument-type list belongs to the framework once an
 * rasf_kela_add_*_args call that takes it succeeds; before that its creator
 * frees it with rasf_args_free().  Releasing an instance never releases the
 * instance context given to rasf_new_*_instance(): that is the business of
 * the operator's free function.
 */
#ifndef KELA_PLATFORM_RASF_H
#define KELA_PLATFORM_RASF_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#ifndef VOGNO_T_DEFINED
#define VOGNO_T_DEFINED
typedef uint32_t vogno;
#endif

typedef struct rasf_attr rasf_attr_t; /* a registered attribute */
typedef struct rasf_args rasf_args_t; /* an argument-type list */
typedef struct rasf_inst rasf_inst_t; /* a compiled instance */

/* ---- Callbacks the framework calls --------------------------------------
 *
 * `desc` is the context registered with the function (normally the client's
 * attribute descriptor); `ctx` is the instance context given when the
 * instance was made.  `params` is the parameter vector (a null entry is a
 * policy variable), `slots` the parallel value slots (null for a variable,
 * otherwise framework storage of at least RASF_SLOT_SIZE bytes, suitably
 * aligned for any scalar). */

#define RASF_SLOT_SIZE 32

/* Base print: a newly allocated text (caller frees), null on allocation failure. */
typedef char *(*rasf_base_print_fn)(void *fw_value, void *route, void *desc);
/* Base compare: stores the type's outcome. */
typedef vogno (*rasf_base_cmp_fn)(void *route_a, void *route_b, void *desc, int32_t *outcome);
/* Verifier: on failure may store a newly allocated message in *msg (caller frees). */
typedef vogno (*rasf_verify_fn)(uint32_t count, char **params, void *desc, char **msg);
/* Constructor: on success stores the new instance in *inst. */
typedef vogno (*rasf_construct_fn)(uint32_t count, char **params, void **slots, void *desc,
                                   rasf_inst_t **inst);
/* Free function of an operator: releases an instance context (null accepted). */
typedef vogno (*rasf_free_fn)(void *ctx);
/* Instance compare: stores 1 for a match, 0 otherwise. */
typedef vogno (*rasf_cmp_fn)(void *route, uint32_t count, void **slots, void *ctx,
                             int32_t *outcome);
/* Asynchronous compare: as the compare, plus an argument the framework
 * defines and the 64-bit key of the evaluation. */
typedef vogno (*rasf_cmp_async_fn)(void *route, uint32_t count, void **slots, void *ctx,
                                   int32_t *outcome, void *fw_arg, uint64_t eval_key);
/* Update: called before the compare with the evaluation record. */
typedef vogno (*rasf_update_fn)(void *eval_rec, void *ctx, uint32_t count, char **params);
/* Instance print: renders the compiled operator; `print_ctx` is the text
 * registered with rasf_kela_add_cmp_instance_function_print_ctx(). */
typedef char *(*rasf_print_fn)(uint32_t fw_value, uint32_t count, char **params, void **slots,
                               const char *print_ctx);
/* Set: writes the value into the route record. */
typedef vogno (*rasf_set_fn)(void *route, uint32_t count, void **slots, void *ctx);
/* Set print: as the instance print, with the instance context as last argument. */
typedef char *(*rasf_set_print_fn)(uint32_t fw_value, uint32_t count, char **params, void **slots,
                                   void *ctx);
/* Retrieve: reads a 32-bit value from the route record. */
typedef vogno (*rasf_retrieve_fn)(void *route, void *fw_arg1, void *fw_arg2, uint32_t *out,
                                  void *ctx);

/* ---- Attribute registration --------------------------------------------- */

vogno rasf_kela_new(const char *name, void *reg_ctx, const char *value_type, const char *version,
                    rasf_attr_t **attr);
vogno rasf_kela_add_location(const char *location, rasf_attr_t *attr);
vogno rasf_kela_add_base_function_print(rasf_attr_t *attr, rasf_base_print_fn fn, void *desc);
vogno rasf_kela_add_base_function_cmp(rasf_attr_t *attr, rasf_base_cmp_fn fn, void *desc);

vogno rasf_kela_add_cmp(const char *op, rasf_attr_t *attr, rasf_verify_fn verify,
                        rasf_construct_fn construct, rasf_free_fn free_fn, void *desc);
vogno rasf_kela_add_cmp_location(const char *op, rasf_attr_t *attr, const char *location);
vogno rasf_kela_add_cmp_args(const char *op, rasf_attr_t *attr, rasf_args_t *args);

vogno rasf_kela_add_set(const char *setter, rasf_attr_t *attr, rasf_verify_fn verify,
                        rasf_construct_fn construct, rasf_free_fn free_fn, void *desc);
vogno rasf_kela_add_set_location(const char *setter, rasf_attr_t *attr, const char *location);
vogno rasf_kela_add_set_args(const char *setter, rasf_attr_t *attr, rasf_args_t *args);

/* The retriever has no name: `name` is null. */
vogno rasf_kela_add_retriever(const char *name, rasf_attr_t *attr, const char *value_type,
                              const char *version, rasf_verify_fn verify,
                              rasf_construct_fn construct, rasf_free_fn free_fn, void *desc);
vogno rasf_kela_add_retriever_location(const char *name, rasf_attr_t *attr, const char *location);
vogno rasf_kela_add_retriever_args(const char *name, rasf_attr_t *attr, rasf_args_t *args);

/* ---- Argument-type lists ------------------------------------------------ */

vogno rasf_args_new(rasf_args_t **args);
/* One argument of the type. */
vogno rasf_args_single_add(rasf_args_t *args, const char *type, const char *version);
/* An open-ended run of arguments of the type, at least `lower` of them. */
vogno rasf_args_infinite_add(rasf_args_t *args, const char *type, const char *version,
                             int32_t lower);
/* A run of between `lower` and `upper` arguments of the type. */
vogno rasf_args_n_add(rasf_args_t *args, const char *type, const char *version, int32_t lower,
                      int32_t upper);
vogno rasf_args_free(rasf_args_t *args);

/* ---- Compiled instances ------------------------------------------------- */

vogno rasf_new_cmp_instance(rasf_inst_t **inst, uint32_t count, char **params, void **slots,
                            void *ctx);
vogno rasf_kela_add_cmp_instance_function_cmp(rasf_inst_t *inst, rasf_cmp_fn fn);
vogno rasf_kela_add_cmp_instance_function_cmp_async(rasf_inst_t *inst, rasf_cmp_async_fn fn);
vogno rasf_kela_add_cmp_instance_function_print(rasf_inst_t *inst, rasf_print_fn fn);
vogno rasf_kela_add_cmp_instance_function_print_ctx(rasf_inst_t *inst, const char *print_ctx);
vogno rasf_kela_add_cmp_instance_function_update(rasf_inst_t *inst, rasf_update_fn fn);
vogno rasf_free_cmp_instance(rasf_inst_t *inst);

vogno rasf_new_set_instance(rasf_inst_t **inst, uint32_t count, char **params, void **slots,
                            void *ctx);
vogno rasf_kela_add_set_instance_function_set(rasf_inst_t *inst, rasf_set_fn fn);
vogno rasf_kela_add_set_instance_function_print(rasf_inst_t *inst, rasf_set_print_fn fn);
vogno rasf_free_set_instance(rasf_inst_t *inst);

vogno rasf_new_retriever_instance(rasf_inst_t **inst, uint32_t count, char **params, void **slots,
                                  void *ctx);
vogno rasf_kela_add_retriever_instance_function_retrieve(rasf_inst_t *inst, rasf_retrieve_fn fn);
vogno rasf_free_retriever_instance(rasf_inst_t *inst);

#ifdef __cplusplus
}
#endif

#endif /* KELA_PLATFORM_RASF_H */
