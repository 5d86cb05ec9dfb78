/* SPDX-License-Identifier: Apache-2.0 */
/*
 * The peer's side of the side-by-side comparison: BIRD's prefix-set trie
 * (filter/trie.c of Debian's bird2 source), driven through the measuring
 * protocol of side_by_side.h.  bench/peer/build.sh compiles it against the
 * unpacked BIRD source under the build folder; this file is this
 * project's own code and contains nothing of BIRD's.
 *
 * A set is built as BIRD's configuration builds `{ A/L{L,E}, ... }`: each
 * entry's address parsed by BIRD's ip4_pton/ip6_pton and its lengths by
 * bstrtoul10, then trie_add_prefix into a trie allocated from a linpool.
 * A query is a net_addr, as a route's prefix reaches a filter, matched by
 * trie_match_net (what `net ~ set` runs).
 */
// BIRD's headers need nest/bird.h first.
// clang-format off
#include "nest/bird.h"
#include "lib/resource.h"
#include "lib/string.h"
#include "conf/conf.h"
#include "filter/filter.h"
#include "filter/data.h"
// clang-format on
#include "side_by_side.h"

extern pool root_pool;

struct bird_set {
    linpool *lp;
    struct f_trie *trie;
};

/* The entries' texts as they are: BIRD's parser reads them from there. */
struct bird_texts {
    int v6;
    const struct sbs_entry *entries;
    size_t n;
};

static void *bird_load(int v6, const struct sbs_entry *entries, size_t n) {
    struct bird_texts *t = malloc(sizeof *t);
    if (t != NULL) *t = (struct bird_texts){v6, entries, n};
    return t;
}

static void bird_unload(void *texts) {
    free(texts);
}

static void *bird_build(void *texts) {
    const int v6 = ((struct bird_texts *)texts)->v6;
    const struct sbs_entry *entries = ((struct bird_texts *)texts)->entries;
    const size_t n = ((struct bird_texts *)texts)->n;
    linpool *lp = lp_new(&root_pool);
    struct bird_set *s = lp_allocz(lp, sizeof *s);
    s->lp = lp;
    s->trie = f_new_trie(lp, 0);
    for (size_t i = 0; i < n; ++i) {
        const struct sbs_entry *e = &entries[i];
        char *end;
        const uint len = (uint)bstrtoul10(e->len, &end);
        const uint le = (uint)bstrtoul10(e->le, &end);
        net_addr net;
        if (v6) {
            ip6_addr a;
            if (!ip6_pton(e->addr, &a)) goto fail;
            net_fill_ip6(&net, a, len);
        } else {
            ip4_addr a;
            if (!ip4_pton(e->addr, &a)) goto fail;
            net_fill_ip4(&net, a, len);
        }
        if (trie_add_prefix(s->trie, &net, len, le) == NULL) goto fail;
    }
    return s;
fail:
    rfree(lp);
    return NULL;
}

static void bird_release(void *set) {
    rfree(((struct bird_set *)set)->lp);
}

static void *bird_prepare(const struct sbs_query *q, size_t n) {
    net_addr *out = malloc(n * sizeof *out + 1);
    if (out == NULL) return NULL;
    for (size_t i = 0; i < n; ++i) {
        if (q[i].v6) {
            ip6_addr a;
            for (int w = 0; w < 4; ++w)
                a.addr[w] = (u32)q[i].addr[4 * w] << 24 | (u32)q[i].addr[4 * w + 1] << 16 |
                            (u32)q[i].addr[4 * w + 2] << 8 | q[i].addr[4 * w + 3];
            net_fill_ip6(&out[i], a, q[i].len);
        } else {
            const u32 a = (u32)q[i].addr[0] << 24 | (u32)q[i].addr[1] << 16 |
                          (u32)q[i].addr[2] << 8 | q[i].addr[3];
            net_fill_ip4(&out[i], ip4_from_u32(a), q[i].len);
        }
    }
    return out;
}

static size_t bird_pass(void *set, const void *prepared, size_t n, char *outcomes) {
    const struct f_trie *t = ((struct bird_set *)set)->trie;
    const net_addr *q = prepared;
    size_t hits = 0;
    for (size_t i = 0; i < n; ++i) {
        const int m = trie_match_net(t, &q[i]);
        hits += (size_t)m;
        if (outcomes != NULL) outcomes[i] = m ? '1' : '0';
    }
    return hits;
}

int main(int argc, char **argv) {
    resource_init();
    const struct sbs_side side = {"bird",       bird_load,    bird_unload, bird_build,
                                  bird_release, bird_prepare, bird_pass,   NULL};
    return sbs_main(&side, argc, argv);
}
