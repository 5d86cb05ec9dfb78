// SPDX-License-Identifier: Apache-2.0
// Callbacks the library registers with the framework but does not export:
// the framework reaches them through registration; the library's own tests
// declare them from here.
#ifndef KELA_CALLBACKS_HPP
#define KELA_CALLBACKS_HPP

#include "kela_shared.h"

extern "C" {

// 1 when the value is accepted by the address/mask-form entry.
int shared_kela_prefix_match_acl(shared_kela_prefix_addr_td *value,
                                 shared_kela_prefix_matchspec_td *spec);

// "in" and "async" of rib-has-route.
vogno shared_kela_rhr_cmp_match_veri(uint32_t count, char **params, void *desc, char **msg);
vogno shared_kela_rhr_cmp_match_cons(uint32_t count, char **params, void **slots, void *desc,
                                     rasf_inst_t **inst);
vogno shared_kela_rhr_cmp_match_free(void *ctx);
vogno shared_kela_rhr_cmp_async_veri(uint32_t count, char **params, void *desc, char **msg);
vogno shared_kela_rhr_cmp_async_cons(uint32_t count, char **params, void **slots, void *desc,
                                     rasf_inst_t **inst);
vogno shared_kela_rhr_cmp_async_free(void *ctx);

// "is" of track.
vogno shared_kela_track_cmp_veri(uint32_t count, char **params, void *desc, char **msg);
vogno shared_kela_track_cmp_cons(uint32_t count, char **params, void **slots, void *desc,
                                 rasf_inst_t **inst);
vogno shared_kela_track_cmp_free(void *ctx);

}  // extern "C"

#endif  // KELA_CALLBACKS_HPP
