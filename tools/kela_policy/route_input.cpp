// SPDX-License-Identifier: Apache-2.0
// Route input: the fields of a route line in the readable text form, in
// JSON (read through the JSON library's event interface, so that each
// field's column is known) and in `bgpdump -m` form, checked value by value.
#include <arpa/inet.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <nlohmann/json.hpp>

#include "lines.hpp"
#include "route_io.hpp"

namespace kp {

namespace {

// The fields of a route line, each with its other name; each may be given
// once per line.  `attr` is the attribute a field fills, for route output.

// The fields of a route line, each with its other name; each may be given
// once per line.  `attr` is the attribute a field fills, for route output.
enum Field {
    kFieldDest,
    kFieldNexthop,
    kFieldMetric,
    kFieldTag,
    kFieldPreference,
    kFieldOrigin,
    kFieldCommunity,
    kFieldFlags,
    kFieldPeer,
    kFieldMac,
    kFieldTable,
    kFieldLocalPref,
    kFieldAsPath,
    kFieldPeerAs,
    kFieldLargeCommunity
};
constexpr struct {
    const char *name, *alias, *attr;
} kFields[] = {{"dest", "destination", "destination"},
               {"nexthop", "nh", "nexthop"},
               {"metric", "med", "metric"},
               {"tag", nullptr, "tag"},
               {"pref", "preference", "preference"},
               {"origin", nullptr, "origin"},
               {"community", nullptr, "community"},
               {"flags", nullptr, "flags"},
               {"peer", nullptr, "peer"},
               {"mac", nullptr, "mac"},
               {"table", nullptr, nullptr},
               {"local-pref", "lpref", "local-pref"},
               {"as-path", nullptr, nullptr},
               {"peer-as", nullptr, "peer-as"},
               {"large-community", nullptr, nullptr}};

}  // namespace

namespace fields {

int of(std::string_view key) {
    for (int i = 0; i < static_cast<int>(std::size(kFields)); ++i)
        if (key == kFields[i].name || (kFields[i].alias != nullptr && key == kFields[i].alias))
            return i;
    return -1;
}

const char *name_of(const std::string &attr) {
    for (const auto &f : kFields)
        if (f.attr != nullptr && attr == f.attr) return f.name;
    return nullptr;
}

std::vector<std::string_view> split_bars(std::string_view line) {
    std::vector<std::string_view> f;
    std::size_t at = 0;
    for (;;) {
        const std::size_t bar = line.find('|', at);
        f.push_back(line.substr(at, bar == std::string_view::npos ? line.npos : bar - at));
        if (bar == std::string_view::npos) break;
        at = bar + 1;
    }
    return f;
}

const WellKnown kWellKnown[6] = {{"no-export", kNoExport},       {"65535:65281", kNoExport},
                                 {"no-advertise", kNoAdvertise}, {"65535:65282", kNoAdvertise},
                                 {"65535:666", kBlackhole},      {"65535:0", kGracefulShutdown}};

}  // namespace fields

namespace {

bool parse_prefix(const std::string &text, Prefix &p, bool host_default) {
    const std::size_t slash = text.find('/');
    const std::string addr = text.substr(0, slash);
    const bool v6 = addr.find(':') != std::string::npos;
    Prefix out;
    if (inet_pton(v6 ? AF_INET6 : AF_INET, addr.c_str(), out.addr) != 1) return false;
    out.family = v6 ? kIPv6 : kIPv4;
    const unsigned max = v6 ? 128 : 32;
    if (slash == std::string::npos) {
        if (!host_default) return false;
        out.len = static_cast<std::uint8_t>(max);
    } else {
        const std::string l = text.substr(slash + 1);
        if (l.empty() || l.size() > 3 || l.find_first_not_of("0123456789") != std::string::npos)
            return false;
        const unsigned len = static_cast<unsigned>(std::stoul(l));
        if (len > max) return false;
        out.len = static_cast<std::uint8_t>(len);
    }
    p = out;
    return true;
}

bool parse_number(const std::string &text, uint64_t max, uint64_t &out) {
    if (text.empty() || text.size() > 20 ||
        text.find_first_not_of("0123456789") != std::string::npos)
        return false;
    errno = 0;
    const unsigned long long v = std::strtoull(text.c_str(), nullptr, 10);
    if (errno != 0 || v > max) return false;
    out = v;
    return true;
}

bool parse_mac(const std::string &text, std::uint8_t *mac) {
    std::string hex;
    if (text.size() == 14 && text[4] == '.' && text[9] == '.') {
        hex = text.substr(0, 4) + text.substr(5, 4) + text.substr(10, 4);
    } else if (text.size() == 17) {
        for (std::size_t i = 0; i < 17; ++i) {
            if (i % 3 == 2) {
                if (text[i] != ':') return false;
            } else {
                hex += text[i];
            }
        }
    } else {
        return false;
    }
    for (char c : hex)
        if (!std::isxdigit(static_cast<unsigned char>(c))) return false;
    for (int i = 0; i < 6; ++i)
        mac[i] = static_cast<std::uint8_t>(std::stoul(hex.substr(2 * i, 2), nullptr, 16));
    return true;
}

// An AS path: numbers separated by spaces or commas; an AS set "{a,b}"
// counts as one AS and leaves the origin AS unknown (0); confederation
// segments "(a b)" or "[a b]" do not count, as in route selection.
bool parse_as_path(std::string_view text, std::uint32_t &length, std::uint32_t &origin) {
    length = origin = 0;
    std::size_t at = 0;
    while (at < text.size()) {
        const char c = text[at];
        if (c == ' ' || c == ',') {
            ++at;
        } else if (c == '{' || c == '(' || c == '[') {
            const char close = c == '{' ? '}' : c == '(' ? ')' : ']';
            const std::size_t end = text.find(close, at);
            if (end == std::string_view::npos) return false;
            if (c == '{') {
                ++length;
                origin = 0;
            }
            at = end + 1;
        } else if (c >= '0' && c <= '9') {
            std::uint64_t v = 0;
            while (at < text.size() && text[at] >= '0' && text[at] <= '9') {
                v = v * 10 + static_cast<unsigned>(text[at++] - '0');
                if (v > 0xFFFFFFFFu) return false;
            }
            ++length;
            origin = static_cast<std::uint32_t>(v);
        } else {
            return false;
        }
    }
    return true;
}

// Communities separated by commas or blanks, standard (AS:N) or large
// (A:B:C), added to the route's lists.
bool parse_communities(std::string_view text, Route &r, bool large = false) {
    std::size_t at = 0;
    bool any = false;
    while (at < text.size()) {
        const std::size_t end = std::min(text.find_first_of(", ", at), text.size());
        const std::string one(text.substr(at, end - at));
        at = end + 1;
        if (one.empty()) continue;
        any = true;
        if (!large) {
            uint32_t v = 0;
            if (parse_community(one.c_str(), nullptr, 1, &v) != 0) return false;
            add_community(r, v);
            continue;
        }
        std::array<std::uint32_t, 3> v{};
        std::size_t from = 0;
        for (std::size_t k = 0; k < 3; ++k) {
            const std::size_t colon = k < 2 ? one.find(':', from) : one.size();
            uint64_t n = 0;
            if (colon == std::string::npos ||
                !parse_number(one.substr(from, colon - from), 0xFFFFFFFFu, n))
                return false;
            v[k] = static_cast<std::uint32_t>(n);
            from = colon + 1;
        }
        r.large.push_back(v);
    }
    return any;
}

// Applies one field to the route; an error text when the value is not one.
std::string set_field(Route &r, unsigned &seen, std::string_view key, const std::string &value) {
    const int field = fields::of(key);
    if (field < 0) return "unknown field " + quote(key);
    if ((seen & (1u << field)) != 0) return "field " + quote(key) + " given twice";
    seen |= 1u << field;
    uint64_t n = 0;
    switch (static_cast<Field>(field)) {
        case kFieldDest:
            if (!parse_prefix(value, r.destination, false))
                return "bad destination prefix " + quote(value);
            break;
        case kFieldNexthop:
            if (!parse_prefix(value, r.nexthop, true)) return "bad next hop " + quote(value);
            break;
        case kFieldMetric:
            if (!parse_number(value, 0xFFFFFFFFu, n)) return "bad metric " + quote(value);
            r.words[kMetricWord] = static_cast<std::uint32_t>(n);
            break;
        case kFieldTag:
            if (!parse_number(value, 0xFFFF, n)) return "bad tag " + quote(value);
            r.tag = static_cast<std::uint16_t>(n);
            break;
        case kFieldPreference:
            if (!parse_number(value, 0xFF, n)) return "bad preference " + quote(value);
            r.preference = static_cast<std::uint8_t>(n);
            break;
        case kFieldOrigin: {
            uint32_t v = 0;
            if (shared_kela_enum_cvt_string(value.c_str(), &origin_desc, nullptr, &v) != 0)
                return "bad origin " + quote(value) + " (igp, egp, incomplete)";
            r.words[kOriginWord] = v;
            break;
        }
        case kFieldCommunity:
            if (!parse_communities(value, r)) return "bad community " + quote(value) + " (AS:N)";
            break;
        case kFieldLargeCommunity:
            if (!parse_communities(value, r, true))
                return "bad large community " + quote(value) + " (A:B:C)";
            break;
        case kFieldFlags: {
            uint64_t m = 0;
            if (parse_flags(value.c_str(), nullptr, &m) != 0) return "bad flags " + quote(value);
            r.flags = m;
            break;
        }
        case kFieldPeer: {
            Prefix p;
            if (!parse_prefix(value, p, true) || p.family != kIPv4)
                return "bad IPv4 peer " + quote(value);
            std::memcpy(r.peer, p.addr, 4);
            r.peer_len = p.len;
            break;
        }
        case kFieldMac:
            if (!parse_mac(value, r.mac)) return "bad MAC address " + quote(value);
            r.has_mac = true;
            break;
        case kFieldTable:
            if (!parse_number(value, 0xFFFFFFFFu, n)) return "bad table " + quote(value);
            r.table = static_cast<std::uint32_t>(n);
            break;
        case kFieldLocalPref:
            if (!parse_number(value, 0xFFFFFFFFu, n)) return "bad local-pref " + quote(value);
            r.bgp[kLocalPref] = static_cast<std::uint32_t>(n);
            break;
        case kFieldAsPath:
            if (!parse_as_path(value, r.bgp[kPathLength], r.bgp[kOriginAs]))
                return "bad AS path " + quote(value);
            break;
        case kFieldPeerAs:
            if (!parse_number(value, 0xFFFFFFFFu, n)) return "bad peer-as " + quote(value);
            r.bgp[kPeerAs] = static_cast<std::uint32_t>(n);
            break;
    }
    return {};
}

bool finish(const Route &r, RouteError &err) {
    if (r.destination.family == 0) {
        err = {0, "the route has no destination"};
        return false;
    }
    return true;
}

// Reads a JSON route object through the library's event interface, so that
// each field's column is known for its error message.
struct RouteSax : nlohmann::json_sax<nlohmann::json> {
    std::string_view line;
    const char *const *at;  // how far the parser has read
    Route &r;
    RouteError &err;
    unsigned seen = 0;
    int depth = 0;
    std::string field;
    std::size_t value_at = 0;  // 0-based offset of the current field's value
    bool failed = false;

