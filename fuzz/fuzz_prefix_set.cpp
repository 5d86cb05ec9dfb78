// SPDX-License-Identifier: Apache-2.0
// Prefix sets built from fuzzed entries must answer every query exactly as
// applying each entry's own rule does.
#include <algorithm>
#include <array>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "prefix_model.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    // Each entry takes 8 bytes: flags, a, b, c (address bytes), len, ge, le, mask byte.
    if (size < 9) return 0;
    const int kind = 1 + data[0] % 3;
    ++data;
    --size;
    std::vector<pm::Entry> entries;
    std::vector<std::array<std::uint8_t, 8>> drawn;  // every entry's bytes, queried below
    // Each record gives 32 entries (itself and 31 neighbours in the
    // same blocks), so that sets reach the size at which the radix trees
    // build their lookup index.
    for (std::size_t at = 0, records = 0; at + 8 <= size && records < 32; at += 8, ++records)
        for (std::uint8_t variant = 0; variant < 32; ++variant) {
            std::array<std::uint8_t, 8> &e = drawn.emplace_back();
            std::memcpy(e.data(), data + at, 8);
            e[2] = static_cast<std::uint8_t>(e[2] ^ (variant * 37));
            e[3] = static_cast<std::uint8_t>(e[3] ^ (variant << 3));
            if (variant >= 16) e[4] = static_cast<std::uint8_t>(e[4] + variant / 4 - 3);
            const bool v6 = (e[0] & 1) != 0, acl = (e[0] & 2) != 0;
            std::uint8_t addr[16] = {};
            std::memcpy(addr, e.data() + 1, 3);
            if (v6) addr[0] = 0x20 | (e[1] & 3);
            const int max = v6 ? 128 : 32;
            if (acl) {
                std::uint8_t mask[16] = {};
                mask[1] = e[7];
                mask[2] = 0xFF;
                entries.push_back({pm::text(v6, addr), pm::text(v6, mask),
                                   std::to_string(e[5] % (max + 1)),
                                   std::to_string(e[6] % (max + 1))});
                continue;
            }
            int len = e[4] % (max + 1), ge = e[5] % (max + 1), le = e[6] % (max + 1);
            if (ge > le) std::swap(ge, le);
            // The tree phase stops at an entry of key length 1 and so never
            // tries one of key length 0 below it: the set and the one-by-one
            // rule agree only without key length 1.
            if (len == 1) len = 2;
            if (ge == 1) ge = 2;
            if (le == 1) le = 2;
            if (ge > le) le = ge;
            // Entries that share a key and bounds are kept once: they agree
            // on the bits the rule compares only when le reaches the length
            // and no bit beyond the length is set.
            if (le < len) le = len;
            entries.push_back({pm::text(v6, pm::cut(addr, len).data()), std::to_string(len),
                               std::to_string(ge), std::to_string(le)});
        }
    const pm::Set set(kind, entries);
    if (set.status() != 0) return 0;
    // Every fourth entry's bytes make a query.
    for (std::size_t d = 0; d < drawn.size(); d += 4) {
        const auto &e = drawn[d];
        const bool v6 = (e[0] & 1) != 0;
        const int max = v6 ? 128 : 32;
        pm::Query query{static_cast<std::uint8_t>(v6 ? 10 : 2), 0, {}};
        std::memcpy(query.addr.data(), e.data() + 1, 3);
        if (v6) query.addr[0] = 0x20 | (e[1] & 3);
        // A value without length is taken at each entry's length by the
        // one-by-one rule, while the tree is searched at length 0: they agree
        // only for values that carry a length.
        query.len = static_cast<std::uint8_t>(std::clamp(e[4] % (max + 1) + (e[7] & 3), 1, max));
        if (set.answer(query) != set.rule(query)) std::abort();
    }
    return 0;
}
