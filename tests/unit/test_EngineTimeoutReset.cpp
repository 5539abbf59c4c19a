#include <gtest/gtest.h>

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "engine/AuthEngine.h"
#include "support/CallbackRecorder.h"
#include "support/FakeDataProvider.h"
#include "support/TestClock.h"

namespace auth_engine {
namespace {

using testing::CallbackRecorder;
using testing::FakeDataProvider;

// "park" waits for a host answer (then returns it); "block" holds the worker until the engine is
// reset; anything else is ignored. onAsk runs on each first pass that parks.
class Probe : public IAuthProcessor {
public:
    explicit Probe(AuthEngine& owner) : engine(owner) {}
    AuthResult process(AuthContext& context, IDataProvider&) override {
        if (context.request.credential == "block") {
            {
                std::lock_guard<std::mutex> lock(mutex);
                entered = true;
            }
            changed.notify_all();
            while (engine.isReady()) {  // reset clears the worker's run flag before this one
                std::this_thread::yield();
            }
            return IGNORED;
        }
        if (context.request.credential != "park") {
            return IGNORED;
        }
        if (!context.pendingProcessor.empty()) {
            return context.response.result;
        }
        if (onAsk) {
            onAsk(context);
        }
        return ASYNC_PENDING;
    }
    std::string getName() const override { return "Probe"; }
    void waitEntered() {
        std::unique_lock<std::mutex> lock(mutex);
        changed.wait(lock, [&] { return entered; });
    }
    std::function<void(AuthContext&)> onAsk;

private:
    AuthEngine& engine;
    std::mutex mutex;
    std::condition_variable changed;
    bool entered = false;
};

class EngineTimeoutReset : public ::testing::Test {
protected:
    void SetUp() override { start(); }
    void start() {
        ASSERT_EQ(engine.init(provider), 0);
        probe = std::make_shared<Probe>(engine);
        engine.registerProcessor(probe);
        engine.setProcessorChain({"Probe"});
    }
    std::string submit(const std::string& credential) {
        AuthRequest request;
        request.credential = credential;
        return engine.authenticateAsync(request, recorder.callback());
    }
    AuthResult park(const std::string& id, OpenDoorType openType = OPEN_TYPE_NONE) {
        AuthRequest request;
        request.credential = "park";
        request.openType = openType;
        return engine.authenticate(request, recorder.callback(), id).result;
    }

    testing::TestClock clock;
    // The recorder outlives the engine, whose worker may still be inside a callback.
    CallbackRecorder recorder;
    std::shared_ptr<FakeDataProvider> provider = std::make_shared<FakeDataProvider>();
    AuthEngine engine;
    std::shared_ptr<Probe> probe;
};

TEST_F(EngineTimeoutReset, ParkedChainsTimeOutStrictlyAfterTheirLimit) {
    probe->onAsk = [&](AuthContext& context) {
        context.antiPassbackResults["1"].relay = "1";
        context.antiPassbackPending = 1;
        context.response.openedRelays = {"1"};
        engine.registerSubRequest(context.requestId + "_ap_1", context.requestId);
    };
    ASSERT_EQ(park("plain"), ASYNC_PENDING);
    ASSERT_EQ(park("key", OPEN_TYPE_TEMP_KEY), ASYNC_PENDING);  // waits tempKeyTimeout (3 s)

    clock.advance(3);
    engine.checkTimeoutRequests();
    EXPECT_EQ(engine.parkedChainCount(), 2u);
    clock.advance(1);
    engine.checkTimeoutRequests();
    ASSERT_EQ(recorder.count(), 1u);
    EXPECT_EQ(recorder.at(0).requestId, "key");
    EXPECT_EQ(recorder.at(0).response.failCode, 24);

    clock.advance(26);  // exactly 30 s
    engine.checkTimeoutRequests();
    EXPECT_EQ(engine.parkedChainCount(), 1u);
    clock.advance(1);
    engine.checkTimeoutRequests();
    ASSERT_EQ(recorder.count(), 2u);
    const auto timedOut = recorder.at(1);
    EXPECT_EQ(timedOut.requestId, "plain");
    EXPECT_EQ(timedOut.response.result, FAILED);
    EXPECT_EQ(timedOut.response.failCode, 0);
    EXPECT_EQ(timedOut.response.reason, "Async request timeout");
    EXPECT_TRUE(timedOut.response.openedRelays.empty());
    EXPECT_TRUE(timedOut.context.antiPassbackResults.at("1").answered);
    EXPECT_EQ(timedOut.context.antiPassbackResults.at("1").status, FAILED);
    EXPECT_EQ(provider->reportCount(), 2u);
    EXPECT_EQ(engine.parkedChainCount(), 0u);
    EXPECT_EQ(engine.subRequestCount(), 0u);
}

TEST_F(EngineTimeoutReset, SweepSkipsARequestWhileItsChainRuns) {
    probe->onAsk = [&](AuthContext&) {
        clock.advance(100);
        engine.checkTimeoutRequests();
    };
    ASSERT_EQ(park("r1"), ASYNC_PENDING);
    EXPECT_EQ(engine.parkedChainCount(), 1u);  // parked afresh, not failed
    EXPECT_EQ(recorder.count(), 0u);
}

TEST_F(EngineTimeoutReset, ResetFailsQueuedWorkDropsParkedChainsAndLateAnswers) {
    const std::string parked = submit("park");
    ASSERT_TRUE(engine.waitForIdle(5000));
    ASSERT_EQ(engine.parkedChainCount(), 1u);
    const AuthCallback lateAnswer = engine.makeAnswerCallback(parked);
    const std::string blocker = submit("block");
    probe->waitEntered();
    const std::string first = submit("n");
    const std::string second = submit("n");
    std::thread shutdown([&] { engine.reset(); });
    shutdown.join();

    ASSERT_EQ(recorder.count(), 3u);  // the parked chain vanishes silently
    EXPECT_EQ(recorder.at(0).requestId, blocker);
    for (std::size_t i : {1u, 2u}) {
        const auto call = recorder.at(i);
        EXPECT_EQ(call.requestId, i == 1 ? first : second);
        EXPECT_EQ(call.response.result, FAILED);
        EXPECT_EQ(call.response.failCode, 0);
        EXPECT_EQ(call.response.reason, "Engine shutdown");
        EXPECT_TRUE(call.context.requestId.empty());
    }
    EXPECT_EQ(engine.parkedChainCount(), 0u);
    AuthResponse granted;
    granted.result = SUCCESS;
    lateAnswer("", granted, AuthContext());
    EXPECT_EQ(submit("n"), "");

    // A new run reuses the id of the old parked request; the old answer must not reach it.
    start();
    ASSERT_EQ(submit("park"), parked);
    ASSERT_TRUE(engine.waitForIdle(5000));
    lateAnswer("", granted, AuthContext());
    ASSERT_TRUE(engine.waitForIdle(5000));
    EXPECT_EQ(engine.parkedChainCount(), 1u);
    engine.makeAnswerCallback(parked)("", granted, AuthContext());
    ASSERT_TRUE(recorder.waitFor(4));
    EXPECT_EQ(recorder.at(3).requestId, parked);
    EXPECT_EQ(recorder.at(3).response.result, SUCCESS);
}

}  // namespace
}  // namespace auth_engine
