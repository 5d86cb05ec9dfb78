// SPDX-License-Identifier: Apache-2.0
// The engine side of the framework: statements compiled from policy texts
// through the registered verifiers and constructors, evaluated against route
// records, and released through the registered free functions.
//
// Asynchronous operators leave requests behind them (with the asynchronous
// client, and keyed by evaluation in their request trees) that their
// library never withdraws.  The engine does: an evaluation is the run of
// kref_eval calls a thread makes under one key, and when no thread is
// evaluating under a key any more (each has moved on to another key, ended,
// or said so with kref_eval_release) its requests and tree entries go.
#include <cstdio>
#include <cstring>
#include <mutex>
#include <shared_mutex>
#include <unordered_map>

#include "ip_addr.h"
#include "qv_inet.h"
#include "ref_internal.hpp"
#include "ref_state.hpp"

struct kref_stmt {
    kref_kind_t kind = KREF_CMP;
    std::uint32_t count = 0;
    char **params = nullptr;  // count + 1 entries, the last null
    void **slots = nullptr;   // count + 1 entries, the last null
    rasf_inst *inst = nullptr;
    rasf_free_fn free_fn = nullptr;

    kref_stmt() = default;
    kref_stmt(const kref_stmt &) = delete;
    kref_stmt &operator=(const kref_stmt &) = delete;
    ~kref_stmt() {
        for (std::uint32_t i = 0; i < count; ++i) {
            std::free(params[i]);
            std::free(slots[i]);
        }
        std::free(params);
        std::free(slots);
    }
};

namespace {

// A text of the parameter vector and the argument type it stands for
// (null for segment headers and texts beyond the list).
struct Param {
    const char *text;
    const char *type;
};

// Lays the policy's items out along the argument-type list.
std::vector<Param> lay_out(const rasf_args *args, std::size_t n_items, const kref_item_t *items,
                           std::vector<std::string> &headers) {
    std::vector<Param> flat;
    std::size_t next = 0;
    const char *type = nullptr;
    auto take = [&](const kref_item_t &item) {
        for (std::uint32_t i = 0; i < item.n; ++i) flat.push_back({item.texts[i], type});
    };
    // Headers are kept in `headers`; reserve so their texts do not move.
    headers.reserve(n_items);
    if (args != nullptr) {
        for (const rasf_args::Entry &e : args->entries) {
            type = e.type.c_str();
            switch (e.kind) {
                case KREF_ARG_SINGLE:
                    if (next < n_items) take(items[next++]);
                    break;
                case KREF_ARG_INFINITE:
                    for (int seg = 0; next < n_items; ++seg, ++next) {
                        headers.push_back("arg" + std::to_string(seg) + ":" +
                                          std::to_string(items[next].n));
                        flat.push_back({headers.back().c_str(), nullptr});
                        take(items[next]);
                    }
                    break;
                case KREF_ARG_N:
                    for (std::int32_t k = 0; k < e.upper && next < n_items; ++k)
                        take(items[next++]);
                    break;
            }
        }
    }
    type = nullptr;
    while (next < n_items) take(items[next++]);
    return flat;
}

// The framework parses the arguments whose type it knows itself: an
// "ip_addr_t" parameter reaches the instance as an address record in its
// value slot.
void fill_slot(void *slot, const Param &p) {
    if (p.type == nullptr || std::strcmp(p.type, "ip_addr_t") != 0) return;
    ip_addr_t a{};
    const bool v6 = std::strchr(p.text, ':') != nullptr;
    if (qv_inet_pton(v6 ? QV_AF_INET6 : QV_AF_INET, p.text, a.addr) != 1) return;
    a.family = v6 ? QV_AF_INET6 : QV_AF_INET;
    a.length = v6 ? 16 : 4;
    std::memcpy(slot, &a, sizeof a);
}

// ---- evaluation keys ------------------------------------------------------------

// The keys threads are evaluating under, with how many threads each.  A
// reset starts a new epoch: what threads remember of an earlier one is gone.
struct Keys {
    std::mutex mu;
    std::unordered_map<std::uint64_t, unsigned> active;
    std::uint64_t epoch = 0;  // written with the gate held alone
};
Keys &keys() {
    static Keys *k = new Keys;
    return *k;
}

// The key this thread evaluates under; its evaluation is over when the
// thread ends.
struct ThreadKey {
    std::uint64_t key = 0;
    std::uint64_t epoch = 0;
    ThreadKey() = default;
    ThreadKey(const ThreadKey &) = delete;
    ThreadKey &operator=(const ThreadKey &) = delete;
    ~ThreadKey();
};
thread_local ThreadKey current;

void release(std::uint64_t key) {
    kref::async_forget(key);
    kref::btree_forget(key);
}

// One thread fewer under `key` (keys().mu held); the last one releases it.
void leave(Keys &k, std::uint64_t key) {
    auto it = k.active.find(key);
    if (it == k.active.end() || --it->second != 0) return;
    k.active.erase(it);
    release(key);
}

// This thread now evaluates under `key` (gate held shared).
void enter(std::uint64_t key) {
    Keys &k = keys();
    if (current.key == key && current.epoch == k.epoch) return;
    std::lock_guard lock(k.mu);
    if (current.key != 0 && current.epoch == k.epoch) leave(k, current.key);
    ++k.active[key];
    current.key = key;
    current.epoch = k.epoch;
}

ThreadKey::~ThreadKey() {
    if (key == 0) return;
    std::shared_lock gate(kref::eval_gate());
    Keys &k = keys();
    std::lock_guard lock(k.mu);
    if (epoch == k.epoch) leave(k, key);
}

vogno eval_async(rasf_inst &i, void *route, const kref_eval_rec_t *rec, int32_t *outcome) {
    const std::uint64_t key = rec != nullptr ? rec->key : 0;
    std::shared_lock gate(kref::eval_gate());
    if (key != 0) enter(key);
    vogno st = 0;
    if (i.update != nullptr)
        st = i.update(const_cast<kref_eval_rec_t *>(rec), i.ctx, i.count, i.params);
    // Nothing can ask for a request made without a key: none outlives the
    // evaluation that made it.
    if (rec != nullptr && key == 0) kref::async_forget(0);
    if (st != 0) return st;
    return i.cmp_async(route, i.count, i.slots, i.ctx, outcome, nullptr, key);
}

// A constructor may write process-wide state of its library (each
// rib-has-route "async" constructor sets up the one request-tree head and
// copies it into its instance): constructors run one at a time.
std::mutex &construct_mutex() {
    static std::mutex *m = new std::mutex;
    return *m;
}

bool build_vectors(kref_stmt &stmt, const std::vector<Param> &flat) {
    stmt.params = static_cast<char **>(std::calloc(flat.size() + 1, sizeof(char *)));
    stmt.slots = static_cast<void **>(std::calloc(flat.size() + 1, sizeof(void *)));
    if (stmt.params == nullptr || stmt.slots == nullptr) return false;
    static_assert(sizeof(ip_addr_t) <= RASF_SLOT_SIZE);
    for (const Param &p : flat) {
        if (p.text != nullptr) {
            char *copy = strdup(p.text);
            void *slot = std::calloc(1, RASF_SLOT_SIZE);
            stmt.params[stmt.count] = copy;
            stmt.slots[stmt.count] = slot;
            ++stmt.count;  // counted now so that the destructor frees them
            if (copy == nullptr || slot == nullptr) return false;
            fill_slot(slot, p);
        } else {
            ++stmt.count;  // a variable: no text, no slot
        }
    }
    return true;
}

}  // namespace

