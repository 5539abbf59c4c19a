// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

#include "auth_engine/AuthClock.h"

#include <sys/sysinfo.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <mutex>
#include <utility>

namespace auth_engine {
namespace {

using Clock = std::function<int64_t()>;

struct Overrides {
    std::mutex mutex;
    std::shared_ptr<const Clock> now;
    std::shared_ptr<const Clock> uptime;
    // Set while the slot holds a clock: without an override (every real device) a reading costs
    // one load instead of a lock and a shared_ptr copy, and host threads never meet on the lock.
    std::atomic<bool> nowSet{false};
    std::atomic<bool> uptimeSet{false};
};

Overrides& overrides() {
    static Overrides instance;
    return instance;
}

std::shared_ptr<const Clock> read(std::shared_ptr<const Clock> Overrides::*slot,
                                  std::atomic<bool> Overrides::*set) {
    Overrides& o = overrides();
    if (!(o.*set).load(std::memory_order_acquire)) {
        return nullptr;
    }
    std::lock_guard<std::mutex> lock(o.mutex);
    return o.*slot;
}

void write(std::shared_ptr<const Clock> Overrides::*slot, std::atomic<bool> Overrides::*set,
           Clock clock) {
    std::shared_ptr<const Clock> next;
    if (clock) {
        next = std::make_shared<const Clock>(std::move(clock));
    }
    Overrides& o = overrides();
    std::lock_guard<std::mutex> lock(o.mutex);
    (o.*set).store(next != nullptr, std::memory_order_release);
    o.*slot = std::move(next);
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

int64_t AuthClock::now() {
    if (const auto clock = read(&Overrides::now, &Overrides::nowSet)) {
        return (*clock)();
    }
    return static_cast<int64_t>(std::time(nullptr));
}

int64_t AuthClock::uptime() {
    if (const auto clock = read(&Overrides::uptime, &Overrides::uptimeSet)) {
        return (*clock)();
    }
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
    return static_cast<int64_t>(std::time(nullptr));
}

void AuthClock::setNowOverride(std::function<int64_t()> clock) {
    write(&Overrides::now, &Overrides::nowSet, std::move(clock));
}

void AuthClock::setUptimeOverride(std::function<int64_t()> clock) {
    write(&Overrides::uptime, &Overrides::uptimeSet, std::move(clock));
}

}  // namespace auth_engine
