// The asynchronous policy client: rib-has-route requests answered from the
// routing table and answered anew when routes change, and tracked objects
// whose state changes reach the interested requesters.
#include "pcl_async.h"

#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <tuple>
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

struct Interest {
    std::uint32_t wanted;
    pcl_ot_callback_fn callback;
};

struct Client {
    std::recursive_mutex mu;
    std::map<std::uint32_t, Request> requests;
    // (afi, table, len, address) -> requests that ask for that route
    std::multimap<std::tuple<int, rib_tableid_td, unsigned, std::string>, std::uint32_t> index;
    std::map<std::uint64_t, void *> contexts;
    std::vector<void *> retired;
    std::uint32_t next_id = 1;
    std::size_t notifications = 0;

    std::map<std::string, std::uint32_t> states;  // objects never set are down
    std::map<std::string, std::vector<Interest>> interests;
    std::map<std::string, bool> registered;
    std::size_t track_notifications = 0;
};

Client &client() {
    static Client *c = new Client;
    return *c;
}

std::string key_bytes(const std::uint8_t *addr, int afi, unsigned len) {
    std::string k(reinterpret_cast<const char *>(addr), afi == IP_RIB_AFI_IPV4 ? 4 : 16);
    for (unsigned b = len; b < k.size() * 8; ++b)
        k[b / 8] = static_cast<char>(k[b / 8] & ~(0x80u >> (b % 8)));
    return k;
}

std::uint8_t answer_of(const Request &r) {
    for (const Entry &e : r.entries)
        if (kref::rib_has_exact(e.afi, r.table, e.addr, e.len)) return 1;
    return 0;
}

}  // namespace

namespace kref {

void routes_changed(int afi, rib_tableid_td table, const std::uint8_t *addr, unsigned len) {
    std::vector<std::pair<std::uint32_t, Request *>> changed;
    {
        Client &c = client();
        std::lock_guard lock(c.mu);
        auto range = c.index.equal_range({afi, table, len, key_bytes(addr, afi, len)});
        for (auto it = range.first; it != range.second; ++it) {
            Request &r = c.requests[it->second];
            const std::uint8_t now = answer_of(r);
            if (now != r.answer) {
                r.answer = now;
                changed.emplace_back(it->second, &r);
            }
        }
    }
    // Notifications run outside the lock: the requester may call back in.
    for (auto [id, r] : changed)
        if (r->callback != nullptr)
            // The identifier and the answer travel as pointer-sized values.
            r->callback(nullptr,
                        reinterpret_cast<void *>(  // NOLINT(performance-no-int-to-ptr)
                            static_cast<std::uintptr_t>(id)),
                        reinterpret_cast<void *>(  // NOLINT(performance-no-int-to-ptr)
                            static_cast<std::uintptr_t>(r->answer)),
                        nullptr, nullptr, nullptr);
}

void async_reset() {
    Client &c = client();
    std::lock_guard lock(c.mu);
    c.requests.clear();
    c.index.clear();
    // A requester's context handed to the client is never taken back: the
    // client holds it for the life of the process, past any reset.
    for (auto &[key, ctx] : c.contexts) c.retired.push_back(ctx);
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
    for (std::uint32_t i = 0; i < req->n_v4; ++i) {
        Entry e{IP_RIB_AFI_IPV4, {}, req->v4[i].len};
        std::memcpy(e.addr, req->v4[i].addr, 4);
        if (e.len <= 32) r.entries.push_back(e);
    }
    for (std::uint32_t i = 0; i < req->n_v6; ++i) {
        Entry e{IP_RIB_AFI_IPV6, {}, req->v6[i].len};
        std::memcpy(e.addr, req->v6[i].addr, 16);
        if (e.len <= 128) r.entries.push_back(e);
    }
    r.answer = answer_of(r);
    Client &c = client();
    std::lock_guard lock(c.mu);
    const std::uint32_t n = c.next_id++;
    for (const Entry &e : r.entries)
        c.index.emplace(std::make_tuple(e.afi, r.table, e.len, key_bytes(e.addr, e.afi, e.len)), n);
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
    c.interests[name].push_back({state, callback});
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
