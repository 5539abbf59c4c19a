// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// Host control of a waiting first factor: time it out or cancel it. The engine only finds the
// double-authentication processor that the chain actually runs and hands the call to it.
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>

#include "auth_engine/AuthLogger.h"
#include "auth_engine/FailCodes.h"
#include "common/ProcessorSupport.h"
#include "engine/AuthEngine.h"
#include "processors/DoubleAuthProcessor.h"

namespace auth_engine {

namespace {

// The registered "DoubleAuth" processor, provided it is the very object the chain reaches from its
// head: pending first factors live in the instance that ran, so a registered replacement that is
// not linked (or a chain without it) must not answer for them. Null otherwise.
std::shared_ptr<processors::DoubleAuthProcessor> reachableDoubleAuth(
    const std::map<std::string, std::shared_ptr<IAuthProcessor>>& registry,
    const std::shared_ptr<IAuthProcessor>& head) {
    const auto entry = registry.find(chain::DOUBLE_AUTH);
    if (entry == registry.end() || !entry->second) {
        return nullptr;
    }
    auto doubleAuth = std::dynamic_pointer_cast<processors::DoubleAuthProcessor>(entry->second);
    if (!doubleAuth) {
        return nullptr;
    }
    std::set<const IAuthProcessor*> visited;
    for (std::shared_ptr<IAuthProcessor> node = head; node && visited.insert(node.get()).second;
         node = node->getNext()) {
        if (node.get() == doubleAuth.get()) {
            return doubleAuth;
        }
    }
    return nullptr;
}

// The processor that the host control call `operation` acts on. Null when the call is refused,
// with `refusal` set to the response that answers it. `dataProvider`, `registry` and `head` are
// read under `chainMutex`.
std::shared_ptr<processors::DoubleAuthProcessor> controlledDoubleAuth(
    bool ready, std::mutex& chainMutex, const std::shared_ptr<IDataProvider>& dataProvider,
    const std::map<std::string, std::shared_ptr<IAuthProcessor>>& registry,
    const std::shared_ptr<IAuthProcessor>& head, const char* operation, AuthResponse& refusal) {
    if (!ready) {
        refusal = failedResponse(reasons::ENGINE_NOT_INITIALIZED);
        return nullptr;
    }
    std::shared_ptr<processors::DoubleAuthProcessor> doubleAuth;
    {
        std::lock_guard<std::mutex> lock(chainMutex);
        if (!dataProvider) {
            refusal = failedResponse(reasons::ENGINE_NOT_INITIALIZED);
            return nullptr;
        }
        doubleAuth = reachableDoubleAuth(registry, head);
    }
    if (!doubleAuth) {
        AuthLogger::error("[AuthEngine:%d] %s: DoubleAuth processor not available", __LINE__,
                          operation);
        refusal = failedResponse("DoubleAuth processor not available");
    }
    return doubleAuth;
}

}  // namespace

AuthResponse AuthEngine::handleDoubleAuthTimeout(const std::string& pendingId) {
    AuthResponse refusal;
    const auto doubleAuth = controlledDoubleAuth(isReady(), chainMutex, dataProvider, processors,
                                                 chainHead, "handleDoubleAuthTimeout", refusal);
    return doubleAuth ? doubleAuth->handleTimeout(pendingId) : refusal;
}

AuthResponse AuthEngine::cancelDoubleAuth(const std::string& pendingId,
                                          const std::string& reasonText) {
    AuthResponse refusal;
    const auto doubleAuth = controlledDoubleAuth(isReady(), chainMutex, dataProvider, processors,
                                                 chainHead, "cancelDoubleAuth", refusal);
    return doubleAuth ? doubleAuth->cancel(pendingId, reasonText) : refusal;
}

}  // namespace auth_engine
