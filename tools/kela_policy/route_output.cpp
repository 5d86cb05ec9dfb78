// SPDX-License-Identifier: Apache-2.0
// Route output: a route's destination as text, and the input line written
// back in its own form with the attributes a policy changed.
#include <arpa/inet.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <iterator>
#include <nlohmann/json.hpp>

#include "route_io.hpp"

namespace kp {

namespace {

// Decimal digits of n (below 1000) at p; returns the end.
char *put_decimal(char *p, unsigned n) {
    if (n >= 100) *p++ = static_cast<char>('0' + n / 100);
    if (n >= 10) *p++ = static_cast<char>('0' + n / 10 % 10);
    *p++ = static_cast<char>('0' + n % 10);
    return p;
}

// The field name of an attribute in the text and JSON forms; null when the

void changed_text(std::string &out, std::string_view line, const std::vector<Change> &changes) {
    std::vector<bool> done(changes.size());
    std::size_t at = 0;
    bool first = true;
    while (at < line.size()) {
        while (at < line.size() && std::isspace(static_cast<unsigned char>(line[at]))) ++at;
        if (at >= line.size()) break;
        const std::size_t start = at;
        while (at < line.size() && !std::isspace(static_cast<unsigned char>(line[at]))) ++at;
        std::string_view token = line.substr(start, at - start);
        const std::string_view key = token.substr(0, token.find('='));
        out += first ? "" : " ";
        first = false;
        bool replaced = false;
        for (std::size_t i = 0; i < changes.size() && !replaced; ++i) {
            const char *name = fields::name_of(changes[i].attr);
            if (name == nullptr || fields::of(key) != fields::of(name)) continue;
            out.append(key);
            out += '=';
            out += changes[i].after;
            done[i] = replaced = true;
        }
        if (!replaced) out.append(token);
    }
    for (std::size_t i = 0; i < changes.size(); ++i)
        if (!done[i] && fields::name_of(changes[i].attr) != nullptr)
            out += std::string(first ? "" : " ") + fields::name_of(changes[i].attr) + "=" +
                   changes[i].after;
}

void changed_json(std::string &out, std::string_view line, const std::vector<Change> &changes) {
    nlohmann::ordered_json j = nlohmann::ordered_json::parse(line.begin(), line.end());
    for (const Change &c : changes) {
        const char *name = fields::name_of(c.attr);
        if (name == nullptr) continue;
        std::string key = name;
        for (const auto &item : j.items())
            if (fields::of(item.key()) == fields::of(name)) key = item.key();
        if (integer_bits(c.attr) != 0)
            j[key] = std::stoull(c.after);
        else
            j[key] = c.after;
    }
    out += j.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

void changed_bgpdump(std::string &out, std::string_view line, const std::vector<Change> &changes) {
    std::vector<std::string> f;
    for (std::string_view v : fields::split_bars(line)) f.emplace_back(v);
    auto bare = [](const std::string &prefix) { return prefix.substr(0, prefix.find('/')); };
    for (const Change &c : changes) {
        if (f.size() < fields::kBarCount) break;
        if (c.attr == "destination") {
            f[fields::kBarPrefix] = c.after;
        } else if (c.attr == "nexthop") {
            f[fields::kBarNexthop] = bare(c.after);
        } else if (c.attr == "local-pref") {
            f[fields::kBarLocalPref] = c.after;
        } else if (c.attr == "metric") {
            f[fields::kBarMed] = c.after;
        } else if (c.attr == "origin") {
            f[fields::kBarOrigin] = c.after;
            for (char &ch : f[fields::kBarOrigin])
                ch = static_cast<char>(std::toupper(static_cast<unsigned char>(ch)));
        } else if (c.attr == "community") {
            // The route's standard communities become the new ones, where
            // the first of them stood; well-known and large ones stay.
            std::string kept, &comms = f[fields::kBarCommunities];
            bool placed = false;
            auto put = [&](std::string_view word) {
                kept += (kept.empty() ? "" : " ") + std::string(word);
            };
            auto place = [&] {
                std::string list = c.after;
                std::replace(list.begin(), list.end(), ',', ' ');
                put(list);
                placed = true;
            };
            std::size_t at = 0;
            while (at < comms.size()) {
                const std::size_t end = std::min(comms.find(' ', at), comms.size());
                const std::string_view word = std::string_view(comms).substr(at, end - at);
                at = end + 1;
                if (word.empty()) continue;
                const bool standard =
                    std::count(word.begin(), word.end(), ':') == 1 &&
                    parse_community(std::string(word).c_str(), nullptr, 1, nullptr) == 0 &&
                    std::none_of(std::begin(fields::kWellKnown), std::end(fields::kWellKnown),
                                 [&](const auto &w) { return word == w.text; });
                if (!standard)
                    put(word);
                else if (!placed)
                    place();
            }
            if (!placed) place();
            comms = kept;
        } else if (c.attr == "flags") {
            std::uint64_t before = 0, after = 0;
            parse_flags(c.before.c_str(), nullptr, &before);
            parse_flags(c.after.c_str(), nullptr, &after);
            for (const auto &w : fields::kWellKnown)
                if ((after & ~before & w.flag) != 0) {
                    f[fields::kBarCommunities] +=
                        (f[fields::kBarCommunities].empty() ? "" : " ") + std::string(w.text);
                    before |= w.flag;
                }
        }
    }
    for (std::size_t i = 0; i < f.size(); ++i) out += (i ? "|" : "") + f[i];
}

}  // namespace

void append_changed_route(std::string &out, std::string_view line, Format format,
                          const std::vector<Change> &changes) {
    switch (line_format(line, format)) {
        case Format::Json:
            changed_json(out, line, changes);
            break;
        case Format::Bgpdump:
            changed_bgpdump(out, line, changes);
            break;
        default:
            changed_text(out, line, changes);
    }
    out += '\n';
}

void append_destination(std::string &out, const Route &r) {
    const Prefix &p = r.destination;
    if (p.family == 0) {
        out += '-';
        return;
    }
    // Every route's verdict line starts with this: IPv4 is written by hand,
    // as the C library's formatting costs more than the policy itself.
    char buf[64];
    char *end = buf;
    if (p.family == kIPv4) {
        for (int i = 0; i < 4; ++i) {
            if (i != 0) *end++ = '.';
            end = put_decimal(end, p.addr[i]);
        }
    } else {
        inet_ntop(AF_INET6, p.addr, buf, sizeof buf);
        end = buf + std::strlen(buf);
    }
    *end++ = '/';
    end = put_decimal(end, p.len);
    out.append(buf, end);
}

std::string destination_text(const Route &r) {
    std::string out;
    append_destination(out, r);
    return out;
}

}  // namespace kp
