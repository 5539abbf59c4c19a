// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// The worker thread, its queues, the timeouts of parked chains and the reset; host answers to
// parked chains: how they are merged, routed, held for a park under construction and resumed.
#include <thread>

#include "auth_engine/AuthLogger.h"
#include "support/EngineHarness.h"
#include "support/ProcessorTest.h"

namespace auth_engine {
namespace testing {
namespace {

// The credential picks the behaviour: "block" holds the worker until the latch opens, "hold" until
// the engine is reset, "n" is ignored (called back at once, no post-sync). Anything else asks the
// host on its first pass (onAsk runs, then ASYNC_PENDING), "late" after waiting for the latch,
// "inside" after resetting the engine from another thread; resumed, it decides from the context
// (by default: what the host answered).
class EngineAsyncWorker : public EngineTest {
protected:
    void SetUp() override {
        EngineTest::SetUp();
        asker = useAsker("Asker");
    }
    void TearDown() override {
        latch.open();
        EngineTest::TearDown();
    }
    std::shared_ptr<ScriptedProcessor> useAsker(const std::string& name) {
        return use(name, [this](AuthContext& context) {
            const std::string& credential = context.request.credential;
            if (credential == "block" || credential == "late") {
                latch.pass();
            } else if (credential == "hold") {
                latch.passWhile([this] { return engine.isReady(); });
            } else if (credential == "inside") {
                std::thread([this] { engine.reset(); }).join();
            }
            if (credential == "n" || credential == "block" || credential == "hold") {
                return IGNORED;
            }
            if (context.pendingProcessor.empty()) {
                if (onAsk) {
                    onAsk(context);
                }
                return ASYNC_PENDING;
            }
            return decide ? decide(context) : context.response.result;
        });
    }
    std::string submitAs(const std::string& credential) { return submit(makeRequest(credential)); }
    AuthResult park(const std::string& id, OpenDoorType openType = OPEN_TYPE_NONE) {
        return run(id, makeRequest("", openType)).result;
    }

