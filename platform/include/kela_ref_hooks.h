/* SPDX-License-Identifier: Apache-2.0 */
/*
 * Test hooks of the reference platform: a trace of the platform calls made,
 * fault injection, and capture of logged messages.
 *
 * Valid C11 and C++.  The hooks are process-wide and thread-safe; tests that
 * use them should not run platform calls from several threads while they
 * change the hooks.
 */
#ifndef KELA_REF_HOOKS_H
#define KELA_REF_HOOKS_H

#include <stddef.h>
#include <stdint.h>

#include "rasf.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Call trace --------------------------------------------------------- *
 * While tracing, every platform operation (rasf_*, vog_register_dll,
 * vup_errmsg) appends one line "name(arg, arg, ...)" naming its text and
 * number arguments, for example
 *   rasf_kela_new(metric, uint32_t, 1.0)
 *   rasf_kela_add_location(import, metric)
 *   rasf_kela_add_cmp_location(exact-match, metric, import)
 *   rasf_args_single_add(uint32_t, 1.0)
 *   rasf_args_infinite_add(uint32_t, 1.0, 0)
 * A null text is written "(null)"; an attribute is named by its name;
 * handles, function pointers and contexts are not written.  A call that
 * fails through fault injection is traced too. */
void kref_trace_start(void); /* clears and starts */
void kref_trace_stop(void);
size_t kref_trace_count(void);
const char *kref_trace_at(size_t i); /* valid until the next start */

/* ---- Fault injection ---------------------------------------------------- *
 * kref_fault_set("rasf_kela_add_cmp_location", 2, S): the 2nd call of that
 * operation from now on returns S without doing anything.  With
 * kref_fault_set_after, the operation is carried out first and S is returned
 * all the same (for instance an instance is created and stored, yet the call
 * reports failure).  Several faults may be armed at once; each fires once. */
void kref_fault_set(const char *op, uint32_t nth, vogno status);
void kref_fault_set_after(const char *op, uint32_t nth, vogno status);
void kref_fault_clear(void);
/* Faults armed and not yet fired. */
size_t kref_fault_pending(void);

/* ---- Logged messages ---------------------------------------------------- *
 * vup_errmsg writes "%FACILITY-LEVEL-MNEMONIC: text" to stderr; while
 * capturing, the lines are kept here instead. */
void kref_log_capture(int on); /* clears the kept lines */
size_t kref_log_count(void);
const char *kref_log_at(size_t i);

/* ---- Radix lookups ------------------------------------------------------ *
 * Number of rn_lookup calls this thread has made (for measuring how many a
 * prefix-set compare costs). */
uint64_t kref_radix_lookups(void);
/* Bytes the radix trees' lookup indexes hold in mappings of their own
 * (large indexes, which the allocator does not see). */
uint64_t kref_radix_mapped_bytes(void);

#ifdef __cplusplus
}
#endif

#endif /* KELA_REF_HOOKS_H */
