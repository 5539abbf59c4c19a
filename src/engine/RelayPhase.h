// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// What the relay-phase files of the engine share: the phase names (the asyncType of their reports),
// how a phase record starts, and two small list tests.
#pragma once

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "auth_engine/AuthTypes.h"
#include "engine/AuthEngine.h"

namespace auth_engine {

constexpr const char* PHASE_SYNC = "sync";
constexpr const char* PHASE_ANTI_PASSBACK = "antipassback";
constexpr const char* PHASE_INTERLOCK = "interlock";
constexpr const char* PHASE_PARKING = "parking";
constexpr const char* PHASE_UNLOCK_OPTIONS = "unlock_options";

constexpr int32_t CHOICE_TIMEOUT_SECONDS = 30;

inline bool contains(const std::vector<std::string>& list, const std::string& value) {
    return std::find(list.begin(), list.end(), value) != list.end();
}

inline bool isRelayTarget(const AuthTarget& target) {
    return target.type == 0 || target.type == 1;
}

/// A phase of `context` to park under "<parentId>_ind_<phase>" for `relays`, timed from
/// `startTime`. The caller adds what only its phase needs.
inline AuthEngine::IndependentAsyncContext newPhase(const AuthContext& context, const char* phase,
                                                    const std::string& parentId,
                                                    const std::vector<std::string>& relays,
                                                    const AuthCallback& callback, int64_t startTime,
                                                    int32_t timeoutSeconds) {
    AuthEngine::IndependentAsyncContext wrapper;
    wrapper.context = context;
    wrapper.context.asyncType = phase;
    wrapper.context.relays = relays;
    wrapper.context.requestId = relayPhaseId(parentId, phase);
    wrapper.phase = phase;
    wrapper.callback = callback;
    wrapper.startTime = static_cast<uint64_t>(startTime);
    wrapper.timeoutSeconds = timeoutSeconds;
    wrapper.parentRequestId = parentId;
    return wrapper;
}

/// A response that carries no outcome yet, only the phase it belongs to and whether the attempt
/// was made under duress (`of` is the attempt's response so far): every report of a duress attempt
/// says so.
inline AuthResponse phaseResponse(const char* phase, const AuthResponse& of) {
    AuthResponse response;
    response.asyncType = phase;
    response.duress = of.duress;
    return response;
}

}  // namespace auth_engine
