// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// The parking restriction: for a type-1 user's plate open, the host says whether the car may enter;
// asked in the chain or per relay in the relay phase.
#include "processors/ParkingRestrictionProcessor.h"

#include <memory>

#include "auth_engine/AuthLogger.h"
#include "auth_engine/FailCodes.h"

namespace auth_engine {
namespace processors {

namespace {

// Only a plate open by a user of kind 1 is under parking restriction.
bool restrictionApplies(const AuthConfig& config, const AuthContext& context) {
    return config.parkingRestrictionEnabled && context.userData &&
           context.request.openType == OPEN_TYPE_LICENSE_PLATE && context.userData->userType == 1;
}

AuthResult logged(int line, AuthResult result) {
    AuthLogger::info("[ParkingRestrictionProcessor:%d] result=%s", line,
                     AuthLogger::authResultToString(result));
    return result;
}

}  // namespace

// Asks once for the whole request; the answer is routed to the context's own id. Returns the
// host's handle (empty: offline).
std::string ParkingRestrictionProcessor::askHost(AuthContext& context,
                                                 IDataProvider& provider) const {
    // Without a request id nothing could route an answer: the empty callback tells the host
    // not to send one.
    AuthCallback callback;
    if (!context.requestId.empty()) {
        callback = answerTo(context.requestId);
    }
    // The user record must outlive the call even if the host swaps context.userData meanwhile.
    const std::shared_ptr<UserData> user = context.userData;
    const AuthRequest request = context.request;
    return provider.requestParking(request, *user, request.credential, context,
                                   std::move(callback));
}

AuthResult ParkingRestrictionProcessor::process(AuthContext& context, IDataProvider& provider) {
    const int openType = context.request.openType;
    if (openType == OPEN_TYPE_PUBLIC_PIN || openType == OPEN_TYPE_LATCH_PIN) {
        AuthLogger::info("[ParkingRestrictionProcessor:%d] openType=%d, skip", __LINE__, openType);
        return CONTINUE;
    }

    // Called again with the host's answer (and only then: a SUCCESS left in the response by an
    // earlier processor must not pass for one). Only a plain SUCCESS lets the user through.
    if (context.pendingProcessor == getName()) {
        if (context.response.result == SUCCESS) {
            AuthLogger::info("[ParkingRestrictionProcessor:%d] resume result=%s", __LINE__,
                             AuthLogger::authResultToString(CONTINUE));
            return CONTINUE;
        }
        context.response.result = FAILED;
        if (context.response.failCode == 0) {
            context.response.failCode = fail::PARKING;
        }
        AuthLogger::info("[ParkingRestrictionProcessor:%d] resume result=%s", __LINE__,
                         AuthLogger::authResultToString(FAILED));
        return FAILED;
    }

    const AuthConfig config = provider.getAuthConfig();
    if (!restrictionApplies(config, context)) {
        return logged(__LINE__, CONTINUE);
    }

    const bool routed = !context.requestId.empty();
    if (askHost(context, provider).empty()) {
        // An unreachable host must not lock a resident out of their own car park.
        context.response.reason = reasons::PARKING_OFFLINE;
        return logged(__LINE__, CONTINUE);
    }
    context.response.reason = routed ? reasons::PARKING_PENDING : reasons::PARKING_PENDING_UNROUTED;
    return logged(__LINE__, ASYNC_PENDING);
}

AuthResult ParkingRestrictionProcessor::processRelays(AuthContext& context, IDataProvider& provider,
                                                      const std::vector<std::string>& relays) {
    return processRelays(context, provider, relays, provider.getAuthConfig());
}

AuthResult ParkingRestrictionProcessor::processRelays(AuthContext& context, IDataProvider& provider,
                                                      const std::vector<std::string>& relays,
                                                      const AuthConfig& config) {
    // The host reads the relays of the check from context.relays, which the caller has set.
    (void)relays;
    if (!restrictionApplies(config, context)) {
        return CONTINUE;
    }
    const bool routed = !context.requestId.empty();
    const std::string handle = askHost(context, provider);
    if (!routed || handle.empty()) {
        return CONTINUE;
    }
    return ASYNC_PENDING;
}

}  // namespace processors
}  // namespace auth_engine
