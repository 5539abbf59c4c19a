// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// The DTMF open: a code keyed on a call (or a caller's whitelist) opens the relays the host's DTMF
// configuration names.
#include "processors/DtmfProcessor.h"

#include <algorithm>
#include <memory>
#include <string>
#include <unordered_set>
#include <vector>

#include "auth_engine/AuthLogger.h"
#include "auth_engine/FailCodes.h"
#include "common/Distinct.h"
#include "common/ProcessorSupport.h"

namespace auth_engine {
namespace processors {

namespace {

// Targets of a code's relays: "S" plus a letter is a kind-1 relay, anything else kind 0. Empty ids
// and repeats are dropped.
std::vector<AuthTarget> targetsForRelays(const std::vector<std::string>& relays) {
    std::vector<AuthTarget> targets;
    for (const std::string& relay : distinctInOrder(relays)) {
        if (!relay.empty()) {
            targets.push_back(AuthTarget{(relay.size() > 1 && relay[0] == 'S') ? 1 : 0, relay});
        }
    }
    return targets;
}

}  // namespace

AuthResult DtmfProcessor::process(AuthContext& context, IDataProvider& provider) {
    if (context.request.openType != OPEN_TYPE_DTMF) {
        AuthLogger::info("[DtmfProcessor:%d] non-DTMF, result=%s", __LINE__,
                         AuthLogger::authResultToString(CONTINUE));
        return CONTINUE;
    }
    const std::shared_ptr<DtmfRequestData> dtmfData = context.request.dtmfData;
    if (!dtmfData) {
        failRequest(context, fail::NONE, reasons::DTMF_DATA_INVALID);
        AuthLogger::info("[DtmfProcessor:%d] missing dtmf data, result=%s", __LINE__,
                         AuthLogger::authResultToString(FAILED));
        return FAILED;
    }

    DtmfConfig config;
    if (!provider.getDtmfConfig(config, context) || !config.enabled) {
        failRequest(context, fail::GENERIC, reasons::DTMF_DISABLED);
        AuthLogger::info("[DtmfProcessor:%d] disabled, result=%s", __LINE__,
                         AuthLogger::authResultToString(FAILED));
        return FAILED;
    }

    // An empty code never matches, and a code that names no usable relay opens nothing: both are
    // refused here rather than left for later checks to interpret.
    const auto code = dtmfData->dtmfCode.empty() ? config.codeRelays.end()
                                                 : config.codeRelays.find(dtmfData->dtmfCode);
    const std::vector<AuthTarget> targets = code == config.codeRelays.end()
                                                ? std::vector<AuthTarget>()
                                                : targetsForRelays(code->second);
    if (targets.empty()) {
        failRequest(context, fail::GENERIC, reasons::DTMF_CODE_INVALID);
        AuthLogger::info("[DtmfProcessor:%d] unknown code, result=%s", __LINE__,
                         AuthLogger::authResultToString(FAILED));
        return FAILED;
    }

    auto data = std::make_shared<DtmfAuthData>();
    data->dtmfCode = dtmfData->dtmfCode;
    data->remoteNumber = dtmfData->remoteNumber;
    data->remoteUsername = dtmfData->remoteUsername;
    if (config.whitelistRequired) {
        DtmfWhitelistRequest question;
        question.remoteNumber = dtmfData->remoteNumber;
        question.remoteUsername = dtmfData->remoteUsername;
        question.dtmfCode = dtmfData->dtmfCode;
        DtmfWhitelistResult answer;
        if (!provider.requestDtmfWhitelist(question, answer) || !answer.allowed) {
            failRequest(context, fail::GENERIC, reasons::DTMF_NOT_WHITELISTED);
            AuthLogger::info("[DtmfProcessor:%d] caller not whitelisted, result=%s", __LINE__,
                             AuthLogger::authResultToString(FAILED));
            return FAILED;
        }
        data->resolvedPerId = answer.resolvedPerId;
        data->remoteUsername = answer.remoteUsername;
        data->whitelisted = true;
    }
    data->targets = targets;
    context.dtmfAuthData = data;

    DistinctTargets authTargets(context.authTargets);
    LazyIndex<std::string> relayIndex;
    for (const AuthTarget& target : targets) {
        authTargets.add(target.type, target.relay);
        appendDistinct(
            context.relays, [&relayIndex]() -> auto& { return relayIndex; }, target.relay);
    }

    UserData user;
    if (provider.getDtmfUser(dtmfData->remoteNumber, user, context)) {
        context.userData = std::make_shared<UserData>(user);
        context.response.user = context.userData;
        context.skipUserLookup = true;
        AuthLogger::info("[DtmfProcessor:%d] caller resolved, user=%s, relays=%s, result=%s",
                         __LINE__, user.userId.c_str(), joinRelayVector(context.relays).c_str(),
                         AuthLogger::authResultToString(CONTINUE));
    } else {
        // Unknown caller: the user lookup decides, and may admit a visitor.
        AuthLogger::info("[DtmfProcessor:%d] caller unknown, whitelisted=%d, relays=%s, result=%s",
                         __LINE__, data->whitelisted ? 1 : 0,
                         joinRelayVector(context.relays).c_str(),
                         AuthLogger::authResultToString(CONTINUE));
    }
    return CONTINUE;
}

}  // namespace processors
}  // namespace auth_engine
