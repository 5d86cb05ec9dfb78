// SPDX-License-Identifier: Apache-2.0
// List files: the entries of a named set read from a file in plain lines,
// IRR tools' prefix-list lines or `bgpq4 -j` JSON, each with its place in
// the file for messages.
#include <nlohmann/json.hpp>

#include "lines.hpp"
#include "syntax.hpp"

namespace kp {

namespace {

// Line and column of a byte offset of `text`.
Where where_in(const std::string &file, const std::string &text, std::size_t offset) {
    Where w{file, 1, 1};
    for (std::size_t i = 0; i < offset && i < text.size(); ++i) {
        if (text[i] == '\n') {
            ++w.line;
            w.column = 1;
        } else {
            ++w.column;
        }
    }
    return w;
}

}  // namespace

// A list file in JSON: `bgpq4 -j` output ({"NAME": [{"prefix": "10.0.0.0/8",
// "exact": false, "less-equal": 24}, ...]}), or an array of entries; an
// entry may also be a string written as in the policy, or a number.
bool json_list(const std::string &file, const std::string &text, ValueList &list,
               PolicyError &err) {
    using nlohmann::json;
    const char *at = text.data();
    // The start of each value at each depth, in document order.
    std::vector<std::pair<int, std::size_t>> starts;
    json::parser_callback_t cb = [&](int depth, json::parse_event_t ev, json &) {
        if (ev == json::parse_event_t::object_start || ev == json::parse_event_t::array_start)
            starts.emplace_back(depth, static_cast<std::size_t>(at - text.data()) - 1);
        else if (ev == json::parse_event_t::value)
            starts.emplace_back(depth, static_cast<std::size_t>(at - text.data()));
        return true;
    };
    json doc;
    auto fail_at = [&](std::size_t offset, const std::string &m) {
        const Where w = where_in(file, text, offset);
        err = {w.line, w.column, m, file, ""};
        return false;
    };
    try {
        doc = json::parse(TrackingIter{text.data(), &at},
                          TrackingIter{text.data() + text.size(), &at}, cb);
    } catch (const json::parse_error &e) {
        return fail_at(e.byte > 0 ? e.byte - 1 : 0, json_error_text(e.what()));
    }
    int depth = 1;
    const json *entries = &doc;
    if (doc.is_object()) {
        if (doc.size() != 1 || !doc.begin()->is_array())
            return fail_at(0, "expected an array of entries, or an object with one array");
        entries = &*doc.begin();
        depth = 2;
    }
    if (!entries->is_array()) return fail_at(0, "expected an array of entries");
    // Entry i starts at the i-th start recorded at the entries' depth.
    std::vector<std::size_t> offsets;
    for (const auto &[d, off] : starts)
        if (d == depth) offsets.push_back(off);
    std::size_t i = 0;
    for (const json &e : *entries) {
        const std::size_t off = i < offsets.size() ? offsets[i] : 0;
        ++i;
        const Where w = where_in(file, text, off);
        std::vector<Token> words;
        auto word = [&](std::string s) { words.push_back({std::move(s), w.line, w.column}); };
        if (e.is_string()) {
            int d = 0;
            words = tokenize(e.get<std::string>(), w.line, d);
            for (Token &t : words) t.column = w.column;
        } else if (e.is_number_unsigned()) {
            word(std::to_string(e.get<std::uint64_t>()));
        } else if (e.is_number()) {
            word(e.dump());
        } else if (e.is_object() && list.prefixes) {
            const auto p = e.find("prefix");
            if (p == e.end() || !p->is_string())
                return fail_at(off, "expected an entry with a \"prefix\" string");
            word(p->get<std::string>());
            const bool exact = e.value("exact", false);
            for (const auto &[key, name] :
                 {std::pair{"greater-equal", "ge"}, std::pair{"less-equal", "le"}}) {
                const auto v = e.find(key);
                if (v == e.end() || exact) continue;
                if (!v->is_number_unsigned())
                    return fail_at(off, std::string("\"") + key + "\" must be a number");
                word(name);
                word(std::to_string(v->get<std::uint64_t>()));
            }
        } else {
            return fail_at(off, list.prefixes ? "expected a prefix entry (object or string)"
                                              : "expected a value (number or string)");
        }
        if (words.empty()) return fail_at(off, "empty entry");
        PolicyError perr;
        if (list.prefixes) {
            std::vector<std::string> entry;
            if (!prefix_entry(words, entry, perr)) return fail_at(off, perr.message);
            list.items.push_back(std::move(entry));
        } else {
            if (words.size() != 1) return fail_at(off, "one value per entry");
            list.items.push_back({words[0].text});
        }
        list.shown.push_back(join(words, 0, words.size()));
        list.where.push_back(w);
    }
    return true;
}

// A plain list file: one entry per line ("10.0.0.0/8 le 24", a value), '#'
// comments; the prefix-list lines that IRR tools print ("ip prefix-list
// NAME [seq N] permit 10.0.0.0/8 le 24") are read too.
bool plain_list(const std::string &file, const std::string &text, ValueList &list,
                PolicyError &err) {
    bool ok = true;
    for_each_line(text, [&](std::string_view line, std::size_t n) {
        int depth = 1;  // commas separate values, as inside braces
        std::vector<Token> t = tokenize(line, n, depth);
        std::size_t from = 0;
        if (t.size() >= 2 && (t[0].text == "ip" || t[0].text == "ipv6") &&
            t[1].text == "prefix-list") {
            from = 3;
            if (from < t.size() && t[from].text == "seq") from += 2;
            if (from >= t.size()) return true;  // "no ip prefix-list NAME" and the like
            if (t[from].text != "permit") {
                err = located(t[from],
                              "only 'permit' entries can be read, found " + quote(t[from].text));
                err.file = file;
                return ok = false;
            }
            ++from;
        } else if (!t.empty() && t[0].text == "no") {
            return true;
        }
        t.erase(t.begin(), t.begin() + static_cast<long>(std::min(from, t.size())));
        if (t.empty()) return true;
        if (list.prefixes) {
            std::vector<std::string> entry;
            if (!prefix_entry(t, entry, err)) {
                err.file = file;
                return ok = false;
            }
            list.items.push_back(std::move(entry));
            list.shown.push_back(join(t, 0, t.size()));
            list.where.push_back({file, n, t[0].column});
        } else {
            for (const Token &w : t) {
                if (w.text == ",") continue;
                list.items.push_back({w.text});
                list.shown.push_back(w.text);
                list.where.push_back({file, n, w.column});
            }
        }
        return true;
    });
    return ok;
}

}  // namespace kp