    Latch latch;
    std::function<void(AuthContext&)> onAsk;
    std::function<AuthResult(const AuthContext&)> decide;
    std::shared_ptr<ScriptedProcessor> asker;
};

TEST_F(EngineAsyncWorker, ResumesGoBeforeNewSubmissions) {
    const std::string parked = submitAs("");
    ASSERT_TRUE(idle() && engine.parkedChainCount() == 1u);
    const std::string blocker = submitAs("block");
    latch.waitEntered();
    const std::string later = submitAs("n");
    engine.handleAsyncResponse(parked, SUCCESS, responseOf(SUCCESS), AuthContext());
    latch.open();
    ASSERT_TRUE(recorder.waitFor(3));
    EXPECT_EQ(calledIds(), (Relays{blocker, parked, later}));
    EXPECT_EQ(recorder.at(1).response.result, SUCCESS);
}

// The limits themselves (30 s, a temporary key's 3 s) are pinned by the scale and 2038 tests.
TEST_F(EngineAsyncWorker, TimedOutChainFailsItsOpenAntiPassbackQuestionsAndLeavesNothing) {
    onAsk = [&](AuthContext& context) {
        context.antiPassbackResults["1"].relay = "1";
        context.antiPassbackPending = 1;
        context.response.openedRelays = {"1"};
        engine.registerSubRequest(context.requestId + "_ap_1", context.requestId);
    };
    ASSERT_EQ(park("plain"), ASYNC_PENDING);
    clock.advance(31);
    engine.checkTimeoutRequests();
    const auto timedOut = recorder.at(0);
    expectFailed(timedOut.response, 0, "Async request timeout");
    EXPECT_EQ(pendingOf(0, timedOut.context.antiPassbackResults), "0 1:1a");
    EXPECT_EQ(host->reportCount(), 1u);
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
    const std::string parked = submitAs("");
    ASSERT_TRUE(idle() && engine.parkedChainCount() == 1u);
    const AuthCallback lateAnswer = engine.makeAnswerCallback(parked);
    const std::string blocker = submitAs("hold");
    latch.waitEntered();
    const Relays queued = {submitAs("n"), submitAs("n")};
    std::thread([&] { engine.reset(); }).join();

    EXPECT_EQ(calledIds(), (Relays{blocker, queued[0], queued[1]}));  // the parked chain vanishes
    EXPECT_EQ(said(recorder.at(1)) + "|" + said(recorder.at(2)),
              queued[0] + " FAILED 0 'Engine shutdown' [] []  context |" + queued[1] +
                  " FAILED 0 'Engine shutdown' [] []  context ");
    EXPECT_EQ(engine.parkedChainCount(), 0u);
    lateAnswer("", responseOf(SUCCESS), AuthContext());
    EXPECT_EQ(submitAs("n"), "");
    AuthEngine idleEngine;  // never initialised: refuses too, and has no worker to wait for
    EXPECT_EQ(idleEngine.authenticateAsync(AuthRequest(), recorder.callback()), "");
    EXPECT_TRUE(idleEngine.waitForIdle(0));

    // A new run never reissues the old id; parked under it all the same (a caller's own id), it
    // is still out of reach of the callback handed out before the reset.
    ASSERT_TRUE(start());
    asker = useAsker("Asker");
    EXPECT_NE(submitAs("n"), parked);
    ASSERT_EQ(park(parked), ASYNC_PENDING);
    ASSERT_TRUE(idle());
    lateAnswer("", responseOf(SUCCESS), AuthContext());
    ASSERT_TRUE(idle());
    EXPECT_EQ(engine.parkedChainCount(), 1u);
    engine.makeAnswerCallback(parked)("", responseOf(SUCCESS), AuthContext());
    ASSERT_TRUE(recorder.waitFor(5));
    EXPECT_EQ(said(recorder.at(4)), parked + " SUCCESS 0 '' [] [] ");
}

TEST_F(EngineAsyncWorker, ChainThatParksAfterAResetIsDroppedWithIt) {
    ASSERT_EQ(park("first"), ASYNC_PENDING);
    EXPECT_EQ(engine.parkedChainCount(), 1u);
    AuthResponse late;
    std::thread attempt([&] { late = run("late", makeRequest("late")); });
    latch.waitEntered();
    engine.reset();  // sweeps the parked "first" while "late" is still deciding
    EXPECT_EQ(engine.parkedChainCount(), 0u);
    latch.open();
    attempt.join();
    EXPECT_EQ(late.result, ASYNC_PENDING);
    expectNothingParked(engine);

    // Nothing can answer or time out a chain parked after the reset: it must not stay behind to
    // surface in a later run.
    ASSERT_TRUE(start());
    asker = useAsker("Asker");
    run("sync-1", makeRequest("inside"));
    EXPECT_EQ(engine.parkedChainCount(), 0u);
    ASSERT_TRUE(start());
    clock.advance(31);
    engine.checkTimeoutRequests();
    EXPECT_EQ(recorder.count(), 0u);  // parked chains end silently on reset
    asker = useAsker("Asker");        // a new run parks again
    ASSERT_EQ(park("again"), ASYNC_PENDING);
    EXPECT_EQ(engine.parkedChainCount(), 1u);
}

TEST_F(EngineAsyncWorker, AnswerIsAppliedMergedAndResumedOnce) {
    onAsk = [](AuthContext& context) {
        context.response.asyncType = "kept";
        context.skipHolidayCheck = true;
        context.authTargets = {{0, "1"}};
    };
    ASSERT_EQ(park("r1"), ASYNC_PENDING);
    answer("nobody", SUCCESS);
    EXPECT_EQ(engine.parkedChainCount(), 1u);

    AuthResponse response = responseOf(FAILED, 31, 2);
    response.reason = "denied";
    response.failedRelays = {"9"};
    AuthContext update;
    update.tempKeyAuthData = std::make_shared<TempKeyAuthData>();
    update.skipTimeCheck = true;
    update.authTargets = {{0, "3"}};
    engine.handleAsyncResponse("r1", FAILED, response, update);
    ASSERT_TRUE(idle());
    answer("r1", SUCCESS);  // a repeat after the resume is dropped

    const auto resumed = asker->resumed();
    ASSERT_EQ(resumed.size(), 1u);
    const AuthContext& seen = resumed[0];
    // The host's failed relays are not taken over (the engine keeps its own list); an asyncType it
    // left empty keeps the processor's.
    EXPECT_EQ(said(seen.response) + " " + std::to_string(seen.response.remoteFailCode) + " " +
                  seen.response.asyncType,
              "FAILED 31 'denied' [] [] 2 kept");
    EXPECT_TRUE(seen.tempKeyAuthData && seen.skipTimeCheck && seen.skipHolidayCheck);
    EXPECT_EQ(seen.authTargets.size() == 1 ? seen.authTargets[0].relay : "?", "3");
    EXPECT_EQ(said(onlyReport("r1")), "FAILED 31 'denied' [] []");
    EXPECT_EQ(recorder.count() + engine.parkedChainCount(), 1u);
}

TEST_F(EngineAsyncWorker, AnswersThatOvertakeTheParkWaitForIt) {
    // (Inline, from inside the question, through the routed answer callback: the stress test.)
    // From another thread, finished before the park is stored; on the worker.
    onAsk = [&](AuthContext& context) {
        std::thread([&] {
            engine.handleAsyncResponse(context.requestId, SUCCESS, responseOf(SUCCESS), {});
        }).join();
    };
    const std::string id = submitAs("");
    ASSERT_TRUE(recorder.waitFor(1));
    // Without a routed id the id the host passes is used.
    onAsk = [&](AuthContext& context) {
        engine.makeAnswerCallback("")(context.requestId, responseOf(SUCCESS), AuthContext());
    };
    ASSERT_EQ(park("unrouted"), ASYNC_PENDING);
    ASSERT_TRUE(recorder.waitFor(2) && idle());
    EXPECT_EQ(calledIds(), (Relays{id, "unrouted"}));
    EXPECT_EQ(said(recorder.at(0).response) + said(recorder.at(1).response),
              "SUCCESS 0 '' [] []SUCCESS 0 '' [] []");
    EXPECT_EQ(asker->resumed().size(), 2u);
    EXPECT_EQ(engine.parkedChainCount(), 0u);
}

TEST_F(EngineAsyncWorker, AntiPassbackSubRequestsOfAParkedChain) {
    onAsk = [&](AuthContext& context) {
        for (const char* relay : {"1", "2"}) {
            context.antiPassbackResults[relay].relay = relay;
            engine.registerSubRequest(context.requestId + "_ap_" + relay, context.requestId);
        }
        context.antiPassbackPending = 2;
        engine.registerSubRequest(context.requestId + "_ap_", context.requestId);
        engine.registerSubRequest("other_ap_1", context.requestId);  // not a question of r1
    };
    decide = [](const AuthContext&) { return SUCCESS; };
    const auto answerWithCode = [&](const std::string& id, AuthResult result, int remoteFailCode) {
        engine.handleAsyncResponse(id, result, responseOf(result, 0, remoteFailCode), {});
        ASSERT_TRUE(idle());
    };
    const auto apOf = [](const AuthContext& c) {
        return pendingOf(c.antiPassbackPending, c.antiPassbackResults) + " " +
               std::to_string(c.antiPassbackFailCode);
    };
    ASSERT_EQ(park("r1"), ASYNC_PENDING);
    EXPECT_EQ(engine.subRequestCount(), 3u);

    answer("r1_ap_", SUCCESS);  // no relay: only the entry goes
    EXPECT_EQ(engine.subRequestParent("r1_ap_"), "");
    answerWithCode("r1_ap_1", SUCCESS, 7);
    answerWithCode("r1_ap_1", FAILED, 8);  // repeat: dropped
    AuthEngine::AsyncContext parked;
    ASSERT_TRUE(engine.peekParkedChain("r1", parked));
    EXPECT_EQ(apOf(parked.context), "1 1:0a 2:1 7");
    EXPECT_TRUE(asker->resumed().empty());

    answerWithCode("r1_ap_2", FAILED, 9);
    const auto resumed = asker->resumed();
    ASSERT_EQ(resumed.size(), 1u);
    EXPECT_EQ(apOf(resumed[0]), "0 1:0a 2:1a 7");  // the first reported code wins
    EXPECT_EQ(engine.subRequestCount(), 0u);
    EXPECT_EQ(recorder.count(), 1u);
}

TEST_F(EngineAsyncWorker, MissingProcessorPassesOnlyAStoredSuccess) {
    ASSERT_EQ(park("granted"), ASYNC_PENDING);
    ASSERT_EQ(park("other"), ASYNC_PENDING);
    const auto bystander = useAsker("Other");
    answer("granted", SUCCESS);
    AuthResponse response = responseOf(CONTINUE, 12);
    response.reason = "why";
    engine.handleAsyncResponse("other", CONTINUE, response, AuthContext());
    ASSERT_TRUE(recorder.waitFor(2));
    EXPECT_EQ(recorder.forId("granted").at(0).response.result, SUCCESS);
    EXPECT_EQ(said(recorder.forId("other").at(0).response), "FAILED 12 'why' [] []");
    EXPECT_EQ(bystander->calls, 0);
}

TEST_F(EngineAsyncWorker, TempKeyResumeEntersPostSyncOnlyForFinalVerdicts) {
    asker = useAsker("TempKey");  // stands in for the temporary-key processor
    onAsk = [](AuthContext& context) { context.response.targets = {{0, "9"}}; };
    const std::map<std::string, AuthResult> verdicts = {
        {"s", SUCCESS}, {"i", IGNORED}, {"d", DROPPED}, {"p", DOUBLE_AUTH_PENDING}};
    for (const auto& verdict : verdicts) {
        ASSERT_EQ(park(verdict.first), ASYNC_PENDING);
    }
    for (const auto& verdict : verdicts) {
        answer(verdict.first, verdict.second);
    }
    ASSERT_EQ(recorder.count(), 2u);
    // SUCCESS gets the post-sync report ("sync"), DOUBLE_AUTH_PENDING is reported directly, and
    // without the targets of a grant.
    EXPECT_EQ(said(recorder.at(0)) + " | " + said(recorder.at(1)),
              "p DOUBLE 0 '' [] []  | s SUCCESS 0 '' [] [] sync");
    EXPECT_EQ(host->reportCount(), 2u);
    EXPECT_EQ(asker->resumed().size(), 2u);  // stored 7 and 4 end before any processor
    EXPECT_EQ(engine.parkedChainCount(), 0u);
}

}  // namespace
}  // namespace testing
}  // namespace auth_engine
