// SPDX-License-Identifier: Apache-2.0
// The built-in client module of kela-policy: a route record with an
// attribute of every type, its registration with the library, route input
// (readable text, JSON Lines and `bgpdump -m` lines) and route output in the
// same three forms.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
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
    // 32-bit elements 8-11: local preference, AS-path length, origin AS
    // (the path's last AS), the neighbour's AS.
    std::uint32_t bgp[4] = {};
    Prefix destination;
    Prefix nexthop;
    bool has_mac = false;
    std::uint8_t mac[6] = {};
    std::uint32_t table = 0;        // routing table the rib-has-route questions go to
    std::uint32_t communities = 0;  // standard communities the input carried
};

// Route input formats.
enum class Format { Auto, Text, Json, Bgpdump };

// Registers every attribute with the library (once per process); on failure
// returns the status and fills `error`.
vogno register_attributes(std::string &error);

// The attributes whose values a policy can change, for reporting changes.
const std::vector<std::string> &settable_attributes();
// 8, 16 or 32 for the integer attributes, else 0.
unsigned integer_bits(const std::string &attr);

// A field of a route line that does not parse.
struct RouteError {
    std::size_t column;  // 1-based, 0 when unknown
    std::string message;
};

// Parses "key=value ..." or a JSON object into a route; false with `err`
// set when the line is malformed.
bool parse_route_text(std::string_view line, Route &r, RouteError &err);
bool parse_route_json(std::string_view line, Route &r, RouteError &err);
// Parses a `bgpdump -m` line.  Withdrawals and state changes are no routes:
// true with `skip` set.
bool parse_route_bgpdump(std::string_view line, Route &r, RouteError &err, bool &skip);
// The format of a line under `chosen` (Auto looks at the line).
Format line_format(std::string_view line, Format chosen);

// The JSON library's error text without its prefix, and the input it
// quotes cut to a bounded length.
std::string json_error_text(const std::string &what);

// The route's destination as text ("10.0.0.0/8"), for output.
std::string destination_text(const Route &r);
// The same, appended to `out`.
void append_destination(std::string &out, const Route &r);

// An attribute a policy changed: name, printed value before and after.
struct Change {
    std::string attr, before, after;
};
// Appends the input line with the changed attributes written into it, in
// the line's own format (attributes the format has no field for are left
// out), and a newline.
void append_changed_route(std::string &out, std::string_view line, Format format,
                          const std::vector<Change> &changes);

}  // namespace kp
