#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "engine/AuthEngine.h"
#include "support/CallbackRecorder.h"
#include "support/FakeDataProvider.h"

namespace auth_engine {
namespace {

using testing::CallbackRecorder;
using testing::FakeDataProvider;

// Asks the host on its first pass (onAsk runs, then ASYNC_PENDING); resumed, it records the context
// and decides from it (by default: what the host answered).
class Asker : public IAuthProcessor {
public:
    explicit Asker(std::string askerName) : name(std::move(askerName)) {}
    AuthResult process(AuthContext& context, IDataProvider&) override {
        if (context.pendingProcessor.empty()) {
            ++firstPasses;
            if (onAsk) {
                onAsk(context);
            }
            return ASYNC_PENDING;
        }
        std::lock_guard<std::mutex> lock(mutex);
        resumed.push_back(context);
        return decide ? decide(context) : context.response.result;
    }
    std::string getName() const override { return name; }
    std::vector<AuthContext> resumedContexts() {
        std::lock_guard<std::mutex> lock(mutex);
        return resumed;
    }

    std::function<void(AuthContext&)> onAsk;
    std::function<AuthResult(const AuthContext&)> decide;
    int firstPasses = 0;

private:
    std::string name;
    std::mutex mutex;
    std::vector<AuthContext> resumed;
};

class EngineResume : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(engine.init(provider), 0);
        useAsker("Asker");
    }
    void useAsker(const std::string& name) {
        asker = std::make_shared<Asker>(name);
        engine.registerProcessor(asker);
        engine.setProcessorChain({name});
    }
    AuthResult start(const std::string& id) {
        return engine.authenticate(AuthRequest(), recorder.callback(), id).result;
    }
    void answer(const std::string& id, AuthResult result, int remoteFailCode = -1,
                const AuthContext& update = AuthContext()) {
        AuthResponse response;
        response.remoteFailCode = remoteFailCode;
        engine.handleAsyncResponse(id, result, response, update);
        ASSERT_TRUE(engine.waitForIdle(5000));
    }

    // The recorder outlives the engine, whose worker may still be inside a callback.
    CallbackRecorder recorder;
    std::shared_ptr<FakeDataProvider> provider = std::make_shared<FakeDataProvider>();
    AuthEngine engine;
    std::shared_ptr<Asker> asker;
};

TEST_F(EngineResume, AnswerIsAppliedMergedAndResumedOnce) {
    asker->onAsk = [](AuthContext& context) {
        context.response.asyncType = "kept";
        context.skipHolidayCheck = true;
        context.authTargets = {{0, "1"}};
    };
    ASSERT_EQ(start("r1"), ASYNC_PENDING);
    answer("nobody", SUCCESS);
    EXPECT_EQ(engine.parkedChainCount(), 1u);

    AuthResponse response;
    response.failCode = 31;
    response.reason = "denied";
    response.remoteFailCode = 2;
    response.failedRelays = {"9"};
    AuthContext update;
    update.tempKeyAuthData = std::make_shared<TempKeyAuthData>();
    update.skipTimeCheck = true;
    update.authTargets = {{0, "3"}};
    engine.handleAsyncResponse("r1", FAILED, response, update);
    ASSERT_TRUE(engine.waitForIdle(5000));
    answer("r1", SUCCESS);  // a repeat after the resume is dropped

    const auto resumed = asker->resumedContexts();
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
    EXPECT_EQ(seen.authTargets.size(), 1u);
    EXPECT_EQ(seen.authTargets[0].relay, "3");
    ASSERT_EQ(recorder.count(), 1u);
    EXPECT_EQ(recorder.at(0).requestId, "r1");
    EXPECT_EQ(recorder.at(0).response.failCode, 31);
    EXPECT_EQ(engine.parkedChainCount(), 0u);
}

TEST_F(EngineResume, AnswersThatOvertakeTheParkWaitForIt) {
    AuthResponse granted;
    granted.result = SUCCESS;
    // Inline, from inside the question, through the routed answer callback.
    asker->onAsk = [&](AuthContext& context) {
        engine.makeAnswerCallback(context.requestId)("host-handle", granted, AuthContext());
    };
    ASSERT_EQ(start("inline"), ASYNC_PENDING);
    ASSERT_TRUE(recorder.waitFor(1));
    // From another thread, finished before the park is stored; on the worker this time.
    asker->onAsk = [&](AuthContext& context) {
        std::thread host(
            [&] { engine.handleAsyncResponse(context.requestId, SUCCESS, granted, {}); });
        host.join();
    };
    const std::string id = engine.authenticateAsync(AuthRequest(), recorder.callback());
    ASSERT_TRUE(recorder.waitFor(2));
    // Without a routed id the id the host passes is used.
    asker->onAsk = [&](AuthContext& context) {
        engine.makeAnswerCallback("")(context.requestId, granted, AuthContext());
    };
    ASSERT_EQ(start("unrouted"), ASYNC_PENDING);
    ASSERT_TRUE(recorder.waitFor(3));
    ASSERT_TRUE(engine.waitForIdle(5000));

    EXPECT_EQ(recorder.count(), 3u);
    EXPECT_EQ(recorder.at(0).requestId, "inline");
    EXPECT_EQ(recorder.at(1).requestId, id);
    EXPECT_EQ(recorder.at(2).requestId, "unrouted");
    for (const auto& call : recorder.all()) {
        EXPECT_EQ(call.response.result, SUCCESS);
    }
    EXPECT_EQ(asker->resumedContexts().size(), 3u);
    EXPECT_EQ(engine.parkedChainCount(), 0u);
}

