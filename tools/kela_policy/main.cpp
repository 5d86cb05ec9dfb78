// kela-policy: runs route policies over route streams with the library's
// attribute types on the reference platform.
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "client.hpp"
#include "kela_ref.h"
#include "kela_ref_state.h"
#include "policy.hpp"
#include "vog.h"

namespace {

const char kUsage[] =
    R"(NAME
    kela-policy - run route policies built from the kela-shared attribute types

SYNOPSIS
    kela-policy run [OPTIONS] POLICY ROUTES
    kela-policy check [OPTIONS] POLICY
    kela-policy --help

DESCRIPTION
    run     compiles POLICY and evaluates every route of ROUTES ("-" reads
            standard input), printing for each route its verdict, the rule
            that decided and the attributes the rule changed, then a summary.
    check   compiles POLICY only.

    Rules are tried in order; the first whose conditions all hold decides.
    The policy language is described in docs/policy-language.md.

ROUTES
    One route per line, either readable text
        dest=10.1.0.0/16 nexthop=192.0.2.1 metric=20 tag=7 pref=100
        origin=igp community=65000:10 flags=no-export peer=192.0.2.9/32
        mac=0011.2233.4455 table=0
    or JSON Lines with the same fields:
        {"dest": "10.1.0.0/16", "metric": 20, "origin": "igp"}
    Blank lines and lines starting with '#' are skipped.

OPTIONS
    --format text|json   output format (default text)
    --input auto|text|json
                         route format (default auto: a line starting with
                         '{' is JSON)
    --explain            show which rule decided and every condition's outcome
    --strict             stop at the first malformed route line
    --at LOCATION        attach point the policy runs at (default import)
    --rib FILE           routing table for rib-has-route, one route per line
                         in the route format; default: the routes of ROUTES
    --track NAME=up|down state of a tracked object (repeatable)
    --track-file FILE    lines "NAME up|down"
    --quiet              no progress indicator
    --parse-only         read and parse the routes, evaluate nothing (for
                         measuring the policy's own cost)
    --help               this text

EXIT STATUS
    0 success; 1 a malformed route with --strict, or an unreadable file;
    2 a policy that does not compile, or a usage error.
)";

struct Options {
    std::string command, policy_file, routes_file, rib_file, track_file;
    std::string format = "text", input = "auto", location = "import";
    std::vector<std::string> tracks;
    bool explain = false, strict = false, quiet = false, parse_only = false;
};

int usage_error(const std::string &m) {
    std::fprintf(stderr, "kela-policy: %s\nTry 'kela-policy --help'.\n", m.c_str());
    return 2;
}

// Opens a file for reading.  A directory opens on Linux but every read of
// it fails, which would read as an empty file: it is refused here.
bool open_file(const std::string &path, std::ifstream &in,
               std::ios::openmode mode = std::ios::in) {
    std::error_code ec;
    if (std::filesystem::is_directory(path, ec)) return false;
    in.open(path, mode);
    return static_cast<bool>(in);
}

bool read_file(const std::string &path, std::string &out) {
    std::ifstream in;
    if (!open_file(path, in, std::ios::binary)) return false;
    std::ostringstream ss;
    ss << in.rdbuf();
    out = ss.str();
    return true;
}

// Error messages quote the input; its control and non-ASCII bytes are
// shown as \xNN so that a message is always one printable line.
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

std::string json_escape(const std::string &s) {
    std::string out;
    for (char c : s) {
        switch (c) {
            case '"':
                out += "\\\"";
                break;
            case '\\':
                out += "\\\\";
                break;
            case '\n':
                out += "\\n";
                break;
            case '\t':
                out += "\\t";
                break;
            default:
                if (static_cast<unsigned char>(c) < 0x20) {
                    char buf[8];
                    std::snprintf(buf, sizeof buf, "\\u%04x", c);
                    out += buf;
                } else {
                    out += c;
                }
        }
    }
    return out;
}

// Reads a route line in the chosen format.
bool parse_line(const Options &o, const std::string &line, kp::Route &r, kp::RouteError &err) {
    const std::size_t first = line.find_first_not_of(" \t");
    const bool json = o.input == "json" ||
                      (o.input == "auto" && first != std::string::npos && line[first] == '{');
    return json ? kp::parse_route_json(line, r, err) : kp::parse_route_text(line, r, err);
}

bool skip_line(const std::string &line) {
    const std::size_t first = line.find_first_not_of(" \t\r");
    return first == std::string::npos || line[first] == '#';
}

// Loads the routing table from a route file.
bool load_rib(const Options &o, const std::string &path, std::size_t &loaded) {
    std::ifstream file;
    std::istream *in = &std::cin;
    if (path != "-") {
        if (!open_file(path, file)) return false;
        in = &file;
    }
    std::string line;
    while (std::getline(*in, line)) {
        if (skip_line(line)) continue;
        kp::Route r;
        kp::RouteError err;
        if (!parse_line(o, line, r, err)) continue;  // the run reports malformed lines
        const int afi = r.destination.family == 10 ? IP_RIB_AFI_IPV6 : IP_RIB_AFI_IPV4;
        if (kref_rib_add(afi, r.table, r.destination.addr, r.destination.len, nullptr) == 0)
            ++loaded;
    }
    return true;
}

bool set_track(const std::string &name, const std::string &state) {
    if (name.empty() || (state != "up" && state != "down")) return false;
    return kref_track_set(name.c_str(), state == "up") == 0;
}

// The attributes a rule's actions set, each once, in the order set.
std::vector<std::string> set_by(const kp::Rule &rule) {
    std::vector<std::string> names;
    for (const kp::Action &a : rule.actions) {
        bool seen = false;
        for (const auto &n : names) seen = seen || n == a.attr;
        if (!seen) names.push_back(a.attr);
    }
    return names;
}

// Their printed values: only what a rule may change is printed, so routes
// that no action touches cost nothing here.
std::vector<std::string> snapshot(const std::vector<std::string> &names, kp::Route &r) {
    std::vector<std::string> out;
    for (const std::string &name : names) {
        char *text = kref_attr_print(kref_attr_find(name.c_str()), &r);
        out.emplace_back(text != nullptr ? text : "?");
        std::free(text);
    }
    return out;
}

struct Outcome {
    bool accept = false;
    const kp::Rule *rule = nullptr;  // null: the default verdict
    std::vector<std::pair<std::string, std::pair<std::string, std::string>>> changes;
    std::string explain_text, explain_json;
};

Outcome evaluate(kp::Policy &policy, kp::Route &r, std::uint64_t key, bool explain) {
    Outcome out;
    kref_eval_rec_t rec{};
    rec.session = r.table;
    rec.afi = r.destination.family == 10 ? 2 : 1;
    rec.key = key;
    std::string ej;
    for (kp::Rule &rule : policy.rules) {
        bool all = true;
        std::string rj;
        for (kp::Condition &c : rule.conditions) {
            int32_t got = 0;
            const vogno st = kref_eval(c.stmt, &r, &rec, &got);
            const bool holds = st == 0 && got == 1;
            if (explain) {
                out.explain_text +=
                    "    rule " + rule.name + ": " + c.text + " = " + (holds ? "true" : "false");
                if (st != 0) out.explain_text += std::string(" (") + vog_strerror(st) + ")";
                out.explain_text += "\n";
                rj += std::string(rj.empty() ? "" : ",") + "{\"condition\":\"" +
                      json_escape(c.text) + "\",\"outcome\":" + (holds ? "true" : "false") + "}";
            }
            if (!holds) {
                all = false;
                break;
            }
        }
        if (explain)
            ej += std::string(ej.empty() ? "" : ",") + "{\"rule\":\"" + json_escape(rule.name) +
                  "\",\"conditions\":[" + rj + "]}";
        if (!all) continue;
        out.rule = &rule;
        out.accept = rule.accept;
        ++rule.hits;
        if (!rule.actions.empty()) {
            const std::vector<std::string> names = set_by(rule);
            const std::vector<std::string> before = snapshot(names, r);
            for (kp::Action &a : rule.actions) kref_apply(a.stmt, &r);
            const std::vector<std::string> after = snapshot(names, r);
            for (std::size_t i = 0; i < names.size(); ++i)
                if (before[i] != after[i]) out.changes.push_back({names[i], {before[i], after[i]}});
        }
        break;
    }
    if (out.rule == nullptr) {
        out.accept = policy.default_accept;
        ++policy.default_hits;
    }
    if (explain) out.explain_json = "[" + ej + "]";
    return out;
}

int run(const Options &o) {
    std::string text;
    if (!read_file(o.policy_file, text)) {
        std::fprintf(stderr, "kela-policy: cannot read %s\n", o.policy_file.c_str());
        return 1;
    }
    std::string error;
    if (kp::register_attributes(error) != 0) {
        std::fprintf(stderr, "kela-policy: %s\n", error.c_str());
        return 1;
    }
    kp::Policy policy;
    kp::PolicyError perr;
    if (!kp::parse_policy(text, policy, perr) ||
        !kp::compile_policy(policy, o.location.c_str(), perr)) {
        std::fprintf(stderr, "%s:%zu:%zu: error: %s\n", o.policy_file.c_str(), perr.line,
                     perr.column, printable(perr.message).c_str());
        return 2;
    }
    std::size_t conditions = 0, actions = 0;
    for (const kp::Rule &r : policy.rules) {
        conditions += r.conditions.size();
        actions += r.actions.size();
    }
    if (o.command == "check") {
        std::printf("%s: ok: %zu rules, %zu conditions, %zu actions\n", o.policy_file.c_str(),
                    policy.rules.size(), conditions, actions);
        return 0;
    }

    for (const std::string &t : o.tracks) {
        const std::size_t eq = t.find('=');
        if (eq == std::string::npos || !set_track(t.substr(0, eq), t.substr(eq + 1)))
            return usage_error("bad --track '" + t + "' (NAME=up or NAME=down)");
    }
    if (!o.track_file.empty()) {
        std::ifstream in;
        if (!open_file(o.track_file, in)) {
            std::fprintf(stderr, "kela-policy: cannot read %s\n", o.track_file.c_str());
            return 1;
        }
        std::string line, name, state;
        for (std::size_t n = 1; std::getline(in, line); ++n) {
            if (skip_line(line)) continue;
            std::istringstream ws(line);
            if (!(ws >> name >> state) || !set_track(name, state)) {
                std::fprintf(stderr, "%s:%zu: error: expected 'NAME up|down'\n",
                             o.track_file.c_str(), n);
                return 2;
            }
        }
    }
    std::size_t rib_routes = 0;
    if (policy.uses_rib) {
        const std::string rib = !o.rib_file.empty() ? o.rib_file : o.routes_file;
        if (rib == "-" && o.rib_file.empty()) {
            std::fprintf(
                stderr,
                "kela-policy: rib-has-route needs --rib when routes come from standard input\n");
            return 2;
        }
        if (!load_rib(o, rib, rib_routes)) {
            std::fprintf(stderr, "kela-policy: cannot read %s\n", rib.c_str());
            return 1;
        }
    }

    std::ifstream file;
    std::istream *in = &std::cin;
    if (o.routes_file != "-") {
        if (!open_file(o.routes_file, file)) {
            std::fprintf(stderr, "kela-policy: cannot read %s\n", o.routes_file.c_str());
            return 1;
        }
        in = &file;
    }
    const bool json = o.format == "json";
    const bool progress = !o.quiet && isatty(STDERR_FILENO) != 0;
    std::size_t read = 0, accepted = 0, rejected = 0, malformed = 0, lineno = 0;
    std::string line;
    std::string out;
    while (std::getline(*in, line)) {
        ++lineno;
        if (skip_line(line)) continue;
        kp::Route r;
        kp::RouteError err;
        if (!parse_line(o, line, r, err)) {
            ++malformed;
            // Column 0: the error is the line's as a whole.
            const std::string at = err.column != 0 ? ":" + std::to_string(err.column) : "";
            std::fprintf(stderr, "%s:%zu%s: error: %s\n", o.routes_file.c_str(), lineno,
                         at.c_str(), printable(err.message).c_str());
            if (o.strict) return 1;
            continue;
        }
        ++read;
        if (o.parse_only) continue;
        const Outcome oc = evaluate(policy, r, lineno, o.explain);
        (oc.accept ? accepted : rejected) += 1;
        static const std::string default_rule = "default";
        const std::string &rule = oc.rule != nullptr ? oc.rule->name : default_rule;
        // One buffer for every verdict line: it is written a million times
        // in a large run.
        out.clear();
        if (json) {
            out = "{\"line\":" + std::to_string(lineno) + ",\"route\":\"" +
                  json_escape(kp::destination_text(r)) + "\",\"verdict\":\"" +
                  (oc.accept ? "accept" : "reject") + "\",\"rule\":\"" + json_escape(rule) +
                  "\",\"changes\":[";
            for (std::size_t i = 0; i < oc.changes.size(); ++i)
                out += std::string(i ? "," : "") + "{\"attribute\":\"" + oc.changes[i].first +
                       "\",\"from\":\"" + json_escape(oc.changes[i].second.first) + "\",\"to\":\"" +
                       json_escape(oc.changes[i].second.second) + "\"}";
            out += "]";
            if (o.explain) out += ",\"explain\":" + oc.explain_json;
            out += "}\n";
        } else {
            kp::append_destination(out, r);
            out += oc.accept ? " accept (rule " : " reject (rule ";
            out += rule;
            out += ')';
            for (const auto &[name, change] : oc.changes)
                out += " " + name + " " + change.first + " -> " + change.second;
            out += "\n";
            if (o.explain) out += oc.explain_text;
        }
        std::fwrite(out.data(), 1, out.size(), stdout);
        if (progress && read % 65536 == 0) std::fprintf(stderr, "\rkela-policy: %zu routes", read);
    }
    if (progress && read >= 65536) std::fprintf(stderr, "\n");

    if (json) {
        std::string hits;
        for (const kp::Rule &r : policy.rules)
            hits += "\"" + json_escape(r.name) + "\":" + std::to_string(r.hits) + ",";
        hits += "\"default\":" + std::to_string(policy.default_hits);
        std::printf(
            "{\"summary\":{\"routes\":%zu,\"accepted\":%zu,\"rejected\":%zu,\"malformed\":%zu,"
            "\"hits\":{%s}}}\n",
            read, accepted, rejected, malformed, hits.c_str());
    } else {
        std::string hits;
        for (const kp::Rule &r : policy.rules) hits += " " + r.name + "=" + std::to_string(r.hits);
        std::printf(
            "summary: %zu routes, %zu accepted, %zu rejected, %zu malformed; hits:%s default=%zu\n",
            read, accepted, rejected, malformed, hits.c_str(), policy.default_hits);
    }
    return 0;
}

}  // namespace

