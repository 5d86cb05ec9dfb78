// SPDX-License-Identifier: Apache-2.0
// The asynchronous policy client: rib-has-route requests answered from the
// routing table and answered anew when routes change, and tracked objects
// whose state changes reach the interested requesters.
//
// One lock guards the requests, their route index and their answers: a
// request's first answer is worked out under the lock that publishes it in
// the index, so a route change either came before (and is in the answer) or
// finds the request.  Notifications carry copies of what they tell and go
// out in the order the answers changed.
#include "pcl_async.h"

#include <algorithm>
#include <array>
#include <compare>
#include <cstring>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "kela_ref.h"
#include "kela_ref_state.h"
#include "ref_internal.hpp"
#include "ref_state.hpp"

namespace {

struct Entry {
    int afi;
    std::uint8_t addr[16];
    std::uint8_t len;
};

struct Request {
    std::vector<Entry> entries;  // IPv4 entries first, each family in request order
    std::uint16_t client = 0;
    std::uint32_t afi = 0;
    std::uint64_t session = 0;
    std::uint64_t key = 0;
    std::uint32_t n_v4 = 0, n_v6 = 0;
    rib_tableid_td table;
    std::uint8_t answer = 0;
    pcl_rhr_callback_fn callback = nullptr;
};

// A route a request asks for: family, table, length and masked address.
struct RouteKey {
    int afi;
    rib_tableid_td table;
    unsigned len;
    std::array<std::uint8_t, 16> addr;
    auto operator<=>(const RouteKey &) const = default;
};

RouteKey route_key(int afi, rib_tableid_td table, const std::uint8_t *addr, unsigned len) {
    RouteKey k{afi, table, len, {}};
    std::memcpy(k.addr.data(), addr, afi == IP_RIB_AFI_IPV4 ? 4 : 16);
    for (unsigned b = len; b < k.addr.size() * 8; ++b)
        k.addr[b / 8] = static_cast<std::uint8_t>(k.addr[b / 8] & ~(0x80u >> (b % 8)));
    return k;
}

// A notification, copied while the lock was held.
struct Note {
    std::uint32_t id;
    std::uint8_t answer;
    pcl_rhr_callback_fn callback;
};

struct Interest {
    std::uint32_t wanted;
    pcl_ot_callback_fn callback;
};

struct Client {
    std::mutex mu;  // everything below
    std::map<std::uint32_t, Request> requests;
    std::multimap<RouteKey, std::uint32_t> index;  // requests by the routes they ask for
    std::unordered_multimap<std::uint64_t, std::uint32_t> by_key;  // by evaluation key
    std::map<std::uint64_t, void *> contexts;
    // Every requester's context ever handed over: the client holds them for
    // the life of the process, past the keys they came with and any reset.
    std::unordered_set<void *> held;
    std::uint32_t next_id = 1;
    std::size_t notifications = 0;
    // Notifications not yet delivered, in the order the answers changed, and
    // whether a thread is delivering them now.
    std::deque<Note> pending;
    bool delivering = false;

    std::map<std::string, std::uint32_t> states;             // objects never set are down
    std::map<std::string, std::vector<Interest>> interests;  // each (state, callback) once
    std::map<std::string, bool> registered;
    std::size_t track_notifications = 0;
};

Client &client() {
    static Client *c = new Client;
    return *c;
}

std::uint8_t answer_of(const Request &r) {
    for (const Entry &e : r.entries)
        if (kref::rib_has_exact(e.afi, r.table, e.addr, e.len)) return 1;
    return 0;
}

// Withdraws one request (lock held); its evaluation-key record is the caller's.
void drop(Client &c, std::uint32_t id) {
    auto r = c.requests.find(id);
    if (r == c.requests.end()) return;
    for (const Entry &e : r->second.entries) {
        auto [first, last] = c.index.equal_range(route_key(e.afi, r->second.table, e.addr, e.len));
        for (auto it = first; it != last; ++it)
            if (it->second == id) {
                c.index.erase(it);
                break;
            }
    }
    c.requests.erase(r);
}

// An identifier that is neither 0 nor in use, should the counter wrap.
std::uint32_t new_id(Client &c) {
    while (c.next_id == 0 || c.requests.count(c.next_id) != 0) ++c.next_id;
    return c.next_id++;
}

}  // namespace