TEST_F(EngineResume, AntiPassbackSubRequestsOfAParkedChain) {
    asker->onAsk = [&](AuthContext& context) {
        for (const char* relay : {"1", "2"}) {
            context.antiPassbackResults[relay].relay = relay;
            engine.registerSubRequest(context.requestId + "_ap_" + relay, context.requestId);
        }
        context.antiPassbackPending = 2;
        engine.registerSubRequest(context.requestId + "_ap_", context.requestId);
        engine.registerSubRequest(context.requestId + "_il_1", context.requestId);
    };
    asker->decide = [](const AuthContext&) { return SUCCESS; };
    ASSERT_EQ(start("r1"), ASYNC_PENDING);
    EXPECT_EQ(engine.subRequestCount(), 4u);

    answer("r1_ap_", SUCCESS);   // no relay: only the entry goes
    answer("r1_il_1", SUCCESS);  // an interlock answer is not for a parked chain
    EXPECT_EQ(engine.subRequestParent("r1_ap_"), "");
    EXPECT_EQ(engine.subRequestParent("r1_il_1"), "r1");
    answer("r1_ap_1", SUCCESS, 7);
    answer("r1_ap_1", FAILED, 8);  // repeat: dropped
    AuthEngine::AsyncContext parked;
    ASSERT_TRUE(engine.peekParkedChain("r1", parked));
    EXPECT_EQ(parked.context.antiPassbackPending, 1);
    EXPECT_EQ(parked.context.antiPassbackResults["1"].status, SUCCESS);
    EXPECT_TRUE(parked.context.antiPassbackResults["1"].answered);
    EXPECT_EQ(parked.context.antiPassbackFailCode, 7);
    EXPECT_TRUE(asker->resumedContexts().empty());

    answer("r1_ap_2", FAILED, 9);
    const auto resumed = asker->resumedContexts();
    ASSERT_EQ(resumed.size(), 1u);
    EXPECT_EQ(resumed[0].antiPassbackPending, 0);
    EXPECT_EQ(resumed[0].antiPassbackResults.at("2").status, FAILED);
    EXPECT_EQ(resumed[0].antiPassbackFailCode, 7);  // the first reported code wins
    EXPECT_EQ(engine.subRequestCount(), 0u);
    EXPECT_EQ(recorder.count(), 1u);
}

TEST_F(EngineResume, MissingProcessorPassesOnlyAStoredSuccess) {
    ASSERT_EQ(start("granted"), ASYNC_PENDING);
    ASSERT_EQ(start("other"), ASYNC_PENDING);
    auto bystander = std::make_shared<Asker>("Other");
    engine.registerProcessor(bystander);
    engine.setProcessorChain({"Other"});
    answer("granted", SUCCESS);
    AuthResponse response;
    response.failCode = 12;
    response.reason = "why";
    engine.handleAsyncResponse("other", CONTINUE, response, AuthContext());
    ASSERT_TRUE(recorder.waitFor(2));
    EXPECT_EQ(recorder.forId("granted").at(0).response.result, SUCCESS);
    const AuthResponse refused = recorder.forId("other").at(0).response;
    EXPECT_EQ(refused.result, FAILED);
    EXPECT_EQ(refused.failCode, 12);
    EXPECT_EQ(refused.reason, "why");
    EXPECT_EQ(bystander->firstPasses, 0);
}

TEST_F(EngineResume, TempKeyResumeEntersPostSyncOnlyForFinalVerdicts) {
    useAsker("TempKey");  // stands in for the temporary-key processor
    for (const char* id : {"s", "i", "d", "p"}) {
        ASSERT_EQ(start(id), ASYNC_PENDING);
    }
    answer("s", SUCCESS);
    answer("i", IGNORED);
    answer("d", DROPPED);
    answer("p", DOUBLE_AUTH_PENDING);
    ASSERT_EQ(recorder.count(), 2u);
    EXPECT_EQ(recorder.forId("s").at(0).response.result, SUCCESS);
    EXPECT_EQ(recorder.forId("s").at(0).response.asyncType, "sync");  // the post-sync report
    EXPECT_EQ(recorder.forId("p").at(0).response.result, DOUBLE_AUTH_PENDING);
    EXPECT_EQ(recorder.forId("p").at(0).response.asyncType, "");  // reported directly
    EXPECT_EQ(provider->reportCount(), 2u);
    EXPECT_EQ(asker->resumedContexts().size(), 2u);  // stored 7 and 4 end before any processor
    EXPECT_EQ(engine.parkedChainCount(), 0u);
}

}  // namespace
}  // namespace auth_engine
