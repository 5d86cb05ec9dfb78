// SPDX-License-Identifier: Apache-2.0
// Helpers shared by every source file of the library: C-heap ownership,
// verifier messages, the value slot and route record accessors, and the
// one way compiled instances are made.
#ifndef KELA_INTERNAL_HPP
#define KELA_INTERNAL_HPP

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "kela_shared.h"
#include "rasf.h"

namespace kela {

// ---- C heap ownership ------------------------------------------------------
// Memory that leaves the library is released by C callers with free(), so
// everything is allocated with the C allocator and owned through this.
struct FreeDeleter {
    void operator()(void *p) const noexcept { std::free(p); }
};
template <typename T>
using CPtr = std::unique_ptr<T, FreeDeleter>;

template <typename T>
CPtr<T> zalloc(std::size_t bytes = sizeof(T)) {
    return CPtr<T>(static_cast<T *>(std::calloc(1, bytes)));
}

// ---- Verifier messages -----------------------------------------------------
// Most verifiers leave a message the caller already holds in place.
inline void msg_if_empty(char **msg, const char *text) {
    if (msg != nullptr && *msg == nullptr) *msg = strdup(text);
}
// Some replace whatever the caller holds (the caller's previous text, if
// any, stays the caller's).
inline void msg_replace(char **msg, const char *text) {
    if (msg != nullptr) *msg = strdup(text);
}
inline void msg_replace_owned(char **msg, char *owned) {
    if (msg != nullptr) {
        *msg = owned;
    } else {
        std::free(owned);
    }
}

// Texts handed to snprintf("%s") must not be null.
inline const char *nz(const char *s) {
    return s != nullptr ? s : "(null)";
}

// ---- Route records and value slots ------------------------------------------
// Route records are the client's bytes; values are read and written with
// memcpy so that no alignment is assumed of the client's layout.
template <typename T>
inline T load_at(const void *base, std::int64_t byte_offset) {
    T v;
    std::memcpy(&v, static_cast<const unsigned char *>(base) + byte_offset, sizeof v);
    return v;
}
template <typename T>
inline void store_at(void *base, std::int64_t byte_offset, T v) {
    std::memcpy(static_cast<unsigned char *>(base) + byte_offset, &v, sizeof v);
}

// The first value slot holds the compiled 32-bit constant.
inline std::uint32_t slot_u32(void *const *slots) {
    return load_at<std::uint32_t>(slots[0], 0);
}
inline void set_slot_u32(void **slots, std::uint32_t v) {
    store_at(slots[0], 0, v);
}

// ---- Compiled instances ------------------------------------------------------
// Every constructor makes its instance the same way: create it, attach the
// instance functions in order, and on the first failure release what was
// created and hand back null.  The instance context stays the caller's to
// release.
enum class InstKind { Cmp, Set, Retriever };

class InstanceBuilder {
  public:
    InstanceBuilder(InstKind kind, rasf_inst_t **out, std::uint32_t count, char **params,
                    void **slots, void *ctx);
    InstanceBuilder(const InstanceBuilder &) = delete;
    InstanceBuilder &operator=(const InstanceBuilder &) = delete;
    ~InstanceBuilder();

    template <typename Fn>
    InstanceBuilder &add(vogno (*attach)(rasf_inst_t *, Fn), Fn fn) {
        if (status_ == 0) status_ = attach(inst_, fn);
        return *this;
    }
    // Stores the instance (or null) in the caller's out and returns the
    // status of the first failing step.
    vogno finish();

  private:
    InstKind kind_;
    rasf_inst_t **out_;
    rasf_inst_t *inst_ = nullptr;
    vogno status_ = 0;
};

}  // namespace kela

#endif  // KELA_INTERNAL_HPP
