// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// Value generators shared by the fuzz targets: relay ids, times of day and dates that are usually
// well formed (so that comparisons are reached) and sometimes arbitrary bytes.
#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "FuzzInput.h"
#include "FuzzReference.h"
#include "auth_engine/AuthTypes.h"

namespace auth_engine {
namespace fuzz {

/// Relay ids the targets draw from; the last ones are malformed on purpose.
inline const std::vector<std::string>& relayPool() {
    static const std::vector<std::string> pool = {"1",  "2", "3",  "4", "SA",
                                                  "SB", "",  "12", "S", "x"};
    return pool;
}

/// Up to `maxCount` relays, mostly well formed, repeats possible.
inline std::vector<std::string> relaysFrom(FuzzInput& in, int maxCount = 4) {
    std::vector<std::string> relays;
    const int count = in.range(0, maxCount);
    for (int i = 0; i < count; ++i) {
        const int choice = in.range(0, 15);
        relays.push_back(choice < 12 ? relayPool()[static_cast<std::size_t>(choice % 6)]
                                     : relayPool()[static_cast<std::size_t>(choice - 6)]);
    }
    return relays;
}

/// Seconds of a four-digit-year moment: one of a few anchors (around midnights, a leap day, the
/// year's end) moved by up to about ten days either way.
inline int64_t momentFrom(FuzzInput& in) {
    static const std::vector<int64_t> anchors = {
        1736942400,  // 2025-01-15 12:00:00, a Wednesday
        1735689599,  // 2024-12-31 23:59:59
        1709164800,  // 2024-02-29 00:00:00
        0,           // 1970-01-01 00:00:00
        -86400,      // 1969-12-31 00:00:00
        kLastFourDigitSecond - 3600,
    };
    const int64_t offset = static_cast<int64_t>(in.int32() % 1000000);
    int64_t moment = in.pick(anchors) + offset;
    if (moment > kLastFourDigitSecond) {
        moment = kLastFourDigitSecond;
    }
    return moment;
}

/// "HH:MM:SS" (hours up to 24, minutes and seconds up to 60), a fixed edge, or raw bytes.
inline std::string timeText(FuzzInput& in) {
    switch (in.range(0, 3)) {
        case 0:
        case 1: {
            // One read per statement: argument order is unspecified, and the corpus must decode
            // the same way with every compiler.
            const int hour = in.range(0, 24);
            const int minute = in.range(0, 60);
            const int second = in.range(0, 60);
            char buffer[16];
            std::snprintf(buffer, sizeof(buffer), "%02d:%02d:%02d", hour, minute, second);
            return buffer;
        }
        case 2: {
            static const std::vector<std::string> edges = {"",         "00:00:00", "23:59:59",
                                                           "12:00:00", "24:00:00", "9:00:00",
                                                           "12:00",    "12:00:00Z"};
            return in.pick(edges);
        }
        default:
            return in.bytes(12);
    }
}

/// A date as "YYYY-MM-DD" or "YYYYMMDD" near the anchors, a short or overlong form, or raw bytes.
inline std::string dateText(FuzzInput& in) {
    static const std::vector<int> years = {1969, 1970, 2023, 2024, 2025, 2026, 9999};
    const int form = in.range(0, 4);
    if (form <= 2) {
        const int year = in.pick(years);
        const int month = in.range(0, 13);
        const int day = in.range(0, 32);
        char buffer[32];
        std::snprintf(buffer, sizeof(buffer), form == 2 ? "%04d%02d%02d" : "%04d-%02d-%02d", year,
                      month, day);
        return buffer;
    }
    switch (form) {
        case 3: {
            static const std::vector<std::string> odd = {
                "",         "2025-01",    "01-15", "2025-1-15", "12025-01-15", "2025-01-15-16",
                "--------", "2025-12-31 "};
            return in.pick(odd);
        }
        default:
            return in.bytes(14);
    }
}

/// A host schedule with fuzzed texts, or (one time in eight) a null entry.
inline std::shared_ptr<ScheduleData> scheduleFrom(FuzzInput& in) {
    if (in.range(0, 7) == 0) {
        return nullptr;  // malformed host data: a null entry in the list
    }
    static const std::vector<std::string> ids = {"1", "2",  "3",          "7", "05",
                                                 "0", "-1", "2147483647", ""};
    auto schedule = std::make_shared<ScheduleData>();
    schedule->scheduleId = in.pick(ids);
    schedule->type = in.range(0, 4);
    schedule->startTime = timeText(in);
    schedule->endTime = timeText(in);
    schedule->weekly = in.textFrom("0123456789, x", 8);
    schedule->startDate = dateText(in);
    schedule->endDate = dateText(in);
    schedule->holidayExemption = in.flag();
    return schedule;
}

/// Up to three targets of kind 0 to 3 on relays of the pool.
inline std::vector<AuthTarget> targetsFrom(FuzzInput& in) {
    std::vector<AuthTarget> targets;
    const int count = in.range(0, 3);
    for (int i = 0; i < count; ++i) {
        AuthTarget target;
        target.type = in.range(0, 3);
        const std::vector<std::string> relay = relaysFrom(in, 1);
        target.relay = relay.empty() ? std::string() : relay.front();
        targets.push_back(target);
    }
    return targets;
}

}  // namespace fuzz
}  // namespace auth_engine
