// SPDX-License-Identifier: Apache-2.0
// The route record's attributes: the callbacks that find, set and print
// their values, their descriptors, and their registration with the library.
#include "route.hpp"

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <utility>

#include "kela_ref_state.h"

namespace kp {

// The framework's answer for a value the route does not have.
constexpr vogno kNoValue = 19;

int rib_afi(const Route &r) {
    return r.destination.family == kIPv6 ? IP_RIB_AFI_IPV6 : IP_RIB_AFI_IPV4;
}

namespace {

const char *const kLocations[] = {"import", "export", nullptr};

vogno get_prefix(const Prefix &p, shared_kela_prefix_addr_td *v, uint32_t *more) {
    if (p.family == 0) return kNoValue;
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
    if (a == nullptr || (a->family != kIPv4 && a->family != kIPv6)) return KEL_SHARED_ERR_BAD_VALUE;
    p.family = a->family;
    p.len = a->family == kIPv4 ? 32 : 128;
    std::memset(p.addr, 0, sizeof p.addr);
    std::memcpy(p.addr, a->addr, a->family == kIPv4 ? 4 : 16);
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
    if (!r->has_mac) return kNoValue;
    std::memcpy(value, r->mac, 6);
    return 0;
}

vogno get_rib(void *route, ip_rib_conn_p *conn, rib_tableid_td *table) {
    const Route *r = static_cast<Route *>(route);
    *conn = kref_rib_conn(rib_afi(*r));
    *table = r->table;
    return 0;
}

}  // namespace

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

// Flags are named; a list joins names with commas.
const std::pair<const char *, uint64_t> kFlagNames[] = {{"blackhole", kBlackhole},
                                                        {"no-export", kNoExport},
                                                        {"no-advertise", kNoAdvertise},
                                                        {"graceful-shutdown", kGracefulShutdown}};

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

std::string community_text(std::uint32_t value) {
    return std::to_string(value >> 16) + ":" + std::to_string(value & 0xFFFF);
}

void add_community(Route &r, std::uint32_t value) {
    if (r.communities.empty()) {
        r.words[kCommunityWord] = value;
        r.words[kCommunityMaskWord] |= kCommunityPresent;
    }
    r.communities.push_back(value);
}

void after_set(Route &r, const std::string &attr) {
    if (attr == "community") r.communities.assign(1, r.words[kCommunityWord]);
}

namespace {

// Every standard community of the route, joined by commas.
char *print_community(void *, void *route, void *) {
    if (route == nullptr) return strdup("<<no route>>");
    const Route *r = static_cast<Route *>(route);
    if ((r->words[kCommunityMaskWord] & kCommunityPresent) == 0) return strdup("none");
    if (r->communities.empty()) return strdup(community_text(r->words[kCommunityWord]).c_str());
    std::string out;
    for (std::uint32_t v : r->communities) out += (out.empty() ? "" : ",") + community_text(v);
    return strdup(out.c_str());
}
char *print_flags(void *, uint64_t *flags, shared_kela_flag64_desc_td *) {
    if (flags == nullptr) return strdup("<<no route>>");
    std::string out;
    for (auto [n, b] : kFlagNames)
        if ((*flags & b) != 0) out += (out.empty() ? "" : ",") + std::string(n);
    return strdup(out.empty() ? "none" : out.c_str());
}

const shared_kela_enum_name_td kOrigins[] = {
    {kOriginIgp, "igp"}, {kOriginEgp, "egp"}, {kOriginIncomplete, "incomplete"}, {0, nullptr}};

}  // namespace

shared_kela_enum_desc_td origin_desc{"origin", kOriginWord, kOrigins};

namespace {

shared_kela_uint32_desc_td metric_desc{"metric", kMetricWord, 0, 0, nullptr};
shared_kela_uint16_desc_td tag_desc{"tag", offsetof(Route, tag) / sizeof(std::uint16_t), 0, 0};
shared_kela_uint8_desc_td pref_desc{"preference", offsetof(Route, preference), 0, 0};

shared_kela_bitmasked_desc_td community_desc{"community",       nullptr,        print_community,
                                             parse_community,   kCommunityWord, kCommunityMaskWord,
                                             kCommunityPresent, nullptr};
shared_kela_flag64_desc_td flags_desc{
    "flags", nullptr, print_flags, parse_flags, offsetof(Route, flags), 0};
shared_kela_ipv4_desc_td peer_desc{"peer", offsetof(Route, peer), offsetof(Route, peer_len)};
shared_kela_prefix_extra_op_td dest_extra[] = {{"is-default", kLocations, is_default, 0}};
shared_kela_prefix_desc_td dest_desc{"destination", get_destination, set_destination, dest_extra,
                                     1};
shared_kela_prefix_desc_td nexthop_desc{"nexthop", get_nexthop, set_nexthop, nullptr, 0};
shared_kela_mac_address_desc_td mac_desc{"mac", get_mac};
// BGP's own values, 32-bit elements from kBgpElement on.
constexpr std::int64_t kBgpElement = offsetof(Route, bgp) / sizeof(std::uint32_t);
shared_kela_uint32_desc_td local_pref_desc{"local-pref", kBgpElement + kLocalPref, 0, 0, nullptr};
shared_kela_uint32_desc_td path_len_desc{"as-path-length", kBgpElement + kPathLength, 0, 0,
                                         nullptr};
shared_kela_uint32_desc_td origin_as_desc{"origin-as", kBgpElement + kOriginAs, 0, 0, nullptr};
shared_kela_uint32_desc_td peer_as_desc{"peer-as", kBgpElement + kPeerAs, 0, 0, nullptr};
shared_kela_rhr_desc_td rhr_desc{"rib-has-route", get_rib};
int track_desc = 0;

static_assert(offsetof(Route, tag) == 16 && offsetof(Route, preference) == 18);
static_assert(offsetof(Route, peer_len) == 19 && offsetof(Route, peer) == 20);
static_assert(kBgpElement == 8);

}  // namespace

namespace {

vogno register_all(std::string &error) {
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

}  // namespace

// Once per process: the framework refuses a second attribute of a name.
vogno register_attributes(std::string &error) {
    static std::string first_error;
    static const vogno status = register_all(first_error);
    error = first_error;
    return status;
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

}  // namespace kp
