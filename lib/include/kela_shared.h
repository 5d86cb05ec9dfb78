/* SPDX-License-Identifier: Apache-2.0 */
/*
 * kela-shared: generic attribute types for the route-policy engine.
 *
 * A client module (BGP, RIB, ...) calls one registration function per
 * attribute it defines, passing a descriptor that says where the value lives
 * in the client's route record.  The library declares the attribute to the
 * attribute framework with the operators, setter and retriever of its type,
 * and supplies every callback the framework then calls.
 *
 * Conventions
 *  - Every function returns a vogno status (0 = success) and delivers results
 *    through out-parameters, except print functions, which return a newly
 *    allocated text (null only when allocation fails).
 *  - Memory handed to the caller comes from malloc and is released with free.
 *  - Descriptors and route records belong to the client and must outlive
 *    their use; a descriptor must stay at the same address for as long as its
 *    attribute is registered.
 *  - The library takes no lock.  The first registration of the process must
 *    not run concurrently with another registration.  Compiled instances may
 *    be evaluated from any number of threads at once.  Constructing "async"
 *    instances of rib-has-route must be serialised by the framework: each
 *    one initialises the one process-wide request tree head
 *    (kela_eecompi_rhr_info_list) and copies it into its context, so two at
 *    once may leave an instance with another's tree.
 *  - Null pointers are answered, not dereferenced, except where noted below.
 *    By role (ERR_ stands for KEL_SHARED_ERR_):
 *      verifiers       a null message pointer is accepted (no message); a
 *                      null vector is ERR_NULL_INPUT (prefix "assign":
 *                      ERR_NULL_PARAM; the enumeration, bit-masked and IPv4
 *                      retrievers: ERR_VARIABLE); a null descriptor is
 *                      ERR_NULL_RESULT (32-bit "matches-any", MAC) or
 *                      ERR_NO_PARAM_ARRAY (enumeration, bit-masked, flag64,
 *                      IPv4), not read by the others
 *      constructors    a null instance pointer is ERR_NULL_RESULT and
 *                      nothing is built
 *      base print      a text naming what is missing; null when the
 *                      bit-masked or flag64 descriptor or its print
 *                      callback is
 *      base compare    a null route ERR_NULL_INPUT; a null descriptor or
 *                      outcome pointer ERR_NULL_INPUT (integers,
 *                      enumeration, bit-masked; a prefix descriptor) or
 *                      ERR_NULL_RESULT (IPv4, MAC, a prefix outcome); a
 *                      MAC descriptor without get_value ERR_NULL_RESULT
 *      cmp_get_val     any null ERR_NULL_RESULT
 *      free functions  a null context is accepted (0)
 *      converters      a null text is ERR_NULL_PARAM for numbers, names and
 *                      MAC texts, ERR_NULL_INPUT for addresses and prefixes,
 *                      ERR_BAD_VALUE for the match-entry converters; a null
 *                      enumeration descriptor ERR_NO_PARAM_ARRAY; outputs
 *                      marked "may be null" are optional, other null
 *                      outputs are ERR_NULL_INPUT (address and prefix
 *                      parts) or ERR_NULL_RESULT (match entries, merged
 *                      locations)
 *    Not to be called with null: the bytes of shared_kela_ip_check_prefix
 *    and of the MAC converters, the MAC converter's output, the arguments
 *    of shared_kela_rhr_match, the query of shared_kela_decode_pfxs (the
 *    process stops), and the segment list of every kel_shared_sl_ function
 *    but create (null vector: null), reset, segment_reset (-1) and destroy.
 *
 * This header is valid C11 and C++.
 */
#ifndef KELA_SHARED_H
#define KELA_SHARED_H

/* Version of this header and of the library built with it.  These three
 * lines are the project's only record of its version: the build reads them. */
#define KELA_SHARED_VERSION_MAJOR 0
#define KELA_SHARED_VERSION_MINOR 1
#define KELA_SHARED_VERSION_PATCH 0

#include <stddef.h>
#include <stdint.h>

#include "ip_addr.h"
#include "ip_rib.h"
#include "rasf.h"
#include "vup_msg.h"

