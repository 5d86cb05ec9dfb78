// SPDX-License-Identifier: Apache-2.0
// The registration recipe, written once.  Every type describes what it
// registers in a TypeSpec table (base functions, operators, setter,
// retriever, their argument-type lists and the numbers that identify each
// argument-list call in error messages) and hands it to register_type().
#ifndef KELA_REGISTER_HPP
#define KELA_REGISTER_HPP

#include <cstddef>
#include <cstdint>
#include <span>

#include "kela_shared.h"
#include "rasf.h"

namespace kela {

inline constexpr const char *kVersion = "1.0";

enum class ArgKind : std::uint8_t { Single, Infinite, Run };

struct ArgSpec {
    ArgKind kind = ArgKind::Single;
    const char *type = nullptr;
    std::int32_t lower = 0;
    std::int32_t upper = 0;
    int number = 0;                 // identifies this call in its failure message
    const char *version = nullptr;  // null: "1.0"
};

// An argument-type list: the number of its rasf_args_new message and up to
// four entries.
struct ArgList {
    int new_number = 0;
    std::uint8_t count = 0;
    ArgSpec entries[4] = {};
};

constexpr ArgList no_args(int new_number) {
    return ArgList{new_number, 0, {}};
}
constexpr ArgList one_arg(const char *type, int new_number, int number) {
    return ArgList{new_number, 1, {ArgSpec{ArgKind::Single, type, 0, 0, number}}};
}
constexpr ArgList open_run(const char *type, int new_number, int number) {
    return ArgList{new_number, 1, {ArgSpec{ArgKind::Infinite, type, 0, 0, number}}};
}

// An operator, the setter or the retriever.
struct OpSpec {
    const char *name = nullptr;  // null for the retriever
    rasf_verify_fn verify = nullptr;
    rasf_construct_fn construct = nullptr;
    rasf_free_fn free_fn = nullptr;
    ArgList args = {};
    bool first_location_only = false;  // attached at the first listed location only
};

class Registration;

struct TypeSpec {
    const char *file = nullptr;        // source file named in messages
    const char *value_type = nullptr;  // "uint32_t", or null for address types
    rasf_base_print_fn print = nullptr;
    rasf_base_cmp_fn cmp = nullptr;  // null: no base compare
    std::span<const OpSpec> ops = {};
    const OpSpec *setter = nullptr;
    const OpSpec *retriever = nullptr;
    const char *fixed_name = nullptr;  // name used instead of the descriptor's
    bool null_base_ctx = false;        // base functions registered without descriptor
    // Operators that the descriptor itself brings, declared after the setter.
    void (*extra)(Registration &, void *desc) = nullptr;
};

struct Locations {
    const char *const *ops;
    const char *const *sets;
    const char *const *retrs;
    const char *const *attrs;
};

// The default location lists of the four-argument registration forms.
Locations default_locations();

// One registration in progress.  Each step runs only while every earlier
// step succeeded; the first failing framework call writes its message into
// the caller's error buffer, and its status is the result.
class Registration {
  public:
    Registration(void *reg_ctx, char *errbuf, std::int32_t errlen, const char *name,
                 const char *file);

    void create(const char *value_type);
    void add_locations(const char *const *merged);
    void base_functions(rasf_base_print_fn print, rasf_base_cmp_fn cmp, void *ctx);
    void add_operator(const OpSpec &op, const char *const *locations, void *ctx);
    void add_setter(const OpSpec &op, const char *const *locations, void *ctx);
    void add_retriever(const OpSpec &op, const char *const *locations, void *ctx);

    vogno status() const { return status_; }

  private:
    enum class Kind { Cmp, Set, Retriever };
    void declare(Kind kind, const OpSpec &op, const char *const *locations, void *ctx);
    rasf_args_t *build_args(const ArgList &list);
    void fail(vogno status, const char *fmt, ...) __attribute__((format(printf, 3, 4)));

    void *reg_ctx_;
    char *errbuf_;
    std::int32_t errlen_;
    const char *name_;
    const char *file_;
    rasf_attr_t *attr_ = nullptr;
    vogno status_ = 0;
};

// The whole recipe: start-up, location merge, attribute, locations, base
// functions, operators, setter, the descriptor's own operators, retriever.
vogno register_type(const TypeSpec &spec, void *reg_ctx, char *errbuf, std::int32_t errlen,
                    void *desc, const Locations &locs);

}  // namespace kela

// Defines a type's exported eight-argument registration entry point.
#define KELA_REGISTRATION_ENTRY(fn, Desc, spec)                                                    \
    extern "C" KELA_SHARED_API vogno fn(                                                           \
        void *reg_ctx, char *errbuf, int32_t errlen, Desc *desc, const char *const *op_locs,       \
        const char *const *set_locs, const char *const *retr_locs, const char *const *attr_locs) { \
        return kela::register_type(spec, reg_ctx, errbuf, errlen, desc,                            \
                                   {op_locs, set_locs, retr_locs, attr_locs});                     \
    }

#endif  // KELA_REGISTER_HPP
