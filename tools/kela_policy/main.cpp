// SPDX-License-Identifier: Apache-2.0
// kela-policy: runs route policies over route streams with the library's
// attribute types on the reference platform.  Commands: run, check, eval,
// show; the man page (kela-policy.1) describes them.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <deque>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <unordered_set>
#include <vector>

#include "client.hpp"
#include "engine.hpp"
#include "kela_ref.h"
#include "kela_ref_state.h"
#include "lines.hpp"
#include "policy.hpp"

#ifndef KELA_VERSION
#define KELA_VERSION "unknown"
#endif

namespace {

// Exit statuses.
constexpr int kOk = 0, kIoError = 1, kPolicyError = 2, kMalformed = 3;

struct Options {
    std::string policy_file, routes_file = "-", rib_file, track_file;
    std::string format = "text", input = "auto", location = "import", output = "verdicts";
    std::vector<std::string> tracks, routes;  // routes: eval's arguments
    bool explain = false, strict = false, quiet = false, parse_only = false, werror = false;
    bool set_hits = false;
    unsigned jobs = 1;
    bool json() const { return format == "json"; }
};

// ---- output ------------------------------------------------------------------------

// Standard output through write(2), so that a failed write (a full disk,
// /dev/full) is seen and reported instead of lost.
class Out {
  public:
    bool put(std::string_view s) {
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
    int error() const { return errno_; }

  private:
    int errno_ = 0;
};
Out g_out;

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

// Messages on standard error, as text or (with --format json) JSON Lines.
struct Reporter {
    bool json = false;

