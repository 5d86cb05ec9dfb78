// SPDX-License-Identifier: Apache-2.0
// The parameter segment list: a cursor over "arg<i>:<n>"-headed segments of
// a flat parameter vector.
#include <cctype>
#include <climits>
#include <cstdlib>

#include "kela_internal.hpp"
#include "kela_shared.h"

namespace {

// One "%d" of scanf: blanks, an optional sign, at least one digit.  Values
// beyond a long saturate and are then cut to int, as the C library does.
// Digits are '0' to '9' in every locale: tested inline, and blanks and a
// sign are looked for only before a text that does not start with one.
bool is_digit(char c) {
    return static_cast<unsigned char>(c) - unsigned{'0'} <= 9;
}

bool scan_int(const char *&p, std::int32_t *out) {
    bool neg = false;
    if (!is_digit(*p)) {
        while (std::isspace(static_cast<unsigned char>(*p))) ++p;
        if (*p == '+' || *p == '-') neg = *p++ == '-';
        if (!is_digit(*p)) return false;
    }
    // Eighteen digits cannot overflow: only longer numbers are watched.
    unsigned long long mag = 0;
    for (const char *start = p; is_digit(*p) && p - start < 18; ++p)
        mag = mag * 10 + static_cast<unsigned>(*p - '0');
    bool big = false;
    for (; is_digit(*p); ++p) {
        if (mag > (ULLONG_MAX - 9) / 10) big = true;
        if (!big) mag = mag * 10 + static_cast<unsigned>(*p - '0');
    }
    long v;
    if (neg) {
        v = (big || mag > static_cast<unsigned long long>(LONG_MAX) + 1ull)
                ? LONG_MIN
                : static_cast<long>(0ull - mag);
    } else {
        v = (big || mag > static_cast<unsigned long long>(LONG_MAX)) ? LONG_MAX
                                                                     : static_cast<long>(mag);
    }
    *out = static_cast<std::int32_t>(static_cast<unsigned long>(v));
    return true;
}

// A header is "arg%d:%d" with both numbers present; what follows is ignored.
// Hand-written rather than sscanf: it runs once per list entry when large
// sets are compiled.
bool parse_header(const char *text, std::int32_t *index, std::int32_t *count) {
    if (text == nullptr) return false;
    const char *p = text;
    if (p[0] != 'a' || p[1] != 'r' || p[2] != 'g') return false;
    p += 3;
    std::int32_t i = 0, n = 0;
    if (!scan_int(p, &i) || *p++ != ':' || !scan_int(p, &n)) return false;
    if (index != nullptr) *index = i;
    *count = n;
    return true;
}

// Whether a segment of k arguments whose header sits at h fits a vector of
// n texts.
bool fits(std::int64_t h, std::int64_t k, std::int64_t n) {
    return h + k < n;
}

}  // namespace

extern "C" {

KELA_SHARED_API int32_t kel_shared_sl_reset(kel_shared_sl_td *sl) {
    if (sl == nullptr || sl->count < 1) return -1;
    std::int32_t index = 0, k = 0;
    if (!parse_header(sl->vector[0], &index, &k) || index != 0 || k >= sl->count) return -1;
    // A count of -1 would read as the failure result; leave the record alone.
    if (k == -1) return -1;
    sl->seg_start = 0;
    sl->seg_end = k + 1;
    sl->cursor = 1;
    return k;
}

KELA_SHARED_API kel_shared_sl_td *kel_shared_sl_create(uint32_t count, char **vector) {
    kela::CPtr<kel_shared_sl_td> sl = kela::zalloc<kel_shared_sl_td>();
    if (!sl) return nullptr;
    sl->count = static_cast<std::int32_t>(count);
    sl->vector = vector;
    if (vector == nullptr || kel_shared_sl_reset(sl.get()) < 0) return nullptr;
    return sl.release();
}

KELA_SHARED_API void kel_shared_sl_destroy(kel_shared_sl_td *sl) {
    std::free(sl);
}

KELA_SHARED_API int32_t kel_shared_sl_segment_next(kel_shared_sl_td *sl) {
    const std::int32_t h = sl->seg_end;
    if (h >= sl->count) return -1;
    std::int32_t k = 0;
    if (!parse_header(sl->vector[h], nullptr, &k) || !fits(h, k, sl->count) || k == -1) return -1;
    sl->seg_start = h;
    sl->cursor = h + 1;
    sl->seg_end = h + k + 1;
    return k;
}

KELA_SHARED_API int32_t kel_shared_sl_segment_reset(kel_shared_sl_td *sl) {
    if (sl == nullptr) return -1;
    std::int32_t k = 0;
    if (!parse_header(sl->vector[sl->seg_start], nullptr, &k) || k == -1) return -1;
    if (!fits(sl->seg_start, k, sl->count)) return -1;
    if (k < 0) return k;
    sl->cursor = sl->seg_start + 1;
    return k;
}

KELA_SHARED_API char *kel_shared_sl_argument(kel_shared_sl_td *sl) {
    return sl->cursor < sl->seg_end ? sl->vector[sl->cursor] : nullptr;
}

KELA_SHARED_API int32_t kel_shared_sl_argument_index(kel_shared_sl_td *sl) {
    return sl->cursor - sl->seg_start - 1;
}

KELA_SHARED_API char *kel_shared_sl_argument_next(kel_shared_sl_td *sl) {
    if (sl->cursor < sl->seg_end) ++sl->cursor;
    return kel_shared_sl_argument(sl);
}

}  // extern "C"
