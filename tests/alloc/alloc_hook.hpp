// SPDX-License-Identifier: Apache-2.0
// Counting and failing allocator for tests that link the static library
// with -Wl,--wrap for malloc, calloc, realloc and strdup: every allocation
// the library (or the test itself) makes goes through these hooks.
#pragma once

#include <cstddef>

namespace kt::alloc {
void fail_at(std::size_t n);  // the nth allocation from now fails (0: none)
bool failed();                // whether the armed failure has fired
inline void reset() {
    fail_at(0);
}
}  // namespace kt::alloc
