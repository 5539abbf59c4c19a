// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// The library on its 32-bit target: time values past January 2038 (validity bounds, schedule dates,
// holidays, timeouts, log lines) must behave as they do on a 64-bit host.
#include <gtest/gtest.h>
#include <sys/types.h>

#include <cstdint>
#include <ctime>
#include <memory>
#include <string>

#include "engine/AuthEngine.h"
#include "support/CallbackRecorder.h"
#include "support/FakeDataProvider.h"
#include "support/LogCapture.h"
#include "support/TestClock.h"

static_assert(sizeof(time_t) == 8,
              "time_t must be 64-bit: build 32-bit targets with -D_TIME_BITS=64 "
              "-D_FILE_OFFSET_BITS=64 (see cmake/toolchains)");
static_assert(sizeof(off_t) == 8, "off_t must be 64-bit (-D_FILE_OFFSET_BITS=64)");

namespace auth_engine {
namespace {

using testing::CallbackRecorder;
using testing::FakeDataProvider;
using testing::LogCapture;
using testing::TestClock;

constexpr int64_t kLast32BitSecond = 2147483647;  // 2038-01-19 03:14:07 UTC

// A card user who may open relays 1 and 2 under schedule 7.
class Platform : public ::testing::Test {
protected:
    Platform() {
        UserData user;
        user.userName = "Resident";
        user.userId = "u1";
        user.scheduleRelay = "7-1,2";
        user.holidayKey = "u1";
        host->users["card-1"] = user;
        governing->id = 7;
        governing->scheduleId = "7";
        governing->type = 1;
        governing->startTime = "00:00:00";
        governing->endTime = "23:59:59";
        host->schedules = {governing};
    }
    // Presents the card at `when`.
    AuthResponse cardAt(int64_t when) {
        clock.setWall(when);
        return engine.authenticate(card(), AuthCallback(), "");
    }
    // Lets `seconds` pass, then runs the timeout sweep.
    void sweepAfter(int64_t seconds) {
        clock.advance(seconds);
        engine.checkTimeoutRequests();
    }
    static AuthRequest card() {
        AuthRequest request;
        request.openType = OPEN_TYPE_CARD;
        request.credential = "card-1";
        return request;
    }

