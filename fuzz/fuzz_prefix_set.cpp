// SPDX-License-Identifier: Apache-2.0
// Prefix sets built from fuzzed entries must answer every query exactly as
// applying each entry's own rule does (the entries in turn, the first that
// accepts wins).
#include <arpa/inet.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "kela_callbacks.hpp"
#include "kela_ref.h"
#include "kela_shared.h"

namespace {

struct Query {
    std::uint8_t family, len, addr[16];
};

vogno get_value(void *, void *route, shared_kela_prefix_addr_td *v, uint32_t *more) {
    auto *q = static_cast<Query *>(route);
    *v = {q->family, q->addr, q->len, 0};
    *more = 0;
    return 0;
}

std::string address(bool v6, const std::uint8_t *b) {
    char text[INET6_ADDRSTRLEN];
    return inet_ntop(v6 ? AF_INET6 : AF_INET, b, text, sizeof text);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    // Each entry takes 8 bytes: flags, a, b, c (address bytes), len, ge, le, mask byte.
    if (size < 9) return 0;
    const int kind = 1 + data[0] % 3;
    ++data;
    --size;
    std::vector<std::string> texts;
    std::size_t n = 0, records = 0;
    std::vector<std::array<std::uint8_t, 8>> drawn;  // every entry's bytes, queried below
    // Each record gives 32 entries (itself and 31 neighbours in the
    // same blocks), so that sets reach the size at which the radix trees
    // build their lookup index.
    for (std::size_t at = 0; at + 8 <= size && records < 32; at += 8, ++records)
        for (std::uint8_t variant = 0; variant < 32; ++variant, ++n) {
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
            texts.push_back("arg" + std::to_string(n) + ":4");
            texts.push_back(address(v6, addr));
            if (acl) {
                std::uint8_t mask[16] = {};
                mask[1] = e[7];
                mask[2] = 0xFF;
                texts.push_back(address(v6, mask));
                texts.push_back(std::to_string(e[5] % (max + 1)));
                texts.push_back(std::to_string(e[6] % (max + 1)));
            } else {
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
                for (int bit = len; bit < max; ++bit)
                    addr[bit / 8] &= static_cast<std::uint8_t>(~(0x80u >> (bit % 8)));
                texts.back() = address(v6, addr);
                texts.push_back(std::to_string(len));
                texts.push_back(std::to_string(ge));
                texts.push_back(std::to_string(le));
            }
        }
    std::vector<char *> vec;
    for (auto &t : texts) vec.push_back(t.data());
    std::vector<void *> slots(vec.size(), &texts);
    shared_kela_prefix_desc_td desc{"destination", get_value, nullptr, nullptr, 0};
    rasf_construct_fn cons = kind == 1   ? shared_kela_prefix_cmp_match_cons
                             : kind == 2 ? shared_kela_prefix_cmp_longer_cons
                                         : shared_kela_prefix_cmp_orlonger_cons;
    rasf_inst_t *inst = nullptr;
    if (cons(static_cast<std::uint32_t>(vec.size()), vec.data(), slots.data(), &desc, &inst) != 0)
        return 0;
    kref_inst_info_t info{};
    kref_inst_get(inst, &info);

    // The reference: every entry parsed on its own, its own rule applied.
    std::vector<shared_kela_prefix_matchspec_td *> specs;
    for (std::size_t i = 0; i < n; ++i) {
        const char *const *a = vec.data() + 5 * i + 1;
        shared_kela_prefix_matchspec_td *s = nullptr;
        const bool acl = std::strlen(a[1]) > 3;
        if ((acl ? shared_kela_prefix_cvt_string_to_matchspec_acl(a[0], a[1], a[2], a[3], &s)
                 : shared_kela_prefix_cvt_string_to_matchspec(a[0], a[1], a[2], a[3], &s)) == 0)
            specs.push_back(s);
    }
    // Every fourth entry's bytes make a query (the rule's scan is long).
    for (std::size_t d = 0; d < drawn.size(); d += 4) {
        const auto &e = drawn[d];
        Query query{static_cast<std::uint8_t>((e[0] & 1) ? 10 : 2), 0, {}};
        std::memcpy(query.addr, e.data() + 1, 3);
        if (query.family == 10) query.addr[0] = 0x20 | (e[1] & 3);
        query.len =
            static_cast<std::uint8_t>(e[4] % ((query.family == 10 ? 128 : 32) + 1) + (e[7] & 3));
        if (query.len > (query.family == 10 ? 128 : 32)) query.len = query.family == 10 ? 128 : 32;
        // A value without length is taken at each entry's length by the
        // one-by-one rule, while the tree is searched at length 0: they agree
        // only for values that carry a length.
        if (query.len == 0) query.len = 1;
        shared_kela_prefix_addr_td v{query.family, query.addr, query.len, 0};
        int want = 0;
        for (std::size_t i = 0; i < specs.size() && want == 0; ++i) {
            shared_kela_prefix_matchspec_td *s = specs[i];
            bool zero = true;
            for (int b = 0; b < (s->family == 10 ? 16 : 4); ++b) zero = zero && s->addr[b] == 0;
            want = s->is_acl && !zero ? shared_kela_prefix_match_acl(&v, s)
                                      : shared_kela_prefix_match(
                                            &v, s, static_cast<shared_kela_prefix_cmp_td>(kind));
        }
        std::int32_t got = -1;
        info.cmp(&query, info.count, info.slots, info.ctx, &got);
        if (got != want) std::abort();
    }
    for (auto *s : specs) {
        std::free(s->mask);
        std::free(s);
    }
    shared_kela_prefix_cmp_match_free(info.ctx);
    rasf_free_cmp_instance(inst);
    return 0;
}
