/* SPDX-License-Identifier: Apache-2.0 */
/*
 * Platform asynchronous policy client: rib-has-route requests answered from
 * the routing table, and tracked objects with up/down states.  Names are
 * spelled as the platform spells them.
 */
#ifndef KELA_PLATFORM_PCL_ASYNC_H
#define KELA_PLATFORM_PCL_ASYNC_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#ifndef VOGNO_T_DEFINED
#define VOGNO_T_DEFINED
typedef uint32_t vogno;
#endif

/* ---- rib-has-route requests --------------------------------------------- */

typedef struct pcl_rhr_v4_entry {
    uint8_t addr[4];
    uint8_t len;
    uint8_t reserved[3];
} pcl_rhr_v4_entry; /* 8 bytes */

typedef struct pcl_rhr_v6_entry {
    uint8_t addr[16];
    uint8_t len;
    uint8_t reserved[7];
} pcl_rhr_v6_entry; /* 24 bytes */

/* A request (56 bytes).  The first three fields come from the evaluation
 * record; the client answers it from routing table `session`. */
typedef struct pcl_rhr_request {
    uint16_t client;
    uint16_t reserved0;
    uint32_t afi;
    uint64_t session;
    uint32_t n_v4;
    uint32_t reserved1;
    pcl_rhr_v4_entry *v4;
    uint32_t n_v6;
    uint32_t reserved2;
    pcl_rhr_v6_entry *v6;
    uint64_t key; /* the evaluation key */
} pcl_rhr_request;

/* Called when a request's answer changes: (cookie, request identifier,
 * answer, and three values the client defines). */
typedef vogno (*pcl_rhr_callback_fn)(void *a1, void *a2, void *a3, void *a4, void *a5, void *a6);

/* Registers a request (its entry arrays are copied) and stores its
 * identifier (never 0) in *id. */
vogno pcl_async_rib_has_route_register(const pcl_rhr_request *req, uint32_t *id,
                                       pcl_rhr_callback_fn callback);
/* The current answer of a request: 1 when the routing table holds a route
 * for one of its entries, else 0. */
vogno pcl_async_fetch_rib_has_route_result(uint32_t id, uint8_t *result);
/* Associates an evaluation key with the requester's context. */
void pcli_rhr_async_set_ctx(uint64_t key, void *ctx);
/* Where the requester's callback forwards a notification. */
vogno pcli_rhr_async_client_callback(void *a1, void *a2, void *a3, void *a4, void *a5, void *a6);

/* ---- tracked objects ------------------------------------------------------ */

#define PCL_OT_STATE_UP 1
#define PCL_OT_STATE_DOWN 2

/* Called when a tracked object changes state: (name, new state, cookie). */
typedef vogno (*pcl_ot_callback_fn)(const char *name, uint32_t state, void *cookie);

/* *known becomes 1 when the client knows the name, 0 otherwise. */
vogno pcl_async_search_track_name(const char *name, uint32_t *known);
/* Records an evaluation's interest in a name and the state it wants. */
vogno pcl_async_insert_track_name(const char *name, void *eval_rec, uint32_t state,
                                  pcl_ot_callback_fn callback);
/* Starts tracking the object. */
vogno pcl_async_ot_register(const char *name);
/* 1 when the object is in `state`, 0 otherwise. */
int pcl_aysnc_ot_compute_state(const char *name, uint32_t state);
/* Tells the client which names an evaluation uses. */
void pcli_aysnc_ot_update_track_names(void *eval_rec, uint32_t count, char **params);
/* Where the requester's callback forwards a state change. */
vogno pcli_async_object_track_callback(const char *name, uint32_t state, void *cookie);

#ifdef __cplusplus
}
#endif

#endif /* KELA_PLATFORM_PCL_ASYNC_H */
