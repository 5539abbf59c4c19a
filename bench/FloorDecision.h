// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// The card decision of the decision benchmarks written by hand as straight-line code: the same
// provider calls in the same order and the same response, without a chain, a registry, logging or
// any of the engine's bookkeeping. It is the floor the engine's cost is compared with.
#pragma once

#include "auth_engine/IDataProvider.h"

namespace auth_engine {
namespace bench {

/// Decides a card or PIN attempt of a user with schedules and holidays (no double authentication,
/// virtual doors or relay checks configured) and reports it through onAuthResult.
AuthResponse floorDecision(IDataProvider& provider, const AuthRequest& request);

}  // namespace bench
}  // namespace auth_engine
