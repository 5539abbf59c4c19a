// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

#include "common/ProcessorSupport.h"

#include <algorithm>

#include "engine/AuthEngine.h"

namespace auth_engine {

namespace {

bool contains(const std::vector<std::string>& list, const std::string& value) {
    return std::find(list.begin(), list.end(), value) != list.end();
}

}  // namespace

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

AuthCallback answerCallbackFor(AuthEngine* engine, const std::string& routedId) {
    if (engine != nullptr) {
        return engine->makeAnswerCallback(routedId);
    }
    return [](const std::string&, const AuthResponse&, const AuthContext&) {};
}

void refuseRelays(AuthContext& context, const std::vector<std::string>& refused,
                  const char* failName, int failCode) {
    std::vector<std::string> remaining;
    for (const std::string& relay : context.relays) {
        if (contains(refused, relay)) {
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
    for (const AuthTarget& target : targets) {
        if ((target.type == 0 || target.type == 1) && !contains(context.relays, target.relay)) {
            context.relays.push_back(target.relay);
        }
    }
    context.authTargets = targets;
    context.skipUserLookup = true;
    context.skipVirtualDoor = true;
    context.skipUnlockType = true;
    context.skipTimeCheck = true;
    context.skipHolidayCheck = true;
    context.virtualDoorExempt = true;
}

}  // namespace auth_engine
