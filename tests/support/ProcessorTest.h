// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// What the processor unit tests share: a fixture holding one processor with a scripted host, and
// builders for the contexts the chain hands to a processor.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "auth_engine/AuthLogger.h"
#include "auth_engine/AuthTypes.h"
#include "support/CallbackRecorder.h"
#include "support/FakeDataProvider.h"
#include "support/LogCapture.h"
#include "support/TestClock.h"

namespace auth_engine {
namespace testing {

using Relays = std::vector<std::string>;
using Targets = std::vector<AuthTarget>;

/// A user as the lookup would find it.
inline std::shared_ptr<UserData> person(const std::string& userId = "", int userType = 0,
                                        const std::string& scheduleRelay = "") {
    auto user = std::make_shared<UserData>();
    user->userId = userId;
    user->userType = userType;
    user->scheduleRelay = scheduleRelay;
    return user;
}

/// An attempt of `openType` on `relays` by `user` (none when null), as the chain hands it on.
inline AuthContext attempt(OpenDoorType openType, const Relays& relays = {},
                           std::shared_ptr<UserData> user = person(),
                           const std::string& requestId = "") {
    AuthContext context;
    context.request.openType = openType;
    context.relays = relays;
    context.userData = std::move(user);
    context.requestId = requestId;
    return context;
}

/// An attempt of `openType` presenting `credential`, before any user is known.
inline AuthContext presenting(OpenDoorType openType, const std::string& credential) {
    AuthContext context = attempt(openType, {}, nullptr);
    context.request.credential = credential;
    return context;
}

/// What a processor decided, in one line: "RETURNED failCode 'reason' [relays] [failedRelays]",
/// with the response's result added when it differs from what process() returned, as in
/// "IGNORED/FAILED 22 'User not yet valid' [1] [1]"; then, each only when not empty, the relays'
/// fail reasons " {1:InvalidUserTime}", holiday exemptions " exempt{1:0,2:1}" and the response's
/// failed relays " failed[1]".
inline std::string outcome(AuthResult returned, const AuthContext& context) {
    const AuthResponse& response = context.response;
    std::string text = AuthLogger::authResultToString(returned);
    text += response.result == returned
                ? ""
                : std::string("/") + AuthLogger::authResultToString(response.result);
    text += " " + std::to_string(response.failCode) + " '" + response.reason + "' [" +
            joinRelayVector(context.relays) + "] [" + joinRelayVector(context.failedRelays) + "]";
    std::string reasons;
    for (const auto& [relay, reason] : context.relayFailReasons) {
        reasons += (reasons.empty() ? " {" : ",") + relay + ":" + reason;
    }
    std::string exempt;
    for (const auto& [relay, exempted] : context.relayHolidayExemption) {
        exempt += (exempt.empty() ? " exempt{" : ",") + relay + (exempted ? ":1" : ":0");
    }
    text += reasons + (reasons.empty() ? "" : "}") + exempt + (exempt.empty() ? "" : "}");
    const Relays& failed = response.failedRelays;
    return text + (failed.empty() ? "" : " failed[" + joinRelayVector(failed) + "]");
}

/// Relay questions in one line: "pending relay:status" for each, then "a" when answered.
template <class Results>
std::string pendingOf(int pending, const Results& results) {
    std::string text = std::to_string(pending);
    for (const auto& [relay, result] : results) {
        text += " " + relay + ":" + std::to_string(result.status) + (result.answered ? "a" : "");
    }
    return text;
}

/// One processor under test, with a scripted host, a frozen clock (UTC) and the log captured.
/// Processors keep no per-request state, so one instance serves every case of a test.
template <class Processor, class Provider = FakeDataProvider>
class ProcessorTest : public ::testing::Test {
protected:
    AuthResult run(AuthContext& context) { return processor.process(context, provider); }
    AuthResult run(AuthContext&& context) { return run(context); }
    /// Runs `context` and gives its outcome().
    std::string decide(AuthContext& context) { return outcome(run(context), context); }
    std::string decide(AuthContext&& context) { return decide(context); }
    /// Runs a copy of `context`: its fail code, or -1 when the chain goes on.
    int failCodeOf(AuthContext context) {
        return run(context) == CONTINUE ? -1 : context.response.failCode;
    }

    TestClock clock;
    Provider provider;
    Processor processor;
    LogCapture log;
};

}  // namespace testing
}  // namespace auth_engine
