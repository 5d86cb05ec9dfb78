// SPDX-License-Identifier: Apache-2.0
// The kela-policy language: tokens, statements, rules, named sets and the
// lists written in conditions (list files are read by lists.cpp).
#include <arpa/inet.h>

#include <cctype>
#include <cstring>
#include <iterator>
#include <unordered_set>

#include "kela_ref.h"
#include "lines.hpp"
#include "syntax.hpp"

namespace kp {

namespace {

const char *const kKeywords[] = {"rule",   "if",      "set",        "accept",
                                 "reject", "default", "prefix-set", "value-set"};

bool is_keyword(const Token &t) {
    if (t.quoted || t.newline) return false;
    for (const char *k : kKeywords)
        if (t.text == k) return true;
    return false;
}

}  // namespace

// Words, quoted texts, and the punctuation of lists as tokens of their own.
// `depth` carries the brace depth from line to line.
std::vector<Token> tokenize(std::string_view line, std::size_t n, int &depth) {
    std::vector<Token> out;
    std::size_t at = 0;
    while (at < line.size()) {
        const char c = line[at];
        if (c == '#') break;
        if (std::isspace(static_cast<unsigned char>(c))) {
            ++at;
        } else if (c == '{' || c == '}' || (c == ',' && depth > 0)) {
            if (c == '{') ++depth;
            if (c == '}' && depth > 0) --depth;
            out.push_back({std::string(1, c), n, at + 1});
            ++at;
        } else if (c == '"') {
            const std::size_t end = line.find('"', at + 1);
            const std::size_t stop = end == std::string_view::npos ? line.size() : end;
            out.push_back({std::string(line.substr(at + 1, stop - at - 1)), n, at + 1, true});
            at = stop + 1;
        } else {
            const std::size_t start = at;
            // (strchr would find a NUL byte of the text at the set's end)
            while (
                at < line.size() && !std::isspace(static_cast<unsigned char>(line[at])) &&
                (line[at] == '\0' || std::strchr(depth > 0 ? "{},#" : "{}#", line[at]) == nullptr))
                ++at;
            out.push_back({std::string(line.substr(start, at - start)), n, start + 1});
        }
    }
    return out;
}

namespace {

bool is_prefix_set_op(const std::string &op) {
    return op == "pfxmatch" || op == "pfxlonger" || op == "pfxorlonger" || op == "in" ||
           op == "async";
}

// A word that can only be a set's name (not an address, number or value).
bool looks_like_name(const std::string &s) {
    return !s.empty() && std::isalpha(static_cast<unsigned char>(s[0])) &&
           s.find_first_of(".:/") == std::string::npos;
}

}  // namespace

std::string join(const std::vector<Token> &t, std::size_t from, std::size_t to) {
    std::string s;
    for (std::size_t i = from; i < to && i < t.size(); ++i) {
        if (t[i].newline) continue;
        s += (s.empty() || t[i].text == "," ? "" : " ") + t[i].text;
    }
    return s;
}

PolicyError located(const Token &t, std::string m) {
    return {t.line, t.column, std::move(m), "", ""};
}

// One prefix entry as the four texts the operators take: address, length
// (or wildcard mask), ge, le.
bool prefix_entry(const std::vector<Token> &t, std::vector<std::string> &out, PolicyError &err) {
    auto fail = [&](std::size_t i, const std::string &m) {
        err = located(t[std::min(i, t.size() - 1)], m);
        return false;
    };
    std::string addr, len, ge, le;
    std::size_t i = 1;
    const std::size_t slash = t[0].text.find('/');
    const bool v6 = t[0].text.find(':') != std::string::npos;
    const std::string max = v6 ? "128" : "32";
    bool mask = false;
    if (slash != std::string::npos) {
        addr = t[0].text.substr(0, slash);
        len = t[0].text.substr(slash + 1);
        if (len.empty()) return fail(0, "expected a length after '/'");
        ge = le = len;
    } else if (t.size() >= 3 && t[1].text == "mask") {
        addr = t[0].text;
        len = t[2].text;
        ge = "0";
        le = max;
        mask = true;
        i = 3;
    } else if (looks_like_name(t[0].text) && t.size() == 1) {
        return fail(0, "unknown prefix set " + quote(t[0].text));
    } else {
        return fail(0, "expected A/L or 'A mask M', found " + quote(t[0].text));
    }
    bool saw_ge = false, saw_le = false;
    for (; i < t.size(); i += 2) {
        const std::string &w = t[i].text;
        if (w != "ge" && w != "le" && (w != "eq" || mask))
            return fail(i, "expected ge, le or eq, found " + quote(w) +
                               (w.find('/') != std::string::npos
                                    ? " (entries are separated by ',' or a line break)"
                                    : ""));
        if (i + 1 >= t.size()) return fail(i, quote(w) + " needs a value");
        const std::string &v = t[i + 1].text;
        if (w == "ge") {
            ge = v;
            saw_ge = true;
        } else if (w == "le") {
            le = v;
            saw_le = true;
        } else if (w == "eq" && !mask) {
            ge = le = v;
            saw_ge = saw_le = true;
        } else {
            return fail(i, "expected ge, le or eq, found " + quote(w));
        }
    }
    if (saw_ge && !saw_le && !mask) le = max;  // "ge G": from G to the end
    out = {addr, len, ge, le};
    return true;
}

// Host bits in a length-form entry: the entry then matches no route, which
// the library accepts without a word.
void check_host_bits(const std::vector<std::string> &entry, const Where &w,
                     std::vector<Diagnostic> &warnings) {
    unsigned char a[16];
    const bool v6 = entry[0].find(':') != std::string::npos;
    if (entry[1].find_first_not_of("0123456789") != std::string::npos || entry[1].size() > 3 ||
        inet_pton(v6 ? AF_INET6 : AF_INET, entry[0].c_str(), a) != 1)
        return;
    const unsigned len = static_cast<unsigned>(std::stoul(entry[1])), bits = v6 ? 128 : 32;
    if (len >= bits) return;
    bool host = false;
    unsigned char net[16];
    std::memcpy(net, a, sizeof net);
    for (unsigned b = len; b < bits; ++b) {
        const unsigned char bit = static_cast<unsigned char>(0x80u >> (b % 8));
        host = host || (a[b / 8] & bit) != 0;
        net[b / 8] = static_cast<unsigned char>(net[b / 8] & ~bit);
    }
    if (!host) return;
    char text[64];
    inet_ntop(v6 ? AF_INET6 : AF_INET, net, text, sizeof text);
    warnings.push_back(
        {w, quote(entry[0] + "/" + entry[1]) + " has host bits set and matches no route",
         "did you mean " + std::string(text) + "/" + entry[1] + "?"});
}

namespace {

// Splits "{ a, b c, d }" (or a single item without braces) into items;
// inside braces a line break separates entries too.
bool split_items(const std::vector<Token> &t, std::size_t from,
                 std::vector<std::vector<Token>> &items, PolicyError &err) {
    items.clear();
    if (from >= t.size()) return true;
    if (t[from].text != "{" || t[from].quoted) {
        items.emplace_back(t.begin() + static_cast<long>(from), t.end());
        return true;
    }
    std::vector<Token> cur;
    std::size_t i = from + 1;
    for (; i < t.size() && (t[i].text != "}" || t[i].quoted); ++i) {
        if (t[i].newline) {
            if (!cur.empty()) items.push_back(std::move(cur));
            cur.clear();
        } else if (t[i].text == "," && !t[i].quoted) {
            if (cur.empty()) {
                err = located(t[i], "empty list entry");
                return false;
            }
            items.push_back(std::move(cur));
            cur.clear();
        } else {
            cur.push_back(t[i]);
        }
    }
    if (i >= t.size()) {
        err = located(t[from], "'{' is not closed (missing '}')");
        return false;
    }
    std::size_t last = i - 1;
    while (last > from && t[last].newline) --last;
    if (cur.empty() && !items.empty() && t[last].text == ",") {
        err = located(t[last], "empty list entry");
        return false;
    }
    if (!cur.empty()) items.push_back(std::move(cur));
    if (i + 1 != t.size()) {
        err = located(t[i + 1], "unexpected " + quote(t[i + 1].text) + " after '}'");
        return false;
    }
    if (items.empty()) {
        err = located(t[from], "empty list");
        return false;
    }
    return true;
}

// Parses the entries of a list written in the policy into `list`.
bool list_entries(const std::vector<std::vector<Token>> &items, Policy &policy, ValueList &list,
                  PolicyError &err) {
    for (const auto &item : items) {
        // A set's name stands for its entries.
        if (item.size() == 1 && !item[0].quoted) {
            const auto hit = policy.set_index.find(item[0].text);
            if (hit != policy.set_index.end()) {
                const ValueList &s = *policy.sets[hit->second];
                if (s.prefixes != list.prefixes) {
                    err = located(item[0], quote(s.name) + " is a " +
                                               (s.prefixes ? "prefix-set" : "value-set") + "; a " +
                                               (list.prefixes ? "prefix" : "value") +
                                               " list is expected here");
                    return false;
                }
                list.items.insert(list.items.end(), s.items.begin(), s.items.end());
                list.shown.insert(list.shown.end(), s.shown.begin(), s.shown.end());
                list.where.insert(list.where.end(), s.where.begin(), s.where.end());
                continue;
            }
        }
        const Where w{"", item[0].line, item[0].column};
        if (list.prefixes) {
            std::vector<std::string> entry;
            if (!prefix_entry(item, entry, err)) return false;
            check_host_bits(entry, w, policy.warnings);
            list.items.push_back(std::move(entry));
        } else {
            if (item.size() != 1) {
                err = located(item[1], "one value per entry, found " + quote(item[1].text));
                return false;
            }
            list.items.push_back({item[0].text});
        }
        list.shown.push_back(join(item, 0, item.size()));
        list.where.push_back(w);
    }
    return true;
}

class Parser {
  public:
    Parser(Policy &p, PolicyError &e, const ParseOptions &o) : policy_(p), err_(e), opts_(o) {}

