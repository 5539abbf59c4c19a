// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// The HTTP open: HTTP opening must be on, the request's credentials must match, and its targets
// must be ones it may open.
#include "processors/HttpProcessor.h"

#include <algorithm>
#include <cstddef>
#include <memory>
#include <vector>

#include "auth_engine/AuthLogger.h"
#include "auth_engine/FailCodes.h"
#include "common/ProcessorSupport.h"

namespace auth_engine {
namespace processors {

namespace {

// Only these relays may be opened over HTTP; the names are compared literally on purpose.
bool isValidHttpTarget(const AuthTarget& target) {
    if (target.relay.empty()) {
        return false;
    }
    switch (target.type) {
        case 0:
            return target.relay == "1" || target.relay == "2";
        case 1:
            return target.relay == "SA" || target.relay == "SB";
        case 2:
            return true;
        default:
            return false;
    }
}

// Compares every byte of the longer text whatever the contents, so the time taken does not tell a
// caller how many leading characters of a guess were right.
bool equalsConstantTime(const std::string& presented, const std::string& expected) {
    const std::size_t length = std::max(presented.size(), expected.size());
    unsigned int difference = presented.size() == expected.size() ? 0U : 1U;
    for (std::size_t i = 0; i < length; ++i) {
        const unsigned char a =
            i < presented.size() ? static_cast<unsigned char>(presented[i]) : 0U;
        const unsigned char b = i < expected.size() ? static_cast<unsigned char>(expected[i]) : 0U;
        difference |= static_cast<unsigned int>(a ^ b);
    }
    return difference == 0U;
}

bool credentialsAccepted(const HttpRequestData& data, const HttpOpenConfig& config) {
    switch (data.authMode) {
        case 0: {
            // Both comparisons always run: no early exit on a wrong user name.
            const bool userOk = equalsConstantTime(data.username, config.username);
            const bool passwordOk = equalsConstantTime(data.password, config.password);
            return userOk && passwordOk;
        }
        case 1:
            return data.preAuthenticated != 0;
        default:
            return false;
    }
}

}  // namespace

AuthResult HttpProcessor::process(AuthContext& context, IDataProvider& provider) {
    const int openType = context.request.openType;
    if (openType != OPEN_TYPE_HTTP && openType != OPEN_TYPE_HTTP_20) {
        AuthLogger::info("[HttpProcessor:%d] non-HTTP, result=%s", __LINE__,
                         AuthLogger::authResultToString(CONTINUE));
        return CONTINUE;
    }
    const std::shared_ptr<HttpRequestData> httpData = context.request.httpData;
    if (!httpData) {
        failRequest(context, fail::NONE, reasons::HTTP_DATA_INVALID);
        AuthLogger::info("[HttpProcessor:%d] missing http data, result=%s", __LINE__,
                         AuthLogger::authResultToString(FAILED));
        return FAILED;
    }

    const std::vector<AuthTarget> targets =
        httpData->targets.empty() ? context.request.targets : httpData->targets;
    const char* const refusal = targetListRefusal(targets, isValidHttpTarget);
    if (refusal != nullptr) {
        failRequest(context, fail::INVALID_TARGET, reasons::HTTP_TARGET_INVALID);
        AuthLogger::info("[HttpProcessor:%d] %s, result=%s", __LINE__, refusal,
                         AuthLogger::authResultToString(FAILED));
        return FAILED;
    }

    // Commands from other sources were authorised where they came from.
    if (httpData->source == 0) {
        HttpOpenConfig config;
        if (!provider.getHttpOpenConfig(config) || !config.enabled) {
            failRequest(context, fail::HTTP_DISABLED, reasons::HTTP_DISABLED);
            AuthLogger::info("[HttpProcessor:%d] disabled, result=%s", __LINE__,
                             AuthLogger::authResultToString(FAILED));
            return FAILED;
        }
        if (!credentialsAccepted(*httpData, config)) {
            failRequest(context, fail::HTTP_AUTHENTICATION, reasons::HTTP_AUTHENTICATION_FAILED);
            AuthLogger::info("[HttpProcessor:%d] auth failed, result=%s", __LINE__,
                             AuthLogger::authResultToString(FAILED));
            return FAILED;
        }
    }

    context.httpRequestData = std::make_shared<HttpRequestData>(*httpData);
    adoptCommandTargets(context, targets);

    AuthLogger::info("[HttpProcessor:%d] source=%d, targets=%d, result=%s", __LINE__,
                     httpData->source, static_cast<int>(targets.size()),
                     AuthLogger::authResultToString(CONTINUE));
    return CONTINUE;
}

}  // namespace processors
}  // namespace auth_engine
