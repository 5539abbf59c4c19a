// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// The holiday check: on a holiday, only relays exempt from holidays (by schedule or by the host's
// relay list) stay open.
#include "processors/HolidayCheckProcessor.h"

#include <cstdio>
#include <ctime>
#include <utility>
#include <vector>

#include "auth_engine/AuthClock.h"
#include "auth_engine/AuthLogger.h"
#include "auth_engine/FailCodes.h"
#include "common/DecisionLocalTime.h"
#include "common/LogSwitch.h"
#include "common/ProcessorSupport.h"

namespace auth_engine {
namespace processors {

namespace {

// Writes `value` as `width` decimal digits, zero-padded; false when it does not fit.
bool putDigits(char* out, int value, int width) {
    if (value < 0) {
        return false;
    }
    for (int i = width - 1; i >= 0; --i) {
        out[i] = static_cast<char>('0' + value % 10);
        value /= 10;
    }
    return value == 0;
}

// Today's date ("YYYY-MM-DD") and time of day ("HH:MM:SS") in local time, from one reading of the
// wall clock; both empty when the time cannot be represented. Digits are written directly: this
// runs on every decision and snprintf costs more than the rest of the holiday check.
struct LocalToday {
    std::string date;
    std::string time;
};

LocalToday localToday() {
    LocalToday today;
    std::tm tm{};
    if (!decisionLocalTime(AuthClock::now(), tm)) {
        return today;
    }
    char date[10] = {'0', '0', '0', '0', '-', '0', '0', '-', '0', '0'};
    if (putDigits(date, tm.tm_year + 1900, 4) && putDigits(date + 5, tm.tm_mon + 1, 2) &&
        putDigits(date + 8, tm.tm_mday, 2)) {
        today.date.assign(date, sizeof(date));
    } else {
        // Years outside 0..9999 keep what the formatted text always gave them.
        char buffer[11];
        const int written = std::snprintf(buffer, sizeof(buffer), "%04d-%02d-%02d",
                                          tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday);
        today.date = written < 0 ? std::string() : std::string(buffer);
    }
    char time[8] = {'0', '0', ':', '0', '0', ':', '0', '0'};
    if (putDigits(time, tm.tm_hour, 2) && putDigits(time + 3, tm.tm_min, 2) &&
        putDigits(time + 6, tm.tm_sec, 2)) {
        today.time.assign(time, sizeof(time));
    } else {
        char buffer[9];
        const int written = std::snprintf(buffer, sizeof(buffer), "%02d:%02d:%02d", tm.tm_hour,
                                          tm.tm_min, tm.tm_sec);
        today.time = written < 0 ? std::string() : std::string(buffer);
    }
    return today;
}

// "MM-DD" of a "YYYY-MM-DD" text; empty for anything shorter.
std::string monthDay(const std::string& date) {
    return date.size() < 10 ? std::string() : date.substr(5, 5);
}

bool dateMatches(const HolidayData& holiday, const std::string& today) {
    if (holiday.yearlyRepeat != 0) {
        // Only month and day recur; a range across the new year has end < start and never matches.
        const std::string day = monthDay(today);
        return monthDay(holiday.startDate) <= day && day <= monthDay(holiday.endDate);
    }
    return holiday.startDate <= today && today <= holiday.endDate;
}

// "HH:MM:SS-HH:MM:SS", both ends inclusive, no wrap past midnight.
bool timeRangeMatches(const std::string& timeRange, const std::string& now) {
    const std::string::size_type dash = timeRange.find('-');
    if (dash == std::string::npos || dash >= 9) {
        return false;
    }
    const std::string start = timeRange.substr(0, 8);
    const std::string end = timeRange.substr(dash + 1, 8);
    return start <= now && now <= end;
}

}  // namespace

AuthResult HolidayCheckProcessor::process(AuthContext& context, IDataProvider& provider) {
    if (context.skipHolidayCheck) {
        context.holidayState = 0;
        AuthLogger::info("[HolidayCheckProcessor:%d] skipHolidayCheck, result=%s", __LINE__,
                         AuthLogger::authResultToString(CONTINUE));
        return CONTINUE;
    }
    const OpenDoorType openType = context.request.openType;
    if (openType == OPEN_TYPE_PUBLIC_PIN || openType == OPEN_TYPE_LATCH_PIN) {
        context.holidayState = 0;
        AuthLogger::info("[HolidayCheckProcessor:%d] openType=%d, skip", __LINE__,
                         static_cast<int>(openType));
        return CONTINUE;
    }

    const AuthConfig config = provider.getAuthConfig();
    const std::shared_ptr<UserData> user = context.userData;
    if (!config.holidayEnabled || !user || user->holidayExempt != 0) {
        context.holidayState = 0;
        AuthLogger::info("[HolidayCheckProcessor:%d] result=%s", __LINE__,
                         AuthLogger::authResultToString(CONTINUE));
        return CONTINUE;
    }

    const LocalToday local = localToday();
    const std::string& today = local.date;
    const std::string& now = local.time;

    const std::vector<HolidayData> holidays =
        provider.getHolidays(user->holidayKey, user->ownerKind);
    if (holidays.empty()) {
        context.holidayState = 0;
        AuthLogger::info("[HolidayCheckProcessor:%d] result=%s", __LINE__,
                         AuthLogger::authResultToString(CONTINUE));
        return CONTINUE;
    }

    // Only the first holiday of today counts, even when a later one would restrict more.
    context.holidayState = 0;
    bool inForce = false;
    for (const HolidayData& holiday : holidays) {
        if (!dateMatches(holiday, today)) {
            continue;
        }
        if (holiday.type == 1 && timeRangeMatches(holiday.timeRange, now)) {
            context.holidayState = 1;  // inside the holiday's access hours
        } else {
            context.holidayState = 2;
            inForce = true;
        }
        break;
    }
    if (!inForce) {
        context.holidayState = 0;
        AuthLogger::info("[HolidayCheckProcessor:%d] result=%s", __LINE__,
                         AuthLogger::authResultToString(CONTINUE));
        return CONTINUE;
    }

    std::vector<std::string> kept;
    std::vector<std::string> removed;
    for (const std::string& relay : context.relays) {
        const auto bySchedule = context.relayHolidayExemption.find(relay);
        const bool scheduleExempt =
            bySchedule != context.relayHolidayExemption.end() && bySchedule->second;
        // The host is asked about every relay, even one its schedule already exempts.
        const bool hostExempt = provider.isRelayHolidayExempt(relay);
        if (scheduleExempt || hostExempt) {
            kept.push_back(relay);
        } else {
            removed.push_back(relay);
        }
    }
    context.relays = std::move(kept);
    for (const std::string& relay : removed) {
        context.failedRelays.push_back(relay);
        context.relayFailReasons[relay] = "Holiday";
    }
    const bool logging = logLinesWanted();
    if (logging) {
        AuthLogger::info(
            "[HolidayCheckProcessor:%d] in holiday, remainingRelays=%s, failedRelays=%s", __LINE__,
            joinRelayVector(context.relays).c_str(), joinRelayVector(context.failedRelays).c_str());
    }

    if (!context.relays.empty()) {
        if (logging) {
            AuthLogger::info("[HolidayCheckProcessor:%d] result=%s, holiday exemption relays=%s",
                             __LINE__, AuthLogger::authResultToString(CONTINUE),
                             joinRelayVector(context.relays).c_str());
        }
        return CONTINUE;
    }
    failRequest(context, fail::HOLIDAY, reasons::HOLIDAY_NO_EXEMPT_RELAY);
    AuthLogger::info("[HolidayCheckProcessor:%d] result=%s, reason=%s", __LINE__,
                     AuthLogger::authResultToString(FAILED), context.response.reason.c_str());
    return FAILED;
}

}  // namespace processors
}  // namespace auth_engine
