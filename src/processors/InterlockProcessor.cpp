// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

#include "processors/InterlockProcessor.h"

#include <algorithm>

#include "common/Distinct.h"
#include "common/ProcessorSupport.h"
#include "engine/AuthEngine.h"

namespace auth_engine {
namespace processors {

namespace {

constexpr const char* SUB_REQUEST_INFIX = "_il_";
constexpr int INTERLOCK_FAIL_CODE = 21;

void registerRelay(AuthEngine* engine, const std::string& requestId, const std::string& relay) {
    if (engine != nullptr && !requestId.empty()) {
        engine->registerSubRequest(requestId + SUB_REQUEST_INFIX + relay, requestId);
    }
}

// Asks about one relay. A question that cannot be sent decides the relay at once: an interlock
// that cannot be verified must not open.
void askRelay(AuthContext& context, IDataProvider& provider, AuthEngine* engine,
              const std::string& requestId, const std::string& relay, const std::string& failName) {
    const AuthRequest request = context.request;
    const std::string handle = provider.requestInterlock(
        request, relay, context, answerCallbackFor(engine, requestId + SUB_REQUEST_INFIX + relay));
    if (!handle.empty()) {
        return;
    }
    InterlockSubResult& result = context.interlockResults[relay];
    result.relay = relay;
    result.status = FAILED;
    result.answered = true;
    --context.interlockPending;
    context.relayFailReasons[relay] = failName;
}

}  // namespace

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
        registerRelay(engine, requestId, relay);
    }
    for (const std::string& relay : asked) {
        askRelay(context, provider, engine, requestId, relay, getName());
    }

    if (context.interlockPending != 0) {
        context.response.reason = "Interlock verification pending";
        return ASYNC_PENDING;
    }
    context.response.result = FAILED;
    context.response.failCode = INTERLOCK_FAIL_CODE;
    context.response.failedRelays = asked;
    context.failedRelays = asked;
    context.response.reason = "Interlock request failed";
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
    refuseRelays(context, failed, chain::INTERLOCK, INTERLOCK_FAIL_CODE);
    if (!context.relays.empty()) {
        return CONTINUE;
    }
    failRequest(context, INTERLOCK_FAIL_CODE, "Interlock failed for all relays");
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
        registerRelay(engine, requestId, relay);
        askRelay(context, provider, engine, requestId, relay, getName());
    }
    return context.interlockPending < 1 ? FAILED : ASYNC_PENDING;
}

}  // namespace processors
}  // namespace auth_engine
