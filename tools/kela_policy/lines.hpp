// SPDX-License-Identifier: Apache-2.0
// Line input of kela-policy, and the quoting of input in messages.  Files, pipes, FIFOs and
// standard input are read once, front to back, through read(2): a read error is reported as an
// error instead of looking like the end of the input, and nothing is ever read a second time (a
// pipe could not give it again).  LF, CR LF and a lone CR all end a line, so files from any system
// read as lines.
#pragma once

#include <cstddef>
#include <iterator>
#include <string>
#include <string_view>
#include <vector>

namespace kp {

// Calls f(line, number) for each line of text already in memory, with the
// same line endings as LineReader; f returns false to stop.
template <class F>
void for_each_line(std::string_view text, F &&f) {
    std::size_t n = 0, at = 0;
    while (at < text.size()) {
        std::size_t end = text.find_first_of("\r\n", at);
        if (end == std::string_view::npos) end = text.size();
        if (!f(text.substr(at, end - at), ++n)) return;
        if (end == text.size()) break;
        at = end + 1;
        if (text[end] == '\r' && at < text.size() && text[at] == '\n') ++at;
    }
}

// Input without end (/dev/zero, an endless pipe) is refused at this bound:
// a line longer, or a file read whole (a policy, a list file, a case file)
// larger, ends the read with an error.
constexpr std::size_t kInputBound = std::size_t{128} << 20;

class LineReader {
  public:
    LineReader() = default;
    LineReader(const LineReader &) = delete;
    LineReader &operator=(const LineReader &) = delete;
    ~LineReader();

    // Opens `path` ("-" is standard input); false with error() set.
    bool open(const std::string &path);
    // The next line without its ending, valid until the next call; false at
    // the end of the input or on a read error (error() is then set).
    bool next(std::string_view &line);
    // Empty unless opening or reading failed: "cannot read PATH: REASON".
    const std::string &error() const { return error_; }
    std::size_t line_number() const { return number_; }

  private:
    bool fill();
    bool fail(int err);

    std::string path_;
    int fd_ = -1;
    bool own_ = false, eof_ = false;
    std::vector<char> buf_;
    std::size_t begin_ = 0, end_ = 0, number_ = 0;
    std::string error_;
};

// Texts of the input quoted in messages are cut to this many bytes:
// "'TEXT'" or "'TEXT...' (N bytes)".
constexpr std::size_t kQuoteMax = 64;
std::string quote(std::string_view text);

// The JSON library's error text without its prefix, and the input it
// quotes cut to a bounded length.
std::string json_error_text(const std::string &what);

// An input iterator over text in memory that reports how far the JSON
// reader has read, so that a value's place in its line or file is known.
struct TrackingIter {
    using iterator_category = std::input_iterator_tag;
    using value_type = char;
    using difference_type = std::ptrdiff_t;
    using pointer = const char *;
    using reference = const char &;
    const char *p;
    const char **at;
    reference operator*() const { return *p; }
    TrackingIter &operator++() {
        *at = ++p;
        return *this;
    }
    TrackingIter operator++(int) {
        TrackingIter t = *this;
        ++*this;
        return t;
    }
    bool operator==(const TrackingIter &o) const { return p == o.p; }
    bool operator!=(const TrackingIter &o) const { return p != o.p; }
};

// Reads a whole file ("-": standard input) of at most kInputBound bytes;
// false with `error` set.
bool read_all(const std::string &path, std::string &out, std::string &error);

}  // namespace kp
