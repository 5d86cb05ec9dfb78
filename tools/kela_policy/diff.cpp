// SPDX-License-Identifier: Apache-2.0
// kela-policy diff OLD NEW [ROUTES]: the routes are read once and evaluated
// under both policies; every route whose verdict, deciding rule or changed
// attributes differ is written with both outcomes, then a summary that
// groups the differences by (old verdict and rule -> new verdict and rule).
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <map>

#include "commands.hpp"

namespace kp {

namespace {

// old accept, old rule, new accept, new rule (-1: the default)
using GroupKey = std::array<long, 4>;

struct DiffCounters {
    Counters old_c, new_c;
    std::size_t differ = 0;
    std::map<GroupKey, std::size_t> groups;
};

bool same(const Policy &a, const Outcome &x, const Policy &b, const Outcome &y) {
    if (x.accept != y.accept || rule_name(a, x.rule) != rule_name(b, y.rule)) return false;
    if (x.changes.size() != y.changes.size()) return false;
    // What the route became matters, not the order the actions ran in.
    auto after = [](const Outcome &o) {
        std::vector<std::pair<std::string, std::string>> v;
        for (const Change &c : o.changes) v.emplace_back(c.attr, c.after);
        std::sort(v.begin(), v.end());
        return v;
    };
    return after(x) == after(y);
}

Json side_json(const Policy &p, const Outcome &o) {
    Json j{{"verdict", o.accept ? "accept" : "reject"}, {"rule", rule_name(p, o.rule)}};
    j["changes"] = Json::array();
    for (const Change &ch : o.changes)
        j["changes"].push_back({{"attribute", ch.attr}, {"from", ch.before}, {"to", ch.after}});
    return j;
}

std::string side_text(const Policy &p, bool accept, long rule) {
    return std::string(accept ? "accept" : "reject") + " (rule " + rule_name(p, rule) + ")";
}

}  // namespace

int cmd_diff(const Options &o, const Reporter &rep) {
    Policy old_p, new_p;
    if (int st = load_policy(o, o.policy_file, rep, old_p); st != 0) return st;
    if (int st = load_policy(o, o.new_policy_file, rep, new_p); st != 0) return st;
    bool warned = false;
    if (int st = set_tracks(o, rep, {&old_p, &new_p}, warned); st != 0) return st;
    if (o.werror && (warned || !old_p.warnings.empty() || !new_p.warnings.empty()))
        return kPolicyError;

    const Engine old_e(old_p, {}), new_e(new_p, {});
    const RouteInput input{input_format(o.input), o.strict, o.routes_file, &rep};
    std::vector<DiffCounters> counters(std::max(1u, o.jobs));
    for (DiffCounters &c : counters) {
        c.old_c = old_e.counters();
        c.new_c = new_e.counters();
    }
    Feed feed;
    if (int st = prepare_feed(o, rep, old_p.uses_rib || new_p.uses_rib, input.format,
                              counters[0].old_c, feed);
        st != 0)
        return st;

    auto work = [&](Batch &b, unsigned w) {
        DiffCounters &c = counters[w];
        c.old_c.malformed += b.malformed;
        Outcome x, y;
        Route copy;
        for (std::size_t i = 0; i < b.lines.size(); ++i) {
            if (b.state[i] != LineState::Route) continue;
            Route &r = b.routes[i];
            copy = r;  // the old policy's actions change r
            // Each policy's evaluation has a key of its own.
            const std::uint64_t key = 2 * static_cast<std::uint64_t>(b.lines[i].number);
            old_e.evaluate(r, key, c.old_c, x);
            new_e.evaluate(copy, key + 1, c.new_c, y);
            if (same(old_p, x, new_p, y)) continue;
            ++c.differ;
            ++c.groups[{x.accept, x.rule, y.accept, y.rule}];
            if (o.json()) {
                b.out += dump(Json{{"line", b.lines[i].number},
                                   {"route", destination_text(r)},
                                   {"old", side_json(old_p, x)},
                                   {"new", side_json(new_p, y)}});
                b.out += '\n';
            } else {
                b.out += "line " + std::to_string(b.lines[i].number) + ": ";
                append_destination(b.out, r);
                b.out +=
                    "\n  - " + verdict_text(old_p, x) + "\n  + " + verdict_text(new_p, y) + "\n";
            }
        }
    };
    const bool progress = !o.quiet && isatty(STDERR_FILENO) != 0;
    const PipelineEnd end = run_pipeline(feed, input, o.jobs, progress, work,
                                         [](Batch &b) { return g_out.put(b.out); });
    if (end.output_failed) return write_failed(rep);
    if (!end.input_error.empty()) return rep.error(end.input_error, kIoError);
    if (end.stopped) return kMalformed;

    DiffCounters total;
    for (const DiffCounters &c : counters) {
        total.old_c.merge(c.old_c);
        total.differ += c.differ;
        for (const auto &[k, n] : c.groups) total.groups[k] += n;
    }
    // Largest group first; equal counts in the order of their key.
    std::vector<std::pair<GroupKey, std::size_t>> groups(total.groups.begin(), total.groups.end());
    std::stable_sort(groups.begin(), groups.end(),
                     [](const auto &a, const auto &b) { return a.second > b.second; });
    std::string out;
    if (o.json()) {
        Json g = Json::array();
        for (const auto &[k, n] : groups)
            g.push_back(
                {{"old",
                  {{"verdict", k[0] ? "accept" : "reject"}, {"rule", rule_name(old_p, k[1])}}},
                 {"new",
                  {{"verdict", k[2] ? "accept" : "reject"}, {"rule", rule_name(new_p, k[3])}}},
                 {"routes", n}});
        out = dump(Json{{"summary",
                         {{"routes", total.old_c.routes},
                          {"differ", total.differ},
                          {"malformed", total.old_c.malformed},
                          {"groups", std::move(g)}}}}) +
              "\n";
    } else {
        out = "summary: " + std::to_string(total.old_c.routes) + " routes, " +
              std::to_string(total.differ) + " differ, " + std::to_string(total.old_c.malformed) +
              " malformed\n";
        for (const auto &[k, n] : groups)
            out += "  " + std::to_string(n) + "  " + side_text(old_p, k[0] != 0, k[1]) + " -> " +
                   side_text(new_p, k[2] != 0, k[3]) + "\n";
    }
    if (!g_out.put(out)) return write_failed(rep);
    if (total.old_c.malformed != 0) return kMalformed;
    return total.differ != 0 ? kFound : kOk;
}

}  // namespace kp
