// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

/// @file AuthClock.h
/// @brief The library's clocks. Every wall-clock and uptime reading of the library goes through
/// here, so that a host simulator or a test can move time.
#pragma once

#include <cstdint>
#include <functional>

#include "auth_engine/export.h"

namespace auth_engine {

class AUTH_ENGINE_API AuthClock {
public:
    /// Wall clock, seconds since the epoch (default: time(nullptr)).
    static int64_t now();
    /// Monotonic seconds (default: CLOCK_MONOTONIC, then /proc/uptime, then sysinfo, then time).
    static int64_t uptime();
    /// Replace the wall clock; an empty function restores the default. Thread-safe.
    static void setNowOverride(std::function<int64_t()> clock);
    /// Replace the uptime clock; an empty function restores the default. Thread-safe.
    static void setUptimeOverride(std::function<int64_t()> clock);
};

}  // namespace auth_engine
