// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// Plain reference versions of the schedule and calendar rules, written without the C calendar
// functions the library uses, so that the fuzz targets can compare the two.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "auth_engine/AuthTypes.h"

namespace auth_engine {
namespace fuzz {

/// Latest second whose year still has four digits (9999-12-31 23:59:59 UTC).
constexpr int64_t kLastFourDigitSecond = 253402300799;

struct Civil {
    int64_t year = 1970;
    int month = 1;
    int day = 1;
    int hour = 0;
    int minute = 0;
    int second = 0;
    int weekday = 4;  ///< 0 = Sunday
};

/// UTC calendar of `seconds` by day counting (proleptic Gregorian calendar).
inline Civil civilFromSeconds(int64_t seconds) {
    int64_t days = seconds / 86400;
    int64_t rest = seconds % 86400;
    if (rest < 0) {
        rest += 86400;
        --days;
    }
    Civil civil;
    civil.hour = static_cast<int>(rest / 3600);
    civil.minute = static_cast<int>(rest / 60 % 60);
    civil.second = static_cast<int>(rest % 60);
    civil.weekday = static_cast<int>(((days + 4) % 7 + 7) % 7);  // 1970-01-01 was a Thursday

    const int64_t shifted = days + 719468;  // days since 0000-03-01
    const int64_t era = (shifted >= 0 ? shifted : shifted - 146096) / 146097;
    const int64_t dayOfEra = shifted - era * 146097;
    const int64_t yearOfEra =
        (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
    const int64_t dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
    const int64_t monthIndex = (5 * dayOfYear + 2) / 153;  // March = 0
    civil.day = static_cast<int>(dayOfYear - (153 * monthIndex + 2) / 5 + 1);
    civil.month = static_cast<int>(monthIndex < 10 ? monthIndex + 3 : monthIndex - 9);
    civil.year = yearOfEra + era * 400 + (civil.month <= 2 ? 1 : 0);
    return civil;
}

inline std::string clockText(const Civil& civil) {
    char buffer[16];
    std::snprintf(buffer, sizeof(buffer), "%02d:%02d:%02d", civil.hour, civil.minute, civil.second);
    return buffer;
}

/// "YYYY-MM-DD" (four-digit years only).
inline std::string dashedDate(const Civil& civil) {
    char buffer[32];
    std::snprintf(buffer, sizeof(buffer), "%04lld-%02d-%02d", static_cast<long long>(civil.year),
                  civil.month, civil.day);
    return buffer;
}

inline std::string withoutDashes(const std::string& text) {
    std::string out;
    for (const char c : text) {
        if (c != '-') {
            out.push_back(c);
        }
    }
    return out;
}

/// "YYYYMMDD" (four-digit years only).
inline std::string compactDate(const Civil& civil) {
    return withoutDashes(dashedDate(civil));
}

inline bool referenceDailyTime(const std::string& start, const std::string& end, int64_t now) {
    const std::string current = clockText(civilFromSeconds(now));
    return start.compare(current) <= 0 && current.compare(end) <= 0;
}

inline bool referenceWeekly(const std::string& weekly, int64_t now) {
    return weekly.find(static_cast<char>('0' + civilFromSeconds(now).weekday)) != std::string::npos;
}

/// Dates lose their dashes; an overlong start keeps its first eight characters, an overlong end
/// its last eight.
inline bool referenceDateRange(const std::string& startDate, const std::string& endDate,
                               int64_t now) {
    std::string start = withoutDashes(startDate);
    std::string end = withoutDashes(endDate);
    if (start.size() > 8) {
        start.resize(8);
    }
    if (end.size() > 8) {
        end.erase(0, end.size() - 8);
    }
    const std::string current = compactDate(civilFromSeconds(now));
    return start.compare(current) <= 0 && current.compare(end) <= 0;
}

inline bool referenceScheduleValid(const ScheduleData& schedule, int64_t now) {
    if (!referenceDailyTime(schedule.startTime, schedule.endTime, now)) {
        return false;
    }
    switch (schedule.type) {
        case 1:
            return true;
        case 2:
            return referenceWeekly(schedule.weekly, now);
        case 3:
            return referenceWeekly(schedule.weekly, now) &&
                   referenceDateRange(schedule.startDate, schedule.endDate, now);
        default:
            return false;
    }
}

/// The relay key's ';'-separated schedule ids, each read the way atoi reads (leading blanks, an
/// optional sign, digits up to the first other byte); values outside 1..INT32_MAX and repeats
/// are dropped.
inline std::vector<int> referenceScheduleIds(const std::string& text) {
    std::vector<int> ids;
    std::size_t start = 0;
    while (start <= text.size()) {
        std::size_t end = text.find(';', start);
        if (end == std::string::npos) {
            end = text.size();
        }
        std::size_t i = start;
        while (i < end && (text[i] == ' ' || (text[i] >= '\t' && text[i] <= '\r'))) {
            ++i;
        }
        bool negative = false;
        if (i < end && (text[i] == '+' || text[i] == '-')) {
            negative = text[i] == '-';
            ++i;
        }
        int64_t value = 0;
        bool tooLarge = false;
        for (; i < end && text[i] >= '0' && text[i] <= '9'; ++i) {
            value = value * 10 + (text[i] - '0');
            if (value > INT32_MAX) {
                tooLarge = true;
                value = INT32_MAX;  // keeps the sum bounded; the piece is dropped anyway
            }
        }
        if (!negative && !tooLarge && value >= 1) {
            if (std::find(ids.begin(), ids.end(), value) == ids.end()) {
                ids.push_back(static_cast<int>(value));
            }
        }
        start = end + 1;
    }
    return ids;
}

}  // namespace fuzz
}  // namespace auth_engine
