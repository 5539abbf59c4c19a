// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// The BLE interval check: a BLE open is refused while the user's last one is too recent, as the
// host keeps it.
#include "processors/BleIntervalProcessor.h"

#include "auth_engine/AuthLogger.h"
#include "auth_engine/FailCodes.h"

namespace auth_engine {
namespace processors {

AuthResult BleIntervalProcessor::process(AuthContext& context, IDataProvider& provider) {
    if (context.request.openType != OPEN_TYPE_BLE || !context.userData || context.relays.empty()) {
        return CONTINUE;
    }
    const UserData& user = *context.userData;
    if (provider.checkBleOpenInterval(user, context.relays)) {
        // Recorded now rather than after the verdict: a phone that keeps announcing itself must be
        // throttled even while later checks are still deciding on its first attempt.
        provider.recordBleOpen(user, context.relays);
        return CONTINUE;
    }
    // A repeated announcement is not a refusal: result and fail code stay as they are.
    context.response.reason = reasons::BLE_INTERVAL;
    AuthLogger::info("[BleIntervalProcessor:%d] result=%s, user=%s, relays=%s", __LINE__,
                     AuthLogger::authResultToString(IGNORED), user.userId.c_str(),
                     joinRelayVector(context.relays).c_str());
    return IGNORED;
}

}  // namespace processors
}  // namespace auth_engine
