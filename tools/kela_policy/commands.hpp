// SPDX-License-Identifier: Apache-2.0
// The commands of kela-policy (run, eval, check, show, diff, test) and what they
// share:
// the options, the exit statuses, loading a policy and the states of
// tracked objects.
#pragma once

#include <string>
#include <vector>

#include "engine.hpp"
#include "pipeline.hpp"
#include "policy.hpp"
#include "writers.hpp"

namespace kp {

// Exit statuses.
constexpr int kOk = 0, kIoError = 1, kPolicyError = 2, kMalformed = 3, kFound = 4;

struct Options {
    std::string policy_file, routes_file = "-", rib_file, track_file;
    std::string new_policy_file;  // diff's NEW
    std::string junit_file;       // test --junit
    std::string format = "text", input = "auto", location = "import", output = "verdicts";
    std::vector<std::string> tracks, routes;  // routes: eval's arguments, test's case files
    bool explain = false, strict = false, quiet = false, parse_only = false, werror = false;
    bool set_hits = false, coverage = false, fail_unused = false;
    unsigned jobs = 1;
    bool json() const { return format == "json"; }
};

// Reads, parses and compiles `file`, and reports its warnings; 0 or the
// exit status.
int load_policy(const Options &o, const std::string &file, const Reporter &rep, Policy &policy);
// Sets the tracked objects' states from --track and --track-file, then
// warns about objects the policies name that got none (`warned`).
int set_tracks(const Options &o, const Reporter &rep, const std::vector<const Policy *> &policies,
               bool &warned);
// Where the routes come from, and the routing table: from --rib (read
// here), or the routes themselves (read first); 0 or the exit status.
int prepare_feed(const Options &o, const Reporter &rep, bool uses_rib, Format format, Counters &c,
                 Feed &feed);
Format input_format(const std::string &name);
// The output could not be written: the message and the exit status.
int write_failed(const Reporter &rep);

int cmd_check(const Options &o, const Reporter &rep);
int cmd_show(const Options &o, const Reporter &rep);
int cmd_run(const Options &o, const Reporter &rep);
int cmd_eval(Options o, const Reporter &rep);
int cmd_diff(const Options &o, const Reporter &rep);
int cmd_test(const Options &o, const Reporter &rep);

}  // namespace kp
