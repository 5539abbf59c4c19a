// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// Time-of-day, weekday and date comparisons of the schedule check, and the holiday check with
// host-supplied holiday texts, compared with a reference that computes the calendar by counting
// days instead of asking the C library.
#include "FuzzValues.h"
#include "auth_engine/AuthClock.h"
#include "processors/HolidayCheckProcessor.h"
#include "processors/TimeCheckProcessor.h"
#include "support/FakeDataProvider.h"

namespace auth_engine {
namespace fuzz {
namespace {

using testing::FakeDataProvider;

// Earliest second whose year has four digits (1000-01-01 00:00:00 UTC).
constexpr int64_t kFirstFourDigitSecond = -30610224000;

void checkComparisons(FuzzInput& in) {
    // Mostly moments near the anchors; sometimes any 64-bit value, which must merely not crash.
    const int64_t now = in.flag() ? momentFrom(in) : in.int64();
    ScheduleData schedule;
    ScheduleData& s = schedule;
    schedule.startTime = timeText(in);
    schedule.endTime = timeText(in);
    schedule.weekly = in.flag() ? in.textFrom("0123456789,- x", 10) : in.bytes(10);
    schedule.startDate = dateText(in);
    schedule.endDate = dateText(in);
    schedule.type = in.range(0, 4);

    processors::TimeCheckProcessor processor;
    const bool daily = processor.isInDailyTime(s.startTime, s.endTime, now);
    const bool weekday = processor.isWeeklyMatch(s.weekly, now);
    const bool dated = processor.isInDateRange(s.startDate, s.endDate, now);
    const bool valid = processor.isScheduleValid(schedule, now);
    if (now < kFirstFourDigitSecond || now > kLastFourDigitSecond) {
        return;
    }
    const std::string at = " at " + std::to_string(now);
    FUZZ_CHECK(daily == referenceDailyTime(s.startTime, s.endTime, now),
               "|" + s.startTime + "|..|" + s.endTime + "|" + at);
    FUZZ_CHECK(weekday == referenceWeekly(s.weekly, now), "|" + s.weekly + "|" + at);
    FUZZ_CHECK(dated == referenceDateRange(s.startDate, s.endDate, now),
               "|" + s.startDate + "|..|" + s.endDate + "|" + at);
    FUZZ_CHECK(valid == referenceScheduleValid(schedule, now),
               "type " + std::to_string(s.type) + at);
}

/// "HH:MM:SS-HH:MM:SS" from two times (the dash sometimes missing), or arbitrary bytes.
std::string timeRangeText(FuzzInput& in) {
    if (in.range(0, 3) == 0) {
        return in.bytes(20);
    }
    const std::string start = timeText(in), dash = in.range(0, 7) == 0 ? "" : "-";
    return start + dash + timeText(in);
}

/// "HH:MM:SS-HH:MM:SS" as the holiday check reads it: the dash within the first nine
/// characters, eight characters on each side.
bool insideTimeRange(const std::string& range, const std::string& clock) {
    const std::size_t dash = range.find('-');
    return dash <= 8 && range.substr(0, 8) <= clock && clock <= range.substr(dash + 1, 8);
}

bool holidayToday(const HolidayData& holiday, const std::string& today) {
    const auto part = [&holiday](const std::string& date) {  // yearly: month and day only
        return holiday.yearlyRepeat == 0 ? date : date.size() < 10 ? "" : date.substr(5, 5);
    };
    return part(holiday.startDate) <= part(today) && part(today) <= part(holiday.endDate);
}

void checkHoliday(FuzzInput& in) {
    FakeDataProvider provider;
    provider.config.holidayEnabled = in.range(0, 7) != 0;
    for (int i = 0, count = in.range(0, 4); i < count; ++i) {
        provider.holidays.push_back(HolidayData{0, in.pick(std::vector<int>({0, 0, 1, -1, 7})),
                                                in.range(0, 3), timeRangeText(in), "", "",
                                                dateText(in), dateText(in)});
    }
    const Relays exempt = relaysFrom(in);
    provider.holidayExemptRelays.insert(exempt.begin(), exempt.end());

    AuthContext context;
    context.request.openType =
        static_cast<OpenDoorType>(in.pick(std::vector<int>({1, 2, 3, 4, 9, 10, 11, 15})));
    context.skipHolidayCheck = in.range(0, 7) == 0;
    if (in.range(0, 7) != 0) {
        context.userData = std::make_shared<UserData>();
        context.userData->holidayExempt = in.range(0, 7) == 0 ? in.range(1, 255) : 0;
    }
    context.relays = relaysFrom(in);
    for (const std::string& relay : relaysFrom(in)) {
        context.relayHolidayExemption[relay] = in.flag();
    }
    context.failedRelays = {"9"};  // a relay removed earlier stays listed first
    context.holidayState = 5;
    const AuthContext before = context;
    const int64_t now = momentFrom(in);
    AuthClock::setNowOverride([now] { return now; });
    const AuthResult result = processors::HolidayCheckProcessor().process(context, provider);
    AuthClock::setNowOverride(nullptr);

    const Civil civil = civilFromSeconds(now);
    const std::string detail = civil.date + " " + civil.clock + " result " +
                               std::to_string(result) + " state " +
                               std::to_string(context.holidayState) + joinForDetail(context.relays);
    const int openType = before.request.openType;
    const bool skipped = before.skipHolidayCheck || openType == OPEN_TYPE_PUBLIC_PIN ||
                         openType == OPEN_TYPE_LATCH_PIN || !provider.config.holidayEnabled ||
                         !before.userData || before.userData->holidayExempt != 0;
    // Only the first holiday of today counts.
    const auto first =
        std::find_if(provider.holidays.begin(), provider.holidays.end(),
                     [&](const HolidayData& h) { return holidayToday(h, civil.date); });
    FUZZ_CHECK(provider.callCount("getHolidays") <= 1, detail);
    if (skipped || first == provider.holidays.end() ||
        (first->type == 1 && insideTimeRange(first->timeRange, civil.clock))) {
        return FUZZ_CHECK(result == CONTINUE && context.holidayState == 0 &&
                              context.relays == before.relays &&
                              context.failedRelays == before.failedRelays,
                          detail);
    }

    Relays kept, failed = before.failedRelays;
    for (const std::string& relay : before.relays) {
        const auto bySchedule = before.relayHolidayExemption.find(relay);
        const bool exempt =
            (bySchedule != before.relayHolidayExemption.end() && bySchedule->second) ||
            provider.holidayExemptRelays.count(relay) != 0;
        (exempt ? kept : failed).push_back(relay);
    }
    FUZZ_CHECK(
        context.holidayState == 2 && context.relays == kept && context.failedRelays == failed,
        detail);
    FUZZ_CHECK(provider.callCount("isRelayHolidayExempt") == static_cast<int>(before.relays.size()),
               detail);
    for (std::size_t i = before.failedRelays.size(); i < failed.size(); ++i) {
        FUZZ_CHECK(context.relayFailReasons[failed[i]] == "Holiday", detail);
    }
    FUZZ_CHECK(kept.empty()
                   ? result == FAILED && context.response.failCode == 2 &&
                         context.response.reason == "Access denied: no relay with holiday exemption"
                   : result == CONTINUE && context.response.failCode == 0,
               detail);
}

}  // namespace

void fuzzOne(FuzzInput& in) {
    (in.flag() ? checkHoliday : checkComparisons)(in);
}

}  // namespace fuzz
}  // namespace auth_engine
