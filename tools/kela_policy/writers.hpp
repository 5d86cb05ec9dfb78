// SPDX-License-Identifier: Apache-2.0
// Output of kela-policy: standard output through write(2), messages on
// standard error, and the text and JSON forms of an evaluation's outcome,
// of the run's summary and of the coverage of a policy by the routes.
#pragma once

#include <cstddef>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "engine.hpp"
#include "route_io.hpp"

namespace kp {

using Json = nlohmann::ordered_json;
// Valid UTF-8 whatever the input: bytes that are not are replaced.
std::string dump(const Json &j);

// Standard output through write(2), so that a failed write (a full disk,
// /dev/full) is seen and reported instead of lost.
class Out {
  public:
    bool put(std::string_view s);
    int error() const { return errno_; }

  private:
    int errno_ = 0;
};
extern Out g_out;

// Error messages quote the input; its control and non-ASCII bytes are
// shown as \xNN so that a message is always one printable line.
std::string printable(const std::string &s);

// Messages on standard error, as text or (with --format json) JSON Lines.
struct Reporter {
    bool json = false;

    void emit(const char *kind, const std::string &file, std::size_t line, std::size_t column,
              const std::string &message, const std::string &note = {}) const;
    int error(const std::string &message, int status) const {
        emit("error", "", 0, 0, message);
        return status;
    }
    // A route line's error, as one line for the batch's error text.
    std::string route_error(const std::string &file, std::size_t line, const RouteError &e) const;
};

// The name of the deciding rule ("default" for the default).
const std::string &rule_name(const Policy &p, long rule);
// "accept (rule NAME)" and the changes, as the verdict line writes them.
std::string verdict_text(const Policy &p, const Outcome &o);

// One route's outcome: its verdict line, and the explanation when the
// outcome holds one.
void append_outcome(std::string &out, const Policy &p, const Route &r, const Outcome &o);
// `line`: the route's input line, 0 for none.
Json outcome_json(const Policy &p, const Route &r, const Outcome &o, bool explain,
                  std::size_t line = 0);
// Only the explanation, one indented line per condition.
void append_explanation(std::string &out, const Policy &p, const Outcome &o);

// The run's summary, with the per-entry hit counts when asked.
std::string summary_text(const Engine &e, const Counters &c);
Json summary_json(const Engine &e, const Counters &c);

// What the routes never used: rules that decided no route, conditions
// never true, list entries that never matched first; `unused_rules` is set
// to the number of the first kind.
std::string coverage_text(const Engine &e, const Counters &c, std::size_t &unused_rules);
Json coverage_json(const Engine &e, const Counters &c, std::size_t &unused_rules);

}  // namespace kp
