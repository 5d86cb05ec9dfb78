// SPDX-License-Identifier: Apache-2.0
// Address, prefix and MAC texts through every converter and printer.
#include <cstdlib>
#include <cstring>

#include "fuzz_common.hpp"
#include "kela_shared.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    fz::Texts t(data, size);
    const char *a = t.at(0), *b = t.at(1), *c = t.at(2), *d = t.at(3);
    shared_kela_prefix_matchspec_td *s = nullptr;
    if (shared_kela_prefix_cvt_string_to_matchspec(a, b, c, d, &s) == 0) {
        std::uint8_t value[16] = {};
        shared_kela_prefix_addr_td v{s->family, value, s->len, 0};
        for (int kind = 1; kind <= 3; ++kind)
            (void)shared_kela_prefix_match(&v, s, static_cast<shared_kela_prefix_cmp_td>(kind));
        std::free(s);
    }
    if (shared_kela_prefix_cvt_string_to_matchspec_acl(a, b, c, d, &s) == 0) {
        std::free(s->mask);
        std::free(s);
    }
    for (int family : {2, 10, 3, -2, -10, -3}) {
        shared_kela_pfxmatch_td *r = nullptr;
        if (shared_kela_pfxmatch_cvt_string(a, b, c, d, std::abs(family), family > 0, &r) == 0) {
            (void)shared_kela_ip_check_prefix(r->addr, (r->len + 7u) / 8u, r->len);
            std::free(r);
        }
    }
    ip_addr_t ip;
    if (shared_kela_prefix_cvt_string_to_ipaddr(a, &ip, nullptr) == 0) {
        shared_kela_prefix_addr_td p{};
        shared_kela_prefix_ipaddr_to_pfxaddr(&ip, &p);
        p.len = static_cast<std::uint8_t>(std::strlen(b));
        std::free(shared_kela_prefix_cvt_pfx_to_string(&p, 0));
    }
    // The MAC converter writes into exactly six bytes.
    auto *mac = static_cast<std::uint8_t *>(std::calloc(6, 1));
    (void)shared_kela_cvt_string_to_mac_address(a, mac);
    std::free(shared_kela_cvt_mac_address_to_string(mac, std::strlen(b) & 0xFF));
    std::free(mac);
    for (const char *p : t.ptrs)
        if (p != nullptr) (void)HextoInt(p[0]);
    return 0;
}
