// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// The anti-passback check: a peer says per relay whether the user may pass in this direction; asked
// in the chain or per relay in the relay phase.
#include "processors/AntiPassbackProcessor.h"

#include <algorithm>
#include <memory>
#include <unordered_set>

#include "auth_engine/AuthLogger.h"
#include "auth_engine/FailCodes.h"
#include "common/Distinct.h"
#include "common/ProcessorSupport.h"

namespace auth_engine {
namespace processors {

namespace {

bool isEligibleUser(const AuthContext& context) {
    return context.userData && (context.userData->userType == 1 || context.userData->userType == 2);
}

bool isPassingStatus(int status) {
    return status == SUCCESS || status == CONTINUE;
}

}  // namespace

// Sends one question per relay of context.antiPassbackRelays, each under its own sub-request id.
// Every id is registered before the first question goes out, because the host may answer inline.
// A relay whose question cannot be sent is decided at once as failed.
void AntiPassbackProcessor::sendPerRelay(AuthContext& context, IDataProvider& provider,
                                         bool logLines) const {
    const std::vector<std::string> relays = context.antiPassbackRelays;
    const std::string requestId = context.requestId;
    // The user record must outlive the calls even if the host swaps context.userData meanwhile.
    const std::shared_ptr<UserData> user = context.userData;

    context.antiPassbackResults.clear();
    context.antiPassbackPending = static_cast<int>(relays.size());
    for (const std::string& relay : relays) {
        AntiPassbackSubResult result;
        result.relay = relay;
        context.antiPassbackResults[relay] = result;
    }
    for (const std::string& relay : relays) {
        registerQuestion(antiPassbackQuestionId(requestId, relay), requestId);
    }

    for (const std::string& relay : relays) {
        const std::string subRequestId = antiPassbackQuestionId(requestId, relay);
        context.antiPassbackRelays = {relay};
        const std::string handle =
            provider.requestAntiPassback(context.request, *user, context, answerTo(subRequestId));
        context.antiPassbackRelays = relays;

        if (handle.empty()) {
            AntiPassbackSubResult& result = context.antiPassbackResults[relay];
            result.relay = relay;
            result.status = FAILED;
            result.answered = true;
            --context.antiPassbackPending;
            if (logLines) {
                AuthLogger::info("[AntiPassbackProcessor:%d] relay=%s offline, skipped", __LINE__,
                                 relay.c_str());
            }
        } else if (logLines) {
            AuthLogger::info("[AntiPassbackProcessor:%d] relay=%s request sent, subRequestId=%s",
                             __LINE__, relay.c_str(), subRequestId.c_str());
        }
    }
}

AuthResult AntiPassbackProcessor::process(AuthContext& context, IDataProvider& provider) {
    if (context.pendingProcessor == getName()) {
        // Resumed with the answers. The map is ordered, so relays are judged in relay-id order; a
        // relay still unanswered keeps its FAILED default.
        std::vector<std::string> passed;
        std::vector<std::string> failed;
        for (const auto& entry : context.antiPassbackResults) {
            if (isPassingStatus(entry.second.status)) {
                passed.push_back(entry.first);
            } else {
                failed.push_back(entry.first);
                context.relayFailReasons[entry.first] = getName();
            }
        }
        if (!failed.empty()) {
            context.response.failCode = fail::ANTI_PASSBACK;
            context.response.failedRelays = failed;
            context.failedRelays = failed;
        }
        if (passed.empty()) {
            context.response.reason = reasons::ANTI_PASSBACK_FAILED;
            AuthLogger::info("[AntiPassbackProcessor:%d] resume result=%s, all relays failed",
                             __LINE__, AuthLogger::authResultToString(FAILED));
            return FAILED;
        }
        if (!failed.empty()) {
            std::vector<std::string> surviving;
            for (const std::string& relay : context.relays) {
                const auto found = context.antiPassbackResults.find(relay);
                const bool refused = found != context.antiPassbackResults.end() &&
                                     found->second.answered &&
                                     !isPassingStatus(found->second.status);
                if (!refused) {
                    surviving.push_back(relay);
                }
            }
            context.relays = surviving;
        }
        AuthLogger::info("[AntiPassbackProcessor:%d] resume result=%s, passed=%zu failed=%zu",
                         __LINE__, AuthLogger::authResultToString(CONTINUE), passed.size(),
                         failed.size());
        return CONTINUE;
    }

    const AuthConfig config = provider.getAuthConfig();
    if (!config.antiPassbackEnabled) {
        AuthLogger::info("[AntiPassbackProcessor:%d] result=%s, disabled", __LINE__,
                         AuthLogger::authResultToString(CONTINUE));
        return CONTINUE;
    }
    if (context.request.openType == OPEN_TYPE_REMOTE_CONTROL) {
        AuthLogger::info("[AntiPassbackProcessor:%d] result=%s, skip for remote control", __LINE__,
                         AuthLogger::authResultToString(CONTINUE));
        return CONTINUE;
    }
    if (!isEligibleUser(context)) {
        AuthLogger::info("[AntiPassbackProcessor:%d] result=%s, user is not eligible", __LINE__,
                         AuthLogger::authResultToString(CONTINUE));
        return CONTINUE;
    }

    context.antiPassbackRelays.clear();
    LazyIndex<std::string> asked;
    for (const auto& entry : config.antiPassbackRelayMap) {
        AuthLogger::info("[AntiPassbackProcessor:%d] antiPassbackRelayMap relay=%s, direction=%d",
                         __LINE__, entry.first.c_str(), entry.second);
    }
    for (const std::string& relay : context.relays) {
        const auto found = config.antiPassbackRelayMap.find(relay);
        if (found != config.antiPassbackRelayMap.end() && found->second != 0) {
            // A relay listed twice is still one question with one answer.
            appendDistinct(
                context.antiPassbackRelays, [&asked]() -> auto& { return asked; }, relay);
        }
    }
    context.antiPassbackDirections = config.antiPassbackRelayMap;
    AuthLogger::info("[AntiPassbackProcessor:%d] antiPassbackRelays count=%zu", __LINE__,
                     context.antiPassbackRelays.size());

    if (context.antiPassbackRelays.empty()) {
        AuthLogger::info("[AntiPassbackProcessor:%d] result=%s, no relay needs anti-passback",
                         __LINE__, AuthLogger::authResultToString(CONTINUE));
        return CONTINUE;
    }

    if (context.requestId.empty()) {
        // Without an id no answer can be routed back: ask once for all relays, expect no answer.
        const std::shared_ptr<UserData> user = context.userData;
        const bool sent =
            !provider.requestAntiPassback(context.request, *user, context, AuthCallback()).empty();
        context.response.reason =
            sent ? reasons::ANTI_PASSBACK_PENDING_UNROUTED : reasons::ANTI_PASSBACK_OFFLINE;
        const AuthResult result = sent ? ASYNC_PENDING : CONTINUE;
        AuthLogger::info("[AntiPassbackProcessor:%d] result=%s", __LINE__,
                         AuthLogger::authResultToString(result));
        return result;
    }

    sendPerRelay(context, provider, true);

    if (context.antiPassbackPending == 0) {
        // Every device is unreachable: the check cannot be made, so it is skipped in chain mode.
        context.response.reason = reasons::ANTI_PASSBACK_ALL_OFFLINE;
        AuthLogger::info("[AntiPassbackProcessor:%d] result=%s, all offline", __LINE__,
                         AuthLogger::authResultToString(CONTINUE));
        return CONTINUE;
    }
    context.response.reason = reasons::ANTI_PASSBACK_PENDING;
    AuthLogger::info("[AntiPassbackProcessor:%d] result=%s, pending=%d", __LINE__,
                     AuthLogger::authResultToString(ASYNC_PENDING), context.antiPassbackPending);
    return ASYNC_PENDING;
}

AuthResult AntiPassbackProcessor::processRelays(AuthContext& context, IDataProvider& provider,
                                                const std::vector<std::string>& relays) {
    return processRelays(context, provider, relays, provider.getAuthConfig());
}

AuthResult AntiPassbackProcessor::processRelays(AuthContext& context, IDataProvider& provider,
                                                const std::vector<std::string>& relays,
                                                const AuthConfig& config) {
    if (!config.antiPassbackEnabled || context.request.openType == OPEN_TYPE_REMOTE_CONTROL ||
        !isEligibleUser(context)) {
        return CONTINUE;
    }

    context.antiPassbackDirections = config.antiPassbackRelayMap;
    context.antiPassbackRelays = distinctInOrder(relays);

    if (context.requestId.empty()) {
        const std::shared_ptr<UserData> user = context.userData;
        // No answer can be routed: each relay's question carries the whole list, answer unseen.
        const std::vector<std::string> asked = context.antiPassbackRelays;
        for (std::size_t i = 0; i < asked.size(); ++i) {
            context.antiPassbackRelays = asked;
            provider.requestAntiPassback(context.request, *user, context, AuthCallback());
        }
        return CONTINUE;
    }

    sendPerRelay(context, provider, false);
    return context.antiPassbackPending != 0 ? ASYNC_PENDING : CONTINUE;
}

}  // namespace processors
}  // namespace auth_engine
