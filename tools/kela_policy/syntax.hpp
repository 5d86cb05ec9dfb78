// SPDX-License-Identifier: Apache-2.0
// What the policy parser and the list-file readers share: the tokens of a
// line and the reading of one prefix entry.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "policy.hpp"

namespace kp {

struct Token {
    std::string text;
    std::size_t line = 0, column = 0;  // column 1-based
    bool quoted = false;               // written in double quotes
    bool newline = false;              // a line break inside braces
};

// Words, quoted texts, and the punctuation of lists as tokens of their own.
// `depth` carries the brace depth from line to line.
std::vector<Token> tokenize(std::string_view line, std::size_t n, int &depth);
// The tokens from..to as one text, for messages and --explain.
std::string join(const std::vector<Token> &t, std::size_t from, std::size_t to);
PolicyError located(const Token &t, std::string m);
// One prefix entry as the four texts the operators take: address, length
// (or wildcard mask), ge, le.
bool prefix_entry(const std::vector<Token> &t, std::vector<std::string> &out, PolicyError &err);
// Host bits in a length-form entry: the entry then matches no route, which
// the library accepts without a word.
void check_host_bits(const std::vector<std::string> &entry, const Where &w,
                     std::vector<Diagnostic> &warnings);

// The entries of a list file: JSON (`bgpq4 -j`, or an array) or plain
// lines (entries, or `ip prefix-list` lines); false with `err` set.
bool json_list(const std::string &file, const std::string &text, ValueList &list, PolicyError &err);
bool plain_list(const std::string &file, const std::string &text, ValueList &list,
                PolicyError &err);

}  // namespace kp
