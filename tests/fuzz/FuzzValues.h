// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// Value generators shared by the fuzz targets: relay ids, times of day and dates that are usually
// well formed (so that comparisons are reached) and sometimes arbitrary bytes.
#pragma once

#include <memory>

#include "FuzzReference.h"
#include "auth_engine/AuthLogger.h"

namespace auth_engine {
namespace fuzz {

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
        if (!listed()) {
            continue;
        }
        auto& directions = config.readerRelayMap[static_cast<ReaderType>(reader)];
        for (int direction = 0; direction <= 2; ++direction) {
            if (in.flag()) {
                directions[static_cast<RELAY_DIRECTION>(direction)] = relaysFrom(in, maxRelays);
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