namespace kref {

void routes_changed(int afi, rib_tableid_td table, const std::uint8_t *addr, unsigned len) {
    Client &c = client();
    std::unique_lock lock(c.mu);
    auto [first, last] = c.index.equal_range(route_key(afi, table, addr, len));
    for (auto it = first; it != last; ++it) {
        Request &r = c.requests.at(it->second);
        const std::uint8_t now = answer_of(r);
        if (now == r.answer) continue;
        r.answer = now;
        if (r.callback != nullptr) c.pending.push_back({it->second, now, r.callback});
    }
    // One thread delivers at a time, outside the lock (the requester may call
    // back in); a change made meanwhile, even from a callback, queues behind.
    if (c.delivering) return;
    c.delivering = true;
    while (!c.pending.empty()) {
        const Note n = c.pending.front();
        c.pending.pop_front();
        lock.unlock();
        // The identifier and the answer travel as pointer-sized values.
        n.callback(nullptr,
                   reinterpret_cast<void *>(  // NOLINT(performance-no-int-to-ptr)
                       static_cast<std::uintptr_t>(n.id)),
                   reinterpret_cast<void *>(  // NOLINT(performance-no-int-to-ptr)
                       static_cast<std::uintptr_t>(n.answer)),
                   nullptr, nullptr, nullptr);
        lock.lock();
    }
    c.delivering = false;
}

void async_forget(std::uint64_t key) {
    Client &c = client();
    std::lock_guard lock(c.mu);
    auto [first, last] = c.by_key.equal_range(key);
    for (auto it = first; it != last; ++it) drop(c, it->second);
    c.by_key.erase(first, last);
    c.contexts.erase(key);
}

void async_reset() {
    Client &c = client();
    std::lock_guard lock(c.mu);
    c.requests.clear();
    c.index.clear();
    c.by_key.clear();
    c.contexts.clear();
    c.notifications = 0;
    c.states.clear();
    c.interests.clear();
    c.registered.clear();
    c.track_notifications = 0;
}

}  // namespace kref

