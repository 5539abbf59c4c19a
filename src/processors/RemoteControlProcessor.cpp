// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// The remote-control open: the host resolves the remote user and the target the command may open.
#include "processors/RemoteControlProcessor.h"

#include <algorithm>
#include <memory>
#include <string>

#include "auth_engine/AuthLogger.h"
#include "auth_engine/FailCodes.h"
#include "common/Distinct.h"
#include "common/ProcessorSupport.h"

namespace auth_engine {
namespace processors {

AuthResult RemoteControlProcessor::process(AuthContext& context, IDataProvider& provider) {
    if (context.request.openType != OPEN_TYPE_REMOTE_CONTROL) {
        AuthLogger::info("[RemoteControlProcessor:%d] non-remote-control, result=%s", __LINE__,
                         AuthLogger::authResultToString(CONTINUE));
        return CONTINUE;
    }
    const std::string remoteUserId = context.request.credential;
    if (remoteUserId.empty()) {
        failRequest(context, fail::GENERIC, reasons::REMOTE_USER_EMPTY);
        AuthLogger::info("[RemoteControlProcessor:%d] empty remote user id, result=%s", __LINE__,
                         AuthLogger::authResultToString(FAILED));
        return FAILED;
    }

    UserData user;
    if (!provider.getRemoteControlUser(remoteUserId, user, context)) {
        // The remote side vouches for the command; without a known user it must at least say what
        // to open.
        if (context.request.targets.empty()) {
            failRequest(context, fail::INVALID_TARGET, reasons::REMOTE_TARGET_INVALID);
            AuthLogger::info("[RemoteControlProcessor:%d] fallback target invalid, result=%s",
                             __LINE__, AuthLogger::authResultToString(FAILED));
            return FAILED;
        }
        user = UserData();
        user.userId = remoteUserId;
        user.userType = 1;
        AuthLogger::info(
            "[RemoteControlProcessor:%d] user not found, use command-authorized fallback",
            __LINE__);
    }

    context.userData = std::make_shared<UserData>(user);
    context.response.user = context.userData;

    auto data = std::make_shared<RemoteControlAuthData>();
    data->remoteUserId = remoteUserId;
    data->commandText = context.request.commandText;
    data->targets = context.request.targets;
    context.remoteControlAuthData = data;

    context.authTargets = context.request.targets;
    appendTargetRelays(context.relays, context.authTargets);

    // The user is settled here, and the remote side already chose how the door may be opened.
    context.skipUserLookup = true;
    context.skipUnlockType = true;
    context.skipVirtualDoor = context.request.virtualDoorExempt;
    context.virtualDoorExempt = context.request.virtualDoorExempt;

    AuthLogger::info("[RemoteControlProcessor:%d] remoteUserId=%s, targets=%d, result=%s", __LINE__,
                     remoteUserId.c_str(), static_cast<int>(context.authTargets.size()),
                     AuthLogger::authResultToString(CONTINUE));
    return CONTINUE;
}

}  // namespace processors
}  // namespace auth_engine
