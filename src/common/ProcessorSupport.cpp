// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// Small steps the processors share: failed responses, failing a request or some of its relays with
// their reasons, command targets, which open types are memorised codes.
#include "common/ProcessorSupport.h"

#include <algorithm>

#include "common/Distinct.h"

namespace auth_engine {

AuthResponse failedResponse(const char* reason) {
    AuthResponse response;
    response.result = FAILED;
    response.failCode = 0;
    response.reason = reason;
    return response;
}

void failRequest(AuthContext& context, int failCode, const char* reason) {
    context.response.result = FAILED;
    context.response.failCode = failCode;
    context.response.reason = reason;
}

void refuseRelays(AuthContext& context, const std::vector<std::string>& refused,
                  const char* failName, int failCode) {
    std::vector<std::string> remaining;
    const ListLookup refusedLookup(refused);
    for (const std::string& relay : context.relays) {
        if (refusedLookup.contains(relay)) {
            context.failedRelays.push_back(relay);
            context.relayFailReasons[relay] = failName;
        } else {
            remaining.push_back(relay);
        }
    }
    context.relays = remaining;
    context.response.failedRelays = refused;
    context.response.failCode = failCode;
}

const char* targetListRefusal(const std::vector<AuthTarget>& targets,
                              bool (*accepts)(const AuthTarget&)) {
    if (targets.empty()) {
        return "empty target list";
    }
    return std::all_of(targets.begin(), targets.end(), accepts) ? nullptr : "invalid target";
}

void adoptCommandTargets(AuthContext& context, const std::vector<AuthTarget>& targets) {
    appendTargetRelays(context.relays, targets);
    context.authTargets = targets;
    context.skipUserLookup = true;
    context.skipVirtualDoor = true;
    context.skipUnlockType = true;
    context.skipTimeCheck = true;
    context.skipHolidayCheck = true;
    context.virtualDoorExempt = true;
}

bool isMemorisedCode(OpenDoorType openType) {
    switch (openType) {
        case OPEN_TYPE_PIN:
        case OPEN_TYPE_PIN_5:
        case OPEN_TYPE_PIN_7:
        case OPEN_TYPE_PIN_19:
        case OPEN_TYPE_DTMF:
            return true;
        default:
            return false;
    }
}

}  // namespace auth_engine