#ifdef __cplusplus
extern "C" {
#endif

#if defined(KELA_SHARED_BUILDING) && defined(__GNUC__)
#define KELA_SHARED_API __attribute__((visibility("default")))
#else
#define KELA_SHARED_API
#endif

#ifndef VOGNO_T_DEFINED
#define VOGNO_T_DEFINED
/* Status of every operation: 0 for success. */
typedef uint32_t vogno;
#endif

/* ---- Error domain ------------------------------------------------------- */

/* Component number of the library's error domain. */
#define KEL_SHARED_COMPONENT 1801u
/* Name of the error-text library handed to the error-code library. */
#define KEL_SHARED_ERR_DLL_NAME "vogno/libkelshared_error.dll"

/* Status N of the library's domain: 0x40000000 | (1801 << 15) | (N << 9). */
#define KEL_SHARED_ERR(n) ((vogno)(0x43848000u + (uint32_t)(n)*0x200u))

#define KEL_SHARED_ERR_BAD_AFI KEL_SHARED_ERR(1)             /* 0x43848200 */
#define KEL_SHARED_ERR_NO_PARAM_ARRAY KEL_SHARED_ERR(2)      /* 0x43848400 */
#define KEL_SHARED_ERR_NULL_RESULT KEL_SHARED_ERR(3)         /* 0x43848600 */
#define KEL_SHARED_ERR_PARAM_COUNT KEL_SHARED_ERR(4)         /* 0x43848800 */
#define KEL_SHARED_ERR_NULL_PARAM KEL_SHARED_ERR(5)          /* 0x43848A00 */
#define KEL_SHARED_ERR_BAD_VALUE KEL_SHARED_ERR(6)           /* 0x43848C00 */
#define KEL_SHARED_ERR_NULL_INPUT KEL_SHARED_ERR(7)          /* 0x43848E00 */
#define KEL_SHARED_ERR_BAD_LENGTH KEL_SHARED_ERR(8)          /* 0x43849000 */
#define KEL_SHARED_ERR_ABOVE_MAX KEL_SHARED_ERR(9)           /* 0x43849200 */
#define KEL_SHARED_ERR_BELOW_MIN KEL_SHARED_ERR(10)          /* 0x43849400 */
#define KEL_SHARED_ERR_NO_MEMORY KEL_SHARED_ERR(11)          /* 0x43849600 */
#define KEL_SHARED_ERR_PARAMS_NOT_ALLOWED KEL_SHARED_ERR(12) /* 0x43849800 */
#define KEL_SHARED_ERR_VARIABLE KEL_SHARED_ERR(13)           /* 0x43849A00 */
#define KEL_SHARED_ERR_NO_LOCATIONS KEL_SHARED_ERR(14)       /* 0x43849C00 */
#define KEL_SHARED_ERR_HOST_BITS KEL_SHARED_ERR(15)          /* 0x43849E00 */
#define KEL_SHARED_ERR_UNUSED_16 KEL_SHARED_ERR(16)          /* 0x4384A000, never raised */
#define KEL_SHARED_ERR_TREE_INSERT KEL_SHARED_ERR(17)        /* 0x4384A200 */

/* Statuses of other domains that the library passes on as its own result. */
/* The routing-table connection serves another address family than the prefix. */
#define KEL_SHARED_FOREIGN_RIB_AFI_MISMATCH ((vogno)0xA2D28400u)
/* The request-tree allocation callback could not allocate. */
#define KEL_SHARED_FOREIGN_BTREE_NO_MEMORY ((vogno)0xC2C60200u)

/* ---- Library start-up --------------------------------------------------- */

/* Registers the library's error domain the first time it is called; later
 * calls do nothing.  A failed registration is logged once and not retried.
 * Every registration function calls it first. */
KELA_SHARED_API void kela_shared_init_if_needed(void);

/* The message record of "Unable to register vogno dll %s because %s", logged
 * when the error domain cannot be registered. */
KELA_SHARED_API extern const vup_msg_rec_td vup_msg_rec_kel_shared_err_dll_reg;
KELA_SHARED_API const vup_msg_rec_td *vup_msg_rec_kel_shared_err_dll_reg_getfn(void);

/* ---- Locations ---------------------------------------------------------- */

/* Merges four null-terminated location lists (operator, setter, retriever,
 * attribute; a null list is empty) into one newly allocated list without
 * duplicates, first occurrence first.  The merged list holds the callers'
 * pointers; free only the array.  KEL_SHARED_ERR_NO_LOCATIONS when the four
 * lists are empty, KEL_SHARED_ERR_NO_MEMORY when the array cannot be made;
 * *out is null then. */
KELA_SHARED_API vogno kela_shared_merge_locations(const char ***out, const char *const *op_locs,
                                                  const char *const *set_locs,
                                                  const char *const *retr_locs,
                                                  const char *const *attr_locs);

/* ---- Parameter segment list --------------------------------------------- */

/*
 * List operands reach verifiers and constructors as one flat parameter
 * vector made of segments: a header "arg<index>:<count>" followed by exactly
 * <count> argument texts, for example
 *     arg0:1  10  arg1:2  20  30  arg2:1  40
 * The segment list is a cursor over such a vector.  It parses only the
 * headers (scan format "arg%d:%d": blanks and a sign before each number are
 * accepted, anything after the second number is ignored; only the first
 * header's index is checked, it must be 0).  The vector is neither copied nor
 * owned.
 */
typedef struct kel_shared_sl_td {
    int32_t count;     /* number of texts in the vector */
    char **vector;     /* the parameter vector */
    int32_t seg_start; /* index of the current segment's header */
    int32_t seg_end;   /* one past the current segment's last argument */
    int32_t cursor;    /* index of the current argument */
} kel_shared_sl_td;

/* A new list positioned on segment 0, or null when allocation fails or the
 * vector does not start with a well-formed segment 0.  Free with destroy. */
KELA_SHARED_API kel_shared_sl_td *kel_shared_sl_create(uint32_t count, char **vector);
/* Back to segment 0; its argument count, or -1 (record unchanged). */
KELA_SHARED_API int32_t kel_shared_sl_reset(kel_shared_sl_td *sl);
/* Frees the record (null accepted); the vector is not touched. */
KELA_SHARED_API void kel_shared_sl_destroy(kel_shared_sl_td *sl);
/* To the segment after the current one; its argument count, or -1 (record
 * unchanged) when there is none, its header does not parse, or its
 * arguments would run past the vector. */
KELA_SHARED_API int32_t kel_shared_sl_segment_next(kel_shared_sl_td *sl);
/* Cursor back to the first argument of the current segment; the segment's
 * argument count, or -1.  Null accepted. */
KELA_SHARED_API int32_t kel_shared_sl_segment_reset(kel_shared_sl_td *sl);
/* The argument under the cursor, or null at the segment end. */
KELA_SHARED_API char *kel_shared_sl_argument(kel_shared_sl_td *sl);
/* 0-based position of the cursor inside its segment. */
KELA_SHARED_API int32_t kel_shared_sl_argument_index(kel_shared_sl_td *sl);
/* Advances the cursor (never past the segment end) and returns the argument
 * under it, or null at the segment end. */
KELA_SHARED_API char *kel_shared_sl_argument_next(kel_shared_sl_td *sl);

/* ---- Unsigned integer attributes (8, 16 and 32 bits) -------------------- */

/* The value is the `index`-th element of the attribute's width in the route
 * record (byte offset index, 2 x index or 4 x index).  Constants outside
 * [min, max] are refused when a policy is verified. */
typedef struct shared_kela_uint8_desc_td {
    const char *name;
    int64_t index;
    uint8_t min;
    uint8_t max;
} shared_kela_uint8_desc_td;

typedef struct shared_kela_uint16_desc_td {
    const char *name;
    int64_t index;
    uint16_t min;
    uint16_t max;
} shared_kela_uint16_desc_td;

typedef struct shared_kela_uint32_desc_td {
    const char *name;
    int64_t index;
    uint32_t min;
    uint32_t max;
    /* Never read in the client's record; set in the private copy that a
     * "matches-any" instance keeps. */
    void *value_set;
} shared_kela_uint32_desc_td;

/*
 * Each width exports the same family of functions (uint8 shown as uint32):
 *
 *  cvt_string       decimal text -> 32-bit value: strtoul in base 10 (leading
 *                   blanks and a sign accepted, a minus negates in unsigned
 *                   arithmetic), low 32 bits kept, no range check; with
 *                   `strict` nothing may follow the number
 *                   (KEL_SHARED_ERR_BAD_VALUE).  A null text is
 *                   KEL_SHARED_ERR_NULL_PARAM.
 *  base_print       the route's value as decimal text
 *  base_cmp         outcome 1 when two route records hold the same value
 *  cmp_get_val      the route's value, zero-extended to 32 bits
 *  range_error_string
 *                   "Value (%u) not within acceptable range: %u - %u"
 *  match_cons       constructor shared by "exact-match", "le" and "ge",
 *                   taking the instance compare function to attach
 *  set_assign_cons  constructor of the setter "assign"
 *  retr_veri/cons   verifier and constructor of the built-in retriever
 *  shared_base_init, range_base_init
 *                   registration with the descriptor's own [min, max]
 *  base_init_v2     sets [min, max] to the whole width, then registers
 *  base_init        base_init_v2 with the default location lists: operators,
 *                   retriever and attribute at "import" and "export", the
 *                   setter at "export"
 *
 * Registration writes one message into `errbuf` (at most `errlen` bytes,
 * always terminated when errlen > 0) when a framework call fails, and returns
 * that call's status.
 */
/* uint8 */
KELA_SHARED_API vogno shared_kela_uint8_cvt_string(const char *text, void *unused, int strict,
                                                   uint32_t *out);
KELA_SHARED_API char *shared_kela_uint8_base_print(void *fw_value, void *route, void *desc);
KELA_SHARED_API vogno shared_kela_uint8_base_cmp(void *route_a, void *route_b, void *desc,
                                                 int32_t *outcome);
KELA_SHARED_API vogno shared_kela_uint8_cmp_get_val(const void *route,
                                                    const shared_kela_uint8_desc_td *desc,
                                                    uint32_t *out);
KELA_SHARED_API char *kela_uint8_range_error_string(uint32_t value, uint32_t min, uint32_t max);
KELA_SHARED_API vogno shared_kela_uint8_match_cons(uint32_t count, char **params, void **slots,
                                                   void *ctx, rasf_inst_t **inst, rasf_cmp_fn cmp);
KELA_SHARED_API vogno shared_kela_uint8_set_assign_cons(uint32_t count, char **params, void **slots,
                                                        void *ctx, rasf_inst_t **inst);
KELA_SHARED_API vogno shared_kela_uint8_retr_veri(uint32_t count, char **params, void *desc,
                                                  char **msg);
KELA_SHARED_API vogno shared_kela_uint8_retr_cons(uint32_t count, char **params, void **slots,
                                                  void *ctx, rasf_inst_t **inst);
KELA_SHARED_API vogno shared_kela_uint8_shared_base_init(
    void *reg_ctx, char *errbuf, int32_t errlen, shared_kela_uint8_desc_td *desc,
    const char *const *op_locs, const char *const *set_locs, const char *const *retr_locs,
    const char *const *attr_locs);
KELA_SHARED_API vogno shared_kela_uint8_range_base_init(void *reg_ctx, char *errbuf, int32_t errlen,
                                                        shared_kela_uint8_desc_td *desc,
                                                        const char *const *op_locs,
                                                        const char *const *set_locs,
                                                        const char *const *retr_locs,
                                                        const char *const *attr_locs);
KELA_SHARED_API vogno shared_kela_uint8_base_init_v2(void *reg_ctx, char *errbuf, int32_t errlen,
                                                     shared_kela_uint8_desc_td *desc,
                                                     const char *const *op_locs,
                                                     const char *const *set_locs,
                                                     const char *const *retr_locs,
                                                     const char *const *attr_locs);
KELA_SHARED_API vogno shared_kela_uint8_base_init(void *reg_ctx, char *errbuf, int32_t errlen,
                                                  shared_kela_uint8_desc_td *desc);

/* uint16 */
KELA_SHARED_API vogno shared_kela_uint16_cvt_string(const char *text, void *unused, int strict,
                                                    uint32_t *out);
KELA_SHARED_API char *shared_kela_uint16_base_print(void *fw_value, void *route, void *desc);
KELA_SHARED_API vogno shared_kela_uint16_base_cmp(void *route_a, void *route_b, void *desc,
                                                  int32_t *outcome);
KELA_SHARED_API vogno shared_kela_uint16_cmp_get_val(const void *route,
                                                     const shared_kela_uint16_desc_td *desc,
                                                     uint32_t *out);
KELA_SHARED_API char *kela_uint16_range_error_string(uint32_t value, uint32_t min, uint32_t max);
KELA_SHARED_API vogno shared_kela_uint16_match_cons(uint32_t count, char **params, void **slots,
                                                    void *ctx, rasf_inst_t **inst, rasf_cmp_fn cmp);
KELA_SHARED_API vogno shared_kela_uint16_set_assign_cons(uint32_t count, char **params,
                                                         void **slots, void *ctx,
                                                         rasf_inst_t **inst);
KELA_SHARED_API vogno shared_kela_uint16_retr_veri(uint32_t count, char **params, void *desc,
                                                   char **msg);
KELA_SHARED_API vogno shared_kela_uint16_retr_cons(uint32_t count, char **params, void **slots,
                                                   void *ctx, rasf_inst_t **inst);
KELA_SHARED_API vogno shared_kela_uint16_shared_base_init(
    void *reg_ctx, char *errbuf, int32_t errlen, shared_kela_uint16_desc_td *desc,
    const char *const *op_locs, const char *const *set_locs, const char *const *retr_locs,
    const char *const *attr_locs);
KELA_SHARED_API vogno shared_kela_uint16_range_base_init(
    void *reg_ctx, char *errbuf, int32_t errlen, shared_kela_uint16_desc_td *desc,
    const char *const *op_locs, const char *const *set_locs, const char *const *retr_locs,
    const char *const *attr_locs);
KELA_SHARED_API vogno shared_kela_uint16_base_init_v2(void *reg_ctx, char *errbuf, int32_t errlen,
                                                      shared_kela_uint16_desc_td *desc,
                                                      const char *const *op_locs,
                                                      const char *const *set_locs,
                                                      const char *const *retr_locs,
                                                      const char *const *attr_locs);
KELA_SHARED_API vogno shared_kela_uint16_base_init(void *reg_ctx, char *errbuf, int32_t errlen,
                                                   shared_kela_uint16_desc_td *desc);

/* uint32 */
KELA_SHARED_API vogno shared_kela_uint32_cvt_string(const char *text, void *unused, int strict,
                                                    uint32_t *out);
KELA_SHARED_API char *shared_kela_uint32_base_print(void *fw_value, void *route, void *desc);
KELA_SHARED_API vogno shared_kela_uint32_base_cmp(void *route_a, void *route_b, void *desc,
                                                  int32_t *outcome);
KELA_SHARED_API vogno shared_kela_uint32_cmp_get_val(const void *route,
                                                     const shared_kela_uint32_desc_td *desc,
                                                     uint32_t *out);
KELA_SHARED_API char *kela_uint32_range_error_string(uint32_t value, uint32_t min, uint32_t max);
KELA_SHARED_API vogno shared_kela_uint32_match_cons(uint32_t count, char **params, void **slots,
                                                    void *ctx, rasf_inst_t **inst, rasf_cmp_fn cmp);
KELA_SHARED_API vogno shared_kela_uint32_set_assign_cons(uint32_t count, char **params,
                                                         void **slots, void *ctx,
                                                         rasf_inst_t **inst);
KELA_SHARED_API vogno shared_kela_uint32_retr_veri(uint32_t count, char **params, void *desc,
                                                   char **msg);
KELA_SHARED_API vogno shared_kela_uint32_retr_cons(uint32_t count, char **params, void **slots,
                                                   void *ctx, rasf_inst_t **inst);
KELA_SHARED_API vogno shared_kela_uint32_shared_base_init(
    void *reg_ctx, char *errbuf, int32_t errlen, shared_kela_uint32_desc_td *desc,
    const char *const *op_locs, const char *const *set_locs, const char *const *retr_locs,
    const char *const *attr_locs);
KELA_SHARED_API vogno shared_kela_uint32_range_base_init(
    void *reg_ctx, char *errbuf, int32_t errlen, shared_kela_uint32_desc_td *desc,
    const char *const *op_locs, const char *const *set_locs, const char *const *retr_locs,
    const char *const *attr_locs);
KELA_SHARED_API vogno shared_kela_uint32_base_init_v2(void *reg_ctx, char *errbuf, int32_t errlen,
                                                      shared_kela_uint32_desc_td *desc,
                                                      const char *const *op_locs,
                                                      const char *const *set_locs,
                                                      const char *const *retr_locs,
                                                      const char *const *attr_locs);
KELA_SHARED_API vogno shared_kela_uint32_base_init(void *reg_ctx, char *errbuf, int32_t errlen,
                                                   shared_kela_uint32_desc_td *desc);

/* "matches-any" of the 32-bit type: the route's value equals one of a list
 * of decimal constants, one single-argument segment per constant.  The
 * constructor compiles the list into a sorted value block kept in a private
 * copy of the descriptor (its value_set); the free function releases both. */
KELA_SHARED_API vogno shared_kela_uint32_cmp_any_veri(uint32_t count, char **params, void *desc,
                                                      char **msg);
KELA_SHARED_API vogno shared_kela_uint32_cmp_any_cons(uint32_t count, char **params, void **slots,
                                                      void *desc, rasf_inst_t **inst);
KELA_SHARED_API vogno shared_kela_uint32_cmp_any_free(void *ctx);

/* ---- Enumeration attribute ------------------------------------------------ */

/* One name of an enumeration; an entry whose name is null ends the table. */
typedef struct shared_kela_enum_name_td {
    int32_t value;
    const char *name;
} shared_kela_enum_name_td;

/* The value is the `index`-th 32-bit element of the route record; policies
 * name it by the table's names (compared without regard to case, the first
 * matching entry wins).  A null table has no entries. */
typedef struct shared_kela_enum_desc_td {
    const char *name;
    int64_t index;
    const shared_kela_enum_name_td *names;
} shared_kela_enum_desc_td;

/* Name to value; KEL_SHARED_ERR_BAD_VALUE for an unknown name. */
KELA_SHARED_API vogno shared_kela_enum_cvt_string(const char *text,
                                                  const shared_kela_enum_desc_td *desc,
                                                  void *unused, uint32_t *out);
/* The value's name, or "<< unknown enum %d >>". */
KELA_SHARED_API char *shared_kela_enum_base_print(void *fw_value, void *route, void *desc);
KELA_SHARED_API vogno shared_kela_enum_base_cmp(void *route_a, void *route_b, void *desc,
                                                int32_t *outcome);
KELA_SHARED_API vogno shared_kela_enum_cmp_match_veri(uint32_t count, char **params, void *desc,
                                                      char **msg);
KELA_SHARED_API vogno shared_kela_enum_cmp_match_cons(uint32_t count, char **params, void **slots,
                                                      void *desc, rasf_inst_t **inst);
KELA_SHARED_API vogno shared_kela_enum_set_assign_veri(uint32_t count, char **params, void *desc,
                                                       char **msg);
KELA_SHARED_API vogno shared_kela_enum_set_assign_cons(uint32_t count, char **params, void **slots,
                                                       void *desc, rasf_inst_t **inst);
KELA_SHARED_API vogno shared_kela_enum_retr_veri(uint32_t count, char **params, void *desc,
                                                 char **msg);
KELA_SHARED_API vogno shared_kela_enum_retr_cons(uint32_t count, char **params, void **slots,
                                                 void *desc, rasf_inst_t **inst);
/* Registers "exact-match", "assign" and the retriever. */
KELA_SHARED_API vogno shared_kela_enum_base_init_v2(void *reg_ctx, char *errbuf, int32_t errlen,
                                                    shared_kela_enum_desc_td *desc,
                                                    const char *const *op_locs,
                                                    const char *const *set_locs,
                                                    const char *const *retr_locs,
                                                    const char *const *attr_locs);

/* ---- Bit-masked attribute ----------------------------------------------- */

/* A 32-bit value word with the client's own text form, and a mask word:
 * "assign" writes the value word and ORs `mask` into the mask word. */
typedef struct shared_kela_bitmasked_desc_td {
    const char *name;
    void *cb_ctx; /* handed to the two callbacks */
    /* (framework value, route record, cb_ctx): a newly allocated text */
    char *(*print_value)(void *fw_value, void *route, void *cb_ctx);
    /* (text, cb_ctx, strict, where to store the value or null) */
    vogno (*parse_value)(const char *text, void *cb_ctx, int strict, uint32_t *out);
    int64_t index;      /* value word, in 32-bit words */
    int64_t mask_index; /* mask word, in 32-bit words */
    uint32_t mask;      /* this attribute's bits in the mask word */
    void *value_set;    /* left null; used in the private copy of "matches-any" */
} shared_kela_bitmasked_desc_td;

KELA_SHARED_API char *shared_kela_bitmasked_base_print(void *fw_value, void *route, void *desc);
KELA_SHARED_API vogno shared_kela_bitmasked_base_cmp(void *route_a, void *route_b, void *desc,
                                                     int32_t *outcome);
KELA_SHARED_API vogno shared_kela_bitmasked_cmp_match_veri(uint32_t count, char **params,
                                                           void *desc, char **msg);
KELA_SHARED_API vogno shared_kela_bitmasked_cmp_match_cons(uint32_t count, char **params,
                                                           void **slots, void *desc,
                                                           rasf_inst_t **inst);
KELA_SHARED_API vogno shared_kela_bitmasked_set_assign_veri(uint32_t count, char **params,
                                                            void *desc, char **msg);
KELA_SHARED_API vogno shared_kela_bitmasked_set_assign_cons(uint32_t count, char **params,
                                                            void **slots, void *desc,
                                                            rasf_inst_t **inst);
KELA_SHARED_API vogno shared_kela_bitmasked_retr_veri(uint32_t count, char **params, void *desc,
                                                      char **msg);
KELA_SHARED_API vogno shared_kela_bitmasked_retr_cons(uint32_t count, char **params, void **slots,
                                                      void *desc, rasf_inst_t **inst);
/* Registers "exact-match", "matches-any", "assign" and the retriever. */
KELA_SHARED_API vogno shared_kela_bitmasked_base_init_v2(
    void *reg_ctx, char *errbuf, int32_t errlen, shared_kela_bitmasked_desc_td *desc,
    const char *const *op_locs, const char *const *set_locs, const char *const *retr_locs,
    const char *const *attr_locs);

/* ---- 64-bit flag attribute ------------------------------------------------ */

/* A 64-bit word of flags that policies can only set, with "assign". */
typedef struct shared_kela_flag64_desc_td {
    const char *name;
    void *client_ctx; /* handed to parse as its second argument */
    /* (framework value, address of the route's flag word, descriptor) */
    char *(*print)(void *fw_value, uint64_t *flags, struct shared_kela_flag64_desc_td *desc);
    /* (text, client_ctx, where to store the mask or null): 0 when the text
     * names flags that can be set at this attach point */
    vogno (*parse)(const char *text, void *client_ctx, uint64_t *mask);
    uint64_t flag_offset; /* byte offset of the flag word in the route record */
    uint64_t mask;        /* the bits "assign" sets; written by the constructor */
} shared_kela_flag64_desc_td;

KELA_SHARED_API char *shared_kela_flag64_base_print(void *fw_value, void *route, void *desc);
KELA_SHARED_API vogno shared_kela_flag64_set_assign_veri(uint32_t count, char **params, void *desc,
                                                         char **msg);
KELA_SHARED_API vogno shared_kela_flag64_set_assign_cons(uint32_t count, char **params,
                                                         void **slots, void *desc,
                                                         rasf_inst_t **inst);
/* Registers the setter "assign" (no operator, no base compare, no
 * retriever). */
KELA_SHARED_API vogno shared_kela_flag64_base_init_v2(void *reg_ctx, char *errbuf, int32_t errlen,
                                                      shared_kela_flag64_desc_td *desc,
                                                      const char *const *op_locs,
                                                      const char *const *set_locs,
                                                      const char *const *retr_locs,
                                                      const char *const *attr_locs);

/* ---- IP addresses, prefixes and prefix match entries --------------------- */

/* Address families are the socket family numbers 2 (IPv4) and 10 (IPv6);
 * addresses are in network byte order, bit 0 is the most significant bit of
 * the first byte. */

/* A prefix value, as an attribute's value getter hands it over. */
typedef struct shared_kela_prefix_addr_td {
    uint8_t family;
    uint8_t *addr;      /* the address bytes (4 or 16) */
    uint8_t len;        /* prefix length in bits */
    uint32_t free_addr; /* non-zero: addr was allocated for this call; the consumer frees it */
} shared_kela_prefix_addr_td;

/* A prefix match entry.  Length form: address, length, ge, le.
 * Address/mask form (is_acl 1): address and a wildcard mask (a set bit
 * accepts any value there), ge and le; len 0.  The address is stored at the
 * end; the record is allocated for exactly the family's address bytes.  Its
 * owner frees mask (if set), then the record. */
typedef struct shared_kela_prefix_matchspec_td {
    uint8_t family;
    uint8_t len;
    uint8_t ge;
    uint8_t le;
    uint8_t *mask;
    uint32_t is_acl;
    uint8_t addr[];
} shared_kela_prefix_matchspec_td;

/* How a value is compared with an entry. */
typedef enum shared_kela_prefix_cmp_td {
    SHARED_KELA_PREFIX_CMP_MATCH = 1,   /* "pfxmatch": the value lies in the length range */
    SHARED_KELA_PREFIX_CMP_LONGER = 2,  /* "pfxlonger": strictly more specific */
    SHARED_KELA_PREFIX_CMP_ORLONGER = 3 /* "pfxorlonger": equal or more specific */
} shared_kela_prefix_cmp_td;

struct shared_kela_prefix_extra_op_td;
struct shared_kela_prefix_desc_td;

/* Value getter: fills `value` for the route; sets *more non-zero when the
 * route has a further value (the getter is then called again).  `first` is
 * the descriptor for the base functions and the operator's match context for
 * the prefix-set operators.  Statuses 16 and 19 mean "the route has no
 * value". */
typedef vogno (*shared_kela_prefix_get_value_fn)(void *first, void *route,
                                                 shared_kela_prefix_addr_td *value, uint32_t *more);
/* Value setter used by "assign": (descriptor, route, the value slot of the
 * "ip_addr_t" parameter, descriptor). */
typedef vogno (*shared_kela_prefix_set_value_fn)(struct shared_kela_prefix_desc_td *desc,
                                                 void *route, void *slot,
                                                 struct shared_kela_prefix_desc_td *desc2);

/* A client-defined operator without parameters. */
typedef struct shared_kela_prefix_extra_op_td {
    const char *name;
    const char *const *locations; /* its own location list */
    /* Called with its own entry; a non-zero *outcome means the route
     * satisfies the operator. */
    vogno (*test)(struct shared_kela_prefix_extra_op_td *self, void *route, uint8_t arg,
                  int32_t *outcome);
    uint8_t arg;
} shared_kela_prefix_extra_op_td;

/* Descriptor of a prefix attribute (for example a route's destination). */
typedef struct shared_kela_prefix_desc_td {
    const char *name;
    shared_kela_prefix_get_value_fn get_value;
    shared_kela_prefix_set_value_fn set_value;
    shared_kela_prefix_extra_op_td *ops;
    uint32_t n_ops;
} shared_kela_prefix_desc_td;

/* A prefix list decoded for a client's own queries. */
typedef struct shared_kela_pcl_query_pfx_ctx_t {
    shared_kela_prefix_matchspec_td **pfxs; /* owned, allocated by the library */
    int32_t count;                          /* elements in use */
    uint32_t flags;                         /* set by the client: bit 0 keep exact (len = ge = le),
                                               bit 1 keep ranges, bit 2 the parameters are in
                                               address/mask form (keep all) */
    vogno status;                           /* result of the last decoding */
} shared_kela_pcl_query_pfx_ctx_t;

#define SHARED_KELA_QUERY_EXACT 0x1u
#define SHARED_KELA_QUERY_RANGE 0x2u
#define SHARED_KELA_QUERY_ACL 0x4u

/* 32 or 128 for families 2 and 10; any other family stops the process. */
KELA_SHARED_API uint8_t shared_kela_prefix_key_len(uint8_t family);
/* 4 or 16 for families 2 and 10; any other family stops the process. */
KELA_SHARED_API uint8_t shared_kela_prefix_key_bytes(uint8_t family);

/* Parses an address (IPv6 when the text contains ':'); *maxlen becomes 32
 * or 128.  KEL_SHARED_ERR_BAD_VALUE when it is not an address. */
KELA_SHARED_API vogno shared_kela_prefix_cvt_string_to_ipaddr(const char *text, ip_addr_t *out,
                                                              uint32_t *maxlen);
/* Parses an address and a wildcard mask written as an address. */
KELA_SHARED_API vogno shared_kela_prefix_cvt_string_to_pfx_acl(const char *addr_text,
                                                               const char *mask_text,
                                                               ip_addr_t *addr, ip_addr_t *mask);
/* Parses address, length, ge and le; with `check`, numbers are strict and
 * ge <= le <= the family maximum is required (KEL_SHARED_ERR_BAD_LENGTH). */
KELA_SHARED_API vogno shared_kela_prefix_cvt_string_to_pfx(const char *addr_text,
                                                           const char *len_text,
                                                           const char *ge_text, const char *le_text,
                                                           ip_addr_t *addr, uint32_t *len,
                                                           uint32_t *ge, uint32_t *le, int check);
/* A newly allocated length-form entry. */
KELA_SHARED_API vogno shared_kela_prefix_cvt_string_to_matchspec(
    const char *addr_text, const char *len_text, const char *ge_text, const char *le_text,
    shared_kela_prefix_matchspec_td **out);
/* A newly allocated address/mask-form entry (no bound checks). */
KELA_SHARED_API vogno shared_kela_prefix_cvt_string_to_matchspec_acl(
    const char *addr_text, const char *mask_text, const char *ge_text, const char *le_text,
    shared_kela_prefix_matchspec_td **out);
/* The host prefix of an address; out->addr points into in (no copy). */
KELA_SHARED_API vogno shared_kela_prefix_ipaddr_to_pfxaddr(ip_addr_t *in,
                                                           shared_kela_prefix_addr_td *out);
/* "a.b.c.d/len" (or the address alone), newly allocated; "<<error prefix>>"
 * for what cannot be printed. */
KELA_SHARED_API char *shared_kela_prefix_cvt_pfx_to_string(const shared_kela_prefix_addr_td *pfx,
                                                           int addr_only);
KELA_SHARED_API char *shared_kela_prefix_base_print(void *fw_value, void *route, void *desc);
/* Outcome: memcmp of the two addresses of one family (lengths ignored), 0
 * across families. */
KELA_SHARED_API vogno shared_kela_prefix_base_cmp(void *route_a, void *route_b, void *desc,
                                                  int32_t *outcome);

/* 1 when the 128-bit prefix (addr, len) satisfies the range rule of
 * (spec_addr, spec_len, ge, le): the length lies in max(spec_len, ge) ..
 * max(spec_len, le) and every bit outside min(spec_len, ge) .. le equals the
 * entry's. */
KELA_SHARED_API int shared_kela_prefix_compare_ipv6_range(const uint8_t *addr, uint32_t len,
                                                          const uint8_t *spec_addr,
                                                          uint32_t spec_len, uint32_t ge,
                                                          uint32_t le);
/* 1 when the value is accepted by the length-form entry under the
 * kind.  The longer kinds store the family maximum in the entry's
 * le. */
KELA_SHARED_API int shared_kela_prefix_match(shared_kela_prefix_addr_td *value,
                                             shared_kela_prefix_matchspec_td *spec,
                                             shared_kela_prefix_cmp_td kind);

/* Registers a prefix attribute: "pfxmatch", "pfxlonger", "pfxorlonger" (each
 * a list of (address, length or mask, ge, le) segments), the setter
 * "assign" (one "ip_addr_t"), then the descriptor's extra operators; no
 * retriever. */
KELA_SHARED_API vogno shared_kela_prefix_base_init(void *reg_ctx, char *errbuf, int32_t errlen,
                                                   shared_kela_prefix_desc_td *desc,
                                                   const char *const *op_locs,
                                                   const char *const *set_locs,
                                                   const char *const *retr_locs,
                                                   const char *const *attr_locs);
KELA_SHARED_API vogno shared_kela_prefix_cmp_match_veri(uint32_t count, char **params, void *desc,
                                                        char **msg);
KELA_SHARED_API vogno shared_kela_prefix_cmp_match_cons(uint32_t count, char **params, void **slots,
                                                        void *desc, rasf_inst_t **inst);
KELA_SHARED_API vogno shared_kela_prefix_cmp_longer_cons(uint32_t count, char **params,
                                                         void **slots, void *desc,
                                                         rasf_inst_t **inst);
KELA_SHARED_API vogno shared_kela_prefix_cmp_orlonger_cons(uint32_t count, char **params,
                                                           void **slots, void *desc,
                                                           rasf_inst_t **inst);
/* Releases a compiled prefix set (null accepted). */
KELA_SHARED_API vogno shared_kela_prefix_cmp_match_free(void *ctx);

/* "assign": one bare address; the verifier always leaves a message (the
 * error library's text of its status). */
KELA_SHARED_API vogno shared_kela_prefix_set_assign_veri(uint32_t count, char **params, void *desc,
                                                         char **msg);
KELA_SHARED_API vogno shared_kela_prefix_set_assign_cons(uint32_t count, char **params,
                                                         void **slots, void *desc,
                                                         rasf_inst_t **inst);
/* Retriever entry points: they refuse every use. */
KELA_SHARED_API vogno shared_kela_prefix_retr_veri(uint32_t count, char **params, void *desc,
                                                   char **msg);
KELA_SHARED_API vogno shared_kela_prefix_retr_cons(uint32_t count, char **params, void **slots,
                                                   void *desc, rasf_inst_t **inst);
KELA_SHARED_API vogno shared_kela_prefix_retr_retrieve(void *route, void *fw_arg1, void *fw_arg2,
                                                       uint32_t *out, void *ctx);

/* Decodes a prefix-set parameter vector into query->pfxs (appending),
 * keeping the kinds query->flags asks for; the outcome is query->status. */
KELA_SHARED_API void shared_kela_decode_pfxs(uint32_t count, char **params,
                                             shared_kela_pcl_query_pfx_ctx_t *query);
/* Releases the decoded entries and clears the record. */
KELA_SHARED_API void shared_kela_free_query_ctx(shared_kela_pcl_query_pfx_ctx_t *query);

/* ---- IPv4 address attribute ----------------------------------------------- */

/* An IPv4 address (4 bytes, network order) and its prefix length (1 byte),
 * each at a byte offset of the client's route record. */
typedef struct shared_kela_ipv4_desc_td {
    const char *name;
    uint64_t addr_offset;
    uint64_t len_offset;
} shared_kela_ipv4_desc_td;

/* A parsed "pfxmatch" operand: allocated as one block, freed with free().
 * Only the leading ceil(len / 8) address bytes are kept. */
typedef struct shared_kela_pfxmatch_td {
    void *owner; /* null as parsed; the constructor stores its descriptor here */
    uint8_t len;
    uint8_t le; /* note: le before ge */
    uint8_t ge;
    uint8_t addr[];
} shared_kela_pfxmatch_td;

/* Dotted-quad text to 4 bytes (out may be null: check only). */
KELA_SHARED_API vogno shared_kela_ipv4_cvt_string(const char *text, void *unused, uint8_t *out);
/* Address, length, ge and le for family 2 or 10 (else
 * KEL_SHARED_ERR_BAD_AFI); strict: numbers must be whole and ge <= le <=
 * maximum, length <= maximum.  With out, a newly allocated record. */
KELA_SHARED_API vogno shared_kela_pfxmatch_cvt_string(const char *addr_text, const char *len_text,
                                                      const char *ge_text, const char *le_text,
                                                      int32_t family, int32_t strict,
                                                      shared_kela_pfxmatch_td **out);
/* KEL_SHARED_ERR_HOST_BITS when any of the n bytes has a bit set at or
 * beyond prefix length len. */
KELA_SHARED_API vogno shared_kela_ip_check_prefix(const uint8_t *bytes, uint32_t n, uint32_t len);
KELA_SHARED_API char *shared_kela_ipv4_base_print(void *fw_value, void *route, void *desc);
/* Outcome 1 when both lengths are equal and the addresses agree on them. */
KELA_SHARED_API vogno shared_kela_ipv4_base_cmp(void *route_a, void *route_b, void *desc,
                                                int32_t *outcome);
/* "pfxmatch" with exactly four constants: address, length, ge, le. */
KELA_SHARED_API vogno shared_kela_ipv4_cmp_match_veri(uint32_t count, char **params, void *desc,
                                                      char **msg);
KELA_SHARED_API vogno shared_kela_ipv4_cmp_match_cons(uint32_t count, char **params, void **slots,
                                                      void *desc, rasf_inst_t **inst);
KELA_SHARED_API vogno shared_kela_ipv4_cmp_match_free(void *ctx);
/* Retriever entry points (not registered): they refuse every use. */
KELA_SHARED_API vogno shared_kela_ipv4_retr_veri(uint32_t count, char **params, void *desc,
                                                 char **msg);
KELA_SHARED_API vogno shared_kela_ipv4_retr_cons(uint32_t count, char **params, void **slots,
                                                 void *desc, rasf_inst_t **inst);
KELA_SHARED_API vogno shared_kela_ipv4_base_init_v2(void *reg_ctx, char *errbuf, int32_t errlen,
                                                    shared_kela_ipv4_desc_td *desc,
                                                    const char *const *op_locs,
                                                    const char *const *set_locs,
                                                    const char *const *retr_locs,
                                                    const char *const *attr_locs);
/* base_init_v2 with the default location lists. */
KELA_SHARED_API vogno shared_kela_ipv4_base_init(void *reg_ctx, char *errbuf, int32_t errlen,
                                                 shared_kela_ipv4_desc_td *desc);

/* ---- MAC address attribute ------------------------------------------------ */

/* Get-value callback: (the record it was found in, route, value).  The value
 * is 7 bytes: the 6 address bytes and a length byte (at most 6).  Returns 0,
 * or 19 when the route has no MAC address. */
typedef vogno (*shared_kela_mac_get_value_fn)(void *record, void *route, uint8_t *value);

typedef struct shared_kela_mac_address_desc_td {
    const char *name;
    shared_kela_mac_get_value_fn get_value;
} shared_kela_mac_address_desc_td;

/* One entry of a "macaddrmatch" list. */
typedef struct shared_kela_mac_address_node_td {
    uint8_t addr[6];
    uint8_t len;
    struct shared_kela_mac_address_node_td *next;
    struct shared_kela_mac_address_node_td *prev;
} shared_kela_mac_address_node_td;

/* Instance context of "macaddrmatch" (the callback in the second field). */
typedef struct shared_kela_mac_address_match_ctx_td {
    shared_kela_mac_address_node_td *first;
    shared_kela_mac_get_value_fn get_value;
} shared_kela_mac_address_match_ctx_td;

/* 0-15 for a hexadecimal digit, -1 otherwise. */
KELA_SHARED_API int HextoInt(char c);
/* "aabb.ccdd.eeff" to 6 bytes.  Lenient: converting stops at the first
 * group that is not 4 characters long, a non-digit counts as -1, and at most
 * three groups (6 bytes) are read.  Only a null text fails. */
KELA_SHARED_API vogno shared_kela_cvt_string_to_mac_address(const char *text, uint8_t *out);
/* Up to 6 bytes as "aabb.ccdd.eeff", newly allocated. */
KELA_SHARED_API char *shared_kela_cvt_mac_address_to_string(const uint8_t *bytes, uint8_t n);
KELA_SHARED_API char *shared_kela_mac_address_base_print(void *fw_value, void *route, void *desc);
KELA_SHARED_API vogno shared_kela_mac_address_base_cmp(void *route_a, void *route_b, void *desc,
                                                       int32_t *outcome);
/* "macaddrmatch": one address per single-argument segment. */
KELA_SHARED_API vogno shared_kela_mac_address_cmp_match_veri(uint32_t count, char **params,
                                                             void *desc, char **msg);
KELA_SHARED_API vogno shared_kela_mac_address_cmp_match_cons(uint32_t count, char **params,
                                                             void **slots, void *desc,
                                                             rasf_inst_t **inst);
KELA_SHARED_API vogno shared_kela_mac_address_cmp_match_run(void *route, uint32_t count,
                                                            void **slots, void *ctx,
                                                            int32_t *outcome);
KELA_SHARED_API vogno shared_kela_mac_address_cmp_match_free(void *ctx);
KELA_SHARED_API vogno shared_kela_mac_address_base_init(void *reg_ctx, char *errbuf, int32_t errlen,
                                                        shared_kela_mac_address_desc_td *desc,
                                                        const char *const *op_locs,
                                                        const char *const *set_locs,
                                                        const char *const *retr_locs,
                                                        const char *const *attr_locs);

/* ---- rib-has-route attribute ("in", "async") ----------------------------- */

/* The route record to the routing-table connection and table to ask. */
typedef vogno (*shared_kela_rhr_get_value_fn)(void *route, ip_rib_conn_p *conn,
                                              rib_tableid_td *table);

/* The attribute is always named "rib-has-route"; `name` is not read. */
typedef struct shared_kela_rhr_desc_td {
    const char *name;
    shared_kela_rhr_get_value_fn get_value;
} shared_kela_rhr_desc_td;

/* Instance context of "in". */
typedef struct shared_kela_rhr_match_ctx_td {
    shared_kela_rhr_get_value_fn get_value;
    int32_t count;
    shared_kela_prefix_matchspec_td **specs;
} shared_kela_rhr_match_ctx_td;

/* Instance context of "async".  Once the asynchronous client holds its
 * address (`handed` set) it outlives the instance. */
typedef struct shared_kela_rhr_async_ctx_td {
    void *info_list; /* the request tree this instance uses */
    uint32_t handed;
} shared_kela_rhr_async_ctx_td;

/* Head of the request tree (evaluation key -> request identifier cell).
 * Written by every "async" constructor: the framework must not run two of
 * them at once.  The library never removes a tree entry nor withdraws a
 * request: releasing them once an evaluation key is finished is the
 * platform's job. */
KELA_SHARED_API extern void *kela_eecompi_rhr_info_list;

/* Registers "rib-has-route" with "in" (at the first operator location only)
 * and "async" (at every operator location); base functions without
 * descriptor; no setter, no retriever. */
KELA_SHARED_API vogno shared_kela_rhr_base_init(void *reg_ctx, char *errbuf, int32_t errlen,
                                                shared_kela_rhr_desc_td *desc,
                                                const char *const *op_locs,
                                                const char *const *set_locs,
                                                const char *const *retr_locs,
                                                const char *const *attr_locs);
/* As shared_kela_prefix_cvt_string_to_pfx. */
KELA_SHARED_API vogno shared_kela_rhr_cvt_string_to_pfx(const char *addr_text, const char *len_text,
                                                        const char *ge_text, const char *le_text,
                                                        ip_addr_t *addr, uint32_t *len,
                                                        uint32_t *ge, uint32_t *le, uint32_t check);
/* Whether the table holds the entry's route (or, for ge < le, any route
 * under it with a length from ge to le).  0xA2D28400 when the connection
 * serves another family. */
KELA_SHARED_API vogno shared_kela_rhr_match(ip_rib_conn_p conn, rib_tableid_td table,
                                            shared_kela_prefix_matchspec_td *spec, int *found,
                                            ip_rib_route2 **route);
KELA_SHARED_API vogno shared_kela_rhr_retr_veri(uint32_t count, char **params, void *desc,
                                                char **msg);
KELA_SHARED_API vogno shared_kela_rhr_retr_cons(uint32_t count, char **params, void **slots,
                                                void *desc, rasf_inst_t **inst);
/* Given to the asynchronous client with every request: forwards to
 * pcli_rhr_async_client_callback(a2, a2, a3, a4, a5, a6). */
KELA_SHARED_API vogno kela_rib_callback(void *a1, void *a2, void *a3, void *a4, void *a5, void *a6);

/* ---- track attribute ("is") ------------------------------------------------ */

/* Instance context of "is". */
typedef struct shared_kela_track_ctx_td {
    char *name;    /* private copy, set by the update function */
    uint8_t state; /* wanted state: 1 up, 2 down, 0 not set */
} shared_kela_track_ctx_td;

/* Registers "track" with "is" (three strings: unused, name, "up"|"down"). */
KELA_SHARED_API vogno shared_kela_track_base_init(void *reg_ctx, char *errbuf, int32_t errlen,
                                                  void *desc, const char *const *op_locs,
                                                  const char *const *set_locs,
                                                  const char *const *retr_locs,
                                                  const char *const *attr_locs);
/* Given to the asynchronous client: forwards all its arguments to
 * pcli_async_object_track_callback. */
KELA_SHARED_API vogno kela_async_object_track_callback(const char *name, uint32_t state,
                                                       void *cookie);

#ifdef __cplusplus
}
#endif

#endif /* KELA_SHARED_H */
