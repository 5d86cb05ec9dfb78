// SPDX-License-Identifier: Apache-2.0
// kela-policy test POLICY CASES...: case files of routes with the outcome
// the policy must give each (verdict, and optionally the deciding rule and
// attribute values after the policy).  A failing case is reported with its
// file:line, the expected and the actual outcome and the explanation; the
// results go to standard output (text or JSON) and, with --junit, to a
// JUnit XML file that CI systems display.
//
//   # comment
//   ROUTE => accept|reject [RULE] [ATTRIBUTE=VALUE ...]
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "commands.hpp"
#include "kela_ref.h"
#include "kela_ref_state.h"
#include "lines.hpp"

namespace kp {

namespace {

struct Case {
    std::string file, route;  // the route line as eval takes it
    std::size_t line = 0;
    Route r;
    bool accept = false;
    std::string rule;                                         // empty: any
    std::vector<std::pair<std::string, std::string>> values;  // attribute, printed value
};

struct CaseError {
    std::size_t column;
    std::string message;
};

// A route given as a prefix or address alone is the route with that
// destination.
std::string route_line(const std::string &text) {
    const std::size_t first = text.find_first_not_of(" \t");
    const bool bare = first != std::string::npos && text.find('=') == std::string::npos &&
                      line_format(text, Format::Auto) == Format::Text &&
                      text.find(' ', first) == std::string::npos;
    if (!bare) return text;
    std::string p = text.substr(first);
    if (p.find('/') == std::string::npos) p += p.find(':') != std::string::npos ? "/128" : "/32";
    return "dest=" + p;
}

// Words of `text` separated by blanks, each with its 0-based offset.
std::vector<std::pair<std::string, std::size_t>> words(std::string_view text) {
    std::vector<std::pair<std::string, std::size_t>> out;
    std::size_t at = 0;
    while ((at = text.find_first_not_of(" \t", at)) != std::string_view::npos) {
        const std::size_t end = std::min(text.find_first_of(" \t", at), text.size());
        out.emplace_back(std::string(text.substr(at, end - at)), at);
        at = end;
    }
    return out;
}

bool parse_case(std::string_view line, const Policy &p, Format format, Case &c, CaseError &e) {
    const std::size_t arrow = line.rfind("=>");
    if (arrow == std::string_view::npos) {
        e = {1, "expected 'ROUTE => accept|reject [RULE] [ATTRIBUTE=VALUE ...]'"};
        return false;
    }
    const std::string_view route = line.substr(0, arrow);
    const std::size_t end = route.find_last_not_of(" \t");
    c.route = std::string(route.substr(0, end == std::string_view::npos ? 0 : end + 1));
    const std::string parsed = route_line(c.route);
    RouteError re{1, {}};
    bool skip = false;
    if (!parse_route(format, parsed, c.r, re, skip) || skip) {
        // A column of the line as written (a bare prefix got "dest=" in front).
        const std::size_t shift = parsed.size() - c.route.size();
        e = {re.column > shift ? re.column - shift : 1, skip ? "not a route" : re.message};
        return false;
    }
    const auto w = words(line.substr(arrow + 2));
    const std::size_t base = arrow + 3;  // 1-based column of the expectation's first byte
    if (w.empty() || (w[0].first != "accept" && w[0].first != "reject")) {
        e = {w.empty() ? arrow + 1 : base + w[0].second, "expected accept or reject after '=>'"};
        return false;
    }
    c.accept = w[0].first == "accept";
    for (std::size_t i = 1; i < w.size(); ++i) {
        const auto &[word, at] = w[i];
        const std::size_t eq = word.find('=');
        if (eq == std::string::npos) {
            bool known = word == "default";
            for (const Rule &rule : p.rules) known = known || rule.name == word;
            if (i != 1 || !known) {
                e = {base + at, i != 1 ? "expected ATTRIBUTE=VALUE, found " + quote(word)
                                       : "the policy has no rule " + quote(word)};
                return false;
            }
            c.rule = word;
        } else if (eq == 0 || kref_attr_find(word.substr(0, eq).c_str()) == nullptr) {
            e = {base + at, "unknown attribute " + quote(word.substr(0, eq))};
            return false;
        } else {
            c.values.emplace_back(word.substr(0, eq), word.substr(eq + 1));
        }
    }
    return true;
}

std::string xml(const std::string &s) {
    std::string out;
    for (char ch : s) {
        switch (ch) {
            case '&':
                out += "&amp;";
                break;
            case '<':
                out += "&lt;";
                break;
            case '>':
                out += "&gt;";
                break;
            case '"':
                out += "&quot;";
                break;
            default:
                // XML 1.0 has no place for other control bytes.
                if (static_cast<unsigned char>(ch) < 0x20 && ch != '\n' && ch != '\t')
                    out += '?';
                else
                    out += ch;
        }
    }
    return out;
}

// Writes `text` to `path` through a temporary file renamed over it, so that
// a reader never sees half of it.
bool write_file(const std::string &path, const std::string &text, std::string &error) {
    const std::string tmp = path + ".tmp";
    std::FILE *f = std::fopen(tmp.c_str(), "w");
    bool ok = f != nullptr && std::fwrite(text.data(), 1, text.size(), f) == text.size();
    if (f != nullptr) ok = std::fclose(f) == 0 && ok;
    if (ok && std::rename(tmp.c_str(), path.c_str()) == 0) return true;
    error = "cannot write " + path + ": " + std::strerror(errno);
    std::remove(tmp.c_str());
    return false;
}

}  // namespace

int cmd_test(const Options &o, const Reporter &rep) {
    Policy policy;
    if (int st = load_policy(o, o.policy_file, rep, policy); st != 0) return st;
    bool warned = false;
    if (int st = set_tracks(o, rep, {&policy}, warned); st != 0) return st;
    if (o.werror && (warned || !policy.warnings.empty())) return kPolicyError;

    // Every case file is read and checked before a case runs.
    const Format format = input_format(o.input);
    std::vector<Case> cases;
    for (const std::string &file : o.routes) {
        std::string text, error;
        if (!read_all(file, text, error)) return rep.error(error, kIoError);
        bool ok = true;
        for_each_line(text, [&](std::string_view line, std::size_t n) {
            if (skip_line(line)) return true;
            Case c;
            CaseError e;
            if (!parse_case(line, policy, format, c, e)) {
                rep.emit("error", file, n, e.column, e.message);
                return ok = false;
            }
            c.file = file;
            c.line = n;
            cases.push_back(std::move(c));
            return true;
        });
        if (!ok) return kPolicyError;
    }
    if (policy.uses_rib) {
        Counters unused;
        Feed feed;
        if (o.rib_file.empty())
            for (const Case &c : cases)
                kref_rib_add(rib_afi(c.r), c.r.table, c.r.destination.addr, c.r.destination.len,
                             nullptr);
        else if (int st = prepare_feed(o, rep, true, format, unused, feed); st != 0)
            return st;
    }

    EngineOptions eo;
    eo.explain = true;
    const Engine engine(policy, eo);
    Counters counters = engine.counters();
    std::string out;
    std::size_t failed = 0;
    std::vector<std::string> suites(o.routes.size());  // the JUnit test cases of each file
    std::vector<std::size_t> suite_failed(o.routes.size());
    std::size_t file_index = 0;
    for (std::size_t i = 0; i < cases.size(); ++i) {
        Case &c = cases[i];
        while (o.routes[file_index] != c.file) ++file_index;
        Outcome got;
        engine.evaluate(c.r, i + 1, counters, got);
        std::vector<std::string> wrong;  // what differs from the expectation
        const std::string &rule = rule_name(policy, got.rule);
        if (got.accept != c.accept || (!c.rule.empty() && rule != c.rule))
            wrong.push_back(std::string("expected ") + (c.accept ? "accept" : "reject") +
                            (c.rule.empty() ? "" : " (rule " + c.rule + ")") + ", got " +
                            (got.accept ? "accept" : "reject") + " (rule " + rule + ")");
        for (const auto &[attr, value] : c.values) {
            char *text = kref_attr_print(kref_attr_find(attr.c_str()), &c.r);
            const std::string now = text != nullptr ? text : "?";
            std::free(text);
            if (now != value)
                wrong.push_back(std::string("expected ")
                                    .append(attr)
                                    .append(" ")
                                    .append(value)
                                    .append(", got ")
                                    .append(now));
        }
        std::string explanation;
        append_explanation(explanation, policy, got);
        const std::string where = c.file + ":" + std::to_string(c.line);
        std::string message;
        for (const std::string &w : wrong) message += (message.empty() ? "" : "; ") + w;
        if (o.json()) {
            Json j{
                {"file", c.file}, {"line", c.line}, {"route", c.route}, {"passed", wrong.empty()}};
            if (!wrong.empty()) j["message"] = message;
            j["actual"] = outcome_json(policy, c.r, got, !wrong.empty());
            out += dump(j) + "\n";
        } else if (!wrong.empty()) {
            out.append(where).append(": FAIL: ").append(c.route).append(": ").append(message);
            out.append("\n").append(explanation);
        }
        std::string &suite = suites[file_index];
        suite += "    <testcase classname=\"" + xml(c.file) + "\" name=\"" +
                 xml("line " + std::to_string(c.line) + ": " + c.route) + "\"";
        if (wrong.empty()) {
            suite += "/>\n";
        } else {
            ++failed;
            ++suite_failed[file_index];
            suite += ">\n      <failure message=\"" + xml(message) + "\">" +
                     xml(std::string(where)
                             .append(": ")
                             .append(verdict_text(policy, got))
                             .append("\n")
                             .append(explanation)) +
                     "</failure>\n    </testcase>\n";
        }
    }
    const std::size_t passed = cases.size() - failed;
    if (o.json())
        out += dump(Json{{"summary",
                          {{"cases", cases.size()}, {"passed", passed}, {"failed", failed}}}}) +
               "\n";
    else
        out += "test: " + std::to_string(cases.size()) + " cases, " + std::to_string(passed) +
               " passed, " + std::to_string(failed) + " failed\n";
    if (!o.junit_file.empty()) {
        std::string doc = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<testsuites tests=\"" +
                          std::to_string(cases.size()) + "\" failures=\"" + std::to_string(failed) +
                          "\">\n";
        for (std::size_t f = 0; f < o.routes.size(); ++f) {
            std::size_t n = 0;
            for (const Case &c : cases) n += c.file == o.routes[f] ? 1 : 0;
            doc += "  <testsuite name=\"" + xml(o.routes[f]) + "\" tests=\"" + std::to_string(n) +
                   "\" failures=\"" + std::to_string(suite_failed[f]) + "\">\n" + suites[f] +
                   "  </testsuite>\n";
        }
        doc += "</testsuites>\n";
        std::string error;
        if (!write_file(o.junit_file, doc, error)) return rep.error(error, kIoError);
    }
    if (!g_out.put(out)) return write_failed(rep);
    return failed != 0 ? kFound : kOk;
}

}  // namespace kp
