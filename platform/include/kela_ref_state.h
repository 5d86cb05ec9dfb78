/* SPDX-License-Identifier: Apache-2.0 */
/*
 * Reference platform: the routing state behind the routing-table client and
 * the asynchronous policy client.  Routes and tracked objects are changed
 * here; a change reaches the policies through the asynchronous client's
 * notifications.
 *
 * Valid C11 and C++.
 */
#ifndef KELA_REF_STATE_H
#define KELA_REF_STATE_H

#include <stddef.h>
#include <stdint.h>

#include "ip_rib.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The connection of a family (IP_RIB_AFI_IPV4 or IP_RIB_AFI_IPV6). */
ip_rib_conn_p kref_rib_conn(int afi);

/* Adds a route (host bits beyond len are ignored); `data` (e.g. the next
 * hop, may be null) is kept with it.  Adding an existing route replaces its
 * data.  KREF_ERR_BAD_ARG for a family or length that does not fit. */
vogno kref_rib_add(int afi, rib_tableid_td table, const uint8_t *addr, uint8_t len,
                   const char *data);
/* Removes a route; KREF_ERR_NOT_FOUND when it is not there. */
vogno kref_rib_remove(int afi, rib_tableid_td table, const uint8_t *addr, uint8_t len);
size_t kref_rib_count(int afi, rib_tableid_td table);
/* What a looked-up route carries. */
const char *kref_rib_route_data(const ip_rib_route2 *route);
uint8_t kref_rib_route_len(const ip_rib_route2 *route);
/* Forgets every route, request and tracked object. */
void kref_state_reset(void);

/* Requests registered with the asynchronous client, and the notifications
 * it delivered through the requesters' callbacks. */
size_t kref_async_requests(void);
size_t kref_async_notifications(void);
/* What a registered request carried (copied at registration), and its
 * entries (IPv4 first, each family in request order). */
vogno kref_async_request_info(uint32_t id, uint64_t *session, uint16_t *client, uint32_t *afi,
                              uint64_t *key, uint32_t *n_v4, uint32_t *n_v6);
vogno kref_async_request_entry(uint32_t id, uint32_t i, int *afi, uint8_t *addr, uint8_t *len);
/* The context registered for an evaluation key, or null. */
void *kref_async_ctx(uint64_t key);

/* Sets a tracked object's state (objects never set are down); interested
 * requesters are notified when the state changes. */
vogno kref_track_set(const char *name, int up);
size_t kref_track_notifications(void);
/* Whether the object was registered for tracking. */
int kref_track_registered(const char *name);

#ifdef __cplusplus
}
#endif

#endif /* KELA_REF_STATE_H */
