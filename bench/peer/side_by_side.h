/* SPDX-License-Identifier: Apache-2.0 */
/*
 * The measuring protocol that both sides of the side-by-side comparison
 * share, so that this project's prefix set and the peer's trie are timed by
 * the same code: the same files, the same passes, the same clock.
 *
 * Files (bench/run.sh writes them with `kela_bench --write-sets DIR`):
 *   NAME.set    one entry a line: "A/L" or "A/L le E" (ge is L);
 *   NAME.cold   200,000 distinct queries "A/L", in random order;
 *   NAME.warm   4,096 queries, asked over and over.
 *
 * A side supplies four functions (struct sbs_side); sbs_main() then runs
 *   PROGRAM measure DIR NAME OUTCOMES  -> one JSON line on stdout: build
 *       (texts to a set that answers, parse included) per entry, the median
 *       of several builds; bytes per entry; cold and warm lookup per query;
 *       and OUTCOMES, one '0' or '1' a query of the cold pass, for the run to
 *       compare with the other side's;
 *   PROGRAM counts DIR NAME -> builds the set, makes one cold pass, then a
 *       second one with callgrind's instrumentation on (run it under
 *       `valgrind --tool=callgrind --instr-atstart=no`), and prints the
 *       queries and matches as JSON;
 *   PROGRAM build-counts DIR NAME -> one build with callgrind's
 *       instrumentation on, dumped as "build" (same valgrind options).
 * Times are this thread's CPU time.  The C side includes it as C, this
 * project's side as C++.
 */
#ifndef KELA_BENCH_SIDE_BY_SIDE_H
#define KELA_BENCH_SIDE_BY_SIDE_H

#include <arpa/inet.h>
#include <malloc.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#if defined(__has_include)
#if __has_include(<valgrind/callgrind.h>)
#include <valgrind/callgrind.h>
#define SBS_HAVE_CALLGRIND 1
#endif
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* One entry of a set file, split but not parsed: parsing is the sides'
 * own work and part of their build. */
struct sbs_entry {
    char addr[48];
    char len[4];
    char le[4];
};

/* One query, parsed once: queries are not part of what is timed. */
struct sbs_query {
    uint8_t v6;
    uint8_t len;
    uint8_t addr[16];
};

/* What a side supplies.  `load` puts the entries' texts into the form the
 * side's configuration hands its set builder (untimed; null on failure),
 * `unload` releases that; `build` turns loaded texts into a set that
 * answers (null on failure); `prepare` turns queries into the side's own form
 * before any timing (a route's prefix as the side's filters see it);
 * `pass` asks every prepared query once and returns the number that
 * matched, writing '0' or '1' per query to `outcomes` when it is not null;
 * `extra_bytes` (may be null) counts memory the allocator does not see. */
struct sbs_side {
    const char *name;
    void *(*load)(int v6, const struct sbs_entry *entries, size_t n);
    void (*unload)(void *texts);
    void *(*build)(void *texts);
    void (*release)(void *set);
    void *(*prepare)(const struct sbs_query *queries, size_t n);
    size_t (*pass)(void *set, const void *prepared, size_t n, char *outcomes);
    size_t (*extra_bytes)(void);
};

static inline double sbs_cpu_ns(void) {
    struct timespec ts;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return (double)ts.tv_sec * 1e9 + (double)ts.tv_nsec;
}

static inline FILE *sbs_open(const char *dir, const char *name, const char *ext) {
    char path[4096];
    snprintf(path, sizeof path, "%s/%s.%s", dir, name, ext);
    FILE *f = fopen(path, "r");
    if (f == NULL) fprintf(stderr, "side-by-side: cannot read %s\n", path);
    return f;
}

/* "A/L" or "A/L le E" into an entry; 0 for a line of another shape. */
static inline int sbs_split(const char *line, struct sbs_entry *e) {
    const char *slash = strchr(line, '/');
    if (slash == NULL || (size_t)(slash - line) >= sizeof e->addr) return 0;
    memcpy(e->addr, line, (size_t)(slash - line));
    e->addr[slash - line] = '\0';
    const char *p = slash + 1;
    size_t k = 0;
    while (*p >= '0' && *p <= '9' && k + 1 < sizeof e->len) e->len[k++] = *p++;
    e->len[k] = '\0';
    if (k == 0) return 0;
    const char *le = strstr(p, " le ");
    if (le == NULL) {
        memcpy(e->le, e->len, sizeof e->le);
        return 1;
    }
    le += 4;
    for (k = 0; le[k] >= '0' && le[k] <= '9' && k + 1 < sizeof e->le; ++k) e->le[k] = le[k];
    e->le[k] = '\0';
    return k != 0;
}

