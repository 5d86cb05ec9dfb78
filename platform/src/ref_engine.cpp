// The engine side of the framework: statements compiled from policy texts
// through the registered verifiers and constructors, evaluated against route
// records, and released through the registered free functions.
#include <cstdio>
#include <cstring>

#include "ip_addr.h"
#include "qv_inet.h"
#include "ref_internal.hpp"

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
    st = op_copy.construct(stmt->count, params, slots, op_copy.desc, &inst);
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
    if (i->update != nullptr) {
        vogno st = i->update(const_cast<kref_eval_rec_t *>(rec), i->ctx, i->count, i->params);
        if (st != 0) return st;
    }
    if (i->cmp_async != nullptr)
        return i->cmp_async(route, i->count, i->slots, i->ctx, outcome, nullptr,
                            rec != nullptr ? rec->key : 0);
    if (i->cmp != nullptr) return i->cmp(route, i->count, i->slots, i->ctx, outcome);
    return KREF_ERR_NO_FUNC;
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
