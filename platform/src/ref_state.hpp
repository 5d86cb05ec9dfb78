// Links between the routing table and the asynchronous client.
#ifndef KREF_STATE_HPP
#define KREF_STATE_HPP

#include <cstdint>

#include "ip_rib.h"

namespace kref {

// Whether the table holds exactly this route.
bool rib_has_exact(int afi, rib_tableid_td table, const std::uint8_t *addr, unsigned len);
// A route was added or removed: requests that ask for it are answered anew.
void routes_changed(int afi, rib_tableid_td table, const std::uint8_t *addr, unsigned len);
// Forgets every request and tracked object.
void async_reset();

}  // namespace kref

#endif  // KREF_STATE_HPP
