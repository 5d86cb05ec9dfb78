// SPDX-License-Identifier: Apache-2.0
#include "alloc_hook.hpp"

#include <dlfcn.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>

extern "C" {
void *__real_malloc(std::size_t);
void *__real_calloc(std::size_t, std::size_t);
void *__real_realloc(void *, std::size_t);
char *__real_strdup(const char *);
}

namespace {
std::atomic<std::size_t> g_count{0};
std::atomic<std::size_t> g_fail_at{0};
std::atomic<bool> g_failed{false};

// Where a failed allocation returned to, written when KELA_ALLOC_SITES
// names a file: as an address relative to the executable's load address,
// so that it can be looked up in its symbol table and line table.  The
// reader drops repeats; the stream is flushed at exit.
void remember(void *site) {
    static std::FILE *const out = [] {
        const char *path = std::getenv("KELA_ALLOC_SITES");
        return path != nullptr ? std::fopen(path, "w") : nullptr;
    }();
    Dl_info info{};
    if (out == nullptr || dladdr(site, &info) == 0) return;
    std::fprintf(
        out, "%s %#zx\n", info.dli_fname,
        static_cast<std::size_t>(static_cast<char *>(site) - static_cast<char *>(info.dli_fbase)));
}

// Counts one allocation; true when this one is to fail.
bool next_fails(void *site) {
    std::size_t n = ++g_count;
    std::size_t at = g_fail_at.load();
    if (at != 0 && n == at) {
        g_failed = true;
        remember(site);
        return true;
    }
    return false;
}
}  // namespace

namespace kt::alloc {
void fail_at(std::size_t n) {
    g_failed = false;
    g_count = 0;
    g_fail_at = n;
}
bool failed() {
    return g_failed.load();
}
}  // namespace kt::alloc

extern "C" {
void *__wrap_malloc(std::size_t n) {
    return next_fails(__builtin_return_address(0)) ? nullptr : __real_malloc(n);
}
void *__wrap_calloc(std::size_t n, std::size_t s) {
    return next_fails(__builtin_return_address(0)) ? nullptr : __real_calloc(n, s);
}
void *__wrap_realloc(void *p, std::size_t n) {
    return next_fails(__builtin_return_address(0)) ? nullptr : __real_realloc(p, n);
}
char *__wrap_strdup(const char *s) {
    return next_fails(__builtin_return_address(0)) ? nullptr : __real_strdup(s);
}
}
