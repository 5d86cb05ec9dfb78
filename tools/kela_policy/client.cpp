// SPDX-License-Identifier: Apache-2.0
// The built-in client module of kela-policy: attribute registration, route
// parsing in the three input forms and route output.
#include "client.hpp"

#include <arpa/inet.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <iterator>
#include <map>
#include <nlohmann/json.hpp>

#include "kela_ref_state.h"

namespace kp {

namespace {

// ---- values of the route record ---------------------------------------------------

const char *const kLocations[] = {"import", "export", nullptr};

vogno get_prefix(const Prefix &p, shared_kela_prefix_addr_td *v, uint32_t *more) {
    if (p.family == 0) return 19;  // the route has no such value
    v->family = p.family;
    v->addr = const_cast<std::uint8_t *>(p.addr);
    v->len = p.len;
    v->free_addr = 0;
    *more = 0;
    return 0;
}
vogno get_destination(void *, void *route, shared_kela_prefix_addr_td *v, uint32_t *more) {
    return get_prefix(static_cast<Route *>(route)->destination, v, more);
}
vogno get_nexthop(void *, void *route, shared_kela_prefix_addr_td *v, uint32_t *more) {
    return get_prefix(static_cast<Route *>(route)->nexthop, v, more);
}

// "assign" hands over the framework's address record: a host prefix.
vogno set_prefix(Prefix &p, const void *slot) {
    const auto *a = static_cast<const ip_addr_t *>(slot);
    if (a == nullptr || (a->family != 2 && a->family != 10)) return KEL_SHARED_ERR_BAD_VALUE;
    p.family = a->family;
    p.len = a->family == 2 ? 32 : 128;
    std::memset(p.addr, 0, sizeof p.addr);
    std::memcpy(p.addr, a->addr, a->family == 2 ? 4 : 16);
    return 0;
}
vogno set_destination(shared_kela_prefix_desc_td *, void *route, void *slot,
                      shared_kela_prefix_desc_td *) {
    return set_prefix(static_cast<Route *>(route)->destination, slot);
}
vogno set_nexthop(shared_kela_prefix_desc_td *, void *route, void *slot,
                  shared_kela_prefix_desc_td *) {
    return set_prefix(static_cast<Route *>(route)->nexthop, slot);
}

vogno is_default(shared_kela_prefix_extra_op_td *, void *route, uint8_t, int32_t *out) {
    const Prefix &p = static_cast<Route *>(route)->destination;
    bool zero = p.family != 0 && p.len == 0;
    for (int i = 0; i < 16 && zero; ++i) zero = p.addr[i] == 0;
    *out = zero ? 1 : 0;
    return 0;
}

vogno get_mac(void *, void *route, uint8_t *value) {
    const Route *r = static_cast<Route *>(route);
    if (!r->has_mac) return 19;
    std::memcpy(value, r->mac, 6);
    return 0;
}

vogno get_rib(void *route, ip_rib_conn_p *conn, rib_tableid_td *table) {
    const Route *r = static_cast<Route *>(route);
    *conn = kref_rib_conn(r->destination.family == 10 ? IP_RIB_AFI_IPV6 : IP_RIB_AFI_IPV4);
    *table = r->table;
    return 0;
}

// Communities are written AS:N; the value word holds AS << 16 | N.
vogno parse_community(const char *text, void *, int strict, uint32_t *out) {
    if (text == nullptr) return KEL_SHARED_ERR_NULL_PARAM;
    char *end = nullptr;
    errno = 0;
    const unsigned long as = std::strtoul(text, &end, 10);
    if (end == text || *end != ':' || as > 0xFFFF) return KEL_SHARED_ERR_BAD_VALUE;
    const char *n_text = end + 1;
    const unsigned long n = std::strtoul(n_text, &end, 10);
    if (end == n_text || n > 0xFFFF || (strict != 0 && *end != '\0'))
        return KEL_SHARED_ERR_BAD_VALUE;
    if (out != nullptr) *out = static_cast<uint32_t>(as << 16 | n);
    return 0;
}
char *print_community(void *, void *route, void *) {
    if (route == nullptr) return strdup("<<no route>>");
    const uint32_t v = static_cast<Route *>(route)->words[2];
    if ((static_cast<Route *>(route)->words[3] & 0x1u) == 0) return strdup("none");
    return strdup((std::to_string(v >> 16) + ":" + std::to_string(v & 0xFFFF)).c_str());
}

// Flags are named; a list joins names with commas.
const std::pair<const char *, uint64_t> kFlagNames[] = {
    {"blackhole", 0x1}, {"no-export", 0x2}, {"no-advertise", 0x4}, {"graceful-shutdown", 0x8}};

vogno parse_flags(const char *text, void *, uint64_t *mask) {
    if (text == nullptr || *text == '\0') return KEL_SHARED_ERR_BAD_VALUE;
    uint64_t m = 0;
    std::string s = text;
    std::size_t at = 0;
    while (at <= s.size()) {
        const std::size_t comma = s.find(',', at);
        const std::string name =
            s.substr(at, comma == std::string::npos ? std::string::npos : comma - at);
        uint64_t bit = 0;
        for (auto [n, b] : kFlagNames)
            if (name == n) bit = b;
        if (bit == 0) return KEL_SHARED_ERR_BAD_VALUE;
        m |= bit;
        if (comma == std::string::npos) break;
        at = comma + 1;
    }
    if (mask != nullptr) *mask = m;
    return 0;
}
char *print_flags(void *, uint64_t *flags, shared_kela_flag64_desc_td *) {
    if (flags == nullptr) return strdup("<<no route>>");
    std::string out;
    for (auto [n, b] : kFlagNames)
        if ((*flags & b) != 0) out += (out.empty() ? "" : ",") + std::string(n);
    return strdup(out.empty() ? "none" : out.c_str());
}

const shared_kela_enum_name_td kOrigins[] = {
    {0, "igp"}, {1, "egp"}, {2, "incomplete"}, {0, nullptr}};

shared_kela_uint32_desc_td metric_desc{"metric", 0, 0, 0, nullptr};
shared_kela_uint16_desc_td tag_desc{"tag", 8, 0, 0};
shared_kela_uint8_desc_td pref_desc{"preference", 18, 0, 0};
shared_kela_enum_desc_td origin_desc{"origin", 1, kOrigins};
shared_kela_bitmasked_desc_td community_desc{
    "community", nullptr, print_community, parse_community, 2, 3, 0x1, nullptr};
shared_kela_flag64_desc_td flags_desc{
    "flags", nullptr, print_flags, parse_flags, offsetof(Route, flags), 0};
shared_kela_ipv4_desc_td peer_desc{"peer", offsetof(Route, peer), offsetof(Route, peer_len)};
shared_kela_prefix_extra_op_td dest_extra[] = {{"is-default", kLocations, is_default, 0}};
shared_kela_prefix_desc_td dest_desc{"destination", get_destination, set_destination, dest_extra,
                                     1};
shared_kela_prefix_desc_td nexthop_desc{"nexthop", get_nexthop, set_nexthop, nullptr, 0};
shared_kela_mac_address_desc_td mac_desc{"mac", get_mac};
// BGP's own values, 32-bit elements 8-11 of the record.
shared_kela_uint32_desc_td local_pref_desc{"local-pref", 8, 0, 0, nullptr};
shared_kela_uint32_desc_td path_len_desc{"as-path-length", 9, 0, 0, nullptr};
shared_kela_uint32_desc_td origin_as_desc{"origin-as", 10, 0, 0, nullptr};
shared_kela_uint32_desc_td peer_as_desc{"peer-as", 11, 0, 0, nullptr};
shared_kela_rhr_desc_td rhr_desc{"rib-has-route", get_rib};
int track_desc = 0;

static_assert(offsetof(Route, tag) == 16 && offsetof(Route, preference) == 18);
static_assert(offsetof(Route, peer_len) == 19 && offsetof(Route, peer) == 20);
static_assert(offsetof(Route, bgp) == 8 * sizeof(std::uint32_t));

// ---- route fields ----------------------------------------------------------------------

bool parse_prefix(const std::string &text, Prefix &p, bool host_default) {
    const std::size_t slash = text.find('/');
    const std::string addr = text.substr(0, slash);
    const bool v6 = addr.find(':') != std::string::npos;
    Prefix out;
    if (inet_pton(v6 ? AF_INET6 : AF_INET, addr.c_str(), out.addr) != 1) return false;
    out.family = v6 ? 10 : 2;
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

// The fields of a route line, each with its other name; each may be given
// once per line.  `attr` is the attribute a field fills, for route output.
enum Field {
    kDest,
    kNexthop,
    kMetric,
    kTag,
    kPreference,
    kOrigin,
    kCommunity,
    kFlags,
    kPeer,
    kMac,
    kTable,
    kLocalPref,
    kAsPath,
    kPeerAs
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
               {"peer-as", nullptr, "peer-as"}};

int field_of(std::string_view key) {
    for (int i = 0; i < static_cast<int>(std::size(kFields)); ++i)
        if (key == kFields[i].name || (kFields[i].alias != nullptr && key == kFields[i].alias))
            return i;
    return -1;
}

// Error texts quote at most this much of the input.
constexpr std::size_t kQuoteMax = 64;
std::string quoted_text(std::string_view s) {
    if (s.size() <= kQuoteMax) return "'" + std::string(s) + "'";
    return "'" + std::string(s.substr(0, kQuoteMax)) + "...' (" + std::to_string(s.size()) +
           " bytes)";
}

// Applies one field to the route; an error text when the value is not one.
std::string set_field(Route &r, unsigned &seen, std::string_view key, const std::string &value) {
    const int field = field_of(key);
    if (field < 0) return "unknown field " + quoted_text(key);
    if ((seen & (1u << field)) != 0) return "field " + quoted_text(key) + " given twice";
    seen |= 1u << field;
    uint64_t n = 0;
    switch (static_cast<Field>(field)) {
        case kDest:
            if (!parse_prefix(value, r.destination, false))
                return "bad destination prefix " + quoted_text(value);
            break;
        case kNexthop:
            if (!parse_prefix(value, r.nexthop, true)) return "bad next hop " + quoted_text(value);
            break;
        case kMetric:
            if (!parse_number(value, 0xFFFFFFFFu, n)) return "bad metric " + quoted_text(value);
            r.words[0] = static_cast<std::uint32_t>(n);
            break;
        case kTag:
            if (!parse_number(value, 0xFFFF, n)) return "bad tag " + quoted_text(value);
            r.tag = static_cast<std::uint16_t>(n);
            break;
        case kPreference:
            if (!parse_number(value, 0xFF, n)) return "bad preference " + quoted_text(value);
            r.preference = static_cast<std::uint8_t>(n);
            break;
        case kOrigin: {
            uint32_t v = 0;
            if (shared_kela_enum_cvt_string(value.c_str(), &origin_desc, nullptr, &v) != 0)
                return "bad origin " + quoted_text(value) + " (igp, egp, incomplete)";
            r.words[1] = v;
            break;
        }
        case kCommunity: {
            uint32_t v = 0;
            if (parse_community(value.c_str(), nullptr, 1, &v) != 0)
                return "bad community " + quoted_text(value) + " (AS:N)";
            r.words[2] = v;
            r.words[3] |= 0x1u;
            r.communities = 1;
            break;
        }
        case kFlags: {
            uint64_t m = 0;
            if (parse_flags(value.c_str(), nullptr, &m) != 0)
                return "bad flags " + quoted_text(value);
            r.flags = m;
            break;
        }
        case kPeer: {
            Prefix p;
            if (!parse_prefix(value, p, true) || p.family != 2)
                return "bad IPv4 peer " + quoted_text(value);
            std::memcpy(r.peer, p.addr, 4);
            r.peer_len = p.len;
            break;
        }
        case kMac:
            if (!parse_mac(value, r.mac)) return "bad MAC address " + quoted_text(value);
            r.has_mac = true;
            break;
        case kTable:
            if (!parse_number(value, 0xFFFFFFFFu, n)) return "bad table " + quoted_text(value);
            r.table = static_cast<std::uint32_t>(n);
            break;
        case kLocalPref:
            if (!parse_number(value, 0xFFFFFFFFu, n)) return "bad local-pref " + quoted_text(value);
            r.bgp[0] = static_cast<std::uint32_t>(n);
            break;
        case kAsPath:
            if (!parse_as_path(value, r.bgp[1], r.bgp[2]))
                return "bad AS path " + quoted_text(value);
            break;
        case kPeerAs:
            if (!parse_number(value, 0xFFFFFFFFu, n)) return "bad peer-as " + quoted_text(value);
            r.bgp[3] = static_cast<std::uint32_t>(n);
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
// each field's column is known for its error message.  The input iterator
// reports how far the parser has read.
struct TrackingIter {
    using iterator_category = std::input_iterator_tag;
    using value_type = char;
    using difference_type = std::ptrdiff_t;
    using pointer = const char *;
    using reference = const char &;
    const char *p;
    const char **at;
    reference operator*() const { return *p; }
    TrackingIter &operator++() {
        *at = ++p;
        return *this;
    }
    TrackingIter operator++(int) {
        TrackingIter t = *this;
        ++*this;
        return t;
    }
    bool operator==(const TrackingIter &o) const { return p == o.p; }
    bool operator!=(const TrackingIter &o) const { return p != o.p; }
};

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

// Splits a `bgpdump -m` line at '|'.
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

// The well-known communities that have a flag of their own, as `bgpdump`
// prints them.
constexpr struct {
    const char *text;
    std::uint64_t flag;
} kWellKnown[] = {{"no-export", 0x2},   {"65535:65281", 0x2}, {"no-advertise", 0x4},
                  {"65535:65282", 0x4}, {"65535:666", 0x1},   {"65535:0", 0x8}};

}  // namespace

vogno register_attributes(std::string &error) {
    char buf[256] = "";
    const char *const *L = kLocations;
    struct Step {
        const char *what;
        std::function<vogno()> run;
    };
    auto u32 = [&](shared_kela_uint32_desc_td *d) {
        return [&buf, L, d] {
            return shared_kela_uint32_base_init_v2(nullptr, buf, sizeof buf, d, L, L, L, L);
        };
    };
    const Step steps[] = {
        {"metric", u32(&metric_desc)},
        {"tag",
         [&] {
             return shared_kela_uint16_base_init_v2(nullptr, buf, sizeof buf, &tag_desc, L, L, L,
                                                    L);
         }},
        {"preference",
         [&] {
             return shared_kela_uint8_base_init_v2(nullptr, buf, sizeof buf, &pref_desc, L, L, L,
                                                   L);
         }},
        {"origin",
         [&] {
             return shared_kela_enum_base_init_v2(nullptr, buf, sizeof buf, &origin_desc, L, L, L,
                                                  L);
         }},
        {"community",
         [&] {
             return shared_kela_bitmasked_base_init_v2(nullptr, buf, sizeof buf, &community_desc, L,
                                                       L, L, L);
         }},
        {"flags",
         [&] {
             return shared_kela_flag64_base_init_v2(nullptr, buf, sizeof buf, &flags_desc, L, L, L,
                                                    L);
         }},
        {"peer",
         [&] {
             return shared_kela_ipv4_base_init_v2(nullptr, buf, sizeof buf, &peer_desc, L, L, L, L);
         }},
        {"destination",
         [&] {
             return shared_kela_prefix_base_init(nullptr, buf, sizeof buf, &dest_desc, L, L, L, L);
         }},
        {"nexthop",
         [&] {
             return shared_kela_prefix_base_init(nullptr, buf, sizeof buf, &nexthop_desc, L, L, L,
                                                 L);
         }},
        {"mac",
         [&] {
             return shared_kela_mac_address_base_init(nullptr, buf, sizeof buf, &mac_desc, L, L, L,
                                                      L);
         }},
        {"rib-has-route",
         [&] {
             return shared_kela_rhr_base_init(nullptr, buf, sizeof buf, &rhr_desc, L, L, L, L);
         }},
        {"track",
         [&] {
             return shared_kela_track_base_init(nullptr, buf, sizeof buf, &track_desc, L, L, L, L);
         }},
        {"local-pref", u32(&local_pref_desc)},
        {"as-path-length", u32(&path_len_desc)},
        {"origin-as", u32(&origin_as_desc)},
        {"peer-as", u32(&peer_as_desc)},
    };
    for (const Step &s : steps) {
        if (vogno st = s.run(); st != 0) {
            error = std::string("cannot register ") + s.what + ": " + buf;
            return st;
        }
    }
    return 0;
}

const std::vector<std::string> &settable_attributes() {
    static const std::vector<std::string> names = {
        "metric",      "tag",     "preference", "origin",         "community", "flags",
        "destination", "nexthop", "local-pref", "as-path-length", "origin-as", "peer-as"};
    return names;
}

unsigned integer_bits(const std::string &attr) {
    if (attr == "tag") return 16;
    if (attr == "preference") return 8;
    if (attr == "metric" || attr == "local-pref" || attr == "as-path-length" ||
        attr == "origin-as" || attr == "peer-as")
        return 32;
    return 0;
}

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
            err = {start + 1, "expected key=value, found " + quoted_text(token)};
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
    const std::vector<std::string_view> f = split_bars(line);
    // Column of field i, for messages.
    auto column = [&](std::size_t i) {
        return static_cast<std::size_t>(f[std::min(i, f.size() - 1)].data() - line.data()) + 1;
    };
    auto fail = [&](std::size_t i, std::string m) {
        err = {column(i), std::move(m)};
        return false;
    };
    if (f[0] != "TABLE_DUMP2" && f[0] != "TABLE_DUMP" && f[0].substr(0, 6) != "BGP4MP")
        return fail(0, "expected a bgpdump -m line (TABLE_DUMP2|... or BGP4MP|...), found " +
                           quoted_text(f[0]));
    if (f.size() > 2 && f[2] != "A" && f[2] != "B") {
        skip = true;  // a withdrawal or a state change
        return true;
    }
    if (f.size() < 12) return fail(f.size(), "expected at least 12 fields separated by '|'");
    unsigned seen = 0;
    Prefix peer;
    if (!parse_prefix(std::string(f[3]), peer, true))
        return fail(3, "bad peer address " + quoted_text(f[3]));
    if (peer.family == 2) {
        std::memcpy(r.peer, peer.addr, 4);
        r.peer_len = 32;
    }
    static const int kMap[][2] = {{4, kPeerAs},  {5, kDest},      {6, kAsPath},
                                  {8, kNexthop}, {9, kLocalPref}, {10, kMetric}};
    for (const auto &m : kMap) {
        std::string value(f[static_cast<std::size_t>(m[0])]);
        if (m[1] == kNexthop) value = value.substr(0, value.find(' '));  // global address first
        if (std::string e = set_field(r, seen, kFields[m[1]].name, value); !e.empty())
            return fail(static_cast<std::size_t>(m[0]), e);
    }
    std::string origin(f[7]);
    for (char &c : origin) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    if (std::string e = set_field(r, seen, "origin", origin); !e.empty()) return fail(7, e);
    // Communities: the well-known ones are flags, the first other standard
    // one is the community attribute (it holds one value); large
    // communities have no attribute.
    std::string_view comms = f[11];
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
        if (known || std::count(c.begin(), c.end(), ':') != 1) continue;
        uint32_t v = 0;
        if (parse_community(std::string(c).c_str(), nullptr, 1, &v) != 0) continue;
        if (r.communities++ == 0) {
            r.words[2] = v;
            r.words[3] |= 0x1u;
        }
    }
    return finish(r, err);
}

std::string json_error_text(const std::string &what) {
    // "[json.exception.parse_error.101] parse error at line 1, column 9:
    // syntax error ...; last read: '...'; expected ..." keeps what follows
    // the position.
    std::string m = what;
    if (const std::size_t c = m.find(": "); c != std::string::npos) m.erase(0, c + 2);
    const std::string mark = "last read: '";
    const std::size_t from = m.find(mark);
    if (from != std::string::npos) {
        const std::size_t start = from + mark.size();
        const std::size_t end = m.find("'; ", start);
        const std::size_t len = (end == std::string::npos ? m.size() : end) - start;
        if (len > kQuoteMax) m.replace(start + kQuoteMax, len - kQuoteMax, "...");
    }
    return m;
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

namespace {

// Decimal digits of n (below 1000) at p; returns the end.
char *put_decimal(char *p, unsigned n) {
    if (n >= 100) *p++ = static_cast<char>('0' + n / 100);
    if (n >= 10) *p++ = static_cast<char>('0' + n / 10 % 10);
    *p++ = static_cast<char>('0' + n % 10);
    return p;
}

// The field name of an attribute in the text and JSON forms; null when the
// forms have none.
const char *field_name(const std::string &attr) {
    for (const auto &f : kFields)
        if (f.attr != nullptr && attr == f.attr) return f.name;
    return nullptr;
}

void changed_text(std::string &out, std::string_view line, const std::vector<Change> &changes) {
    std::vector<bool> done(changes.size());
    std::size_t at = 0;
    bool first = true;
    while (at < line.size()) {
        while (at < line.size() && std::isspace(static_cast<unsigned char>(line[at]))) ++at;
        if (at >= line.size()) break;
        const std::size_t start = at;
        while (at < line.size() && !std::isspace(static_cast<unsigned char>(line[at]))) ++at;
        std::string_view token = line.substr(start, at - start);
        const std::string_view key = token.substr(0, token.find('='));
        out += first ? "" : " ";
        first = false;
        bool replaced = false;
        for (std::size_t i = 0; i < changes.size() && !replaced; ++i) {
            const char *name = field_name(changes[i].attr);
            if (name == nullptr || field_of(key) != field_of(name)) continue;
            out.append(key);
            out += '=';
            out += changes[i].after;
            done[i] = replaced = true;
        }
        if (!replaced) out.append(token);
    }
    for (std::size_t i = 0; i < changes.size(); ++i)
        if (!done[i] && field_name(changes[i].attr) != nullptr)
            out += std::string(first ? "" : " ") + field_name(changes[i].attr) + "=" +
                   changes[i].after;
}

void changed_json(std::string &out, std::string_view line, const std::vector<Change> &changes) {
    nlohmann::ordered_json j = nlohmann::ordered_json::parse(line.begin(), line.end());
    for (const Change &c : changes) {
        const char *name = field_name(c.attr);
        if (name == nullptr) continue;
        std::string key = name;
        for (const auto &item : j.items())
            if (field_of(item.key()) == field_of(name)) key = item.key();
        if (integer_bits(c.attr) != 0)
            j[key] = std::stoull(c.after);
        else
            j[key] = c.after;
    }
    out += j.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

void changed_bgpdump(std::string &out, std::string_view line, const std::vector<Change> &changes) {
    std::vector<std::string> f;
    for (std::string_view v : split_bars(line)) f.emplace_back(v);
    auto bare = [](const std::string &prefix) { return prefix.substr(0, prefix.find('/')); };
    for (const Change &c : changes) {
        if (f.size() < 12) break;
        if (c.attr == "destination") {
            f[5] = c.after;
        } else if (c.attr == "nexthop") {
            f[8] = bare(c.after);
        } else if (c.attr == "local-pref") {
            f[9] = c.after;
        } else if (c.attr == "metric") {
            f[10] = c.after;
        } else if (c.attr == "origin") {
            f[7] = c.after;
            for (char &ch : f[7])
                ch = static_cast<char>(std::toupper(static_cast<unsigned char>(ch)));
        } else if (c.attr == "community") {
            // The attribute held the first standard community.
            std::string &comms = f[11];
            const std::size_t hit = c.before == "none" ? std::string::npos : comms.find(c.before);
            if (hit != std::string::npos)
                comms.replace(hit, c.before.size(), c.after);
            else
                comms += (comms.empty() ? "" : " ") + c.after;
        } else if (c.attr == "flags") {
            std::uint64_t before = 0, after = 0;
            parse_flags(c.before.c_str(), nullptr, &before);
            parse_flags(c.after.c_str(), nullptr, &after);
            for (const auto &w : kWellKnown)
                if ((after & ~before & w.flag) != 0) {
                    f[11] += (f[11].empty() ? "" : " ") + std::string(w.text);
                    before |= w.flag;
                }
        }
    }
    for (std::size_t i = 0; i < f.size(); ++i) out += (i ? "|" : "") + f[i];
}

}  // namespace

void append_changed_route(std::string &out, std::string_view line, Format format,
                          const std::vector<Change> &changes) {
    switch (line_format(line, format)) {
        case Format::Json:
            changed_json(out, line, changes);
            break;
        case Format::Bgpdump:
            changed_bgpdump(out, line, changes);
            break;
        default:
            changed_text(out, line, changes);
    }
    out += '\n';
}

void append_destination(std::string &out, const Route &r) {
    const Prefix &p = r.destination;
    if (p.family == 0) {
        out += '-';
        return;
    }
    // Every route's verdict line starts with this: IPv4 is written by hand,
    // as the C library's formatting costs more than the policy itself.
    char buf[64];
    char *end = buf;
    if (p.family == 2) {
        for (int i = 0; i < 4; ++i) {
            if (i != 0) *end++ = '.';
            end = put_decimal(end, p.addr[i]);
        }
    } else {
        inet_ntop(AF_INET6, p.addr, buf, sizeof buf);
        end = buf + std::strlen(buf);
    }
    *end++ = '/';
    end = put_decimal(end, p.len);
    out.append(buf, end);
}

std::string destination_text(const Route &r) {
    std::string out;
    append_destination(out, r);
    return out;
}

}  // namespace kp