    RouteSax(std::string_view l, const char *const *a, Route &route, RouteError &e)
        : line(l), at(a), r(route), err(e) {}

    std::size_t offset() const { return static_cast<std::size_t>(*at - line.data()); }
    bool fail(std::size_t offset0, std::string m) {
        err = {offset0 + 1, std::move(m)};
        failed = true;
        return false;
    }
    bool value(const std::string &text) {
        if (depth != 1) return fail(value_at, "expected a string or a number");
        if (std::string e = set_field(r, seen, field, text); !e.empty()) return fail(value_at, e);
        return true;
    }
    bool null() override { return fail(value_at, "expected a string or a number"); }
    bool boolean(bool) override { return fail(value_at, "expected a string or a number"); }
    bool number_integer(number_integer_t v) override { return value(std::to_string(v)); }
    bool number_unsigned(number_unsigned_t v) override { return value(std::to_string(v)); }
    bool number_float(number_float_t, const string_t &s) override { return value(s); }
    bool string(string_t &s) override { return value(s); }
    bool binary(binary_t &) override { return fail(value_at, "expected a string or a number"); }
    bool start_object(std::size_t) override {
        if (depth++ == 0) return true;
        return fail(value_at, "expected a string or a number");
    }
    bool key(string_t &k) override {
        field = k;
        // The value starts after the key's closing quote, blanks and ':'.
        std::size_t v = offset();
        while (v < line.size() && (line[v] == ' ' || line[v] == '\t' || line[v] == ':')) ++v;
        value_at = v;
        return true;
    }
    bool end_object() override {
        --depth;
        return true;
    }
    bool start_array(std::size_t) override {
        return fail(depth == 0 ? 0 : value_at,
                    depth == 0 ? "expected a JSON object" : "expected a string or a number");
    }
    bool end_array() override { return true; }
    bool parse_error(std::size_t position, const std::string &,
                     const nlohmann::detail::exception &ex) override {
        // "[json.exception.parse_error.101] parse error at line 1, column 9:
        // syntax error ..." keeps only what follows the position.
        return fail(position > 0 ? position - 1 : 0, json_error_text(ex.what()));
    }
};

}  // namespace

bool parse_route_text(std::string_view line, Route &r, RouteError &err) {
    r = Route{};
    unsigned seen = 0;
    std::size_t at = 0;
    while (at < line.size()) {
        while (at < line.size() && std::isspace(static_cast<unsigned char>(line[at]))) ++at;
        if (at >= line.size()) break;
        const std::size_t start = at;
        while (at < line.size() && !std::isspace(static_cast<unsigned char>(line[at]))) ++at;
        const std::string_view token = line.substr(start, at - start);
        const std::size_t eq = token.find('=');
        if (eq == std::string::npos || eq == 0) {
            err = {start + 1, "expected key=value, found " + quote(token)};
            return false;
        }
        if (std::string e =
                set_field(r, seen, token.substr(0, eq), std::string(token.substr(eq + 1)));
            !e.empty()) {
            err = {start + 1, e};
            return false;
        }
    }
    return finish(r, err);
}

bool parse_route_json(std::string_view line, Route &r, RouteError &err) {
    r = Route{};
    const char *at = line.data();
    RouteSax sax(line, &at, r, err);
    const TrackingIter first{line.data(), &at}, last{line.data() + line.size(), &at};
    const bool ok = nlohmann::json::sax_parse(first, last, &sax);
    if (!ok || sax.failed) {
        if (!sax.failed) err = {0, "expected a JSON object"};
        return false;
    }
    if (sax.depth != 0 || line.find_first_not_of(" \t") == std::string_view::npos ||
        line[line.find_first_not_of(" \t")] != '{') {
        err = {1, "expected a JSON object"};
        return false;
    }
    return finish(r, err);
}

bool parse_route_bgpdump(std::string_view line, Route &r, RouteError &err, bool &skip) {
    r = Route{};
    skip = false;
    using namespace fields;
    const std::vector<std::string_view> f = split_bars(line);
    // Column of field i, for messages.
    auto column = [&](std::size_t i) {
        return static_cast<std::size_t>(f[std::min(i, f.size() - 1)].data() - line.data()) + 1;
    };
    auto fail = [&](std::size_t i, std::string m) {
        err = {column(i), std::move(m)};
        return false;
    };
    if (f[kBarType] != "TABLE_DUMP2" && f[kBarType] != "TABLE_DUMP" &&
        f[kBarType].substr(0, 6) != "BGP4MP")
        return fail(kBarType, "expected a bgpdump -m line (TABLE_DUMP2|... or BGP4MP|...), found " +
                                  quote(f[kBarType]));
    if (f.size() > kBarKind && f[kBarKind] != "A" && f[kBarKind] != "B") {
        skip = true;  // a withdrawal or a state change
        return true;
    }
    if (f.size() < kBarCount) return fail(f.size(), "expected at least 12 fields separated by '|'");
    unsigned seen = 0;
    Prefix peer;
    if (!parse_prefix(std::string(f[kBarPeer]), peer, true))
        return fail(kBarPeer, "bad peer address " + quote(f[kBarPeer]));
    if (peer.family == kIPv4) {
        std::memcpy(r.peer, peer.addr, 4);
        r.peer_len = 32;
    }
    static const struct {
        Bar bar;
        Field field;
    } kMap[] = {{kBarPeerAs, kFieldPeerAs},       {kBarPrefix, kFieldDest},
                {kBarPath, kFieldAsPath},         {kBarNexthop, kFieldNexthop},
                {kBarLocalPref, kFieldLocalPref}, {kBarMed, kFieldMetric}};
    for (const auto &m : kMap) {
        std::string value(f[m.bar]);
        if (m.field == kFieldNexthop)
            value = value.substr(0, value.find(' '));  // global address first
        if (std::string e = set_field(r, seen, kFields[m.field].name, value); !e.empty())
            return fail(m.bar, e);
    }
    std::string origin(f[kBarOrigin]);
    for (char &c : origin) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    if (std::string e = set_field(r, seen, "origin", origin); !e.empty())
        return fail(kBarOrigin, e);
    // Communities: the well-known ones are flags, the others standard
    // (AS:N) or large (A:B:C) communities of the route.
    std::string_view comms = f[kBarCommunities];
    std::size_t at = 0;
    while (at < comms.size()) {
        std::size_t end = comms.find(' ', at);
        if (end == std::string_view::npos) end = comms.size();
        const std::string_view c = comms.substr(at, end - at);
        at = end + 1;
        if (c.empty()) continue;
        bool known = false;
        for (const auto &w : kWellKnown)
            if (c == w.text) {
                r.flags |= w.flag;
                known = true;
            }
        // (what is neither, bgpdump's name of another well-known one, is left)
        if (!known) parse_communities(c, r, std::count(c.begin(), c.end(), ':') == 2);
    }
    return finish(r, err);
}

Format line_format(std::string_view line, Format chosen) {
    if (chosen != Format::Auto) return chosen;
    const std::size_t first = line.find_first_not_of(" \t");
    if (first != std::string_view::npos && line[first] == '{') return Format::Json;
    if (line.substr(0, 12) == "TABLE_DUMP2|" || line.substr(0, 11) == "TABLE_DUMP|" ||
        line.substr(0, 6) == "BGP4MP")
        return Format::Bgpdump;
    return Format::Text;
}

bool parse_route(Format chosen, std::string_view line, Route &r, RouteError &err, bool &skip) {
    skip = false;
    switch (line_format(line, chosen)) {
        case Format::Json:
            return parse_route_json(line, r, err);
        case Format::Bgpdump:
            return parse_route_bgpdump(line, r, err, skip);
        default:
            return parse_route_text(line, r, err);
    }
}

}  // namespace kp
