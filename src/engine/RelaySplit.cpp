// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// The relay split and the outcome of each finished phase (see RelaySplit.h).
#include "engine/RelaySplit.h"

#include <utility>

#include "auth_engine/AuthTypes.h"

namespace auth_engine {

namespace {

/// Removes the first check of `relay` when it is `check`.
void popCheck(RelayChecks& checks, const std::string& relay, int check) {
    const auto entry = checks.find(relay);
    if (entry != checks.end() && !entry->second.empty() && entry->second.front() == check) {
        entry->second.erase(entry->second.begin());
    }
}

}  // namespace

RelaySplit splitRelays(const std::vector<std::string>& candidates, const AuthContext& context,
                       const AuthConfig& config) {
    const bool apApplies = config.antiPassbackEnabled && context.userData &&
                           (context.userData->userType == 1 || context.userData->userType == 2) &&
                           context.request.openType != OPEN_TYPE_REMOTE_CONTROL;
    const bool parkingApplies = config.parkingRestrictionEnabled &&
                                context.request.openType == OPEN_TYPE_LICENSE_PLATE &&
                                context.userData && context.userData->userType == 1;
    RelaySplit split;
    split.immediate.reserve(candidates.size());
    for (const std::string& relay : candidates) {
        std::vector<int> checks;
        const auto direction = config.antiPassbackRelayMap.find(relay);
        if (apApplies && direction != config.antiPassbackRelayMap.end() && direction->second != 0) {
            split.antiPassback.push_back(relay);
            checks.push_back(CHECK_ANTI_PASSBACK);
        }
        const auto interlocked = config.interlockRelayMap.find(relay);
        if (config.interlockEnabled && interlocked != config.interlockRelayMap.end() &&
            interlocked->second) {
            split.interlock.push_back(relay);
            checks.push_back(CHECK_INTERLOCK);
        }
        if (parkingApplies) {
            split.parking.push_back(relay);
            checks.push_back(CHECK_PARKING);
        }
        if (checks.empty()) {
            split.immediate.push_back(relay);
        } else {
            split.checks[relay] = std::move(checks);
        }
    }
    return split;
}

PhaseOutcome afterAntiPassback(RelayChecks checks, const std::vector<std::string>& relays,
                               const std::map<std::string, AntiPassbackSubResult>& results) {
    PhaseOutcome outcome;
    std::vector<std::string> passed;
    for (const auto& entry : results) {
        const bool pass = entry.second.status == SUCCESS || entry.second.status == CONTINUE;
        (pass ? passed : outcome.failed).push_back(entry.first);
    }
    for (const std::string& relay : relays) {
        if (results.count(relay) == 0) {
            outcome.failed.push_back(relay);
        }
    }
    for (const std::string& relay : passed) {
        popCheck(checks, relay, CHECK_ANTI_PASSBACK);
    }
    for (const std::string& relay : outcome.failed) {
        checks.erase(relay);
    }
    for (auto entry = checks.begin(); entry != checks.end();) {
        if (entry->second.empty()) {
            outcome.opened.push_back(entry->first);
            entry = checks.erase(entry);
        } else if (entry->second.front() == CHECK_ANTI_PASSBACK) {
            outcome.failed.push_back(entry->first);
            entry = checks.erase(entry);
        } else {
            ++entry;
        }
    }
    std::vector<std::string> parking;
    for (const auto& entry : checks) {
        (entry.second.front() == CHECK_INTERLOCK ? outcome.interlock : parking)
            .push_back(entry.first);
    }
    // Parking waits for the interlock phase when there is one: it hands its relays on.
    if (outcome.interlock.empty()) {
        outcome.parking = std::move(parking);
    }
    outcome.checks = std::move(checks);
    return outcome;
}

PhaseOutcome afterInterlock(RelayChecks checks,
                            const std::map<std::string, InterlockSubResult>& results) {
    PhaseOutcome outcome;
    for (const auto& entry : results) {
        if (entry.second.answered && entry.second.status == SUCCESS) {
            popCheck(checks, entry.first, CHECK_INTERLOCK);
        } else {
            outcome.failed.push_back(entry.first);
            checks.erase(entry.first);
        }
    }
    for (auto entry = checks.begin(); entry != checks.end();) {
        if (entry->second.empty()) {
            outcome.opened.push_back(entry->first);
            entry = checks.erase(entry);
            continue;
        }
        if (entry->second.front() == CHECK_PARKING) {
            outcome.parking.push_back(entry->first);
        } else {
            // Still waiting for a check that this phase cannot decide: it stays shut.
            outcome.failed.push_back(entry->first);
        }
        ++entry;
    }
    outcome.checks = std::move(checks);
    return outcome;
}

}  // namespace auth_engine