static inline struct sbs_entry *sbs_read_set(const char *dir, const char *name, size_t *n,
                                             int *v6) {
    FILE *f = sbs_open(dir, name, "set");
    if (f == NULL) return NULL;
    size_t cap = 1024;
    struct sbs_entry *out = (struct sbs_entry *)malloc(cap * sizeof *out);
    char line[256];
    *n = 0;
    *v6 = 0;
    while (out != NULL && fgets(line, sizeof line, f) != NULL) {
        if (*n == cap) {
            cap *= 2;
            struct sbs_entry *grown = (struct sbs_entry *)realloc(out, cap * sizeof *out);
            if (grown == NULL) free(out);
            out = grown;
            if (out == NULL) break;
        }
        if (sbs_split(line, &out[*n]) != 0) *v6 |= strchr(out[(*n)++].addr, ':') != NULL;
    }
    fclose(f);
    return out;
}

/* Queries in a family-neutral form: address bytes in network order. */
static inline int sbs_parse_addr(const char *text, int v6, uint8_t *addr) {
    char buf[64];
    const char *slash = strchr(text, '/');
    const size_t k = slash != NULL ? (size_t)(slash - text) : strlen(text);
    if (k >= sizeof buf) return 0;
    memcpy(buf, text, k);
    buf[k] = '\0';
    memset(addr, 0, 16);
    return inet_pton(v6 ? AF_INET6 : AF_INET, buf, addr) == 1;
}

static inline struct sbs_query *sbs_read_queries(const char *dir, const char *name, const char *ext,
                                                 int v6, size_t *n) {
    FILE *f = sbs_open(dir, name, ext);
    if (f == NULL) return NULL;
    size_t cap = 4096;
    struct sbs_query *out = (struct sbs_query *)malloc(cap * sizeof *out);
    char line[256];
    *n = 0;
    while (out != NULL && fgets(line, sizeof line, f) != NULL) {
        const char *slash = strchr(line, '/');
        if (slash == NULL) continue;
        if (*n == cap) {
            cap *= 2;
            struct sbs_query *grown = (struct sbs_query *)realloc(out, cap * sizeof *out);
            if (grown == NULL) free(out);
            out = grown;
            if (out == NULL) break;
        }
        struct sbs_query *q = &out[*n];
        q->v6 = (uint8_t)v6;
        q->len = (uint8_t)atoi(slash + 1);
        if (sbs_parse_addr(line, v6, q->addr)) ++*n;
    }
    fclose(f);
    return out;
}

static inline size_t sbs_allocated(const struct sbs_side *side) {
    const struct mallinfo2 m = mallinfo2();
    return m.uordblks + m.hblkhd + (side->extra_bytes != NULL ? side->extra_bytes() : 0);
}

static int sbs_cmp_double(const void *a, const void *b) {
    const double x = *(const double *)a, y = *(const double *)b;
    return (x > y) - (x < y);
}

/* Repeats `pass` over the queries until at least `min_ns` of CPU time and
 * `min_passes` passes; the CPU time per query. */
static inline double sbs_time_passes(const struct sbs_side *side, void *set, const void *q,
                                     size_t n, double min_ns, int min_passes) {
    double spent = 0;
    size_t asked = 0;
    for (int p = 0; p < min_passes || spent < min_ns; ++p) {
        const double t0 = sbs_cpu_ns();
        side->pass(set, q, n, NULL);
        spent += sbs_cpu_ns() - t0;
        asked += n;
    }
    return spent / (double)asked;
}

static inline int sbs_measure(const struct sbs_side *side, const char *dir, const char *name,
                              const char *outcomes_path) {
    int v6 = 0;
    size_t n = 0, n_cold = 0, n_warm = 0;
    struct sbs_entry *entries = sbs_read_set(dir, name, &n, &v6);
    struct sbs_query *cold = sbs_read_queries(dir, name, "cold", v6, &n_cold);
    struct sbs_query *warm = sbs_read_queries(dir, name, "warm", v6, &n_warm);
    char *outcomes = (char *)malloc(n_cold + 1);
    void *cold_q = cold != NULL ? side->prepare(cold, n_cold) : NULL;
    void *warm_q = warm != NULL ? side->prepare(warm, n_warm) : NULL;
    void *texts = entries != NULL ? side->load(v6, entries, n) : NULL;
    if (texts == NULL || cold_q == NULL || warm_q == NULL || outcomes == NULL || n == 0) {
        fprintf(stderr, "side-by-side: %s: no set or queries\n", name);
        return 1;
    }
    /* Builds, each from the texts to a set that answers; the median. */
    enum { kMaxBuilds = 15 };
    double builds[kMaxBuilds];
    int nb = 0;
    double spent = 0;
    while (nb < kMaxBuilds && (nb < 3 || spent < 1.5e9)) {
        const double t0 = sbs_cpu_ns();
        void *set = side->build(texts);
        builds[nb] = sbs_cpu_ns() - t0;
        if (set == NULL) {
            fprintf(stderr, "side-by-side: %s: %s cannot build the set\n", side->name, name);
            return 1;
        }
        spent += builds[nb++];
        side->release(set);
    }
    qsort(builds, (size_t)nb, sizeof builds[0], sbs_cmp_double);
    const size_t before = sbs_allocated(side);
    void *set = side->build(texts);
    if (set == NULL) return 1;
    const double bytes = (double)(sbs_allocated(side) - before) / (double)n;
    /* The first pass gives the outcomes; then the timed ones. */
    const size_t hits = side->pass(set, cold_q, n_cold, outcomes);
    const double cold_ns = sbs_time_passes(side, set, cold_q, n_cold, 0.6e9, 3);
    const double warm_ns = sbs_time_passes(side, set, warm_q, n_warm, 0.3e9, 3);
    FILE *out = fopen(outcomes_path, "w");
    if (out == NULL || fwrite(outcomes, 1, n_cold, out) != n_cold || fclose(out) != 0) {
        fprintf(stderr, "side-by-side: cannot write %s\n", outcomes_path);
        return 1;
    }
    printf(
        "{\"side\": \"%s\", \"set\": \"%s\", \"entries\": %zu, \"build_ns\": %.1f, "
        "\"builds\": %d, \"bytes_per_entry\": %.2f, \"cold_ns\": %.2f, \"warm_ns\": %.2f, "
        "\"queries\": %zu, \"hits\": %zu}\n",
        side->name, name, n, builds[nb / 2] / (double)n, nb, bytes, cold_ns, warm_ns, n_cold, hits);
    side->release(set);
    side->unload(texts);
    free(entries);
    free(cold);
    free(warm);
    free(cold_q);
    free(warm_q);
    free(outcomes);
    return 0;
}

