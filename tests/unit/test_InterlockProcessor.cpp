#include <gtest/gtest.h>

#include "engine/AuthEngine.h"
#include "processors/InterlockProcessor.h"
#include "support/FakeDataProvider.h"

namespace auth_engine {
namespace {

using processors::InterlockProcessor;
using Relays = std::vector<std::string>;

struct InterlockProcessorTest : ::testing::Test {
    void SetUp() override { processor.setEngine(&engine); }
    Relays asked() {
        Relays relays;
        for (const auto& question : provider.questions()) {
            relays.push_back(question.relay);
        }
        return relays;
    }
    testing::FakeDataProvider provider;
    AuthEngine engine;  // never initialised: only its sub-request registry is used
    InterlockProcessor processor;
    AuthContext context;
};

TEST_F(InterlockProcessorTest, ChainAsksOnlyInterlockedRelays) {
    context.relays = {"1", "2", "3"};
    context.requestId = "r";
    EXPECT_EQ(processor.process(context, provider), CONTINUE);  // disabled
    provider.config.interlockEnabled = true;
    provider.config.interlockRelayMap = {{"1", false}, {"4", true}};
    EXPECT_EQ(processor.process(context, provider), CONTINUE);
    EXPECT_EQ(processor.processRelays(context, provider, {}), CONTINUE);
    EXPECT_TRUE(asked().empty());

    provider.config.interlockRelayMap = {{"3", true}, {"1", true}, {"2", false}};
    EXPECT_EQ(processor.process(context, provider), ASYNC_PENDING);
    EXPECT_EQ(asked(), (Relays{"1", "3"}));
    EXPECT_EQ(context.interlockCheckRelays, (Relays{"1", "3"}));
    EXPECT_EQ(context.interlockRequestedRelays, (Relays{"1", "3"}));
    EXPECT_EQ(context.interlockPending, 2);
    EXPECT_EQ(context.response.reason, "Interlock verification pending");
}

TEST_F(InterlockProcessorTest, OfflineRelaysFailAndAllOfflineFailsTheCheck) {
    provider.offlineRelays = {"2"};
    context.requestId = "req_5";
    EXPECT_EQ(processor.processRelays(context, provider, {"1", "2", "SA"}), ASYNC_PENDING);
    EXPECT_EQ(context.interlockPending, 2);
    EXPECT_EQ(context.relayFailReasons, (std::map<std::string, std::string>{{"2", "Interlock"}}));
    EXPECT_TRUE(context.interlockResults.at("2").answered);
    EXPECT_EQ(context.interlockResults.at("2").status, FAILED);
    EXPECT_FALSE(context.interlockResults.at("SA").answered);
    EXPECT_EQ(engine.subRequestParent("req_5_il_SA"), "req_5");
    EXPECT_TRUE(context.failedRelays.empty());
    EXPECT_TRUE(provider.questions()[0].callback);

    provider.offlineRelays = {"1", "2"};
    AuthContext allOffline;
    allOffline.requestId = "req_6";
    EXPECT_EQ(processor.processRelays(allOffline, provider, {"1", "2"}), FAILED);
    EXPECT_EQ(allOffline.response.result, FAILED);
    EXPECT_EQ(allOffline.response.failCode, 21);
    EXPECT_EQ(allOffline.response.reason, "Interlock request failed");
    EXPECT_EQ(allOffline.response.failedRelays, (Relays{"1", "2"}));
    EXPECT_EQ(allOffline.failedRelays, (Relays{"1", "2"}));
}

TEST_F(InterlockProcessorTest, RetryAsksOnlyUnansweredRelays) {
    context.requestId = "req_7";
    ASSERT_EQ(processor.processRelays(context, provider, {"1", "2", "3"}), ASYNC_PENDING);
    context.interlockResults["1"].answered = true;  // as the engine records an answer
    context.interlockPending = 2;
    provider.clearLog();

    provider.offlineRelays = {"3"};
    EXPECT_EQ(processor.retryPendingRelays(context, provider, {"1", "2", "3", "9"}), ASYNC_PENDING);
    EXPECT_EQ(asked(), (Relays{"2", "3"}));
    EXPECT_EQ(context.interlockPending, 1);
    EXPECT_EQ(context.relayFailReasons.at("3"), "Interlock");
    EXPECT_EQ(engine.subRequestParent("req_7_il_2"), "req_7");

    provider.offlineRelays = {"2"};
    EXPECT_EQ(processor.retryPendingRelays(context, provider, {"2"}), FAILED);
    EXPECT_EQ(context.interlockPending, 0);
    provider.clearLog();
    EXPECT_EQ(processor.retryPendingRelays(context, provider, {"1", "2", "3"}), FAILED);
    EXPECT_TRUE(asked().empty());
}

}  // namespace
}  // namespace auth_engine
