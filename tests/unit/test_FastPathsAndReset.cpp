// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// The shortcuts taken on every decision: the null log sink and the reused line buffer, the calendar
// texts written without strftime/snprintf (the holiday check's are pinned by its own tests, to the
// second).
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "auth_engine/AuthLogger.h"
#include "processors/TimeCheckProcessor.h"
#include "support/LogCapture.h"
#include "support/TestClock.h"

namespace auth_engine {
namespace {

using testing::LogCapture;
using testing::TestClock;

TEST(FastPathsAndReset, NullSinkDropsEveryLineUntilASinkIsSetAgain) {
    LogCapture before;
    AuthLogger::info("[Probe:%d] kept %s", 1, "one");
    AuthLogger::setNullSink();
    AuthLogger::info("[Probe:%d] dropped %s", 2, "info");
    AuthLogger::error("[Probe:%d] dropped %s", 3, "error");
    EXPECT_EQ(before.lines(), std::vector<std::string>{"[Probe:1] kept one"});
    LogCapture after;  // any setSink ends the null sink
    AuthLogger::error("[Probe:%d] kept %s", 4, "again");
    EXPECT_EQ(after.lines(), std::vector<std::string>{"[Probe:4] kept again"});
}

TEST(FastPathsAndReset, SinkGetsLinesOfAnyLengthWholeEvenWhenItLogsItself) {
    std::vector<std::string> lines;
    bool nested = false;
    AuthLogger::setSink([&](int, const std::string& line) {
        if (!nested) {
            // Not allowed by the contract, but it must not overwrite the line being delivered.
            nested = true;
            AuthLogger::info("inner %d", 7);
            nested = false;
        }
        lines.push_back(line);
    });
    // Around the size of the formatting buffer, and well past it.
    for (const std::size_t size : {511u, 512u, 513u, 2000u}) {
        lines.clear();
        const std::string text(size - 2, 'x');
        AuthLogger::info("<%s>", text.c_str());
        EXPECT_EQ(lines, (std::vector<std::string>{"inner 7", "<" + text + ">"})) << size;
    }
    AuthLogger::setSink(nullptr);
}

TEST(FastPathsAndReset, CalendarTextsKeepTheirPadding) {
    TestClock clock(TestClock::utc(2025, 1, 5, 9, 5, 7));
    const int64_t now = clock.wall();
    processors::TimeCheckProcessor check;
    // 2025-01-05 is a Sunday (weekly "0").
    const ScheduleData schedule{
        0, 3, "", "", "09:05:07", "09:05:07", "2025-01-05", "2025-01-05", "0", "", false};
    EXPECT_EQ(
        (std::vector<bool>{
            check.isInDailyTime("09:05:07", "09:05:07", now),
            check.isInDailyTime("09:05:08", "23:59:59", now),
            check.isInDailyTime("00:00:00", "00:00:00", TestClock::utc(2025, 1, 5)),
            check.isInDailyTime("23:59:59", "23:59:59", TestClock::utc(2025, 1, 5, 23, 59, 59)),
            check.isScheduleValid(schedule, now), check.isScheduleValid(schedule, now + 1)}),
        (std::vector<bool>{true, false, true, true, true, false}));
}

}  // namespace
}  // namespace auth_engine
