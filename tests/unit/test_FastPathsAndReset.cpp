// The shortcuts taken on every decision: the null log sink and the reused line buffer, the calendar
// texts written without strftime/snprintf, and a chain that parks while a reset runs.
#include <gtest/gtest.h>

#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "auth_engine/AuthLogger.h"
#include "engine/AuthEngine.h"
#include "processors/HolidayCheckProcessor.h"
#include "processors/TimeCheckProcessor.h"
#include "support/CallbackRecorder.h"
#include "support/FakeDataProvider.h"
#include "support/LogCapture.h"
#include "support/TestClock.h"

namespace auth_engine {
namespace {

using testing::CallbackRecorder;
using testing::FakeDataProvider;
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
    ScheduleData schedule;
    schedule.type = 3;
    schedule.startTime = "09:05:07";
    schedule.endTime = "09:05:07";
    schedule.weekly = "0";  // 2025-01-05 is a Sunday
    schedule.startDate = "2025-01-05";
    schedule.endDate = "2025-01-05";
    EXPECT_TRUE(check.isScheduleValid(schedule, now));
    EXPECT_FALSE(check.isScheduleValid(schedule, now + 1));

    // A holiday of exactly today, with one-digit month and day, and its access hours to the second.
    FakeDataProvider host;
    host.config.holidayEnabled = true;
    HolidayData holiday;
    holiday.type = 1;
    holiday.startDate = "2025-01-05";
    holiday.endDate = "2025-01-05";
    holiday.timeRange = "09:05:07-09:05:07";
    host.holidays = {holiday};
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

// Holds the chain inside its first processor until released, then parks the request.
class HeldProcessor : public IAuthProcessor {
public:
    AuthResult process(AuthContext&, IDataProvider&) override {
        std::unique_lock<std::mutex> lock(mutex);
        entered = true;
        changed.notify_all();
        changed.wait(lock, [&] { return released; });
        return ASYNC_PENDING;
    }
    std::string getName() const override { return "Held"; }
    void waitEntered() {
        std::unique_lock<std::mutex> lock(mutex);
        changed.wait(lock, [&] { return entered; });
        entered = false;
    }
    void release() {
        std::lock_guard<std::mutex> lock(mutex);
        released = true;
        changed.notify_all();
    }

private:
    std::mutex mutex;
    std::condition_variable changed;
    bool entered = false;
    bool released = false;
};

TEST(FastPathsAndReset, ChainThatParksAfterAResetIsDroppedWithIt) {
    CallbackRecorder recorder;
    AuthEngine engine;
    ASSERT_EQ(engine.init(std::make_shared<FakeDataProvider>()), 0);
    auto held = std::make_shared<HeldProcessor>();
    engine.registerProcessor(held);
    engine.setProcessorChain({"Held"});

    // Without a reset the request parks.
    held->release();
    EXPECT_EQ(engine.authenticate(AuthRequest(), recorder.callback(), "first").result,
              ASYNC_PENDING);
    EXPECT_EQ(engine.parkedChainCount(), 1u);

    held = std::make_shared<HeldProcessor>();
    engine.registerProcessor(held);
    engine.setProcessorChain({"Held"});
    AuthResponse late;
    std::thread attempt(
        [&] { late = engine.authenticate(AuthRequest(), recorder.callback(), "late"); });
    held->waitEntered();
    engine.reset();  // sweeps the parked "first" while "late" is still deciding
    EXPECT_EQ(engine.parkedChainCount(), 0u);
    held->release();
    attempt.join();

    EXPECT_EQ(late.result, ASYNC_PENDING);
    EXPECT_EQ(engine.parkedChainCount(), 0u);
    EXPECT_EQ(engine.subRequestCount(), 0u);
    EXPECT_EQ(recorder.count(), 0u);  // parked chains end silently on reset

    // A new run parks again.
    ASSERT_EQ(engine.init(std::make_shared<FakeDataProvider>()), 0);
    held = std::make_shared<HeldProcessor>();
    held->release();
    engine.registerProcessor(held);
    engine.setProcessorChain({"Held"});
    engine.authenticate(AuthRequest(), recorder.callback(), "again");
    EXPECT_EQ(engine.parkedChainCount(), 1u);
}

}  // namespace
}  // namespace auth_engine
