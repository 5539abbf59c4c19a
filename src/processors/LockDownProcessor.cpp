// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// The lockdown check: relays the host has locked down are refused, unless the reader may bypass it.
#include "processors/LockDownProcessor.h"

#include <vector>

#include "auth_engine/AuthLogger.h"
#include "auth_engine/FailCodes.h"
#include "common/ProcessorSupport.h"

namespace auth_engine {
namespace processors {

AuthResult LockDownProcessor::process(AuthContext& context, IDataProvider& provider) {
    if (context.relays.empty()) {
        AuthLogger::info("[LockDownProcessor:%d] result=%s", __LINE__,
                         AuthLogger::authResultToString(CONTINUE));
        return CONTINUE;
    }
    // A request without a user has no bypass and is filtered like any other.
    if (context.userData && context.userData->lockdownBypass >= 1) {
        AuthLogger::info("[LockDownProcessor:%d] result=%s (bypass)", __LINE__,
                         AuthLogger::authResultToString(CONTINUE));
        return CONTINUE;
    }

    const std::vector<std::string> locked = provider.getLockedDownRelays(context.relays);
    if (locked.empty()) {
        AuthLogger::info("[LockDownProcessor:%d] result=%s", __LINE__,
                         AuthLogger::authResultToString(CONTINUE));
        return CONTINUE;
    }

    // The host sees which relays were locked even when the request still opens the others.
    refuseRelays(context, locked, chain::LOCK_DOWN, fail::LOCKDOWN);

    if (!context.relays.empty()) {
        AuthLogger::info("[LockDownProcessor:%d] partial pass, locked=%s, remaining=%s", __LINE__,
                         joinRelayVector(locked).c_str(), joinRelayVector(context.relays).c_str());
        AuthLogger::info("[LockDownProcessor:%d] result=%s", __LINE__,
                         AuthLogger::authResultToString(CONTINUE));
        return CONTINUE;
    }
    context.response.result = FAILED;
    context.response.reason = reasons::ALL_RELAYS_LOCKED;
    AuthLogger::info("[LockDownProcessor:%d] result=%s, all locked", __LINE__,
                     AuthLogger::authResultToString(FAILED));
    return FAILED;
}

}  // namespace processors
}  // namespace auth_engine
