// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// The host's entry point: answers without an engine, init and reset, the convenience overloads.
#include "support/EngineHarness.h"
#include "support/LogCapture.h"

namespace auth_engine {
namespace testing {
namespace {

class Facade : public FacadeTest {
protected:
    // A processor that parks "park" on its first pass (the latch hears it) and, resumed, returns
    // what the host answered; anything else is ignored.
    std::shared_ptr<ScriptedProcessor> useParker() {
        auto parker = std::make_shared<ScriptedProcessor>("Recorder", [this](AuthContext& context) {
            if (context.request.credential != "park") {
                return IGNORED;
            }
            if (context.pendingProcessor.empty()) {
                parked.arrive();
            }
            return askOnce(context);
        });
        facade.registerProcessor(parker);
        facade.setProcessorChain({"Recorder"});
        return parker;
    }

    Latch parked;
};

TEST_F(Facade, AnswersWithoutAnEngineBeforeInit) {
    expectFailed(facade.authenticate("1234", OPEN_TYPE_PIN, READER_TYPE_INTERNAL), 0,
                 "AuthFacade not initialized");
    EXPECT_EQ(facade.authenticate(AuthRequest()).reason, "AuthFacade not initialized");
    EXPECT_EQ(facade.handleDoubleAuthTimeout("double-1").reason, "AuthFacade not initialized");
    EXPECT_EQ(facade.cancelDoubleAuth("double-1", "x").reason, "AuthFacade not initialized");
    EXPECT_EQ(facade.authenticateAsync(AuthRequest(), recorder.callback()), "");
    EXPECT_EQ(
        facade.authenticateAsync("1", OPEN_TYPE_CARD, READER_TYPE_INTERNAL, recorder.callback()),
        "");
    EXPECT_EQ(facade.verifyInterlockTargets(AuthRequest(), {{0, "1"}}, recorder.callback()), "");
    facade.handleAsyncResult("req_0_1", SUCCESS, AuthResponse(), AuthContext());
    facade.handleUnlockOptionsResponse("req_0_1_ind_unlock_options", {"1"});
    EXPECT_FALSE(facade.isReady());
    EXPECT_EQ(facade.init(nullptr), -1);
    EXPECT_FALSE(facade.isReady());
    EXPECT_EQ(recorder.count(), 0u);
}

TEST_F(Facade, InitResetInitAndConvenienceOverloads) {
    ASSERT_EQ(facade.init(host), 0);
    EXPECT_TRUE(facade.isReady());
    EXPECT_EQ(facade.init(nullptr), 0);  // already running: kept
    const auto probe = useParker();

    EXPECT_EQ(facade.authenticate("42", OPEN_TYPE_CARD, READER_TYPE_EXTERNAL_2).result, IGNORED);
    const std::string id =
        facade.authenticateAsync("43", OPEN_TYPE_FACE, READER_TYPE_EXTERNAL_1, recorder.callback());
    ASSERT_FALSE(id.empty());
    ASSERT_TRUE(recorder.waitFor(1));
    EXPECT_EQ(recorder.at(0).requestId, id);
    const auto seen = probe->seen();
    ASSERT_EQ(seen.size(), 2u);
    EXPECT_EQ(seen[0].request.credential, "42");
    EXPECT_EQ(seen[0].request.openType, OPEN_TYPE_CARD);
    EXPECT_EQ(seen[0].request.readerType, READER_TYPE_EXTERNAL_2);
    EXPECT_TRUE(seen[0].requestId.empty());
    EXPECT_EQ(seen[1].request.readerType, READER_TYPE_EXTERNAL_1);
    for (const auto& context : seen) {
        EXPECT_EQ(context.request.timestamp, clock.wall());
    }

    // A synchronous attempt never parks: the pending result comes straight back, nobody is told.
    EXPECT_EQ(facade.authenticate(makeRequest("park")).result, ASYNC_PENDING);

    facade.reset();
    EXPECT_FALSE(facade.isReady());
    EXPECT_EQ(facade.authenticate(AuthRequest()).reason, "AuthFacade not initialized");
    ASSERT_EQ(facade.init(std::make_shared<FakeDataProvider>()), 0);
    EXPECT_TRUE(facade.isReady());
    EXPECT_NE(facade.authenticate(AuthRequest()).reason, "AuthFacade not initialized");
    EXPECT_EQ(recorder.count(), 1u);
}

TEST_F(Facade, UnlockOptionsAnswerIsAHostAnswerById) {
    ASSERT_EQ(facade.init(host), 0);
    useParker();
    for (const Relays& choice : {Relays{}, Relays{"2", "1"}}) {
        const std::string id = facade.authenticateAsync(makeRequest("park"), recorder.callback());
        ASSERT_TRUE(parked.waitEntered(choice.empty() ? 1 : 2));
        facade.handleUnlockOptionsResponse(id, choice);
        ASSERT_TRUE(recorder.waitFor(choice.empty() ? 1 : 2));
    }
    expectFailed(recorder.at(0).response, 44, "User canceled relay selection");
    EXPECT_EQ(recorder.at(1).response.result, SUCCESS);
    EXPECT_EQ(recorder.at(1).response.unlockOptionsRelays, (Relays{"2", "1"}));
}

TEST_F(Facade, AnAnswerFromBeforeAResetDecidesNothingAfterIt) {
    ASSERT_EQ(facade.init(host), 0);
    useParker();
    const std::string before = facade.authenticateAsync(makeRequest("park"), recorder.callback());
    ASSERT_TRUE(parked.waitEntered());
    facade.reset();
    ASSERT_EQ(facade.init(host), 0);
    useParker();
    // Same second, new engine: the id is not issued again.
    const std::string after = facade.authenticateAsync(makeRequest("park"), recorder.callback());
    ASSERT_TRUE(parked.waitEntered(2));
    ASSERT_NE(after, before);
    facade.handleAsyncResult(before, SUCCESS, responseOf(SUCCESS), AuthContext());
    ASSERT_TRUE(facade.waitForIdle(kWaitMs));
    EXPECT_EQ(recorder.count(), 0u);
    facade.handleAsyncResult(after, FAILED, responseOf(FAILED, 7), AuthContext());
    ASSERT_TRUE(recorder.waitFor(1));
    EXPECT_EQ(recorder.at(0).requestId, after);
    EXPECT_EQ(recorder.at(0).response.failCode, 7);
}

TEST_F(Facade, WaitForIdleSweepsAtTheClockAsItIsNowAndRefusesTheWorker) {
    EXPECT_TRUE(facade.waitForIdle(0));  // no engine: nothing to wait for
    ASSERT_EQ(facade.init(host), 0);
    useParker();
    ASSERT_FALSE(facade.authenticateAsync(makeRequest("park"), recorder.callback()).empty());
    ASSERT_TRUE(parked.waitEntered());
    ASSERT_TRUE(facade.waitForIdle(kWaitMs));
    EXPECT_EQ(recorder.count(), 0u);
    // The sweep that ends the parked chain must run before waitForIdle returns, not at the
    // worker's next tick.
    clock.advance(31);
    ASSERT_TRUE(facade.waitForIdle(kWaitMs));
    ASSERT_EQ(recorder.count(), 1u);
    expectFailed(recorder.at(0).response, 0, "Async request timeout");

    // On the worker's own thread the wait could never end: refused at once.
    LogCapture log;
    std::atomic<int> fromCallback{-1};
    facade.authenticateAsync(makeRequest("other"),
                             [&](const std::string&, const AuthResponse&, const AuthContext&) {
                                 fromCallback = facade.waitForIdle(kWaitMs) ? 1 : 0;
                             });
    ASSERT_TRUE(facade.waitForIdle(kWaitMs));
    EXPECT_EQ(fromCallback.load(), 0);
    EXPECT_TRUE(log.contains("waitForIdle refused"));
}

}  // namespace
}  // namespace testing
}  // namespace auth_engine