    TestClock clock;
    LogCapture log;
    CallbackRecorder recorder;  // outlives the engine that calls it
    std::shared_ptr<FakeDataProvider> host = std::make_shared<FakeDataProvider>();
    std::shared_ptr<ScheduleData> governing = std::make_shared<ScheduleData>();
    AuthEngine engine;
};

TEST_F(Platform, CalendarArithmeticReachesPast2038) {
    EXPECT_EQ(TestClock::utc(2038, 1, 19, 3, 14, 8), kLast32BitSecond + 1);
    EXPECT_EQ(TestClock::utc(2040, 1, 1), 2208988800LL);
    const time_t leapDay = static_cast<time_t>(TestClock::utc(2040, 2, 29, 10));
    std::tm tm{};
    ASSERT_NE(localtime_r(&leapDay, &tm), nullptr);
    EXPECT_EQ(tm.tm_year + 1900, 2040);
    EXPECT_EQ(tm.tm_mon, 1);
    EXPECT_EQ(tm.tm_mday, 29);
    EXPECT_EQ(tm.tm_wday, 3);  // a Wednesday
}

TEST_F(Platform, UserValidityBoundsAfter2038) {
    host->users["card-1"].validTimeStart = kLast32BitSecond + 1;
    host->users["card-1"].validTimeEnd = TestClock::utc(2040, 1, 1);
    ASSERT_EQ(engine.init(host), 0);
    AuthResponse response = cardAt(kLast32BitSecond);
    EXPECT_EQ(response.result, FAILED);
    EXPECT_EQ(response.failCode, 22);
    EXPECT_EQ(response.reason, "User not yet valid");

    response = cardAt(TestClock::utc(2039, 6, 15, 12));
    EXPECT_EQ(response.result, SUCCESS);
    EXPECT_EQ(response.openedRelays, (std::vector<std::string>{"1", "2"}));
    // 64-bit values reach the log intact (printf types must match on 32-bit targets).
    EXPECT_TRUE(
        log.contains("currentTime=2191752000, validTimeStart=2147483648, "
                     "validTimeEnd=2208988800"));

    response = cardAt(TestClock::utc(2040, 1, 1, 0, 0, 1));
    EXPECT_EQ(response.result, FAILED);
    EXPECT_EQ(response.failCode, 22);
    EXPECT_EQ(response.reason, "User expired");
}

TEST_F(Platform, ScheduleDateRangeIn2039) {
    governing->type = 3;
    governing->startTime = "08:00:00";
    governing->endTime = "18:00:00";
    governing->startDate = "2039-03-01";
    governing->endDate = "2039-03-31";
    governing->weekly = "2";  // Tuesdays only
    ASSERT_EQ(engine.init(host), 0);
    // A Tuesday inside the range.
    const AuthResponse response = cardAt(TestClock::utc(2039, 3, 15, 12));
    EXPECT_EQ(response.result, SUCCESS);
    EXPECT_EQ(response.openedRelays, (std::vector<std::string>{"1", "2"}));

    const int64_t refused[] = {
        TestClock::utc(2039, 3, 16, 12),        // Wednesday
        TestClock::utc(2039, 3, 15, 18, 0, 1),  // after hours
        TestClock::utc(2039, 4, 5, 12),         // a Tuesday after the range
        TestClock::utc(2040, 3, 13, 12),        // a Tuesday in March a year later
    };
    for (const int64_t when : refused) {
        const AuthResponse refusal = cardAt(when);
        EXPECT_EQ(refusal.result, FAILED) << when;
        EXPECT_EQ(refusal.failCode, 3) << when;
        EXPECT_EQ(refusal.reason, "Not in scheduled time") << when;
    }
}

TEST_F(Platform, HolidaysIn2040) {
    host->config.holidayEnabled = true;
    HolidayData leapDay;
    leapDay.startDate = "2040-02-29";
    leapDay.endDate = "2040-02-29";
    HolidayData christmas;  // repeats every year from its first one
    christmas.yearlyRepeat = 1;
    christmas.startDate = "2030-12-25";
    christmas.endDate = "2030-12-26";
    host->holidays = {leapDay, christmas};
    ASSERT_EQ(engine.init(host), 0);

    for (const int64_t when : {TestClock::utc(2040, 2, 29, 10), TestClock::utc(2041, 12, 26, 23)}) {
        const AuthResponse response = cardAt(when);
        EXPECT_EQ(response.result, FAILED) << when;
        EXPECT_EQ(response.failCode, 2) << when;
        EXPECT_EQ(response.failedRelays, (std::vector<std::string>{"1", "2"})) << when;
    }
    for (const int64_t when : {TestClock::utc(2040, 2, 28, 23, 59, 59), TestClock::utc(2040, 3, 1),
                               TestClock::utc(2041, 12, 27)}) {
        EXPECT_EQ(cardAt(when).result, SUCCESS) << when;
    }
}

TEST_F(Platform, TimeoutsAcrossThe32BitBoundary) {
    // The wall clock crosses 2^31 while a chain is parked; the uptime is past 2^32 while a relay
    // phase waits.
    clock.setWall(kLast32BitSecond - 1);
    clock.setUptime(5000000000LL);
    host->tempKeyUsers["tk-1"] = host->users["card-1"];
    host->users["card-1"].userType = 1;
    host->config.antiPassbackEnabled = true;
    host->config.antiPassbackRelayMap = {{"1", RELAY_DIRECTION_IN}};
    host->config.antiPassbackTimeout = 30;
    host->config.tempKeyTimeout = 3;
    ASSERT_EQ(engine.init(host), 0);
    AuthRequest tempKey;
    tempKey.openType = OPEN_TYPE_TEMP_KEY;
    tempKey.credential = "tk-1";
    ASSERT_EQ(engine.authenticate(tempKey, recorder.callback(), "tk").result, ASYNC_PENDING);
    // Relay 2 opens at once; relay 1 waits for its anti-passback answer.
    engine.authenticate(card(), recorder.callback(), "ap");
    ASSERT_EQ(recorder.count(), 1u);
    ASSERT_EQ(engine.parkedPhaseCount(), 1u);

    sweepAfter(3);
    EXPECT_EQ(engine.parkedChainCount(), 1u);
    sweepAfter(1);
    EXPECT_EQ(engine.parkedChainCount(), 0u);
    ASSERT_EQ(recorder.forId("tk").size(), 1u);
    EXPECT_EQ(recorder.forId("tk")[0].response.reason, "Async request timeout");
    EXPECT_EQ(recorder.forId("tk")[0].response.failCode, 24);
    EXPECT_EQ(engine.parkedPhaseCount(), 1u);

    sweepAfter(25);  // 29 s after the phase started
    EXPECT_EQ(engine.parkedPhaseCount(), 1u);
    sweepAfter(1);
    EXPECT_EQ(engine.parkedPhaseCount(), 0u);
    const auto phase = recorder.forId("ap_ind_antipassback");
    ASSERT_EQ(phase.size(), 1u);
    EXPECT_EQ(phase[0].response.result, FAILED);
    EXPECT_EQ(phase[0].response.reason, "Independent async request timeout");
    EXPECT_EQ(phase[0].response.failedRelays, std::vector<std::string>{"1"});
}

}  // namespace
}  // namespace auth_engine
