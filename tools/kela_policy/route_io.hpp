// SPDX-License-Identifier: Apache-2.0
// Route lines in and out: the three forms kela-policy reads (readable
// `key=value` text, JSON objects, `bgpdump -m` lines) and writes back with
// a policy's changes written in.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "route.hpp"

namespace kp {

// Route input formats.
enum class Format { Auto, Text, Json, Bgpdump };

// A field of a route line that does not parse.
struct RouteError {
    std::size_t column;  // 1-based, 0 when unknown
    std::string message;
};

// Parses a route line in `chosen` form (Auto: by the line's look); false
// with `err` set when the line is malformed.  Withdrawals and state
// changes of a bgpdump stream are no routes: true with `skip` set.
bool parse_route(Format chosen, std::string_view line, Route &r, RouteError &err, bool &skip);
// The format of a line under `chosen` (Auto looks at the line).
Format line_format(std::string_view line, Format chosen);

// The route's destination as text ("10.0.0.0/8"), for output.
std::string destination_text(const Route &r);
// The same, appended to `out`.
void append_destination(std::string &out, const Route &r);

// An attribute a policy changed: name, printed value before and after.
struct Change {
    std::string attr, before, after;
    bool operator==(const Change &) const = default;
};
// Appends the input line with the changed attributes written into it, in
// the line's own format (attributes the format has no field for are left
// out), and a newline.
void append_changed_route(std::string &out, std::string_view line, Format format,
                          const std::vector<Change> &changes);

// What input and output share about the line forms.
namespace fields {
// The field of the text and JSON forms with this name (or other name), -1
// when there is none; the field that carries an attribute, null when none.
int of(std::string_view key);
const char *name_of(const std::string &attr);
// The fields of a `bgpdump -m` line ("TABLE_DUMP2|time|B|peer|peer AS|
// prefix|path|origin|next hop|local pref|MED|communities|...").
enum Bar : std::size_t {
    kBarType,
    kBarTime,
    kBarKind,
    kBarPeer,
    kBarPeerAs,
    kBarPrefix,
    kBarPath,
    kBarOrigin,
    kBarNexthop,
    kBarLocalPref,
    kBarMed,
    kBarCommunities,
    kBarCount  // at least this many fields
};
// A `bgpdump -m` line split at '|'.
std::vector<std::string_view> split_bars(std::string_view line);
// The well-known communities that are flags, as bgpdump prints them.
struct WellKnown {
    const char *text;
    std::uint64_t flag;
};
extern const WellKnown kWellKnown[6];
}  // namespace fields

}  // namespace kp
