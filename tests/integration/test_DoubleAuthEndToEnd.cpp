// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

#include "processors/DoubleAuthProcessor.h"
#include "support/EngineHarness.h"

namespace auth_engine {
namespace testing {
namespace {

UserData person(const std::string& id) {
    UserData user;
    user.userId = id;
    user.scheduleRelay = "1-1,2";
    return user;
}

// Card then PIN on a site where the outside reader (1) serves relay 2 and the inside reader (0)
// relay 1, so the opened relay shows which reader the two factors were composed into.
class DoubleAuthEndToEnd : public FacadeTest {
protected:
    void SetUp() override {
        host->users["card-alice"] = host->users["pin-alice"] = person("alice");
        host->users["pin-bob"] = person("bob");
        host->schedules = {std::make_shared<ScheduleData>(
            ScheduleData{1, 1, "1", "all day", "00:00:00", "23:59:59", "", "", "", "", false})};
        AuthConfig& config = host->config;
        config.doubleAuthEnabled = true;
        config.doubleAuthMode = DOUBLE_AUTH_MODE_CARD_PIN;
        config.doubleAuthTimeoutSec = 30;
        config.virtualDoorEnabled = true;
        config.virtualDoorMode = 1;
        config.readerRelayMap[READER_TYPE_EXTERNAL_1][RELAY_DIRECTION_IN] = {"2"};
        config.readerRelayMap[READER_TYPE_INTERNAL][RELAY_DIRECTION_IN] = {"1"};
        ASSERT_EQ(facade.init(host), 0);
    }
    AuthResponse presentCard() {
        const AuthResponse held =
            facade.authenticate(makeRequest("card-alice", OPEN_TYPE_CARD, READER_TYPE_EXTERNAL_1));
        EXPECT_EQ(said(held) + " " + std::to_string(held.result) +
                      (held.doubleAuthWaiting ? " waiting" : ""),
                  "DOUBLE 0 '' [] [] 5 waiting");
        return held;
    }
    std::string pin(const std::string& credential) {
        return said(facade.authenticate(makeRequest(credential, OPEN_TYPE_PIN)));
    }
};

TEST_F(DoubleAuthEndToEnd, CardThenPinOpensTheFirstFactorsDoorsWithTheComposedReader) {
    EXPECT_EQ(presentCard().doubleAuthPendingId, "double-1");

    clock.advance(29);
    const AuthResponse opened = facade.authenticate(makeRequest("pin-alice", OPEN_TYPE_PIN));
    EXPECT_EQ(said(opened), "SUCCESS 0 '' [2] [] 0:2");
    EXPECT_EQ(
        std::to_string(opened.doubleAuthReaderType) + (opened.user ? opened.user->userId : ""),
        std::to_string(READER_TYPE_EXTERNAL_1) + "alice");
    EXPECT_EQ(facade.handleDoubleAuthTimeout("double-1").failCode, 42);
}

// The wait's timeout is the processor's own (unit tests); here what the facade hands through.
TEST_F(DoubleAuthEndToEnd, AnotherPersonsPinAndCancelEachEndTheWait) {
    presentCard();
    EXPECT_EQ(pin("pin-bob"), "FAILED 41 '' [] []");
    const std::string next = presentCard().doubleAuthPendingId;
    EXPECT_EQ(said(facade.cancelDoubleAuth(next, "walked away")), "FAILED 0 'walked away' [] []");
    EXPECT_EQ(pin("pin-alice"), "FAILED 40 '' [] []");
}

TEST_F(DoubleAuthEndToEnd, ControlNeedsTheDoubleAuthProcessorTheChainRuns) {
    const std::string unavailable = "FAILED 0 'DoubleAuth processor not available' [] []";
    auto expectUnavailable = [&](const char* when) {
        EXPECT_EQ(said(facade.handleDoubleAuthTimeout("double-1")) + " / " +
                      said(facade.cancelDoubleAuth("double-1", "x")),
                  unavailable + " / " + unavailable)
            << when;
    };
    presentCard();
    facade.setProcessorChain({"UserLookup", "TimeCheck"});
    expectUnavailable("chain without DoubleAuth");

    // A replacement that is registered but not linked does not hold the waits of the one that ran.
    facade.setProcessorChain({"UserLookup", "DoubleAuth", "TimeCheck"});
    facade.registerProcessor(std::make_shared<processors::DoubleAuthProcessor>());
    expectUnavailable("registered but not linked");

    facade.setProcessorChain({"UserLookup", "DoubleAuth", "TimeCheck"});
    EXPECT_EQ(facade.cancelDoubleAuth("double-1", "x").failCode, 42);

    // A processor that only borrows the double-authentication name.
    facade.registerProcessor(std::make_shared<ScriptedProcessor>(chain::DOUBLE_AUTH, nullptr));
    facade.setProcessorChain({"UserLookup", "DoubleAuth"});
    expectUnavailable("another class under the name");
}

}  // namespace
}  // namespace testing
}  // namespace auth_engine
