// The built-in client module of kela-policy: a route record with an
// attribute of every type, its registration with the library, and route
// input (readable text and JSON Lines).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "kela_shared.h"

namespace kp {

// One prefix value (destination or next hop).
struct Prefix {
    std::uint8_t family = 0;  // 0: absent
    std::uint8_t len = 0;
    std::uint8_t addr[16] = {};
};

// The route record.  The integer, enumeration and bit-masked attributes find
// their values by element index, the flags and the peer address by byte
// offset: the layout below is part of the descriptors.
struct Route {
    std::uint32_t words[4] = {};  // 0 metric, 1 origin, 2 community, 3 community mask word
    std::uint16_t tag = 0;        // 16-bit element 8
    std::uint8_t preference = 0;  // byte 18
    std::uint8_t peer_len = 0;    // byte 19
    std::uint8_t peer[4] = {};    // bytes 20-23
    std::uint64_t flags = 0;      // byte 24
    Prefix destination;
    Prefix nexthop;
    bool has_mac = false;
    std::uint8_t mac[6] = {};
    std::uint32_t table = 0;  // routing table the rib-has-route questions go to
};

// Registers every attribute with the library (once per process); on failure
// returns the status and fills `error`.
vogno register_attributes(std::string &error);

// The attributes whose values a policy can change, for reporting changes.
const std::vector<std::string> &settable_attributes();

// A field of a route line that does not parse.
struct RouteError {
    std::size_t column;  // 1-based, 0 when unknown
    std::string message;
};

// Parses "key=value ..." or a JSON object into a route; false with `err`
// set when the line is malformed.
bool parse_route_text(const std::string &line, Route &r, RouteError &err);
bool parse_route_json(const std::string &line, Route &r, RouteError &err);

// The route's destination as text ("10.0.0.0/8"), for output.
std::string destination_text(const Route &r);
// The same, appended to `out`.
void append_destination(std::string &out, const Route &r);

}  // namespace kp
