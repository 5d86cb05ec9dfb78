/* SPDX-License-Identifier: Apache-2.0 */
/*
 * Platform address record.
 */
#ifndef KELA_PLATFORM_IP_ADDR_H
#define KELA_PLATFORM_IP_ADDR_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* An IPv4 or IPv6 address (20 bytes). */
typedef struct ip_addr_t {
    uint8_t family; /* 2 (IPv4) or 10 (IPv6) */
    uint8_t length; /* address length in bytes: 4 or 16 */
    uint8_t reserved[2];
    uint8_t addr[16]; /* network byte order; IPv4 uses the first 4 */
} ip_addr_t;

#ifdef __cplusplus
}
#endif

#endif /* KELA_PLATFORM_IP_ADDR_H */
