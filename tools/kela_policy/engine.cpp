// SPDX-License-Identifier: Apache-2.0
// Route evaluation: each rule's conditions through the compiled statements,
// the deciding rule's actions, the attributes they changed, the list entry
// that matched a condition, and the counts behind the summary.
#include "engine.hpp"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <unordered_map>

#include "kela_ref.h"
#include "vog.h"

namespace kp {

void Counters::merge(const Counters &o) {
    routes += o.routes;
    accepted += o.accepted;
    rejected += o.rejected;
    malformed += o.malformed;
    skipped += o.skipped;
    default_hits += o.default_hits;
    auto add = [](auto &to, const auto &from) {
        to.resize(std::max(to.size(), from.size()));
        for (std::size_t i = 0; i < from.size(); ++i) to[i] += from[i];
    };
    auto add_each = [&](auto &to, const auto &from) {
        to.resize(std::max(to.size(), from.size()));
        for (std::size_t i = 0; i < from.size(); ++i) add(to[i], from[i]);
    };
    add(rule_hits, o.rule_hits);
    add_each(list_hits, o.list_hits);
    add_each(condition_true, o.condition_true);
}

// Finds the first entry of a list that a route's value matches, by the
// library's own matching rule; the compiled instance does not say which
// entry it was.  Prefix entries are indexed by their prefix, so a lookup
// tries one key per length of the route's prefix.
class EntryFinder {
  public:
    EntryFinder(const ValueList &list, const std::string &attr, const std::string &op)
        : attr_(attr), prefixes_(list.prefixes) {
        kind_ = op == "pfxlonger"     ? SHARED_KELA_PREFIX_CMP_LONGER
                : op == "pfxorlonger" ? SHARED_KELA_PREFIX_CMP_ORLONGER
                                      : SHARED_KELA_PREFIX_CMP_MATCH;
        for (std::size_t i = 0; i < list.items.size(); ++i) {
            const auto &e = list.items[i];
            if (!prefixes_) {
                values_.emplace(normal(e[0]), static_cast<std::uint32_t>(i));
                continue;
            }
            shared_kela_prefix_matchspec_td *spec = nullptr;
            const bool acl = e[1].find_first_of(".:") != std::string::npos;
            const vogno st =
                acl ? shared_kela_prefix_cvt_string_to_matchspec_acl(
                          e[0].c_str(), e[1].c_str(), e[2].c_str(), e[3].c_str(), &spec)
                    : shared_kela_prefix_cvt_string_to_matchspec(e[0].c_str(), e[1].c_str(),
                                                                 e[2].c_str(), e[3].c_str(), &spec);
            specs_.push_back(st == 0 ? spec : nullptr);
            if (st != 0) continue;
            // The library's longer-match stores the family's maximum as the
            // upper bound on first use; storing it here keeps the entries
            // read-only while the worker threads share them.
            if (kind_ != SHARED_KELA_PREFIX_CMP_MATCH && spec->is_acl == 0)
                spec->le = shared_kela_prefix_key_len(spec->family);
            if (acl)
                acl_.push_back(static_cast<std::uint32_t>(i));
            else
                index_[key(spec->family, spec->addr, spec->len)].push_back(
                    static_cast<std::uint32_t>(i));
        }
    }
    ~EntryFinder() {
        for (auto *s : specs_) {
            if (s == nullptr) continue;
            std::free(s->mask);
            std::free(s);
        }
    }
    EntryFinder(const EntryFinder &) = delete;
    EntryFinder &operator=(const EntryFinder &) = delete;

