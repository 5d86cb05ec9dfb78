// SPDX-License-Identifier: Apache-2.0
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
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>
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

// Compiles `op` of `attr` over items, each a list of texts: the status must
// be `want`; the verifier's message goes to *msg.
inline kref_stmt_t *compile(const char *attr, kref_kind_t kind, const char *op,
                            const std::vector<std::vector<const char *>> &items, vogno want = 0,
                            std::string *msg = nullptr, const char *location = nullptr) {
    std::vector<kref_item_t> v;
    for (const auto &e : items) v.push_back({static_cast<uint32_t>(e.size()), e.data()});
    kref_stmt_t *stmt = nullptr;
    char *m = nullptr;
    EXPECT_EQ(kref_compile(attr, kind, op, location, v.size(), v.data(), &m, &stmt), want)
        << attr << " " << (op ? op : "(retriever)");
    std::string text = take(m);
    if (msg != nullptr) *msg = text;
    return stmt;
}

// Evaluates a compiled comparison: its outcome (-1 when none was stored).
inline int32_t eval(kref_stmt_t *stmt, void *route, vogno want = 0,
                    const kref_eval_rec_t *rec = nullptr) {
    int32_t out = -1;
    EXPECT_EQ(kref_eval(stmt, route, rec, &out), want);
    return out;
}

// A verifier's status and message ("<null>" for none).
struct Verdict {
    vogno status;
    std::string message;
    bool operator==(const Verdict &) const = default;
};
inline std::ostream &operator<<(std::ostream &os, const Verdict &v) {
    return os << "{0x" << std::hex << v.status << std::dec << ", \"" << v.message << "\"}";
}
// Runs a verifier over texts (null vector: none; the count defaults to the
// number of texts).
inline Verdict verify(rasf_verify_fn fn, void *desc, Params *p, int64_t count = -1) {
    char *msg = nullptr;
    const uint32_t n = count >= 0 ? static_cast<uint32_t>(count) : p != nullptr ? p->count() : 0;
    const vogno st = fn(n, p != nullptr ? p->vec() : nullptr, desc, &msg);
    return {st, take(msg)};
}
inline Verdict verify(rasf_verify_fn fn, void *desc, std::vector<std::optional<std::string>> texts,
                      int64_t count = -1) {
    Params p(texts);
    return verify(fn, desc, &p, count);
}

// The instance's functions and context.
inline kref_inst_info_t inst_info(rasf_inst_t *inst) {
    kref_inst_info_t info{};
    EXPECT_EQ(kref_inst_get(inst, &info), 0u);
    return info;
}

// One attribute of every type, registered at every location: "u8", "u16",
// "u32", "en" (red = 1), "bm" (a text's value is its length; "bad" is
// refused with 0x3333), "fl" ("blackhole" only), "px" (with the parameterless
// operator "covered"), "v4", "mac", "rib-has-route" and "track".
struct EveryType {
    static vogno parse_bits(const char *text, void *, int, uint32_t *out) {
        if (std::strcmp(text, "bad") == 0) return 0x3333;
        if (out != nullptr) *out = static_cast<uint32_t>(std::strlen(text));
        return 0;
    }
    static vogno parse_flags(const char *text, void *, uint64_t *mask) {
        if (std::strcmp(text, "blackhole") != 0) return 0x3333;
        if (mask != nullptr) *mask = 1;
        return 0;
    }
    static vogno no_test(shared_kela_prefix_extra_op_td *, void *, uint8_t, int32_t *) { return 0; }
    static constexpr shared_kela_enum_name_td kNames[] = {{1, "red"}, {0, nullptr}};

    shared_kela_uint8_desc_td u8{"u8", 0, 0, 0};
    shared_kela_uint16_desc_td u16{"u16", 0, 0, 0};
    shared_kela_uint32_desc_td u32{"u32", 0, 0, 0, nullptr};
    shared_kela_enum_desc_td en{"en", 0, kNames};
    shared_kela_bitmasked_desc_td bm{"bm", nullptr, nullptr, parse_bits, 0, 1, 1, nullptr};
    shared_kela_flag64_desc_td fl{"fl", nullptr, nullptr, parse_flags, 8, 0};
    shared_kela_prefix_extra_op_td extra[1] = {{"covered", kLocations, no_test, 0}};
    shared_kela_prefix_desc_td px{"px", nullptr, nullptr, extra, 1};
    shared_kela_ipv4_desc_td v4{"v4", 0, 4};
    shared_kela_mac_address_desc_td mac{"mac", nullptr};
    shared_kela_rhr_desc_td rhr{"rib-has-route", nullptr};

