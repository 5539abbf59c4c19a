// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// Which relays of a passed attempt open at once and which wait for anti-passback, interlock or
// parking restriction, and what each finished phase opens, refuses and hands on: pure functions of
// the relays, the attempt and the configuration, so that the phase rules can be read and tested
// without an engine.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "auth_engine/AuthTypes.h"

namespace auth_engine {

/// The per-relay checks, in the order a relay must pass them.
enum RelayCheck : int { CHECK_ANTI_PASSBACK = 0, CHECK_INTERLOCK = 1, CHECK_PARKING = 2 };

/// relay -> the checks it has still to pass, first one first.
using RelayChecks = std::map<std::string, std::vector<int>>;

/// The candidates of a passed attempt, split by the checks they still need.
struct RelaySplit {
    std::vector<std::string> immediate;  ///< open with the synchronous report
    std::vector<std::string> antiPassback;
    std::vector<std::string> interlock;
    std::vector<std::string> parking;
    RelayChecks checks;  ///< one entry for every relay that is held back
};

/// Splits `candidates` (distinct, in order) by the checks that `config` applies to the attempt of
/// `context`: anti-passback for users of type 1 and 2 on relays with a direction (never for a
/// remote control open), interlock for interlocked relays, parking for plate opens of type-1 users.
RelaySplit splitRelays(const std::vector<std::string>& candidates, const AuthContext& context,
                       const AuthConfig& config);

/// What a finished phase decides: relays that open now, relays refused (with the phase's reason),
/// and the relays handed to the next phase with the checks they still need.
struct PhaseOutcome {
    std::vector<std::string> opened;
    std::vector<std::string> failed;
    std::vector<std::string> interlock;  ///< next: the interlock phase
    std::vector<std::string> parking;    ///< next: the parking phase
    RelayChecks checks;                  ///< what the relays handed on still need
};

/// The anti-passback phase of `relays` is over with `results`: SUCCESS or CONTINUE passes, anything
/// else refuses, and a relay never asked cannot have passed. Relays that need interlock go there
/// first; relays that need interlock and parking reach parking from the interlock phase.
PhaseOutcome afterAntiPassback(RelayChecks checks, const std::vector<std::string>& relays,
                               const std::map<std::string, AntiPassbackSubResult>& results);

/// The interlock phase is over with `results`: only an answered plain SUCCESS lets a relay go on;
/// a relay still waiting for a check the phase cannot decide stays shut.
PhaseOutcome afterInterlock(RelayChecks checks,
                            const std::map<std::string, InterlockSubResult>& results);

}  // namespace auth_engine
