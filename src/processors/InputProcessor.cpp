// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// The input open: a wired input names the targets it opens; its data and targets are checked here.
#include "processors/InputProcessor.h"

#include <memory>
#include <vector>

#include "auth_engine/AuthLogger.h"
#include "auth_engine/FailCodes.h"
#include "common/ProcessorSupport.h"

namespace auth_engine {
namespace processors {

namespace {

// Inputs are wired to the two local relays only; anything else named by the host is refused rather
// than trusted.
bool isValidInputTarget(const AuthTarget& target) {
    return target.type == 0 && (target.relay == "1" || target.relay == "2");
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
        failRequest(context, fail::NONE, reasons::INPUT_DATA_INVALID);
        AuthLogger::info("[InputProcessor:%d] missing input data, result=%s", __LINE__,
                         AuthLogger::authResultToString(FAILED));
        return FAILED;
    }

    const std::vector<AuthTarget> targets =
        inputData->targets.empty() ? context.request.targets : inputData->targets;
    const char* const refusal = targetListRefusal(targets, isValidInputTarget);
    if (refusal != nullptr) {
        failRequest(context, fail::INVALID_TARGET, reasons::INPUT_TARGET_INVALID);
        AuthLogger::info("[InputProcessor:%d] %s, result=%s", __LINE__, refusal,
                         AuthLogger::authResultToString(FAILED));
        return FAILED;
    }

    // Every accepted target is a local relay; no person stands behind an input.
    context.inputRequestData = std::make_shared<InputRequestData>(*inputData);
    adoptCommandTargets(context, targets);

    AuthLogger::info("[InputProcessor:%d] targets=%d, result=%s", __LINE__,
                     static_cast<int>(context.authTargets.size()),
                     AuthLogger::authResultToString(CONTINUE));
    return CONTINUE;
}

}  // namespace processors
}  // namespace auth_engine
