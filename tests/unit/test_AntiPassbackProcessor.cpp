#include <gtest/gtest.h>

#include "engine/AuthEngine.h"
#include "processors/AntiPassbackProcessor.h"
#include "support/FakeDataProvider.h"
#include "support/LogCapture.h"

namespace auth_engine {
namespace {

using processors::AntiPassbackProcessor;
using Relays = std::vector<std::string>;

AuthContext user(int userType, const Relays& relays, const std::string& requestId) {
    AuthContext context;
    context.userData = std::make_shared<UserData>();
    context.userData->userType = userType;
    context.relays = relays;
    context.requestId = requestId;
    return context;
}

struct AntiPassbackProcessorTest : ::testing::Test {
    void SetUp() override {
        provider.config.antiPassbackEnabled = true;
        provider.config.antiPassbackRelayMap = {{"1", 1}, {"2", 2}, {"3", 0}};
        processor.setEngine(&engine);
    }
    testing::FakeDataProvider provider;
    AuthEngine engine;  // never initialised: only its sub-request registry is used
    AntiPassbackProcessor processor;
    testing::LogCapture log;
};

TEST_F(AntiPassbackProcessorTest, IneligibleRequestsPassWithoutAsking) {
    AuthContext remote = user(1, {"1"}, "r"), noUser = user(1, {"1"}, "r"),
                visitor = user(3, {"1"}, "r"), unchecked = user(2, {"3", "4"}, "r");
    remote.request.openType = OPEN_TYPE_REMOTE_CONTROL;
    noUser.userData.reset();
    for (AuthContext* context : {&remote, &noUser, &visitor}) {
        EXPECT_EQ(processor.process(*context, provider), CONTINUE);
        EXPECT_EQ(processor.processRelays(*context, provider, {"1"}), CONTINUE);
    }
    EXPECT_EQ(processor.process(unchecked, provider), CONTINUE);
    EXPECT_TRUE(log.contains("skip for remote control"));
    EXPECT_EQ(log.count("user is not eligible"), 2);
    EXPECT_TRUE(log.contains("result=CONTINUE, no relay needs anti-passback"));
    provider.config.antiPassbackEnabled = false;
    AuthContext disabled = user(1, {"1"}, "r");
    EXPECT_EQ(processor.process(disabled, provider), CONTINUE);
    EXPECT_EQ(processor.processRelays(disabled, provider, {"1"}), CONTINUE);
    EXPECT_TRUE(log.contains("result=CONTINUE, disabled"));
    EXPECT_EQ(provider.callCount("requestAntiPassback"), 0);
}

TEST_F(AntiPassbackProcessorTest, WithoutRequestIdAsksWithoutCallback) {
    AuthContext online = user(1, {"1", "3", "2"}, ""), offline = user(1, {"1", "2"}, "");
    EXPECT_EQ(processor.process(online, provider), ASYNC_PENDING);
    EXPECT_EQ(online.response.reason, "Anti-passback verification pending (no callback)");
    provider.offlineRelays = {"2"};
    EXPECT_EQ(processor.process(offline, provider), CONTINUE);
    EXPECT_EQ(offline.response.reason, "Anti-passback check skipped (offline mode)");
    // The independent variant asks once per relay, each time about the whole list.
    EXPECT_EQ(processor.processRelays(online, provider, {"1", "3"}), CONTINUE);

    const auto questions = provider.questions();
    ASSERT_EQ(questions.size(), 4u);
    EXPECT_EQ(questions[0].relay, "1,2");
    EXPECT_EQ(questions[3].relay, "1,3");
    for (const auto& question : questions) {
        EXPECT_FALSE(question.callback);
    }
    EXPECT_EQ(engine.subRequestCount(), 0u);
}

TEST_F(AntiPassbackProcessorTest, OneSubRequestPerRelayRegisteredBeforeAsking) {
    provider.offlineRelays = {"2"};
    Relays parentsAtFirstQuestion;
    provider.answerAntiPassback = [&](testing::FakeDataProvider::Question&) {
        if (parentsAtFirstQuestion.empty()) {
            parentsAtFirstQuestion = {engine.subRequestParent("req_9_ap_1"),
                                      engine.subRequestParent("req_9_ap_2")};
        }
    };
    AuthContext context = user(1, {"1", "3", "2", "1"}, "req_9");
    EXPECT_EQ(processor.process(context, provider), ASYNC_PENDING);
    EXPECT_EQ(parentsAtFirstQuestion, (Relays{"req_9", "req_9"}));
    const auto questions = provider.questions();
    ASSERT_EQ(questions.size(), 2u);
    EXPECT_EQ(questions[0].relay, "1");  // narrowed to the relay being asked, then restored
    EXPECT_TRUE(questions[0].callback);
    EXPECT_EQ(context.antiPassbackRelays, (Relays{"1", "2"}));
    EXPECT_EQ(context.antiPassbackDirections, provider.config.antiPassbackRelayMap);
    EXPECT_EQ(context.antiPassbackPending, 1);
    EXPECT_TRUE(context.antiPassbackResults.at("2").answered);
    EXPECT_FALSE(context.antiPassbackResults.at("1").answered);
    EXPECT_TRUE(log.contains("relay=2 offline, skipped"));
    EXPECT_TRUE(log.contains("relay=1 request sent, subRequestId=req_9_ap_1"));
    EXPECT_TRUE(log.contains("result=ASYNC_PENDING, pending=1"));

    provider.offlineRelays = {"1", "2", "3"};
    AuthContext allOffline = user(1, {"1", "2"}, "req_10");
    EXPECT_EQ(processor.process(allOffline, provider), CONTINUE);
    EXPECT_EQ(allOffline.response.reason, "Anti-passback check skipped (all relays offline)");
    // The independent variant asks about the given relays unfiltered and logs nothing.
    log.clear();
    EXPECT_EQ(processor.processRelays(allOffline, provider, {"3"}), CONTINUE);
    EXPECT_TRUE(allOffline.antiPassbackResults.at("3").answered);
    provider.offlineRelays.clear();
    EXPECT_EQ(processor.processRelays(allOffline, provider, {"3"}), ASYNC_PENDING);
    EXPECT_EQ(engine.subRequestParent("req_10_ap_3"), "req_10");
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(AntiPassbackProcessorTest, SumsUpAnswersInRelayIdOrder) {
    auto answered = [](const std::map<std::string, int>& statuses) {
        AuthContext context = user(1, {"SA", "3", "2", "1"}, "r");
        for (const auto& entry : statuses) {
            context.antiPassbackResults[entry.first] = {entry.first, entry.second, true};
        }
        return context;
    };
    AuthContext mixed = answered({{"SA", FAILED}, {"2", CONTINUE}, {"1", ASYNC_PENDING}});
    EXPECT_EQ(processor.process(mixed, provider), CONTINUE);
    EXPECT_EQ(mixed.relays, (Relays{"3", "2"}));  // relay 3 was never asked and stays
    EXPECT_EQ(mixed.failedRelays, (Relays{"1", "SA"}));
    EXPECT_EQ(mixed.response.failedRelays, (Relays{"1", "SA"}));
    EXPECT_EQ(mixed.response.failCode, 5);
    EXPECT_EQ(mixed.relayFailReasons.at("SA"), "AntiPassback");
    EXPECT_TRUE(log.contains("resume result=CONTINUE, passed=1 failed=2"));

    AuthContext allFailed = answered({{"1", FAILED}, {"2", 7}});
    EXPECT_EQ(processor.process(allFailed, provider), FAILED);
    EXPECT_EQ(allFailed.response.reason, "Anti-passback failed for all relays");
    EXPECT_EQ(provider.callCount("getAuthConfig"), 0);
}

}  // namespace
}  // namespace auth_engine
