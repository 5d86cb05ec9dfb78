// SPDX-License-Identifier: Apache-2.0
// The route record of kela-policy's built-in client module: an attribute of
// every type of the library, registered once per process.  The library
// finds the integer, enumeration and bit-masked values by element index and
// the flags and the peer address by byte offset, so the layout below is
// part of the descriptors:
//
//   byte  0  words[kMetricWord]          32-bit element 0   metric
//         4  words[kOriginWord]          32-bit element 1   origin
//         8  words[kCommunityWord]       32-bit element 2   community (AS << 16 | N)
//        12  words[kCommunityMaskWord]   32-bit element 3   bit kCommunityPresent
//        16  tag                         16-bit element 8
//        18  preference                  byte 18
//        19  peer_len, 20-23 peer        IPv4 peer address
//        24  flags                       64-bit flags
//        32  bgp[kLocalPref..kPeerAs]    32-bit elements 8-11
//   then the values reached through callbacks (destination, next hop, MAC
//   address, routing table), and the route's lists of communities.
//
// The library's community attribute holds one value: the value word holds
// the first of the route's standard communities, and a condition on it is
// tested with each of them in turn (any_community).
#pragma once

#include <sys/socket.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "kela_shared.h"

namespace kp {

// Address families as the library numbers them: the platform's socket
// families.
constexpr std::uint8_t kIPv4 = AF_INET, kIPv6 = AF_INET6;
static_assert(kIPv4 == 2 && kIPv6 == 10, "the library's families are the socket families");

// One prefix value (destination or next hop).
struct Prefix {
    std::uint8_t family = 0;  // 0: absent
    std::uint8_t len = 0;
    std::uint8_t addr[16] = {};
};

// Elements of Route::words and Route::bgp.
enum Word : std::size_t { kMetricWord, kOriginWord, kCommunityWord, kCommunityMaskWord };
enum BgpWord : std::size_t { kLocalPref, kPathLength, kOriginAs, kPeerAs };
// The origin attribute's values.
enum Origin : std::uint32_t { kOriginIgp, kOriginEgp, kOriginIncomplete };
// The community attribute's bit in the mask word: a community is present.
constexpr std::uint32_t kCommunityPresent = 0x1;

struct Route {
    std::uint32_t words[4] = {};
    std::uint16_t tag = 0;
    std::uint8_t preference = 0;
    std::uint8_t peer_len = 0;
    std::uint8_t peer[4] = {};
    std::uint64_t flags = 0;
    std::uint32_t bgp[4] = {};
    Prefix destination;
    Prefix nexthop;
    bool has_mac = false;
    std::uint8_t mac[6] = {};
    std::uint32_t table = 0;  // routing table the rib-has-route questions go to
    // Every standard community (AS << 16 | N) in input order, the
    // well-known ones that are flags left out; and the large communities
    // (A:B:C), carried through.
    std::vector<std::uint32_t> communities;
    std::vector<std::array<std::uint32_t, 3>> large;
};

// Adds a standard community to the route.
void add_community(Route &r, std::uint32_t value);
// "AS:N".
std::string community_text(std::uint32_t value);

// A condition on the community attribute holds when any of the route's
// standard communities satisfies it, as route maps treat community lists:
// `test` runs with each community in the value word in turn until it
// holds (once, as the library sees it, for a route with one or none).  The
// value word holds the first community again afterwards.
template <class Test>
bool any_community(Route &r, Test &&test) {
    if (r.communities.size() <= 1) return test();
    bool holds = false;
    for (std::size_t i = 0; i < r.communities.size() && !holds; ++i) {
        r.words[kCommunityWord] = r.communities[i];
        holds = test();
    }
    r.words[kCommunityWord] = r.communities.front();
    return holds;
}

// After a setter of `attr` ran: `set community X` replaces the route's
// standard communities with X (the well-known ones are flags and stay, as
// do the large ones).
void after_set(Route &r, const std::string &attr);

// The flags attribute's bits.
enum Flag : std::uint64_t {
    kBlackhole = 0x1,
    kNoExport = 0x2,
    kNoAdvertise = 0x4,
    kGracefulShutdown = 0x8
};

// Registers every attribute with the library (once per process); on failure
// returns the status and fills `error`.
vogno register_attributes(std::string &error);

// The attributes whose values a policy can change, for reporting changes.
const std::vector<std::string> &settable_attributes();
// 8, 16 or 32 for the integer attributes, else 0.
unsigned integer_bits(const std::string &attr);

// Texts of the values, as the attributes print them (route input and
// output use them too).
vogno parse_community(const char *text, void *, int strict, uint32_t *out);
vogno parse_flags(const char *text, void *, uint64_t *mask);
extern shared_kela_enum_desc_td origin_desc;

// The routing table's family number (IP_RIB_AFI_*) of the route.
int rib_afi(const Route &r);

}  // namespace kp
