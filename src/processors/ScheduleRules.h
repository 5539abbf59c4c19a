// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// The schedule tests of the time check: one local view of the decision's instant, and whether a
// schedule (daily, weekly, date range) holds at it; and the relay key's schedule id list.
#pragma once

#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

#include "auth_engine/AuthTypes.h"

namespace auth_engine {
namespace processors {

// The local calendar view of one instant. A decision reads it once and tests every schedule against
// it, instead of converting the same instant again for every schedule of every relay.
struct LocalView {
    bool valid = false;  // false when the time cannot be represented
    std::tm tm{};
    std::string timeOfDay;  // "HH:MM:SS"; empty when not representable
};

/// strftime of the view; empty when the time cannot be represented (the callers then refuse rather
/// than compare against an empty text).
std::string formatView(const LocalView& view, const char* format);
/// The view of `now` in local time, converted once per decision.
LocalView localView(int64_t now);
/// Reads the ';'-separated schedule id list of a relay key. Each piece is read like atoi (leading
/// blanks and a sign allowed, reading stops at the first non-digit); ids outside 1..INT32_MAX,
/// unreadable pieces and repeats are dropped, first appearance wins.
std::vector<int> parseScheduleIds(const std::string& text);
bool inDailyTime(const std::string& startTime, const std::string& endTime, const LocalView& view);
bool weeklyMatch(const std::string& weekly, int64_t now, const LocalView& view);
bool inDateRange(const std::string& startDate, const std::string& endDate, const LocalView& view);
/// Whether `schedule` holds at the instant `now` seen as `view`.
bool scheduleValid(const ScheduleData& schedule, int64_t now, const LocalView& view);

}  // namespace processors
}  // namespace auth_engine