extern "C" {

vogno pcl_async_rib_has_route_register(const pcl_rhr_request *req, uint32_t *id,
                                       pcl_rhr_callback_fn callback) {
    KREF_ENTER("pcl_async_rib_has_route_register", std::int64_t(req ? req->n_v4 : 0),
               std::int64_t(req ? req->n_v6 : 0));
    if (req == nullptr || id == nullptr || (req->n_v4 != 0 && req->v4 == nullptr) ||
        (req->n_v6 != 0 && req->v6 == nullptr))
        return KREF_ERR_BAD_ARG;
    Request r;
    r.table = static_cast<rib_tableid_td>(req->session);
    r.client = req->client;
    r.afi = req->afi;
    r.session = req->session;
    r.key = req->key;
    r.n_v4 = req->n_v4;
    r.n_v6 = req->n_v6;
    r.callback = callback;
    // An entry longer than its family's addresses is refused, as the
    // routing table refuses such a route: no request could ever be answered.
    for (std::uint32_t i = 0; i < req->n_v4; ++i) {
        Entry e{IP_RIB_AFI_IPV4, {}, req->v4[i].len};
        if (e.len > 32) return KREF_ERR_BAD_ARG;
        std::memcpy(e.addr, req->v4[i].addr, 4);
        r.entries.push_back(e);
    }
    for (std::uint32_t i = 0; i < req->n_v6; ++i) {
        Entry e{IP_RIB_AFI_IPV6, {}, req->v6[i].len};
        if (e.len > 128) return KREF_ERR_BAD_ARG;
        std::memcpy(e.addr, req->v6[i].addr, 16);
        r.entries.push_back(e);
    }
    Client &c = client();
    std::lock_guard lock(c.mu);
    r.answer = answer_of(r);
    const std::uint32_t n = new_id(c);
    for (const Entry &e : r.entries) c.index.emplace(route_key(e.afi, r.table, e.addr, e.len), n);
    c.by_key.emplace(r.key, n);
    c.requests.emplace(n, std::move(r));
    *id = n;
    return 0;
}

vogno pcl_async_fetch_rib_has_route_result(uint32_t id, uint8_t *result) {
    if (result == nullptr) return KREF_ERR_BAD_ARG;
    Client &c = client();
    std::lock_guard lock(c.mu);
    auto it = c.requests.find(id);
    if (it == c.requests.end()) return KREF_ERR_NOT_FOUND;
    *result = it->second.answer;
    return 0;
}

void pcli_rhr_async_set_ctx(uint64_t key, void *ctx) {
    Client &c = client();
    std::lock_guard lock(c.mu);
    c.contexts[key] = ctx;
    c.held.insert(ctx);
}

vogno pcli_rhr_async_client_callback(void *, void *, void *, void *, void *, void *) {
    Client &c = client();
    std::lock_guard lock(c.mu);
    ++c.notifications;
    return 0;
}

vogno pcl_async_search_track_name(const char *name, uint32_t *known) {
    if (name == nullptr || known == nullptr) return KREF_ERR_BAD_ARG;
    Client &c = client();
    std::lock_guard lock(c.mu);
    *known = c.interests.count(name) != 0 ? 1 : 0;
    return 0;
}

vogno pcl_async_insert_track_name(const char *name, void *, uint32_t state,
                                  pcl_ot_callback_fn callback) {
    KREF_ENTER("pcl_async_insert_track_name", name, std::int64_t{state},
               callback != nullptr ? "callback" : "(null)");
    if (name == nullptr) return KREF_ERR_BAD_ARG;
    Client &c = client();
    std::lock_guard lock(c.mu);
    // Every evaluation states its interest again; one record per kind of
    // interest keeps the list as long as the policy, not the run.
    std::vector<Interest> &list = c.interests[name];
    if (std::none_of(list.begin(), list.end(), [&](const Interest &i) {
            return i.wanted == state && i.callback == callback;
        }))
        list.push_back({state, callback});
    return 0;
}

vogno pcl_async_ot_register(const char *name) {
    KREF_ENTER("pcl_async_ot_register", name);
    if (name == nullptr) return KREF_ERR_BAD_ARG;
    Client &c = client();
    std::lock_guard lock(c.mu);
    c.registered[name] = true;
    return 0;
}

int pcl_aysnc_ot_compute_state(const char *name, uint32_t state) {
    if (name == nullptr) return 0;
    Client &c = client();
    std::lock_guard lock(c.mu);
    auto it = c.states.find(name);
    const std::uint32_t now = it != c.states.end() ? it->second : PCL_OT_STATE_DOWN;
    return now == state ? 1 : 0;
}

void pcli_aysnc_ot_update_track_names(void *, uint32_t, char **) {}

vogno pcli_async_object_track_callback(const char *, uint32_t, void *) {
    Client &c = client();
    std::lock_guard lock(c.mu);
    ++c.track_notifications;
    return 0;
}

vogno kref_async_request_info(uint32_t id, uint64_t *session, uint16_t *client_id, uint32_t *afi,
                              uint64_t *key, uint32_t *n_v4, uint32_t *n_v6) {
    Client &c = client();
    std::lock_guard lock(c.mu);
    auto it = c.requests.find(id);
    if (it == c.requests.end()) return KREF_ERR_NOT_FOUND;
    const Request &r = it->second;
    if (session) *session = r.session;
    if (client_id) *client_id = r.client;
    if (afi) *afi = r.afi;
    if (key) *key = r.key;
    if (n_v4) *n_v4 = r.n_v4;
    if (n_v6) *n_v6 = r.n_v6;
    return 0;
}

vogno kref_async_request_entry(uint32_t id, uint32_t i, int *afi, uint8_t *addr, uint8_t *len) {
    Client &c = client();
    std::lock_guard lock(c.mu);
    auto it = c.requests.find(id);
    if (it == c.requests.end() || i >= it->second.entries.size()) return KREF_ERR_NOT_FOUND;
    const Entry &e = it->second.entries[i];
    if (afi) *afi = e.afi;
    if (addr) std::memcpy(addr, e.addr, 16);
    if (len) *len = e.len;
    return 0;
}

size_t kref_async_requests(void) {
    Client &c = client();
    std::lock_guard lock(c.mu);
    return c.requests.size();
}

size_t kref_async_notifications(void) {
    Client &c = client();
    std::lock_guard lock(c.mu);
    return c.notifications;
}

void *kref_async_ctx(uint64_t key) {
    Client &c = client();
    std::lock_guard lock(c.mu);
    auto it = c.contexts.find(key);
    return it != c.contexts.end() ? it->second : nullptr;
}

vogno kref_track_set(const char *name, int up) {
    if (name == nullptr) return KREF_ERR_BAD_ARG;
    const std::uint32_t state = up ? PCL_OT_STATE_UP : PCL_OT_STATE_DOWN;
    std::vector<pcl_ot_callback_fn> notify;
    {
        Client &c = client();
        std::lock_guard lock(c.mu);
        auto it = c.states.find(name);
        const std::uint32_t before = it != c.states.end() ? it->second : PCL_OT_STATE_DOWN;
        c.states[name] = state;
        if (before == state || !c.registered[name]) return 0;
        for (const Interest &i : c.interests[name])
            if (i.callback != nullptr) notify.push_back(i.callback);
    }
    for (pcl_ot_callback_fn cb : notify) cb(name, state, nullptr);
    return 0;
}

size_t kref_track_notifications(void) {
    Client &c = client();
    std::lock_guard lock(c.mu);
    return c.track_notifications;
}

int kref_track_registered(const char *name) {
    if (name == nullptr) return 0;
    Client &c = client();
    std::lock_guard lock(c.mu);
    auto it = c.registered.find(name);
    return it != c.registered.end() && it->second ? 1 : 0;
}

}  // extern "C"
