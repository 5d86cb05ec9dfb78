// SPDX-License-Identifier: Apache-2.0
// kela-policy: runs route policies over route streams with the library's
// attribute types on the reference platform.  This file is the command
// line: the commands, their options and --help; commands.cpp runs them, and
// the man page (kela-policy.1) describes them.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>
#include <string>

#include "commands.hpp"

#ifndef KELA_VERSION
#define KELA_VERSION "unknown"
#endif

namespace {

int run_main(int argc, char **argv) {
    using namespace kp;
    Options o;
    CLI::App app{"kela-policy: run route policies built from the kela-shared attribute types",
                 "kela-policy"};
    app.set_version_flag("--version", std::string("kela-policy ") + KELA_VERSION);
    app.require_subcommand(1);
    app.footer(
        "Exit status: 0 success; 1 a file that cannot be read or output that cannot be written;\n"
        "2 a policy that does not compile, or a usage error; 3 malformed route lines;\n"
        "4 a check found something (diff: routes that differ; test: failing cases;\n"
        "run --coverage --fail-unused: a rule that decided no route).\n"
        "See kela-policy(1) and docs/policy-language.md.");

    auto common_options = [&](CLI::App *cmd) {
        cmd->add_option("--at", o.location, "attach point the policy runs at")
            ->capture_default_str();
        cmd->add_option("--format", o.format, "output (and message) format")
            ->check(CLI::IsMember({"text", "json"}))
            ->capture_default_str();
        cmd->add_flag("--Werror", o.werror, "treat warnings as errors");
    };
    auto policy_options = [&](CLI::App *cmd) {
        cmd->add_option("POLICY", o.policy_file, "the policy file")->required();
        common_options(cmd);
    };
    auto jobs_option = [&](CLI::App *cmd) {
        cmd->add_option("--jobs,-j", o.jobs, "evaluate on N threads")
            ->check(CLI::Range(1u, 256u))
            ->capture_default_str();
    };
    auto route_options = [&](CLI::App *cmd) {
        cmd->add_option("--input", o.input, "route format (auto: by each line's look)")
            ->check(CLI::IsMember({"auto", "text", "json", "bgpdump"}))
            ->capture_default_str();
        cmd->add_option("--rib", o.rib_file,
                        "routing table for rib-has-route (default: the routes themselves)");
        cmd->add_option("--track", o.tracks, "state of a tracked object, NAME=up|down")
            ->take_all()
            ->allow_extra_args(false);
        cmd->add_option("--track-file", o.track_file, "lines 'NAME up|down'");
    };

    auto stream_options = [&](CLI::App *cmd) {
        cmd->add_option("ROUTES", o.routes_file, "route file, pipe or FIFO; '-' standard input")
            ->capture_default_str();
        route_options(cmd);
        cmd->add_flag("--strict", o.strict, "stop at the first malformed route line");
        cmd->add_flag("--quiet", o.quiet, "no progress indicator");
        jobs_option(cmd);
    };

    CLI::App *run = app.add_subcommand("run", "evaluate every route of ROUTES");
    policy_options(run);
    stream_options(run);
    run->add_flag("--explain", o.explain, "show every condition's outcome and matching entry");
    run->add_flag("--parse-only", o.parse_only, "read and parse the routes, evaluate nothing");
    run->add_flag("--set-hits", o.set_hits, "count the hits of every set entry");
    run->add_flag("--coverage", o.coverage,
                  "after the summary, the rules, conditions and set entries the routes never used");
    run->add_flag("--fail-unused", o.fail_unused,
                  "--coverage, and exit status 4 when a rule decided no route");
    run->add_option("--output", o.output, "verdicts, or the accepted routes in their input format")
        ->check(CLI::IsMember({"verdicts", "routes"}))
        ->capture_default_str();

    CLI::App *diff = app.add_subcommand(
        "diff", "evaluate ROUTES under OLD and NEW and print the routes whose outcome differs");
    diff->add_option("OLD", o.policy_file, "the policy as it was")->required();
    diff->add_option("NEW", o.new_policy_file, "the policy as changed")->required();
    common_options(diff);
    stream_options(diff);

    CLI::App *test = app.add_subcommand(
        "test", "check that POLICY gives the routes of CASES the outcomes they expect");
    policy_options(test);
    test->add_option("CASES", o.routes,
                     "case files: 'ROUTE => accept|reject [RULE] [ATTR=VALUE...]'")
        ->required();
    route_options(test);
    test->add_option("--junit", o.junit_file, "also write the results as JUnit XML to FILE");

    CLI::App *check = app.add_subcommand("check", "compile POLICY only");
    policy_options(check);

    CLI::App *eval = app.add_subcommand("eval", "evaluate routes given on the command line");
    policy_options(eval);
    eval->add_option("ROUTE", o.routes, "a route line ('dest=10.1.0.0/16 metric=5') or a prefix")
        ->required();
    route_options(eval);

    CLI::App *show = app.add_subcommand("show", "print the compiled policy: sets and rules");
    policy_options(show);

    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp &e) {
        return app.exit(e);
    } catch (const CLI::CallForAllHelp &e) {
        return app.exit(e);
    } catch (const CLI::CallForVersion &e) {
        return app.exit(e);
    } catch (const CLI::ParseError &e) {
        std::fprintf(stderr, "kela-policy: %s\nTry 'kela-policy --help'.\n", e.what());
        return kPolicyError;
    }
    Reporter rep{o.json()};
    if (*eval) o.explain = true;  // a one-shot test says why
    if (o.fail_unused) o.coverage = true;
    if (*check) return cmd_check(o, rep);
    if (*show) return cmd_show(o, rep);
    if (*eval) return cmd_eval(o, rep);
    if (*diff) return cmd_diff(o, rep);
    if (*test) return cmd_test(o, rep);
    return cmd_run(o, rep);
}

}  // namespace

// What escapes (memory exhausted, a library exception) ends the run with a
// message instead of an abort.
int main(int argc, char **argv) {
    try {
        return run_main(argc, argv);
    } catch (const std::exception &e) {
        std::fprintf(stderr, "kela-policy: %s\n", e.what());
    } catch (...) {
        std::fprintf(stderr, "kela-policy: unexpected failure\n");
    }
    return kp::kIoError;
}
