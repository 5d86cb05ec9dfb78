// SPDX-License-Identifier: Apache-2.0
// Test hooks: call trace, fault injection, log capture.  Inactive hooks cost
// one atomic load per platform call.
#include <cstdio>
#include <cstring>
#include <deque>

#include "kela_ref_hooks.h"
#include "ref_internal.hpp"

namespace {

struct ArmedFault {
    std::string op;
    std::uint32_t remaining;
    vogno status;
    bool after;
};

struct Hooks {
    std::mutex mu;
    std::atomic<bool> tracing{false};
    std::atomic<bool> faults_armed{false};
    std::atomic<bool> capturing{false};
    // Deques: a line handed out by kref_trace_at / kref_log_at must not move
    // when later lines are added (short lines live inside the std::string).
    std::deque<std::string> trace;
    std::vector<ArmedFault> faults;
    std::deque<std::string> log;
};

Hooks &hooks() {
    static Hooks *h = new Hooks;  // lives until exit; used from destructors too
    return *h;
}

std::string format_call(const char *op, std::initializer_list<kref::Arg> args) {
    std::string line = op;
    line += '(';
    bool first = true;
    for (const kref::Arg &a : args) {
        if (!first) line += ", ";
        first = false;
        if (const char *const *t = std::get_if<const char *>(&a))
            line += *t != nullptr ? *t : "(null)";
        else
            line += std::to_string(std::get<std::int64_t>(a));
    }
    line += ')';
    return line;
}

void arm(const char *op, std::uint32_t nth, vogno status, bool after) {
    if (op == nullptr || nth == 0) return;
    Hooks &h = hooks();
    std::lock_guard lock(h.mu);
    h.faults.push_back({op, nth, status, after});
    h.faults_armed = true;
}

}  // namespace

namespace kref {

Fault enter(const char *op, std::initializer_list<Arg> args) {
    Hooks &h = hooks();
    if (!h.tracing.load(std::memory_order_relaxed) &&
        !h.faults_armed.load(std::memory_order_relaxed))
        return {};
    std::lock_guard lock(h.mu);
    if (h.tracing) h.trace.push_back(format_call(op, args));
    Fault fired;
    for (auto it = h.faults.begin(); it != h.faults.end();) {
        if (it->op == op && --it->remaining == 0) {
            if (!fired.fire) fired = {true, it->after, it->status};
            it = h.faults.erase(it);
        } else {
            ++it;
        }
    }
    h.faults_armed = !h.faults.empty();
    return fired;
}

void log_line(const std::string &line) {
    Hooks &h = hooks();
    if (h.capturing.load(std::memory_order_relaxed)) {
        std::lock_guard lock(h.mu);
        if (h.capturing) {  // capture may have stopped meanwhile
            h.log.push_back(line);
            return;
        }
    }
    std::fprintf(stderr, "%s\n", line.c_str());
}

}  // namespace kref

extern "C" {

void kref_trace_start(void) {
    Hooks &h = hooks();
    std::lock_guard lock(h.mu);
    h.trace.clear();
    h.tracing = true;
}

void kref_trace_stop(void) {
    hooks().tracing = false;
}

size_t kref_trace_count(void) {
    Hooks &h = hooks();
    std::lock_guard lock(h.mu);
    return h.trace.size();
}

const char *kref_trace_at(size_t i) {
    Hooks &h = hooks();
    std::lock_guard lock(h.mu);
    return i < h.trace.size() ? h.trace[i].c_str() : nullptr;
}

void kref_fault_set(const char *op, uint32_t nth, vogno status) {
    arm(op, nth, status, false);
}
void kref_fault_set_after(const char *op, uint32_t nth, vogno status) {
    arm(op, nth, status, true);
}

void kref_fault_clear(void) {
    Hooks &h = hooks();
    std::lock_guard lock(h.mu);
    h.faults.clear();
    h.faults_armed = false;
}

size_t kref_fault_pending(void) {
    Hooks &h = hooks();
    std::lock_guard lock(h.mu);
    return h.faults.size();
}

void kref_log_capture(int on) {
    Hooks &h = hooks();
    std::lock_guard lock(h.mu);
    h.log.clear();
    h.capturing = on != 0;
}

size_t kref_log_count(void) {
    Hooks &h = hooks();
    std::lock_guard lock(h.mu);
    return h.log.size();
}

const char *kref_log_at(size_t i) {
    Hooks &h = hooks();
    std::lock_guard lock(h.mu);
    return i < h.log.size() ? h.log[i].c_str() : nullptr;
}

}  // extern "C"
