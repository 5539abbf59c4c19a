// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// The schedule tests of the time check (see ScheduleRules.h).
#include "processors/ScheduleRules.h"

#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdlib>

#include "auth_engine/AuthLogger.h"
#include "common/DecisionLocalTime.h"
#include "common/Distinct.h"
#include "common/LogSwitch.h"

namespace auth_engine {
namespace processors {

namespace {

bool twoDigits(int value) {
    return value >= 0 && value <= 99;
}

}  // namespace

std::string formatView(const LocalView& view, const char* format) {
    if (!view.valid) {
        return {};
    }
    char buffer[9];
    const std::size_t written = std::strftime(buffer, sizeof(buffer), format, &view.tm);
    return written == 0 ? std::string() : std::string(buffer, written);
}

LocalView localView(int64_t now) {
    LocalView view;
    view.valid = decisionLocalTime(now, view.tm);
    const std::tm& tm = view.tm;
    if (view.valid && twoDigits(tm.tm_hour) && twoDigits(tm.tm_min) && twoDigits(tm.tm_sec)) {
        // What strftime's "%H:%M:%S" writes, without its cost.
        char text[8] = {'0', '0', ':', '0', '0', ':', '0', '0'};
        const int fields[3] = {tm.tm_hour, tm.tm_min, tm.tm_sec};
        for (std::size_t i = 0; i < 3; ++i) {
            text[i * 3] = static_cast<char>('0' + fields[i] / 10);
            text[i * 3 + 1] = static_cast<char>('0' + fields[i] % 10);
        }
        view.timeOfDay.assign(text, sizeof(text));
    } else {
        view.timeOfDay = formatView(view, "%H:%M:%S");
    }
    return view;
}

std::vector<int> parseScheduleIds(const std::string& text) {
    std::vector<int> ids;
    SeenSet<int> seen;
    std::string::size_type start = 0;
    while (start <= text.size()) {
        std::string::size_type end = text.find(';', start);
        if (end == std::string::npos) {
            end = text.size();
        }
        // Read in place: strtol stops at the ';' that ends the piece (it is no blank and no
        // digit), or at the text's terminating zero.
        const char* const piece = text.c_str() + start;
        char* parsedEnd = nullptr;
        errno = 0;
        // Held as long long: where long is 32 bits a bound test on it would be always true.
        const long long value = std::strtol(piece, &parsedEnd, 10);
        // ERANGE: on 32-bit targets an overlong id would otherwise saturate to INT32_MAX.
        if (errno != ERANGE && value >= 1 && value <= INT32_MAX) {
            const int id = static_cast<int>(value);
            if (seen.insert(id)) {
                ids.push_back(id);
            }
        }
        start = end + 1;
    }
    return ids;
}

bool inDailyTime(const std::string& startTime, const std::string& endTime, const LocalView& view) {
    const std::string& current = view.timeOfDay;
    AuthLogger::info("[TimeCheckProcessor:%d] isInDailyTime: current=%s, start=%s, end=%s",
                     __LINE__, current.c_str(), startTime.c_str(), endTime.c_str());
    if (current.empty()) {
        return false;
    }
    // Zero-padded texts order like the times they spell; an overnight range never matches.
    return startTime <= current && current <= endTime;
}

bool weeklyMatch(const std::string& weekly, int64_t now, const LocalView& view) {
    if (!view.valid) {
        AuthLogger::error("[TimeCheckProcessor:%d] isWeeklyMatch: time %lld not representable",
                          __LINE__, static_cast<long long>(now));
        return false;
    }
    AuthLogger::info("[TimeCheckProcessor:%d] isWeeklyMatch: wday=%d, weekly=%s", __LINE__,
                     view.tm.tm_wday, weekly.c_str());
    return weekly.find(static_cast<char>('0' + view.tm.tm_wday)) != std::string::npos;
}

bool inDateRange(const std::string& startDate, const std::string& endDate, const LocalView& view) {
    const std::string current = formatView(view, "%Y%m%d");
    std::string start;
    std::string end;
    for (const char c : startDate) {
        if (c != '-') {
            start += c;
        }
    }
    for (const char c : endDate) {
        if (c != '-') {
            end += c;
        }
    }
    // Deliberately asymmetric: an overlong start keeps its first eight characters, an overlong
    // end its last eight.
    if (start.size() > 8) {
        start.resize(8);
    }
    if (end.size() > 8) {
        end = end.substr(end.size() - 8);
    }
    AuthLogger::info("[TimeCheckProcessor:%d] isInDateRange: current=%s, start=%s, end=%s",
                     __LINE__, current.c_str(), start.c_str(), end.c_str());
    if (current.empty()) {
        return false;
    }
    return start <= current && current <= end;
}

bool scheduleValid(const ScheduleData& schedule, int64_t now, const LocalView& view) {
    // Every schedule of every relay passes here: its trace lines are not even assembled when
    // nobody reads them.
    const bool logging = logLinesWanted();
    if (logging) {
        AuthLogger::info(
            "[TimeCheckProcessor:%d] isScheduleValid: id=%d, type=%d, startTime=%s, endTime=%s, "
            "weekly=%s, startDate=%s, endDate=%s, relay=%s",
            __LINE__, schedule.id, schedule.type, schedule.startTime.c_str(),
            schedule.endTime.c_str(), schedule.weekly.c_str(), schedule.startDate.c_str(),
            schedule.endDate.c_str(), schedule.relay.c_str());
    }

    if (!inDailyTime(schedule.startTime, schedule.endTime, view)) {
        AuthLogger::info("[TimeCheckProcessor:%d] isInDailyTime=false", __LINE__);
        return false;
    }
    if (logging) {
        AuthLogger::info("[TimeCheckProcessor:%d] isInDailyTime=true", __LINE__);
    }

    switch (schedule.type) {
        case 1:
            if (logging) {
                AuthLogger::info("[TimeCheckProcessor:%d] type=DAILY, passed", __LINE__);
            }
            return true;
        case 2: {
            const bool weekly = weeklyMatch(schedule.weekly, now, view);
            if (logging) {
                AuthLogger::info("[TimeCheckProcessor:%d] type=WEEKLY, isWeeklyMatch=%d", __LINE__,
                                 static_cast<int>(weekly));
            }
            return weekly;
        }
        case 3: {
            const bool weekly = weeklyMatch(schedule.weekly, now, view);
            AuthLogger::info("[TimeCheckProcessor:%d] type=DATE, isWeeklyMatch=%d", __LINE__,
                             static_cast<int>(weekly));
            if (!weekly) {
                return false;
            }
            const bool inRange = inDateRange(schedule.startDate, schedule.endDate, view);
            AuthLogger::info("[TimeCheckProcessor:%d] type=DATE, isInDateRange=%d", __LINE__,
                             static_cast<int>(inRange));
            return inRange;
        }
        default:
            AuthLogger::info("[TimeCheckProcessor:%d] unknown type=%d", __LINE__, schedule.type);
            return false;
    }
}

}  // namespace processors
}  // namespace auth_engine
