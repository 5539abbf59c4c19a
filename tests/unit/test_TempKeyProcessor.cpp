#include <gtest/gtest.h>

#include "engine/AuthEngine.h"
#include "processors/TempKeyProcessor.h"
#include "support/CallbackRecorder.h"
#include "support/FakeDataProvider.h"
#include "support/LogCapture.h"
#include "support/TestClock.h"

namespace auth_engine {
namespace {

using processors::TempKeyProcessor;
using Relays = std::vector<std::string>;

// Without data: a first pass. With data: the context as the engine leaves it after the answer.
AuthContext tempKey(const std::string& key, std::shared_ptr<TempKeyAuthData> data = nullptr,
                    AuthResult result = SUCCESS, int failCode = 0) {
    AuthContext context;
    context.request.openType = OPEN_TYPE_TEMP_KEY;
    context.request.credential = key;
    context.requestId = "req_1";
    context.pendingProcessor = data ? "TempKey" : "";
    context.response.result = result;
    context.response.failCode = failCode;
    context.response.targets = {AuthTarget{0, "1"}};
    context.tempKeyAuthData = std::move(data);
    return context;
}

TEST(TempKeyProcessor, FirstPassAsksOrFails) {
    testing::FakeDataProvider provider;
    testing::LogCapture log;
    AuthContext card = tempKey("K1"), empty = tempKey(""), unsent = tempKey("K1");
    card.request.openType = OPEN_TYPE_CARD;
    EXPECT_EQ(TempKeyProcessor().process(card, provider), CONTINUE);
    EXPECT_EQ(TempKeyProcessor().process(empty, provider), FAILED);
    EXPECT_EQ(empty.response.reason, "Temp key is empty");
    EXPECT_TRUE(provider.calls().empty());
    provider.tempKeySendOk = false;
    EXPECT_EQ(TempKeyProcessor().process(unsent, provider), FAILED);
    EXPECT_EQ(unsent.response.failCode, 24);
    EXPECT_EQ(unsent.response.reason, "Temp key request failed");

    provider.tempKeySendOk = true;
    AuthContext sent = tempKey("K1");
    EXPECT_EQ(TempKeyProcessor().process(sent, provider), ASYNC_PENDING);
    EXPECT_EQ(sent.response.result, ASYNC_PENDING);
    EXPECT_TRUE(log.contains("request sent, result=ASYNC_PENDING"));
    provider.answer(0, SUCCESS);  // without an engine the callback exists and drops the answer
}

TEST(TempKeyProcessor, RefusedAnswersFailWithoutTargets) {
    testing::FakeDataProvider provider;
    testing::LogCapture log;
    auto denied = std::make_shared<TempKeyAuthData>();
    denied->failCode = 7;
    const auto none = std::make_shared<TempKeyAuthData>();
    AuthContext byCode = tempKey("K1", denied), hostFailed = tempKey("K1", none, FAILED, 0),
                codeOnly = tempKey("K1", none, SUCCESS, 9), noData = tempKey("K1", none),
                unknownUser = tempKey("K1", none);
    hostFailed.response.reason = "Key expired";
    noData.tempKeyAuthData.reset();  // the host answered without data: never asked again
    for (AuthContext* context : {&byCode, &hostFailed, &codeOnly, &noData, &unknownUser}) {
        EXPECT_EQ(TempKeyProcessor().process(*context, provider), FAILED);
        EXPECT_EQ(context->response.result, FAILED);
    }
    EXPECT_EQ(byCode.response.failCode, 7);
    EXPECT_EQ(byCode.response.reason, "Temp key dclient denied");
    EXPECT_TRUE(byCode.response.targets.empty());
    EXPECT_TRUE(log.contains("dclient failCode=7, result=FAILED"));
    EXPECT_EQ(hostFailed.response.failCode, 1);
    EXPECT_EQ(hostFailed.response.reason, "Key expired");
    EXPECT_TRUE(hostFailed.response.targets.empty());
    EXPECT_EQ(codeOnly.response.failCode, 9);
    EXPECT_EQ(noData.response.failCode, 24);
    EXPECT_EQ(provider.callCount("requestTempKey"), 0);
    EXPECT_EQ(unknownUser.response.reason, "Temp key user not found");
    EXPECT_FALSE(unknownUser.userData);
}

TEST(TempKeyProcessor, AcceptedKeyBecomesUserTargetsAndFlags) {
    testing::FakeDataProvider provider;
    provider.tempKeyUsers["K1"].userId = "u7";
    provider.tempKeyTargets = {AuthTarget{0, "4"}};
    testing::LogCapture log;
    const auto data = std::make_shared<TempKeyAuthData>();  // empty key: the credential is the key
    data->userText = "visitor";
    data->requestText = "delivery";
    data->userText2 = "floor 3";
    data->sourceCode = 4;
    // Only relay kinds with an id become relays, once each, after the relays already there.
    data->targets = {AuthTarget{2, "9"}, AuthTarget{0, ""}, AuthTarget{1, "SA"}, AuthTarget{0, "1"},
                     AuthTarget{0, "SA"}};
    AuthContext context = tempKey("K1", data);
    context.relays = {"1"};
    context.authTargets = {AuthTarget{0, "2"}};

    EXPECT_EQ(TempKeyProcessor().process(context, provider), CONTINUE);
    EXPECT_TRUE(data->key.empty());  // the answer object shared with the host is left alone
    EXPECT_EQ(context.request.userText + "|" + context.request.requestText + "|" +
                  context.request.userText2,
              "visitor|delivery|floor 3");
    EXPECT_EQ(context.request.sourceCode, 4);
    ASSERT_TRUE(context.userData);
    EXPECT_EQ(context.userData->userId + "|" + context.userData->userText2, "u7|floor 3");
    EXPECT_EQ(context.response.user, context.userData);
    EXPECT_EQ(context.relays, (Relays{"1", "SA"}));
    EXPECT_TRUE(context.skipUserLookup && context.skipUnlockType);
    EXPECT_TRUE(context.request.virtualDoorSkipRelaySchedule);
    EXPECT_TRUE(log.contains("key=K1, targets=5, result=CONTINUE"));

    // With no targets in the answer: the context's, then the request's, then the host's defaults.
    AuthContext fromContext = tempKey("K1", std::make_shared<TempKeyAuthData>());
    fromContext.authTargets = {AuthTarget{0, "2"}};
    fromContext.request.targets = {AuthTarget{0, "3"}};
    AuthContext fromRequest = fromContext;
    fromRequest.authTargets.clear();
    AuthContext fromProvider = fromRequest;
    fromProvider.request.targets.clear();
    for (AuthContext* fallback : {&fromContext, &fromRequest, &fromProvider}) {
        EXPECT_EQ(TempKeyProcessor().process(*fallback, provider), CONTINUE);
    }
    EXPECT_EQ(fromContext.relays, (Relays{"2"}));
    EXPECT_EQ(fromRequest.relays, (Relays{"3"}));
    EXPECT_EQ(fromProvider.relays, (Relays{"4"}));
    EXPECT_EQ(provider.callCount("getTempKeyTargets"), 1);
}

// The host answers under its own handle: the answer must reach the request that asked, whether it
// comes from inside the question or later.
TEST(TempKeyProcessor, AnswerRoutedToTheAskingRequestInlineOrLater) {
    testing::TestClock clock;  // frozen: the short temp-key wait never expires under test
    auto provider = std::make_shared<testing::FakeDataProvider>();
    provider->tempKeyUsers["K1"] = UserData();
    AuthContext update;
    update.tempKeyAuthData = std::make_shared<TempKeyAuthData>();
    update.tempKeyAuthData->targets = {AuthTarget{0, "2"}};
    testing::CallbackRecorder recorder;  // outlives the engine that calls it
    AuthEngine engine;
    ASSERT_EQ(engine.init(provider), 0);
    engine.setProcessorChain({"TempKey"});
    AuthRequest request;
    request.openType = OPEN_TYPE_TEMP_KEY;
    request.credential = "K1";

    EXPECT_EQ(engine.authenticate(request, recorder.callback(), "later").result, ASYNC_PENDING);
    provider->answer(0, SUCCESS, 0, update);
    {
        const auto lock = provider->lock();
        provider->answerTempKey = [&](testing::FakeDataProvider::Question& question) {
            AuthResponse response;
            response.result = SUCCESS;
            question.callback(question.handle, response, update);
        };
    }
    EXPECT_EQ(engine.authenticate(request, recorder.callback(), "inline").result, ASYNC_PENDING);
    ASSERT_TRUE(recorder.waitFor(2));
    ASSERT_TRUE(engine.waitForIdle(5000));
    for (const char* id : {"later", "inline"}) {
        ASSERT_EQ(recorder.forId(id).size(), 1u) << id;
        EXPECT_EQ(recorder.forId(id)[0].response.result, SUCCESS) << id;
        EXPECT_EQ(recorder.forId(id)[0].response.openedRelays, (Relays{"2"})) << id;
    }
    EXPECT_EQ(engine.parkedChainCount(), 0u);
}

}  // namespace
}  // namespace auth_engine
