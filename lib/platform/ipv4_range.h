/* SPDX-License-Identifier: Apache-2.0 */
/*
 * Platform IPv4 prefix-range rule.
 */
#ifndef KELA_PLATFORM_IPV4_RANGE_H
#define KELA_PLATFORM_IPV4_RANGE_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* 1 when the prefix (addr, len) lies in the range of the entry
 * (spec_addr, spec_len, ge, le), else 0.  Addresses are 4 bytes in network
 * order.  The length range is max(spec_len, ge) .. max(spec_len, le); the
 * bits from min(spec_len, ge) up to le are free, every other bit of the
 * 32 must be equal. */
int ipv4_compare_prefix_range(const uint8_t *addr, uint32_t len, const uint8_t *spec_addr,
                              uint32_t spec_len, uint32_t ge, uint32_t le);

#ifdef __cplusplus
}
#endif

#endif /* KELA_PLATFORM_IPV4_RANGE_H */
