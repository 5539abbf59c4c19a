// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// Local time, converted once per decision and shared by the time and holiday checks.
#include "common/DecisionLocalTime.h"

namespace auth_engine {
namespace {

thread_local DecisionLocalTimeState decisionState;

}  // namespace

bool decisionLocalTime(int64_t seconds, std::tm& out) {
    DecisionLocalTimeState& state = decisionState;
    if (state.active && state.known && state.seconds == seconds) {
        out = state.tm;
        return true;
    }
    const auto value = static_cast<time_t>(seconds);
    if (localtime_r(&value, &out) == nullptr) {
        return false;
    }
    if (state.active) {
        state.known = true;
        state.seconds = seconds;
        state.tm = out;
    }
    return true;
}

DecisionLocalTimeState beginDecisionLocalTime() {
    const DecisionLocalTimeState previous = decisionState;
    decisionState = DecisionLocalTimeState();
    decisionState.active = true;
    return previous;
}

void endDecisionLocalTime(const DecisionLocalTimeState& previous) {
    decisionState = previous;
}

}  // namespace auth_engine
