#include "processors/InputProcessor.h"

#include <algorithm>
#include <memory>
#include <vector>

#include "auth_engine/AuthLogger.h"

namespace auth_engine {
namespace processors {

namespace {

// Inputs are wired to the two local relays only; anything else named by the host is refused rather
// than trusted.
bool isValidInputTarget(const AuthTarget& target) {
    return target.type == 0 && (target.relay == "1" || target.relay == "2");
}

void fail(AuthContext& context, int failCode, const char* reason) {
    context.response.result = FAILED;
    context.response.failCode = failCode;
    context.response.reason = reason;
}

}  // namespace

AuthResult InputProcessor::process(AuthContext& context, IDataProvider& /*provider*/) {
    if (context.request.openType != OPEN_TYPE_INPUT) {
        AuthLogger::info("[InputProcessor:%d] non-Input, result=%s", __LINE__,
                         AuthLogger::authResultToString(CONTINUE));
        return CONTINUE;
    }
    const std::shared_ptr<InputRequestData> inputData = context.request.inputData;
    if (!inputData) {
        fail(context, 0, "Invalid Input data");
        AuthLogger::info("[InputProcessor:%d] missing input data, result=%s", __LINE__,
                         AuthLogger::authResultToString(FAILED));
        return FAILED;
    }

    const std::vector<AuthTarget> targets =
        inputData->targets.empty() ? context.request.targets : inputData->targets;
    if (targets.empty()) {
        fail(context, 32, "Invalid Input target");
        AuthLogger::info("[InputProcessor:%d] empty target list, result=%s", __LINE__,
                         AuthLogger::authResultToString(FAILED));
        return FAILED;
    }
    for (const AuthTarget& target : targets) {
        if (!isValidInputTarget(target)) {
            fail(context, 32, "Invalid Input target");
            AuthLogger::info("[InputProcessor:%d] invalid target, result=%s", __LINE__,
                             AuthLogger::authResultToString(FAILED));
            return FAILED;
        }
    }

    context.inputRequestData = std::make_shared<InputRequestData>(*inputData);
    for (const AuthTarget& target : targets) {
        if (target.type == 0 && std::find(context.relays.begin(), context.relays.end(),
                                          target.relay) == context.relays.end()) {
            context.relays.push_back(target.relay);
        }
    }
    context.authTargets = targets;

    // No person stands behind an input: nothing user-based applies.
    context.skipUserLookup = true;
    context.skipVirtualDoor = true;
    context.skipUnlockType = true;
    context.skipTimeCheck = true;
    context.skipHolidayCheck = true;
    context.virtualDoorExempt = true;

    AuthLogger::info("[InputProcessor:%d] targets=%d, result=%s", __LINE__,
                     static_cast<int>(context.authTargets.size()),
                     AuthLogger::authResultToString(CONTINUE));
    return CONTINUE;
}

}  // namespace processors
}  // namespace auth_engine
