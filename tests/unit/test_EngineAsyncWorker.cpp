// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// The worker thread, its queues, the timeouts of parked chains and the reset.
#include <thread>

#include "support/EngineHarness.h"

namespace auth_engine {
namespace testing {
namespace {

// The credential picks the behaviour: "block" holds the worker until the latch opens, "hold" until
// the engine is reset, "park" waits for a host answer once (onAsk runs first); anything else is
// ignored (called back at once, no post-sync).
class EngineAsyncWorker : public EngineTest {
protected:
    void SetUp() override {
        EngineTest::SetUp();
        wire();
    }
    void wire() {
        use("Probe", [this](AuthContext& context) {
            const std::string& credential = context.request.credential;
            if (credential == "block") {
                latch.pass();
            } else if (credential == "hold") {
                latch.passWhile([this] { return engine.isReady(); });
            } else if (credential == "park") {
                if (context.pendingProcessor.empty() && onAsk) {
                    onAsk(context);
                }
                return askOnce(context);
            }
            return IGNORED;
        });
    }
    void TearDown() override {
        latch.open();
        EngineTest::TearDown();
    }
    std::string submitAs(const std::string& credential) { return submit(makeRequest(credential)); }
    AuthResult park(const std::string& id, OpenDoorType openType = OPEN_TYPE_NONE) {
        return run(id, makeRequest("park", openType)).result;
    }

    Latch latch;
    std::function<void(AuthContext&)> onAsk;
};

TEST_F(EngineAsyncWorker, ResumesGoBeforeNewSubmissions) {
    const std::string parked = submitAs("park");
    ASSERT_TRUE(idle());
    ASSERT_EQ(engine.parkedChainCount(), 1u);
    const std::string blocker = submitAs("block");
    latch.waitEntered();
    const std::string later = submitAs("n");
    engine.handleAsyncResponse(parked, SUCCESS, responseOf(SUCCESS), AuthContext());
    latch.open();
    ASSERT_TRUE(recorder.waitFor(3));
    EXPECT_EQ(calledIds(), (Relays{blocker, parked, later}));
    EXPECT_EQ(recorder.at(1).response.result, SUCCESS);
}

TEST_F(EngineAsyncWorker, SubmissionsBeforeInitAndAfterResetAreRefused) {
    AuthEngine idleEngine;
    EXPECT_EQ(idleEngine.authenticateAsync(AuthRequest(), recorder.callback()), "");
    EXPECT_TRUE(idleEngine.waitForIdle(0));  // no worker: idle at once
    engine.reset();
    EXPECT_EQ(submitAs("n"), "");
    EXPECT_EQ(recorder.count(), 0u);
}

TEST_F(EngineAsyncWorker, TimeoutSweepRunsWithoutTraffic) {
    const std::string parked = submitAs("park");
    ASSERT_TRUE(idle());
    ASSERT_EQ(engine.parkedChainCount(), 1u);
    clock.advance(31);
    ASSERT_TRUE(recorder.waitFor(1));  // the worker's one-second wake-up finds it
    EXPECT_EQ(recorder.at(0).requestId, parked);
    EXPECT_EQ(recorder.at(0).response.reason, "Async request timeout");
}

TEST_F(EngineAsyncWorker, ParkedChainsTimeOutStrictlyAfterTheirLimit) {
    onAsk = [&](AuthContext& context) {
        context.antiPassbackResults["1"].relay = "1";
        context.antiPassbackPending = 1;
        context.response.openedRelays = {"1"};
        engine.registerSubRequest(context.requestId + "_ap_1", context.requestId);
    };
    ASSERT_EQ(park("plain"), ASYNC_PENDING);
    ASSERT_EQ(park("key", OPEN_TYPE_TEMP_KEY), ASYNC_PENDING);  // waits tempKeyTimeout (3 s)
    const auto sweepAfter = [&](int64_t seconds) {
        clock.advance(seconds);
        engine.checkTimeoutRequests();
    };
    sweepAfter(3);
    EXPECT_EQ(engine.parkedChainCount(), 2u);
    sweepAfter(1);
    ASSERT_EQ(recorder.count(), 1u);
    EXPECT_EQ(recorder.at(0).requestId, "key");
    EXPECT_EQ(recorder.at(0).response.failCode, 24);

    sweepAfter(26);  // exactly 30 s
    EXPECT_EQ(engine.parkedChainCount(), 1u);
    sweepAfter(1);
    ASSERT_EQ(recorder.count(), 2u);
    const auto timedOut = recorder.at(1);
    EXPECT_EQ(timedOut.requestId, "plain");
    expectFailed(timedOut.response, 0, "Async request timeout");
    EXPECT_TRUE(timedOut.context.antiPassbackResults.at("1").answered);
    EXPECT_EQ(timedOut.context.antiPassbackResults.at("1").status, FAILED);
    EXPECT_EQ(host->reportCount(), 2u);
    expectNothingParked(engine);
}

TEST_F(EngineAsyncWorker, SweepSkipsARequestWhileItsChainRuns) {
    onAsk = [&](AuthContext&) {
        clock.advance(100);
        engine.checkTimeoutRequests();
    };
    ASSERT_EQ(park("r1"), ASYNC_PENDING);
    EXPECT_EQ(engine.parkedChainCount(), 1u);  // parked afresh, not failed
    EXPECT_EQ(recorder.count(), 0u);
}

TEST_F(EngineAsyncWorker, ResetFailsQueuedWorkDropsParkedChainsAndLateAnswers) {
    const std::string parked = submitAs("park");
    ASSERT_TRUE(idle());
    ASSERT_EQ(engine.parkedChainCount(), 1u);
    const AuthCallback lateAnswer = engine.makeAnswerCallback(parked);
    const std::string blocker = submitAs("hold");
    latch.waitEntered();
    const Relays queued = {submitAs("n"), submitAs("n")};
    std::thread([&] { engine.reset(); }).join();

    ASSERT_EQ(recorder.count(), 3u);  // the parked chain vanishes silently
    EXPECT_EQ(recorder.at(0).requestId, blocker);
    for (std::size_t i : {1u, 2u}) {
        const auto call = recorder.at(i);
        EXPECT_EQ(call.requestId, queued[i - 1]);
        expectFailed(call.response, 0, "Engine shutdown");
        EXPECT_TRUE(call.context.requestId.empty());
    }
    EXPECT_EQ(engine.parkedChainCount(), 0u);
    lateAnswer("", responseOf(SUCCESS), AuthContext());
    EXPECT_EQ(submitAs("n"), "");

    // A new run never reissues the old id; parked under it all the same (a caller's own id), it
    // is still out of reach of the callback handed out before the reset.
    ASSERT_TRUE(start());
    wire();
    EXPECT_NE(submitAs("n"), parked);
    ASSERT_EQ(park(parked), ASYNC_PENDING);
    ASSERT_TRUE(idle());
    lateAnswer("", responseOf(SUCCESS), AuthContext());
    ASSERT_TRUE(idle());
    EXPECT_EQ(engine.parkedChainCount(), 1u);
    engine.makeAnswerCallback(parked)("", responseOf(SUCCESS), AuthContext());
    ASSERT_TRUE(recorder.waitFor(5));
    EXPECT_EQ(recorder.at(4).requestId, parked);
    EXPECT_EQ(recorder.at(4).response.result, SUCCESS);
}

}  // namespace
}  // namespace testing
}  // namespace auth_engine
