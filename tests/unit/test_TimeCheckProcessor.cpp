#include <gtest/gtest.h>

#include <cstdint>
#include <memory>

#include "processors/TimeCheckProcessor.h"
#include "support/FakeDataProvider.h"
#include "support/TestClock.h"

namespace auth_engine {
namespace {

using processors::TimeCheckProcessor;
using testing::TestClock;
using Relays = std::vector<std::string>;

const int64_t kNow = TestClock::utc(2025, 1, 15, 12);  // a Wednesday, the TestClock default

std::shared_ptr<ScheduleData> schedule(const std::string& id, bool exempt = false,
                                       const std::string& start = "08:00:00") {
    auto data = std::make_shared<ScheduleData>();
    data->scheduleId = id;
    data->type = 1;
    data->startTime = start;
    data->endTime = "18:00:00";
    data->holidayExemption = exempt;
    return data;
}

AuthContext userContext(OpenDoorType openType, const Relays& relays) {
    AuthContext context;
    context.request.openType = openType;
    context.userData = std::make_shared<UserData>();
    context.userData->scheduleRelay = "10-1";
    context.relays = relays;
    return context;
}

AuthContext relayKey(const std::string& credential, const Relays& requested) {
    AuthContext context;
    context.request.openType = OPEN_TYPE_RELAY_KEY;
    context.request.credential = credential;
    context.request.relays = requested;
    return context;
}

void expectFailure(const AuthContext& context, int failCode, const std::string& reason) {
    EXPECT_EQ(context.response.result, FAILED);
    EXPECT_EQ(context.response.failCode, failCode);
    EXPECT_EQ(context.response.reason, reason);
}

TEST(TimeCheckProcessor, SkipsTempKeysAndMissingUser) {
    TestClock clock;
    testing::FakeDataProvider provider;
    TimeCheckProcessor processor;
    for (const OpenDoorType kind : {OPEN_TYPE_CARD, OPEN_TYPE_PUBLIC_PIN, OPEN_TYPE_LATCH_PIN}) {
        AuthContext context = userContext(kind, {"1"});
        context.userData.reset();
        context.skipTimeCheck = kind == OPEN_TYPE_CARD;
        EXPECT_EQ(processor.process(context, provider), CONTINUE);
    }

    // No user fails even for BLE, whose other refusals are ignored.
    AuthContext noUser = userContext(OPEN_TYPE_BLE, {"1", "2"});
    noUser.userData.reset();
    noUser.failedRelays = {"2"};
    EXPECT_EQ(processor.process(noUser, provider), FAILED);
    expectFailure(noUser, 1, "No user data");
    EXPECT_EQ(noUser.failedRelays, (Relays{"2", "1"}));
    EXPECT_EQ(noUser.relays, (Relays{"1", "2"}));

    // Temporary keys are not filtered; an active exempting schedule exempts every relay.
    provider.schedules = {nullptr, schedule("a", true, "13:00:00"), schedule("b"),
                          schedule("c", true)};
    AuthContext tempKey = userContext(OPEN_TYPE_TEMP_KEY, {"1", "2"});
    tempKey.relayScheduleMap["1"] = {"zzz"};
    EXPECT_EQ(processor.process(tempKey, provider), CONTINUE);
    EXPECT_EQ(tempKey.relays, (Relays{"1", "2"}));
    EXPECT_TRUE(tempKey.relayHolidayExemption.at("2"));
    EXPECT_TRUE(tempKey.relayStatusMap.at("2").holidayExemption);
    provider.schedules = {schedule("b")};
    AuthContext plainKey = userContext(OPEN_TYPE_TEMP_KEY, {"1"});
    EXPECT_EQ(processor.process(plainKey, provider), CONTINUE);
    EXPECT_FALSE(plainKey.relayHolidayExemption.at("1"));
}

TEST(TimeCheckProcessor, PlateAndUserValidity) {
    TestClock clock;
    testing::FakeDataProvider provider;
    TimeCheckProcessor processor;
    auto plate = [](int64_t start, int64_t end, bool longTerm) {
        AuthContext context = userContext(OPEN_TYPE_LICENSE_PLATE, {"1"});
        context.keyData = std::make_shared<KeyData>(KeyData{start, end, longTerm});
        return context;
    };

    AuthContext missing = userContext(OPEN_TYPE_LICENSE_PLATE, {"1"});
    EXPECT_EQ(processor.process(missing, provider), FAILED);
    expectFailure(missing, 22, "License plate key data not found");
    AuthContext early = plate(kNow + 1, 0, false);
    EXPECT_EQ(processor.process(early, provider), FAILED);
    expectFailure(early, 7, "License plate not yet valid");
    EXPECT_EQ(early.relayFailReasons.at("1"), "InvalidTimeRange");
    AuthContext expired = plate(0, kNow - 1, false);
    EXPECT_EQ(processor.process(expired, provider), FAILED);
    expectFailure(expired, 7, "License plate expired");
    AuthContext onBounds = plate(kNow, kNow, false);
    EXPECT_EQ(processor.process(onBounds, provider), CONTINUE);
    AuthContext longTerm = plate(kNow + 100, kNow - 100, true);
    EXPECT_EQ(processor.process(longTerm, provider), CONTINUE);

    // User bounds are inclusive; a valid plate does not excuse an expired user; BLE is ignored.
    longTerm.userData->validTimeStart = kNow;
    longTerm.userData->validTimeEnd = kNow;
    EXPECT_EQ(processor.process(longTerm, provider), CONTINUE);
    longTerm.userData->validTimeEnd = kNow - 1;
    EXPECT_EQ(processor.process(longTerm, provider), FAILED);
    expectFailure(longTerm, 22, "User expired");
    AuthContext bleEarly = userContext(OPEN_TYPE_BLE, {"1"});
    bleEarly.userData->validTimeStart = kNow + 1;
    EXPECT_EQ(processor.process(bleEarly, provider), IGNORED);
    expectFailure(bleEarly, 22, "User not yet valid");
    EXPECT_EQ(bleEarly.relayFailReasons.at("1"), "InvalidUserTime");
}

TEST(TimeCheckProcessor, DailyWeeklyAndDateRules) {
    TestClock clock;
    TimeCheckProcessor check;
    const int64_t sixPm = TestClock::utc(2025, 1, 15, 18);
    EXPECT_TRUE(check.isInDailyTime("08:00:00", "18:00:00", sixPm));
    EXPECT_FALSE(check.isInDailyTime("08:00:00", "18:00:00", sixPm + 1));
    EXPECT_FALSE(check.isInDailyTime("22:00:00", "06:00:00", TestClock::utc(2025, 1, 15, 23)));
    EXPECT_FALSE(check.isInDailyTime("22:00:00", "06:00:00", TestClock::utc(2025, 1, 15, 5)));
    EXPECT_FALSE(check.isInDailyTime("", "", kNow));

    const int64_t sunday = TestClock::utc(2025, 1, 19, 12);
    EXPECT_TRUE(check.isWeeklyMatch("0", sunday));
    EXPECT_FALSE(check.isWeeklyMatch("0", kNow));
    EXPECT_TRUE(check.isWeeklyMatch("1,3;5", kNow));
    EXPECT_FALSE(check.isWeeklyMatch("", kNow));

    const int64_t newYearsEve = TestClock::utc(2024, 12, 31, 23, 59, 59);
    EXPECT_TRUE(check.isInDateRange("2024-01-01", "2024-12-31", newYearsEve));
    EXPECT_TRUE(check.isInDateRange("20240101", "20241231", TestClock::utc(2024, 1, 1)));
    EXPECT_FALSE(check.isInDateRange("2024-01-01", "2024-12-31", newYearsEve + 1));
    EXPECT_TRUE(check.isInDateRange("2024-01-01 junk", "junk 2024-12-31", newYearsEve));
    EXPECT_FALSE(check.isInDateRange("2024", "-", kNow));

    // A time the calendar cannot represent matches nothing.
    EXPECT_FALSE(check.isInDailyTime("", "99:99:99", INT64_MAX));
    EXPECT_FALSE(check.isWeeklyMatch("0123456", INT64_MAX));
    EXPECT_FALSE(check.isInDateRange("", "99999999", INT64_MAX));

    // DATE needs time of day, weekday and date at once; unknown types never pass.
    ScheduleData date = *schedule("d", false, "00:00:00");
    date.type = 3;
    date.endTime = "23:59:59";
    date.startDate = "2024-01-01";
    date.endDate = "2024-12-31";
    date.weekly = "2";  // 31 December 2024 was a Tuesday
    EXPECT_TRUE(check.isScheduleValid(date, newYearsEve));
    date.weekly = "1";
    EXPECT_FALSE(check.isScheduleValid(date, newYearsEve));
    date.type = 2;
    date.weekly.clear();
    EXPECT_FALSE(check.isScheduleValid(date, newYearsEve));
    date.type = 9;
    EXPECT_FALSE(check.isScheduleValid(date, newYearsEve));
}

TEST(TimeCheckProcessor, SchedulesFilterRelaysAndGrantExemption) {
    TestClock clock;
    testing::FakeDataProvider provider;
    provider.schedules = {schedule("10"),
                          nullptr,
                          schedule("11", false, "13:00:00"),
                          schedule("12", true),
                          schedule("13", true, "13:00:00"),
                          schedule("13")};  // a later duplicate id replaces the earlier
    AuthContext context = userContext(OPEN_TYPE_CARD, {"1", "2", "3", "4", "5", "6", "7"});
    context.relayScheduleMap = {{"1", {"10"}}, {"2", {"11"}},       {"3", {"99"}},
                                {"4", {}},     {"6", {"10", "12"}}, {"7", {"99", "13"}}};

    EXPECT_EQ(TimeCheckProcessor().process(context, provider), CONTINUE);
    EXPECT_EQ(context.relays, (Relays{"1", "4", "5", "6", "7"}));
    EXPECT_EQ(context.failedRelays, (Relays{"2", "3"}));
    EXPECT_EQ(context.relayFailReasons.at("3"), "TimeCheck");
    EXPECT_FALSE(context.relayHolidayExemption.at("1"));
    EXPECT_TRUE(context.relayHolidayExemption.at("6"));  // won by the later exempting schedule
    EXPECT_FALSE(context.relayHolidayExemption.at("7"));
    EXPECT_EQ(context.relayHolidayExemption.count("4") + context.relayHolidayExemption.count("5"),
              0u);
    EXPECT_EQ(provider.ownerKeysAsked(), (Relays{"10-1"}));

    // Total failure keeps the candidate list; BLE turns it into IGNORED.
    for (const OpenDoorType kind : {OPEN_TYPE_CARD, OPEN_TYPE_BLE}) {
        AuthContext none = userContext(kind, {"1", "2"});
        none.relayScheduleMap = {{"1", {"11"}}, {"2", {"11"}}};
        EXPECT_EQ(TimeCheckProcessor().process(none, provider),
                  kind == OPEN_TYPE_BLE ? IGNORED : FAILED);
        expectFailure(none, 3, "Not in scheduled time");
        EXPECT_EQ(none.relays, (Relays{"1", "2"}));
        EXPECT_EQ(none.failedRelays, (Relays{"1", "2"}));
    }
}

TEST(TimeCheckProcessor, RelayKeyTargetsAndScheduleList) {
    TestClock clock;
    testing::FakeDataProvider provider;
    provider.schedules = {schedule("5"), schedule("7", true)};
    TimeCheckProcessor processor;

    AuthContext context = relayKey("unused when key data is attached", {"9"});
    context.request.relayKeyData = std::make_shared<RelayKeyAuthData>();
    context.request.relayKeyData->scheduleIds = " 5;+7;x;0;-3;99999999999;5";
    context.request.relayKeyData->targets = {{0, "1"}, {2, "U"}, {0, ""}, {1, "SA"}, {0, "1"}};
    context.relayScheduleMap["3"] = {"1"};
    EXPECT_EQ(processor.process(context, provider), CONTINUE);
    EXPECT_EQ(context.relays, (Relays{"1", "SA"}));
    EXPECT_EQ(context.authTargets.size(), 5u);
    EXPECT_EQ(context.relayScheduleMap.size(), 2u);
    EXPECT_EQ(context.relayScheduleMap.at("SA"), (Relays{"5", "7"}));
    EXPECT_TRUE(context.relayHolidayExemption.at("1"));
    EXPECT_EQ(provider.ownerKeysAsked(), (Relays{"5-1;5-SA;7-1;7-SA"}));

    // No key data: request targets, then request relays, and the credential as schedule list.
    AuthContext fallback = relayKey("5;9", {"1", "2"});
    fallback.request.targets = {{2, "U"}};
    EXPECT_EQ(processor.process(fallback, provider), CONTINUE);
    EXPECT_EQ(provider.ownerKeysAsked().back(), "5-1;5-2;9-1;9-2");
    EXPECT_EQ(fallback.authTargets.size(), 1u);

    AuthContext noTarget = relayKey("5", {});
    noTarget.relays = {"4"};
    EXPECT_EQ(processor.process(noTarget, provider), FAILED);
    expectFailure(noTarget, 32, "Relay key target invalid");
    EXPECT_EQ(noTarget.relays, (Relays{"4"}));
    EXPECT_TRUE(noTarget.failedRelays.empty());

    for (const char* ids : {"", ";;", "0;-1;abc"}) {
        AuthContext noSchedule = relayKey(ids, {"2"});
        EXPECT_EQ(processor.process(noSchedule, provider), FAILED) << ids;
        expectFailure(noSchedule, 3, "Relay key schedule invalid");
        EXPECT_EQ(noSchedule.relays, (Relays{"2"}));
        EXPECT_EQ(noSchedule.failedRelays, (Relays{"2"}));
    }
}

}  // namespace
}  // namespace auth_engine
