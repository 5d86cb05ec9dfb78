// SPDX-License-Identifier: Apache-2.0
// Internals of the reference framework: the records behind the opaque
// handles, the registry, and the hook entry every platform operation makes.
#ifndef KREF_INTERNAL_HPP
#define KREF_INTERNAL_HPP

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <initializer_list>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "kela_ref.h"
#include "rasf.h"

// ---- records behind the handles ----------------------------------------------

struct rasf_args {
    struct Entry {
        kref_arg_kind_t kind;
        std::string type;
        std::string version;
        std::int32_t lower;
        std::int32_t upper;
    };
    std::vector<Entry> entries;
};

namespace kref {

// Owned C texts, so that views of them (const char *const *) stay stable.
class Texts {
  public:
    Texts() = default;
    Texts(const Texts &) = delete;
    Texts &operator=(const Texts &) = delete;
    ~Texts() {
        for (char *t : items_) std::free(t);
    }
    void push(const char *t) { items_.push_back(t != nullptr ? strdup_or_die(t) : nullptr); }
    bool contains(const char *t) const;
    std::size_t size() const { return items_.size(); }
    const char *const *data() const { return items_.data(); }

  private:
    static char *strdup_or_die(const char *t);
    std::vector<char *> items_;
};

struct Op {
    bool has_name = false;
    std::string name;
    rasf_verify_fn verify = nullptr;
    rasf_construct_fn construct = nullptr;
    rasf_free_fn free_fn = nullptr;
    void *desc = nullptr;
    std::optional<std::string> value_type;  // retriever only
    std::optional<std::string> version;     // retriever only
    Texts locations;                        // in the order added, duplicates kept
    std::unique_ptr<rasf_args> args;
};

}  // namespace kref

struct rasf_attr {
    std::string name;
    void *reg_ctx = nullptr;
    bool has_value_type = false;
    std::string value_type;
    std::string version;
    kref::Texts locations;  // a set: each location once
    rasf_base_print_fn print = nullptr;
    void *print_desc = nullptr;
    rasf_base_cmp_fn cmp = nullptr;
    void *cmp_desc = nullptr;
    std::vector<std::unique_ptr<kref::Op>> ops[3];  // by kref_kind_t
};

struct rasf_inst {
    kref_kind_t kind;
    std::uint32_t count;
    char **params;
    void **slots;
    void *ctx;
    rasf_cmp_fn cmp = nullptr;
    rasf_cmp_async_fn cmp_async = nullptr;
    rasf_print_fn print = nullptr;
    const char *print_ctx = nullptr;
    rasf_update_fn update = nullptr;
    rasf_set_fn set = nullptr;
    rasf_set_print_fn set_print = nullptr;
    rasf_retrieve_fn retrieve = nullptr;
};

namespace kref {

// ---- registry ------------------------------------------------------------------

struct Registry {
    std::mutex mu;
    std::vector<std::unique_ptr<rasf_attr>> attrs;
    std::atomic<std::size_t> live_instances{0};
    std::atomic<std::size_t> live_args{0};
};
Registry &registry();

// Whether `name` fits the kind: operators and setters have one, the
// retriever has none.
inline bool name_fits(kref_kind_t kind, const char *name) {
    return (kind == KREF_RETR) == (name == nullptr);
}

// Looks an operator, setter or retriever up (name null: the retriever).
Op *find_op(const rasf_attr *attr, kref_kind_t kind, const char *name);

// Releases an instance record without going through the traced operation.
void destroy_instance(rasf_inst *inst);

// The traced operation behind rasf_free_*_instance.  `released` tells whether
// the record is gone: a fault injected before the operation keeps it.
vogno release_instance(kref_kind_t kind, rasf_inst *inst, bool &released);

// ---- hooks -----------------------------------------------------------------------

// A traced argument: a text (null allowed) or a number.
using Arg = std::variant<const char *, std::int64_t>;

struct Fault {
    bool fire = false;
    bool after = false;
    vogno status = 0;
};

// Every platform operation starts here: records the call when tracing and
// tells whether an armed fault fires on it.
Fault enter(const char *op, std::initializer_list<Arg> args);

// The status of an operation whose body ran: an "after" fault replaces it.
inline vogno result(const Fault &f, vogno body_status) {
    return f.fire ? f.status : body_status;
}

// Keeps or prints a logged line.
void log_line(const std::string &line);

}  // namespace kref

// Runs the operation's body unless a fault fires before it; a fault armed
// "after" replaces the body's status.
#define KREF_ENTER(op, ...)                                         \
    const kref::Fault kref_fault_ = kref::enter(op, {__VA_ARGS__}); \
    if (kref_fault_.fire && !kref_fault_.after) return kref_fault_.status
#define KREF_RESULT(st) kref::result(kref_fault_, (st))

#endif  // KREF_INTERNAL_HPP
