// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// The shortcuts taken on every decision: the null log sink and the reused line buffer, the calendar
// texts written without strftime/snprintf, and a chain that parks while a reset runs.
#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "auth_engine/AuthLogger.h"
#include "processors/HolidayCheckProcessor.h"
#include "processors/TimeCheckProcessor.h"
#include "support/EngineHarness.h"
#include "support/LogCapture.h"

namespace auth_engine {
namespace {

using testing::FakeDataProvider;
using testing::Latch;
using testing::LogCapture;
using testing::TestClock;

TEST(FastPathsAndReset, NullSinkDropsEveryLineUntilASinkIsSetAgain) {
    LogCapture before;
    AuthLogger::info("[Probe:%d] kept %s", 1, "one");
    EXPECT_TRUE(before.contains("kept one"));

    AuthLogger::setNullSink();
    AuthLogger::info("[Probe:%d] dropped %s", 2, "info");
    AuthLogger::error("[Probe:%d] dropped %s", 3, "error");
    EXPECT_FALSE(before.contains("dropped"));

    LogCapture after;  // any setSink ends the null sink
    AuthLogger::error("[Probe:%d] kept %s", 4, "again");
    EXPECT_TRUE(after.contains("[Probe:4] kept again"));
    EXPECT_FALSE(after.contains("dropped"));
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
        ASSERT_EQ(lines.size(), 2u) << size;
        EXPECT_EQ(lines[0], "inner 7");
        EXPECT_EQ(lines[1], "<" + text + ">") << size;
    }
    AuthLogger::setSink(nullptr);
}

TEST(FastPathsAndReset, CalendarTextsKeepTheirPadding) {
    TestClock clock(TestClock::utc(2025, 1, 5, 9, 5, 7));
    processors::TimeCheckProcessor check;
    const int64_t now = clock.wall();
    EXPECT_TRUE(check.isInDailyTime("09:05:07", "09:05:07", now));
    EXPECT_FALSE(check.isInDailyTime("09:05:08", "23:59:59", now));
    EXPECT_TRUE(check.isInDailyTime("00:00:00", "00:00:00", TestClock::utc(2025, 1, 5)));
    EXPECT_TRUE(
        check.isInDailyTime("23:59:59", "23:59:59", TestClock::utc(2025, 1, 5, 23, 59, 59)));
    // 2025-01-05 is a Sunday (weekly "0").
    const ScheduleData schedule{
        0, 3, "", "", "09:05:07", "09:05:07", "2025-01-05", "2025-01-05", "0", "", false};
    EXPECT_TRUE(check.isScheduleValid(schedule, now));
    EXPECT_FALSE(check.isScheduleValid(schedule, now + 1));

    // A holiday of exactly today, with one-digit month and day, and its access hours to the second.
    FakeDataProvider host;
    host.config.holidayEnabled = true;
    host.holidays = {HolidayData{0, 0, 1, "09:05:07-09:05:07", "", "", "2025-01-05", "2025-01-05"}};
    processors::HolidayCheckProcessor holidays;
    const auto decide = [&] {
        AuthContext context;
        context.userData = std::make_shared<UserData>();
        context.relays = {"1"};
        return holidays.process(context, host);
    };
    EXPECT_EQ(decide(), CONTINUE);  // inside the access hours
    clock.advance(1);
    EXPECT_EQ(decide(), FAILED);  // the same day, past them
    clock.setWall(TestClock::utc(2025, 1, 6, 9, 5, 8));
    EXPECT_EQ(decide(), CONTINUE);  // the next day
}

TEST(FastPathsAndReset, ChainThatParksAfterAResetIsDroppedWithIt) {
    Latch held;
    testing::EngineHarness h;
    ASSERT_TRUE(h.start());
    // "late" waits at the latch, "inside" resets the engine from another thread mid-chain.
    const auto wire = [&] {
        h.use("Held", [&](AuthContext& context) {
            if (context.request.credential == "late") {
                held.pass();
            } else if (context.request.credential == "inside") {
                std::thread([&] { h.engine.reset(); }).join();
            }
            return testing::askOnce(context);
        });
    };
    wire();
    // Without a reset the request parks.
    EXPECT_EQ(h.run("first").result, ASYNC_PENDING);
    EXPECT_EQ(h.engine.parkedChainCount(), 1u);

    AuthResponse late;
    std::thread attempt([&] { late = h.run("late", testing::makeRequest("late")); });
    held.waitEntered();
    h.engine.reset();  // sweeps the parked "first" while "late" is still deciding
    EXPECT_EQ(h.engine.parkedChainCount(), 0u);
    held.open();
    attempt.join();
    EXPECT_EQ(late.result, ASYNC_PENDING);
    testing::expectNothingParked(h.engine);

    // Nothing can answer or time out a chain parked after the reset: it must not stay behind to
    // surface in a later run.
    ASSERT_TRUE(h.start());
    wire();
    h.run("sync-1", testing::makeRequest("inside"));
    EXPECT_EQ(h.engine.parkedChainCount(), 0u);
    ASSERT_TRUE(h.start());
    h.clock.advance(31);
    h.engine.checkTimeoutRequests();
    EXPECT_EQ(h.recorder.count(), 0u);  // parked chains end silently on reset

    // A new run parks again.
    wire();
    h.run("again");
    EXPECT_EQ(h.engine.parkedChainCount(), 1u);
}

}  // namespace
}  // namespace auth_engine