static inline int sbs_build_counts(const struct sbs_side *side, const char *dir, const char *name) {
    int v6 = 0;
    size_t n = 0;
    struct sbs_entry *entries = sbs_read_set(dir, name, &n, &v6);
    void *texts = entries != NULL ? side->load(v6, entries, n) : NULL;
    if (texts == NULL || n == 0) return 1;
#ifdef SBS_HAVE_CALLGRIND
    CALLGRIND_START_INSTRUMENTATION;
    CALLGRIND_ZERO_STATS;
#endif
    void *set = side->build(texts);
#ifdef SBS_HAVE_CALLGRIND
    CALLGRIND_DUMP_STATS_AT("build");
    CALLGRIND_STOP_INSTRUMENTATION;
#endif
    if (set == NULL) return 1;
    printf("{\"side\": \"%s\", \"set\": \"%s\", \"entries\": %zu}\n", side->name, name, n);
    side->release(set);
    side->unload(texts);
    free(entries);
    return 0;
}

static inline int sbs_counts(const struct sbs_side *side, const char *dir, const char *name) {
    int v6 = 0;
    size_t n = 0, n_cold = 0;
    struct sbs_entry *entries = sbs_read_set(dir, name, &n, &v6);
    struct sbs_query *cold = sbs_read_queries(dir, name, "cold", v6, &n_cold);
    void *cold_q = cold != NULL ? side->prepare(cold, n_cold) : NULL;
    void *texts = entries != NULL ? side->load(v6, entries, n) : NULL;
    if (texts == NULL || cold_q == NULL || n == 0) return 1;
    void *set = side->build(texts);
    if (set == NULL) return 1;
#ifdef SBS_HAVE_CALLGRIND
    CALLGRIND_START_INSTRUMENTATION;
    side->pass(set, cold_q, n_cold, NULL);
    CALLGRIND_ZERO_STATS;
    const size_t hits = side->pass(set, cold_q, n_cold, NULL);
    CALLGRIND_DUMP_STATS_AT("second pass");
    CALLGRIND_STOP_INSTRUMENTATION;
#else
    side->pass(set, cold_q, n_cold, NULL);
    const size_t hits = side->pass(set, cold_q, n_cold, NULL);
#endif
    printf("{\"side\": \"%s\", \"set\": \"%s\", \"queries\": %zu, \"hits\": %zu}\n", side->name,
           name, n_cold, hits);
    side->release(set);
    side->unload(texts);
    free(entries);
    free(cold);
    free(cold_q);
    return 0;
}

static inline int sbs_main(const struct sbs_side *side, int argc, char **argv) {
    if (argc == 5 && strcmp(argv[1], "measure") == 0)
        return sbs_measure(side, argv[2], argv[3], argv[4]);
    if (argc == 4 && strcmp(argv[1], "counts") == 0) return sbs_counts(side, argv[2], argv[3]);
    if (argc == 4 && strcmp(argv[1], "build-counts") == 0)
        return sbs_build_counts(side, argv[2], argv[3]);
    fprintf(stderr,
            "usage: %s measure DIR NAME OUTCOMES | counts DIR NAME | build-counts DIR NAME\n",
            argv[0]);
    return 2;
}

#ifdef __cplusplus
}
#endif

#endif /* KELA_BENCH_SIDE_BY_SIDE_H */
