// The policy language of kela-policy and its compilation through the
// reference framework (which calls the library's verifiers and
// constructors).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "kela_ref.h"

namespace kp {

struct Condition {
    std::string text;  // as written, for --explain
    std::string attr, op;
    std::size_t line = 0, column = 0;
    std::vector<std::vector<std::string>> items;  // parameter items for the engine
    kref_stmt_t *stmt = nullptr;
};

struct Action {
    std::string text;
    std::string attr, setter;
    std::size_t line = 0, column = 0;
    std::vector<std::vector<std::string>> items;
    kref_stmt_t *stmt = nullptr;
};

struct Rule {
    std::string name;
    std::size_t line = 0;
    std::vector<Condition> conditions;
    std::vector<Action> actions;
    bool accept = false;
    std::size_t hits = 0;
};

struct Policy {
    std::vector<Rule> rules;
    bool default_accept = false;
    std::size_t default_hits = 0;
    bool uses_rib = false;  // some condition asks the routing table
    Policy() = default;
    Policy(const Policy &) = delete;
    Policy &operator=(const Policy &) = delete;
    Policy(Policy &&) = default;
    ~Policy();
};

// An error located in the policy file.
struct PolicyError {
    std::size_t line = 0, column = 0;
    std::string message;
};

// Parses the policy text; false with `err` set on a syntax error.
bool parse_policy(const std::string &text, Policy &policy, PolicyError &err);

// Compiles every condition and action at `location`; false with `err` set
// (naming the attribute, the operator, the verifier's message and the
// status text) when one is refused.
bool compile_policy(Policy &policy, const char *location, PolicyError &err);

}  // namespace kp
