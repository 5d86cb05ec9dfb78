// SPDX-License-Identifier: Apache-2.0
#include "alloc_hook.hpp"

#include <dlfcn.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>

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

// Where failed allocations returned to: the call sites the failures
// reached, written out at exit when KELA_ALLOC_SITES names a file.
constexpr std::size_t kMaxSites = 4096;
std::atomic<void *> g_sites[kMaxSites];
std::atomic<std::size_t> g_site_count{0};

void remember(void *site) {
    const std::size_t n = g_site_count.load();
    for (std::size_t i = 0; i < n && i < kMaxSites; ++i)
        if (g_sites[i].load() == site) return;
    const std::size_t slot = g_site_count++;
    if (slot < kMaxSites) g_sites[slot] = site;
}

// Written as addresses relative to the executable's load address, so that
// they can be looked up in its symbol table and line table.
struct SiteWriter {
    ~SiteWriter() {
        const char *path = std::getenv("KELA_ALLOC_SITES");
        if (path == nullptr) return;
        std::FILE *f = std::fopen(path, "w");
        if (f == nullptr) return;
        const std::size_t n = g_site_count.load();
        for (std::size_t i = 0; i < n && i < kMaxSites; ++i) {
            void *site = g_sites[i].load();
            Dl_info info{};
            if (dladdr(site, &info) == 0) continue;
            std::fprintf(f, "%s %#zx\n", info.dli_fname,
                         static_cast<std::size_t>(static_cast<char *>(site) -
                                                  static_cast<char *>(info.dli_fbase)));
        }
        std::fclose(f);
    }
} g_site_writer;

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
void reset() {
    g_fail_at = 0;
    g_failed = false;
    g_count = 0;
}
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
