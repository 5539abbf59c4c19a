#include "processors/LockDownProcessor.h"

#include <algorithm>
#include <vector>

#include "auth_engine/AuthLogger.h"

namespace auth_engine {
namespace processors {

AuthResult LockDownProcessor::process(AuthContext& context, IDataProvider& provider) {
    if (context.relays.empty()) {
        AuthLogger::info("[LockDownProcessor:%d] result=%s", __LINE__,
                         AuthLogger::authResultToString(CONTINUE));
        return CONTINUE;
    }
    // A request without a user has no bypass and is filtered like any other.
    if (context.userData && context.userData->lockdownBypass >= 1) {
        AuthLogger::info("[LockDownProcessor:%d] result=%s (bypass)", __LINE__,
                         AuthLogger::authResultToString(CONTINUE));
        return CONTINUE;
    }

    const std::vector<std::string> locked = provider.getLockedDownRelays(context.relays);
    if (locked.empty()) {
        AuthLogger::info("[LockDownProcessor:%d] result=%s", __LINE__,
                         AuthLogger::authResultToString(CONTINUE));
        return CONTINUE;
    }

    std::vector<std::string> remaining;
    for (const std::string& relay : context.relays) {
        if (std::find(locked.begin(), locked.end(), relay) != locked.end()) {
            context.failedRelays.push_back(relay);
            context.relayFailReasons[relay] = "LockDown";
        } else {
            remaining.push_back(relay);
        }
    }
    context.relays = remaining;
    // The host sees which relays were locked even when the request still opens the others.
    context.response.failedRelays = locked;
    context.response.failCode = 6;

    if (!context.relays.empty()) {
        AuthLogger::info("[LockDownProcessor:%d] partial pass, locked=%s, remaining=%s", __LINE__,
                         joinRelayVector(locked).c_str(), joinRelayVector(context.relays).c_str());
        AuthLogger::info("[LockDownProcessor:%d] result=%s", __LINE__,
                         AuthLogger::authResultToString(CONTINUE));
        return CONTINUE;
    }
    context.response.result = FAILED;
    context.response.reason = "All relays are in lockdown";
    AuthLogger::info("[LockDownProcessor:%d] result=%s, all locked", __LINE__,
                     AuthLogger::authResultToString(FAILED));
    return FAILED;
}

}  // namespace processors
}  // namespace auth_engine