    static constexpr const char *kAttrs[] = {"u8", "u16", "u32",           "en",   "bm", "fl", "px",
                                             "v4", "mac", "rib-has-route", "track"};

    // Registers one of them by name; a failure's message goes to buf.
    vogno register_one(std::string_view name, char *buf = nullptr, int32_t len = 0) {
        const char *const *l = kLocations;
        if (name == "u8") return shared_kela_uint8_base_init(nullptr, buf, len, &u8);
        if (name == "u16") return shared_kela_uint16_base_init(nullptr, buf, len, &u16);
        if (name == "u32") return shared_kela_uint32_base_init(nullptr, buf, len, &u32);
        if (name == "en")
            return shared_kela_enum_base_init_v2(nullptr, buf, len, &en, l, l, l, nullptr);
        if (name == "bm")
            return shared_kela_bitmasked_base_init_v2(nullptr, buf, len, &bm, l, l, l, nullptr);
        if (name == "fl")
            return shared_kela_flag64_base_init_v2(nullptr, buf, len, &fl, l, l, l, nullptr);
        if (name == "px")
            return shared_kela_prefix_base_init(nullptr, buf, len, &px, l, l, l, nullptr);
        if (name == "v4") return shared_kela_ipv4_base_init(nullptr, buf, len, &v4);
        if (name == "mac")
            return shared_kela_mac_address_base_init(nullptr, buf, len, &mac, l, l, l, nullptr);
        if (name == "rib-has-route")
            return shared_kela_rhr_base_init(nullptr, buf, len, &rhr, l, nullptr, nullptr, nullptr);
        return shared_kela_track_base_init(nullptr, buf, len, nullptr, l, nullptr, nullptr,
                                           nullptr);
    }
    // Registers them all; 0 when every registration succeeded.
    vogno register_all() {
        vogno st = 0;
        for (const char *name : kAttrs) st |= register_one(name);
        return st;
    }
};

// ---- null arguments ----------------------------------------------------------
// One letter per result (the legend: test_nulls.cpp); texts and segment
// lists are released.
inline char code(vogno st) {
    static const std::pair<vogno, char> kLetters[] = {
        {KEL_SHARED_ERR_NULL_INPUT, 'I'},  {KEL_SHARED_ERR_NULL_RESULT, 'R'},
        {KEL_SHARED_ERR_NULL_PARAM, 'P'},  {KEL_SHARED_ERR_NO_PARAM_ARRAY, 'A'},
        {KEL_SHARED_ERR_PARAM_COUNT, 'C'}, {KEL_SHARED_ERR_VARIABLE, 'V'},
        {KEL_SHARED_ERR_BAD_VALUE, 'B'},   {KEL_SHARED_ERR_PARAMS_NOT_ALLOWED, 'E'},
        {KEL_SHARED_ERR_NO_LOCATIONS, 'L'}};
    if (st < 10) return static_cast<char>('0' + st);
    for (auto [s, c] : kLetters)
        if (s == st) return c;
    return '?';
}
inline char code(int32_t n) {
    return n < 0 ? '-' : n < 10 ? static_cast<char>('0' + n) : '+';
}
inline char code(char *text) {
    std::free(text);
    return text != nullptr ? 't' : 'n';
}
inline char code(kel_shared_sl_td *sl) {
    kel_shared_sl_destroy(sl);
    return sl != nullptr ? 't' : 'n';
}
// Called after every call nulls() makes (to release what it handed back).
inline void (*after_call)() = nullptr;

// The letters of fn called as given, then with each pointer parameter null
// in turn (the others as given); where `want` has an x, no call is made.
template <typename R, typename... A, typename... G>
std::string nulls(std::string_view want, R (*fn)(A...), G... given) {
    const std::tuple<A...> args{given...};
    std::string got;
    auto call = [&](const std::tuple<A...> &a) {
        if (got.size() < want.size() && want[got.size()] == 'x') return got += 'x', void();
        if constexpr (std::is_void_v<R>) {
            std::apply(fn, a);
            got += '.';
        } else {
            got += code(std::apply(fn, a));
        }
        if (after_call != nullptr) after_call();
    };
    call(args);
    [&]<std::size_t... I>(std::index_sequence<I...>) {
        (..., [&] {
            if constexpr (std::is_pointer_v<std::tuple_element_t<I, std::tuple<A...>>>) {
                auto a = args;
                std::get<I>(a) = nullptr;
                call(a);
            }
        }());
    }
    (std::index_sequence_for<A...>{});
    return got;
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
