#include "policy.hpp"

#include <cctype>
#include <cstdlib>
#include <cstring>
#include <sstream>

#include "vog.h"

namespace kp {

namespace {

struct Token {
    std::string text;
    std::size_t column;  // 1-based
};

// Words, and the punctuation of value lists as tokens of their own.
std::vector<Token> tokenize(const std::string &line) {
    std::vector<Token> out;
    std::size_t at = 0;
    int depth = 0;  // commas separate list entries only inside braces
    while (at < line.size()) {
        const char c = line[at];
        if (c == '#') break;
        if (std::isspace(static_cast<unsigned char>(c))) {
            ++at;
        } else if (c == '{' || c == '}' || (c == ',' && depth > 0)) {
            depth += c == '{' ? 1 : c == '}' ? -1 : 0;
            out.push_back({std::string(1, c), at + 1});
            ++at;
        } else {
            const std::size_t start = at;
            // (strchr would find a NUL byte of the text at the set's end)
            while (
                at < line.size() && !std::isspace(static_cast<unsigned char>(line[at])) &&
                (line[at] == '\0' || std::strchr(depth > 0 ? "{},#" : "{}#", line[at]) == nullptr))
                ++at;
            out.push_back({line.substr(start, at - start), start + 1});
        }
    }
    return out;
}

bool is_prefix_set_op(const std::string &op) {
    return op == "pfxmatch" || op == "pfxlonger" || op == "pfxorlonger" || op == "in" ||
           op == "async";
}

// One prefix entry as the four texts the operators take: address, length
// (or wildcard mask), ge, le.
bool prefix_entry(const std::vector<Token> &t, std::vector<std::string> &out, PolicyError &err) {
    auto fail = [&](std::size_t i, const std::string &m) {
        err = {0, i < t.size() ? t[i].column : (t.empty() ? 0 : t.back().column), m};
        return false;
    };
    if (t.empty()) return fail(0, "expected a prefix");
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
    } else {
        return fail(0, "expected A/L or 'A mask M', found '" + t[0].text + "'");
    }
    bool saw_ge = false, saw_le = false;
    for (; i < t.size(); i += 2) {
        if (i + 1 >= t.size()) return fail(i, "'" + t[i].text + "' needs a value");
        const std::string &w = t[i].text, &v = t[i + 1].text;
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
            return fail(i, "expected ge, le or eq, found '" + w + "'");
        }
    }
    if (saw_ge && !saw_le && !mask) le = max;  // "ge G": from G to the end
    out = {addr, len, ge, le};
    return true;
}

// Splits "{ a, b c, d }" (or a single item without braces) into items.
bool split_items(const std::vector<Token> &t, std::size_t from,
                 std::vector<std::vector<Token>> &items, PolicyError &err) {
    items.clear();
    if (from >= t.size()) return true;
    if (t[from].text != "{") {
        items.emplace_back(t.begin() + static_cast<long>(from), t.end());
        return true;
    }
    std::vector<Token> cur;
    std::size_t i = from + 1;
    for (; i < t.size() && t[i].text != "}"; ++i) {
        if (t[i].text == ",") {
            if (cur.empty()) {
                err = {0, t[i].column, "empty list entry"};
                return false;
            }
            items.push_back(std::move(cur));
            cur.clear();
        } else {
            cur.push_back(t[i]);
        }
    }
    if (i >= t.size()) {
        err = {0, t.back().column, "missing '}'"};
        return false;
    }
    if (cur.empty() && !items.empty()) {
        err = {0, t[i - 1].column, "empty list entry"};
        return false;
    }
    if (!cur.empty()) items.push_back(std::move(cur));
    if (i + 1 != t.size()) {
        err = {0, t[i + 1].column, "unexpected '" + t[i + 1].text + "' after '}'"};
        return false;
    }
    if (items.empty()) {
        err = {0, t[from].column, "empty list"};
        return false;
    }
    return true;
}

