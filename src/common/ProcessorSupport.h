// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// Small steps that several processors take the same way: refusing a request, taking relays out of
// a request, and adopting the targets of a door command.
#pragma once

#include <string>
#include <vector>

#include "auth_engine/AuthTypes.h"

namespace auth_engine {

/// A refusal with fail code 0 and `reason`, for calls that end before any processor runs.
AuthResponse failedResponse(const char* reason);

/// Marks the request FAILED with `failCode` and `reason`.
void failRequest(AuthContext& context, int failCode, const char* reason);

/// Takes every relay of context.relays that `refused` names out of the request, into
/// context.failedRelays with `failName` as its reason. The host's list is reported as given, with
/// `failCode`, even when other relays remain.
void refuseRelays(AuthContext& context, const std::vector<std::string>& refused,
                  const char* failName, int failCode);

/// Why a door command's target list cannot be served ("empty target list", "invalid target"), or
/// null when every target passes `accepts`.
const char* targetListRefusal(const std::vector<AuthTarget>& targets,
                              bool (*accepts)(const AuthTarget&));

/// A door command names its doors itself: its relay targets become the relays to open, its
/// targets the ones to actuate, and no user lookup or user-based policy applies.
void adoptCommandTargets(AuthContext& context, const std::vector<AuthTarget>& targets);

}  // namespace auth_engine
