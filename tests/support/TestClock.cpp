// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

#include "support/TestClock.h"

#include <cstdlib>
#include <ctime>

#include "auth_engine/AuthClock.h"

namespace auth_engine {
namespace testing {

TestClock::TestClock(int64_t wallSeconds, int64_t uptimeSeconds)
    : wallNow(wallSeconds), uptimeNow(uptimeSeconds) {
    setenv("TZ", "UTC", 1);
    tzset();
    AuthClock::setNowOverride([this] { return wallNow.load(); });
    AuthClock::setUptimeOverride([this] { return uptimeNow.load(); });
}

TestClock::~TestClock() {
    AuthClock::setNowOverride(nullptr);
    AuthClock::setUptimeOverride(nullptr);
}

void TestClock::advance(int64_t seconds) {
    wallNow += seconds;
    uptimeNow += seconds;
}

int64_t TestClock::utc(int year, int month, int day, int hour, int minute, int second) {
    std::tm tm{};
    tm.tm_year = year - 1900;
    tm.tm_mon = month - 1;
    tm.tm_mday = day;
    tm.tm_hour = hour;
    tm.tm_min = minute;
    tm.tm_sec = second;
    return static_cast<int64_t>(timegm(&tm));
}

}  // namespace testing
}  // namespace auth_engine
