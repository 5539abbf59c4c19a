// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// The open-type check: relays on which this way of opening is forbidden are refused.
#include "processors/UnlockTypeProcessor.h"

#include <vector>

#include "auth_engine/AuthLogger.h"
#include "auth_engine/FailCodes.h"
#include "common/ProcessorSupport.h"

namespace auth_engine {
namespace processors {

AuthResult UnlockTypeProcessor::process(AuthContext& context, IDataProvider& provider) {
    AuthLogger::error("[UnlockTypeProcessor:%d] process, readerType=%d", __LINE__,
                      static_cast<int>(context.request.readerType));
    if (context.skipUnlockType) {
        AuthLogger::info("[UnlockTypeProcessor:%d] skipUnlockType, result=%s", __LINE__,
                         AuthLogger::authResultToString(CONTINUE));
        return CONTINUE;
    }
    // Open-type restrictions are configured for the device's own reader only.
    if (context.request.readerType != READER_TYPE_INTERNAL) {
        AuthLogger::info("[UnlockTypeProcessor:%d] readerType is not internal, result=%s", __LINE__,
                         AuthLogger::authResultToString(CONTINUE));
        return CONTINUE;
    }
    if (context.request.openType == OPEN_TYPE_RELAY_KEY) {
        AuthLogger::info("[UnlockTypeProcessor:%d] relay key skips unlock type, result=%s",
                         __LINE__, AuthLogger::authResultToString(CONTINUE));
        return CONTINUE;
    }
    if (context.relays.empty()) {
        AuthLogger::info("[UnlockTypeProcessor:%d] result=%s", __LINE__,
                         AuthLogger::authResultToString(CONTINUE));
        return CONTINUE;
    }

    const std::vector<std::string> forbidden =
        provider.getForbiddenUnlockTypeRelays(context.relays, context.request.openType);
    if (forbidden.empty()) {
        AuthLogger::info("[UnlockTypeProcessor:%d] result=%s", __LINE__,
                         AuthLogger::authResultToString(CONTINUE));
        return CONTINUE;
    }

    // The host's answer is reported as given, and the fail code stays on a passing request so the
    // host can tell a partial open from a full one.
    refuseRelays(context, forbidden, chain::UNLOCK_TYPE, fail::FORBIDDEN_OPEN_TYPE);

    if (!context.relays.empty()) {
        AuthLogger::info("[UnlockTypeProcessor:%d] partial pass, forbidden=%s, remaining=%s",
                         __LINE__, joinRelayVector(forbidden).c_str(),
                         joinRelayVector(context.relays).c_str());
        AuthLogger::info("[UnlockTypeProcessor:%d] result=%s", __LINE__,
                         AuthLogger::authResultToString(CONTINUE));
        return CONTINUE;
    }
    context.response.result = FAILED;
    context.response.reason = reasons::FORBIDDEN_FOR_ALL_RELAYS;
    AuthLogger::info("[UnlockTypeProcessor:%d] result=%s, all forbidden", __LINE__,
                     AuthLogger::authResultToString(FAILED));
    return FAILED;
}

}  // namespace processors
}  // namespace auth_engine