    void emit(const char *kind, const std::string &file, std::size_t line, std::size_t column,
              const std::string &message, const std::string &note = {}) const {
        if (json) {
            nlohmann::ordered_json j;
            if (!file.empty()) j["file"] = file;
            if (line != 0) j["line"] = line;
            if (column != 0) j["column"] = column;
            j["message"] = message;
            if (!note.empty()) j["note"] = note;
            const std::string s = nlohmann::ordered_json{{kind, j}}.dump(
                -1, ' ', false, nlohmann::json::error_handler_t::replace);
            std::fprintf(stderr, "%s\n", s.c_str());
            return;
        }
        std::string at = file.empty() ? "kela-policy" : file;
        if (line != 0) at += ":" + std::to_string(line);
        if (line != 0 && column != 0) at += ":" + std::to_string(column);
        std::fprintf(stderr, "%s: %s: %s\n", printable(at).c_str(), kind,
                     printable(message).c_str());
        if (!note.empty())
            std::fprintf(stderr, "%s: note: %s\n", printable(at).c_str(), printable(note).c_str());
    }
    int error(const std::string &message, int status) const {
        emit("error", "", 0, 0, message);
        return status;
    }
    // A route line's error, as one line for the batch's error text.
    std::string route_error(const std::string &file, std::size_t line,
                            const kp::RouteError &e) const {
        if (json) {
            nlohmann::ordered_json j{{"file", file}, {"line", line}};
            if (e.column != 0) j["column"] = e.column;
            j["message"] = e.message;
            return nlohmann::ordered_json{{"error", j}}.dump(
                       -1, ' ', false, nlohmann::json::error_handler_t::replace) +
                   "\n";
        }
        // Column 0: the error is the line's as a whole.
        const std::string at = e.column != 0 ? ":" + std::to_string(e.column) : "";
        return printable(file) + ":" + std::to_string(line) + at +
               ": error: " + printable(e.message) + "\n";
    }
};

kp::Format input_format(const std::string &name) {
    return name == "text"      ? kp::Format::Text
           : name == "json"    ? kp::Format::Json
           : name == "bgpdump" ? kp::Format::Bgpdump
                               : kp::Format::Auto;
}

bool skip_line(std::string_view line) {
    const std::size_t first = line.find_first_not_of(" \t");
    return first == std::string_view::npos || line[first] == '#';
}

// Parses a route line; false with `err` set.  `skip`: a line that is no
// route (a withdrawal in a bgpdump stream).
bool parse_line(kp::Format chosen, std::string_view line, kp::Route &r, kp::RouteError &err,
                bool &skip) {
    skip = false;
    switch (kp::line_format(line, chosen)) {
        case kp::Format::Json:
            return kp::parse_route_json(line, r, err);
        case kp::Format::Bgpdump:
            return kp::parse_route_bgpdump(line, r, err, skip);
        default:
            return kp::parse_route_text(line, r, err);
    }
}

// ---- the policy --------------------------------------------------------------------

std::string dir_of(const std::string &path) {
    const std::size_t slash = path.rfind('/');
    return slash == std::string::npos ? "" : path.substr(0, slash == 0 ? 1 : slash);
}

// Reads, parses and compiles the policy, and reports its warnings; 0 or
// the exit status.
int load_policy(const Options &o, const Reporter &rep, kp::Policy &policy) {
    std::string text, error;
    if (!kp::read_all(o.policy_file, text, error)) return rep.error(error, kIoError);
    if (kp::register_attributes(error) != 0) return rep.error(error, kIoError);
    kp::PolicyError perr;
    kp::ParseOptions popt;
    popt.load = [](const std::string &path, std::string &out, std::string &err) {
        return kp::read_all(path, out, err);
    };
    popt.base_dir = dir_of(o.policy_file);
    if (!kp::parse_policy(text, policy, perr, popt) ||
        !kp::compile_policy(policy, o.location.c_str(), perr)) {
        rep.emit("error", perr.file.empty() ? o.policy_file : perr.file, perr.line, perr.column,
                 perr.message, perr.note);
        return kPolicyError;
    }
    for (const kp::Diagnostic &d : policy.warnings)
        rep.emit(o.werror ? "error" : "warning",
                 d.where.file.empty() ? o.policy_file : d.where.file, d.where.line, d.where.column,
                 d.message, d.note);
    return 0;
}

// Sets the tracked objects' states from --track and --track-file, then
// warns about objects the policy names that got none.
int set_tracks(const Options &o, const Reporter &rep, kp::Policy &policy, bool &warned) {
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
            return rep.error("bad --track " + kp::quote(t) + " (NAME=up or NAME=down)",
                             kPolicyError);
    }
    if (!o.track_file.empty()) {
        kp::LineReader in;
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
    for (const auto &[name, where] : policy.tracks)
        if (given.count(name) == 0) {
            rep.emit(o.werror ? "error" : "warning", o.policy_file, where.line, where.column,
                     "tracked object " + kp::quote(name) + " is given no state and counts as down",
                     "give it one with --track " + name + "=up or --track-file");
            warned = true;
        }
    return 0;
}

// ---- route input in batches ---------------------------------------------------------

struct Batch {
    struct Line {
        std::size_t at, len, number;
    };
    std::string text;
    std::vector<Line> lines;
    std::vector<kp::Route> routes;
    std::vector<signed char> state;  // 1 a route, 0 malformed, 2 no route
    bool parsed = false, stopped = false, done = false;
    std::string out, errors;
    std::size_t malformed = 0;
    std::string_view line(std::size_t i) const {
        return std::string_view(text).substr(lines[i].at, lines[i].len);
    }
};

constexpr std::size_t kBatchLines = 4096, kBatchBytes = 1 << 20;

// Reads the next batch of route lines; false at the end (check the
// reader's error).
bool read_batch(kp::LineReader &in, Batch &b) {
    std::string_view line;
    while (b.lines.size() < kBatchLines && b.text.size() < kBatchBytes && in.next(line)) {
        if (skip_line(line)) continue;
        b.lines.push_back({b.text.size(), line.size(), in.line_number()});
        b.text.append(line);
    }
    return !b.lines.empty();
}

struct Runner {
    const Options &o;
    const Reporter &rep;
    kp::Format format;
    const kp::Engine *engine = nullptr;

