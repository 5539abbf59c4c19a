// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// Interlock verification of targets without a credential.
#include <gtest/gtest.h>

#include <memory>

#include "engine/AuthEngine.h"
#include "support/CallbackRecorder.h"
#include "support/FakeDataProvider.h"
#include "support/TestClock.h"

namespace auth_engine {
namespace {

using Relays = std::vector<std::string>;
using testing::FakeDataProvider;

class IndependentVerifyInterlock : public ::testing::Test {
protected:
    void SetUp() override {
        host->config.interlockEnabled = true;
        host->config.interlockRelayMap = {{"1", true}, {"2", true}, {"3", false}};
        host->config.interlockRetryLimit = 0;
        ASSERT_EQ(engine.init(host), 0);
    }
    std::string verify(const std::vector<AuthTarget>& targets) {
        return engine.verifyInterlockTargets(AuthRequest(), targets, recorder.callback());
    }

    testing::TestClock clock;
    testing::CallbackRecorder recorder;
    std::shared_ptr<FakeDataProvider> host = std::make_shared<FakeDataProvider>();
    AuthEngine engine;
};

TEST_F(IndependentVerifyInterlock, RefusesUnlessEveryTargetIsAnInterlockedRelay) {
    AuthEngine idle;
    EXPECT_EQ(idle.verifyInterlockTargets(AuthRequest(), {{0, "1"}}, recorder.callback()), "");
    EXPECT_EQ(verify({}), "");
    EXPECT_EQ(verify({{0, "1"}, {0, "3"}}), "");  // one relay not interlocked refuses all
    EXPECT_EQ(verify({{0, "1"}, {0, "4"}}), "");  // unknown relay
    EXPECT_EQ(verify({{2, "1"}}), "");            // not a relay target
    EXPECT_EQ(verify({{0, ""}}), "");
    {
        const auto lock = host->lock();
        host->config.interlockEnabled = false;
    }
    EXPECT_EQ(verify({{0, "1"}}), "");
    EXPECT_EQ(host->callCount("requestInterlock"), 0);
    EXPECT_EQ(engine.parkedPhaseCount(), 0u);
}

TEST_F(IndependentVerifyInterlock, RunsOnePhasePerRelayAndReportsUnderItsOwnId) {
    const std::string id = verify({{0, "1"}, {1, "1"}, {0, "2"}});
    ASSERT_EQ(id.rfind("req_", 0), 0u);
    AuthEngine::IndependentAsyncContext parked;
    ASSERT_TRUE(engine.peekParkedPhase(id + "_ind_interlock", parked));
    EXPECT_EQ(parked.notifyHost, 0);
    EXPECT_EQ(parked.context.relays, (Relays{"1", "2"}));
    ASSERT_EQ(parked.context.authTargets.size(), 2u);
    EXPECT_EQ(parked.context.authTargets[0].type, 0);

    ASSERT_TRUE(host->waitForQuestions(2));
    host->answer(0, SUCCESS);
    host->answer(1, FAILED);
    ASSERT_TRUE(recorder.waitFor(1));
    const auto call = recorder.at(0);
    EXPECT_EQ(call.requestId, id);
    EXPECT_EQ(call.context.requestId, id);
    EXPECT_EQ(call.response.openedRelays, (Relays{"1"}));
    EXPECT_EQ(call.response.failedRelays, (Relays{"2"}));
    // A question, not an opening: the host's result log is not told.
    EXPECT_EQ(host->reportCount(), 0u);

    // Unanswered until the timeout (no retries configured): failed, still under the same id.
    const std::string second = verify({{0, "2"}});
    clock.advance(5);
    engine.checkAllPendingTimeouts();
    ASSERT_TRUE(recorder.waitFor(2));
    EXPECT_EQ(recorder.at(1).requestId, second);
    EXPECT_EQ(recorder.at(1).response.result, FAILED);
    EXPECT_EQ(recorder.at(1).response.failCode, 21);
}

}  // namespace
}  // namespace auth_engine
