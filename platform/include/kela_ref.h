/* SPDX-License-Identifier: Apache-2.0 */
/*
 * Reference platform: the attribute framework as a small working policy
 * engine.
 *
 * The rasf_* operations (lib/platform/rasf.h) keep what client modules
 * register: attributes, their locations and base functions, operators,
 * setters and retrievers with their locations and argument-type lists.  This
 * header is the engine side of the same framework: look registered things
 * up, compile a statement (build its parameter vector and value slots from
 * the registered argument-type list, verify, construct), evaluate it against
 * route records, and release it.
 *
 * Valid C11 and C++.
 */
#ifndef KELA_REF_H
#define KELA_REF_H

#include <stddef.h>
#include <stdint.h>

#include "rasf.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Statuses of the reference framework's own domain (component 1500). */
#define KREF_COMPONENT 1500u
#define KREF_ERR(n) ((vogno)(0x40000000u | (KREF_COMPONENT << 15) | ((uint32_t)(n) << 9)))
#define KREF_ERR_BAD_ARG KREF_ERR(1)    /* a required argument is null or malformed */
#define KREF_ERR_NOT_FOUND KREF_ERR(2)  /* no such attribute, operator, setter or retriever */
#define KREF_ERR_EXISTS KREF_ERR(3)     /* already registered */
#define KREF_ERR_LOCATION KREF_ERR(4)   /* location not declared for the attribute / not allowed */
#define KREF_ERR_NO_MEMORY KREF_ERR(5)  /* allocation failed */
#define KREF_ERR_ARGS_OWNED KREF_ERR(6) /* argument list already attached */
#define KREF_ERR_NO_FUNC KREF_ERR(7)    /* the instance has no function for this use */
#define KREF_ERR_PARAMS KREF_ERR(8)     /* parameters do not fit the argument-type list */

/* What a statement uses of an attribute. */
typedef enum kref_kind {
    KREF_CMP = 0, /* comparison operator */
    KREF_SET = 1, /* setter */
    KREF_RETR = 2 /* retriever (has no name) */
} kref_kind_t;

/* One argument-type list entry. */
typedef enum kref_arg_kind {
    KREF_ARG_SINGLE = 0,   /* exactly one argument */
    KREF_ARG_INFINITE = 1, /* an open-ended run, at least `lower` */
    KREF_ARG_N = 2         /* a run of `lower` to `upper` */
} kref_arg_kind_t;

typedef struct kref_arg_info {
    kref_arg_kind_t kind;
    const char *type;
    const char *version;
    int32_t lower;
    int32_t upper;
} kref_arg_info_t;

/* A registered operator, setter or retriever. */
typedef struct kref_op_info {
    const char *name; /* null for the retriever */
    rasf_verify_fn verify;
    rasf_construct_fn construct;
    rasf_free_fn free_fn;
    void *desc;             /* context registered with it */
    const char *value_type; /* retriever only, else null */
    const char *version;    /* retriever only, else null */
    size_t n_locations;
    const char *const *locations; /* in the order added, duplicates kept */
    const rasf_args_t *args;      /* null until attached */
} kref_op_info_t;

/* A compiled instance as the framework keeps it. */
typedef struct kref_inst_info {
    kref_kind_t kind;
    uint32_t count;
    char **params;
    void **slots;
    void *ctx;
    rasf_cmp_fn cmp;
    rasf_cmp_async_fn cmp_async;
    rasf_print_fn print;
    const char *print_ctx;
    rasf_update_fn update;
    rasf_set_fn set;
    rasf_set_print_fn set_print;
    rasf_retrieve_fn retrieve;
} kref_inst_info_t;

/* ---- Registry ----------------------------------------------------------- */

rasf_attr_t *kref_attr_find(const char *name);
size_t kref_attr_count(void);
rasf_attr_t *kref_attr_at(size_t i); /* in registration order */
const char *kref_attr_name(const rasf_attr_t *attr);
const char *kref_attr_value_type(const rasf_attr_t *attr);
void *kref_attr_reg_ctx(const rasf_attr_t *attr);
size_t kref_attr_location_count(const rasf_attr_t *attr);
const char *kref_attr_location_at(const rasf_attr_t *attr, size_t i);
/* Base functions; null when not registered. */
rasf_base_print_fn kref_attr_base_print(const rasf_attr_t *attr, void **desc);
rasf_base_cmp_fn kref_attr_base_cmp(const rasf_attr_t *attr, void **desc);
/* Operators, setters or retrievers of one kind, in registration order. */
size_t kref_attr_op_count(const rasf_attr_t *attr, kref_kind_t kind);
vogno kref_attr_op_at(const rasf_attr_t *attr, kref_kind_t kind, size_t i, kref_op_info_t *out);
/* By name; `name` null finds the retriever. */
vogno kref_attr_op(const rasf_attr_t *attr, kref_kind_t kind, const char *name,
                   kref_op_info_t *out);