    // The index of the first matching entry, or -1.
    long find(Route &r) const {
        if (!prefixes_) {
            // (a community is the one in the value word, not the route's list)
            char *text = attr_ == "community"
                             ? strdup(community_text(r.words[kCommunityWord]).c_str())
                             : kref_attr_print(kref_attr_find(attr_.c_str()), &r);
            if (text == nullptr) return -1;
            const auto hit = values_.find(normal(text));
            std::free(text);
            return hit == values_.end() ? -1 : static_cast<long>(hit->second);
        }
        Prefix &p = attr_ == "nexthop" ? r.nexthop : r.destination;
        if (p.family == 0) return -1;
        shared_kela_prefix_addr_td v{p.family, p.addr, p.len, 0};
        long best = -1;
        auto consider = [&](std::uint32_t i) {
            if (best >= 0 && static_cast<long>(i) >= best) return;
            if (specs_[i] != nullptr && matches(v, *specs_[i])) best = static_cast<long>(i);
        };
        for (unsigned len = 0; len <= p.len; ++len) {
            const auto hit = index_.find(key(p.family, p.addr, static_cast<std::uint8_t>(len)));
            if (hit != index_.end())
                for (std::uint32_t i : hit->second) consider(i);
        }
        for (std::uint32_t i : acl_) consider(i);
        return best;
    }

  private:
    bool matches(shared_kela_prefix_addr_td &v, shared_kela_prefix_matchspec_td &s) const {
        if (s.family != v.family) return false;
        if (s.is_acl == 0) return shared_kela_prefix_match(&v, &s, kind_) != 0;
        // Address/mask form: bits set in the wildcard mask may be anything.
        if (v.len < s.ge || v.len > s.le) return false;
        for (unsigned b = 0; b < shared_kela_prefix_key_bytes(v.family); ++b)
            if (((v.addr[b] ^ s.addr[b]) & ~(s.mask != nullptr ? s.mask[b] : 0)) != 0) return false;
        return true;
    }
    static std::string key(std::uint8_t family, const std::uint8_t *addr, std::uint8_t len) {
        std::string k(2 + (len + 7) / 8, '\0');
        k[0] = static_cast<char>(family);
        k[1] = static_cast<char>(len);
        for (unsigned b = 0; b < static_cast<unsigned>(len + 7) / 8; ++b) {
            unsigned char byte = addr[b];
            if ((b + 1) * 8 > len)
                byte = static_cast<unsigned char>(byte & (0xFF00u >> (len - b * 8)));
            k[2 + b] = static_cast<char>(byte);
        }
        return k;
    }
    // Values compare as the attribute prints them: numbers without leading
    // zeros, MAC addresses as bare lower-case hex.
    std::string normal(const std::string &text) const {
        std::string out;
        if (attr_ == "mac") {
            for (char c : text)
                if (std::isxdigit(static_cast<unsigned char>(c)))
                    out += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
            return out;
        }
        bool lead = true;
        for (std::size_t i = 0; i < text.size(); ++i) {
            const char c = text[i];
            const bool last_digit =
                i + 1 == text.size() || !std::isdigit(static_cast<unsigned char>(text[i + 1]));
            if (lead && c == '0' && !last_digit) continue;
            lead = !std::isdigit(static_cast<unsigned char>(c));
            out += c;
        }
        return out;
    }

