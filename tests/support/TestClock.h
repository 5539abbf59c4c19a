// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// Puts the library's clocks under the test's control for its lifetime and runs calendars in UTC.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <ctime>

#include "auth_engine/AuthClock.h"

namespace auth_engine {
namespace testing {

// Not copyable (its atomics), as the overrides it installs hold `this`.
class TestClock {
public:
    /// Wall clock starts at `wallSeconds` (default: Wed 2025-01-15 12:00:00 UTC), uptime at 1000.
    explicit TestClock(int64_t wallSeconds = 1736942400, int64_t uptimeSeconds = 1000)
        : wallNow(wallSeconds), uptimeNow(uptimeSeconds) {
        setenv("TZ", "UTC", 1);
        tzset();
        AuthClock::setNowOverride([this] { return wallNow.load(); });
        AuthClock::setUptimeOverride([this] { return uptimeNow.load(); });
    }
    ~TestClock() {
        AuthClock::setNowOverride(nullptr);
        AuthClock::setUptimeOverride(nullptr);
    }

    /// Moves both clocks forward.
    void advance(int64_t seconds) {
        wallNow += seconds;
        uptimeNow += seconds;
    }
    void setWall(int64_t wallSeconds) { wallNow = wallSeconds; }
    void setUptime(int64_t uptimeSeconds) { uptimeNow = uptimeSeconds; }
    int64_t wall() const { return wallNow.load(); }
    int64_t up() const { return uptimeNow.load(); }

    /// Seconds since the epoch of a UTC calendar time.
    static int64_t utc(int year, int month, int day, int hour = 0, int minute = 0, int second = 0) {
        std::tm tm{};
        tm.tm_year = year - 1900;
        tm.tm_mon = month - 1;
        tm.tm_mday = day;
        tm.tm_hour = hour;
        tm.tm_min = minute;
        tm.tm_sec = second;
        return static_cast<int64_t>(timegm(&tm));
    }

private:
    std::atomic<int64_t> wallNow;
    std::atomic<int64_t> uptimeNow;
};

}  // namespace testing
}  // namespace auth_engine
