// SPDX-License-Identifier: Apache-2.0
// Line input of kela-policy through read(2); see lines.hpp.
#include "lines.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace kp {

namespace {
constexpr std::size_t kChunk = 1 << 20;
}

LineReader::~LineReader() {
    if (own_ && fd_ >= 0) ::close(fd_);
}

bool LineReader::fail(int err) {
    error_ = "cannot read " + path_ + ": " + std::strerror(err);
    return false;
}

bool LineReader::open(const std::string &path) {
    path_ = path;
    if (path == "-") {
        fd_ = STDIN_FILENO;
    } else {
        // O_NONBLOCK is not used: a FIFO waits for its writer, as a shell
        // redirection would.
        fd_ = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd_ < 0) return fail(errno);
        own_ = true;
    }
    buf_.resize(kChunk);
    return true;
}

// Reads more input behind what is held; false at the end or on an error.
bool LineReader::fill() {
    if (eof_) return false;
    if (begin_ > 0) {
        std::memmove(buf_.data(), buf_.data() + begin_, end_ - begin_);
        end_ -= begin_;
        begin_ = 0;
    }
    if (end_ == buf_.size()) {  // one line longer than the buffer
        if (buf_.size() >= kInputBound) {
            eof_ = true;
            error_ = "cannot read " + path_ + ": a line longer than " +
                     std::to_string(kInputBound >> 20) + " MiB (input without end?)";
            return false;
        }
        buf_.resize(buf_.size() * 2);
    }
    for (;;) {
        const ssize_t n = ::read(fd_, buf_.data() + end_, buf_.size() - end_);
        if (n > 0) {
            end_ += static_cast<std::size_t>(n);
            return true;
        }
        if (n == 0) {
            eof_ = true;
            return false;
        }
        if (errno != EINTR) {
            eof_ = true;
            return fail(errno);
        }
    }
}

bool LineReader::next(std::string_view &line) {
    if (!error_.empty()) return false;
    std::size_t scanned = begin_;
    for (;;) {
        const char *base = buf_.data();
        const void *hit = nullptr;
        for (std::size_t i = scanned; i < end_; ++i)
            if (base[i] == '\n' || base[i] == '\r') {
                hit = base + i;
                break;
            }
        if (hit != nullptr) {
            const std::size_t at = static_cast<const char *>(hit) - base;
            // A CR at the end of what is held may be the first half of CR LF.
            if (base[at] == '\r' && at + 1 == end_ && !eof_) {
                scanned = at - begin_;
                if (!fill() && !error_.empty()) return false;
                scanned += begin_;
                continue;
            }
            line = std::string_view(base + begin_, at - begin_);
            begin_ = at + 1;
            if (base[at] == '\r' && begin_ < end_ && base[begin_] == '\n') ++begin_;
            ++number_;
            return true;
        }
        const std::size_t held = end_ - begin_;
        if (!fill()) {
            if (!error_.empty()) return false;
            if (begin_ == end_) return false;
            line = std::string_view(buf_.data() + begin_, end_ - begin_);  // no final newline
            begin_ = end_;
            ++number_;
            return true;
        }
        scanned = begin_ + held;
    }
}

std::string quote(std::string_view text) {
    if (text.size() <= kQuoteMax) return "'" + std::string(text) + "'";
    return "'" + std::string(text.substr(0, kQuoteMax)) + "...' (" + std::to_string(text.size()) +
           " bytes)";
}

std::string json_error_text(const std::string &what) {
    // "[json.exception.parse_error.101] parse error at line 1, column 9:
    // syntax error ...; last read: '...'; expected ..." keeps what follows
    // the position.
    std::string m = what;
    if (const std::size_t c = m.find(": "); c != std::string::npos) m.erase(0, c + 2);
    const std::string mark = "last read: '";
    const std::size_t from = m.find(mark);
    if (from != std::string::npos) {
        const std::size_t start = from + mark.size();
        const std::size_t end = m.find("'; ", start);
        const std::size_t len = (end == std::string::npos ? m.size() : end) - start;
        if (len > kQuoteMax) m.replace(start + kQuoteMax, len - kQuoteMax, "...");
    }
    return m;
}

bool read_all(const std::string &path, std::string &out, std::string &error) {
    LineReader in;
    if (!in.open(path)) {
        error = in.error();
        return false;
    }
    out.clear();
    std::string_view line;
    while (in.next(line)) {
        if (out.size() + line.size() >= kInputBound) {
            error = "cannot read " + path + ": more than " + std::to_string(kInputBound >> 20) +
                    " MiB (input without end?)";
            return false;
        }
        out.append(line);
        out += '\n';
    }
    error = in.error();
    return error.empty();
}

}  // namespace kp