size_t kref_args_count(const rasf_args_t *args);
vogno kref_args_at(const rasf_args_t *args, size_t i, kref_arg_info_t *out);

vogno kref_inst_get(const rasf_inst_t *inst, kref_inst_info_t *out);

/* Objects alive now: instances made and not freed, argument lists made and
 * neither freed nor attached. */
size_t kref_live_instances(void);
size_t kref_live_args(void);

/* Forgets every registered attribute and releases what the framework owns.
 * Compiled statements must have been freed before. */
void kref_reset(void);

/* ---- Statements --------------------------------------------------------- */

/* A parameter item as a policy writes it.  Items are matched against the
 * argument-type list in order: a single argument takes one item and adds its
 * texts as they are; an open-ended run takes every remaining item and makes
 * each one segment: a header "arg<i>:<n>" followed by the item's n texts;
 * an n-run takes up to `upper` items, their texts as they are.  Items left
 * over are appended as they are, so a verifier sees what the policy wrote.
 * A null text is a policy variable: its value slot is null. */
typedef struct kref_item {
    uint32_t n;
    const char *const *texts;
} kref_item_t;

/* The evaluation record handed to update functions. */
typedef struct kref_eval_rec {
    uint64_t session; /* offset 0 */
    uint16_t client;  /* offset 8 */
    uint8_t afi;      /* offset 10 */
    uint8_t reserved[5];
    uint64_t key; /* offset 16: identifies the evaluation */
} kref_eval_rec_t;

typedef struct kref_stmt kref_stmt_t;

/* Compiles a statement: finds the attribute and its operator, setter or
 * retriever (`name` null for the retriever), checks that it may be used at
 * `location` (null: anywhere), builds the parameter vector and value slots,
 * calls the verifier (its message, if any, goes to *msg when msg is not null;
 * the caller frees it) and then the constructor.  Returns the first failing
 * status; *out is set only on success. */
vogno kref_compile(const char *attr, kref_kind_t kind, const char *name, const char *location,
                   size_t n_items, const kref_item_t *items, char **msg, kref_stmt_t **out);

/* Evaluates a comparison: calls the update function first when the instance
 * has one (with `rec`, which may be null), then the compare (or the
 * asynchronous compare with rec's key). */
vogno kref_eval(kref_stmt_t *stmt, void *route, const kref_eval_rec_t *rec, int32_t *outcome);
/* The evaluation with key `key` is over: the requests it made through
 * asynchronous operators are withdrawn and the key leaves their request
 * trees, so a later evaluation with the same key asks afresh.  kref_eval
 * does this by itself for a thread's previous key when the thread evaluates
 * under another key, and for its last key when the thread ends; call it
 * when a key's evaluation is over and the thread goes on without another
 * one, or for requests registered with the asynchronous client directly.
 * A key that another thread is still evaluating is released when that
 * thread moves on. */
void kref_eval_release(uint64_t key);
/* Applies a setter. */
vogno kref_apply(kref_stmt_t *stmt, void *route);
/* Runs a retriever. */
vogno kref_retrieve(kref_stmt_t *stmt, void *route, uint32_t *out);
/* The instance's own text (instance print with its print context, or set
 * print); null when it has none.  The caller frees it. */
char *kref_stmt_print(const kref_stmt_t *stmt);
/* Releases the instance context through the free function registered with
 * the operator (if any), then the instance, vector and slots.  Null is
 * accepted. */
void kref_stmt_free(kref_stmt_t *stmt);

kref_kind_t kref_stmt_kind(const kref_stmt_t *stmt);
rasf_inst_t *kref_stmt_instance(const kref_stmt_t *stmt);
uint32_t kref_stmt_count(const kref_stmt_t *stmt);
char **kref_stmt_params(const kref_stmt_t *stmt);
void **kref_stmt_slots(const kref_stmt_t *stmt);

/* Base functions of an attribute, through the registered callbacks. */
char *kref_attr_print(const rasf_attr_t *attr, void *route);
vogno kref_attr_compare(const rasf_attr_t *attr, void *route_a, void *route_b, int32_t *outcome);

#ifdef __cplusplus
}
#endif

#endif /* KELA_REF_H */
