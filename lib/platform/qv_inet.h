/* SPDX-License-Identifier: Apache-2.0 */
/*
 * Platform address text conversion, with the contract of inet_pton and
 * inet_ntop for the families 2 (IPv4) and 10 (IPv6); addresses are in
 * network byte order.
 */
#ifndef KELA_PLATFORM_QV_INET_H
#define KELA_PLATFORM_QV_INET_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define QV_AF_INET 2
#define QV_AF_INET6 10

/* 1 when `text` is a valid address of the family (written to `dst`: 4 or 16
 * bytes), 0 when it is not, -1 for an unknown family. */
int qv_inet_pton(int family, const char *text, void *dst);

/* Writes the text of the address into `buf` (at most `size` bytes) and
 * returns buf, or null on failure (unknown family, buffer too small). */
const char *qv_inet_ntop(int family, const void *src, char *buf, size_t size);

#ifdef __cplusplus
}
#endif

#endif /* KELA_PLATFORM_QV_INET_H */
