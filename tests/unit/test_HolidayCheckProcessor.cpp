#include <gtest/gtest.h>

#include <memory>

#include "processors/HolidayCheckProcessor.h"
#include "support/FakeDataProvider.h"
#include "support/LogCapture.h"
#include "support/TestClock.h"

namespace auth_engine {
namespace {

using processors::HolidayCheckProcessor;
using testing::TestClock;
using Relays = std::vector<std::string>;

HolidayData holiday(const std::string& start, const std::string& end, int type = 0,
                    const std::string& timeRange = "", int yearly = 0) {
    HolidayData data;
    data.startDate = start;
    data.endDate = end;
    data.type = type;
    data.timeRange = timeRange;
    data.yearlyRepeat = yearly;
    return data;
}

AuthContext userContext(const Relays& relays) {
    AuthContext context;
    context.request.openType = OPEN_TYPE_CARD;
    context.userData = std::make_shared<UserData>();
    context.userData->holidayKey = "hk";
    context.relays = relays;
    return context;
}

class HolidayCheckTest : public ::testing::Test {
protected:
    HolidayCheckTest() { provider.config.holidayEnabled = true; }

    // Runs the check at `when` for relay "1" and tells whether the holiday held it back.
    bool restrictsAt(int64_t when) {
        clock.setWall(when);
        AuthContext context = userContext({"1"});
        const AuthResult result = HolidayCheckProcessor().process(context, provider);
        EXPECT_EQ(context.holidayState, result == FAILED ? 2 : 0);
        return result == FAILED;
    }

