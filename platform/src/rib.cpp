// SPDX-License-Identifier: Apache-2.0
// The routing table behind the routing-table client: per connection
// (family) and table, one ordered map of routes per prefix length.  Exact
// lookups are one map search; "any route under P/n with a length from n to
// m" is one ordered search per length.  Routes can be added and removed at
// run time; readers share a lock with each other.
#include <array>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <vector>

#include "kela_ref.h"
#include "kela_ref_state.h"
#include "ref_internal.hpp"
#include "ref_state.hpp"

struct ip_rib_route2 {
    std::uint8_t family;
    std::uint8_t len;
    std::array<std::uint8_t, 16> addr;
    std::string data;
};

struct ip_rib_conn {
    int afi;
};

namespace {

using Key = std::array<std::uint8_t, 16>;

Key masked(const std::uint8_t *addr, unsigned bytes, unsigned len) {
    Key k{};
    std::memcpy(k.data(), addr, bytes);
    for (unsigned b = len; b < bytes * 8; ++b)
        k[b / 8] &= static_cast<std::uint8_t>(~(0x80u >> (b % 8)));
    return k;
}

struct Table {
    std::map<Key, ip_rib_route2> by_len[129];
    std::size_t count = 0;
};

struct Rib {
    std::shared_mutex mu;
    ip_rib_conn conns[2] = {{IP_RIB_AFI_IPV4}, {IP_RIB_AFI_IPV6}};
    std::map<rib_tableid_td, std::unique_ptr<Table>> tables[2];
};

Rib &rib() {
    static Rib *r = new Rib;
    return *r;
}

bool valid_afi(int afi) {
    return afi == IP_RIB_AFI_IPV4 || afi == IP_RIB_AFI_IPV6;
}
unsigned bytes_of(int afi) {
    return afi == IP_RIB_AFI_IPV4 ? 4 : 16;
}
unsigned max_of(int afi) {
    return afi == IP_RIB_AFI_IPV4 ? 32 : 128;
}

const Table *find_table(int afi, rib_tableid_td id) {
    auto &tables = rib().tables[afi - 1];
    auto it = tables.find(id);
    return it == tables.end() ? nullptr : it->second.get();
}

const ip_rib_route2 *exact(const Table &t, int afi, const std::uint8_t *addr, unsigned len) {
    auto &m = t.by_len[len];
    auto it = m.find(masked(addr, bytes_of(afi), len));
    return it == m.end() ? nullptr : &it->second;
}

}  // namespace

namespace kref {

bool rib_has_exact(int afi, rib_tableid_td table, const std::uint8_t *addr, unsigned len) {
    if (!valid_afi(afi) || len > max_of(afi)) return false;
    std::shared_lock lock(rib().mu);
    const Table *t = find_table(afi, table);
    return t != nullptr && exact(*t, afi, addr, len) != nullptr;
}

}  // namespace kref

