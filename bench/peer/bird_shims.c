/* SPDX-License-Identifier: Apache-2.0 */
/*
 * What BIRD's trie, linpool and resource code call outside the few files
 * the side-by-side program compiles (filter/trie.c, lib/mempool.c,
 * lib/resource.c, lib/ip.c, lib/bitops.c, lib/strtoul.c): this project's
 * own stand-ins, written for the benchmark only.
 *
 * Pages come from posix_memalign, as BIRD's own page allocator does when it
 * runs without its page cache, so that the allocator's statistics count
 * them like every other byte of the set.  Printing, logging and events are
 * never reached by building or matching a set: reaching one is a fault.
 */
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

// BIRD's headers need nest/bird.h first.
// clang-format off
#include "nest/bird.h"
#include "lib/resource.h"
#include "lib/string.h"
// clang-format on

long page_size;

void resource_sys_init(void) {
    page_size = sysconf(_SC_PAGESIZE);
}

void *alloc_page(void) {
    void *p = NULL;
    if (posix_memalign(&p, (size_t)page_size, (size_t)page_size) != 0) abort();
    return p;
}

void free_page(void *p) {
    free(p);
}

void *bird_xmalloc(unsigned size) {
    void *p = malloc(size);
    if (p == NULL) abort();
    return p;
}

void *bird_xrealloc(void *p, unsigned size) {
    p = realloc(p, size);
    if (p == NULL) abort();
    return p;
}

static void never(const char *what) __attribute__((noreturn));
static void never(const char *what) {
    fprintf(stderr, "side_bird: %s reached\n", what);
    abort();
}

void bug(const char *msg, ...) {
    never(msg);
}
void die(const char *msg, ...) {
    never(msg);
}
void debug(const char *msg, ...) {
    (void)msg;
}
void log_msg(const char *msg, ...) {
    never(msg);
}
int bsprintf(char *buf, const char *fmt, ...) {
    (void)buf;
    never(fmt);
}
int bsnprintf(char *buf, int size, const char *fmt, ...) {
    (void)buf, (void)size;
    never(fmt);
}
char *mb_vsprintf(pool *p, const char *fmt, va_list args) {
    (void)p, (void)args;
    never(fmt);
}
int buffer_print(buffer *buf, const char *fmt, ...) {
    (void)buf;
    never(fmt);
}
void buffer_puts(buffer *buf, const char *str) {
    (void)buf;
    never(str);
}