    TestClock clock;
    testing::FakeDataProvider provider;
};

TEST_F(HolidayCheckTest, SkipsLeaveRelaysAlone) {
    provider.holidays = {holiday("2025-01-01", "2025-12-31")};
    for (int variant = 0; variant < 6; ++variant) {
        AuthContext context = userContext({"1"});
        context.holidayState = 2;
        context.skipHolidayCheck = variant == 0;
        context.request.openType = variant == 1 ? OPEN_TYPE_LATCH_PIN : OPEN_TYPE_CARD;
        context.userData->holidayExempt = variant == 2 ? 1 : 0;
        if (variant == 3) {
            context.userData.reset();
        }
        provider.config.holidayEnabled = variant != 4;
        if (variant == 5) {
            provider.holidays.clear();
        }
        EXPECT_EQ(HolidayCheckProcessor().process(context, provider), CONTINUE) << variant;
        EXPECT_EQ(context.relays, (Relays{"1"})) << variant;
        EXPECT_EQ(context.holidayState, 0) << variant;
    }
    EXPECT_EQ(provider.ownerKeysAsked(), (Relays{"hk"}));  // only the empty-list variant asked
}

TEST_F(HolidayCheckTest, TimeRangeBoundariesAndMalformedRanges) {
    provider.holidays = {holiday("2025-01-15", "2025-01-15", 1, "09:00:00-12:00:00")};
    EXPECT_TRUE(restrictsAt(TestClock::utc(2025, 1, 15, 8, 59, 59)));
    EXPECT_FALSE(restrictsAt(TestClock::utc(2025, 1, 15, 9)));
    EXPECT_FALSE(restrictsAt(TestClock::utc(2025, 1, 15, 12)));
    EXPECT_TRUE(restrictsAt(TestClock::utc(2025, 1, 15, 12, 0, 1)));
    EXPECT_FALSE(restrictsAt(TestClock::utc(2025, 1, 16, 8)));  // not a holiday day at all

    // Ranges that cannot be read never open the holiday's access hours.
    for (const char* range : {"", "09:00:00", "090000000-12:00:00", "-", "12:00:00-09:00:00"}) {
        provider.holidays = {holiday("2025-01-15", "2025-01-15", 1, range)};
        EXPECT_TRUE(restrictsAt(TestClock::utc(2025, 1, 15, 10))) << range;
    }
    // A whole-day holiday ignores its time range.
    provider.holidays = {holiday("2025-01-15", "2025-01-15", 0, "00:00:00-23:59:59")};
    EXPECT_TRUE(restrictsAt(TestClock::utc(2025, 1, 15, 10)));
}

TEST_F(HolidayCheckTest, OnlyFirstMatchingHolidayCounts) {
    const HolidayData open = holiday("2025-01-15", "2025-01-15", 1, "00:00:00-23:59:59");
    const HolidayData closed = holiday("2025-01-10", "2025-01-20");
    const HolidayData elsewhere = holiday("2024-01-01", "2024-12-31");
    provider.holidays = {elsewhere, open, closed};
    EXPECT_FALSE(restrictsAt(TestClock::utc(2025, 1, 15, 10)));
    provider.holidays = {elsewhere, closed, open};
    EXPECT_TRUE(restrictsAt(TestClock::utc(2025, 1, 15, 10)));
}

TEST_F(HolidayCheckTest, YearlyHolidaysCompareMonthAndDay) {
    provider.holidays = {holiday("2020-12-24", "2020-12-26", 0, "", 1)};
    EXPECT_TRUE(restrictsAt(TestClock::utc(2025, 12, 25, 10)));
    EXPECT_TRUE(restrictsAt(TestClock::utc(2031, 12, 26, 23, 59, 59)));
    EXPECT_FALSE(restrictsAt(TestClock::utc(2025, 12, 27)));
    // The same dates without yearly repeat belong to 2020 only.
    provider.holidays = {holiday("2020-12-24", "2020-12-26")};
    EXPECT_FALSE(restrictsAt(TestClock::utc(2025, 12, 25, 10)));

    provider.holidays = {holiday("2020-12-31", "2021-01-01", 0, "", 1)};
    EXPECT_FALSE(restrictsAt(TestClock::utc(2025, 12, 31, 10)));
    EXPECT_FALSE(restrictsAt(TestClock::utc(2026, 1, 1, 10)));

    // Short texts: an empty start counts from 1 January, a short end never matches.
    provider.holidays = {holiday("", "2020-02-01", 0, "", 1)};
    EXPECT_TRUE(restrictsAt(TestClock::utc(2025, 1, 15, 10)));
    provider.holidays = {holiday("2020-01-01", "02-01", 0, "", 1)};
    EXPECT_FALSE(restrictsAt(TestClock::utc(2025, 1, 15, 10)));
    provider.holidays = {holiday("x", "", 0, "", 1)};
    EXPECT_FALSE(restrictsAt(TestClock::utc(2025, 1, 15, 10)));
}

TEST_F(HolidayCheckTest, ExemptRelaysSurviveByScheduleOrHost) {
    provider.holidays = {holiday("2025-01-15", "2025-01-15")};
    provider.holidayExemptRelays = {"3", "1"};
    testing::LogCapture log;
    AuthContext context = userContext({"1", "2", "3", "4"});
    context.relayHolidayExemption = {{"1", true}, {"2", false}, {"4", true}};
    context.failedRelays = {"9"};

    EXPECT_EQ(HolidayCheckProcessor().process(context, provider), CONTINUE);
    EXPECT_EQ(context.relays, (Relays{"1", "3", "4"}));
    EXPECT_EQ(context.failedRelays, (Relays{"9", "2"}));
    EXPECT_EQ(context.relayFailReasons.at("2"), "Holiday");
    EXPECT_EQ(context.holidayState, 2);
    EXPECT_EQ(context.response.result, CONTINUE);
    EXPECT_EQ(provider.callCount("isRelayHolidayExempt"),
              4);  // asked even for schedule-exempt ones
    EXPECT_TRUE(log.contains("in holiday, remainingRelays=1,3,4, failedRelays=9,2"));
}

TEST_F(HolidayCheckTest, NoExemptRelayFailsAndEmptiesRelays) {
    provider.holidays = {holiday("2025-01-01", "2025-01-31")};
    AuthContext context = userContext({"1", "2"});
    context.relayHolidayExemption = {{"1", false}};

    EXPECT_EQ(HolidayCheckProcessor().process(context, provider), FAILED);
    EXPECT_TRUE(context.relays.empty());
    EXPECT_EQ(context.failedRelays, (Relays{"1", "2"}));
    EXPECT_EQ(context.response.result, FAILED);
    EXPECT_EQ(context.response.failCode, 2);
    EXPECT_EQ(context.response.reason, "Access denied: no relay with holiday exemption");
    EXPECT_EQ(context.holidayState, 2);
}

}  // namespace
}  // namespace auth_engine
