// SPDX-License-Identifier: Apache-2.0
// Output of kela-policy; see writers.hpp.
#include "writers.hpp"

#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "vog.h"

namespace kp {

std::string dump(const Json &j) {
    return j.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

Out g_out;

bool Out::put(std::string_view s) {
    while (!s.empty() && errno_ == 0) {
        const ssize_t n = ::write(STDOUT_FILENO, s.data(), s.size());
        if (n < 0 && errno == EINTR) continue;
        if (n < 0)
            errno_ = errno;
        else
            s.remove_prefix(static_cast<std::size_t>(n));
    }
    return errno_ == 0;
}

std::string printable(const std::string &s) {
    std::string out;
    for (unsigned char c : s) {
        if (c < 0x20 || c >= 0x7F) {
            char buf[8];
            std::snprintf(buf, sizeof buf, "\\x%02x", c);
            out += buf;
        } else {
            out += static_cast<char>(c);
        }
    }
    return out;
}

void Reporter::emit(const char *kind, const std::string &file, std::size_t line, std::size_t column,
                    const std::string &message, const std::string &note) const {
    if (json) {
        Json j;
        if (!file.empty()) j["file"] = file;
        if (line != 0) j["line"] = line;
        if (column != 0) j["column"] = column;
        j["message"] = message;
        if (!note.empty()) j["note"] = note;
        std::fprintf(stderr, "%s\n", dump(Json{{kind, j}}).c_str());
        return;
    }
    std::string at = file.empty() ? "kela-policy" : file;
    if (line != 0) at += ":" + std::to_string(line);
    if (line != 0 && column != 0) at += ":" + std::to_string(column);
    std::fprintf(stderr, "%s: %s: %s\n", printable(at).c_str(), kind, printable(message).c_str());
    if (!note.empty())
        std::fprintf(stderr, "%s: note: %s\n", printable(at).c_str(), printable(note).c_str());
}

std::string Reporter::route_error(const std::string &file, std::size_t line,
                                  const RouteError &e) const {
    if (json) {
        Json j{{"file", file}, {"line", line}};
        if (e.column != 0) j["column"] = e.column;
        j["message"] = e.message;
        return dump(Json{{"error", j}}) + "\n";
    }
    // Column 0: the error is the line's as a whole.
    const std::string at = e.column != 0 ? ":" + std::to_string(e.column) : "";
    return printable(file) + ":" + std::to_string(line) + at + ": error: " + printable(e.message) +
           "\n";
}

const std::string &rule_name(const Policy &p, long rule) {
    static const std::string default_rule = "default";
    return rule >= 0 ? p.rules[static_cast<std::size_t>(rule)].name : default_rule;
}

namespace {

void append_verdict(std::string &out, const Policy &p, const Outcome &o) {
    out += o.accept ? "accept (rule " : "reject (rule ";
    out += rule_name(p, o.rule);
    out += ')';
    for (const Change &ch : o.changes) out += " " + ch.attr + " " + ch.before + " -> " + ch.after;
}

const Condition &condition_of(const Policy &p, const ConditionResult &c) {
    return p.rules[c.rule].conditions[c.condition];
}

std::string entry_text(const Policy &p, const ConditionResult &c) {
    return condition_of(p, c).list->shown[static_cast<std::size_t>(c.entry)];
}

}  // namespace

std::string verdict_text(const Policy &p, const Outcome &o) {
    std::string out;
    append_verdict(out, p, o);
    return out;
}

void append_explanation(std::string &out, const Policy &p, const Outcome &o) {
    for (const ConditionResult &c : o.conditions) {
        out += "    rule " + p.rules[c.rule].name + ": " + condition_of(p, c).text + " = " +
               (c.holds ? "true" : "false");
        if (c.status != 0) out += std::string(" (") + vog_strerror(c.status) + ")";
        if (c.listed && c.status == 0)
            out += c.holds && c.entry >= 0 ? " (entry " + entry_text(p, c) + ")"
                                           : std::string(" (no entry matched)");
        out += "\n";
    }
}

void append_outcome(std::string &out, const Policy &p, const Route &r, const Outcome &o) {
    append_destination(out, r);
    out += ' ';
    append_verdict(out, p, o);
    out += '\n';
    append_explanation(out, p, o);
}

Json outcome_json(const Policy &p, const Route &r, const Outcome &o, bool explain,
                  std::size_t line) {
    Json j;
    if (line != 0) j["line"] = line;
    j["route"] = destination_text(r);
    j["verdict"] = o.accept ? "accept" : "reject";
    j["rule"] = rule_name(p, o.rule);
    j["changes"] = Json::array();
    for (const Change &ch : o.changes)
        j["changes"].push_back({{"attribute", ch.attr}, {"from", ch.before}, {"to", ch.after}});
    if (!explain) return j;
    // Every rule tried, with its conditions' results.
    Json rules = Json::array();
    const std::size_t tried = o.rule >= 0 ? static_cast<std::size_t>(o.rule) + 1 : p.rules.size();
    std::size_t at = 0;
    for (std::size_t ri = 0; ri < tried; ++ri) {
        Json conds = Json::array();
        for (; at < o.conditions.size() && o.conditions[at].rule == ri; ++at) {
            const ConditionResult &c = o.conditions[at];
            Json cj;
            cj["condition"] = condition_of(p, c).text;
            cj["outcome"] = c.holds;
            if (c.listed) cj["entry"] = c.entry >= 0 ? Json(entry_text(p, c)) : Json(nullptr);
            if (c.status != 0) cj["status"] = vog_strerror(c.status);
            conds.push_back(std::move(cj));
        }
        rules.push_back({{"rule", p.rules[ri].name}, {"conditions", std::move(conds)}});
    }
    j["explain"] = std::move(rules);
    return j;
}

namespace {

std::string list_name(const ValueList &l) {
    if (!l.name.empty()) return l.name;
    return "list at line " + std::to_string(l.defined.line);
}

}  // namespace

Json summary_json(const Engine &e, const Counters &c) {
    const Policy &p = e.policy();
    Json s;
    s["routes"] = c.routes;
    s["accepted"] = c.accepted;
    s["rejected"] = c.rejected;
    s["malformed"] = c.malformed;
    if (c.skipped != 0) s["skipped"] = c.skipped;
    Json hits = Json::object();
    for (std::size_t i = 0; i < p.rules.size(); ++i) hits[p.rules[i].name] = c.rule_hits[i];
    hits["default"] = c.default_hits;
    s["hits"] = std::move(hits);
    if (e.options().set_hits) {
        Json sets = Json::object();
        for (std::size_t i = 0; i < e.lists().size(); ++i) {
            Json entries = Json::array();
            const ValueList &l = *e.lists()[i];
            for (std::size_t k = 0; k < l.shown.size(); ++k)
                entries.push_back({{"entry", l.shown[k]}, {"hits", c.list_hits[i][k]}});
            sets[list_name(l)] = std::move(entries);
        }
        s["set_hits"] = std::move(sets);
    }
    return Json{{"summary", std::move(s)}};
}

std::string summary_text(const Engine &e, const Counters &c) {
    const Policy &p = e.policy();
    std::string out = "summary: " + std::to_string(c.routes) + " routes, " +
                      std::to_string(c.accepted) + " accepted, " + std::to_string(c.rejected) +
                      " rejected, " + std::to_string(c.malformed) + " malformed";
    if (c.skipped != 0) out += ", " + std::to_string(c.skipped) + " skipped";
    out += "; hits:";
    for (std::size_t i = 0; i < p.rules.size(); ++i)
        out += " " + p.rules[i].name + "=" + std::to_string(c.rule_hits[i]);
    out += " default=" + std::to_string(c.default_hits) + "\n";
    if (e.options().set_hits)
        for (std::size_t i = 0; i < e.lists().size(); ++i) {
            const ValueList &l = *e.lists()[i];
            for (std::size_t k = 0; k < l.shown.size(); ++k)
                out += "set-hits: " + list_name(l) + ": " + l.shown[k] + " = " +
                       std::to_string(c.list_hits[i][k]) + "\n";
        }
    return out;
}

namespace {

// The coverage as records both writers format.
struct Coverage {
    std::vector<std::size_t> rules;                               // decided no route
    std::vector<std::pair<std::size_t, std::size_t>> conditions;  // rule, condition: never true
    struct List {
        std::size_t index, unused;
        std::vector<std::string> first;  // the first few unused entries
    };
    std::vector<List> lists;  // those with an entry that never matched
};

constexpr std::size_t kFirstUnused = 5;

Coverage coverage_of(const Engine &e, const Counters &c) {
    const Policy &p = e.policy();
    Coverage cov;
    for (std::size_t r = 0; r < p.rules.size(); ++r) {
        if (c.rule_hits[r] == 0) cov.rules.push_back(r);
        for (std::size_t k = 0; k < p.rules[r].conditions.size(); ++k)
            if (c.condition_true[r][k] == 0) cov.conditions.emplace_back(r, k);
    }
    for (std::size_t i = 0; i < e.lists().size(); ++i) {
        Coverage::List l{i, 0, {}};
        for (std::size_t k = 0; k < c.list_hits[i].size(); ++k) {
            if (c.list_hits[i][k] != 0) continue;
            if (l.unused++ < kFirstUnused) l.first.push_back(e.lists()[i]->shown[k]);
        }
        if (l.unused != 0) cov.lists.push_back(std::move(l));
    }
    return cov;
}

}  // namespace

std::string coverage_text(const Engine &e, const Counters &c, std::size_t &unused_rules) {
    const Policy &p = e.policy();
    const Coverage cov = coverage_of(e, c);
    unused_rules = cov.rules.size();
    std::string out;
    for (std::size_t r : cov.rules)
        out += "coverage: rule " + p.rules[r].name + " (line " + std::to_string(p.rules[r].line) +
               ") decided no route\n";
    for (const auto &[r, k] : cov.conditions) {
        const Condition &cond = p.rules[r].conditions[k];
        out += "coverage: rule " + p.rules[r].name + ": " + cond.text + " (line " +
               std::to_string(cond.line) + ") was never true\n";
    }
    for (const Coverage::List &l : cov.lists) {
        const ValueList &list = *e.lists()[l.index];
        out += "coverage: " + list_name(list) + ": " + std::to_string(l.unused) + " of " +
               std::to_string(list.shown.size()) + " entries never matched:";
        for (std::size_t k = 0; k < l.first.size(); ++k) out += (k ? ", " : " ") + l.first[k];
        out += l.unused > l.first.size() ? ", ...\n" : "\n";
    }
    if (out.empty())
        out = "coverage: every rule decided a route, every condition held, every entry matched\n";
    return out;
}

Json coverage_json(const Engine &e, const Counters &c, std::size_t &unused_rules) {
    const Policy &p = e.policy();
    const Coverage cov = coverage_of(e, c);
    unused_rules = cov.rules.size();
    Json rules = Json::array(), conds = Json::array(), lists = Json::array();
    for (std::size_t r : cov.rules)
        rules.push_back({{"rule", p.rules[r].name}, {"line", p.rules[r].line}});
    for (const auto &[r, k] : cov.conditions)
        conds.push_back({{"rule", p.rules[r].name},
                         {"condition", p.rules[r].conditions[k].text},
                         {"line", p.rules[r].conditions[k].line}});
    for (const Coverage::List &l : cov.lists)
        lists.push_back({{"set", list_name(*e.lists()[l.index])},
                         {"entries", e.lists()[l.index]->shown.size()},
                         {"unused", l.unused},
                         {"first", l.first}});
    return Json{{"coverage",
                 {{"unused_rules", std::move(rules)},
                  {"conditions_never_true", std::move(conds)},
                  {"unused_entries", std::move(lists)}}}};
}

}  // namespace kp
