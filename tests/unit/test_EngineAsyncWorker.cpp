#include <gtest/gtest.h>

#include <condition_variable>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "engine/AuthEngine.h"
#include "support/CallbackRecorder.h"
#include "support/FakeDataProvider.h"
#include "support/TestClock.h"

namespace auth_engine {
namespace {

using testing::CallbackRecorder;
using testing::FakeDataProvider;

// "block" holds the worker until released; "park" waits for a host answer once and then returns
// it; anything else is ignored (called back at once, no post-sync).
class Worker : public IAuthProcessor {
public:
    AuthResult process(AuthContext& context, IDataProvider&) override {
        const std::string& credential = context.request.credential;
        if (credential == "block") {
            std::unique_lock<std::mutex> lock(mutex);
            entered = true;
            changed.notify_all();
            changed.wait(lock, [&] { return released; });
        } else if (credential == "park") {
            return context.pendingProcessor.empty() ? ASYNC_PENDING : context.response.result;
        }
        return IGNORED;
    }
    std::string getName() const override { return "Worker"; }
    void waitEntered() {
        std::unique_lock<std::mutex> lock(mutex);
        changed.wait(lock, [&] { return entered; });
    }
    void release() {
        std::lock_guard<std::mutex> lock(mutex);
        released = true;
        changed.notify_all();
    }

private:
    std::mutex mutex;
    std::condition_variable changed;
    bool entered = false;
    bool released = false;
};

class EngineAsyncWorker : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(engine.init(std::make_shared<FakeDataProvider>()), 0);
        engine.registerProcessor(worker);
        engine.setProcessorChain({"Worker"});
    }
    void TearDown() override { worker->release(); }
    std::string submit(const std::string& credential) {
        AuthRequest request;
        request.credential = credential;
        return engine.authenticateAsync(request, recorder.callback());
    }
    std::vector<std::string> calledIds() {
        std::vector<std::string> ids;
        for (const auto& call : recorder.all()) {
            ids.push_back(call.requestId);
        }
        return ids;
    }

    // The recorder outlives the engine, whose worker may still be inside a callback.
    CallbackRecorder recorder;
    std::shared_ptr<Worker> worker = std::make_shared<Worker>();
    AuthEngine engine;
};

TEST_F(EngineAsyncWorker, QueueHoldsAHundredAndRunsThemInOrder) {
    std::vector<std::string> ids = {submit("block")};
    worker->waitEntered();
    for (int i = 0; i < 100; ++i) {
        ids.push_back(submit("n"));
        ASSERT_FALSE(ids.back().empty()) << i;
    }
    EXPECT_EQ(submit("n"), "");  // the 101st waiting submission is refused
    worker->release();
    ASSERT_TRUE(recorder.waitFor(101));
    ASSERT_TRUE(engine.waitForIdle(5000));
    EXPECT_EQ(calledIds(), ids);  // FIFO, each id once, the id the caller was given
    EXPECT_EQ(std::set<std::string>(ids.begin(), ids.end()).size(), ids.size());
    ids.push_back(submit("n"));
    ASSERT_TRUE(recorder.waitFor(102));
    EXPECT_EQ(recorder.at(101).requestId, ids.back());
}

TEST_F(EngineAsyncWorker, ResumesGoBeforeNewSubmissions) {
    const std::string parked = submit("park");
    ASSERT_TRUE(engine.waitForIdle(5000));
    ASSERT_EQ(engine.parkedChainCount(), 1u);
    const std::string blocker = submit("block");
    worker->waitEntered();
    const std::string later = submit("n");
    AuthResponse answer;
    answer.result = SUCCESS;
    engine.handleAsyncResponse(parked, SUCCESS, answer, AuthContext());
    worker->release();
    ASSERT_TRUE(recorder.waitFor(3));
    EXPECT_EQ(calledIds(), (std::vector<std::string>{blocker, parked, later}));
    EXPECT_EQ(recorder.at(1).response.result, SUCCESS);
}

TEST_F(EngineAsyncWorker, SubmissionsBeforeInitAndAfterResetAreRefused) {
    AuthEngine idle;
    EXPECT_EQ(idle.authenticateAsync(AuthRequest(), recorder.callback()), "");
    EXPECT_TRUE(idle.waitForIdle(0));  // no worker: idle at once
    engine.reset();
    EXPECT_EQ(submit("n"), "");
    EXPECT_EQ(recorder.count(), 0u);
}

TEST_F(EngineAsyncWorker, TimeoutSweepRunsWithoutTraffic) {
    testing::TestClock clock;
    const std::string parked = submit("park");
    ASSERT_TRUE(engine.waitForIdle(5000));
    ASSERT_EQ(engine.parkedChainCount(), 1u);
    clock.advance(31);
    ASSERT_TRUE(recorder.waitFor(1));  // the worker's one-second wake-up finds it
    EXPECT_EQ(recorder.at(0).requestId, parked);
    EXPECT_EQ(recorder.at(0).response.reason, "Async request timeout");
}

}  // namespace
}  // namespace auth_engine
