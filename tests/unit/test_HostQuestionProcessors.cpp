// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// The processors that ask the host a question and wait for its answer: anti-passback, interlock,
// parking restriction and temporary keys.
#include <gtest/gtest.h>

#include <tuple>
#include <utility>

#include "engine/AuthEngine.h"
#include "engine/QuestionIds.h"
#include "processors/AntiPassbackProcessor.h"
#include "processors/InterlockProcessor.h"
#include "processors/ParkingRestrictionProcessor.h"
#include "processors/TempKeyProcessor.h"
#include "support/ProcessorTest.h"

namespace auth_engine {
namespace {

using namespace testing;  // NOLINT(google-build-using-namespace)

// A processor whose sub-requests go to an engine that is never initialised: only its sub-request
// registry is used. A question is registered only for a request the engine holds: `own` parks one.
template <class Processor>
class WithEngine : public ProcessorTest<Processor> {
protected:
    WithEngine() { this->processor.setEngine(&engine); }
    void own(const std::string& requestId) {
        engine.saveAsyncContext(requestId, AuthContext(), ASYNC_TYPE_SYNC, AuthCallback());
    }
    AuthEngine engine;
};

// The questions the host was asked, in order: what each was about ("*" when it carries an answer
// callback), separated by '|'.
std::string questionsOf(FakeDataProvider& provider) {
    std::string text;
    for (const auto& question : provider.questions()) {
        text += (text.empty() ? "" : "|") + question.relay + (question.callback ? "*" : "");
    }
    return text;
}

// ---- anti-passback ----

AuthContext passer(int userType, const Relays& relays, const std::string& requestId) {
    return attempt(OPEN_TYPE_NONE, relays, person("", userType), requestId);
}

class AntiPassbackProcessor : public WithEngine<processors::AntiPassbackProcessor> {
protected:
    AntiPassbackProcessor() {
        provider.config.antiPassbackEnabled = true;
        provider.config.antiPassbackRelayMap = {{"1", 1}, {"2", 2}, {"3", 0}};
    }
};

// An answer id is read back as the question it was made for, and nothing else reads as one: an
// answer for another request, or an id that only starts like a question, routes nowhere.
TEST(QuestionIds, AnswerIdsReadBackAsTheirQuestions) {
    using Q = RelayQuestion;
    const std::tuple<std::string, Q::Kind, std::string> cases[] = {
        {antiPassbackQuestionId("req_1", "2"), Q::ANTI_PASSBACK, "2"},
        {interlockQuestionId("req_1", "10"), Q::INTERLOCK, "10"},
        {interlockQuestionId(relayPhaseId("req_1", "interlock"), "1"), Q::NONE, ""},
        {antiPassbackQuestionId("req_12", "1"), Q::NONE, ""},
        {relayPhaseId("req_1", "antipassback"), Q::NONE, ""},
        {"req_1_ap", Q::NONE, ""},
        {"req_1", Q::NONE, ""},
    };
    for (const auto& [id, kind, relay] : cases) {
        const RelayQuestion question = relayQuestionOf(id, "req_1");
        EXPECT_EQ(std::make_pair(question.kind, question.relay), std::make_pair(kind, relay)) << id;
    }
}

TEST_F(AntiPassbackProcessor, IneligibleRequestsPassWithoutAsking) {
    AuthContext remote = passer(1, {"1"}, "r"), noUser = passer(1, {"1"}, "r");
    remote.request.openType = OPEN_TYPE_REMOTE_CONTROL;
    noUser.userData.reset();
    for (AuthContext context : {remote, noUser, passer(3, {"1"}, "r")}) {
        EXPECT_EQ(run(context), CONTINUE);
        EXPECT_EQ(processor.processRelays(context, provider, {"1"}), CONTINUE);
    }
    EXPECT_EQ(run(passer(2, {"3", "4"}, "r")), CONTINUE);  // no relay needs anti-passback
    provider.config.antiPassbackEnabled = false;
    AuthContext disabled = passer(1, {"1"}, "r");
    EXPECT_EQ(run(disabled), CONTINUE);
    EXPECT_EQ(processor.processRelays(disabled, provider, {"1"}), CONTINUE);
    EXPECT_EQ(provider.callCount("requestAntiPassback"), 0);
}

TEST_F(AntiPassbackProcessor, WithoutRequestIdAsksWithoutCallback) {
    AuthContext online = passer(1, {"1", "3", "2"}, ""), offline = passer(1, {"1", "2"}, "");
    EXPECT_EQ(
        decide(online),
        "ASYNC_PENDING/CONTINUE 0 'Anti-passback verification pending (no callback)' [1,3,2] []");
    provider.offlineRelays = {"2"};
    EXPECT_EQ(decide(offline), "CONTINUE 0 'Anti-passback check skipped (offline mode)' [1,2] []");
    // The independent variant asks once per relay, each time about the whole list.
    EXPECT_EQ(processor.processRelays(online, provider, {"1", "3"}), CONTINUE);
    EXPECT_EQ(questionsOf(provider), "1,2|1,2|1,3|1,3");
    EXPECT_EQ(engine.subRequestCount(), 0u);
}

TEST_F(AntiPassbackProcessor, OneSubRequestPerRelayRegisteredBeforeAsking) {
    provider.offlineRelays = {"2"};
    Relays parentsAtFirstQuestion;
    provider.answerAntiPassback = [&](FakeDataProvider::Question&) {
        if (parentsAtFirstQuestion.empty()) {
            parentsAtFirstQuestion = {engine.subRequestParent("req_9_ap_1"),
                                      engine.subRequestParent("req_9_ap_2")};
        }
    };
    own("req_9");
    AuthContext context = passer(1, {"1", "3", "2", "1"}, "req_9");
    EXPECT_EQ(run(context), ASYNC_PENDING);
    EXPECT_EQ(parentsAtFirstQuestion, (Relays{"req_9", "req_9"}));
    EXPECT_EQ(questionsOf(provider), "1*|2*");  // narrowed to the relay asked, then restored
    EXPECT_EQ(context.antiPassbackRelays, (Relays{"1", "2"}));
    EXPECT_EQ(context.antiPassbackDirections, provider.config.antiPassbackRelayMap);
    EXPECT_EQ(pendingOf(context.antiPassbackPending, context.antiPassbackResults), "1 1:1 2:1a");
    EXPECT_TRUE(log.contains("relay=2 offline, skipped"));
    EXPECT_TRUE(log.contains("relay=1 request sent, subRequestId=req_9_ap_1"));

    provider.offlineRelays = {"1", "2", "3"};
    AuthContext allOffline = passer(1, {"1", "2"}, "req_10");
    EXPECT_EQ(decide(allOffline),
              "CONTINUE 0 'Anti-passback check skipped (all relays offline)' [1,2] []");
    // The independent variant asks about the given relays unfiltered and logs nothing.
    log.clear();
    EXPECT_EQ(processor.processRelays(allOffline, provider, {"3"}), CONTINUE);
    EXPECT_TRUE(allOffline.antiPassbackResults.at("3").answered);
    provider.offlineRelays.clear();
    EXPECT_EQ(processor.processRelays(allOffline, provider, {"3"}), ASYNC_PENDING);
    EXPECT_EQ(engine.subRequestParent("req_10_ap_3"), "");  // no such request: nothing kept
    own("req_10");
    EXPECT_EQ(processor.processRelays(allOffline, provider, {"3"}), ASYNC_PENDING);
    EXPECT_EQ(engine.subRequestParent("req_10_ap_3"), "req_10");
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(AntiPassbackProcessor, SumsUpAnswersInRelayIdOrder) {
    auto answered = [](const std::map<std::string, int>& statuses) {
        AuthContext context = passer(1, {"SA", "3", "2", "1"}, "r");
        context.pendingProcessor = "AntiPassback";  // resumed with the answers
        for (const auto& entry : statuses) {
            context.antiPassbackResults[entry.first] = {entry.first, entry.second, true};
        }
        return context;
    };
    // Relay 3 was never asked and stays.
    EXPECT_EQ(decide(answered({{"SA", FAILED}, {"2", CONTINUE}, {"1", ASYNC_PENDING}})),
              "CONTINUE 5 '' [3,2] [1,SA] {1:AntiPassback,SA:AntiPassback} failed[1,SA]");
    EXPECT_EQ(decide(answered({{"1", FAILED}, {"2", 7}})),
              "FAILED/CONTINUE 5 'Anti-passback failed for all relays' [SA,3,2,1] [1,2] "
              "{1:AntiPassback,2:AntiPassback} failed[1,2]");
    EXPECT_EQ(provider.callCount("getAuthConfig"), 0);
}

// ---- interlock ----

class InterlockProcessor : public WithEngine<processors::InterlockProcessor> {
protected:
    AuthContext context;
};

TEST_F(InterlockProcessor, ChainAsksOnlyInterlockedRelays) {
    context.relays = {"1", "2", "3"};
    context.requestId = "r";
    EXPECT_EQ(run(context), CONTINUE);  // disabled
    provider.config.interlockEnabled = true;
    provider.config.interlockRelayMap = {{"1", false}, {"4", true}};
    EXPECT_EQ(run(context), CONTINUE);
    EXPECT_EQ(processor.processRelays(context, provider, {}), CONTINUE);
    EXPECT_EQ(questionsOf(provider), "");

    provider.config.interlockRelayMap = {{"3", true}, {"1", true}, {"2", false}};
    EXPECT_EQ(decide(context),
              "ASYNC_PENDING/CONTINUE 0 'Interlock verification pending' [1,2,3] []");
    EXPECT_EQ(questionsOf(provider) + " " + joinRelayVector(context.interlockCheckRelays) + " " +
                  joinRelayVector(context.interlockRequestedRelays) + " " +
                  pendingOf(context.interlockPending, context.interlockResults),
              "1*|3* 1,3 1,3 2 1:1 3:1");
}

TEST_F(InterlockProcessor, OfflineRelaysFailAndAllOfflineFailsTheCheck) {
    provider.offlineRelays = {"2"};
    context.requestId = "req_5";
    own("req_5");
    EXPECT_EQ(processor.processRelays(context, provider, {"1", "2", "SA"}), ASYNC_PENDING);
    EXPECT_EQ(outcome(ASYNC_PENDING, context),
              "ASYNC_PENDING/CONTINUE 0 'Interlock verification pending' [] [] {2:Interlock}");
    EXPECT_EQ(pendingOf(context.interlockPending, context.interlockResults), "2 1:1 2:1a SA:1");
    EXPECT_EQ(engine.subRequestParent("req_5_il_SA"), "req_5");
    EXPECT_EQ(questionsOf(provider), "1*|2*|SA*");

    provider.offlineRelays = {"1", "2"};
    AuthContext allOffline = attempt(OPEN_TYPE_NONE, {}, nullptr, "req_6");
    EXPECT_EQ(outcome(processor.processRelays(allOffline, provider, {"1", "2"}), allOffline),
              "FAILED 21 'Interlock request failed' [] [1,2] {1:Interlock,2:Interlock} "
              "failed[1,2]");
}

TEST_F(InterlockProcessor, RetryAsksOnlyUnansweredRelaysAndOnlySuccessOpens) {
    context.requestId = "req_7";
    own("req_7");
    ASSERT_EQ(processor.processRelays(context, provider, {"1", "2", "3"}), ASYNC_PENDING);
    context.interlockResults["1"].answered = true;  // as the engine records an answer
    context.interlockPending = 2;
    provider.clearLog();

    provider.offlineRelays = {"3"};
    EXPECT_EQ(processor.retryPendingRelays(context, provider, {"1", "2", "3", "9"}), ASYNC_PENDING);
    EXPECT_EQ(questionsOf(provider) + " " + std::to_string(context.interlockPending), "2*|3* 1");
    EXPECT_EQ(context.relayFailReasons.at("3"), "Interlock");
    EXPECT_EQ(engine.subRequestParent("req_7_il_2"), "req_7");

    provider.offlineRelays = {"2"};
    EXPECT_EQ(processor.retryPendingRelays(context, provider, {"2"}), FAILED);
    EXPECT_EQ(context.interlockPending, 0);
    provider.clearLog();
    EXPECT_EQ(processor.retryPendingRelays(context, provider, {"1", "2", "3"}), FAILED);
    EXPECT_EQ(questionsOf(provider), "");

    // Resumed with the answers: only an answered SUCCESS opens; the rest stays open while any relay
    // does.
    context = attempt(OPEN_TYPE_NONE, {"1", "2", "3"}, nullptr, "r");
    context.pendingProcessor = chain::INTERLOCK;
    context.interlockResults = {
        {"1", {"1", SUCCESS, true}}, {"2", {"2", FAILED, true}}, {"3", {"3", SUCCESS, false}}};
    EXPECT_EQ(decide(context), "CONTINUE 21 '' [1] [2,3] {2:Interlock,3:Interlock} failed[2,3]");
}

// ---- parking restriction ----

// A vehicle of `userType` at relay 1; with a result, resumed with the host's answer.
AuthContext plate(int userType, const std::string& requestId,
                  OpenDoorType openType = OPEN_TYPE_LICENSE_PLATE, AuthResult result = CONTINUE,
                  int failCode = 0) {
    AuthContext context = attempt(openType, {"1"}, person("", userType), requestId);
    context.response.result = result;
    context.response.failCode = failCode;
    context.pendingProcessor = result == CONTINUE ? "" : "ParkingRestriction";
    return context;
}

using ParkingRestrictionProcessor = ProcessorTest<processors::ParkingRestrictionProcessor>;

TEST_F(ParkingRestrictionProcessor, DecidesWithoutAskingWhenItCan) {
    AuthContext disabled = plate(1, "r");
    EXPECT_EQ(run(disabled), CONTINUE);
    EXPECT_EQ(processor.processRelays(disabled, provider, {"1"}), CONTINUE);
    provider.config.parkingRestrictionEnabled = true;

    // PIN opens pass before the resume test, even carrying a refusal; a resumed SUCCESS passes.
    for (AuthContext context : {plate(1, "r", OPEN_TYPE_PUBLIC_PIN, FAILED, 23),
                                plate(1, "r", OPEN_TYPE_LATCH_PIN, FAILED, 23),
                                plate(1, "r", OPEN_TYPE_LICENSE_PLATE, SUCCESS)}) {
        EXPECT_EQ(run(context), CONTINUE) << context.request.openType;
    }
    // Without a user, of kind 2 or not a plate: not asked in the independent variant either.
    AuthContext noUser = plate(1, "r");
    noUser.userData.reset();
    for (AuthContext context : {plate(2, "r"), plate(1, "r", OPEN_TYPE_CARD), noUser}) {
        EXPECT_EQ(run(context), CONTINUE);
        EXPECT_EQ(processor.processRelays(context, provider, {"1"}), CONTINUE);
    }
    EXPECT_EQ(run(plate(1, "r", OPEN_TYPE_LICENSE_PLATE, FAILED, 23)), FAILED);
    // Any other answer refuses too, as a parking refusal.
    EXPECT_EQ(decide(plate(1, "r", OPEN_TYPE_LICENSE_PLATE, FAILED, 0)), "FAILED 23 '' [1] []");
    EXPECT_EQ(provider.callCount("requestParking"), 0);

    // A SUCCESS that an earlier processor left in the response is no answer to this question.
    AuthContext earlier = plate(1, "r");
    earlier.response.result = SUCCESS;
    earlier.pendingProcessor = "TempKey";
    EXPECT_EQ(run(earlier), ASYNC_PENDING);
    EXPECT_EQ(provider.callCount("requestParking"), 1);
}

TEST_F(ParkingRestrictionProcessor, AsksOnceAndPassesWhenTheHostIsOffline) {
    provider.config.parkingRestrictionEnabled = true;
    EXPECT_EQ(decide(plate(1, "req_3")),
              "ASYNC_PENDING/CONTINUE 0 'Parking restriction check pending' [1] []");
    EXPECT_EQ(decide(plate(1, "")),
              "ASYNC_PENDING/CONTINUE 0 'Parking restriction check pending (no callback)' [1] []");
    // The independent variant waits only when an answer can be routed back.
    AuthContext phase = plate(1, "req_1_ind_parking"), quiet = plate(1, "");
    EXPECT_EQ(processor.processRelays(phase, provider, {"2"}), ASYNC_PENDING);
    EXPECT_EQ(processor.processRelays(quiet, provider, {"2"}), CONTINUE);
    EXPECT_TRUE(phase.response.reason.empty());
    // The host reads the context's relays, not the list.
    EXPECT_EQ(questionsOf(provider), "1*|1|1*|1");

    provider.parkingOffline = true;
    for (const std::string id : {"req_4", ""}) {
        AuthContext offline = plate(1, id);
        EXPECT_EQ(decide(offline),
                  "CONTINUE 0 'Parking restriction check skipped (offline mode)' [1] []");
        EXPECT_EQ(processor.processRelays(offline, provider, {"1"}), CONTINUE);
    }
}

// ---- temporary keys ----

// Without data: a first pass. With data: the context as the engine leaves it after the answer.
AuthContext tempKey(const std::string& key, std::shared_ptr<TempKeyAuthData> data = nullptr,
                    AuthResult result = SUCCESS, int failCode = 0) {
    AuthContext context = presenting(OPEN_TYPE_TEMP_KEY, key);
    context.requestId = "req_1";
    context.pendingProcessor = data ? "TempKey" : "";
    context.response.result = result;
    context.response.failCode = failCode;
    context.response.targets = {AuthTarget{0, "1"}};
    context.tempKeyAuthData = std::move(data);
    return context;
}

using TempKeyProcessor = ProcessorTest<processors::TempKeyProcessor>;

TEST_F(TempKeyProcessor, FirstPassAsksOrFails) {
    AuthContext card = tempKey("K1");
    card.request.openType = OPEN_TYPE_CARD;
    EXPECT_EQ(run(card), CONTINUE);
    EXPECT_EQ(decide(tempKey("")), "FAILED 1 'Temp key is empty' [] []");
    EXPECT_TRUE(provider.calls().empty());
    provider.tempKeySendOk = false;
    EXPECT_EQ(decide(tempKey("K1")), "FAILED 24 'Temp key request failed' [] []");
    provider.tempKeySendOk = true;
    EXPECT_EQ(decide(tempKey("K1")), "ASYNC_PENDING 0 '' [] []");
    provider.answer(0, SUCCESS);  // without an engine the callback exists and drops the answer
}

TEST_F(TempKeyProcessor, RefusedAnswersFailWithoutTargets) {
    auto denied = std::make_shared<TempKeyAuthData>();
    denied->failCode = 7;
    const auto none = std::make_shared<TempKeyAuthData>();
    AuthContext hostFailed = tempKey("K1", none, FAILED, 0), noData = tempKey("K1", none);
    hostFailed.response.reason = "Key expired";
    noData.tempKeyAuthData.reset();  // the host answered without data: never asked again
    const std::pair<AuthContext, std::string> cases[] = {
        {tempKey("K1", denied), "FAILED 7 'Temp key dclient denied' [] []"},
        {hostFailed, "FAILED 1 'Key expired' [] []"},
        {tempKey("K1", none, SUCCESS, 9), "FAILED 9 'Temp key dclient denied' [] []"},
        {noData, "FAILED 24 'Temp key dclient denied' [] []"},
        {tempKey("K1", none), "FAILED 1 'Temp key user not found' [] []"}};
    for (auto [context, expected] : cases) {
        EXPECT_EQ(decide(context), expected);
        // A key the host refused leaves no targets; an unknown user leaves no user.
        EXPECT_TRUE(!context.userData && (context.response.targets.empty() ||
                                          expected.find("not found") != std::string::npos))
            << expected;
    }
    EXPECT_EQ(provider.callCount("requestTempKey"), 0);
}

TEST_F(TempKeyProcessor, AcceptedKeyBecomesUserTargetsAndFlags) {
    provider.tempKeyUsers["K1"].userId = "u7";
    provider.tempKeyTargets = {AuthTarget{0, "4"}};
    // An empty key: the credential is the key. Only relay kinds with an id become relays, once
    // each, after the relays already there.
    const auto data = std::make_shared<TempKeyAuthData>(
        TempKeyAuthData{"",
                        "visitor",
                        "delivery",
                        0,
                        4,
                        "floor 3",
                        {{2, "9"}, {0, ""}, {1, "SA"}, {0, "1"}, {0, "SA"}}});
    AuthContext context = tempKey("K1", data);
    context.relays = {"1"};
    context.authTargets = {AuthTarget{0, "2"}};

    EXPECT_EQ(decide(context), "CONTINUE/SUCCESS 0 '' [1,SA] []");
    EXPECT_TRUE(data->key.empty());  // the answer object shared with the host is left alone
    ASSERT_TRUE(context.userData);
    const AuthRequest& request = context.request;
    EXPECT_EQ(request.userText + "|" + request.requestText + "|" + request.userText2 + "|" +
                  std::to_string(request.sourceCode) + "|" + context.userData->userId + "|" +
                  context.userData->userText2,
              "visitor|delivery|floor 3|4|u7|floor 3");
    EXPECT_TRUE(context.response.user == context.userData && context.skipUserLookup &&
                context.skipUnlockType && request.virtualDoorSkipRelaySchedule);

    // With no targets in the answer: the context's, then the request's, then the host's defaults.
    AuthContext fromContext = tempKey("K1", std::make_shared<TempKeyAuthData>());
    fromContext.authTargets = {AuthTarget{0, "2"}};
    fromContext.request.targets = {AuthTarget{0, "3"}};
    AuthContext fromRequest = fromContext;
    fromRequest.authTargets.clear();
    AuthContext fromProvider = fromRequest;
    fromProvider.request.targets.clear();
    EXPECT_EQ(decide(fromContext), "CONTINUE/SUCCESS 0 '' [2] []");
    EXPECT_EQ(decide(fromRequest), "CONTINUE/SUCCESS 0 '' [3] []");
    EXPECT_EQ(decide(fromProvider), "CONTINUE/SUCCESS 0 '' [4] []");
    EXPECT_EQ(provider.callCount("getTempKeyTargets"), 1);
}

}  // namespace
}  // namespace auth_engine
