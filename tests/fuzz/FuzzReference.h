// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// Plain reference versions of the schedule and calendar rules, written without the C calendar
// functions the library uses, so that the fuzz targets can compare the two.
#pragma once

#include <cerrno>
#include <sstream>

#include "FuzzInput.h"
#include "auth_engine/AuthTypes.h"

namespace auth_engine {
namespace fuzz {

/// Latest second whose year still has four digits (9999-12-31 23:59:59 UTC).
constexpr int64_t kLastFourDigitSecond = 253402300799;

/// printf-style text of up to 47 characters.
template <typename... Args>
std::string format(const char* pattern, Args... args) {
    char buffer[48];
    (void)std::snprintf(buffer, sizeof(buffer), pattern, args...);
    return buffer;
}

/// UTC calendar of a moment by day counting (proleptic Gregorian calendar).
struct Civil {
    std::string clock;  ///< "HH:MM:SS"
    std::string date;   ///< "YYYY-MM-DD" (four-digit years only)
    int weekday;        ///< 0 = Sunday
};

inline Civil civilFromSeconds(int64_t seconds) {
    const int64_t days = seconds / 86400 - (seconds % 86400 < 0 ? 1 : 0);
    const int64_t rest = seconds - days * 86400;
    const int64_t shifted = days + 719468;  // days since 0000-03-01
    const int64_t era = (shifted >= 0 ? shifted : shifted - 146096) / 146097;
    const int64_t dayOfEra = shifted - era * 146097;
    const int64_t yearOfEra =
        (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
    const int64_t dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
    const int64_t monthIndex = (5 * dayOfYear + 2) / 153;  // March = 0
    const int64_t month = monthIndex < 10 ? monthIndex + 3 : monthIndex - 9;
    const auto year = static_cast<long long>(yearOfEra + era * 400 + (month <= 2 ? 1 : 0));
    const auto day = static_cast<int>(dayOfYear - (153 * monthIndex + 2) / 5 + 1);
    return Civil{format("%02d:%02d:%02d", static_cast<int>(rest / 3600),
                        static_cast<int>(rest / 60 % 60), static_cast<int>(rest % 60)),
                 format("%04lld-%02d-%02d", year, static_cast<int>(month), day),
                 static_cast<int>(((days + 4) % 7 + 7) % 7)};  // 1970-01-01 was a Thursday
}

inline std::string withoutDashes(std::string text) {
    text.erase(std::remove(text.begin(), text.end(), '-'), text.end());
    return text;
}

inline bool referenceDailyTime(const std::string& start, const std::string& end, int64_t now) {
    const std::string current = civilFromSeconds(now).clock;
    return start <= current && current <= end;
}

inline bool referenceWeekly(const std::string& weekly, int64_t now) {
    return weekly.find(static_cast<char>('0' + civilFromSeconds(now).weekday)) != std::string::npos;
}

/// Dates lose their dashes; an overlong start keeps its first eight characters, an overlong end
/// its last eight.
inline bool referenceDateRange(const std::string& startDate, const std::string& endDate,
                               int64_t now) {
    const std::string start = withoutDashes(startDate).substr(0, 8);
    const std::string end = withoutDashes(endDate);
    const std::string current = withoutDashes(civilFromSeconds(now).date);
    return start <= current && current <= end.substr(end.size() > 8 ? end.size() - 8 : 0);
}

inline bool referenceScheduleValid(const ScheduleData& schedule, int64_t now) {
    const bool weekly = referenceWeekly(schedule.weekly, now);
    const bool dated = referenceDateRange(schedule.startDate, schedule.endDate, now);
    return referenceDailyTime(schedule.startTime, schedule.endTime, now) &&
           (schedule.type == 1 || (schedule.type == 2 && weekly) ||
            (schedule.type == 3 && weekly && dated));
}

/// The relay key's ';'-separated schedule ids, each read the way atoi reads (leading blanks, an
/// optional sign, digits up to the first other byte); values outside 1..INT32_MAX and repeats
/// are dropped.
inline std::vector<int> referenceScheduleIds(const std::string& text) {
    std::vector<int> ids;
    std::istringstream pieces(text);
    for (std::string piece; std::getline(pieces, piece, ';');) {  // a trailing empty piece is 0
        errno = 0;
        const long long value = std::strtoll(piece.c_str(), nullptr, 10);
        if (errno == 0 && value >= 1 && value <= INT32_MAX &&
            std::find(ids.begin(), ids.end(), value) == ids.end()) {
            ids.push_back(static_cast<int>(value));
        }
    }
    return ids;
}

}  // namespace fuzz
}  // namespace auth_engine
