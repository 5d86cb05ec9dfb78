#include "alloc_hook.hpp"

#include <atomic>
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

// Counts one allocation; true when this one is to fail.
bool next_fails() {
    std::size_t n = ++g_count;
    std::size_t at = g_fail_at.load();
    if (at != 0 && n == at) {
        g_failed = true;
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
std::size_t count() {
    return g_count.load();
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
    return next_fails() ? nullptr : __real_malloc(n);
}
void *__wrap_calloc(std::size_t n, std::size_t s) {
    return next_fails() ? nullptr : __real_calloc(n, s);
}
void *__wrap_realloc(void *p, std::size_t n) {
    return next_fails() ? nullptr : __real_realloc(p, n);
}
char *__wrap_strdup(const char *s) {
    return next_fails() ? nullptr : __real_strdup(s);
}
}