    std::string attr_;
    bool prefixes_;
    shared_kela_prefix_cmp_td kind_;
    std::vector<shared_kela_prefix_matchspec_td *> specs_;
    std::unordered_map<std::string, std::vector<std::uint32_t>> index_;
    std::vector<std::uint32_t> acl_;
    std::unordered_map<std::string, std::uint32_t> values_;
};

Engine::Engine(const Policy &policy, const EngineOptions &options)
    : policy_(policy), opt_(options) {
    std::unordered_map<const ValueList *, std::size_t> seen;
    const bool entries = opt_.explain || opt_.set_hits || opt_.coverage;
    for (const Rule &rule : policy_.rules) {
        info_.emplace_back();
        for (const Condition &c : rule.conditions) {
            ConditionInfo ci;
            const bool answerable = c.list && c.attr != "rib-has-route";
            if (answerable && entries) {
                finders_.push_back(std::make_unique<EntryFinder>(*c.list, c.attr, c.op));
                ci.finder = finders_.back().get();
                const auto [it, fresh] = seen.emplace(c.list.get(), lists_.size());
                if (fresh) lists_.push_back(c.list.get());
                ci.list = static_cast<long>(it->second);
            }
            ci.each_community = c.attr == "community";
            info_.back().push_back(ci);
        }
    }
}

Engine::~Engine() = default;

Counters Engine::counters() const {
    Counters c;
    c.rule_hits.assign(policy_.rules.size(), 0);
    if (opt_.set_hits || opt_.coverage)
        for (const ValueList *l : lists_) c.list_hits.emplace_back(l->items.size(), 0);
    if (opt_.coverage)
        for (const Rule &r : policy_.rules) c.condition_true.emplace_back(r.conditions.size(), 0);
    return c;
}

namespace {

// The attributes a rule's actions set, each once, in the order set.
std::vector<std::string> set_by(const Rule &rule) {
    std::vector<std::string> names;
    for (const Action &a : rule.actions)
        if (std::find(names.begin(), names.end(), a.attr) == names.end()) names.push_back(a.attr);
    return names;
}

// Their printed values: only what a rule may change is printed, so routes
// that no action touches cost nothing here.
std::vector<std::string> snapshot(const std::vector<std::string> &names, Route &r) {
    std::vector<std::string> out;
    for (const std::string &name : names) {
        char *text = kref_attr_print(kref_attr_find(name.c_str()), &r);
        out.emplace_back(text != nullptr ? text : "?");
        std::free(text);
    }
    return out;
}

}  // namespace

void Engine::evaluate(Route &r, std::uint64_t key, Counters &c, Outcome &out) const {
    ++c.routes;
    out.changes.clear();
    out.conditions.clear();
    out.rule = -1;
    const bool counting = opt_.set_hits || opt_.coverage;
    kref_eval_rec_t rec{};
    rec.session = r.table;
    rec.afi = static_cast<std::uint8_t>(rib_afi(r));
    rec.key = key;
    for (std::size_t ri = 0; ri < policy_.rules.size() && out.rule < 0; ++ri) {
        const Rule &rule = policy_.rules[ri];
        bool all = true;
        for (std::size_t ci = 0; ci < rule.conditions.size(); ++ci) {
            const Condition &cond = rule.conditions[ci];
            const ConditionInfo &info = info_[ri][ci];
            vogno st = 0;
            long entry = -1;
            auto test = [&] {
                int32_t got = 0;
                st = kref_eval(cond.stmt, &r, &rec, &got);
                const bool yes = st == 0 && got == 1;
                if (yes && info.finder != nullptr) entry = info.finder->find(r);
                return yes;
            };
            const bool holds = info.each_community ? any_community(r, test) : test();
            if (entry >= 0 && counting)
                ++c.list_hits[static_cast<std::size_t>(info.list)][static_cast<std::size_t>(entry)];
            if (holds && opt_.coverage) ++c.condition_true[ri][ci];
            if (opt_.explain)
                out.conditions.push_back({static_cast<std::uint32_t>(ri),
                                          static_cast<std::uint32_t>(ci), holds, st,
                                          info.finder != nullptr, entry});
            if (!holds) {
                all = false;
                // Only --explain goes on, to show every condition's outcome.
                if (!opt_.explain) break;
            }
        }
        if (!all) continue;
        out.rule = static_cast<long>(ri);
        ++c.rule_hits[ri];
        if (!rule.actions.empty()) {
            const std::vector<std::string> names = set_by(rule);
            const std::vector<std::string> before = snapshot(names, r);
            for (const Action &a : rule.actions) {
                kref_apply(a.stmt, &r);
                after_set(r, a.attr);
            }
            const std::vector<std::string> after = snapshot(names, r);
            for (std::size_t i = 0; i < names.size(); ++i)
                if (before[i] != after[i]) out.changes.push_back({names[i], before[i], after[i]});
        }
    }
    out.accept = out.rule >= 0 ? policy_.rules[static_cast<std::size_t>(out.rule)].accept
                               : policy_.default_accept;
    if (out.rule < 0) ++c.default_hits;
    (out.accept ? c.accepted : c.rejected) += 1;
}

}  // namespace kp