    void parse(Batch &b) const {
        b.routes.resize(b.lines.size());
        b.state.assign(b.lines.size(), 0);
        for (std::size_t i = 0; i < b.lines.size(); ++i) {
            kp::RouteError err;
            bool skip = false;
            if (parse_line(format, b.line(i), b.routes[i], err, skip)) {
                b.state[i] = skip ? 2 : 1;
                continue;
            }
            ++b.malformed;
            b.errors += rep.route_error(o.routes_file, b.lines[i].number, err);
            if (o.strict) {
                b.stopped = true;
                b.lines.resize(i);  // nothing after the first malformed line
                break;
            }
        }
        b.parsed = true;
    }
    void evaluate(Batch &b, kp::Counters &c) const {
        if (!b.parsed) parse(b);
        c.malformed += b.malformed;
        for (std::size_t i = 0; i < b.lines.size(); ++i) {
            if (b.state[i] == 2) ++c.skipped;
            if (b.state[i] != 1) continue;
            if (o.parse_only) {
                ++c.routes;
                continue;
            }
            engine->evaluate(b.routes[i], b.line(i), b.lines[i].number, c, b.out);
        }
    }
};

// Evaluates the batches on `jobs` threads and writes their output in input
// order.  `next` yields the batches one after another (null at the end).
template <class Next>
int run_batches(const Options &o, Runner &runner, std::vector<kp::Counters> &counters, Next next,
                bool &stopped) {
    const bool progress = !o.quiet && isatty(STDERR_FILENO) != 0;
    std::size_t lines_written = 0, last_shown = 0;
    auto write = [&](Batch &b) {
        if (!b.errors.empty()) std::fputs(b.errors.c_str(), stderr);
        if (!g_out.put(b.out)) return false;
        lines_written += b.lines.size();
        if (progress && lines_written - last_shown >= 65536) {
            last_shown = lines_written;
            std::fprintf(stderr, "\rkela-policy: %zu routes", lines_written);
        }
        stopped = stopped || b.stopped;
        return true;
    };
    int status = kOk;
    if (o.jobs <= 1) {
        while (std::unique_ptr<Batch> b = next()) {
            runner.evaluate(*b, counters[0]);
            if (!write(*b)) {
                status = kIoError;
                break;
            }
            if (stopped) break;
        }
    } else {
        std::mutex mu;
        std::condition_variable work_cv, done_cv;
        std::deque<Batch *> work;
        std::deque<std::unique_ptr<Batch>> pending;  // in input order
        bool closing = false;
        std::vector<std::thread> threads;
        for (unsigned w = 0; w < o.jobs; ++w)
            threads.emplace_back([&, w] {
                for (;;) {
                    Batch *b = nullptr;
                    {
                        std::unique_lock<std::mutex> lock(mu);
                        work_cv.wait(lock, [&] { return closing || !work.empty(); });
                        if (work.empty()) return;
                        b = work.front();
                        work.pop_front();
                    }
                    runner.evaluate(*b, counters[w]);
                    {
                        std::lock_guard<std::mutex> lock(mu);
                        b->done = true;
                    }
                    done_cv.notify_all();
                }
            });
        // Writes the finished batches at the front; with `all`, waits for
        // each.
        auto drain = [&](std::size_t keep) {
            for (;;) {
                std::unique_ptr<Batch> b;
                {
                    std::unique_lock<std::mutex> lock(mu);
                    if (pending.size() <= keep) return true;
                    done_cv.wait(lock, [&] { return pending.front()->done; });
                    b = std::move(pending.front());
                    pending.pop_front();
                }
                if (status == kOk && !stopped && !write(*b)) status = kIoError;
            }
        };
        const std::size_t in_flight = 2 * static_cast<std::size_t>(o.jobs);
        while (status == kOk && !stopped) {
            std::unique_ptr<Batch> b = next();
            if (!b) break;
            {
                std::lock_guard<std::mutex> lock(mu);
                work.push_back(b.get());
                pending.push_back(std::move(b));
            }
            work_cv.notify_one();
            drain(in_flight);
        }
        drain(0);
        {
            std::lock_guard<std::mutex> lock(mu);
            closing = true;
        }
        work_cv.notify_all();
        for (std::thread &t : threads) t.join();
    }
    if (progress && lines_written >= 65536) std::fprintf(stderr, "\n");
    return status;
}

int write_failed(const Reporter &rep) {
    return rep.error(std::string("cannot write the output: ") + std::strerror(g_out.error()),
                     kIoError);
}

void add_to_rib(const kp::Route &r) {
    const int afi = r.destination.family == 10 ? IP_RIB_AFI_IPV6 : IP_RIB_AFI_IPV4;
    kref_rib_add(afi, r.table, r.destination.addr, r.destination.len, nullptr);
}

// Loads a routing table from its own file; its malformed lines are
// reported and counted.
int load_rib_file(const Options &o, const Reporter &rep, kp::Format format, kp::Counters &c) {
    kp::LineReader in;
    if (!in.open(o.rib_file)) return rep.error(in.error(), kIoError);
    std::string_view line;
    while (in.next(line)) {
        if (skip_line(line)) continue;
        kp::Route r;
        kp::RouteError err;
        bool skip = false;
        if (!parse_line(format, line, r, err, skip)) {
            ++c.malformed;
            std::fputs(rep.route_error(o.rib_file, in.line_number(), err).c_str(), stderr);
            continue;
        }
        if (!skip) add_to_rib(r);
    }
    if (!in.error().empty()) return rep.error(in.error(), kIoError);
    return 0;
}

// ---- commands ----------------------------------------------------------------------

int cmd_check(const Options &o, const Reporter &rep) {
    kp::Policy policy;
    if (int st = load_policy(o, rep, policy); st != 0) return st;
    if (o.werror && !policy.warnings.empty()) return kPolicyError;
    std::size_t conditions = 0, actions = 0;
    for (const kp::Rule &r : policy.rules) {
        conditions += r.conditions.size();
        actions += r.actions.size();
    }
    std::string line;
    if (o.json())
        line = nlohmann::ordered_json{{"check",
                                       {{"policy", o.policy_file},
                                        {"rules", policy.rules.size()},
                                        {"conditions", conditions},
                                        {"actions", actions},
                                        {"sets", policy.sets.size()},
                                        {"warnings", policy.warnings.size()}}}}
                   .dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) +
               "\n";
    else
        line = o.policy_file + ": ok: " + std::to_string(policy.rules.size()) + " rules, " +
               std::to_string(conditions) + " conditions, " + std::to_string(actions) +
               " actions\n";
    return g_out.put(line) ? kOk : write_failed(rep);
}

int cmd_show(const Options &o, const Reporter &rep) {
    kp::Policy policy;
    if (int st = load_policy(o, rep, policy); st != 0) return st;
    if (o.werror && !policy.warnings.empty()) return kPolicyError;
    std::string out;
    for (const auto &s : policy.sets) {
        out += std::string(s->prefixes ? "prefix-set " : "value-set ") + s->name + ": " +
               std::to_string(s->items.size()) + (s->items.size() == 1 ? " entry" : " entries");
        if (!s->file.empty()) out += " from " + s->file;
        out += "\n";
    }
    for (const kp::Rule &r : policy.rules) {
        out += "rule " + r.name + " (line " + std::to_string(r.line) + ")\n";
        for (const kp::Condition &c : r.conditions) out += "  if " + c.text + "\n";
        for (const kp::Action &a : r.actions) out += "  set " + a.text + "\n";
        out += r.accept ? "  accept\n" : "  reject\n";
    }
    out += std::string("default ") + (policy.default_accept ? "accept" : "reject") + "\n";
    return g_out.put(out) ? kOk : write_failed(rep);
}

// Everything after the policy is loaded: states, routing table, routes.
int run_routes(const Options &o, const Reporter &rep, kp::Policy &policy,
               const std::vector<std::string> *eval_lines) {
    bool warned = false;
    if (int st = set_tracks(o, rep, policy, warned); st != 0) return st;
    if (o.werror && (warned || !policy.warnings.empty())) return kPolicyError;

    kp::EngineOptions eo;
    eo.explain = o.explain;
    eo.set_hits = o.set_hits;
    eo.json = o.json();
    eo.routes = o.output == "routes";
    eo.input = input_format(o.input);
    kp::Engine engine(policy, eo);
    Runner runner{o, rep, eo.input, &engine};
    std::vector<kp::Counters> counters(std::max(1u, o.jobs), engine.counters());

    // The routing table comes from --rib, or else from the routes
    // themselves: they are then read once and kept until every route has
    // been evaluated.
    const bool rib_from_routes = policy.uses_rib && o.rib_file.empty();
    if (policy.uses_rib && !o.rib_file.empty()) {
        if (o.rib_file == "-" && o.routes_file == "-")
            return rep.error("--rib and the routes cannot both be standard input", kPolicyError);
        if (int st = load_rib_file(o, rep, eo.input, counters[0]); st != 0) return st;
    }

    kp::LineReader in;
    std::deque<std::unique_ptr<Batch>> kept;
    std::function<std::unique_ptr<Batch>()> next;
    if (eval_lines != nullptr) {
        // eval: the routes are the command's arguments.
        auto b = std::make_unique<Batch>();
        for (std::size_t i = 0; i < eval_lines->size(); ++i) {
            b->lines.push_back({b->text.size(), (*eval_lines)[i].size(), i + 1});
            b->text += (*eval_lines)[i];
        }
        kept.push_back(std::move(b));
    } else {
        if (!in.open(o.routes_file)) return rep.error(in.error(), kIoError);
        if (rib_from_routes) {
            for (;;) {
                auto b = std::make_unique<Batch>();
                if (!read_batch(in, *b)) break;
                runner.parse(*b);
                const bool stop = b->stopped;
                kept.push_back(std::move(b));
                if (stop) break;
            }
            if (!in.error().empty()) return rep.error(in.error(), kIoError);
        } else {
            next = [&]() -> std::unique_ptr<Batch> {
                auto b = std::make_unique<Batch>();
                return read_batch(in, *b) ? std::move(b) : nullptr;
            };
        }
    }
    if (!next) {
        if (rib_from_routes || eval_lines != nullptr)
            for (auto &b : kept) {
                if (!b->parsed) runner.parse(*b);
                for (std::size_t i = 0; i < b->lines.size(); ++i)
                    if (b->state[i] == 1 && policy.uses_rib && o.rib_file.empty())
                        add_to_rib(b->routes[i]);
            }
        next = [&]() -> std::unique_ptr<Batch> {
            if (kept.empty()) return nullptr;
            auto b = std::move(kept.front());
            kept.pop_front();
            return b;
        };
    }
    bool stopped = false;
    const int st = run_batches(o, runner, counters, next, stopped);
    if (st == kIoError) return write_failed(rep);
    if (!in.error().empty()) return rep.error(in.error(), kIoError);
    if (stopped) return kMalformed;  // --strict: the first malformed line ends the run

    kp::Counters total = engine.counters();
    for (const kp::Counters &c : counters) total.merge(c);
    if (total.multi_community != 0)
        rep.emit("warning", "", 0, 0,
                 std::to_string(total.multi_community) +
                     " routes carried more than one standard community; 'community' tests the "
                     "first of each");
    // Routes written for the next program keep the summary off their way.
    if (eo.routes)
        std::fputs(engine.summary(total).c_str(), stderr);
    else if (eval_lines == nullptr || o.json())
        if (!g_out.put(engine.summary(total))) return write_failed(rep);
    return total.malformed != 0 ? kMalformed : kOk;
}

int cmd_run(const Options &o, const Reporter &rep) {
    kp::Policy policy;
    if (int st = load_policy(o, rep, policy); st != 0) return st;
    return run_routes(o, rep, policy, nullptr);
}

// eval: each argument is a route line, or a prefix (or address) alone.
int cmd_eval(Options o, const Reporter &rep) {
    kp::Policy policy;
    if (int st = load_policy(o, rep, policy); st != 0) return st;
    std::vector<std::string> lines;
    for (const std::string &r : o.routes) {
        const std::size_t first = r.find_first_not_of(" \t");
        const bool bare = first != std::string::npos && r.find('=') == std::string::npos &&
                          kp::line_format(r, kp::Format::Auto) == kp::Format::Text &&
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

int run_main(int argc, char **argv) {
    Options o;
    CLI::App app{"kela-policy: run route policies built from the kela-shared attribute types",
                 "kela-policy"};
    app.set_version_flag("--version", std::string("kela-policy ") + KELA_VERSION);
    app.require_subcommand(1);
    app.footer(
        "Exit status: 0 success; 1 a file that cannot be read or output that cannot be written;\n"
        "2 a policy that does not compile, or a usage error; 3 malformed route lines.\n"
        "See kela-policy(1) and docs/policy-language.md.");

    auto policy_options = [&](CLI::App *cmd) {
        cmd->add_option("POLICY", o.policy_file, "the policy file")->required();
        cmd->add_option("--at", o.location, "attach point the policy runs at")
            ->capture_default_str();
        cmd->add_option("--format", o.format, "output (and message) format")
            ->check(CLI::IsMember({"text", "json"}))
            ->capture_default_str();
        cmd->add_flag("--Werror", o.werror, "treat warnings as errors");
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

    CLI::App *run = app.add_subcommand("run", "evaluate every route of ROUTES");
    policy_options(run);
    run->add_option("ROUTES", o.routes_file, "route file, pipe or FIFO; '-' standard input")
        ->capture_default_str();
    route_options(run);
    run->add_flag("--explain", o.explain, "show every condition's outcome and matching entry");
    run->add_flag("--strict", o.strict, "stop at the first malformed route line");
    run->add_flag("--quiet", o.quiet, "no progress indicator");
    run->add_flag("--parse-only", o.parse_only, "read and parse the routes, evaluate nothing");
    run->add_flag("--set-hits", o.set_hits, "count the hits of every set entry");
    run->add_option("--output", o.output, "verdicts, or the accepted routes in their input format")
        ->check(CLI::IsMember({"verdicts", "routes"}))
        ->capture_default_str();
    run->add_option("--jobs,-j", o.jobs, "evaluate on N threads")
        ->check(CLI::Range(1u, 256u))
        ->capture_default_str();

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
    if (*check) return cmd_check(o, rep);
    if (*show) return cmd_show(o, rep);
    if (*eval) return cmd_eval(o, rep);
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
    return kIoError;
}
