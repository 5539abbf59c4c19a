// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// Host answers to parked chains: how they are merged, routed, held for a park under construction
// and resumed.
#include <thread>

#include "support/EngineHarness.h"

namespace auth_engine {
namespace testing {
namespace {

// The asker asks the host on its first pass (onAsk runs, then ASYNC_PENDING); resumed, it decides
// from the context (by default: what the host answered).
class EngineResume : public EngineTest {
protected:
    void SetUp() override {
        EngineTest::SetUp();
        asker = useAsker("Asker");
    }
    std::shared_ptr<ScriptedProcessor> useAsker(const std::string& name) {
        return use(name, [this](AuthContext& context) {
            if (context.pendingProcessor.empty()) {
                if (onAsk) {
                    onAsk(context);
                }
                return ASYNC_PENDING;
            }
            return decide ? decide(context) : context.response.result;
        });
    }
    AuthResult park(const std::string& id) { return run(id).result; }

    std::function<void(AuthContext&)> onAsk;
    std::function<AuthResult(const AuthContext&)> decide;
    std::shared_ptr<ScriptedProcessor> asker;
};

TEST_F(EngineResume, AnswerIsAppliedMergedAndResumedOnce) {
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
    EXPECT_EQ(seen.response.result, FAILED);
    EXPECT_EQ(seen.response.failCode, 31);
    EXPECT_EQ(seen.response.reason, "denied");
    EXPECT_EQ(seen.response.remoteFailCode, 2);
    EXPECT_EQ(seen.response.asyncType, "kept");       // left empty by the host
    EXPECT_TRUE(seen.response.failedRelays.empty());  // the engine's own list
    EXPECT_TRUE(seen.tempKeyAuthData);
    EXPECT_TRUE(seen.skipTimeCheck && seen.skipHolidayCheck);
    ASSERT_EQ(seen.authTargets.size(), 1u);
    EXPECT_EQ(seen.authTargets[0].relay, "3");
    ASSERT_EQ(recorder.count(), 1u);
    EXPECT_EQ(recorder.at(0).requestId, "r1");
    EXPECT_EQ(recorder.at(0).response.failCode, 31);
    EXPECT_EQ(engine.parkedChainCount(), 0u);
}

TEST_F(EngineResume, AnswersThatOvertakeTheParkWaitForIt) {
    // Inline, from inside the question, through the routed answer callback.
    onAsk = [&](AuthContext& context) {
        engine.makeAnswerCallback(context.requestId)("host-handle", responseOf(SUCCESS), {});
    };
    ASSERT_EQ(park("inline"), ASYNC_PENDING);
    ASSERT_TRUE(recorder.waitFor(1));
    // From another thread, finished before the park is stored; on the worker this time.
    onAsk = [&](AuthContext& context) {
        std::thread([&] {
            engine.handleAsyncResponse(context.requestId, SUCCESS, responseOf(SUCCESS), {});
        }).join();
    };
    const std::string id = submit(AuthRequest());
    ASSERT_TRUE(recorder.waitFor(2));
    // Without a routed id the id the host passes is used.
    onAsk = [&](AuthContext& context) {
        engine.makeAnswerCallback("")(context.requestId, responseOf(SUCCESS), AuthContext());
    };
    ASSERT_EQ(park("unrouted"), ASYNC_PENDING);
    ASSERT_TRUE(recorder.waitFor(3));
    ASSERT_TRUE(idle());

    EXPECT_EQ(calledIds(), (Relays{"inline", id, "unrouted"}));
    for (const auto& call : recorder.all()) {
        EXPECT_EQ(call.response.result, SUCCESS);
    }
    EXPECT_EQ(asker->resumed().size(), 3u);
    EXPECT_EQ(engine.parkedChainCount(), 0u);
}

TEST_F(EngineResume, AntiPassbackSubRequestsOfAParkedChain) {
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
    ASSERT_EQ(park("r1"), ASYNC_PENDING);
    EXPECT_EQ(engine.subRequestCount(), 3u);

    answer("r1_ap_", SUCCESS);  // no relay: only the entry goes
    EXPECT_EQ(engine.subRequestParent("r1_ap_"), "");
    answerWithCode("r1_ap_1", SUCCESS, 7);
    answerWithCode("r1_ap_1", FAILED, 8);  // repeat: dropped
    AuthEngine::AsyncContext parked;
    ASSERT_TRUE(engine.peekParkedChain("r1", parked));
    EXPECT_EQ(parked.context.antiPassbackPending, 1);
    EXPECT_EQ(parked.context.antiPassbackResults["1"].status, SUCCESS);
    EXPECT_TRUE(parked.context.antiPassbackResults["1"].answered);
    EXPECT_EQ(parked.context.antiPassbackFailCode, 7);
    EXPECT_TRUE(asker->resumed().empty());

    answerWithCode("r1_ap_2", FAILED, 9);
    const auto resumed = asker->resumed();
    ASSERT_EQ(resumed.size(), 1u);
    EXPECT_EQ(resumed[0].antiPassbackPending, 0);
    EXPECT_EQ(resumed[0].antiPassbackResults.at("2").status, FAILED);
    EXPECT_EQ(resumed[0].antiPassbackFailCode, 7);  // the first reported code wins
    EXPECT_EQ(engine.subRequestCount(), 0u);
    EXPECT_EQ(recorder.count(), 1u);
}

TEST_F(EngineResume, MissingProcessorPassesOnlyAStoredSuccess) {
    ASSERT_EQ(park("granted"), ASYNC_PENDING);
    ASSERT_EQ(park("other"), ASYNC_PENDING);
    const auto bystander = useAsker("Other");
    answer("granted", SUCCESS);
    AuthResponse response = responseOf(CONTINUE, 12);
    response.reason = "why";
    engine.handleAsyncResponse("other", CONTINUE, response, AuthContext());
    ASSERT_TRUE(recorder.waitFor(2));
    EXPECT_EQ(recorder.forId("granted").at(0).response.result, SUCCESS);
    const AuthResponse refused = recorder.forId("other").at(0).response;
    EXPECT_EQ(refused.result, FAILED);
    EXPECT_EQ(refused.failCode, 12);
    EXPECT_EQ(refused.reason, "why");
    EXPECT_EQ(bystander->calls, 0);
}

TEST_F(EngineResume, TempKeyResumeEntersPostSyncOnlyForFinalVerdicts) {
    asker = useAsker("TempKey");  // stands in for the temporary-key processor
    const std::map<std::string, AuthResult> verdicts = {
        {"s", SUCCESS}, {"i", IGNORED}, {"d", DROPPED}, {"p", DOUBLE_AUTH_PENDING}};
    for (const auto& verdict : verdicts) {
        ASSERT_EQ(park(verdict.first), ASYNC_PENDING);
    }
    for (const auto& verdict : verdicts) {
        answer(verdict.first, verdict.second);
    }
    ASSERT_EQ(recorder.count(), 2u);
    EXPECT_EQ(recorder.forId("s").at(0).response.result, SUCCESS);
    EXPECT_EQ(recorder.forId("s").at(0).response.asyncType, "sync");  // the post-sync report
    EXPECT_EQ(recorder.forId("p").at(0).response.result, DOUBLE_AUTH_PENDING);
    EXPECT_EQ(recorder.forId("p").at(0).response.asyncType, "");  // reported directly
    EXPECT_EQ(host->reportCount(), 2u);
    EXPECT_EQ(asker->resumed().size(), 2u);  // stored 7 and 4 end before any processor
    EXPECT_EQ(engine.parkedChainCount(), 0u);
}

}  // namespace
}  // namespace testing
}  // namespace auth_engine
