// SPDX-License-Identifier: Apache-2.0
// The platform B-tree, as a thin layer over std::map whose nodes come from
// the allocation callbacks the tree was given.  The trees hold a handful of
// evaluation keys each; a well-kept balanced tree gives the same ordered
// find and insert as a hand-written B-tree, and routing its allocator
// through the callbacks keeps every byte under the owner's control (an
// allocation the callback refuses fails the insert with its status).
//
// The interface never removes a key.  Trees made while the engine compiles
// are the engine's: their requesters never remove what they insert, so the
// engine drops a key from them once its evaluation is over, releasing the
// value (the requester's identifier cell) with the tree's own callback.  An
// index of which managed trees hold a key keeps that proportional to the
// trees that hold it.
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <unordered_map>
#include <vector>

#include "btree_s.h"
#include "ref_state.hpp"

namespace {

struct Callbacks {
    btree_s_alloc_fn alloc;
    btree_s_free_fn release;
};

// Carries the callback's status out of the allocator.
struct Refused {
    vogno status;
};

template <typename T>
struct CallbackAllocator {
    using value_type = T;
    const Callbacks *cb;
    explicit CallbackAllocator(const Callbacks *c) : cb(c) {}
    template <typename U>
    CallbackAllocator(const CallbackAllocator<U> &o) : cb(o.cb) {}
    T *allocate(std::size_t n) {
        void *p = nullptr;
        const vogno st = cb->alloc(&p, static_cast<std::uint32_t>(n * sizeof(T)));
        if (st != 0 || p == nullptr) throw Refused{st != 0 ? st : 1u};
        return static_cast<T *>(p);
    }
    void deallocate(T *p, std::size_t) { cb->release(p); }
    template <typename U>
    bool operator==(const CallbackAllocator<U> &o) const {
        return cb == o.cb;
    }
};

using Map = std::map<std::uint64_t, void *, std::less<>,
                     CallbackAllocator<std::pair<const std::uint64_t, void *>>>;

// Requesters evaluate on any thread: each tree takes its own lock.
struct Tree {
    Callbacks cb;
    bool managed;
    std::mutex mu;
    Map map;
    Tree(Callbacks c, bool m)
        : cb(c), managed(m), map(CallbackAllocator<std::pair<const std::uint64_t, void *>>(&cb)) {}
};

// Which managed trees hold each key.  Taken after a tree's lock, never
// before it.
struct Holders {
    std::mutex mu;
    std::unordered_map<std::uint64_t, std::vector<Tree *>> by_key;
};
Holders &holders() {
    static Holders *h = new Holders;
    return *h;
}

thread_local bool manage_new = false;

void drop_key(Tree &t, std::uint64_t key) {
    std::lock_guard lock(t.mu);
    auto it = t.map.find(key);
    if (it == t.map.end()) return;
    void *value = it->second;
    t.map.erase(it);
    t.cb.release(value);
}

}  // namespace

namespace kref {

void manage_new_trees(bool on) {
    manage_new = on;
}

void btree_forget(std::uint64_t key) {
    std::vector<Tree *> trees;
    {
        Holders &h = holders();
        std::lock_guard lock(h.mu);
        auto it = h.by_key.find(key);
        if (it == h.by_key.end()) return;
        trees = std::move(it->second);
        h.by_key.erase(it);
    }
    for (Tree *t : trees) drop_key(*t, key);
}

void btree_forget_all() {
    std::unordered_map<std::uint64_t, std::vector<Tree *>> all;
    {
        Holders &h = holders();
        std::lock_guard lock(h.mu);
        all.swap(h.by_key);
    }
    for (auto &[key, trees] : all)
        for (Tree *t : trees) drop_key(*t, key);
}

}  // namespace kref

extern "C" {

vogno btree_s_init(uint32_t, btree_s_alloc_fn alloc, btree_s_free_fn release, void **head) {
    if (alloc == nullptr || release == nullptr || head == nullptr) return 1;
    // The tree record itself lives as long as the process: whoever copied the
    // handle may use it at any time.
    static std::vector<std::unique_ptr<Tree>> *all = new std::vector<std::unique_ptr<Tree>>;
    static std::mutex mu;
    std::lock_guard lock(mu);
    all->push_back(std::make_unique<Tree>(Callbacks{alloc, release}, manage_new));
    *head = all->back().get();
    return 0;
}

vogno btree_s_find(void *tree, uint64_t key, void **value) {
    if (tree == nullptr) return 1;
    Tree *t = static_cast<Tree *>(tree);
    std::lock_guard lock(t->mu);
    const Map &m = t->map;
    auto it = m.find(key);
    if (it == m.end()) return 1;
    if (value != nullptr) *value = it->second;
    return 0;
}

vogno btree_s_insert(void *tree, uint64_t key, void *value, uint32_t) {
    if (tree == nullptr) return 1;
    Tree *t = static_cast<Tree *>(tree);
    std::lock_guard lock(t->mu);
    try {
        if (!t->map.try_emplace(key, value).second) return 1;
    } catch (const Refused &r) {
        return r.status;
    }
    if (t->managed) {
        Holders &h = holders();
        std::lock_guard hold(h.mu);
        h.by_key[key].push_back(t);
    }
    return 0;
}

}  // extern "C"