namespace kref {

std::shared_mutex &eval_gate() {
    static std::shared_mutex *g = new std::shared_mutex;
    return *g;
}

void forget_eval_keys() {
    Keys &k = keys();
    std::lock_guard lock(k.mu);
    k.active.clear();
    ++k.epoch;
}

}  // namespace kref

extern "C" {

vogno kref_compile(const char *attr_name, kref_kind_t kind, const char *name, const char *location,
                   size_t n_items, const kref_item_t *items, char **msg, kref_stmt_t **out) {
    if (attr_name == nullptr || out == nullptr || (n_items != 0 && items == nullptr) ||
        kind < KREF_CMP || kind > KREF_RETR || !kref::name_fits(kind, name))
        return KREF_ERR_BAD_ARG;
    for (std::size_t i = 0; i < n_items; ++i)
        if (items[i].n != 0 && items[i].texts == nullptr) return KREF_ERR_BAD_ARG;

    rasf_attr *attr = kref_attr_find(attr_name);
    if (attr == nullptr) return KREF_ERR_NOT_FOUND;
    kref::Op op_copy;
    const rasf_args *args = nullptr;
    {
        std::lock_guard lock(kref::registry().mu);
        kref::Op *op = kref::find_op(attr, kind, name);
        if (op == nullptr) return KREF_ERR_NOT_FOUND;
        if (location != nullptr) {
            bool found = false;
            for (std::size_t i = 0; i < op->locations.size() && !found; ++i)
                found = std::strcmp(op->locations.data()[i], location) == 0;
            if (!found) return KREF_ERR_LOCATION;
        }
        op_copy.verify = op->verify;
        op_copy.construct = op->construct;
        op_copy.free_fn = op->free_fn;
        op_copy.desc = op->desc;
        args = op->args.get();
    }
    if (op_copy.verify == nullptr || op_copy.construct == nullptr) return KREF_ERR_NO_FUNC;

    std::vector<std::string> headers;
    auto stmt = std::make_unique<kref_stmt>();
    stmt->kind = kind;
    stmt->free_fn = op_copy.free_fn;
    if (!build_vectors(*stmt, lay_out(args, n_items, items, headers))) return KREF_ERR_NO_MEMORY;

    // A statement without parameters hands over no vector at all.
    char **params = stmt->count != 0 ? stmt->params : nullptr;
    void **slots = stmt->count != 0 ? stmt->slots : nullptr;
    char *message = nullptr;
    vogno st = op_copy.verify(stmt->count, params, op_copy.desc, &message);
    if (msg != nullptr) {
        *msg = message;
    } else {
        std::free(message);
    }
    if (st != 0) return st;

    rasf_inst_t *inst = nullptr;
    {
        std::lock_guard one_at_a_time(construct_mutex());
        // Request trees made now belong to this engine's statements: their
        // keys are dropped when evaluations release them.
        kref::manage_new_trees(true);
        st = op_copy.construct(stmt->count, params, slots, op_copy.desc, &inst);
        kref::manage_new_trees(false);
    }
    if (st != 0) return st;
    if (inst == nullptr) return KREF_ERR_BAD_ARG;
    if (inst->kind != kind) {
        if (op_copy.free_fn != nullptr) op_copy.free_fn(inst->ctx);
        kref::destroy_instance(inst);
        return KREF_ERR_BAD_ARG;
    }
    stmt->inst = inst;
    *out = stmt.release();
    return 0;
}

vogno kref_eval(kref_stmt_t *stmt, void *route, const kref_eval_rec_t *rec, int32_t *outcome) {
    if (stmt == nullptr || stmt->kind != KREF_CMP) return KREF_ERR_BAD_ARG;
    rasf_inst *i = stmt->inst;
    if (i->cmp_async != nullptr) return eval_async(*i, route, rec, outcome);
    if (i->update != nullptr) {
        vogno st = i->update(const_cast<kref_eval_rec_t *>(rec), i->ctx, i->count, i->params);
        if (st != 0) return st;
    }
    if (i->cmp != nullptr) return i->cmp(route, i->count, i->slots, i->ctx, outcome);
    return KREF_ERR_NO_FUNC;
}

void kref_eval_release(uint64_t key) {
    std::shared_lock gate(kref::eval_gate());
    Keys &k = keys();
    std::lock_guard lock(k.mu);
    if (current.key == key && current.epoch == k.epoch) {
        current.key = 0;
        leave(k, key);
    } else if (k.active.count(key) == 0) {
        release(key);
    }
}

vogno kref_apply(kref_stmt_t *stmt, void *route) {
    if (stmt == nullptr || stmt->kind != KREF_SET) return KREF_ERR_BAD_ARG;
    rasf_inst *i = stmt->inst;
    if (i->set == nullptr) return KREF_ERR_NO_FUNC;
    return i->set(route, i->count, i->slots, i->ctx);
}

vogno kref_retrieve(kref_stmt_t *stmt, void *route, uint32_t *out) {
    if (stmt == nullptr || stmt->kind != KREF_RETR) return KREF_ERR_BAD_ARG;
    rasf_inst *i = stmt->inst;
    if (i->retrieve == nullptr) return KREF_ERR_NO_FUNC;
    return i->retrieve(route, nullptr, nullptr, out, i->ctx);
}

char *kref_stmt_print(const kref_stmt_t *stmt) {
    if (stmt == nullptr) return nullptr;
    const rasf_inst *i = stmt->inst;
    if (stmt->kind == KREF_CMP && i->print != nullptr)
        return i->print(0, i->count, i->params, i->slots, i->print_ctx);
    if (stmt->kind == KREF_SET && i->set_print != nullptr)
        return i->set_print(0, i->count, i->params, i->slots, i->ctx);
    return nullptr;
}

void kref_stmt_free(kref_stmt_t *stmt) {
    if (stmt == nullptr) return;
    if (stmt->free_fn != nullptr) stmt->free_fn(stmt->inst->ctx);
    // Through the operation a library would use, so that it shows in the
    // trace; the statement still owns the record if an injected fault
    // refused the release.
    bool released = false;
    kref::release_instance(stmt->kind, stmt->inst, released);
    if (!released) kref::destroy_instance(stmt->inst);
    delete stmt;
}

kref_kind_t kref_stmt_kind(const kref_stmt_t *stmt) {
    return stmt != nullptr ? stmt->kind : KREF_CMP;
}
rasf_inst_t *kref_stmt_instance(const kref_stmt_t *stmt) {
    return stmt != nullptr ? stmt->inst : nullptr;
}
uint32_t kref_stmt_count(const kref_stmt_t *stmt) {
    return stmt != nullptr ? stmt->count : 0;
}
char **kref_stmt_params(const kref_stmt_t *stmt) {
    return stmt != nullptr ? stmt->params : nullptr;
}
void **kref_stmt_slots(const kref_stmt_t *stmt) {
    return stmt != nullptr ? stmt->slots : nullptr;
}

char *kref_attr_print(const rasf_attr_t *attr, void *route) {
    if (attr == nullptr || attr->print == nullptr) return nullptr;
    return attr->print(nullptr, route, attr->print_desc);
}

vogno kref_attr_compare(const rasf_attr_t *attr, void *route_a, void *route_b, int32_t *outcome) {
    if (attr == nullptr) return KREF_ERR_BAD_ARG;
    if (attr->cmp == nullptr) return KREF_ERR_NO_FUNC;
    return attr->cmp(route_a, route_b, attr->cmp_desc, outcome);
}

}  // extern "C"
