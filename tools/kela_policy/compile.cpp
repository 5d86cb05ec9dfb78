// SPDX-License-Identifier: Apache-2.0
// Compilation of a parsed policy: each condition and action through the
// reference framework (the library's verifiers and constructors), with a
// plain-language note beside a refusal and warnings for numbers the
// library would wrap.
#include <cstdio>
#include <cstdlib>
#include <unordered_set>

#include "kela_shared.h"
#include "lines.hpp"
#include "policy.hpp"
#include "route.hpp"
#include "vog.h"

namespace kp {

namespace {

// A plain-language explanation of a verifier's message, beside the
// library's own text.
std::string plain_note(const std::string &attr, const std::string &op, const std::string &msg,
                       vogno st, const char *location) {
    auto has = [&](const char *s) { return msg.find(s) != std::string::npos; };
    if (st == KREF_ERR_LOCATION)
        return quote(attr) + " cannot be used at '" + location + "' (see --at)";
    if (op == "assign" && (attr == "destination" || attr == "nexthop"))
        return "'set " + attr + "' takes an address without a length";
    if (has("Type not supported at this attachpoint") ||
        (msg.empty() && st == KEL_SHARED_ERR_BAD_VALUE)) {
        if (attr == "community") return "a community is AS:N, both numbers from 0 to 65535";
        if (attr == "origin") return "origin is igp, egp or incomplete";
        if (attr == "flags")
            return "flags are blackhole, no-export, no-advertise, graceful-shutdown, joined by ','";
        if (integer_bits(attr) != 0) return quote(attr) + " takes whole decimal numbers";
        return "a value is not one that " + quote(attr) + " accepts";
    }
    if (has("Must be a number")) return quote(attr) + " takes a whole decimal number";
    if (has("Requires exactly one parameter")) return quote(op) + " takes exactly one value";
    if (has("Bits set outside of mask"))
        return "the address has bits set beyond the prefix length; write the network address";
    if (has("Invalid prefix match parameters"))
        return "an entry needs length <= ge <= le <= 32 (128 for IPv6)";
    if (has("does not support gaps"))
        return "'in' takes entries whose range starts at their own length (A/L or A/L le N)";
    if (has("does not support prefix ranges")) return "'async' takes exact prefixes only (A/L)";
    if (has("length of track name")) return "a tracked object's name has at most 32 characters";
    if (has("wrong track status")) return "the state is 'up' or 'down', in lower case";
    if (st == KEL_SHARED_ERR_BAD_VALUE)
        return "the text is not a valid value for " + quote(attr) + " " + quote(op);
    return {};
}

// Numbers the library's converter would wrap (a minus sign) or truncate
// (above 32 bits) instead of refusing.
void check_numbers(const std::string &attr, const std::vector<std::vector<std::string>> &items,
                   const std::vector<Where> *where, const Where &at,
                   std::vector<Diagnostic> &warnings) {
    const unsigned bits = integer_bits(attr);
    if (bits == 0) return;
    for (std::size_t i = 0; i < items.size(); ++i) {
        for (const std::string &text : items[i]) {
            const std::size_t digits = !text.empty() && (text[0] == '+' || text[0] == '-');
            if (digits >= text.size() ||
                text.find_first_not_of("0123456789", digits) != std::string::npos)
                continue;
            const bool negative = text[0] == '-';
            std::string num = text.substr(digits);
            num.erase(0, std::min(num.find_first_not_of('0'), num.size()));
            const bool wide = num.size() > 10 || (num.size() == 10 && num > "4294967295");
            if (!negative && !wide) continue;
            uint32_t v = 0;
            if (shared_kela_uint32_cvt_string(text.c_str(), nullptr, 1, &v) != 0) continue;
            const std::string max = bits == 32 ? "4294967295" : std::to_string((1ull << bits) - 1);
            warnings.push_back({where != nullptr && i < where->size() ? (*where)[i] : at,
                                quote(text)
                                    .append(" is outside ")
                                    .append(attr)
                                    .append("'s range 0 - ")
                                    .append(max)
                                    .append(": the library reads it as ")
                                    .append(std::to_string(v)),
                                ""});
        }
    }
}

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
    const std::string text = msg != nullptr ? msg : "";
    std::free(msg);
    std::string m = std::string(attr) + " " + op + ": ";
    if (!text.empty()) m += text + " ";
    char code[16];
    std::snprintf(code, sizeof code, "0x%08X", st);
    m += std::string("(") + vog_strerror(st) + ", status " + code + ")";
    err = {line, column, m, "", plain_note(attr, op, text, st, location)};
    return false;
}

}  // namespace

bool compile_policy(Policy &policy, const char *location, PolicyError &err) {
    for (Rule &r : policy.rules) {
        for (Condition &c : r.conditions) {
            const Where at{"", c.line, c.column};
            if (c.list && c.list->name.empty())
                check_numbers(c.attr, c.list->items, &c.list->where, at, policy.warnings);
            else if (!c.list)
                check_numbers(c.attr, c.items, nullptr, at, policy.warnings);
            if (!compile_one(c.attr.c_str(), KREF_CMP, c.op.c_str(), location, c.params(), c.line,
                             c.column, &c.stmt, err))
                return false;
        }
        for (Action &a : r.actions) {
            check_numbers(a.attr, a.items, nullptr, {"", a.line, a.column}, policy.warnings);
            if (!compile_one(a.attr.c_str(), KREF_SET, a.setter.c_str(), location, a.items, a.line,
                             a.column, &a.stmt, err))
                return false;
        }
    }
    // A named value set is checked once, against the first attribute using it.
    std::unordered_set<const ValueList *> checked;
    for (Rule &r : policy.rules)
        for (Condition &c : r.conditions)
            if (c.list && !c.list->name.empty() && checked.insert(c.list.get()).second)
                check_numbers(c.attr, c.list->items, &c.list->where, {}, policy.warnings);
    return true;
}

}  // namespace kp
