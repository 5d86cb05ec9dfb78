// SPDX-License-Identifier: Apache-2.0
// The ordered parallel pipeline; see pipeline.hpp.
#include "pipeline.hpp"

#include <unistd.h>

#include <condition_variable>
#include <cstdio>
#include <deque>
#include <mutex>
#include <thread>

#include "lines.hpp"

namespace kp {

namespace {

constexpr std::size_t kBatchLines = 4096, kBatchBytes = 1 << 20;

// Reads the next batch of route lines; false at the end (check the
// reader's error).
bool read_batch(LineReader &in, Batch &b) {
    std::string_view line;
    while (b.lines.size() < kBatchLines && b.text.size() < kBatchBytes && in.next(line)) {
        if (skip_line(line)) continue;
        b.lines.push_back({b.text.size(), line.size(), in.line_number()});
        b.text.append(line);
    }
    return !b.lines.empty();
}

using Next = std::function<std::unique_ptr<Batch>()>;

// Evaluates the batches on `jobs` threads and hands them to `write` in
// input order; false when a write failed.
bool run_batches(unsigned jobs, const Next &next, const Work &work,
                 const std::function<bool(Batch &)> &write, bool &stopped) {
    bool ok = true;
    if (jobs <= 1) {
        while (std::unique_ptr<Batch> b = next()) {
            work(*b, 0);
            if (!write(*b)) return false;
            stopped = stopped || b->stopped;
            if (stopped) break;
        }
        return true;
    }
    std::mutex mu;
    std::condition_variable work_cv, done_cv;
    std::deque<Batch *> queue;
    std::deque<std::unique_ptr<Batch>> pending;  // in input order
    bool closing = false;
    std::vector<std::thread> threads;
    for (unsigned w = 0; w < jobs; ++w)
        threads.emplace_back([&, w] {
            for (;;) {
                Batch *b = nullptr;
                {
                    std::unique_lock<std::mutex> lock(mu);
                    work_cv.wait(lock, [&] { return closing || !queue.empty(); });
                    if (queue.empty()) return;
                    b = queue.front();
                    queue.pop_front();
                }
                work(*b, w);
                {
                    std::lock_guard<std::mutex> lock(mu);
                    b->done = true;
                }
                done_cv.notify_all();
            }
        });
    // Writes the finished batches at the front while more than `keep` are
    // pending, waiting for each.
    auto drain = [&](std::size_t keep) {
        for (;;) {
            std::unique_ptr<Batch> b;
            {
                std::unique_lock<std::mutex> lock(mu);
                if (pending.size() <= keep) return;
                done_cv.wait(lock, [&] { return pending.front()->done; });
                b = std::move(pending.front());
                pending.pop_front();
            }
            if (ok && !stopped) {
                ok = write(*b);
                stopped = b->stopped;
            }
        }
    };
    const std::size_t in_flight = 2 * static_cast<std::size_t>(jobs);
    while (ok && !stopped) {
        std::unique_ptr<Batch> b = next();
        if (!b) break;
        {
            std::lock_guard<std::mutex> lock(mu);
            queue.push_back(b.get());
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
    return ok;
}

}  // namespace

bool skip_line(std::string_view line) {
    const std::size_t first = line.find_first_not_of(" \t");
    return first == std::string_view::npos || line[first] == '#';
}

void RouteInput::parse(Batch &b) const {
    b.routes.resize(b.lines.size());
    b.state.assign(b.lines.size(), LineState::Malformed);
    for (std::size_t i = 0; i < b.lines.size(); ++i) {
        RouteError err;
        bool skip = false;
        if (parse_route(format, b.line(i), b.routes[i], err, skip)) {
            b.state[i] = skip ? LineState::NoRoute : LineState::Route;
            continue;
        }
        ++b.malformed;
        b.errors += rep->route_error(file, b.lines[i].number, err);
        if (strict) {
            b.stopped = true;
            b.lines.resize(i);  // nothing after the first malformed line
            break;
        }
    }
    b.parsed = true;
}

PipelineEnd run_pipeline(const Feed &feed, const RouteInput &input, unsigned jobs, bool progress,
                         const Work &work, const Write &write) {
    PipelineEnd end;
    LineReader in;
    std::deque<std::unique_ptr<Batch>> kept;
    Next next;
    if (feed.lines != nullptr) {
        auto b = std::make_unique<Batch>();
        for (std::size_t i = 0; i < feed.lines->size(); ++i) {
            b->lines.push_back({b->text.size(), (*feed.lines)[i].size(), i + 1});
            b->text += (*feed.lines)[i];
        }
        kept.push_back(std::move(b));
    } else {
        if (!in.open(feed.path)) {
            end.input_error = in.error();
            return end;
        }
        if (feed.read_first) {
            for (;;) {
                auto b = std::make_unique<Batch>();
                if (!read_batch(in, *b)) break;
                input.parse(*b);
                const bool stop = b->stopped;
                kept.push_back(std::move(b));
                if (stop) break;
            }
            if (!in.error().empty()) {
                end.input_error = in.error();
                return end;
            }
        } else {
            next = [&]() -> std::unique_ptr<Batch> {
                auto b = std::make_unique<Batch>();
                return read_batch(in, *b) ? std::move(b) : nullptr;
            };
        }
    }
    if (!next) {
        for (auto &b : kept) {
            if (!b->parsed) input.parse(*b);
            if (feed.read_first && feed.on_read)
                for (std::size_t i = 0; i < b->lines.size(); ++i)
                    if (b->state[i] == LineState::Route) feed.on_read(b->routes[i]);
        }
        next = [&]() -> std::unique_ptr<Batch> {
            if (kept.empty()) return nullptr;
            auto b = std::move(kept.front());
            kept.pop_front();
            return b;
        };
    }
    std::size_t lines_written = 0, last_shown = 0;
    auto written = [&](Batch &b) {
        if (!b.errors.empty()) std::fputs(b.errors.c_str(), stderr);
        if (!write(b)) return false;
        lines_written += b.lines.size();
        if (progress && lines_written - last_shown >= 65536) {
            last_shown = lines_written;
            std::fprintf(stderr, "\rkela-policy: %zu routes", lines_written);
        }
        return true;
    };
    auto parse_and_work = [&](Batch &b, unsigned w) {
        if (!b.parsed) input.parse(b);
        work(b, w);
    };
    end.output_failed = !run_batches(jobs, next, parse_and_work, written, end.stopped);
    if (progress && lines_written >= 65536) std::fprintf(stderr, "\n");
    if (!end.output_failed) end.input_error = in.error();
    return end;
}

}  // namespace kp
