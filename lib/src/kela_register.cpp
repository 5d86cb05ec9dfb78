// SPDX-License-Identifier: Apache-2.0
// The registration recipe (declared in kela_register.hpp): the framework calls
// that declare one attribute, made in order from a type's table, with the
// failing call's message and status recorded for the client.
#include "kela_register.hpp"

#include <cstdarg>
#include <cstdio>

#include "kela_internal.hpp"

namespace kela {

namespace {

constexpr const char *kImportExport[] = {"import", "export", nullptr};
constexpr const char *kExportOnly[] = {"export", nullptr};

// The framework calls and message words that differ between operators,
// setters and retrievers.
struct KindCalls {
    const char *word;  // "cmp", "set", "retriever"
    vogno (*add_location)(const char *, rasf_attr_t *, const char *);
    vogno (*add_args)(const char *, rasf_attr_t *, rasf_args_t *);
};

constexpr KindCalls kCmpCalls{"cmp", rasf_kela_add_cmp_location, rasf_kela_add_cmp_args};
constexpr KindCalls kSetCalls{"set", rasf_kela_add_set_location, rasf_kela_add_set_args};
constexpr KindCalls kRetrieverCalls{"retriever", rasf_kela_add_retriever_location,
                                    rasf_kela_add_retriever_args};

}  // namespace

Locations default_locations() {
    return {kImportExport, kExportOnly, kImportExport, kImportExport};
}

Registration::Registration(void *reg_ctx, char *errbuf, std::int32_t errlen, const char *name,
                           const char *file)
    : reg_ctx_(reg_ctx), errbuf_(errbuf), errlen_(errlen), name_(nz(name)), file_(file) {}

void Registration::fail(vogno status, const char *fmt, ...) {
    status_ = status;
    if (errbuf_ == nullptr || errlen_ <= 0) return;
    va_list ap;
    va_start(ap, fmt);
    std::vsnprintf(errbuf_, static_cast<std::size_t>(errlen_), fmt, ap);
    va_end(ap);
}

void Registration::create(const char *value_type) {
    if (status_ != 0) return;
    vogno st = rasf_kela_new(name_, reg_ctx_, value_type, kVersion, &attr_);
    if (st != 0) fail(st, "rasf_kela_new:%s", name_);
}

void Registration::add_locations(const char *const *merged) {
    for (std::size_t i = 0; status_ == 0 && merged[i] != nullptr; ++i) {
        vogno st = rasf_kela_add_location(merged[i], attr_);
        if (st != 0) fail(st, "rasf_kela_add_location %s to %s", merged[i], name_);
    }
}

void Registration::base_functions(rasf_base_print_fn print, rasf_base_cmp_fn cmp, void *ctx) {
    if (status_ != 0) return;
    vogno st = rasf_kela_add_base_function_print(attr_, print, ctx);
    if (st != 0) return fail(st, "rasf_kela_add_base_function_%s", "print");
    if (cmp == nullptr) return;
    st = rasf_kela_add_base_function_cmp(attr_, cmp, ctx);
    if (st != 0) fail(st, "rasf_kela_add_base_function_%s", "cmp");
}

// Builds an argument-type list; on failure the list is released here and
// null is returned with the failure recorded.
rasf_args_t *Registration::build_args(const ArgList &list) {
    rasf_args_t *args = nullptr;
    vogno st = rasf_args_new(&args);
    if (st != 0) {
        fail(st, "rasf_args_new at %s@%d", file_, list.new_number);
        return nullptr;
    }
    for (std::size_t i = 0; i < list.count; ++i) {
        const ArgSpec &a = list.entries[i];
        const char *version = a.version != nullptr ? a.version : kVersion;
        switch (a.kind) {
            case ArgKind::Single:
                st = rasf_args_single_add(args, a.type, version);
                if (st != 0)
                    fail(st, "rasf_args_single_add: %s:%s at %s@%d", a.type, version, file_,
                         a.number);
                break;
            case ArgKind::Infinite:
                st = rasf_args_infinite_add(args, a.type, version, a.lower);
                if (st != 0)
                    fail(st, "rasf_args_infinite_add: %s:%s (%d ) at %s@%d", a.type, version,
                         a.lower, file_, a.number);
                break;
            case ArgKind::Run:
                st = rasf_args_n_add(args, a.type, version, a.lower, a.upper);
                if (st != 0)
                    fail(st, "rasf_args_n_add: %s:%s (%d,%d) at %s@%d", a.type, version, a.lower,
                         a.upper, file_, a.number);
                break;
        }
        if (st != 0) {
            rasf_args_free(args);
            return nullptr;
        }
    }
    return args;
}

void Registration::declare(Kind kind, const OpSpec &op, const char *const *locations, void *ctx) {
    if (status_ != 0) return;
    const KindCalls &calls = kind == Kind::Cmp   ? kCmpCalls
                             : kind == Kind::Set ? kSetCalls
                                                 : kRetrieverCalls;
    // The retriever has no name; messages call it "(built-in)".
    const char *shown = kind == Kind::Retriever ? "(built-in)" : nz(op.name);

    vogno st = 0;
    switch (kind) {
        case Kind::Cmp:
            st = rasf_kela_add_cmp(op.name, attr_, op.verify, op.construct, op.free_fn, ctx);
            break;
        case Kind::Set:
            st = rasf_kela_add_set(op.name, attr_, op.verify, op.construct, op.free_fn, ctx);
            break;
        case Kind::Retriever:
            st = rasf_kela_add_retriever(nullptr, attr_, "uint32_t", kVersion, op.verify,
                                         op.construct, op.free_fn, ctx);
            break;
    }
    if (st != 0) return fail(st, "rasf_kela_add_%s_function %s to %s", calls.word, shown, name_);

    for (std::size_t i = 0; locations != nullptr && locations[i] != nullptr; ++i) {
        st = calls.add_location(op.name, attr_, locations[i]);
        if (st != 0)
            return fail(st, "rasf_kela_add_%s_location %s to %s location %s", calls.word, shown,
                        name_, locations[i]);
        if (op.first_location_only) break;
    }

    rasf_args_t *args = build_args(op.args);
    if (args == nullptr) return;
    st = calls.add_args(op.name, attr_, args);
    if (st != 0) {
        fail(st, "rasf_kela_add_%s_args %s on %s", calls.word, shown, name_);
        rasf_args_free(args);
    }
}

void Registration::add_operator(const OpSpec &op, const char *const *locations, void *ctx) {
    declare(Kind::Cmp, op, locations, ctx);
}
void Registration::add_setter(const OpSpec &op, const char *const *locations, void *ctx) {
    declare(Kind::Set, op, locations, ctx);
}
void Registration::add_retriever(const OpSpec &op, const char *const *locations, void *ctx) {
    declare(Kind::Retriever, op, locations, ctx);
}

vogno register_type(const TypeSpec &spec, void *reg_ctx, char *errbuf, std::int32_t errlen,
                    void *desc, const Locations &locs) {
    kela_shared_init_if_needed();

    // Without a descriptor there is no name to register under (the fixed-name
    // types excepted): refuse before the framework sees anything.
    if (desc == nullptr && spec.fixed_name == nullptr) return KEL_SHARED_ERR_NULL_INPUT;

    const char **merged_raw = nullptr;
    vogno st =
        kela_shared_merge_locations(&merged_raw, locs.ops, locs.sets, locs.retrs, locs.attrs);
    if (st != 0) return st;
    CPtr<const char *> merged(merged_raw);

    const char *name =
        spec.fixed_name != nullptr ? spec.fixed_name : *static_cast<const char *const *>(desc);
    Registration reg(reg_ctx, errbuf, errlen, name, spec.file);
    reg.create(spec.value_type);
    reg.add_locations(merged.get());
    reg.base_functions(spec.print, spec.cmp, spec.null_base_ctx ? nullptr : desc);
    for (const OpSpec &op : spec.ops) reg.add_operator(op, locs.ops, desc);
    if (spec.setter != nullptr) reg.add_setter(*spec.setter, locs.sets, desc);
    if (spec.extra != nullptr && reg.status() == 0) spec.extra(reg, desc);
    if (spec.retriever != nullptr) reg.add_retriever(*spec.retriever, locs.retrs, desc);
    return reg.status();
}

}  // namespace kela
