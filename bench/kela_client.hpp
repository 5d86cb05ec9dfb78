// SPDX-License-Identifier: Apache-2.0
// A client of the library as the benchmarks use it: a prefix attribute
// whose route is a bare query (family, length, address), and a compiled
// "pfxmatch" set made from entry texts through the framework's parameter
// vector.  Shared by kela_bench and kela_side.
#ifndef KELA_BENCH_KELA_CLIENT_HPP
#define KELA_BENCH_KELA_CLIENT_HPP

#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "kela_ref.h"
#include "kela_shared.h"

namespace bench {

struct Query {
    std::uint8_t family;  // 2: IPv4, 10: IPv6
    std::uint8_t len;
    std::uint8_t addr[16];
};

inline vogno get_value(void *, void *route, shared_kela_prefix_addr_td *v, std::uint32_t *more) {
    auto *q = static_cast<Query *>(route);
    v->family = q->family;
    v->addr = q->addr;
    v->len = q->len;
    v->free_addr = 0;
    *more = 0;
    return 0;
}

inline shared_kela_prefix_desc_td g_desc{"destination", get_value, nullptr, nullptr, 0};

// A parameter vector in the framework's layout: "argI:4" then address,
// length, ge and le, an entry at a time.
struct Vector {
    std::vector<std::string> texts;
    std::vector<char *> ptrs;
    std::vector<void *> slots;
    void add(std::string addr, std::string len, std::string ge, std::string le) {
        texts.push_back("arg" + std::to_string(texts.size() / 5) + ":4");
        texts.push_back(std::move(addr));
        texts.push_back(std::move(len));
        texts.push_back(std::move(ge));
        texts.push_back(std::move(le));
    }
    // After the last add: the pointers the framework hands the constructor.
    void seal() {
        ptrs.clear();
        for (auto &t : texts) ptrs.push_back(t.data());
        slots.assign(ptrs.size(), this);
    }
    std::uint32_t count() const { return static_cast<std::uint32_t>(ptrs.size()); }
};

// A compiled "pfxmatch" set; empty when the constructor refused the texts.
class CompiledSet {
  public:
    explicit CompiledSet(Vector &vec) : vec_(vec) {
        if (shared_kela_prefix_cmp_match_cons(vec.count(), vec.ptrs.data(), vec.slots.data(),
                                              &g_desc, &inst_) != 0) {
            inst_ = nullptr;
            return;
        }
        kref_inst_get(inst_, &info_);
    }
    ~CompiledSet() {
        if (inst_ == nullptr) return;
        shared_kela_prefix_cmp_match_free(info_.ctx);
        rasf_free_cmp_instance(inst_);
    }
    CompiledSet(const CompiledSet &) = delete;
    CompiledSet &operator=(const CompiledSet &) = delete;
    explicit operator bool() const { return inst_ != nullptr; }

    int lookup(Query &q) const {
        std::int32_t out = 0;
        info_.cmp(&q, vec_.count(), vec_.slots.data(), info_.ctx, &out);
        return out;
    }

  private:
    Vector &vec_;
    rasf_inst_t *inst_ = nullptr;
    kref_inst_info_t info_{};
};

}  // namespace bench

#endif  // KELA_BENCH_KELA_CLIENT_HPP
