// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// The processors that narrow the candidate relays by policy: schedules and validity, virtual doors,
// holidays, forbidden open types, lockdown and the BLE open interval.
#include <gtest/gtest.h>

#include <cstdint>
#include <memory>

#include "processors/BleIntervalProcessor.h"
#include "processors/HolidayCheckProcessor.h"
#include "processors/LockDownProcessor.h"
#include "processors/TimeCheckProcessor.h"
#include "processors/UnlockTypeProcessor.h"
#include "processors/VirtualDoorProcessor.h"
#include "support/ProcessorTest.h"

namespace auth_engine {
namespace {

using namespace testing;  // NOLINT(google-build-using-namespace)
using Doors = std::map<RELAY_DIRECTION, Relays>;

const int64_t kNow = TestClock::utc(2025, 1, 15, 12);  // a Wednesday, the TestClock default

// ---- time check ----

std::shared_ptr<ScheduleData> schedule(const std::string& id, bool exempt = false,
                                       const std::string& start = "08:00:00") {
    return std::make_shared<ScheduleData>(
        ScheduleData{0, 1, id, "", start, "18:00:00", "", "", "", "", exempt});
}

// A user whose schedules are owned by "10-1", valid from `from` to `to`.
AuthContext timed(OpenDoorType openType, const Relays& relays, int64_t from = 0, int64_t to = 0) {
    AuthContext context = attempt(openType, relays, person("", 0, "10-1"));
    context.userData->validTimeStart = from;
    context.userData->validTimeEnd = to;
    return context;
}

AuthContext relayKey(const std::string& credential, const Relays& requested) {
    AuthContext context = presenting(OPEN_TYPE_RELAY_KEY, credential);
    context.request.relays = requested;
    return context;
}

using TimeCheckProcessor = ProcessorTest<processors::TimeCheckProcessor>;

TEST_F(TimeCheckProcessor, SkipsTempKeysAndMissingUser) {
    for (const OpenDoorType kind : {OPEN_TYPE_CARD, OPEN_TYPE_PUBLIC_PIN, OPEN_TYPE_LATCH_PIN}) {
        AuthContext context = attempt(kind, {"1"}, nullptr);
        context.skipTimeCheck = kind == OPEN_TYPE_CARD;
        EXPECT_EQ(run(context), CONTINUE);
    }

    // No user fails even for BLE, whose other refusals are ignored.
    AuthContext noUser = attempt(OPEN_TYPE_BLE, {"1", "2"}, nullptr);
    noUser.failedRelays = {"2"};
    EXPECT_EQ(decide(noUser), "FAILED 1 'No user data' [1,2] [2,1] {1:TimeCheck}");

    // Temporary keys are not filtered; an active exempting schedule exempts every relay.
    provider.schedules = {nullptr, schedule("a", true, "13:00:00"), schedule("b"),
                          schedule("c", true)};
    AuthContext tempKey = timed(OPEN_TYPE_TEMP_KEY, {"1", "2"});
    tempKey.relayScheduleMap["1"] = {"zzz"};
    EXPECT_EQ(decide(tempKey), "CONTINUE 0 '' [1,2] [] exempt{1:1,2:1}");
    EXPECT_TRUE(tempKey.relayStatusMap.at("2").holidayExemption);
    provider.schedules = {schedule("b")};
    EXPECT_EQ(decide(timed(OPEN_TYPE_TEMP_KEY, {"1"})), "CONTINUE 0 '' [1] [] exempt{1:0}");
}

TEST_F(TimeCheckProcessor, ValidityAndScheduleRules) {
    auto plate = [&](int64_t start, int64_t end, bool longTerm, int64_t to = 0) {
        AuthContext context = timed(OPEN_TYPE_LICENSE_PLATE, {"1"}, to == 0 ? 0 : kNow, to);
        context.keyData = std::make_shared<KeyData>(KeyData{start, end, longTerm});
        return decide(context);
    };
    const std::string refused = " [1] [1] {1:InvalidTimeRange}";
    EXPECT_EQ(decide(timed(OPEN_TYPE_LICENSE_PLATE, {"1"})),
              "FAILED 22 'License plate key data not found' [1] [1] {1:TimeCheck}");
    EXPECT_EQ(plate(kNow + 1, 0, false), "FAILED 7 'License plate not yet valid'" + refused);
    EXPECT_EQ(plate(0, kNow - 1, false), "FAILED 7 'License plate expired'" + refused);
    EXPECT_EQ(plate(kNow, kNow, false), "CONTINUE 0 '' [1] []");
    // User bounds are inclusive; a valid plate does not excuse an expired user; BLE is ignored.
    EXPECT_EQ(plate(kNow + 100, kNow - 100, true), "CONTINUE 0 '' [1] []");
    EXPECT_EQ(plate(kNow + 100, kNow - 100, true, kNow), "CONTINUE 0 '' [1] []");
    EXPECT_EQ(plate(kNow + 100, kNow - 100, true, kNow - 1),
              "FAILED 22 'User expired' [1] [1] {1:InvalidUserTime}");
    EXPECT_EQ(decide(timed(OPEN_TYPE_BLE, {"1"}, kNow + 1)),
              "IGNORED/FAILED 22 'User not yet valid' [1] [1] {1:InvalidUserTime}");

    // Daily, weekly and date rules.
    const int64_t sixPm = TestClock::utc(2025, 1, 15, 18);
    const int64_t newYearsEve = TestClock::utc(2024, 12, 31, 23, 59, 59);
    const std::string ok = "08:00:00", night = "22:00:00", morning = "06:00:00", late = "99:99:99";
    EXPECT_TRUE(processor.isInDailyTime(ok, "18:00:00", sixPm));
    EXPECT_FALSE(processor.isInDailyTime(ok, "18:00:00", sixPm + 1) ||
                 processor.isInDailyTime(night, morning, TestClock::utc(2025, 1, 15, 23)) ||
                 processor.isInDailyTime(night, morning, TestClock::utc(2025, 1, 15, 5)) ||
                 processor.isInDailyTime("", "", kNow));
    EXPECT_TRUE(processor.isWeeklyMatch("0", TestClock::utc(2025, 1, 19, 12)));  // a Sunday
    EXPECT_TRUE(processor.isWeeklyMatch("1,3;5", kNow));
    EXPECT_FALSE(processor.isWeeklyMatch("0", kNow) || processor.isWeeklyMatch("", kNow));
    EXPECT_TRUE(processor.isInDateRange("2024-01-01", "2024-12-31", newYearsEve));
    // Without dashes; an overlong start keeps its first eight characters, an end its last eight.
    EXPECT_TRUE(processor.isInDateRange("20240101x", "20241231", TestClock::utc(2024, 1, 1)));
    EXPECT_TRUE(processor.isInDateRange("2024-01-01 junk", "junk 2024-12-31", newYearsEve));
    EXPECT_FALSE(processor.isInDateRange("2024-01-01", "2024-12-31", newYearsEve + 1) ||
                 processor.isInDateRange("2024", "-", kNow));

    // A time the calendar cannot represent matches nothing.
    EXPECT_FALSE(processor.isInDailyTime("", late, INT64_MAX) ||
                 processor.isWeeklyMatch("0123456", INT64_MAX) ||
                 processor.isInDateRange("", "99999999", INT64_MAX));

    // DATE needs time of day, weekday and date at once; unknown types never pass.
    // 31 December 2024 was a Tuesday.
    ScheduleData date{0,   3,  "d",  "", "00:00:00", "23:59:59", "2024-01-01", "2024-12-31",
                      "2", "", false};
    EXPECT_TRUE(processor.isScheduleValid(date, newYearsEve));
    for (const auto& [type, weekly] :
         std::vector<std::pair<int, std::string>>{{3, "1"}, {2, ""}, {9, ""}}) {
        date.type = type;
        date.weekly = weekly;
        EXPECT_FALSE(processor.isScheduleValid(date, newYearsEve)) << type;
    }
}

TEST_F(TimeCheckProcessor, SchedulesFilterRelaysAndGrantExemption) {
    // A later duplicate id replaces the earlier.
    provider.schedules = {schedule("10"),
                          nullptr,
                          schedule("11", false, "13:00:00"),
                          schedule("12", true),
                          schedule("13", true, "13:00:00"),
                          schedule("13")};
    AuthContext context = timed(OPEN_TYPE_CARD, {"1", "2", "3", "4", "5", "6", "7"});
    context.relayScheduleMap = {{"1", {"10"}}, {"2", {"11"}},       {"3", {"99"}},
                                {"4", {}},     {"6", {"10", "12"}}, {"7", {"99", "13"}}};
    // Relay 6 is exempt by its later exempting schedule; 4 and 5 have no schedule to judge by.
    EXPECT_EQ(decide(context),
              "CONTINUE 0 '' [1,4,5,6,7] [2,3] {2:TimeCheck,3:TimeCheck} exempt{1:0,6:1,7:0}");
    EXPECT_EQ(provider.ownerKeysAsked(), (Relays{"10-1"}));

    // Total failure keeps the candidate list; BLE turns it into IGNORED.
    for (const OpenDoorType kind : {OPEN_TYPE_CARD, OPEN_TYPE_BLE}) {
        AuthContext none = timed(kind, {"1", "2"});
        none.relayScheduleMap = {{"1", {"11"}}, {"2", {"11"}}};
        EXPECT_EQ(decide(none), (kind == OPEN_TYPE_BLE ? "IGNORED/" : "") +
                                    std::string("FAILED 3 'Not in scheduled time' [1,2] [1,2] "
                                                "{1:TimeCheck,2:TimeCheck}"));
    }
}

TEST_F(TimeCheckProcessor, RelayKeyTargetsAndScheduleList) {
    provider.schedules = {schedule("5"), schedule("7", true)};
    AuthContext context = relayKey("unused when key data is attached", {"9"});
    context.request.relayKeyData = std::make_shared<RelayKeyAuthData>();
    context.request.relayKeyData->scheduleIds = " 5;+7;x;0;-3;99999999999;5";
    context.request.relayKeyData->targets = {{0, "1"}, {2, "U"}, {0, ""}, {1, "SA"}, {0, "1"}};
    context.relayScheduleMap["3"] = {"1"};
    EXPECT_EQ(decide(context), "CONTINUE 0 '' [1,SA] [] exempt{1:1,SA:1}");
    EXPECT_EQ(std::make_pair(context.authTargets.size(), context.relayScheduleMap.size()),
              std::make_pair(std::size_t{5}, std::size_t{2}));
    EXPECT_EQ(context.relayScheduleMap.at("SA"), (Relays{"5", "7"}));
    EXPECT_EQ(provider.ownerKeysAsked(), (Relays{"5-1;5-SA;7-1;7-SA"}));

    // No key data: request targets, then request relays, and the credential as schedule list.
    AuthContext fallback = relayKey("5;9", {"1", "2"});
    fallback.request.targets = {{2, "U"}};
    EXPECT_EQ(run(fallback), CONTINUE);
    EXPECT_EQ(provider.ownerKeysAsked().back() + targetsOf(fallback.authTargets),
              "5-1;5-2;9-1;9-2 2:U");

    AuthContext noTarget = relayKey("5", {});
    noTarget.relays = {"4"};
    EXPECT_EQ(decide(noTarget), "FAILED 32 'Relay key target invalid' [4] []");
    for (const char* ids : {"", ";;", "0;-1;abc"}) {
        EXPECT_EQ(decide(relayKey(ids, {"2"})),
                  "FAILED 3 'Relay key schedule invalid' [2] [2] {2:TimeCheck}")
            << ids;
    }
}

// ---- virtual door ----

AuthContext doorUser(const std::string& scheduleRelay, const Relays& relays = {},
                     ReaderType reader = READER_TYPE_INTERNAL) {
    AuthContext context = attempt(OPEN_TYPE_CARD, relays, person("", 0, scheduleRelay));
    context.request.readerType = reader;
    return context;
}

class VirtualDoorProcessor : public ProcessorTest<processors::VirtualDoorProcessor> {
protected:
    void enableDoors(ReaderType reader, const Doors& doors) {
        provider.config.virtualDoorEnabled = true;
        provider.config.readerRelayMap[reader] = doors;
    }
};

TEST_F(VirtualDoorProcessor, ScheduleStage) {
    // Entries without '-' and empty relay lists name nothing; repeats are dropped.
    AuthContext all = doorUser("3-1,2;4-2;junk;;5-;6-SA,2,S1,2");
    all.relayScheduleMap["9"] = {"old"};
    EXPECT_EQ(decide(all), "CONTINUE 0 '' [1,2,SA] []");
    EXPECT_EQ(all.relayScheduleMap, (std::map<std::string, Relays>{
                                        {"1", {"3", "6"}}, {"2", {"3", "4", "6"}}, {"SA", {"6"}}}));
    EXPECT_EQ(decide(doorUser("")), "CONTINUE 0 '' [] []");
    EXPECT_EQ(decide(doorUser("3-1,2", {"2", "5"})), "CONTINUE 0 '' [2] [5] {5:NotInSchedule}");
    EXPECT_EQ(decide(doorUser("3-1", {"5", "6"})),
              "FAILED 3 'Requested relay is not in schedule' [] [5,6] "
              "{5:NotInSchedule,6:NotInSchedule} failed[5,6]");

    // An admitted DTMF visitor keeps its relays, but the time check still gets the schedule map.
    AuthContext visitor = doorUser("3-1", {"5"});
    visitor.request.virtualDoorSkipRelaySchedule = true;
    EXPECT_EQ(decide(visitor), "CONTINUE 0 '' [5] []");
    EXPECT_EQ(visitor.relayScheduleMap.count("1"), 1U);
}

TEST_F(VirtualDoorProcessor, SkipsLeaveRelaysAlone) {
    enableDoors(READER_TYPE_INTERNAL, {{RELAY_DIRECTION_IN, {"7"}}});
    std::vector<AuthContext> contexts(4, doorUser("3-1", {"5"}));
    contexts[0].request.openType = OPEN_TYPE_PUBLIC_PIN;
    contexts[1].request.openType = OPEN_TYPE_LATCH_PIN;
    contexts[2].userData.reset();
    contexts[3].request.virtualDoorExempt = true;
    for (AuthContext& context : contexts) {
        EXPECT_EQ(decide(context), "CONTINUE 0 '' [5] []");
    }
    EXPECT_EQ(provider.callCount("getAuthConfig"), 0);

    // skipVirtualDoor comes after the schedule stage: doors are not applied, schedules are.
    AuthContext skip = doorUser("3-1,5", {"5", "2"});
    skip.skipVirtualDoor = true;
    EXPECT_EQ(decide(skip), "CONTINUE 0 '' [5] [2] {2:NotInSchedule}");
    EXPECT_EQ(skip.virtualDoorDirection, -1);
}

TEST_F(VirtualDoorProcessor, ReaderAndDirectionChoice) {
    enableDoors(READER_TYPE_EXTERNAL_2, {});
    provider.config.cloudVirtualDoorConfigured = true;

    // With remotely managed doors the internal reader without doors is refused; others pass.
    EXPECT_EQ(decide(doorUser("3-1,2", {"1", "2"})),
              "FAILED 3 'Virtual door reader access denied' [1,2] [] failed[1,2]");
    EXPECT_EQ(run(doorUser("3-1,2", {"1", "2"}, READER_TYPE_EXTERNAL_2)), CONTINUE);
    provider.config.cloudVirtualDoorConfigured = false;
    EXPECT_EQ(decide(doorUser("3-1,2", {"1", "2"})), "CONTINUE 0 '' [1,2] []");

    // Direction 2, then 1, then 0: the first with doors; unknown directions never count.
    const std::vector<std::pair<Doors, int>> cases = {
        {{{RELAY_DIRECTION_OUT, {}}, {RELAY_DIRECTION_IN, {"2"}}, {RELAY_DIRECTION_NONE, {"1"}}},
         1},
        {{{RELAY_DIRECTION_OUT, {"1"}}, {RELAY_DIRECTION_IN, {"2"}}}, 2},
        {{{RELAY_DIRECTION_NONE, {"1"}}}, 0},
        {{{RELAY_DIRECTION_OUT, {}}, {static_cast<RELAY_DIRECTION>(5), {"1"}}}, -1}};
    for (const auto& [doors, direction] : cases) {
        provider.config.readerRelayMap[READER_TYPE_INTERNAL] = doors;
        AuthContext context = doorUser("3-1,2");
        context.request.direction = 7;
        EXPECT_EQ(run(context), CONTINUE);
        EXPECT_EQ(std::make_pair(context.virtualDoorDirection, context.request.direction),
                  std::make_pair(direction, direction < 0 ? 7 : direction));
        EXPECT_EQ(context.relays, direction < 0 ? (Relays{"1", "2"}) : context.accessibleDoors);
    }
}

TEST_F(VirtualDoorProcessor, OverrideVersusFilter) {
    enableDoors(READER_TYPE_EXTERNAL_1, {{RELAY_DIRECTION_IN, {"3", "", "SA", "3"}}});
    enableDoors(READER_TYPE_INTERNAL, {{RELAY_DIRECTION_IN, {"1", "3"}}});
    provider.config.virtualDoorMode = 1;
    // External reader in override mode: the configured doors replace the request.
    EXPECT_EQ(decide(doorUser("3-1,2", {"1"}, READER_TYPE_EXTERNAL_1)), "CONTINUE 0 '' [3,SA] []");
    // A temporary key and the internal reader are filtered instead.
    AuthContext tempKey = doorUser("3-1,2", {"1"}, READER_TYPE_EXTERNAL_1);
    tempKey.request.openType = OPEN_TYPE_TEMP_KEY;
    EXPECT_EQ(decide(tempKey), "FAILED 3 'Virtual door access denied' [] [] failed[1]");
    // Inaccessible doors are not failures.
    EXPECT_EQ(decide(doorUser("3-1,2", {"1", "2"})), "CONTINUE 0 '' [1] []");
}

// ---- holiday check ----

HolidayData holiday(const std::string& start, const std::string& end, int type = 0,
                    const std::string& timeRange = "", int yearly = 0) {
    return HolidayData{0, yearly, type, timeRange, "", "", start, end};
}

class HolidayCheckProcessor : public ProcessorTest<processors::HolidayCheckProcessor> {
protected:
    HolidayCheckProcessor() { provider.config.holidayEnabled = true; }
    static AuthContext holidayUser(const Relays& relays) {
        AuthContext context = attempt(OPEN_TYPE_CARD, relays);
        context.userData->holidayKey = "hk";
        return context;
    }
    // Runs the check with `holidays` at `when` for relay "1" and tells whether it held it back.
    bool holds(const std::vector<HolidayData>& holidays, int64_t when) {
        provider.holidays = holidays;
        clock.setWall(when);
        AuthContext context = holidayUser({"1"});
        const AuthResult result = run(context);
        EXPECT_EQ(context.holidayState, result == FAILED ? 2 : 0);
        return result == FAILED;
    }
};

const int64_t kTen = TestClock::utc(2025, 1, 15, 10);

TEST_F(HolidayCheckProcessor, SkipsLeaveRelaysAlone) {
    provider.holidays = {holiday("2025-01-01", "2025-12-31")};
    for (int variant = 0; variant < 6; ++variant) {
        AuthContext context = holidayUser({"1"});
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
        EXPECT_EQ(decide(context), "CONTINUE 0 '' [1] []") << variant;
        EXPECT_EQ(context.holidayState, 0) << variant;
    }
    EXPECT_EQ(provider.ownerKeysAsked(), (Relays{"hk"}));  // only the empty-list variant asked
}

TEST_F(HolidayCheckProcessor, DaysAndTimeRanges) {
    const HolidayData morning = holiday("2025-01-15", "2025-01-15", 1, "09:00:00-12:00:00");
    EXPECT_TRUE(holds({morning}, TestClock::utc(2025, 1, 15, 8, 59, 59)));
    EXPECT_FALSE(holds({morning}, TestClock::utc(2025, 1, 15, 9)));
    EXPECT_FALSE(holds({morning}, TestClock::utc(2025, 1, 15, 12)));
    EXPECT_TRUE(holds({morning}, TestClock::utc(2025, 1, 15, 12, 0, 1)));
    EXPECT_FALSE(holds({morning}, TestClock::utc(2025, 1, 16, 8)));  // not a holiday day at all

    // Ranges that cannot be read never open the holiday's access hours.
    for (const char* range : {"", "09:00:00", "090000000-12:00:00", "-", "12:00:00-09:00:00"}) {
        EXPECT_TRUE(holds({holiday("2025-01-15", "2025-01-15", 1, range)}, kTen)) << range;
    }
    // A whole-day holiday ignores its time range.
    EXPECT_TRUE(holds({holiday("2025-01-15", "2025-01-15", 0, "00:00:00-23:59:59")}, kTen));

    // Only the first holiday that matches the day counts.
    const HolidayData open = holiday("2025-01-15", "2025-01-15", 1, "00:00:00-23:59:59");
    const HolidayData closed = holiday("2025-01-10", "2025-01-20");
    const HolidayData elsewhere = holiday("2024-01-01", "2024-12-31");
    EXPECT_FALSE(holds({elsewhere, open, closed}, kTen));
    EXPECT_TRUE(holds({elsewhere, closed, open}, kTen));

    // Yearly holidays compare month and day.
    const HolidayData xmas = holiday("2020-12-24", "2020-12-26", 0, "", 1);
    EXPECT_TRUE(holds({xmas}, TestClock::utc(2025, 12, 25, 10)));
    EXPECT_TRUE(holds({xmas}, TestClock::utc(2031, 12, 26, 23, 59, 59)));
    EXPECT_FALSE(holds({xmas}, TestClock::utc(2025, 12, 27)));
    // The same dates without yearly repeat belong to 2020 only.
    EXPECT_FALSE(holds({holiday("2020-12-24", "2020-12-26")}, TestClock::utc(2025, 12, 25, 10)));

    const HolidayData turn = holiday("2020-12-31", "2021-01-01", 0, "", 1);
    EXPECT_FALSE(holds({turn}, TestClock::utc(2025, 12, 31, 10)));
    EXPECT_FALSE(holds({turn}, TestClock::utc(2026, 1, 1, 10)));

    // Short texts: an empty start counts from 1 January, a short end never matches.
    EXPECT_TRUE(holds({holiday("", "2020-02-01", 0, "", 1)}, kTen));
    EXPECT_FALSE(holds({holiday("2020-01-01", "02-01", 0, "", 1)}, kTen));
    EXPECT_FALSE(holds({holiday("x", "", 0, "", 1)}, kTen));
}

TEST_F(HolidayCheckProcessor, ExemptRelaysSurviveByScheduleOrHostAndNoneFails) {
    provider.holidays = {holiday("2025-01-15", "2025-01-15")};
    provider.holidayExemptRelays = {"3", "1"};
    AuthContext context = holidayUser({"1", "2", "3", "4"});
    context.relayHolidayExemption = {{"1", true}, {"2", false}, {"4", true}};
    context.failedRelays = {"9"};
    EXPECT_EQ(decide(context), "CONTINUE 0 '' [1,3,4] [9,2] {2:Holiday} exempt{1:1,2:0,4:1}");
    // Detail lines are built only while a sink listens, as the captured log does here.
    EXPECT_TRUE(context.holidayState == 2 && log.contains("holiday exemption relays=1,3,4"));
    // Asked even for schedule-exempt ones.
    EXPECT_EQ(provider.callCount("isRelayHolidayExempt"), 4);

    provider.holidays = {holiday("2025-01-01", "2025-01-31")};
    provider.holidayExemptRelays.clear();
    AuthContext none = holidayUser({"1", "2"});
    none.relayHolidayExemption = {{"1", false}};
    EXPECT_EQ(decide(none),
              "FAILED 2 'Access denied: no relay with holiday exemption' [] [1,2] "
              "{1:Holiday,2:Holiday} exempt{1:0}");
    EXPECT_EQ(none.holidayState, 2);
}

// ---- forbidden open types ----

// A host whose answer, once set, is returned verbatim, so it can name relays that were not asked
// about.
class VerbatimProvider : public FakeDataProvider {
public:
    std::optional<Relays> answer;
    Relays getForbiddenUnlockTypeRelays(const Relays& relays, OpenDoorType openType) override {
        Relays scripted = FakeDataProvider::getForbiddenUnlockTypeRelays(relays, openType);
        return answer ? *answer : scripted;
    }
};

AuthContext unlockAttempt(const Relays& relays, OpenDoorType openType,
                          ReaderType reader = READER_TYPE_INTERNAL) {
    AuthContext context = attempt(openType, relays, nullptr);
    context.request.readerType = reader;
    return context;
}

using UnlockTypeProcessor = ProcessorTest<processors::UnlockTypeProcessor, VerbatimProvider>;

TEST_F(UnlockTypeProcessor, PartialAndTotalRemoval) {
    provider.forbiddenRelays[OPEN_TYPE_CARD] = {"2", "SA"};
    EXPECT_EQ(decide(unlockAttempt({"1", "2", "3"}, OPEN_TYPE_CARD)),
              "CONTINUE 4 '' [1,3] [2] {2:UnlockType} failed[2]");
    EXPECT_EQ(decide(unlockAttempt({"SA", "2"}, OPEN_TYPE_CARD)),
              "FAILED 4 'Forbidden open type for all relays' [] [SA,2] "
              "{2:UnlockType,SA:UnlockType} failed[SA,2]");
}

TEST_F(UnlockTypeProcessor, SkipsAndHostAnswers) {
    provider.answer = Relays{"1"};
    std::vector<AuthContext> skipped = {
        unlockAttempt({"1"}, OPEN_TYPE_CARD, READER_TYPE_EXTERNAL_1),
        unlockAttempt({"1"}, OPEN_TYPE_RELAY_KEY), unlockAttempt({}, OPEN_TYPE_CARD),
        unlockAttempt({"1"}, OPEN_TYPE_PIN)};
    skipped[3].skipUnlockType = true;
    for (AuthContext& context : skipped) {
        EXPECT_EQ(decide(context), "CONTINUE 0 '' [" + joinRelayVector(context.relays) + "] []");
    }
    EXPECT_EQ(provider.callCount("getForbiddenUnlockTypeRelays"), 0);

    // Nothing forbidden keeps an earlier verdict; unknown or near-miss names remove nothing but are
    // still reported as the host's answer.
    AuthContext context = unlockAttempt({"1", "2"}, OPEN_TYPE_PIN);
    context.response.failCode = 6;
    provider.answer = Relays{};
    EXPECT_EQ(decide(context), "CONTINUE 6 '' [1,2] []");
    provider.answer = Relays{"9", "", " 1"};
    EXPECT_EQ(decide(context), "CONTINUE 4 '' [1,2] [] failed[9,, 1]");
}

// ---- lockdown ----

using LockDownProcessor = ProcessorTest<processors::LockDownProcessor>;

TEST_F(LockDownProcessor, PartialTotalBypassAndNothingLocked) {
    provider.lockedDownRelays = {"2", "SA"};
    AuthContext partial = attempt(OPEN_TYPE_NONE, {"1", "2", "SA"});
    partial.failedRelays = {"2"};  // failed earlier: listed again, not merged
    EXPECT_EQ(decide(partial), "CONTINUE 6 '' [1] [2,2,SA] {2:LockDown,SA:LockDown} failed[2,SA]");
    // Without a user there is no bypass.
    EXPECT_EQ(decide(attempt(OPEN_TYPE_NONE, {"SA", "2"}, nullptr)),
              "FAILED 6 'All relays are in lockdown' [] [SA,2] {2:LockDown,SA:LockDown} "
              "failed[SA,2]");

    provider.lockedDownRelays = {"1"};
    for (int bypass : {-1, 0, 1, 5}) {
        AuthContext context = attempt(OPEN_TYPE_NONE, {"1"});
        context.userData->lockdownBypass = bypass;
        EXPECT_EQ(run(context), bypass >= 1 ? CONTINUE : FAILED);
    }
    // Nothing locked (or nothing to check): an earlier partial verdict stays as it was.
    AuthContext free = attempt(OPEN_TYPE_NONE, {"3"});
    free.response.failCode = 4;
    free.response.failedRelays = {"9"};
    EXPECT_EQ(decide(free), "CONTINUE 4 '' [3] [] failed[9]");
    EXPECT_EQ(run(attempt(OPEN_TYPE_NONE, {})), CONTINUE);
    EXPECT_EQ(provider.callCount("getLockedDownRelays"), 5);
}

// ---- BLE open interval ----

// A host that allows one BLE open per user.
class OncePerUserProvider : public FakeDataProvider {
public:
    bool checkBleOpenInterval(const UserData& user, const Relays& relays) override {
        FakeDataProvider::checkBleOpenInterval(user, relays);
        return bleRecords.empty() || lastUser != user.userId;
    }
    void recordBleOpen(const UserData& user, const Relays& relays) override {
        FakeDataProvider::recordBleOpen(user, relays);
        lastUser = user.userId;
    }
    std::string lastUser;
};

using BleIntervalProcessor = ProcessorTest<processors::BleIntervalProcessor, OncePerUserProvider>;

TEST_F(BleIntervalProcessor, SecondOpenInARowIsIgnoredAndNotRecordedOnlyForBle) {
    // Only BLE with a user and relays is checked.
    std::vector<AuthContext> contexts(3, attempt(OPEN_TYPE_BLE, {"1"}, person("u1")));
    contexts[0].userData.reset();
    contexts[1].relays.clear();
    contexts[2].request.openType = OPEN_TYPE_CARD;
    for (AuthContext& context : contexts) {
        EXPECT_EQ(decide(context), "CONTINUE 0 '' [" + joinRelayVector(context.relays) + "] []");
    }
    EXPECT_TRUE(provider.calls().empty());

    EXPECT_EQ(decide(attempt(OPEN_TYPE_BLE, {"1", "SA"}, person("u7"))), "CONTINUE 0 '' [1,SA] []");
    EXPECT_EQ(provider.bleRecords, (std::vector<Relays>{{"1", "SA"}}));
    AuthContext second = attempt(OPEN_TYPE_BLE, {"1", "SA"}, person("u7"));
    second.response.failCode = 3;
    EXPECT_EQ(decide(second), "IGNORED/CONTINUE 3 'BLE open interval' [1,SA] []");
    EXPECT_EQ(provider.calls(),
              (Relays{"checkBleOpenInterval", "recordBleOpen", "checkBleOpenInterval"}));
}

}  // namespace
}  // namespace auth_engine
