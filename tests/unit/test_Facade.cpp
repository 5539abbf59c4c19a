#include <gtest/gtest.h>

#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "auth_engine/AuthFacade.h"
#include "support/CallbackRecorder.h"
#include "support/FakeDataProvider.h"
#include "support/TestClock.h"

namespace auth_engine {
namespace {

using testing::CallbackRecorder;
using testing::FakeDataProvider;

// Parks on its first pass and, resumed, returns what the host answered; records every request.
class Recorder : public IAuthProcessor {
public:
    AuthResult process(AuthContext& context, IDataProvider&) override {
        std::lock_guard<std::mutex> lock(mutex);
        seen.push_back(context);
        if (context.request.credential != "park") {
            return IGNORED;
        }
        if (context.pendingProcessor.empty()) {
            firstPass.set_value();
            return ASYNC_PENDING;
        }
        return context.response.result;
    }
    std::string getName() const override { return "Recorder"; }
    std::mutex mutex;
    std::vector<AuthContext> seen;
    std::promise<void> firstPass;
};

class Facade : public ::testing::Test {
protected:
    void TearDown() override { facade.reset(); }
    AuthFacade& facade = AuthFacade::getInstance();
    CallbackRecorder recorder;  // outlives the engine: TearDown resets it first
};

TEST_F(Facade, AnswersWithoutAnEngineBeforeInit) {
    const AuthResponse response = facade.authenticate("1234", OPEN_TYPE_PIN, READER_TYPE_INTERNAL);
    EXPECT_EQ(response.result, FAILED);
    EXPECT_EQ(response.failCode, 0);
    EXPECT_EQ(response.reason, "AuthFacade not initialized");
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
    testing::TestClock clock;
    ASSERT_EQ(facade.init(std::make_shared<FakeDataProvider>()), 0);
    EXPECT_TRUE(facade.isReady());
    EXPECT_EQ(facade.init(nullptr), 0);  // already running: kept
    auto probe = std::make_shared<Recorder>();
    facade.registerProcessor(probe);
    facade.setProcessorChain({"Recorder"});

    EXPECT_EQ(facade.authenticate("42", OPEN_TYPE_CARD, READER_TYPE_EXTERNAL_2).result, IGNORED);
    const std::string id =
        facade.authenticateAsync("43", OPEN_TYPE_FACE, READER_TYPE_EXTERNAL_1, recorder.callback());
    ASSERT_FALSE(id.empty());
    ASSERT_TRUE(recorder.waitFor(1));
    EXPECT_EQ(recorder.at(0).requestId, id);
    {
        std::lock_guard<std::mutex> lock(probe->mutex);
        ASSERT_EQ(probe->seen.size(), 2u);
        EXPECT_EQ(probe->seen[0].request.credential, "42");
        EXPECT_EQ(probe->seen[0].request.openType, OPEN_TYPE_CARD);
        EXPECT_EQ(probe->seen[0].request.readerType, READER_TYPE_EXTERNAL_2);
        EXPECT_TRUE(probe->seen[0].requestId.empty());
        EXPECT_EQ(probe->seen[1].request.readerType, READER_TYPE_EXTERNAL_1);
        for (const auto& context : probe->seen) {
            EXPECT_EQ(context.request.timestamp, clock.wall());
        }
    }

    // A synchronous attempt never parks: the pending result comes straight back, nobody is told.
    AuthRequest park;
    park.credential = "park";
    EXPECT_EQ(facade.authenticate(park).result, ASYNC_PENDING);

    facade.reset();
    EXPECT_FALSE(facade.isReady());
    EXPECT_EQ(facade.authenticate(AuthRequest()).reason, "AuthFacade not initialized");
    ASSERT_EQ(facade.init(std::make_shared<FakeDataProvider>()), 0);
    EXPECT_TRUE(facade.isReady());
    EXPECT_NE(facade.authenticate(AuthRequest()).reason, "AuthFacade not initialized");
    EXPECT_EQ(recorder.count(), 1u);
}

TEST_F(Facade, UnlockOptionsAnswerIsAHostAnswerById) {
    ASSERT_EQ(facade.init(std::make_shared<FakeDataProvider>()), 0);
    AuthRequest park;
    park.credential = "park";
    const std::vector<std::vector<std::string>> choices = {{}, {"2", "1"}};
    for (const auto& choice : choices) {
        auto probe = std::make_shared<Recorder>();
        facade.registerProcessor(probe);
        facade.setProcessorChain({"Recorder"});
        const std::string id = facade.authenticateAsync(park, recorder.callback());
        probe->firstPass.get_future().wait();
        facade.handleUnlockOptionsResponse(id, choice);
        ASSERT_TRUE(recorder.waitFor(choice.empty() ? 1 : 2));
    }
    const auto cancelled = recorder.at(0).response;
    EXPECT_EQ(cancelled.result, FAILED);
    EXPECT_EQ(cancelled.failCode, 44);
    EXPECT_EQ(cancelled.reason, "User canceled relay selection");
    EXPECT_EQ(recorder.at(1).response.result, SUCCESS);
    EXPECT_EQ(recorder.at(1).response.unlockOptionsRelays, (std::vector<std::string>{"2", "1"}));
}

}  // namespace
}  // namespace auth_engine
