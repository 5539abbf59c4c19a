// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// The local calendar view of an instant, converted once per decision. The time check and the
// holiday check both read the wall clock and convert it with localtime_r, which takes the C
// library's time zone lock every time; within one decision the same second converts alike, so the
// second conversion is served from the first. Outside a decision (a processor run on its own)
// every call converts afresh, so a time zone change between decisions is always seen.
#pragma once

#include <cstdint>
#include <ctime>

namespace auth_engine {

/// localtime_r of `seconds`; false when it cannot be represented. While the thread runs a decision
/// (see beginDecisionLocalTime) the last successful conversion is reused for the same second.
bool decisionLocalTime(int64_t seconds, std::tm& out);

/// What a thread remembers while it runs a decision.
struct DecisionLocalTimeState {
    bool active = false;  ///< between beginDecisionLocalTime and endDecisionLocalTime
    bool known = false;   ///< `tm` holds the conversion of `seconds`
    int64_t seconds = 0;
    std::tm tm{};
};

/// Marks the calling thread as running one decision until the matching endDecisionLocalTime, and
/// returns what it remembered before. A nested decision starts with nothing remembered and gives
/// the outer one its state back when it ends.
DecisionLocalTimeState beginDecisionLocalTime();
void endDecisionLocalTime(const DecisionLocalTimeState& previous);

}  // namespace auth_engine
