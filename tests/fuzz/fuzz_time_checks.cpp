// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// Time-of-day, weekday and date comparisons of the schedule check, and the holiday check with
// host-supplied holiday texts, compared with a reference that computes the calendar by counting
// days instead of asking the C library.
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "FuzzInput.h"
#include "FuzzReference.h"
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

std::string quoted(const std::string& text) {
    return "\"" + text + "\"";
}

void checkComparisons(FuzzInput& in) {
    // Mostly moments near the anchors; sometimes any 64-bit value, which must merely not crash.
    const int64_t now = in.flag() ? momentFrom(in) : in.int64();
    const std::string startTime = timeText(in);
    const std::string endTime = timeText(in);
    const std::string weekly = in.flag() ? in.textFrom("0123456789,- x", 10) : in.bytes(10);
    const std::string startDate = dateText(in);
    const std::string endDate = dateText(in);

    processors::TimeCheckProcessor processor;
    const bool daily = processor.isInDailyTime(startTime, endTime, now);
    const bool weekday = processor.isWeeklyMatch(weekly, now);
    const bool dated = processor.isInDateRange(startDate, endDate, now);
    ScheduleData schedule;
    schedule.type = in.range(0, 4);
    schedule.startTime = startTime;
    schedule.endTime = endTime;
    schedule.weekly = weekly;
    schedule.startDate = startDate;
    schedule.endDate = endDate;
    const bool valid = processor.isScheduleValid(schedule, now);

    if (now < kFirstFourDigitSecond || now > kLastFourDigitSecond) {
        return;
    }
    const std::string at = " at " + std::to_string(now);
    FUZZ_CHECK(daily == referenceDailyTime(startTime, endTime, now),
               quoted(startTime) + ".." + quoted(endTime) + at);
    FUZZ_CHECK(weekday == referenceWeekly(weekly, now), quoted(weekly) + at);
    FUZZ_CHECK(dated == referenceDateRange(startDate, endDate, now),
               quoted(startDate) + ".." + quoted(endDate) + at);
    FUZZ_CHECK(valid == referenceScheduleValid(schedule, now),
               "type " + std::to_string(schedule.type) + at);
}

/// "HH:MM:SS-HH:MM:SS" from two times, or arbitrary bytes.
std::string timeRangeText(FuzzInput& in) {
    if (in.range(0, 3) == 0) {
        return in.bytes(20);
    }
    const std::string start = timeText(in);
    const std::string dash = in.range(0, 7) == 0 ? "" : "-";
    return start + dash + timeText(in);
}

std::string monthDay(const std::string& date) {
    return date.size() < 10 ? std::string() : date.substr(5, 5);
}

bool holidayDateMatches(const HolidayData& holiday, const std::string& today) {
    if (holiday.yearlyRepeat != 0) {
        const std::string day = monthDay(today);
        return monthDay(holiday.startDate) <= day && day <= monthDay(holiday.endDate);
    }
    return holiday.startDate <= today && today <= holiday.endDate;
}

bool insideTimeRange(const std::string& range, const std::string& clock) {
    const std::size_t dash = range.find('-');
    if (dash == std::string::npos || dash > 8) {
        return false;
    }
    const std::string start = range.substr(0, 8);
    const std::string end = range.substr(dash + 1, 8);
    return start <= clock && clock <= end;
}

void checkHoliday(FuzzInput& in) {
    FakeDataProvider provider;
    provider.config.holidayEnabled = in.range(0, 7) != 0;
    const int holidayCount = in.range(0, 4);
    for (int i = 0; i < holidayCount; ++i) {
        HolidayData holiday;
        static const std::vector<int> repeats = {0, 0, 1, -1, 7};
        holiday.yearlyRepeat = in.pick(repeats);
        holiday.type = in.range(0, 3);
        holiday.timeRange = timeRangeText(in);
        holiday.startDate = dateText(in);
        holiday.endDate = dateText(in);
        provider.holidays.push_back(holiday);
    }
    for (const std::string& relay : relaysFrom(in)) {
        provider.holidayExemptRelays.insert(relay);
    }

    AuthContext context;
    static const std::vector<int> openTypes = {1, 2, 3, 4, 9, 10, 11, 15};
    context.request.openType = static_cast<OpenDoorType>(in.pick(openTypes));
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
    processors::HolidayCheckProcessor processor;
    const AuthResult result = processor.process(context, provider);
    AuthClock::setNowOverride(nullptr);

    const Civil civil = civilFromSeconds(now);
    const std::string today = dashedDate(civil);
    const std::string clock = clockText(civil);
    const std::string detail = "today " + today + " " + clock +
                               " result=" + std::to_string(result) +
                               " state=" + std::to_string(context.holidayState) +
                               " relays=" + joinForDetail(context.relays);

    const int openType = before.request.openType;
    bool restricts = false;
    const bool skipped = before.skipHolidayCheck || openType == OPEN_TYPE_PUBLIC_PIN ||
                         openType == OPEN_TYPE_LATCH_PIN || !provider.config.holidayEnabled ||
                         !before.userData || before.userData->holidayExempt != 0;
    if (!skipped) {
        for (const HolidayData& holiday : provider.holidays) {
            if (holidayDateMatches(holiday, today)) {
                // Only the first holiday of today counts.
                restricts = !(holiday.type == 1 && insideTimeRange(holiday.timeRange, clock));
                break;
            }
        }
    }
    FUZZ_CHECK(provider.callCount("getHolidays") <= 1, detail);
    if (!restricts) {
        FUZZ_CHECK(result == CONTINUE && context.holidayState == 0 &&
                       context.relays == before.relays &&
                       context.failedRelays == before.failedRelays,
                   detail);
        return;
    }

    Relays kept;
    Relays failed = before.failedRelays;
    for (const std::string& relay : before.relays) {
        const auto bySchedule = before.relayHolidayExemption.find(relay);
        if ((bySchedule != before.relayHolidayExemption.end() && bySchedule->second) ||
            provider.holidayExemptRelays.count(relay) != 0) {
            kept.push_back(relay);
        } else {
            failed.push_back(relay);
        }
    }
    FUZZ_CHECK(context.holidayState == 2, detail);
    FUZZ_CHECK(context.relays == kept && context.failedRelays == failed, detail);
    FUZZ_CHECK(provider.callCount("isRelayHolidayExempt") == static_cast<int>(before.relays.size()),
               detail);
    for (std::size_t i = before.failedRelays.size(); i < failed.size(); ++i) {
        FUZZ_CHECK(context.relayFailReasons[failed[i]] == "Holiday", detail);
    }
    if (kept.empty()) {
        FUZZ_CHECK(result == FAILED && context.response.failCode == 2 &&
                       context.response.reason == "Access denied: no relay with holiday exemption",
                   detail);
    } else {
        FUZZ_CHECK(result == CONTINUE && context.response.failCode == 0, detail);
    }
}

}  // namespace

void fuzzOne(FuzzInput& in) {
    (in.flag() ? checkHoliday : checkComparisons)(in);
}

}  // namespace fuzz
}  // namespace auth_engine
