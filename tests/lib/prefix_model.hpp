// SPDX-License-Identifier: Apache-2.0
// A prefix set built from entry texts, next to the rule it must follow:
// every entry parsed on its own and its own single-entry rule applied.
// Shared by the library's set comparison test and the prefix-set fuzz
// target.
#pragma once

#include <arpa/inet.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "kela_callbacks.hpp"
#include "kela_prefix.hpp"
#include "kela_ref.h"
#include "kela_shared.h"

namespace pm {

using Key = std::array<std::uint8_t, 16>;

// The first n bits of a, the rest cleared.
inline Key cut(const std::uint8_t *a, int n) {
    Key k{};
    for (int b = 0; b < n; ++b)
        k[b / 8] |= static_cast<std::uint8_t>(a[b / 8] & (0x80u >> (b % 8)));
    return k;
}

inline std::string text(bool v6, const std::uint8_t *addr) {
    char buf[INET6_ADDRSTRLEN];
    return inet_ntop(v6 ? AF_INET6 : AF_INET, addr, buf, sizeof buf);
}

// A route with one prefix value.
struct Query {
    std::uint8_t family, len;
    Key addr;
};

// `more` is left as the caller set it, which must mean "no further value".
inline vogno get_value(void *, void *route, shared_kela_prefix_addr_td *v, std::uint32_t *) {
    auto *q = static_cast<Query *>(route);
    *v = {q->family, q->addr.data(), q->len, 0};
    return 0;
}

// Address, length or mask, ge, le.
using Entry = std::array<std::string, 4>;

// Entries of one kind: 1 "pfxmatch", 2 "pfxlonger", 3 "pfxorlonger".
class Set {
  public:
    Set(int kind, const std::vector<Entry> &entries) : kind_(kind) {
        for (std::size_t i = 0; i < entries.size(); ++i) {
            texts_.push_back("arg" + std::to_string(i) + ":4");
            texts_.insert(texts_.end(), entries[i].begin(), entries[i].end());
        }
        for (auto &t : texts_) vec_.push_back(t.data());
        slots_.assign(vec_.size(), &texts_);
        const rasf_construct_fn cons[] = {shared_kela_prefix_cmp_match_cons,
                                          shared_kela_prefix_cmp_longer_cons,
                                          shared_kela_prefix_cmp_orlonger_cons};
        status_ = cons[kind - 1](static_cast<std::uint32_t>(vec_.size()), vec_.data(),
                                 slots_.data(), &desc_, &inst_);
        if (status_ == 0) kref_inst_get(inst_, &info_);
        // An entry can accept a value only if their first min(len, ge, le)
        // bits agree (an address/mask entry has length 0), so the entries
        // are kept under those bits, a shortcut that leaves the rule to decide.
        for (const Entry &e : entries) {
            shared_kela_prefix_matchspec_td *s = nullptr;
            auto parse = e[1].size() > 3 ? shared_kela_prefix_cvt_string_to_matchspec_acl
                                         : shared_kela_prefix_cvt_string_to_matchspec;
            if (parse(e[0].c_str(), e[1].c_str(), e[2].c_str(), e[3].c_str(), &s) != 0) continue;
            // An address/mask entry whose address is all zero is held by the
            // set as a wild entry of its bounds.
            const bool acl = s->is_acl && cut(s->addr, s->family == 10 ? 128 : 32) != Key{};
            const int keylen = std::min({s->len, s->ge, s->le});
            by_key_[{keylen, cut(s->addr, keylen)}].push_back({s, acl});
        }
    }
    ~Set() {
        for (auto &kv : by_key_)
            for (auto [s, acl] : kv.second) kela::prefix::free_spec(s);
        if (inst_ == nullptr) return;
        shared_kela_prefix_cmp_match_free(info_.ctx);
        rasf_free_cmp_instance(inst_);
    }
    Set(const Set &) = delete;
    Set &operator=(const Set &) = delete;

    vogno status() const { return status_; }
    std::int32_t answer(Query &q) const {
        std::int32_t out = -1;
        info_.cmp(&q, info_.count, info_.slots, info_.ctx, &out);
        return out;
    }
    // What the entries' own rules say.
    int rule(Query &q) const {
        shared_kela_prefix_addr_td v{q.family, q.addr.data(), q.len, 0};
        for (int l = 0; l <= q.len; ++l) {
            auto it = by_key_.find({l, cut(q.addr.data(), l)});
            if (it == by_key_.end()) continue;
            for (auto [s, acl] : it->second) {
                if (acl ? shared_kela_prefix_match_acl(&v, s)
                        : shared_kela_prefix_match(&v, s,
                                                   static_cast<shared_kela_prefix_cmp_td>(kind_)))
                    return 1;
            }
        }
        return 0;
    }

  private:
    int kind_;
    vogno status_ = 0;
    std::vector<std::string> texts_;
    std::vector<char *> vec_;
    std::vector<void *> slots_;
    shared_kela_prefix_desc_td desc_{"destination", get_value, nullptr, nullptr, 0};
    rasf_inst_t *inst_ = nullptr;
    kref_inst_info_t info_{};
    // Each entry with whether its address/mask rule applies.
    using Spec = std::pair<shared_kela_prefix_matchspec_td *, bool>;
    std::map<std::pair<int, Key>, std::vector<Spec>> by_key_;
};

}  // namespace pm