int main(int argc, char **argv) {
    Options o;
    std::vector<std::string> positional;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        auto value = [&](std::string &into) {
            if (i + 1 >= argc) return false;
            into = argv[++i];
            return true;
        };
        if (a == "--help" || a == "-h") {
            std::fputs(kUsage, stdout);
            return 0;
        } else if (a == "--explain") {
            o.explain = true;
        } else if (a == "--strict") {
            o.strict = true;
        } else if (a == "--quiet") {
            o.quiet = true;
        } else if (a == "--parse-only") {
            o.parse_only = true;
        } else if (a == "--format") {
            if (!value(o.format) || (o.format != "text" && o.format != "json"))
                return usage_error("--format takes text or json");
        } else if (a == "--input") {
            if (!value(o.input) || (o.input != "auto" && o.input != "text" && o.input != "json"))
                return usage_error("--input takes auto, text or json");
        } else if (a == "--at") {
            if (!value(o.location)) return usage_error("--at takes a location");
        } else if (a == "--rib") {
            if (!value(o.rib_file)) return usage_error("--rib takes a file");
        } else if (a == "--track") {
            std::string t;
            if (!value(t)) return usage_error("--track takes NAME=up|down");
            o.tracks.push_back(t);
        } else if (a == "--track-file") {
            if (!value(o.track_file)) return usage_error("--track-file takes a file");
        } else if (a.size() > 1 && a[0] == '-' && a != "-") {
            return usage_error("unknown option '" + a + "'");
        } else {
            positional.push_back(a);
        }
    }
    if (positional.empty()) return usage_error("missing command (run or check)");
    o.command = positional[0];
    if (o.command == "run" && positional.size() == 3) {
        o.policy_file = positional[1];
        o.routes_file = positional[2];
    } else if (o.command == "check" && positional.size() == 2) {
        o.policy_file = positional[1];
    } else {
        return usage_error(o.command == "run" || o.command == "check"
                               ? "wrong number of arguments"
                               : "unknown command '" + o.command + "'");
    }
    const int rc = run(o);
    std::fflush(stdout);
    return rc;
}
