// SPDX-License-Identifier: Apache-2.0
// Links between the engine, the routing table, the asynchronous client and
// the B-tree: route changes reach the requests, and a finished evaluation's
// requests and request-tree entries are released.
#ifndef KREF_STATE_HPP
#define KREF_STATE_HPP

#include <cstdint>
#include <shared_mutex>

#include "ip_rib.h"

namespace kref {

// Whether the table holds exactly this route.
bool rib_has_exact(int afi, rib_tableid_td table, const std::uint8_t *addr, unsigned len);
// A route was added or removed: requests that ask for it are answered anew.
void routes_changed(int afi, rib_tableid_td table, const std::uint8_t *addr, unsigned len);
// Forgets every request and tracked object.
void async_reset();
// Withdraws the requests registered under an evaluation key.
void async_forget(std::uint64_t key);

// Trees that btree_s_init makes on this thread while `on` belong to the
// engine: their keys are dropped when the engine releases them.
void manage_new_trees(bool on);
// Drops `key` from every tree the engine manages, releasing each value
// (a request identifier cell) through its tree's release callback.
void btree_forget(std::uint64_t key);
// Drops every key of every tree the engine manages.
void btree_forget_all();

// Evaluations of asynchronous operators hold the gate shared while they run;
// a reset holds it alone, so that it never frees what an evaluation reads.
std::shared_mutex &eval_gate();
// Forgets which keys threads are evaluating (a reset, gate held alone).
void forget_eval_keys();

}  // namespace kref

#endif  // KREF_STATE_HPP
