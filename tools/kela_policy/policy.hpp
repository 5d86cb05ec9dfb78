// SPDX-License-Identifier: Apache-2.0
// The policy language of kela-policy and its compilation through the
// reference framework (which calls the library's verifiers and
// constructors).
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "kela_ref.h"

namespace kp {

// Where something was written: file (empty: the policy file), line, column.
struct Where {
    std::string file;
    std::size_t line = 0, column = 0;
};

// A list of entries: a named set ("prefix-set NAME ...", "value-set NAME
// ...") or a list written inside a condition.
struct ValueList {
    std::string name;  // empty for a list written in place
    bool prefixes = false;
    std::vector<std::vector<std::string>> items;  // as the operators take them
    std::vector<std::string> shown;               // each entry as written
    std::vector<Where> where;                     // each entry's place
    std::string file;                             // loaded from, or empty
    Where defined;
};

struct Condition {
    std::string text;  // as written, long lists cut short, for --explain
    std::string attr, op;
    std::size_t line = 0, column = 0;
    std::vector<std::vector<std::string>> items;  // parameter items (without a list)
    std::shared_ptr<const ValueList> list;        // the list operand, if any
    kref_stmt_t *stmt = nullptr;
    const std::vector<std::vector<std::string>> &params() const {
        return list ? list->items : items;
    }
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
};

// A compile-time warning (or, with --Werror, error).
struct Diagnostic {
    Where where;
    std::string message, note;
};

struct Policy {
    std::string file;  // where it was read from, for messages
    std::vector<Rule> rules;
    std::vector<std::shared_ptr<ValueList>> sets;  // named sets, in order
    std::unordered_map<std::string, std::size_t> set_index;
    bool default_accept = false;
    bool uses_rib = false;  // some condition asks the routing table
    std::vector<Diagnostic> warnings;
    // Tracked objects the policy names, each with its first use.
    std::vector<std::pair<std::string, Where>> tracks;
    Policy() = default;
    Policy(const Policy &) = delete;
    Policy &operator=(const Policy &) = delete;
    Policy(Policy &&) = default;
    ~Policy();
};

// An error located in the policy file or in a list file it loads.
struct PolicyError {
    std::size_t line = 0, column = 0;
    std::string message;
    std::string file;  // empty: the policy file
    std::string note;  // a plain-language explanation, or empty
};

// Reads a list file named in the policy; false with `error` set.
using ListLoader =
    std::function<bool(const std::string &path, std::string &text, std::string &error)>;

struct ParseOptions {
    ListLoader load;       // none: "from" is refused
    std::string base_dir;  // list files are found relative to it
};

// Parses the policy text; false with `err` set on a syntax error.
bool parse_policy(const std::string &text, Policy &policy, PolicyError &err,
                  const ParseOptions &options = {});

// Compiles every condition and action at `location`; false with `err` set
// (naming the attribute, the operator, the verifier's message and the
// status text, with a plain explanation where one is known) when one is
// refused.  Adds the warnings that need the compiled policy.
bool compile_policy(Policy &policy, const char *location, PolicyError &err);

}  // namespace kp