extern "C" {

int ip_rib_client_get_afi(ip_rib_conn_p conn) {
    return conn != nullptr ? conn->afi : 0;
}

vogno ip_rib_route_lookup2(ip_rib_conn_p conn, rib_tableid_td table, const uint8_t *addr,
                           uint32_t len, int kind, int, ip_rib_route2 **route, int *found) {
    KREF_ENTER("ip_rib_route_lookup2", std::int64_t{table}, std::int64_t{len}, std::int64_t{kind});
    if (conn == nullptr || addr == nullptr || found == nullptr || !valid_afi(conn->afi) ||
        len > max_of(conn->afi))
        return KREF_ERR_BAD_ARG;
    *found = 0;
    std::shared_lock lock(rib().mu);
    const Table *t = find_table(conn->afi, table);
    if (t == nullptr) return 0;
    const ip_rib_route2 *r = nullptr;
    if (kind == IP_RIB_LOOKUP_BEST) {
        for (int l = static_cast<int>(len); l >= 0 && r == nullptr; --l)
            r = exact(*t, conn->afi, addr, static_cast<unsigned>(l));
    } else {
        r = exact(*t, conn->afi, addr, len);
    }
    if (r != nullptr) {
        *found = 1;
        if (route != nullptr) *route = const_cast<ip_rib_route2 *>(r);
    }
    return 0;
}

vogno ip_rib_route_lookup_longer_range2(ip_rib_conn_p conn, rib_tableid_td table,
                                        const uint8_t *addr, uint32_t first_len, uint32_t last_len,
                                        ip_rib_route2 **route, int *found) {
    KREF_ENTER("ip_rib_route_lookup_longer_range2", std::int64_t{table}, std::int64_t{first_len},
               std::int64_t{last_len});
    if (conn == nullptr || addr == nullptr || found == nullptr || !valid_afi(conn->afi) ||
        first_len > max_of(conn->afi))
        return KREF_ERR_BAD_ARG;
    *found = 0;
    const unsigned bytes = bytes_of(conn->afi);
    if (last_len > max_of(conn->afi)) last_len = max_of(conn->afi);
    std::shared_lock lock(rib().mu);
    const Table *t = find_table(conn->afi, table);
    if (t == nullptr) return 0;
    const Key low = masked(addr, bytes, first_len);
    for (unsigned l = first_len; l <= last_len; ++l) {
        auto it = t->by_len[l].lower_bound(low);
        if (it == t->by_len[l].end()) continue;
        // Under the prefix when its first first_len bits are the prefix's.
        if (masked(it->first.data(), bytes, first_len) == low) {
            *found = 1;
            if (route != nullptr) *route = const_cast<ip_rib_route2 *>(&it->second);
            return 0;
        }
    }
    return 0;
}

ip_rib_conn_p kref_rib_conn(int afi) {
    return valid_afi(afi) ? &rib().conns[afi - 1] : nullptr;
}

vogno kref_rib_add(int afi, rib_tableid_td table, const uint8_t *addr, uint8_t len,
                   const char *data) {
    if (!valid_afi(afi) || addr == nullptr || len > max_of(afi)) return KREF_ERR_BAD_ARG;
    {
        std::unique_lock lock(rib().mu);
        auto &slot = rib().tables[afi - 1][table];
        if (!slot) slot = std::make_unique<Table>();
        const Key k = masked(addr, bytes_of(afi), len);
        auto [it, added] = slot->by_len[len].try_emplace(k);
        it->second = {static_cast<std::uint8_t>(afi == IP_RIB_AFI_IPV4 ? 2 : 10), len, k,
                      data ? data : ""};
        if (!added) return 0;
        ++slot->count;
    }
    kref::routes_changed(afi, table, addr, len);
    return 0;
}

vogno kref_rib_remove(int afi, rib_tableid_td table, const uint8_t *addr, uint8_t len) {
    if (!valid_afi(afi) || addr == nullptr || len > max_of(afi)) return KREF_ERR_BAD_ARG;
    {
        std::unique_lock lock(rib().mu);
        auto &tables = rib().tables[afi - 1];
        auto t = tables.find(table);
        if (t == tables.end() ||
            t->second->by_len[len].erase(masked(addr, bytes_of(afi), len)) == 0)
            return KREF_ERR_NOT_FOUND;
        --t->second->count;
    }
    kref::routes_changed(afi, table, addr, len);
    return 0;
}

size_t kref_rib_count(int afi, rib_tableid_td table) {
    if (!valid_afi(afi)) return 0;
    std::shared_lock lock(rib().mu);
    const Table *t = find_table(afi, table);
    return t != nullptr ? t->count : 0;
}

const char *kref_rib_route_data(const ip_rib_route2 *route) {
    return route ? route->data.c_str() : nullptr;
}
uint8_t kref_rib_route_len(const ip_rib_route2 *route) {
    return route ? route->len : 0;
}

void kref_state_reset(void) {
    // Alone at the gate: no evaluation is between finding a request-tree
    // entry and reading it while the reset releases them all.
    std::unique_lock gate(kref::eval_gate());
    {
        std::unique_lock lock(rib().mu);
        rib().tables[0].clear();
        rib().tables[1].clear();
    }
    kref::async_reset();
    kref::btree_forget_all();
    kref::forget_eval_keys();
}

}  // extern "C"
