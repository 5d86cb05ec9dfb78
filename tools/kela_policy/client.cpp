#include "client.hpp"

#include <arpa/inet.h>

#include <cctype>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <iterator>
#include <map>

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
shared_kela_rhr_desc_td rhr_desc{"rib-has-route", get_rib};
int track_desc = 0;

static_assert(offsetof(Route, tag) == 16 && offsetof(Route, preference) == 18);
static_assert(offsetof(Route, peer_len) == 19 && offsetof(Route, peer) == 20);

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

// The fields of a route line, each with its other name; each may be given
// once per line.
enum Field { kDest, kNexthop, kMetric, kTag, kPreference, kOrigin, kCommunity, kFlags, kPeer, kMac, kTable };
constexpr struct {
    const char *name, *alias;
} kFields[] = {{"dest", "destination"}, {"nexthop", "nh"}, {"metric", nullptr},
               {"tag", nullptr},        {"pref", "preference"}, {"origin", nullptr},
               {"community", nullptr},  {"flags", nullptr},     {"peer", nullptr},
               {"mac", nullptr},        {"table", nullptr}};

// Applies one field to the route; an error text when the value is not one.
std::string set_field(Route &r, unsigned &seen, const std::string &key, const std::string &value) {
    int field = -1;
    for (int i = 0; i < static_cast<int>(std::size(kFields)) && field < 0; ++i)
        if (key == kFields[i].name || (kFields[i].alias != nullptr && key == kFields[i].alias))
            field = i;
    if (field < 0) return "unknown field '" + key + "'";
    if ((seen & (1u << field)) != 0) return "field '" + key + "' given twice";
    seen |= 1u << field;
    uint64_t n = 0;
    switch (static_cast<Field>(field)) {
        case kDest:
            if (!parse_prefix(value, r.destination, false))
                return "bad destination prefix '" + value + "'";
            break;
        case kNexthop:
            if (!parse_prefix(value, r.nexthop, true)) return "bad next hop '" + value + "'";
            break;
        case kMetric:
            if (!parse_number(value, 0xFFFFFFFFu, n)) return "bad metric '" + value + "'";
            r.words[0] = static_cast<std::uint32_t>(n);
            break;
        case kTag:
            if (!parse_number(value, 0xFFFF, n)) return "bad tag '" + value + "'";
            r.tag = static_cast<std::uint16_t>(n);
            break;
        case kPreference:
            if (!parse_number(value, 0xFF, n)) return "bad preference '" + value + "'";
            r.preference = static_cast<std::uint8_t>(n);
            break;
        case kOrigin: {
            uint32_t v = 0;
            if (shared_kela_enum_cvt_string(value.c_str(), &origin_desc, nullptr, &v) != 0)
                return "bad origin '" + value + "' (igp, egp, incomplete)";
            r.words[1] = v;
            break;
        }
        case kCommunity: {
            uint32_t v = 0;
            if (parse_community(value.c_str(), nullptr, 1, &v) != 0)
                return "bad community '" + value + "' (AS:N)";
            r.words[2] = v;
            r.words[3] |= 0x1u;
            break;
        }
        case kFlags: {
            uint64_t m = 0;
            if (parse_flags(value.c_str(), nullptr, &m) != 0) return "bad flags '" + value + "'";
            r.flags = m;
            break;
        }
        case kPeer: {
            Prefix p;
            if (!parse_prefix(value, p, true) || p.family != 2)
                return "bad IPv4 peer '" + value + "'";
            std::memcpy(r.peer, p.addr, 4);
            r.peer_len = p.len;
            break;
        }
        case kMac:
            if (!parse_mac(value, r.mac)) return "bad MAC address '" + value + "'";
            r.has_mac = true;
            break;
        case kTable:
            if (!parse_number(value, 0xFFFFFFFFu, n)) return "bad table '" + value + "'";
            r.table = static_cast<std::uint32_t>(n);
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

}  // namespace

vogno register_attributes(std::string &error) {
    char buf[256] = "";
    const char *const *L = kLocations;
    struct Step {
        const char *what;
        std::function<vogno()> run;
    };
    const Step steps[] = {
        {"metric",
         [&] {
             return shared_kela_uint32_base_init_v2(nullptr, buf, sizeof buf, &metric_desc, L, L, L,
                                                    L);
         }},
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
    static const std::vector<std::string> names = {"metric",    "tag",   "preference",  "origin",
                                                   "community", "flags", "destination", "nexthop"};
    return names;
}

bool parse_route_text(const std::string &line, Route &r, RouteError &err) {
    r = Route{};
    unsigned seen = 0;
    std::size_t at = 0;
    while (at < line.size()) {
        while (at < line.size() && std::isspace(static_cast<unsigned char>(line[at]))) ++at;
        if (at >= line.size()) break;
        const std::size_t start = at;
        while (at < line.size() && !std::isspace(static_cast<unsigned char>(line[at]))) ++at;
        const std::string token = line.substr(start, at - start);
        const std::size_t eq = token.find('=');
        if (eq == std::string::npos || eq == 0) {
            err = {start + 1, "expected key=value, found '" + token + "'"};
            return false;
        }
        if (std::string e = set_field(r, seen, token.substr(0, eq), token.substr(eq + 1)); !e.empty()) {
            err = {start + 1, e};
            return false;
        }
    }
    return finish(r, err);
}

bool parse_route_json(const std::string &line, Route &r, RouteError &err) {
    r = Route{};
    unsigned seen = 0;
    std::size_t at = 0;
    auto fail = [&](const std::string &what) {
        err = {at + 1, what};
        return false;
    };
    auto skip = [&] {
        while (at < line.size() && std::isspace(static_cast<unsigned char>(line[at]))) ++at;
    };
    // A string in double quotes with JSON's escapes; "\uXXXX" gives the
    // code point in UTF-8 (a surrogate half stands for itself: no field
    // value can hold one anyway).  False with `bad_escape` set when an
    // escape is not one.
    bool bad_escape = false;
    auto string_at = [&](std::string &out) {
        if (at >= line.size() || line[at] != '"') return false;
        ++at;
        out.clear();
        while (at < line.size() && line[at] != '"') {
            if (line[at] != '\\') {
                out += line[at++];
                continue;
            }
            if (++at >= line.size()) return false;
            const char c = line[at++];
            if (c != 'u') {
                const char *from = "nrtbf", *to = "\n\r\t\b\f";
                const char *k = std::strchr(from, c);
                out += k != nullptr && c != '\0' ? to[k - from] : c;
                continue;
            }
            if (at + 4 > line.size()) return false;
            unsigned cp = 0;
            for (int i = 0; i < 4; ++i, ++at) {
                const char h = line[at];
                if (!std::isxdigit(static_cast<unsigned char>(h))) {
                    bad_escape = true;
                    return false;
                }
                cp = cp * 16 + static_cast<unsigned>(std::isdigit(static_cast<unsigned char>(h))
                                                          ? h - '0'
                                                          : (std::tolower(h) - 'a' + 10));
            }
            if (cp < 0x80) {
                out += static_cast<char>(cp);
            } else if (cp < 0x800) {
                out += static_cast<char>(0xC0 | (cp >> 6));
                out += static_cast<char>(0x80 | (cp & 0x3F));
            } else {
                out += static_cast<char>(0xE0 | (cp >> 12));
                out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
                out += static_cast<char>(0x80 | (cp & 0x3F));
            }
        }
        if (at >= line.size()) return false;
        ++at;
        return true;
    };
    skip();
    if (at >= line.size() || line[at] != '{') return fail("expected a JSON object");
    ++at;
    skip();
    if (at < line.size() && line[at] == '}') {
        ++at;
    } else {
        for (;;) {
            skip();
            std::string key, value;
            if (!string_at(key)) return fail("expected a field name in double quotes");
            skip();
            if (at >= line.size() || line[at] != ':') return fail("expected ':'");
            ++at;
            skip();
            const std::size_t value_at = at;
            if (at < line.size() && line[at] == '"') {
                if (!string_at(value)) return fail(bad_escape ? "bad \\u escape" : "unterminated string");
            } else {
                while (at < line.size() && (std::isalnum(static_cast<unsigned char>(line[at])) ||
                                            line[at] == '.' || line[at] == '-' || line[at] == '+'))
                    value += line[at++];
                if (value.empty()) return fail("expected a value");
            }
            if (std::string e = set_field(r, seen, key, value); !e.empty()) {
                err = {value_at + 1, e};
                return false;
            }
            skip();
            if (at < line.size() && line[at] == ',') {
                ++at;
                continue;
            }
            if (at < line.size() && line[at] == '}') {
                ++at;
                break;
            }
            return fail("expected ',' or '}'");
        }
    }
    skip();
    if (at != line.size()) return fail("text after the object");
    return finish(r, err);
}

namespace {

// Decimal digits of n (below 1000) at p; returns the end.
char *put_decimal(char *p, unsigned n) {
    if (n >= 100) *p++ = static_cast<char>('0' + n / 100);
    if (n >= 10) *p++ = static_cast<char>('0' + n / 10 % 10);
    *p++ = static_cast<char>('0' + n % 10);
    return p;
}

}  // namespace

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
