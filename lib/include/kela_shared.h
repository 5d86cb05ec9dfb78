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
 *    not run concurrently with another registration.
 *
 * This header is valid C11 and C++.
 */
#ifndef KELA_SHARED_H
#define KELA_SHARED_H

#include <stddef.h>
#include <stdint.h>

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

#ifdef __cplusplus
}
#endif

#endif /* KELA_SHARED_H */
