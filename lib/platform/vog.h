/* SPDX-License-Identifier: Apache-2.0 */
/*
 * Platform error-code library.
 *
 * Statuses are 32-bit unsigned numbers, 0 for success.  A component owns an
 * error domain: its statuses are 0x40000000 | (component << 15) | (N << 9).
 * The texts of a domain live in a separate error-text library whose name is
 * handed over when the domain is registered.
 */
#ifndef KELA_PLATFORM_VOG_H
#define KELA_PLATFORM_VOG_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#ifndef VOGNO_T_DEFINED
#define VOGNO_T_DEFINED
typedef uint32_t vogno;
#endif

/* Registers the error domain of `component`, whose texts are provided by the
 * error-text library `dll_name`.  Returns 0 on success. */
vogno vog_register_dll(uint32_t component, const char *dll_name);

/* A text describing `status`.  The text belongs to the error-code library and
 * stays valid at least until the next call on the same thread; never free it. */
const char *vog_strerror(vogno status);

#ifdef __cplusplus
}
#endif

#endif /* KELA_PLATFORM_VOG_H */