    bool statement(const std::vector<Token> &t);
    bool finish();

  private:
    bool fail(const Token &t, const std::string &m) {
        err_ = located(t, m);
        return false;
    }
    bool set_definition(const std::vector<Token> &t);
    bool condition(const std::vector<Token> &t);
    bool condition_items(const std::vector<Token> &t, Condition &c);

    Policy &policy_;
    PolicyError &err_;
    const ParseOptions &opts_;
    Rule *open_ = nullptr;
    std::size_t default_line_ = 0;
    std::unordered_set<std::string> rule_names_;
    std::unordered_set<std::string> track_names_;
};

bool Parser::set_definition(const std::vector<Token> &t) {
    const bool prefixes = t[0].text == "prefix-set";
    if (open_ != nullptr)
        return fail(t[0], "rule '" + open_->name + "' has no verdict (accept or reject)");
    if (t.size() < 3)
        return fail(t[0], "expected: " + t[0].text + " NAME { ENTRIES } or " + t[0].text +
                              " NAME from \"FILE\"");
    const std::string &name = t[1].text;
    if (!looks_like_name(name) || t[1].quoted)
        return fail(t[1], "a set's name starts with a letter and has no '.', ':' or '/'");
    if (const auto hit = policy_.set_index.find(name); hit != policy_.set_index.end())
        return fail(t[1], "set " + quote(name) + " is defined twice (first at line " +
                              std::to_string(policy_.sets[hit->second]->defined.line) + ")");
    auto list = std::make_shared<ValueList>();
    list->name = name;
    list->prefixes = prefixes;
    list->defined = {"", t[0].line, t[0].column};
    if (t[2].text == "from" && !t[2].quoted) {
        if (t.size() != 4) return fail(t.size() > 4 ? t[4] : t[2], "expected: from \"FILE\"");
        if (!opts_.load) return fail(t[3], "list files cannot be read here");
        std::string path = t[3].text;
        if (!path.empty() && path[0] != '/' && !opts_.base_dir.empty())
            path = opts_.base_dir + "/" + path;
        std::string text, error;
        if (!opts_.load(path, text, error)) return fail(t[3], error);
        list->file = path;
        const std::size_t first = text.find_first_not_of(" \t\r\n");
        const bool json = first != std::string::npos && (text[first] == '{' || text[first] == '[');
        if (!(json ? json_list(path, text, *list, err_) : plain_list(path, text, *list, err_)))
            return false;
        if (list->items.empty())
            return fail(t[3], "the list file " + quote(path) + " has no entries");
    } else {
        if (t[2].text != "{" || t[2].quoted) return fail(t[2], "expected '{' or 'from'");
        std::vector<std::vector<Token>> items;
        if (!split_items(t, 2, items, err_) || !list_entries(items, policy_, *list, err_))
            return false;
    }
    if (!list->file.empty() && prefixes)
        for (std::size_t i = 0; i < list->items.size(); ++i)
            check_host_bits(list->items[i], list->where[i], policy_.warnings);
    policy_.set_index.emplace(name, policy_.sets.size());
    policy_.sets.push_back(std::move(list));
    return true;
}

// The parameter items of a condition, shaped after the argument-type list
// the framework holds for the operator.
bool Parser::condition_items(const std::vector<Token> &t, Condition &c) {
    rasf_attr_t *a = kref_attr_find(c.attr.c_str());
    if (a == nullptr) return fail(t[1], "unknown attribute " + quote(c.attr));
    kref_op_info_t info{};
    if (kref_attr_op(a, KREF_CMP, c.op.c_str(), &info) != 0)
        return fail(t[2], "attribute " + quote(c.attr) + " has no operator " + quote(c.op));
    kref_arg_info_t first{};
    const bool open = kref_args_count(info.args) > 0 && kref_args_at(info.args, 0, &first) == 0 &&
                      first.kind == KREF_ARG_INFINITE;
    const std::size_t singles = open ? 0 : kref_args_count(info.args);
    std::vector<std::vector<Token>> items;
    if (!split_items(t, 3, items, err_)) return false;
    if (open && !items.empty()) {
        // A set named alone is shared, not copied.
        if (items.size() == 1 && items[0].size() == 1 && t[3].text != "{" && !t[3].quoted) {
            const auto hit = policy_.set_index.find(items[0][0].text);
            if (hit != policy_.set_index.end() &&
                policy_.sets[hit->second]->prefixes == is_prefix_set_op(c.op)) {
                c.list = policy_.sets[hit->second];
                return true;
            }
        }
        auto list = std::make_shared<ValueList>();
        list->prefixes = is_prefix_set_op(c.op);
        list->defined = {"", t[0].line, t[0].column};
        if (!list_entries(items, policy_, *list, err_)) return false;
        c.list = std::move(list);
    } else if (singles == 4 && c.op == "pfxmatch") {
        // Four constants written as one prefix entry.
        if (items.size() != 1)
            return fail(t[std::min<std::size_t>(3, t.size() - 1)],
                        quote(c.op) + " takes one prefix entry");
        std::vector<std::string> entry;
        if (!prefix_entry(items[0], entry, err_)) return false;
        for (auto &text : entry) c.items.push_back({text});
    } else {
        for (const auto &item : items)
            for (const Token &w : item) c.items.push_back({w.text});
    }
    return true;
}

bool Parser::condition(const std::vector<Token> &t) {
    if (open_ == nullptr) return fail(t[0], "'if' outside a rule");
    if (t.size() < 3) return fail(t[0], "expected: if ATTRIBUTE OPERATOR [PARAMETERS]");
    Condition c;
    c.line = t[0].line;
    c.column = t[0].column;
    c.attr = t[1].text;
    c.text = join(t, 1, t.size());
    if (c.attr == "track") {
        // if track NAME is STATE
        if (t.size() != 5 || t[3].text != "is")
            return fail(t[1], "expected: if track NAME is up|down");
        c.op = "is";
        c.items = {{"track"}, {t[2].text}, {t[4].text}};
        if (track_names_.insert(t[2].text).second)
            policy_.tracks.push_back({t[2].text, {"", t[2].line, t[2].column}});
    } else {
        c.op = t[2].text;
        if (!condition_items(t, c)) return false;
        if (c.attr == "rib-has-route") policy_.uses_rib = true;
        // A long list is shown by its size, not its entries.
        constexpr std::size_t kShown = 8;
        if (c.list && c.list->name.empty() && c.list->items.size() > kShown) {
            c.text = c.attr + " " + c.op + " {";
            for (std::size_t i = 0; i < 3; ++i) c.text += " " + c.list->shown[i] + ",";
            c.text += " ... } (" + std::to_string(c.list->items.size()) + " entries)";
        } else if (c.list && !c.list->name.empty()) {
            c.text += " (" + std::to_string(c.list->items.size()) + " entries)";
        }
    }
    open_->conditions.push_back(std::move(c));
    return true;
}

bool Parser::statement(const std::vector<Token> &t) {
    const std::string &kw = t[0].text;
    if (t[0].quoted) return fail(t[0], "expected a statement, found " + quote(kw));
    if (kw == "rule") {
        if (open_ != nullptr)
            return fail(t[0], "rule '" + open_->name + "' has no verdict (accept or reject)");
        if (default_line_ != 0) return fail(t[0], "rules must come before 'default'");
        if (t.size() < 2) return fail(t[0], "a rule needs a name");
        std::string name = t[1].text;
        if (!name.empty() && name.back() == ':') name.pop_back();
        if (t.size() > 2 && !(t.size() == 3 && t[2].text == ":"))
            return fail(t[2], "unexpected " + quote(t[2].text));
        if (!rule_names_.insert(name).second)
            return fail(t[1], "rule " + quote(name) + " is defined twice");
        policy_.rules.push_back(Rule{});
        open_ = &policy_.rules.back();
        open_->name = name;
        open_->line = t[0].line;
    } else if (kw == "prefix-set" || kw == "value-set") {
        return set_definition(t);
    } else if (kw == "if") {
        return condition(t);
    } else if (kw == "set") {
        if (open_ == nullptr) return fail(t[0], "'set' outside a rule");
        if (t.size() < 3) return fail(t[0], "expected: set ATTRIBUTE [assign] VALUE");
        Action a;
        a.line = t[0].line;
        a.column = t[0].column;
        a.attr = t[1].text;
        a.setter = "assign";
        std::size_t v = 2;
        if (t[2].text == "assign") ++v;
        if (v + 1 != t.size()) return fail(v < t.size() ? t[v] : t.back(), "expected one value");
        if (kref_attr_find(a.attr.c_str()) == nullptr)
            return fail(t[1], "unknown attribute " + quote(a.attr));
        a.items = {{t[v].text}};
        a.text = join(t, 1, t.size());
        // A next hop is an address anyway; a destination becomes a host route.
        if (a.attr == "destination" && t[v].text.find('/') == std::string::npos)
            policy_.warnings.push_back(
                {{"", t[v].line, t[v].column},
                 "'set " + a.attr + " " + t[v].text + "' gives the route the host prefix " +
                     t[v].text + (t[v].text.find(':') != std::string::npos ? "/128" : "/32"),
                 "the setter takes an address, not a prefix"});
        open_->actions.push_back(std::move(a));
    } else if (kw == "accept" || kw == "reject") {
        if (open_ == nullptr) return fail(t[0], "'" + kw + "' outside a rule");
        if (t.size() > 1) return fail(t[1], "unexpected " + quote(t[1].text));
        open_->accept = kw == "accept";
        open_ = nullptr;
    } else if (kw == "default") {
        if (open_ != nullptr)
            return fail(t[0], "rule '" + open_->name + "' has no verdict (accept or reject)");
        if (t.size() != 2 || (t[1].text != "accept" && t[1].text != "reject"))
            return fail(t[0], "expected: default accept|reject");
        if (default_line_ != 0)
            policy_.warnings.push_back(
                {{"", t[0].line, t[0].column},
                 "a second 'default' replaces the one at line " + std::to_string(default_line_),
                 ""});
        policy_.default_accept = t[1].text == "accept";
        default_line_ = t[0].line;
    } else {
        return fail(t[0],
                    "expected rule, if, set, accept, reject, default, prefix-set or "
                    "value-set; found " +
                        quote(kw));
    }
    return true;
}

bool Parser::finish() {
    if (open_ != nullptr) {
        err_ = {open_->line, 1, "rule '" + open_->name + "' has no verdict (accept or reject)", "",
                ""};
        return false;
    }
    return true;
}

}  // namespace

Policy::~Policy() {
    for (Rule &r : rules) {
        for (Condition &c : r.conditions) kref_stmt_free(c.stmt);
        for (Action &a : r.actions) kref_stmt_free(a.stmt);
    }
}

bool parse_policy(const std::string &text, Policy &policy, PolicyError &err,
                  const ParseOptions &options) {
    Parser parser(policy, err, options);
    std::vector<Token> stmt;
    int depth = 0;
    std::size_t open_at = 0;  // the token that opened the list being read
    bool ok = true;
    for_each_line(text, [&](std::string_view line, std::size_t n) {
        const bool continuing = depth > 0;
        std::vector<Token> t = tokenize(line, n, depth);
        if (continuing) {
            // A statement keyword inside a list: its '}' was forgotten.
            if (!t.empty() && is_keyword(t[0])) {
                err = located(stmt[open_at], "'{' is not closed (missing '}')");
                return ok = false;
            }
            Token nl;
            nl.newline = true;
            nl.line = n;
            stmt.push_back(nl);
            stmt.insert(stmt.end(), std::make_move_iterator(t.begin()),
                        std::make_move_iterator(t.end()));
        } else {
            stmt = std::move(t);
        }
        if (depth > 0 && !continuing)
            for (std::size_t i = 0; i < stmt.size(); ++i)
                if (stmt[i].text == "{" && !stmt[i].quoted) {
                    open_at = i;
                    break;
                }
        if (depth > 0 || stmt.empty()) return true;
        ok = parser.statement(stmt);
        stmt.clear();
        return ok;
    });
    if (!ok) return false;
    if (depth > 0) {
        err = located(stmt[open_at], "'{' is not closed (missing '}')");
        return false;
    }
    return parser.finish();
}

}  // namespace kp
