/* SPDX-License-Identifier: Apache-2.0 */
/*
 * Platform routing-table client.
 *
 * A connection serves one address family; a connection holds tables, each
 * named by a table identifier; a table holds routes (prefix and length).
 */
#ifndef KELA_PLATFORM_IP_RIB_H
#define KELA_PLATFORM_IP_RIB_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#ifndef VOGNO_T_DEFINED
#define VOGNO_T_DEFINED
typedef uint32_t vogno;
#endif

typedef struct ip_rib_conn *ip_rib_conn_p;  /* a connection to the routing table */
typedef uint32_t rib_tableid_td;            /* a table of a connection */
typedef struct ip_rib_route2 ip_rib_route2; /* a route of the routing table */

#define IP_RIB_AFI_IPV4 1
#define IP_RIB_AFI_IPV6 2

/* Lookup kinds of ip_rib_route_lookup2. */
#define IP_RIB_LOOKUP_BEST 1    /* longest match at most `len` long */
#define IP_RIB_LOOKUP_DEFAULT 2 /* exact match, used for the default route */
#define IP_RIB_LOOKUP_EXACT 3   /* exact match */

/* The connection's address family: IP_RIB_AFI_IPV4 or IP_RIB_AFI_IPV6. */
int ip_rib_client_get_afi(ip_rib_conn_p conn);

/* Looks (addr, len) up in a table; *found is non-zero and *route set when a
 * route was found.  `flags` is reserved (0). */
vogno ip_rib_route_lookup2(ip_rib_conn_p conn, rib_tableid_td table, const uint8_t *addr,
                           uint32_t len, int kind, int flags, ip_rib_route2 **route, int *found);

/* Whether the table holds any route under addr/first_len whose length lies
 * in first_len .. last_len. */
vogno ip_rib_route_lookup_longer_range2(ip_rib_conn_p conn, rib_tableid_td table,
                                        const uint8_t *addr, uint32_t first_len, uint32_t last_len,
                                        ip_rib_route2 **route, int *found);

#ifdef __cplusplus
}
#endif

#endif /* KELA_PLATFORM_IP_RIB_H */
