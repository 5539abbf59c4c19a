// Host control of a waiting first factor: time it out or cancel it. The engine only finds the
// double-authentication processor that the chain actually runs and hands the call to it.
#include <memory>
#include <set>

#include "auth_engine/AuthLogger.h"
#include "engine/AuthEngine.h"
#include "processors/DoubleAuthProcessor.h"

namespace auth_engine {

namespace {

AuthResponse failedResponse(const char* reason) {
    AuthResponse response;
    response.result = FAILED;
    response.failCode = 0;
    response.reason = reason;
    return response;
}

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

}  // namespace

AuthResponse AuthEngine::handleDoubleAuthTimeout(const std::string& pendingId) {
    std::shared_ptr<processors::DoubleAuthProcessor> doubleAuth;
    if (!isReady()) {
        return failedResponse("Engine not initialized");
    }
    {
        std::lock_guard<std::mutex> lock(chainMutex);
        if (!dataProvider) {
            return failedResponse("Engine not initialized");
        }
        doubleAuth = reachableDoubleAuth(processors, chainHead);
    }
    if (!doubleAuth) {
        AuthLogger::error(
            "[AuthEngine:%d] handleDoubleAuthTimeout: DoubleAuth processor not available",
            __LINE__);
        return failedResponse("DoubleAuth processor not available");
    }
    return doubleAuth->handleTimeout(pendingId);
}

AuthResponse AuthEngine::cancelDoubleAuth(const std::string& pendingId,
                                          const std::string& reasonText) {
    std::shared_ptr<processors::DoubleAuthProcessor> doubleAuth;
    if (!isReady()) {
        return failedResponse("Engine not initialized");
    }
    {
        std::lock_guard<std::mutex> lock(chainMutex);
        if (!dataProvider) {
            return failedResponse("Engine not initialized");
        }
        doubleAuth = reachableDoubleAuth(processors, chainHead);
    }
    if (!doubleAuth) {
        AuthLogger::error("[AuthEngine:%d] cancelDoubleAuth: DoubleAuth processor not available",
                          __LINE__);
        return failedResponse("DoubleAuth processor not available");
    }
    return doubleAuth->cancel(pendingId, reasonText);
}

}  // namespace auth_engine
