// SPDX-License-Identifier: Apache-2.0
// What client modules register: attributes, locations, base functions,
// operators, setters, retrievers and their argument-type lists.
#include <cstring>

#include "ref_internal.hpp"

namespace kref {

char *Texts::strdup_or_die(const char *t) {
    char *copy = strdup(t);
    if (copy == nullptr) std::abort();
    return copy;
}

bool Texts::contains(const char *t) const {
    for (const char *s : items_)
        if (s != nullptr && std::strcmp(s, t) == 0) return true;
    return false;
}

Registry &registry() {
    static Registry *r = new Registry;  // outlives static destructors of callers
    return *r;
}

Op *find_op(const rasf_attr *attr, kref_kind_t kind, const char *name) {
    if (attr == nullptr || kind < KREF_CMP || kind > KREF_RETR) return nullptr;
    for (const auto &op : attr->ops[kind]) {
        if (name == nullptr ? !op->has_name : (op->has_name && op->name == name)) return op.get();
    }
    return nullptr;
}

}  // namespace kref

namespace {

const char *attr_name(const rasf_attr *attr) {
    return attr != nullptr ? attr->name.c_str() : nullptr;
}

vogno add_op(kref_kind_t kind, const char *name, rasf_attr *attr, rasf_verify_fn verify,
             rasf_construct_fn construct, rasf_free_fn free_fn, void *desc, const char *value_type,
             const char *version) {
    if (attr == nullptr || !kref::name_fits(kind, name)) return KREF_ERR_BAD_ARG;
    std::lock_guard lock(kref::registry().mu);
    if (kref::find_op(attr, kind, name) != nullptr) return KREF_ERR_EXISTS;
    auto op = std::make_unique<kref::Op>();
    op->has_name = name != nullptr;
    if (name != nullptr) op->name = name;
    op->verify = verify;
    op->construct = construct;
    op->free_fn = free_fn;
    op->desc = desc;
    if (value_type != nullptr) op->value_type.emplace(value_type);
    if (version != nullptr) op->version.emplace(version);
    attr->ops[kind].push_back(std::move(op));
    return 0;
}

vogno add_op_location(kref_kind_t kind, const char *name, rasf_attr *attr, const char *location) {
    if (attr == nullptr || location == nullptr || !kref::name_fits(kind, name))
        return KREF_ERR_BAD_ARG;
    std::lock_guard lock(kref::registry().mu);
    kref::Op *op = kref::find_op(attr, kind, name);
    if (op == nullptr) return KREF_ERR_NOT_FOUND;
    if (!attr->locations.contains(location)) return KREF_ERR_LOCATION;
    op->locations.push(location);
    return 0;
}

vogno add_op_args(kref_kind_t kind, const char *name, rasf_attr *attr, rasf_args_t *args) {
    if (attr == nullptr || args == nullptr || !kref::name_fits(kind, name)) return KREF_ERR_BAD_ARG;
    std::lock_guard lock(kref::registry().mu);
    kref::Op *op = kref::find_op(attr, kind, name);
    if (op == nullptr) return KREF_ERR_NOT_FOUND;
    if (op->args) return KREF_ERR_ARGS_OWNED;
    op->args.reset(args);
    --kref::registry().live_args;
    return 0;
}

vogno add_arg(rasf_args_t *args, kref_arg_kind_t kind, const char *type, const char *version,
              std::int32_t lower, std::int32_t upper) {
    if (args == nullptr || type == nullptr || version == nullptr) return KREF_ERR_BAD_ARG;
    args->entries.push_back({kind, type, version, lower, upper});
    return 0;
}

}  // namespace

