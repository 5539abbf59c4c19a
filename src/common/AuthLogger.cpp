#include "auth_engine/AuthLogger.h"

#include <syslog.h>

#include <cstdarg>
#include <cstdio>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace auth_engine {
namespace {

// Both levels go to syslog with priority 3: info-level lines are deliberately logged at error priority.
constexpr int kLogPriority = LOG_ERR;

using Sink = std::function<void(int, const std::string&)>;

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

void emit(const char* format, va_list args) {
    const std::shared_ptr<const Sink> sink = currentSink();
    if (!sink) {
        vsyslog(kLogPriority, format, args);
        return;
    }
    va_list measure;
    va_copy(measure, args);
    const int length = std::vsnprintf(nullptr, 0, format, measure);
    va_end(measure);
    if (length < 0) {
        return;
    }
    std::string line(static_cast<size_t>(length) + 1, '\0');
    std::vsnprintf(line.data(), line.size(), format, args);
    line.resize(static_cast<size_t>(length));
    (*sink)(kLogPriority, line);
}

}  // namespace

void AuthLogger::info(const char* format, ...) {
    va_list args;
    va_start(args, format);
    emit(format, args);
    va_end(args);
}

void AuthLogger::error(const char* format, ...) {
    va_list args;
    va_start(args, format);
    emit(format, args);
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
    sinkSlot() = std::move(next);
}

}  // namespace auth_engine
