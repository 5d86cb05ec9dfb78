// SPDX-License-Identifier: Apache-2.0
// This project's side of the side-by-side comparison with the peer's trie
// (bench/peer/): the same files, passes and clock (peer/side_by_side.h),
// with a "pfxmatch" set compiled by the library and asked through the
// framework's compare, as the policy engine asks it for every route.
// A build is the constructor from the parameter texts to a set that
// answers: its first lookup, which makes the tree's lookup index, is part
// of it.
#include <cstring>
#include <new>

#include "kela_client.hpp"
#include "kela_ref_hooks.h"
#include "peer/side_by_side.h"

namespace {

// The entries as the framework hands them to the constructor.
struct Texts {
    bool v6;
    bench::Vector vec;
};

void *load(int v6, const sbs_entry *entries, std::size_t n) {
    auto *t = new (std::nothrow) Texts{v6 != 0, {}};
    if (t == nullptr) return nullptr;
    t->vec.texts.reserve(5 * n);
    for (std::size_t i = 0; i < n; ++i)
        t->vec.add(entries[i].addr, entries[i].len, entries[i].len, entries[i].le);
    t->vec.seal();
    return t;
}

void unload(void *texts) {
    delete static_cast<Texts *>(texts);
}

void *build(void *texts) {
    auto *t = static_cast<Texts *>(texts);
    auto *set = new (std::nothrow) bench::CompiledSet(t->vec);
    if (set == nullptr || !*set) {
        delete set;
        return nullptr;
    }
    bench::Query first{static_cast<std::uint8_t>(t->v6 ? 10 : 2), 0, {}};
    set->lookup(first);
    return set;
}

void release(void *set) {
    delete static_cast<bench::CompiledSet *>(set);
}

void *prepare(const sbs_query *q, std::size_t n) {
    auto *out = static_cast<bench::Query *>(std::malloc(n * sizeof(bench::Query) + 1));
    if (out == nullptr) return nullptr;
    for (std::size_t i = 0; i < n; ++i) {
        out[i].family = static_cast<std::uint8_t>(q[i].v6 ? 10 : 2);
        out[i].len = q[i].len;
        std::memcpy(out[i].addr, q[i].addr, 16);
    }
    return out;
}

std::size_t pass(void *set, const void *prepared, std::size_t n, char *outcomes) {
    const auto &s = *static_cast<const bench::CompiledSet *>(set);
    // The getter hands out the route's own bytes: the queries are the routes.
    auto *q = static_cast<bench::Query *>(const_cast<void *>(prepared));
    std::size_t hits = 0;
    for (std::size_t i = 0; i < n; ++i) {
        const int m = s.lookup(q[i]);
        hits += static_cast<std::size_t>(m);
        if (outcomes != nullptr) outcomes[i] = m != 0 ? '1' : '0';
    }
    return hits;
}

std::size_t mapped() {
    return kref_radix_mapped_bytes();
}

}  // namespace

int main(int argc, char **argv) {
    const sbs_side side{"kela", load, unload, build, release, prepare, pass, mapped};
    return sbs_main(&side, argc, argv);
}