extern "C" {

// ---- attributes --------------------------------------------------------------

vogno rasf_kela_new(const char *name, void *reg_ctx, const char *value_type, const char *version,
                    rasf_attr_t **attr) {
    KREF_ENTER("rasf_kela_new", name, value_type, version);
    vogno st = 0;
    if (name == nullptr || version == nullptr || attr == nullptr) {
        st = KREF_ERR_BAD_ARG;
    } else {
        kref::Registry &r = kref::registry();
        std::lock_guard lock(r.mu);
        for (const auto &a : r.attrs)
            if (a->name == name) st = KREF_ERR_EXISTS;
        if (st == 0) {
            auto a = std::make_unique<rasf_attr>();
            a->name = name;
            a->reg_ctx = reg_ctx;
            a->has_value_type = value_type != nullptr;
            if (value_type != nullptr) a->value_type = value_type;
            a->version = version;
            *attr = a.get();
            r.attrs.push_back(std::move(a));
        }
    }
    return KREF_RESULT(st);
}

vogno rasf_kela_add_location(const char *location, rasf_attr_t *attr) {
    KREF_ENTER("rasf_kela_add_location", location, attr_name(attr));
    vogno st = 0;
    if (location == nullptr || attr == nullptr) {
        st = KREF_ERR_BAD_ARG;
    } else {
        std::lock_guard lock(kref::registry().mu);
        if (!attr->locations.contains(location)) attr->locations.push(location);
    }
    return KREF_RESULT(st);
}

vogno rasf_kela_add_base_function_print(rasf_attr_t *attr, rasf_base_print_fn fn, void *desc) {
    KREF_ENTER("rasf_kela_add_base_function_print", attr_name(attr));
    if (attr == nullptr || fn == nullptr) return KREF_RESULT(KREF_ERR_BAD_ARG);
    std::lock_guard lock(kref::registry().mu);
    if (attr->print != nullptr) return KREF_RESULT(KREF_ERR_EXISTS);
    attr->print = fn;
    attr->print_desc = desc;
    return KREF_RESULT(0);
}

vogno rasf_kela_add_base_function_cmp(rasf_attr_t *attr, rasf_base_cmp_fn fn, void *desc) {
    KREF_ENTER("rasf_kela_add_base_function_cmp", attr_name(attr));
    if (attr == nullptr || fn == nullptr) return KREF_RESULT(KREF_ERR_BAD_ARG);
    std::lock_guard lock(kref::registry().mu);
    if (attr->cmp != nullptr) return KREF_RESULT(KREF_ERR_EXISTS);
    attr->cmp = fn;
    attr->cmp_desc = desc;
    return KREF_RESULT(0);
}

// ---- operators, setters, retrievers ---------------------------------------------

vogno rasf_kela_add_cmp(const char *op, rasf_attr_t *attr, rasf_verify_fn verify,
                        rasf_construct_fn construct, rasf_free_fn free_fn, void *desc) {
    KREF_ENTER("rasf_kela_add_cmp", op, attr_name(attr));
    return KREF_RESULT(
        add_op(KREF_CMP, op, attr, verify, construct, free_fn, desc, nullptr, nullptr));
}

vogno rasf_kela_add_cmp_location(const char *op, rasf_attr_t *attr, const char *location) {
    KREF_ENTER("rasf_kela_add_cmp_location", op, attr_name(attr), location);
    return KREF_RESULT(add_op_location(KREF_CMP, op, attr, location));
}

vogno rasf_kela_add_cmp_args(const char *op, rasf_attr_t *attr, rasf_args_t *args) {
    KREF_ENTER("rasf_kela_add_cmp_args", op, attr_name(attr));
    return KREF_RESULT(add_op_args(KREF_CMP, op, attr, args));
}

vogno rasf_kela_add_set(const char *setter, rasf_attr_t *attr, rasf_verify_fn verify,
                        rasf_construct_fn construct, rasf_free_fn free_fn, void *desc) {
    KREF_ENTER("rasf_kela_add_set", setter, attr_name(attr));
    return KREF_RESULT(
        add_op(KREF_SET, setter, attr, verify, construct, free_fn, desc, nullptr, nullptr));
}

vogno rasf_kela_add_set_location(const char *setter, rasf_attr_t *attr, const char *location) {
    KREF_ENTER("rasf_kela_add_set_location", setter, attr_name(attr), location);
    return KREF_RESULT(add_op_location(KREF_SET, setter, attr, location));
}

vogno rasf_kela_add_set_args(const char *setter, rasf_attr_t *attr, rasf_args_t *args) {
    KREF_ENTER("rasf_kela_add_set_args", setter, attr_name(attr));
    return KREF_RESULT(add_op_args(KREF_SET, setter, attr, args));
}

vogno rasf_kela_add_retriever(const char *name, rasf_attr_t *attr, const char *value_type,
                              const char *version, rasf_verify_fn verify,
                              rasf_construct_fn construct, rasf_free_fn free_fn, void *desc) {
    KREF_ENTER("rasf_kela_add_retriever", name, attr_name(attr), value_type, version);
    return KREF_RESULT(
        add_op(KREF_RETR, name, attr, verify, construct, free_fn, desc, value_type, version));
}

vogno rasf_kela_add_retriever_location(const char *name, rasf_attr_t *attr, const char *location) {
    KREF_ENTER("rasf_kela_add_retriever_location", name, attr_name(attr), location);
    return KREF_RESULT(add_op_location(KREF_RETR, name, attr, location));
}

vogno rasf_kela_add_retriever_args(const char *name, rasf_attr_t *attr, rasf_args_t *args) {
    KREF_ENTER("rasf_kela_add_retriever_args", name, attr_name(attr));
    return KREF_RESULT(add_op_args(KREF_RETR, name, attr, args));
}

// ---- argument-type lists -----------------------------------------------------------

vogno rasf_args_new(rasf_args_t **args) {
    KREF_ENTER("rasf_args_new");
    vogno st = 0;
    if (args == nullptr) {
        st = KREF_ERR_BAD_ARG;
    } else {
        *args = new rasf_args;
        ++kref::registry().live_args;
    }
    return KREF_RESULT(st);
}

vogno rasf_args_single_add(rasf_args_t *args, const char *type, const char *version) {
    KREF_ENTER("rasf_args_single_add", type, version);
    return KREF_RESULT(add_arg(args, KREF_ARG_SINGLE, type, version, 1, 1));
}

vogno rasf_args_infinite_add(rasf_args_t *args, const char *type, const char *version,
                             int32_t lower) {
    KREF_ENTER("rasf_args_infinite_add", type, version, std::int64_t{lower});
    vogno st =
        lower < 0 ? KREF_ERR_BAD_ARG : add_arg(args, KREF_ARG_INFINITE, type, version, lower, -1);
    return KREF_RESULT(st);
}

vogno rasf_args_n_add(rasf_args_t *args, const char *type, const char *version, int32_t lower,
                      int32_t upper) {
    KREF_ENTER("rasf_args_n_add", type, version, std::int64_t{lower}, std::int64_t{upper});
    vogno st = lower < 0 || upper < lower ? KREF_ERR_BAD_ARG
                                          : add_arg(args, KREF_ARG_N, type, version, lower, upper);
    return KREF_RESULT(st);
}

vogno rasf_args_free(rasf_args_t *args) {
    KREF_ENTER("rasf_args_free");
    if (args == nullptr) return KREF_RESULT(KREF_ERR_BAD_ARG);
    delete args;
    --kref::registry().live_args;
    return KREF_RESULT(0);
}

// ---- registry queries ------------------------------------------------------------

rasf_attr_t *kref_attr_find(const char *name) {
    if (name == nullptr) return nullptr;
    kref::Registry &r = kref::registry();
    std::lock_guard lock(r.mu);
    for (const auto &a : r.attrs)
        if (a->name == name) return a.get();
    return nullptr;
}

size_t kref_attr_count(void) {
    kref::Registry &r = kref::registry();
    std::lock_guard lock(r.mu);
    return r.attrs.size();
}

rasf_attr_t *kref_attr_at(size_t i) {
    kref::Registry &r = kref::registry();
    std::lock_guard lock(r.mu);
    return i < r.attrs.size() ? r.attrs[i].get() : nullptr;
}

const char *kref_attr_name(const rasf_attr_t *attr) {
    return attr_name(attr);
}

const char *kref_attr_value_type(const rasf_attr_t *attr) {
    return attr != nullptr && attr->has_value_type ? attr->value_type.c_str() : nullptr;
}

void *kref_attr_reg_ctx(const rasf_attr_t *attr) {
    return attr != nullptr ? attr->reg_ctx : nullptr;
}

size_t kref_attr_location_count(const rasf_attr_t *attr) {
    if (attr == nullptr) return 0;
    std::lock_guard lock(kref::registry().mu);
    return attr->locations.size();
}

const char *kref_attr_location_at(const rasf_attr_t *attr, size_t i) {
    if (attr == nullptr) return nullptr;
    std::lock_guard lock(kref::registry().mu);
    return i < attr->locations.size() ? attr->locations.data()[i] : nullptr;
}

rasf_base_print_fn kref_attr_base_print(const rasf_attr_t *attr, void **desc) {
    if (attr == nullptr) return nullptr;
    std::lock_guard lock(kref::registry().mu);
    if (desc != nullptr) *desc = attr->print_desc;
    return attr->print;
}

rasf_base_cmp_fn kref_attr_base_cmp(const rasf_attr_t *attr, void **desc) {
    if (attr == nullptr) return nullptr;
    std::lock_guard lock(kref::registry().mu);
    if (desc != nullptr) *desc = attr->cmp_desc;
    return attr->cmp;
}

size_t kref_attr_op_count(const rasf_attr_t *attr, kref_kind_t kind) {
    if (attr == nullptr || kind < KREF_CMP || kind > KREF_RETR) return 0;
    std::lock_guard lock(kref::registry().mu);
    return attr->ops[kind].size();
}

static void fill_op_info(const kref::Op &op, kref_op_info_t *out) {
    out->name = op.has_name ? op.name.c_str() : nullptr;
    out->verify = op.verify;
    out->construct = op.construct;
    out->free_fn = op.free_fn;
    out->desc = op.desc;
    out->value_type = op.value_type ? op.value_type->c_str() : nullptr;
    out->version = op.version ? op.version->c_str() : nullptr;
    out->n_locations = op.locations.size();
    out->locations = op.locations.data();
    out->args = op.args.get();
}

vogno kref_attr_op_at(const rasf_attr_t *attr, kref_kind_t kind, size_t i, kref_op_info_t *out) {
    if (attr == nullptr || out == nullptr || kind < KREF_CMP || kind > KREF_RETR)
        return KREF_ERR_BAD_ARG;
    std::lock_guard lock(kref::registry().mu);
    if (i >= attr->ops[kind].size()) return KREF_ERR_NOT_FOUND;
    fill_op_info(*attr->ops[kind][i], out);
    return 0;
}

vogno kref_attr_op(const rasf_attr_t *attr, kref_kind_t kind, const char *name,
                   kref_op_info_t *out) {
    if (attr == nullptr || out == nullptr) return KREF_ERR_BAD_ARG;
    std::lock_guard lock(kref::registry().mu);
    const kref::Op *op = kref::find_op(attr, kind, name);
    if (op == nullptr) return KREF_ERR_NOT_FOUND;
    fill_op_info(*op, out);
    return 0;
}

size_t kref_args_count(const rasf_args_t *args) {
    return args != nullptr ? args->entries.size() : 0;
}

vogno kref_args_at(const rasf_args_t *args, size_t i, kref_arg_info_t *out) {
    if (args == nullptr || out == nullptr) return KREF_ERR_BAD_ARG;
    if (i >= args->entries.size()) return KREF_ERR_NOT_FOUND;
    const rasf_args::Entry &e = args->entries[i];
    *out = {e.kind, e.type.c_str(), e.version.c_str(), e.lower, e.upper};
    return 0;
}

size_t kref_live_instances(void) {
    return kref::registry().live_instances.load();
}
size_t kref_live_args(void) {
    return kref::registry().live_args.load();
}

void kref_reset(void) {
    kref::Registry &r = kref::registry();
    std::lock_guard lock(r.mu);
    r.attrs.clear();
}

}  // extern "C"
