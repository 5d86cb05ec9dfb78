// Shared helpers of the library tests: owned parameter vectors with value
// slots, trace access, and a fixture that leaves the reference framework
// clean between tests.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "kela_ref.h"
#include "kela_ref_hooks.h"
#include "kela_shared.h"

namespace kt {

// "import" and "export".
inline const char *const kLocations[] = {"import", "export", nullptr};

// A parameter vector as the framework hands it over: texts (null for a
// variable) and parallel value slots (null for a variable).
class Params {
  public:
    Params(std::initializer_list<std::optional<std::string>> texts)
        : Params(std::vector<std::optional<std::string>>(texts)) {}
    explicit Params(const std::vector<std::optional<std::string>> &texts) {
        for (const auto &t : texts) {
            if (t) {
                texts_.push_back(strdup(t->c_str()));
                storage_.push_back(std::make_unique<Slot>());
                slots_.push_back(storage_.back().get());
            } else {
                texts_.push_back(nullptr);
                slots_.push_back(nullptr);
            }
        }
    }
    ~Params() {
        for (char *t : texts_) std::free(t);
    }
    Params(const Params &) = delete;
    Params &operator=(const Params &) = delete;

    uint32_t count() const { return static_cast<uint32_t>(texts_.size()); }
    char **vec() { return texts_.empty() ? empty_ : texts_.data(); }
    void **slots() { return slots_.empty() ? empty_slots_ : slots_.data(); }
    uint32_t slot_u32(size_t i) const {
        uint32_t v;
        std::memcpy(&v, slots_[i], sizeof v);
        return v;
    }

  private:
    struct Slot {
        alignas(16) unsigned char bytes[RASF_SLOT_SIZE] = {};
    };
    std::vector<char *> texts_;
    std::vector<void *> slots_;
    std::vector<std::unique_ptr<Slot>> storage_;
    char *empty_[1] = {nullptr};
    void *empty_slots_[1] = {nullptr};
};

// Segmented vector: one "arg<i>:<n>" header per item.
inline std::vector<std::optional<std::string>> segments(
    std::initializer_list<std::initializer_list<const char *>> items) {
    std::vector<std::optional<std::string>> out;
    int i = 0;
    for (const auto &item : items) {
        out.push_back("arg" + std::to_string(i++) + ":" + std::to_string(item.size()));
        for (const char *t : item) out.push_back(t ? std::optional<std::string>(t) : std::nullopt);
    }
    return out;
}

inline std::vector<std::string> trace() {
    std::vector<std::string> out;
    for (size_t i = 0; i < kref_trace_count(); ++i) out.emplace_back(kref_trace_at(i));
    return out;
}

inline std::vector<std::string> logged() {
    std::vector<std::string> out;
    for (size_t i = 0; i < kref_log_count(); ++i) out.emplace_back(kref_log_at(i));
    return out;
}

// Takes ownership of a malloc'd text; a variable holding it is cleared.
inline std::string take(char *&&s) {
    std::string out = s != nullptr ? s : "<null>";
    std::free(s);
    return out;
}
inline std::string take(char *&s) {
    std::string out = take(std::move(s));
    s = nullptr;
    return out;
}

// Every test starts and ends with an empty framework and no armed fault.
class FrameworkTest : public ::testing::Test {
  protected:
    void SetUp() override {
        kref_fault_clear();
        kref_trace_stop();
        kref_reset();
    }
    void TearDown() override {
        kref_fault_clear();
        kref_trace_stop();
        kref_reset();
        EXPECT_EQ(kref_live_instances(), 0u) << "an instance was not released";
        EXPECT_EQ(kref_live_args(), 0u) << "an argument list was not released";
    }
};

}  // namespace kt