std::string join(const std::vector<Token> &t, std::size_t from) {
    std::string s;
    for (std::size_t i = from; i < t.size(); ++i)
        s += (i > from && t[i].text != "," ? " " : "") + t[i].text;
    return s;
}

// The parameter items of a condition, shaped after the argument-type list
// the framework holds for the operator.
bool condition_items(const std::vector<Token> &t, std::size_t from, const std::string &attr,
                     const std::string &op, std::vector<std::vector<std::string>> &out,
                     PolicyError &err) {
    out.clear();
    rasf_attr_t *a = kref_attr_find(attr.c_str());
    if (a == nullptr) {
        err = {0, t[1].column, "unknown attribute '" + attr + "'"};
        return false;
    }
    kref_op_info_t info{};
    if (kref_attr_op(a, KREF_CMP, op.c_str(), &info) != 0) {
        err = {0, t[2].column, "attribute '" + attr + "' has no operator '" + op + "'"};
        return false;
    }
    kref_arg_info_t first{};
    const bool open = kref_args_count(info.args) > 0 && kref_args_at(info.args, 0, &first) == 0 &&
                      first.kind == KREF_ARG_INFINITE;
    const std::size_t singles = open ? 0 : kref_args_count(info.args);
    std::vector<std::vector<Token>> items;
    if (!split_items(t, from, items, err)) return false;
    if (open && is_prefix_set_op(op)) {
        for (const auto &item : items) {
            std::vector<std::string> entry;
            if (!prefix_entry(item, entry, err)) return false;
            out.push_back(entry);
        }
    } else if (singles == 4 && op == "pfxmatch") {
        // Four constants written as one prefix entry.
        if (items.size() != 1) {
            err = {0, from < t.size() ? t[from].column : 0, "'" + op + "' takes one prefix entry"};
            return false;
        }
        std::vector<std::string> entry;
        if (!prefix_entry(items[0], entry, err)) return false;
        for (auto &text : entry) out.push_back({text});
    } else {
        for (const auto &item : items)
            for (const Token &w : item) out.push_back({w.text});
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

bool parse_policy(const std::string &text, Policy &policy, PolicyError &err) {
    std::istringstream in(text);
    std::string line;
    std::size_t n = 0;
    Rule *open = nullptr;
    bool saw_default = false;
    auto fail = [&](std::size_t col, const std::string &m) {
        err = {n, col, m};
        return false;
    };
    while (std::getline(in, line)) {
        ++n;
        const std::vector<Token> t = tokenize(line);
        if (t.empty()) continue;
        const std::string &kw = t[0].text;
        if (kw == "rule") {
            if (open != nullptr)
                return fail(t[0].column,
                            "rule '" + open->name + "' has no verdict (accept or reject)");
            if (saw_default) return fail(t[0].column, "rules must come before 'default'");
            if (t.size() < 2) return fail(t[0].column, "a rule needs a name");
            std::string name = t[1].text;
            if (!name.empty() && name.back() == ':') name.pop_back();
            if (t.size() > 2 && !(t.size() == 3 && t[2].text == ":"))
                return fail(t[2].column, "unexpected '" + t[2].text + "'");
            for (const Rule &r : policy.rules)
                if (r.name == name)
                    return fail(t[1].column, "rule '" + name + "' is defined twice");
            policy.rules.push_back(Rule{});
            open = &policy.rules.back();
            open->name = name;
            open->line = n;
        } else if (kw == "if") {
            if (open == nullptr) return fail(t[0].column, "'if' outside a rule");
            if (t.size() < 3)
                return fail(t[0].column, "expected: if ATTRIBUTE OPERATOR [PARAMETERS]");
            Condition c;
            c.line = n;
            c.column = t[0].column;
            c.attr = t[1].text;
            c.text = join(t, 1);
            if (c.attr == "track") {
                // if track NAME is STATE
                if (t.size() != 5 || t[3].text != "is")
                    return fail(t[1].column, "expected: if track NAME is up|down");
                c.op = "is";
                c.items = {{"track"}, {t[2].text}, {t[4].text}};
            } else {
                c.op = t[2].text;
                if (!condition_items(t, 3, c.attr, c.op, c.items, err)) {
                    err.line = n;
                    return false;
                }
                if (c.attr == "rib-has-route") policy.uses_rib = true;
            }
            open->conditions.push_back(std::move(c));
        } else if (kw == "set") {
            if (open == nullptr) return fail(t[0].column, "'set' outside a rule");
            if (t.size() < 3) return fail(t[0].column, "expected: set ATTRIBUTE [assign] VALUE");
            Action a;
            a.line = n;
            a.column = t[0].column;
            a.attr = t[1].text;
            a.setter = "assign";
            std::size_t v = 2;
            if (t[2].text == "assign") ++v;
            if (v + 1 != t.size())
                return fail(v < t.size() ? t[v].column : t.back().column, "expected one value");
            if (kref_attr_find(a.attr.c_str()) == nullptr)
                return fail(t[1].column, "unknown attribute '" + a.attr + "'");
            a.items = {{t[v].text}};
            a.text = join(t, 1);
            open->actions.push_back(std::move(a));
        } else if (kw == "accept" || kw == "reject") {
            if (open == nullptr) return fail(t[0].column, "'" + kw + "' outside a rule");
            if (t.size() > 1) return fail(t[1].column, "unexpected '" + t[1].text + "'");
            open->accept = kw == "accept";
            open = nullptr;
        } else if (kw == "default") {
            if (open != nullptr)
                return fail(t[0].column,
                            "rule '" + open->name + "' has no verdict (accept or reject)");
            if (t.size() != 2 || (t[1].text != "accept" && t[1].text != "reject"))
                return fail(t[0].column, "expected: default accept|reject");
            policy.default_accept = t[1].text == "accept";
            saw_default = true;
        } else {
            return fail(t[0].column,
                        "expected rule, if, set, accept, reject or default; found '" + kw + "'");
        }
    }
    if (open != nullptr) {
        err = {open->line, 1, "rule '" + open->name + "' has no verdict (accept or reject)"};
        return false;
    }
    return true;
}

namespace {

// Compiles one statement; the refusal names what was refused.
bool compile_one(const char *attr, kref_kind_t kind, const char *op, const char *location,
                 const std::vector<std::vector<std::string>> &items, std::size_t line,
                 std::size_t column, kref_stmt_t **out, PolicyError &err) {
    std::vector<std::vector<const char *>> texts;
    std::vector<kref_item_t> raw;
    texts.reserve(items.size());
    raw.reserve(items.size());
    for (const auto &item : items) {
        texts.emplace_back();
        for (const auto &w : item) texts.back().push_back(w.c_str());
    }
    for (const auto &t : texts) raw.push_back({static_cast<uint32_t>(t.size()), t.data()});
    char *msg = nullptr;
    const vogno st = kref_compile(attr, kind, op, location, raw.size(), raw.data(), &msg, out);
    if (st == 0) {
        std::free(msg);
        return true;
    }
    std::string m = std::string(attr) + " " + op + ": ";
    if (msg != nullptr && *msg != '\0') m += std::string(msg) + " ";
    char code[16];
    std::snprintf(code, sizeof code, "0x%08X", st);
    m += std::string("(") + vog_strerror(st) + ", status " + code + ")";
    std::free(msg);
    err = {line, column, m};
    return false;
}

}  // namespace

bool compile_policy(Policy &policy, const char *location, PolicyError &err) {
    for (Rule &r : policy.rules) {
        for (Condition &c : r.conditions)
            if (!compile_one(c.attr.c_str(), KREF_CMP, c.op.c_str(), location, c.items, c.line,
                             c.column, &c.stmt, err))
                return false;
        for (Action &a : r.actions)
            if (!compile_one(a.attr.c_str(), KREF_SET, a.setter.c_str(), location, a.items, a.line,
                             a.column, &a.stmt, err))
                return false;
    }
    return true;
}

}  // namespace kp
