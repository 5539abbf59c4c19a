// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// The interlock check: each interlocked relay asks its peer whether the other door is closed; only
// a plain SUCCESS opens.
#include "processors/InterlockProcessor.h"

#include <algorithm>

#include "auth_engine/FailCodes.h"
#include "common/Distinct.h"
#include "common/ProcessorSupport.h"

namespace auth_engine {
namespace processors {

// Asks about one relay. A question that cannot be sent decides the relay at once: an interlock
// that cannot be verified must not open.
void InterlockProcessor::askRelay(AuthContext& context, IDataProvider& provider,
                                  const std::string& requestId, const std::string& relay) const {
    const AuthRequest request = context.request;
    const std::string handle = provider.requestInterlock(
        request, relay, context, answerTo(interlockQuestionId(requestId, relay)));
    if (!handle.empty()) {
        return;
    }
    InterlockSubResult& result = context.interlockResults[relay];
    result.relay = relay;
    result.status = FAILED;
    result.answered = true;
    --context.interlockPending;
    context.relayFailReasons[relay] = getName();
}

AuthResult InterlockProcessor::process(AuthContext& context, IDataProvider& provider) {
    if (context.pendingProcessor == getName()) {
        return decideAnswers(context);
    }
    const AuthConfig config = provider.getAuthConfig();
    if (!config.interlockEnabled) {
        return CONTINUE;
    }
    std::vector<std::string> relays;
    for (const std::string& relay : context.relays) {
        const auto found = config.interlockRelayMap.find(relay);
        if (found != config.interlockRelayMap.end() && found->second) {
            relays.push_back(relay);
        }
    }
    if (relays.empty()) {
        return CONTINUE;
    }
    return processRelays(context, provider, relays);
}

AuthResult InterlockProcessor::processRelays(AuthContext& context, IDataProvider& provider,
                                             const std::vector<std::string>& relays) {
    // A relay listed twice is still one question with one answer; counting it twice would leave
    // the pending count above zero forever.
    const std::vector<std::string> asked = distinctInOrder(relays);
    if (asked.empty()) {
        return CONTINUE;
    }

    const std::string requestId = context.requestId;
    context.interlockCheckRelays = asked;
    context.interlockRequestedRelays = asked;
    context.interlockResults.clear();
    context.interlockPending = static_cast<int>(asked.size());

    // Every sub-request is known to the engine before the first question: the host may answer
    // from inside the call.
    for (const std::string& relay : asked) {
        InterlockSubResult result;
        result.relay = relay;
        context.interlockResults[relay] = result;
        registerQuestion(interlockQuestionId(requestId, relay), requestId);
    }
    for (const std::string& relay : asked) {
        askRelay(context, provider, requestId, relay);
    }

    if (context.interlockPending != 0) {
        context.response.reason = reasons::INTERLOCK_PENDING;
        return ASYNC_PENDING;
    }
    context.response.result = FAILED;
    context.response.failCode = fail::INTERLOCK;
    context.response.failedRelays = asked;
    context.failedRelays = asked;
    context.response.reason = reasons::INTERLOCK_UNREACHABLE;
    return FAILED;
}

AuthResult InterlockProcessor::decideAnswers(AuthContext& context) const {
    // Only a plain SUCCESS opens an interlocked relay; an unanswered one stays shut.
    std::vector<std::string> failed;
    for (const auto& entry : context.interlockResults) {
        if (!entry.second.answered || entry.second.status != SUCCESS) {
            failed.push_back(entry.first);
        }
    }
    context.response.reason.clear();
    if (failed.empty()) {
        return CONTINUE;
    }
    refuseRelays(context, failed, chain::INTERLOCK, fail::INTERLOCK);
    if (!context.relays.empty()) {
        return CONTINUE;
    }
    failRequest(context, fail::INTERLOCK, reasons::INTERLOCK_FAILED);
    return FAILED;
}

AuthResult InterlockProcessor::retryPendingRelays(AuthContext& context, IDataProvider& provider,
                                                  const std::vector<std::string>& relays) {
    const std::string requestId = context.requestId;
    for (const std::string& relay : relays) {
        const auto found = context.interlockResults.find(relay);
        if (found == context.interlockResults.end() || found->second.answered) {
            continue;
        }
        registerQuestion(interlockQuestionId(requestId, relay), requestId);
        askRelay(context, provider, requestId, relay);
    }
    return context.interlockPending < 1 ? FAILED : ASYNC_PENDING;
}

}  // namespace processors
}  // namespace auth_engine
