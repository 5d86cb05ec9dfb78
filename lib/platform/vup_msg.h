/* SPDX-License-Identifier: Apache-2.0 */
/*
 * Platform message facility.
 *
 * A component describes each message it may log with a read-only message
 * record; vup_errmsg() formats the record's format with the values given and
 * logs one line.
 */
#ifndef KELA_PLATFORM_VUP_MSG_H
#define KELA_PLATFORM_VUP_MSG_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Layout of a message record (72 bytes on LP64). */
typedef struct vup_msg_rec_td {
    const void *reserved0; /* 0 */
    const char *format;    /* printf-style format of the message */
    const void *reserved1; /* 0 */
    const char *facility;  /* facility name, e.g. "KEL_SHARED" */
    const char *group;     /* message group, e.g. "ROUTING" */
    const char *mnemonic;  /* message mnemonic, e.g. "ERR_DLL_REG" */
    uint32_t attributes;   /* numeric attribute word, defined by the facility */
    uint32_t reserved2;    /* 0 */
    const void *reserved3; /* 0 */
    uint32_t identifier;   /* component number in the upper 16 bits */
    uint32_t reserved4;    /* 0 */
} vup_msg_rec_td;

/* Logs the message described by `rec` at `level`; the variable arguments are
 * the values for the record's format. */
void vup_errmsg(const vup_msg_rec_td *rec, int level, ...);

#ifdef __cplusplus
}
#endif

#endif /* KELA_PLATFORM_VUP_MSG_H */
