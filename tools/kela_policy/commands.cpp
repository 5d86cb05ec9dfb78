// SPDX-License-Identifier: Apache-2.0
// The commands run, eval, check and show, and what every command shares:
// loading a policy, the states of tracked objects, the routing table.
#include "commands.hpp"

#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <unordered_set>

#include "engine.hpp"
#include "kela_ref.h"
#include "kela_ref_state.h"
#include "lines.hpp"
#include "pipeline.hpp"
#include "route.hpp"

namespace kp {

namespace {

std::string dir_of(const std::string &path) {
    const std::size_t slash = path.rfind('/');
    return slash == std::string::npos ? "" : path.substr(0, slash == 0 ? 1 : slash);
}

void add_to_rib(const Route &r) {
    kref_rib_add(rib_afi(r), r.table, r.destination.addr, r.destination.len, nullptr);
}

// Loads a routing table from its own file; its malformed lines are
// reported and counted.
int load_rib_file(const Options &o, const Reporter &rep, Format format, Counters &c) {
    LineReader in;
    if (!in.open(o.rib_file)) return rep.error(in.error(), kIoError);
    std::string_view line;
    while (in.next(line)) {
        if (skip_line(line)) continue;
        Route r;
        RouteError err;
        bool skip = false;
        if (!parse_route(format, line, r, err, skip)) {
            ++c.malformed;
            std::fputs(rep.route_error(o.rib_file, in.line_number(), err).c_str(), stderr);
            continue;
        }
        if (!skip) add_to_rib(r);
    }
    if (!in.error().empty()) return rep.error(in.error(), kIoError);
    return 0;
}

}  // namespace

int load_policy(const Options &o, const std::string &file, const Reporter &rep, Policy &policy) {
    std::string text, error;
    policy.file = file;
    if (!read_all(file, text, error)) return rep.error(error, kIoError);
    if (register_attributes(error) != 0) return rep.error(error, kIoError);
    PolicyError perr;
    ParseOptions popt;
    popt.load = [](const std::string &path, std::string &out, std::string &err) {
        return read_all(path, out, err);
    };
    popt.base_dir = dir_of(file);
    if (!parse_policy(text, policy, perr, popt) ||
        !compile_policy(policy, o.location.c_str(), perr)) {
        rep.emit("error", perr.file.empty() ? file : perr.file, perr.line, perr.column,
                 perr.message, perr.note);
        return kPolicyError;
    }
    for (const Diagnostic &d : policy.warnings)
        rep.emit(o.werror ? "error" : "warning", d.where.file.empty() ? file : d.where.file,
                 d.where.line, d.where.column, d.message, d.note);
    return 0;
}

int set_tracks(const Options &o, const Reporter &rep, const std::vector<const Policy *> &policies,
               bool &warned) {
    std::unordered_set<std::string> given;
    auto set = [&](const std::string &name, const std::string &state) {
        if (name.empty() || (state != "up" && state != "down")) return false;
        if (kref_track_set(name.c_str(), state == "up") != 0) return false;
        given.insert(name);
        return true;
    };
    for (const std::string &t : o.tracks) {
        const std::size_t eq = t.find('=');
        if (eq == std::string::npos || !set(t.substr(0, eq), t.substr(eq + 1)))
            return rep.error("bad --track " + quote(t) + " (NAME=up or NAME=down)", kPolicyError);
    }
    if (!o.track_file.empty()) {
        LineReader in;
        if (!in.open(o.track_file)) return rep.error(in.error(), kIoError);
        std::string_view line;
        while (in.next(line)) {
            if (skip_line(line)) continue;
            char name[256] = "", state[16] = "";
            const std::string l(line);
            if (std::sscanf(l.c_str(), "%255s %15s", name, state) != 2 || !set(name, state)) {
                rep.emit("error", o.track_file, in.line_number(), 0, "expected 'NAME up|down'");
                return kPolicyError;
            }
        }
        if (!in.error().empty()) return rep.error(in.error(), kIoError);
    }
    for (const Policy *p : policies)
        for (const auto &[name, where] : p->tracks)
            if (given.count(name) == 0) {
                rep.emit(o.werror ? "error" : "warning", p->file, where.line, where.column,
                         "tracked object " + quote(name) + " is given no state and counts as down",
                         "give it one with --track " + name + "=up or --track-file");
                warned = true;
                given.insert(name);  // once, for the first policy naming it
            }
    return 0;
}

int prepare_feed(const Options &o, const Reporter &rep, bool uses_rib, Format format, Counters &c,
                 Feed &feed) {
    feed.path = o.routes_file;
    // The routing table comes from --rib, or else from the routes
    // themselves: they are then read once and kept until every route has
    // been evaluated.
    feed.read_first = uses_rib && o.rib_file.empty();
    feed.on_read = add_to_rib;
    if (!uses_rib || o.rib_file.empty()) return 0;
    if (o.rib_file == "-" && o.routes_file == "-")
        return rep.error("--rib and the routes cannot both be standard input", kPolicyError);
    return load_rib_file(o, rep, format, c);
}

Format input_format(const std::string &name) {
    return name == "text"      ? Format::Text
           : name == "json"    ? Format::Json
           : name == "bgpdump" ? Format::Bgpdump
                               : Format::Auto;
}

int write_failed(const Reporter &rep) {
    return rep.error(std::string("cannot write the output: ") + std::strerror(g_out.error()),
                     kIoError);
}

int cmd_check(const Options &o, const Reporter &rep) {
    Policy policy;
    if (int st = load_policy(o, o.policy_file, rep, policy); st != 0) return st;
    if (o.werror && !policy.warnings.empty()) return kPolicyError;
    std::size_t conditions = 0, actions = 0;
    for (const Rule &r : policy.rules) {
        conditions += r.conditions.size();
        actions += r.actions.size();
    }
    std::string line;
    if (o.json())
        line = dump(Json{{"check",
                          {{"policy", o.policy_file},
                           {"rules", policy.rules.size()},
                           {"conditions", conditions},
                           {"actions", actions},
                           {"sets", policy.sets.size()},
                           {"warnings", policy.warnings.size()}}}}) +
               "\n";
    else
        line = o.policy_file + ": ok: " + std::to_string(policy.rules.size()) + " rules, " +
               std::to_string(conditions) + " conditions, " + std::to_string(actions) +
               " actions\n";
    return g_out.put(line) ? kOk : write_failed(rep);
}

int cmd_show(const Options &o, const Reporter &rep) {
    Policy policy;
    if (int st = load_policy(o, o.policy_file, rep, policy); st != 0) return st;
    if (o.werror && !policy.warnings.empty()) return kPolicyError;
    std::string out;
    for (const auto &s : policy.sets) {
        out += std::string(s->prefixes ? "prefix-set " : "value-set ") + s->name + ": " +
               std::to_string(s->items.size()) + (s->items.size() == 1 ? " entry" : " entries");
        if (!s->file.empty()) out += " from " + s->file;
        out += "\n";
    }
    for (const Rule &r : policy.rules) {
        out += "rule " + r.name + " (line " + std::to_string(r.line) + ")\n";
        for (const Condition &c : r.conditions) out += "  if " + c.text + "\n";
        for (const Action &a : r.actions) out += "  set " + a.text + "\n";
        out += r.accept ? "  accept\n" : "  reject\n";
    }
    out += std::string("default ") + (policy.default_accept ? "accept" : "reject") + "\n";
    return g_out.put(out) ? kOk : write_failed(rep);
}

namespace {

// Everything after the policy is loaded: states, routing table, routes.
int run_routes(const Options &o, const Reporter &rep, Policy &policy,
               const std::vector<std::string> *eval_lines) {
    bool warned = false;
    if (int st = set_tracks(o, rep, {&policy}, warned); st != 0) return st;
    if (o.werror && (warned || !policy.warnings.empty())) return kPolicyError;

    EngineOptions eo;
    eo.explain = o.explain;
    eo.set_hits = o.set_hits;
    eo.coverage = o.coverage;
    const Engine engine(policy, eo);
    const bool routes_out = o.output == "routes";
    RouteInput input{input_format(o.input), o.strict, o.routes_file, &rep};
    std::vector<Counters> counters(std::max(1u, o.jobs), engine.counters());

    Feed feed;
    if (int st = prepare_feed(o, rep, policy.uses_rib, input.format, counters[0], feed); st != 0)
        return st;
    feed.lines = eval_lines;

    auto work = [&](Batch &b, unsigned w) {
        Counters &c = counters[w];
        c.malformed += b.malformed;
        Outcome outcome;
        for (std::size_t i = 0; i < b.lines.size(); ++i) {
            if (b.state[i] == LineState::NoRoute) ++c.skipped;
            if (b.state[i] != LineState::Route) continue;
            if (o.parse_only) {
                ++c.routes;
                continue;
            }
            Route &r = b.routes[i];
            engine.evaluate(r, b.lines[i].number, c, outcome);
            if (routes_out) {
                if (outcome.accept)
                    append_changed_route(b.out, b.line(i), input.format, outcome.changes);
            } else if (o.json()) {
                b.out += dump(outcome_json(policy, r, outcome, o.explain, b.lines[i].number));
                b.out += '\n';
            } else {
                append_outcome(b.out, policy, r, outcome);
            }
        }
    };
    const bool progress = !o.quiet && isatty(STDERR_FILENO) != 0;
    const PipelineEnd end = run_pipeline(feed, input, o.jobs, progress, work,
                                         [](Batch &b) { return g_out.put(b.out); });
    if (end.output_failed) return write_failed(rep);
    if (!end.input_error.empty()) return rep.error(end.input_error, kIoError);
    if (end.stopped) return kMalformed;  // --strict: the first malformed line ends the run

    Counters total = engine.counters();
    for (const Counters &c : counters) total.merge(c);
    std::string summary =
        o.json() ? dump(summary_json(engine, total)) + "\n" : summary_text(engine, total);
    std::size_t unused_rules = 0;
    if (o.coverage)
        summary += o.json() ? dump(coverage_json(engine, total, unused_rules)) + "\n"
                            : coverage_text(engine, total, unused_rules);
    // Routes written for the next program keep the summary off their way.
    if (routes_out)
        std::fputs(summary.c_str(), stderr);
    else if (eval_lines == nullptr || o.json())
        if (!g_out.put(summary)) return write_failed(rep);
    if (total.malformed != 0) return kMalformed;
    return o.fail_unused && unused_rules != 0 ? kFound : kOk;
}

}  // namespace

int cmd_run(const Options &o, const Reporter &rep) {
    Policy policy;
    if (int st = load_policy(o, o.policy_file, rep, policy); st != 0) return st;
    return run_routes(o, rep, policy, nullptr);
}

// eval: each argument is a route line, or a prefix (or address) alone.
int cmd_eval(Options o, const Reporter &rep) {
    Policy policy;
    if (int st = load_policy(o, o.policy_file, rep, policy); st != 0) return st;
    std::vector<std::string> lines;
    for (const std::string &r : o.routes) {
        const std::size_t first = r.find_first_not_of(" \t");
        const bool bare = first != std::string::npos && r.find('=') == std::string::npos &&
                          line_format(r, Format::Auto) == Format::Text &&
                          r.find(' ', first) == std::string::npos;
        if (!bare) {
            lines.push_back(r);
            continue;
        }
        std::string p = r.substr(first);
        if (p.find('/') == std::string::npos)
            p += p.find(':') != std::string::npos ? "/128" : "/32";
        lines.push_back("dest=" + p);
    }
    o.routes_file = "(argument)";
    return run_routes(o, rep, policy, &lines);
}

}  // namespace kp
