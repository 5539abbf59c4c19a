// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// The library's log: printf-style lines to the host's sink, the system log, or nowhere.
#include "auth_engine/AuthLogger.h"

#include <syslog.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "common/LogSwitch.h"

namespace auth_engine {
namespace {

// Both levels go to syslog with priority 3: info-level lines are deliberately logged at error
// priority.
constexpr int kLogPriority = LOG_ERR;

using Sink = std::function<void(int, const std::string&)>;

// Where lines go. Read without the lock on every line, so that a null sink costs one load; a line
// racing with a change goes to either the old or the new destination.
enum Destination : int { TO_SYSLOG = 0, TO_SINK = 1, TO_NOWHERE = 2 };
std::atomic<int> destination{TO_SYSLOG};

std::mutex& sinkMutex() {
    static std::mutex mutex;
    return mutex;
}

// Held as a shared_ptr so that a line being written keeps its sink alive while setSink swaps it.
std::shared_ptr<const Sink>& sinkSlot() {
    static std::shared_ptr<const Sink> slot;
    return slot;
}

std::shared_ptr<const Sink> currentSink() {
    std::lock_guard<std::mutex> lock(sinkMutex());
    return sinkSlot();
}

// Sets a flag for the lifetime of a scope and restores it after, also when the scope is left by a
// throw.
struct MarkBusy {
    explicit MarkBusy(bool& flag) : flag(flag), previous(flag) { flag = true; }
    ~MarkBusy() { flag = previous; }
    MarkBusy(const MarkBusy&) = delete;
    MarkBusy& operator=(const MarkBusy&) = delete;
    bool& flag;
    const bool previous;
};

bool discarding() {
    return destination.load(std::memory_order_acquire) == TO_NOWHERE;
}

// Kept out of line: its buffer and stack guard would otherwise be set up by every logging call,
// including the ones a null sink drops at once.
__attribute__((noinline)) void emit(const char* format, va_list args) {
    const int where = destination.load(std::memory_order_acquire);
    if (where == TO_NOWHERE) {
        return;
    }
    const std::shared_ptr<const Sink> sink = where == TO_SINK ? currentSink() : nullptr;
    if (!sink) {
        vsyslog(kLogPriority, format, args);
        return;
    }
    // Lines are formatted into a per-thread text that keeps its capacity, so that a sink costs one
    // formatting pass and no allocation for lines of ordinary length. A sink that logs in turn
    // (which it should not) gets a text of its own instead of overwriting the one it was handed.
    thread_local std::string reused;
    thread_local bool reusedBusy = false;
    std::string nested;
    std::string& line = reusedBusy ? nested : reused;
    char buffer[512];
    va_list retry;
    va_copy(retry, args);
    const int length = std::vsnprintf(buffer, sizeof(buffer), format, args);
    if (length < 0) {
        va_end(retry);
        return;
    }
    if (static_cast<size_t>(length) < sizeof(buffer)) {
        line.assign(buffer, static_cast<size_t>(length));
    } else {
        line.assign(static_cast<size_t>(length) + 1, '\0');
        // The length is known from the first pass; this one cannot come out shorter.
        (void)std::vsnprintf(&line[0], line.size(), format, retry);
        line.resize(static_cast<size_t>(length));
    }
    va_end(retry);
    const MarkBusy busy(reusedBusy);
    (*sink)(kLogPriority, line);
}

// Both levels are written alike; a null sink stops a line here, before the out-of-line formatting.
inline void emitUnlessDiscarding(const char* format, va_list args) {
    if (!discarding()) {
        emit(format, args);
    }
}

}  // namespace

bool logLinesWanted() {
    return !discarding();
}

void AuthLogger::info(const char* format, ...) {
    va_list args;
    va_start(args, format);
    emitUnlessDiscarding(format, args);
    va_end(args);
}

void AuthLogger::error(const char* format, ...) {
    va_list args;
    va_start(args, format);
    emitUnlessDiscarding(format, args);
    va_end(args);
}

const char* AuthLogger::authResultToString(AuthResult result) {
    switch (result) {
        case SUCCESS:
            return "SUCCESS";
        case FAILED:
            return "FAILED";
        case ASYNC_PENDING:
            return "ASYNC_PENDING";
        case CONTINUE:
            return "CONTINUE";
        case IGNORED:
            return "IGNORED";
        default:
            return "UNKNOWN";
    }
}

void AuthLogger::setSink(std::function<void(int priority, const std::string& line)> sink) {
    std::shared_ptr<const Sink> next;
    if (sink) {
        next = std::make_shared<const Sink>(std::move(sink));
    }
    std::lock_guard<std::mutex> lock(sinkMutex());
    destination.store(next ? TO_SINK : TO_SYSLOG, std::memory_order_release);
    sinkSlot() = std::move(next);
}

void AuthLogger::setNullSink() {
    std::shared_ptr<const Sink> previous;
    std::lock_guard<std::mutex> lock(sinkMutex());
    destination.store(TO_NOWHERE, std::memory_order_release);
    previous = std::move(sinkSlot());
    sinkSlot().reset();
}

}  // namespace auth_engine
