// SPDX-License-Identifier: Apache-2.0
// The ordered parallel pipeline: route lines are read in batches on the
// main thread, parsed and evaluated by N workers, and the batches' output
// is written in input order.  The routes come from a file, pipe or FIFO
// read once as they come, or (for eval) from the command line; when every
// route must be known before the first is evaluated (the routes are the
// routing table), every batch is read and parsed first.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "route_io.hpp"
#include "writers.hpp"

namespace kp {

// What a line of the input turned out to be.
enum class LineState : signed char { Malformed, Route, NoRoute };

struct Batch {
    struct Line {
        std::size_t at, len, number;
    };
    std::string text;
    std::vector<Line> lines;
    std::vector<Route> routes;
    std::vector<LineState> state;
    bool parsed = false, stopped = false, done = false;
    std::string out, errors;  // the batch's output and its route errors
    std::size_t malformed = 0;
    std::string_view line(std::size_t i) const {
        return std::string_view(text).substr(lines[i].at, lines[i].len);
    }
};

// A blank line or a comment.
bool skip_line(std::string_view line);

// How route lines are parsed and their errors reported.
struct RouteInput {
    Format format = Format::Auto;
    bool strict = false;  // the first malformed line ends the batch and the run
    std::string file;     // named in error messages
    const Reporter *rep = nullptr;
    void parse(Batch &b) const;
};

struct Feed {
    std::string path;                                 // "-": standard input
    const std::vector<std::string> *lines = nullptr;  // instead of a file
    bool read_first = false;                     // read and parse every batch before evaluating
    std::function<void(const Route &)> on_read;  // with read_first, each route read
};

// Evaluates a batch (parsing it first if needed) on worker `worker`.
using Work = std::function<void(Batch &, unsigned worker)>;
// Takes the finished batches in input order; false: the output failed.
using Write = std::function<bool(Batch &)>;

struct PipelineEnd {
    std::string input_error;     // reading the routes failed
    bool output_failed = false;  // a Write said so
    bool stopped = false;        // --strict met a malformed line
};

PipelineEnd run_pipeline(const Feed &feed, const RouteInput &input, unsigned jobs, bool progress,
                         const Work &work, const Write &write);

}  // namespace kp
