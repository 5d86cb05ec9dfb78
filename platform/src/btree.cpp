// The platform B-tree, as a thin layer over std::map whose nodes come from
// the allocation callbacks the tree was given.  The trees hold a handful of
// evaluation keys each; a well-kept balanced tree gives the same ordered
// find and insert as a hand-written B-tree, and routing its allocator
// through the callbacks keeps every byte under the owner's control (an
// allocation the callback refuses fails the insert with its status).
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <vector>

#include "btree_s.h"

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
    std::mutex mu;
    Map map;
    explicit Tree(Callbacks c)
        : cb(c), map(CallbackAllocator<std::pair<const std::uint64_t, void *>>(&cb)) {}
};

}  // namespace

extern "C" {

vogno btree_s_init(uint32_t, btree_s_alloc_fn alloc, btree_s_free_fn release, void **head) {
    if (alloc == nullptr || release == nullptr || head == nullptr) return 1;
    // The tree record itself lives as long as the process: whoever copied the
    // handle may use it at any time.
    static std::vector<std::unique_ptr<Tree>> *all = new std::vector<std::unique_ptr<Tree>>;
    static std::mutex mu;
    std::lock_guard lock(mu);
    all->push_back(std::make_unique<Tree>(Callbacks{alloc, release}));
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
        return t->map.try_emplace(key, value).second ? 0 : 1;
    } catch (const Refused &r) {
        return r.status;
    }
}

}  // extern "C"
