// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// The temporary key: the host validates the key (possibly later, through its answer) and names the
// user and targets it opens.
#include "processors/TempKeyProcessor.h"

#include <algorithm>
#include <memory>
#include <vector>

#include "auth_engine/AuthLogger.h"
#include "auth_engine/FailCodes.h"
#include "common/Distinct.h"
#include "common/ProcessorSupport.h"

namespace auth_engine {
namespace processors {

namespace {

// Every refusal of the second pass looks the same to the host: FAILED, a code, a reason that the
// host's own answer may already have filled, and nothing to actuate.
void failFromAnswer(AuthContext& context, int failCode) {
    context.response.result = FAILED;
    context.response.failCode = failCode;
    if (context.response.reason.empty()) {
        context.response.reason = reasons::TEMP_KEY_DENIED;
    }
    context.response.targets.clear();
}

}  // namespace

AuthResult TempKeyProcessor::process(AuthContext& context, IDataProvider& provider) {
    if (context.request.openType != OPEN_TYPE_TEMP_KEY) {
        AuthLogger::info("[TempKeyProcessor:%d] non-temp-key, result=%s", __LINE__,
                         AuthLogger::authResultToString(CONTINUE));
        return CONTINUE;
    }

    AuthResponse& response = context.response;
    const bool resumed = context.pendingProcessor == getName();

    if (resumed && !context.tempKeyAuthData) {
        // The chain came back to us after our question, but the host's answer carried no key data:
        // treat it as a host failure instead of asking again, or a silent host would loop forever.
        failFromAnswer(context, response.failCode != 0 ? response.failCode : fail::TEMP_KEY);
        AuthLogger::info("[TempKeyProcessor:%d] answer without key data, result=%s", __LINE__,
                         AuthLogger::authResultToString(FAILED));
        return FAILED;
    }
    if (!resumed) {
        // Only the answer to our own question may vouch for the key: key data merged from an
        // answer to another processor's question is not it.
        context.tempKeyAuthData.reset();

        if (context.request.credential.empty()) {
            failRequest(context, fail::GENERIC, reasons::TEMP_KEY_EMPTY);
            AuthLogger::info("[TempKeyProcessor:%d] empty temp key, result=%s", __LINE__,
                             AuthLogger::authResultToString(FAILED));
            return FAILED;
        }

        // The engine's callback routes the answer to this request id, or to the id the host
        // passes when the request has none of its own.
        if (!provider.requestTempKey(context, answerTo(context.requestId))) {
            failRequest(context, fail::TEMP_KEY, reasons::TEMP_KEY_REQUEST_FAILED);
            AuthLogger::info("[TempKeyProcessor:%d] send failed, result=%s", __LINE__,
                             AuthLogger::authResultToString(FAILED));
            return FAILED;
        }
        response.result = ASYNC_PENDING;
        AuthLogger::info("[TempKeyProcessor:%d] request sent, result=%s", __LINE__,
                         AuthLogger::authResultToString(ASYNC_PENDING));
        return ASYNC_PENDING;
    }

    // The answer object may be shared with the host's own copy of the update: work on a private
    // copy so that filling in the key never writes into memory another thread may be reading.
    const auto data = std::make_shared<TempKeyAuthData>(*context.tempKeyAuthData);
    context.tempKeyAuthData = data;

    if (data->failCode != 0) {
        failFromAnswer(context, data->failCode);
        AuthLogger::info("[TempKeyProcessor:%d] dclient failCode=%d, result=%s", __LINE__,
                         data->failCode, AuthLogger::authResultToString(FAILED));
        return FAILED;
    }
    if (response.result == FAILED || response.failCode != 0) {
        failFromAnswer(context, response.failCode != 0 ? response.failCode : fail::GENERIC);
        AuthLogger::info("[TempKeyProcessor:%d] dclient failed, result=%s", __LINE__,
                         AuthLogger::authResultToString(FAILED));
        return FAILED;
    }

    if (data->key.empty()) {
        data->key = context.request.credential;
    }
    if (!data->userText.empty()) {
        context.request.userText = data->userText;
    }
    if (!data->requestText.empty()) {
        context.request.requestText = data->requestText;
    }
    if (!data->userText2.empty()) {
        context.request.userText2 = data->userText2;
    }
    if (data->sourceCode != 0) {
        context.request.sourceCode = data->sourceCode;
    }

    UserData user;
    if (!provider.getTempKeyUser(*data, user)) {
        failRequest(context, fail::GENERIC, reasons::TEMP_KEY_USER_NOT_FOUND);
        AuthLogger::info("[TempKeyProcessor:%d] user not found, result=%s", __LINE__,
                         AuthLogger::authResultToString(FAILED));
        return FAILED;
    }
    if (!data->userText.empty()) {
        user.userText = data->userText;
    }
    if (!data->userText2.empty()) {
        user.userText2 = data->userText2;
    }
    context.userData = std::make_shared<UserData>(user);
    response.user = context.userData;

    // The most specific non-empty list wins; the host's defaults come last.
    std::vector<AuthTarget> targets;
    if (!data->targets.empty()) {
        targets = data->targets;
    } else if (!context.authTargets.empty()) {
        targets = context.authTargets;
    } else if (!context.request.targets.empty()) {
        targets = context.request.targets;
    } else {
        provider.getTempKeyTargets(targets);
    }
    context.authTargets = targets;

    appendTargetRelays(context.relays, targets);

    // The key already identified the user: the lookup and its PIN rules must not run again.
    context.skipUserLookup = true;
    context.skipUnlockType = true;
    context.request.virtualDoorSkipRelaySchedule = true;

    AuthLogger::info("[TempKeyProcessor:%d] key=%s, targets=%d, result=%s", __LINE__,
                     data->key.c_str(), static_cast<int>(targets.size()),
                     AuthLogger::authResultToString(CONTINUE));
    return CONTINUE;
}

}  // namespace processors
}  // namespace auth_engine
