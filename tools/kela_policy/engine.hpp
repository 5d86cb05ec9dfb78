// SPDX-License-Identifier: Apache-2.0
// Evaluation of routes against a compiled policy.  Each evaluation gives an
// Outcome (the verdict, the deciding rule or the default, the changed
// attributes and, when asked, every condition's result with the list entry
// that matched); run, eval, diff and test consume it and the writers format
// it.  One Engine is shared by every worker thread; each thread counts into
// its own Counters.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "policy.hpp"
#include "route_io.hpp"

namespace kp {

struct EngineOptions {
    bool explain = false;   // every condition of each rule tried, with its result
    bool set_hits = false;  // count the list entry that matched first
    bool coverage = false;  // count the conditions that held, and the entries
};

// One condition's result.
struct ConditionResult {
    std::uint32_t rule = 0, condition = 0;  // indices into the policy
    bool holds = false;
    vogno status = 0;     // the evaluation's own status (0: it ran)
    bool listed = false;  // a list operand whose matching entry was looked for
    long entry = -1;      // that entry's index, -1 when none matched
};

// What the policy did to one route.
struct Outcome {
    bool accept = false;
    long rule = -1;  // the deciding rule, -1 for the default
    std::vector<Change> changes;
    std::vector<ConditionResult> conditions;  // with explain, each condition tried
};

struct Counters {
    std::size_t routes = 0, accepted = 0, rejected = 0, malformed = 0, skipped = 0;
    std::vector<std::size_t> rule_hits;
    std::size_t default_hits = 0;
    std::vector<std::vector<std::uint64_t>> list_hits;       // per Engine::lists(), per entry
    std::vector<std::vector<std::uint64_t>> condition_true;  // per rule, per condition
    void merge(const Counters &o);
};

class EntryFinder;

class Engine {
  public:
    Engine(const Policy &policy, const EngineOptions &options);
    ~Engine();
    Engine(const Engine &) = delete;
    Engine &operator=(const Engine &) = delete;

    const Policy &policy() const { return policy_; }
    const EngineOptions &options() const { return opt_; }
    // Zeroed counters of the right shape.
    Counters counters() const;
    // Evaluates the route (the deciding rule's setters change it) under the
    // evaluation key `key`.
    void evaluate(Route &r, std::uint64_t key, Counters &c, Outcome &out) const;
    // The lists whose entries are counted, in policy order, and the list of
    // each condition (-1: none).
    const std::vector<const ValueList *> &lists() const { return lists_; }
    long list_of(std::size_t rule, std::size_t condition) const {
        return info_[rule][condition].list;
    }

  private:
    struct ConditionInfo {
        const EntryFinder *finder = nullptr;
        long list = -1;               // index into lists_
        bool each_community = false;  // tested with each of the route's communities
    };
    const Policy &policy_;
    EngineOptions opt_;
    std::vector<const ValueList *> lists_;
    std::vector<std::unique_ptr<EntryFinder>> finders_;
    // Per condition, in rule order.
    std::vector<std::vector<ConditionInfo>> info_;
};

}  // namespace kp
