// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// The user lookup: finds the user of a credential (card, PIN, face, QR, plate, BLE), checks
// validity and gathers the relays their rights name.
#include "processors/UserLookupProcessor.h"

#include <memory>
#include <utility>
#include <vector>

#include "auth_engine/AuthLogger.h"
#include "auth_engine/FailCodes.h"
#include "common/ProcessorSupport.h"

namespace auth_engine {
namespace processors {

namespace {

// The card and PIN kinds whose code may also be the public PIN or a latch PIN.
bool mayCarryDevicePin(OpenDoorType openType) {
    return openType == OPEN_TYPE_CARD || openType == OPEN_TYPE_CARD_6 ||
           openType == OPEN_TYPE_CARD_8;
}

// Kinds that can be the first or second factor of double authentication: an unknown credential of
// these kinds may still be completed by the other factor.
bool mayBeDoubleAuthFactor(OpenDoorType openType) {
    switch (openType) {
        case OPEN_TYPE_CARD:
        case OPEN_TYPE_PIN:
        case OPEN_TYPE_PIN_5:
        case OPEN_TYPE_CARD_6:
        case OPEN_TYPE_PIN_7:
        case OPEN_TYPE_CARD_8:
        case OPEN_TYPE_FACE:
        case OPEN_TYPE_PIN_19:
            return true;
        default:
            return false;
    }
}

}  // namespace

AuthResult UserLookupProcessor::process(AuthContext& context, IDataProvider& provider) {
    AuthRequest& request = context.request;

    if (context.skipUserLookup) {
        AuthLogger::info("[UserLookupProcessor:%d] skipUserLookup, result=%s", __LINE__,
                         AuthLogger::authResultToString(CONTINUE));
        return CONTINUE;
    }
    if (request.openType == OPEN_TYPE_RELAY_KEY) {
        AuthLogger::info("[UserLookupProcessor:%d] relay key has no user lookup, result=%s",
                         __LINE__, AuthLogger::authResultToString(CONTINUE));
        return CONTINUE;
    }

    // A QR code never stands for a device PIN, even when its text happens to match one.
    if (mayCarryDevicePin(request.openType) && request.sourceCode != SOURCE_CODE_QR) {
        if (provider.isPublicPin(context)) {
            request.openType = OPEN_TYPE_PUBLIC_PIN;
            context.relays = provider.getPublicPinRelays(context);
            context.skipUnlockType = true;
            AuthLogger::info("[UserLookupProcessor:%d] PUBLIC_PIN detected, relays=%s", __LINE__,
                             joinRelayVector(context.relays).c_str());
            return CONTINUE;
        }
        std::vector<std::string> latchRelays;
        if (provider.getLatchPinRelays(context, latchRelays)) {
            request.openType = OPEN_TYPE_LATCH_PIN;
            context.relays = std::move(latchRelays);
            AuthLogger::info("[UserLookupProcessor:%d] LATCH_PIN detected, relays=%s", __LINE__,
                             joinRelayVector(context.relays).c_str());
            return CONTINUE;
        }
    }

    std::shared_ptr<UserData> user =
        provider.getUserByCredential(request.credential.c_str(), request.openType);
    if (user) {
        const int ownerKind = user->ownerKind;
        context.response.user = user;
        context.userData = std::move(user);
        if (request.openType == OPEN_TYPE_LICENSE_PLATE) {
            context.keyData = provider.getKeyData(context, 0, ownerKind);
        }
        AuthLogger::info("[UserLookupProcessor:%d] result=%s", __LINE__,
                         AuthLogger::authResultToString(CONTINUE));
        return CONTINUE;
    }

    if (request.openType == OPEN_TYPE_DTMF && context.dtmfAuthData) {
        const DtmfAuthData& dtmf = *context.dtmfAuthData;
        DtmfVisitorPermissionRequest permission;
        permission.resolvedPerId = dtmf.resolvedPerId;
        permission.remoteUsername = dtmf.remoteUsername;
        permission.targets = dtmf.targets;
        UserData visitor;
        if (provider.requestDtmfVisitorPermission(permission, visitor)) {
            // A private copy: the visitor record belongs to this request only.
            context.userData = std::make_shared<UserData>(visitor);
            context.response.user = context.userData;
            // The visitor was admitted for the doors of this call, not by a user schedule.
            request.virtualDoorSkipRelaySchedule = true;
            AuthLogger::info(
                "[UserLookupProcessor:%d] dtmf visitor authorized(whitelist/permission), set "
                "virtualDoorSkipRelaySchedule, remoteUsername=%s, resolvedPerId=%s",
                __LINE__, permission.remoteUsername.c_str(), permission.resolvedPerId.c_str());
            AuthLogger::info("[UserLookupProcessor:%d] dtmf visitor fallback result=%s", __LINE__,
                             AuthLogger::authResultToString(CONTINUE));
            return CONTINUE;
        }
    }

    const AuthConfig config = provider.getAuthConfig();
    if (config.duressEnabled && isMemorisedCode(request.openType)) {
        UserData duressUser;
        if (provider.getUserByDuressCode(request.credential, request.openType, duressUser)) {
            // From here on the attempt is the user's own: it opens what the normal code would.
            // The code itself is never logged.
            context.userData = std::make_shared<UserData>(duressUser);
            context.response.user = context.userData;
            context.response.duress = true;
            AuthLogger::info("[UserLookupProcessor:%d] duress, user=%s, result=%s", __LINE__,
                             context.userData->userId.c_str(),
                             AuthLogger::authResultToString(CONTINUE));
            return CONTINUE;
        }
    }
    const bool doubleAuthOn =
        config.doubleAuthEnabled && config.doubleAuthMode != DOUBLE_AUTH_MODE_OFF;
    if (doubleAuthOn && mayBeDoubleAuthFactor(request.openType)) {
        AuthLogger::info(
            "[UserLookupProcessor:%d] defer user-not-found to double auth, openType=%d", __LINE__,
            static_cast<int>(request.openType));
        return CONTINUE;
    }

    failRequest(context, fail::GENERIC, reasons::USER_NOT_FOUND);
    AuthLogger::info("[UserLookupProcessor:%d] result=%s, reason=%s", __LINE__,
                     AuthLogger::authResultToString(FAILED), context.response.reason.c_str());
    return FAILED;
}

}  // namespace processors
}  // namespace auth_engine
