// SPDX-License-Identifier: Apache-2.0
// Evaluation of routes against a compiled policy: the verdict, the changed
// attributes, the explanation of every condition (with the set entry that
// matched), hit counts, and the output line of each route.  One Engine is
// shared by every worker thread; each thread counts into its own Counters.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "client.hpp"
#include "policy.hpp"

namespace kp {

struct EngineOptions {
    bool explain = false;   // every condition's outcome
    bool set_hits = false;  // count the entry of a list that matched
    bool json = false;      // JSON Lines instead of text
    bool routes = false;    // accepted routes in their input format instead of verdicts
    Format input = Format::Auto;
};

struct Counters {
    std::size_t routes = 0, accepted = 0, rejected = 0, malformed = 0, skipped = 0;
    std::size_t multi_community = 0;  // routes with more standard communities than one
    std::vector<std::size_t> rule_hits;
    std::size_t default_hits = 0;
    std::vector<std::vector<std::uint64_t>> list_hits;  // per Engine::lists(), per entry
    void merge(const Counters &o);
};

class EntryFinder;

class Engine {
  public:
    Engine(Policy &policy, const EngineOptions &options);
    ~Engine();
    Engine(const Engine &) = delete;
    Engine &operator=(const Engine &) = delete;

    Counters counters() const;
    // Evaluates the route (its setters change it) and appends its output.
    void evaluate(Route &r, std::string_view line, std::size_t number, Counters &c,
                  std::string &out) const;
    // The lists whose entries are counted, in policy order.
    const std::vector<const ValueList *> &lists() const { return lists_; }
    // The summary (and the per-entry hit counts when asked) as output.
    std::string summary(const Counters &c) const;

  private:
    struct ConditionInfo {
        const EntryFinder *finder = nullptr;
        std::size_t list = 0;  // index into lists_
    };
    Policy &policy_;
    EngineOptions opt_;
    std::vector<const ValueList *> lists_;
    std::vector<std::unique_ptr<EntryFinder>> finders_;
    // Per condition, in rule order.
    std::vector<std::vector<ConditionInfo>> info_;
};

}  // namespace kp
