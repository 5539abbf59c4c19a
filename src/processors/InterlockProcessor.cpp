// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

#include "processors/InterlockProcessor.h"

#include <algorithm>

#include "common/ProcessorSupport.h"
#include "engine/AuthEngine.h"

namespace auth_engine {
namespace processors {

namespace {

constexpr const char* SUB_REQUEST_INFIX = "_il_";

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
    std::vector<std::string> asked;
    for (const std::string& relay : relays) {
        if (std::find(asked.begin(), asked.end(), relay) == asked.end()) {
            asked.push_back(relay);
        }
    }
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
    context.response.failCode = 21;
    context.response.failedRelays = asked;
    context.failedRelays = asked;
    context.response.reason = "Interlock request failed";
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
