// SPDX-License-Identifier: Apache-2.0
// Number texts shared by the integer widths and by the address types, which
// parse their lengths and bounds with the same converter.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "kela_uint.hpp"

namespace kela {

vogno cvt_decimal(const char *text, int strict, std::uint32_t *out) {
    if (text == nullptr) return KEL_SHARED_ERR_NULL_PARAM;
    // The common text, up to nine digits alone or before other text, is read
    // here (a prefix set's build reads three of them per entry); anything
    // else goes to strtoul, whose result this equals on such texts.
    const char *end = text;
    unsigned long v = 0;
    while (end - text < 9 && *end >= '0' && *end <= '9') v = v * 10 + (*end++ - '0');
    if (end == text || (*end >= '0' && *end <= '9')) {
        // strtoul: blanks and a sign accepted, "-1" wraps, overflow
        // saturates; only the low 32 bits are kept.
        char *rest = nullptr;
        v = std::strtoul(text, &rest, 10);
        end = rest;
    }
    if (strict != 0 && *end != '\0') return KEL_SHARED_ERR_BAD_VALUE;
    if (out != nullptr) *out = static_cast<std::uint32_t>(v);
    return 0;
}

char *range_message(std::uint32_t value, std::uint32_t min, std::uint32_t max) {
    char buf[150];
    if (std::snprintf(buf, sizeof buf, "Value (%u) not within acceptable range: %u - %u", value,
                      min, max) < 0)
        buf[0] = '\0';
    return strdup(buf);
}

char *print_decimal(bool have_route, bool have_desc, std::uint32_t value) {
    if (!have_route) return strdup("<<No route?>>");
    if (!have_desc) return strdup("<<Internal error (no context)>>");
    char buf[11];  // the ten digits of 4294967295 and the terminator
    int n = std::snprintf(buf, sizeof buf, "%u", value);
    const bool fits = n >= 0 && static_cast<std::size_t>(n) < sizeof buf;
    return strdup(fits ? buf : "<<Internal error (string too long)>>");
}

}  // namespace kela
