// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// The engine's clocks: wall time and uptime, with the overrides tests and the trace install.
#include "auth_engine/AuthClock.h"

#include <sys/sysinfo.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <mutex>
#include <utility>

#include "trace/ClockHook.h"
#include "trace/TraceHub.h"

namespace auth_engine {
namespace {

using Clock = std::function<int64_t()>;

// Bits of Overrides::state.
constexpr unsigned NOW_SET = 1U;
constexpr unsigned UPTIME_SET = 2U;
constexpr unsigned TRACING = 4U;

struct Overrides {
    std::mutex mutex;
    std::shared_ptr<const Clock> now;
    std::shared_ptr<const Clock> uptime;
    // Which overrides are installed and whether a trace wants the readings, in one word: without
    // an override and without a trace (every real device) a reading costs this one load instead of
    // a lock and a shared_ptr copy, and host threads never meet on the lock. The load is relaxed
    // (no barrier on ARM): a set bit only sends the reading to the slot, which is read under the
    // mutex, so nothing is read through the bit itself.
    std::atomic<unsigned> state{0};
};

Overrides& overrides() {
    static Overrides instance;
    return instance;
}

std::shared_ptr<const Clock> read(std::shared_ptr<const Clock> Overrides::*slot, unsigned set,
                                  unsigned state) {
    if ((state & set) == 0) {
        return nullptr;
    }
    Overrides& o = overrides();
    std::lock_guard<std::mutex> lock(o.mutex);
    return o.*slot;
}

void write(std::shared_ptr<const Clock> Overrides::*slot, unsigned set, Clock clock) {
    std::shared_ptr<const Clock> next;
    if (clock) {
        next = std::make_shared<const Clock>(std::move(clock));
    }
    Overrides& o = overrides();
    std::lock_guard<std::mutex> lock(o.mutex);
    if (next != nullptr) {
        o.state.fetch_or(set, std::memory_order_release);
    } else {
        o.state.fetch_and(~set, std::memory_order_release);
    }
    o.*slot = std::move(next);
}

int64_t defaultNow() {
    return static_cast<int64_t>(std::time(nullptr));
}

int64_t procUptime() {
    std::FILE* file = std::fopen("/proc/uptime", "r");
    if (file == nullptr) {
        return -1;
    }
    // "<uptime> <idle>": the first number is read with strtod, which tells where it ended.
    char text[64] = {};
    const bool read = std::fgets(text, sizeof(text), file) != nullptr;
    (void)std::fclose(file);  // opened for reading: closing cannot lose anything
    if (!read) {
        return -1;
    }
    char* end = nullptr;
    const double seconds = std::strtod(text, &end);
    return end != text ? static_cast<int64_t>(seconds) : -1;
}

}  // namespace

namespace {

int64_t readNow(unsigned state) {
    if (const auto clock = read(&Overrides::now, NOW_SET, state)) {
        return (*clock)();
    }
    return defaultNow();
}

int64_t defaultUptime() {
    timespec ts{};
    if (clock_gettime(CLOCK_MONOTONIC, &ts) == 0) {
        return static_cast<int64_t>(ts.tv_sec);
    }
    const int64_t fromProc = procUptime();
    if (fromProc >= 0) {
        return fromProc;
    }
    struct sysinfo info {};
    if (sysinfo(&info) == 0) {
        return static_cast<int64_t>(info.uptime);
    }
    return defaultNow();
}

int64_t readUptime(unsigned state) {
    if (const auto clock = read(&Overrides::uptime, UPTIME_SET, state)) {
        return (*clock)();
    }
    return defaultUptime();
}

}  // namespace

int64_t AuthClock::now() {
    const unsigned state = overrides().state.load(std::memory_order_relaxed);
    if (state == 0) {
        return defaultNow();
    }
    const int64_t value = readNow(state);
    if ((state & TRACING) != 0) {
        trace::clockRead(true, value);
    }
    return value;
}

int64_t AuthClock::uptime() {
    const unsigned state = overrides().state.load(std::memory_order_relaxed);
    if (state == 0) {
        return defaultUptime();
    }
    const int64_t value = readUptime(state);
    if ((state & TRACING) != 0) {
        trace::clockRead(false, value);
    }
    return value;
}

void AuthClock::setNowOverride(std::function<int64_t()> clock) {
    write(&Overrides::now, NOW_SET, std::move(clock));
}

void AuthClock::setUptimeOverride(std::function<int64_t()> clock) {
    write(&Overrides::uptime, UPTIME_SET, std::move(clock));
}

namespace trace {

void setClockTracing(bool on) {
    Overrides& o = overrides();
    if (on) {
        o.state.fetch_or(TRACING, std::memory_order_release);
    } else {
        o.state.fetch_and(~TRACING, std::memory_order_release);
    }
}

int64_t untracedNow() {
    return readNow(overrides().state.load(std::memory_order_acquire));
}

int64_t untracedUptime() {
    return readUptime(overrides().state.load(std::memory_order_acquire));
}

}  // namespace trace

}  // namespace auth_engine
