// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// The trace's seam in AuthClock (defined in common/AuthClock.cpp, next to the clock state): switch
// the reporting of readings on and off, and read the clocks without reporting, for the time
// stamps of the events themselves.
#pragma once

#include <cstdint>

namespace auth_engine {
namespace trace {

void setClockTracing(bool on);
int64_t untracedNow();
int64_t untracedUptime();

}  // namespace trace
}  // namespace auth_engine
