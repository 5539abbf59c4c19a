// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// Shared by the fuzz targets: plain reference versions of the schedule and calendar rules, written
// without the C calendar functions the library uses, so that the targets can compare the two; and
// value generators: relay ids, times of day and dates that are usually well formed (so that
// comparisons are reached) and sometimes arbitrary bytes.
#pragma once

#include <cerrno>
#include <sstream>

#include "FuzzInput.h"
#include "auth_engine/AuthLogger.h"

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
    std::string clock, date;  ///< "HH:MM:SS", "YYYY-MM-DD" (four-digit years only)
    int weekday;              ///< 0 = Sunday
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

using Strings = std::vector<std::string>;

/// Relay ids the targets draw from; the last ones are malformed on purpose.
inline const Strings kRelayPool = {"1", "2", "3", "4", "SA", "SB", "", "12", "S", "x"};

/// Up to `maxCount` relays, mostly well formed, repeats possible.
inline Strings relaysFrom(FuzzInput& in, int maxCount = 4) {
    Strings relays;
    for (int i = 0, count = in.range(0, maxCount); i < count; ++i) {
        const int choice = in.range(0, 15);
        relays.push_back(
            kRelayPool[static_cast<std::size_t>(choice < 12 ? choice % 6 : choice - 6)]);
    }
    return relays;
}

/// Doors per reader (0 to 2) and direction: a reader is configured when `listed()` says so, then
/// each of its directions when a flag says so, with up to `maxRelays` relays.
template <typename Listed>
void readerDoorsFrom(FuzzInput& in, AuthConfig& config, Listed listed, int maxRelays) {
    for (int reader = 0; reader <= 2; ++reader) {
        if (listed()) {
            auto& directions = config.readerRelayMap[static_cast<ReaderType>(reader)];
            for (int direction = 0; direction <= 2; ++direction) {
                if (in.flag()) {
                    directions[static_cast<RELAY_DIRECTION>(direction)] = relaysFrom(in, maxRelays);
                }
            }
        }
    }
}

/// Seconds of a four-digit-year moment: one of a few anchors (2025-01-15 12:00:00, a Wednesday;
/// 2024-12-31 23:59:59; the leap day 2024-02-29; 1970-01-01; 1969-12-31; the last four-digit
/// hour) moved by up to about ten days either way.
inline int64_t momentFrom(FuzzInput& in) {
    static const auto anchors = std::vector<int64_t>(
        {1736942400, 1735689599, 1709164800, 0, -86400, kLastFourDigitSecond - 3600});
    const int64_t offset = static_cast<int64_t>(in.int32() % 1000000);
    return std::min(in.pick(anchors) + offset, kLastFourDigitSecond);
}

/// "HH:MM:SS" (hours up to 24, minutes and seconds up to 60), a fixed edge, or raw bytes.
inline std::string timeText(FuzzInput& in) {
    static const Strings edges = {"",         "00:00:00", "23:59:59", "12:00:00",
                                  "24:00:00", "9:00:00",  "12:00",    "12:00:00Z"};
    const int form = in.range(0, 3);
    if (form >= 2) {
        return form == 2 ? in.pick(edges) : in.bytes(12);
    }
    // Read through a braced list, which is evaluated in order (argument order is unspecified),
    // so that the corpus decodes the same way with every compiler.
    const std::vector<int> hms = {in.range(0, 24), in.range(0, 60), in.range(0, 60)};
    return format("%02d:%02d:%02d", hms[0], hms[1], hms[2]);
}

/// A date as "YYYY-MM-DD" or "YYYYMMDD" near the anchors, a short or overlong form, or raw bytes.
inline std::string dateText(FuzzInput& in) {
    static const auto years = std::vector<int>({1969, 1970, 2023, 2024, 2025, 2026, 9999});
    static const auto odd = Strings({"", "2025-01", "01-15", "2025-1-15", "12025-01-15",
                                     "2025-01-15-16", "--------", "2025-12-31 "});
    const int form = in.range(0, 4);
    if (form >= 3) {
        return form == 3 ? in.pick(odd) : in.bytes(14);
    }
    const std::vector<int> ymd = {in.pick(years), in.range(0, 13), in.range(0, 32)};
    return format(form == 2 ? "%04d%02d%02d" : "%04d-%02d-%02d", ymd[0], ymd[1], ymd[2]);
}

/// A host schedule with fuzzed texts, or (one time in eight) a null entry: malformed host data.
inline std::shared_ptr<ScheduleData> scheduleFrom(FuzzInput& in) {
    static const Strings ids = {"1", "2", "3", "7", "05", "0", "-1", "2147483647", ""};
    if (in.range(0, 7) == 0) {
        return nullptr;
    }
    const std::string id = in.pick(ids);
    const int type = in.range(0, 4);
    const std::string start = timeText(in), end = timeText(in),
                      weekly = in.textFrom("0123456789, x", 8);
    return std::make_shared<ScheduleData>(ScheduleData{0, type, id, "", start, end, dateText(in),
                                                       dateText(in), weekly, "", in.flag()});
}

/// Up to three targets of kind 0 to 3 on relays of the pool.
inline std::vector<AuthTarget> targetsFrom(FuzzInput& in) {
    std::vector<AuthTarget> targets;
    for (int i = 0, count = in.range(0, 3); i < count; ++i) {
        const int type = in.range(0, 3);
        const Strings relay = relaysFrom(in, 1);
        targets.push_back(AuthTarget{type, relay.empty() ? std::string() : relay.front()});
    }
    return targets;
}

}  // namespace fuzz
}  // namespace auth_engine
