// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// The split after the chain (what is reported at once, failed, offered for a choice), held-back
// relays through the anti-passback, interlock and parking phases, the relay choice, timeouts and
// shutdown, and the interlock verification of targets without a credential, driven through a real
// engine and worker.
#include <set>
#include <tuple>

#include "auth_engine/AuthLogger.h"
#include "support/EngineHarness.h"
#include "support/ProcessorTest.h"

namespace auth_engine {
namespace testing {
namespace {

using Lines = std::vector<std::string>;

// Answers every question from inside the provider call, by relay ("1,2" for a parking question).
FakeDataProvider::QuestionHook answering(const std::map<std::string, AuthResult>& verdicts = {}) {
    return [verdicts](FakeDataProvider::Question& question) {
        const auto verdict = verdicts.find(question.relay);
        question.callback(question.handle,
                          responseOf(verdict == verdicts.end() ? SUCCESS : verdict->second),
                          AuthContext());
    };
}

// The chain stands in for the policy chain: it hands the post-sync phase a prepared verdict for a
// user (a resident, by default).
class IndependentPhases : public EngineTest {
protected:
    void SetUp() override {
        user->userType = 1;
        host->config.antiPassbackRelayMap = {{"1", 1}, {"2", 1}, {"3", 2}};
        EngineTest::SetUp();
        use("Probe", [this](AuthContext& context) {
            context.userData = user;
            context.relays = relays;
            context.failedRelays = failedRelays;
            context.relayFailReasons = reasons;
            context.deniedRelays = deniedRelays;
            context.response.failedRelays = responseFailed;
            context.authTargets.insert(context.authTargets.end(), targets.begin(), targets.end());
            return result;
        });
    }
    // Turns the anti-passback, interlock (on the `interlocked` relays) and parking checks on or
    // off.
    void enable(bool antiPassback, const std::map<std::string, bool>& interlocked = {},
                bool parking = false) {
        configure([&](FakeDataProvider& fake) {
            fake.config.antiPassbackEnabled = antiPassback;
            fake.config.interlockEnabled = !interlocked.empty();
            fake.config.interlockRelayMap = interlocked;
            fake.config.parkingRestrictionEnabled = parking;
        });
    }
    std::string runAs(const std::string& id = "r1", OpenDoorType openType = OPEN_TYPE_CARD) {
        return said(run(id, makeRequest("", openType)));
    }
    Lines reports() {
        Lines out;
        for (const auto& call : recorder.all()) {
            out.push_back(said(call));
        }
        return out;
    }
    std::string verify(const std::vector<AuthTarget>& targets) {
        return engine.verifyInterlockTargets(AuthRequest(), targets, recorder.callback());
    }

    std::shared_ptr<UserData> user = std::make_shared<UserData>();
    Relays relays, failedRelays, deniedRelays, responseFailed;
    std::map<std::string, std::string> reasons;
    std::vector<AuthTarget> targets;
    AuthResult result = CONTINUE;
    AuthEngine::IndependentAsyncContext parked;
};

TEST_F(IndependentPhases, PostSyncReportsOpenedAndFailedRelays) {
    struct Case {
        AuthResult result;
        Relays relays, failed, denied, responseFailed;
        std::string expected;
    };
    // Relay 1 failed the time check, 2 the virtual door (never reported on a pass), 3 a holiday;
    // 6 has no reason. Neither the user's own target nor the chain's goes out with a failure.
    reasons = {{"1", "TimeCheck"}, {"2", "VirtualDoor"}, {"3", "Holiday"}};
    const std::vector<Case> cases = {
        {CONTINUE,
         {"4", "S1", "4"},
         {"1", "2", "6", "1"},
         {},
         {},
         "SUCCESS 0 '' [4,S1] [1] 0:4 1:S1"},
        // Only failures, nothing opened: the report fails even though the chain passed.
        {CONTINUE, {}, {"1", "6"}, {}, {}, "FAILED 0 '' [] [1]"},
        {FAILED, {"1", "5"}, {"3"}, {}, {}, "FAILED 0 '' [] [3,1,5]"},
        // With no relay of its own, a failure falls back on the response's list, then the denied.
        {FAILED, {}, {}, {"7"}, {"6"}, "FAILED 0 '' [] [6]"},
        {FAILED, {}, {}, {"7"}, {}, "FAILED 0 '' [] [7]"},
        {CONTINUE, {}, {}, {}, {}, "SUCCESS 0 '' [] []"}};  // nothing to open is still reported
    for (std::size_t i = 0; i < cases.size(); ++i) {
        SCOPED_TRACE(i);
        const Case& c = cases[i];
        std::tie(result, relays, failedRelays, deniedRelays, responseFailed) =
            std::tie(c.result, c.relays, c.failed, c.denied, c.responseFailed);
        user->userTargetId = result == FAILED ? "T9" : "";
        targets = result == FAILED ? std::vector<AuthTarget>{{2, "T8"}} : std::vector<AuthTarget>{};
        EXPECT_EQ(runAs(), cases[i].expected);
    }
    EXPECT_EQ(said(recorder.at(0)),
              "r1 SUCCESS 0 '' [4,S1] [1] 0:4 1:S1 sync 1:TimeCheck 2:VirtualDoor 3:Holiday");
    // A failed relay keeps its reason; one without is failed by the chain.
    EXPECT_EQ(said(recorder.at(2)),
              "r1 FAILED 0 '' [] [3,1,5] sync 1:TimeCheck 2:VirtualDoor 3:Holiday 5:AuthFailed");
    EXPECT_EQ(host->reportCount(), cases.size());
}

TEST_F(IndependentPhases, TargetsKeepKindsAndAreAddedOnce) {
    AuthContext context;
    context.userData = std::make_shared<UserData>();
    context.userData->userTargetId = "U";
    context.authTargets = {{0, "1"}, {0, "9"}, {3, "X"}, {2, "U"}, {0, "1"}};
    engine.buildAuthTargetsForRelays(context, {"1", "S1", "S", "S1"}, true);
    EXPECT_EQ(said(context.response), "CONTINUE 0 '' [] [] 0:1 3:X 2:U 1:S1 0:S");
    engine.buildAuthTargetsForRelays(context, {"S1"}, false);
    EXPECT_EQ(said(context.response), "CONTINUE 0 '' [] [] 1:S1");
    // Without a relay list of its own, the opened relays are actuated.
    context.authTargets.clear();
    context.response.openedRelays = {"2"};
    engine.buildAuthTargets(context);
    EXPECT_EQ(said(context.response), "CONTINUE 0 '' [2] [] 0:2 2:U");
}

TEST_F(IndependentPhases, SeveralRelaysAreOfferedForAChoiceOneOpensAtOnce) {
    configure([](FakeDataProvider& fake) { fake.config.unlockOptionsEnabled = true; });
    relays = {"1"};
    EXPECT_EQ(runAs(), "SUCCESS 0 '' [1] [] 0:1");

    relays = {"1", "2"};
    failedRelays = {"3"};
    reasons = {{"3", "TimeCheck"}};
    const AuthResponse offer = run("r1");
    EXPECT_EQ(said(offer) + " " + joinRelayVector(offer.unlockOptionsRelays) + " " +
                  offer.unlockOptionsId,
              "UNLOCK_OPTIONS 0 '' [] [3] 1,2 r1_ind_unlock_options");
    EXPECT_EQ(recorder.at(1).requestId, "r1");
    EXPECT_EQ(host->reports().back().result, UNLOCK_OPTIONS_PENDING);
    ASSERT_TRUE(engine.peekParkedPhase("r1_ind_unlock_options", parked));
    EXPECT_EQ(parked.phase + " " + std::to_string(parked.timeoutSeconds), "unlock_options 30");
    EXPECT_EQ(said(parked.context.response), "UNLOCK_OPTIONS 0 '' [] []");

    // A request without id gets one of its own for the choice; the offer keeps the empty id.
    const AuthResponse anonymous = run("");
    EXPECT_EQ(recorder.at(2).requestId, "");
    EXPECT_EQ(anonymous.unlockOptionsId.rfind("req_", 0), 0u);
    EXPECT_TRUE(engine.peekParkedPhase(anonymous.unlockOptionsId, parked));
    EXPECT_EQ(parked.parentRequestId + "_ind_unlock_options", anonymous.unlockOptionsId);
}

TEST_F(IndependentPhases, NonRelayGrantIsReportedWhileRelaysAreHeldBack) {
    configure([](FakeDataProvider& fake) { fake.config.antiPassbackEnabled = true; });
    user->userType = 1;
    user->userTargetId = "T1";
    relays = {"1"};
    AuthRequest request = makeRequest("", OPEN_TYPE_CARD);
    request.targets = {{3, "X"}};  // the request's own targets go out with the grant
    EXPECT_EQ(said(run("r1", request)), "SUCCESS 0 '' [] [] 3:X 2:T1");
    EXPECT_EQ(engine.parkedPhaseCount(), 1u);
    ASSERT_TRUE(host->waitForQuestions(1));
    host->answer(0, SUCCESS);
    ASSERT_TRUE(recorder.waitFor(2));
    // The later report opens the relay and does not repeat the user's own target.
    EXPECT_EQ(said(recorder.at(1).response), "SUCCESS 0 '' [1] [] 0:1");
}

TEST_F(IndependentPhases, SplitFollowsOpenTypeAndUserKind) {
    configure([](FakeDataProvider& fake) {
        fake.config.antiPassbackEnabled = true;
        fake.config.parkingRestrictionEnabled = true;
    });
    relays = {"1", "4"};
    user->userType = 2;
    EXPECT_EQ(runAs("r3"), "SUCCESS 0 '' [4] [] 0:4");  // relay 1 waits for anti-passback
    // Parking restriction holds every relay of a plate user of kind 1.
    user = std::make_shared<UserData>();  // the parked phase still shares the old one
    user->userType = 1;
    run("r4", makeRequest("", OPEN_TYPE_LICENSE_PLATE));
    EXPECT_EQ(recorder.count(), 1u);
    ASSERT_TRUE(engine.peekParkedPhase("r4_ind_antipassback", parked));
    EXPECT_EQ(parked.relayChecks,
              (std::map<std::string, std::vector<int>>{{"1", {0, 2}}, {"4", {2}}}));
    EXPECT_EQ(joinRelayVector(parked.apAndParkingRelays) + "|" +
                  joinRelayVector(parked.parkingOnlyRelays),
              "1|4");
}

// Each phase reporting its own relays, answered inline or later, is what the host answering twice
// (fault tests) runs through; here the checks' order and the reports' contents.
class IndependentPhaseTiming : public IndependentPhases,
                               public ::testing::WithParamInterface<bool> {};

TEST_P(IndependentPhaseTiming, ChecksRunInOrderAntiPassbackInterlockParking) {
    const bool inline_ = GetParam();
    enable(true, {{"1", true}}, true);
    if (inline_) {
        configure([](FakeDataProvider& fake) {
            fake.answerAntiPassback = fake.answerInterlock = fake.answerParking = answering();
        });
    }
    relays = {"1", "2"};  // checks 0, 1, 2 and 0, 2
    runAs("r1", OPEN_TYPE_LICENSE_PLATE);
    // Answered later, each phase waits for the one before; nothing is reported meanwhile.
    for (std::size_t asked = 2; !inline_ && asked <= 4; ++asked) {
        EXPECT_EQ(recorder.count(), 0u);
        ASSERT_TRUE(host->waitForQuestions(asked));
        for (std::size_t i = asked == 2 ? 0 : asked - 1; i < asked; ++i) {
            host->answer(i, SUCCESS);
        }
    }
    ASSERT_TRUE(recorder.waitFor(1) && idle());
    Lines kinds;
    for (const auto& question : host->questions()) {
        kinds.push_back(question.kind + ":" + question.relay + ":" + question.requestId);
    }
    EXPECT_EQ(kinds,
              (Lines{"antipassback:1:r1_ind_antipassback", "antipassback:2:r1_ind_antipassback",
                     "interlock:1:r1_ind_interlock", "parking:1,2:r1_ind_parking"}));
    EXPECT_EQ(reports(), Lines{"r1_ind_parking SUCCESS 0 '' [1,2] [] 0:1 0:2 parking"});
}

INSTANTIATE_TEST_SUITE_P(AnsweredInlineOrLater, IndependentPhaseTiming, ::testing::Bool());

TEST_F(IndependentPhases, AntiPassbackAcceptsContinueInterlockDoesNot) {
    enable(true, {{"3", true}, {"4", true}, {"5", true}});
    configure([](FakeDataProvider& fake) {
        fake.answerAntiPassback = answering({{"2", CONTINUE}, {"3", FAILED}});
        fake.answerInterlock = answering({{"5", CONTINUE}});
    });
    relays = {"1", "2", "3", "4", "5"};
    runAs("r1");
    ASSERT_TRUE(recorder.waitFor(2));
    EXPECT_EQ(
        reports(),
        (Lines{"r1_ind_antipassback SUCCESS 5 '' [1,2] [3] 0:1 0:2 antipassback 3:AntiPassback",
               "r1_ind_interlock SUCCESS 21 '' [4] [5] 0:4 interlock 3:AntiPassback 5:Interlock"}));
    // The relay refused by anti-passback is never asked about interlock.
    EXPECT_EQ(host->callCount("requestInterlock"), 2);
}

TEST_F(IndependentPhases, OfflineRelaysFailTheirCheck) {
    relays = {"1", "2"};
    configure([](FakeDataProvider& fake) { fake.answerInterlock = answering(); });
    // Anti-passback (else interlock), the offline relays, the report. All offline: no waiting,
    // every relay fails (no "all offline passes" here).
    const std::vector<std::tuple<bool, std::set<std::string>, std::string>> cases = {
        {true, {"2"}, "r0_ind_antipassback SUCCESS 5 '' [1] [2] 0:1 antipassback 2:AntiPassback"},
        {true,
         {"1", "2"},
         "r1_ind_antipassback FAILED 5 '' [] [1,2] antipassback 1:AntiPassback 2:AntiPassback"},
        {false, {"2"}, "r2_ind_interlock SUCCESS 21 '' [1] [2] 0:1 interlock 2:Interlock"},
        {false,
         {"1", "2"},
         "r3_ind_interlock FAILED 21 '' [] [1,2] interlock 1:Interlock 2:Interlock"}};
    for (std::size_t i = 0; i < cases.size(); ++i) {
        const bool antiPassback = std::get<0>(cases[i]);
        enable(antiPassback, {{"1", !antiPassback}, {"2", !antiPassback}});
        configure([&](FakeDataProvider& fake) { fake.offlineRelays = std::get<1>(cases[i]); });
        const std::size_t asked = host->questions().size();
        runAs("r" + std::to_string(i));
        ASSERT_TRUE(host->waitForQuestions(asked + 2));  // the offline relay is asked too
        if (i == 0) {
            host->answer(asked, SUCCESS);  // anti-passback is answered later, interlock inline
        }
        ASSERT_TRUE(recorder.waitFor(i + 1));
        EXPECT_EQ(said(recorder.at(i)), std::get<2>(cases[i]));
    }
}

TEST_F(IndependentPhases, ParkingPassesOfflineAndRefusesAnythingButSuccess) {
    enable(false, {}, true);
    configure([](FakeDataProvider& fake) { fake.parkingOffline = true; });
    relays = {"1"};
    runAs("r1", OPEN_TYPE_LICENSE_PLATE);
    ASSERT_TRUE(recorder.waitFor(1));
    configure([](FakeDataProvider& fake) { fake.parkingOffline = false; });
    runAs("r2", OPEN_TYPE_LICENSE_PLATE);
    runAs("r3", OPEN_TYPE_LICENSE_PLATE);
    ASSERT_TRUE(host->waitForQuestions(3));
    host->answer(1, FAILED, 23);
    host->answer(2, CONTINUE);
    ASSERT_TRUE(recorder.waitFor(3));
    EXPECT_EQ(reports(),
              (Lines{"r1_ind_parking SUCCESS 0 '' [1] [] 0:1 parking",
                     "r2_ind_parking FAILED 23 '' [] [1] parking 1:ParkingRestriction",
                     "r3_ind_parking FAILED 23 '' [] [1] parking 1:ParkingRestriction"}));
}

TEST_F(IndependentPhases, ChosenRelaysRunThroughThePhaseAgain) {
    configure([](FakeDataProvider& fake) {
        fake.config.unlockOptionsEnabled = true;
        fake.config.antiPassbackEnabled = true;
    });
    user->userType = 0;
    relays = {"1", "2", "3"};
    runAs("r1");
    AuthResponse choice = responseOf(SUCCESS);
    choice.unlockOptionsRelays = {"9", "3", "1", "3"};  // only offered relays count, each once
    engine.handleAsyncResponse("r1_ind_unlock_options", SUCCESS, choice, AuthContext());
    ASSERT_TRUE(recorder.waitFor(2));
    EXPECT_EQ(said(recorder.at(1)), "r1 SUCCESS 0 '' [3,1] [] 0:3 0:1 sync");
    EXPECT_TRUE(recorder.at(1).context.unlockOptionsResolved);

    // A request without id runs its choice under a generated id; the choice meets anti-passback.
    user = std::make_shared<UserData>();
    user->userType = 1;
    run("");
    const std::string optionsId = recorder.at(2).response.unlockOptionsId;
    choice.unlockOptionsRelays = {"2"};
    engine.handleAsyncResponse(optionsId, SUCCESS, choice, AuthContext());
    ASSERT_TRUE(host->waitForQuestions(1));
    const std::string parent = optionsId.substr(0, optionsId.find("_ind_"));
    EXPECT_EQ(host->questions()[0].relay + " " + host->questions()[0].requestId,
              "2 " + parent + "_ind_antipassback");
}

TEST_F(IndependentPhases, CancelledOrTimedOutChoiceFailsWith44) {
    configure([](FakeDataProvider& fake) { fake.config.unlockOptionsEnabled = true; });
    relays = {"1", "2"};
    for (const char* id : {"r1", "r2", "r3", "r4"}) {
        runAs(id);
    }
    AuthResponse answer;
    engine.handleAsyncResponse("r1_ind_unlock_options", FAILED, answer, AuthContext());
    answer.openedRelays = {"7"};
    engine.handleAsyncResponse("r2_ind_unlock_options", SUCCESS, answer, AuthContext());
    answer.failCode = 9;
    engine.handleAsyncResponse("r3_ind_unlock_options", FAILED, answer, AuthContext());
    ASSERT_TRUE(recorder.waitFor(7));
    EXPECT_EQ(reportOf("r1_ind_unlock_options") + " | " + reportOf("r2_ind_unlock_options") +
                  " | " + reportOf("r3_ind_unlock_options"),
              "FAILED 44 'User canceled relay selection' [] [] | FAILED 44 'User canceled relay "
              "selection' [] [] | FAILED 9 '' [] []");
    sweepAfter(29);
    EXPECT_EQ(recorder.count(), 7u);
    sweepAfter(1);
    EXPECT_EQ(said(recorder.forId("r4_ind_unlock_options").at(0)),
              "r4_ind_unlock_options FAILED 44 'Unlock options timeout' [] [1,2] unlock_options");
}

TEST_F(IndependentPhases, InterlockIsRetriedOnceThenFailed) {
    enable(false, {{"1", true}});
    configure([](FakeDataProvider& fake) {
        fake.config.interlockTimeout = 5;
        fake.config.interlockRetryLimit = 1;
    });
    relays = {"1"};
    runAs("r1");
    sweepAfter(4);
    EXPECT_EQ(host->callCount("requestInterlock"), 1);
    sweepAfter(1);
    ASSERT_TRUE(host->waitForQuestions(2));
    ASSERT_TRUE(engine.peekParkedPhase("r1_ind_interlock", parked));
    EXPECT_EQ(parked.pendingPhaseCount, 1);
    EXPECT_EQ(recorder.count(), 0u);
    sweepAfter(5);
    ASSERT_TRUE(recorder.waitFor(1));
    EXPECT_EQ(host->callCount("requestInterlock"), 2);

    // A retry that is answered at once opens the relay.
    runAs("r2");
    configure([](FakeDataProvider& fake) { fake.answerInterlock = answering(); });
    sweepAfter(5);
    ASSERT_TRUE(recorder.waitFor(2));
    EXPECT_EQ(reports(), (Lines{"r1_ind_interlock FAILED 21 '' [] [1] interlock 1:Interlock",
                                "r2_ind_interlock SUCCESS 0 '' [1] [] 0:1 interlock"}));
}

// Interlock verification of targets without a credential.
TEST_F(IndependentPhases, VerifyRefusesUnlessEveryTargetIsAnInterlockedRelay) {
    AuthEngine idleEngine;
    EXPECT_EQ(idleEngine.verifyInterlockTargets(AuthRequest(), {{0, "1"}}, recorder.callback()),
              "");
    enable(false, {{"1", true}, {"2", true}, {"3", false}});
    // None; one relay not interlocked refuses all; an unknown relay; not a relay; no relay id.
    for (const auto& targets : std::vector<std::vector<AuthTarget>>{
             {}, {{0, "1"}, {0, "3"}}, {{0, "1"}, {0, "4"}}, {{2, "1"}}, {{0, ""}}}) {
        EXPECT_EQ(verify(targets), "");
    }
    enable(false);
    EXPECT_EQ(verify({{0, "1"}}), "");
    EXPECT_EQ(host->callCount("requestInterlock"), 0);
    EXPECT_EQ(engine.parkedPhaseCount(), 0u);
}

TEST_F(IndependentPhases, VerifyRunsOnePhasePerRelayAndReportsUnderItsOwnId) {
    enable(false, {{"1", true}, {"2", true}});
    const std::string id = verify({{0, "1"}, {1, "1"}, {0, "2"}});
    ASSERT_EQ(id.rfind("req_", 0), 0u);
    ASSERT_TRUE(engine.peekParkedPhase(id + "_ind_interlock", parked));
    EXPECT_EQ(std::to_string(parked.notifyHost) + " " + joinRelayVector(parked.context.relays) +
                  targetsOf(parked.context.authTargets),
              "0 1,2 0:1 0:2");

    ASSERT_TRUE(host->waitForQuestions(2));
    host->answer(0, SUCCESS);
    host->answer(1, FAILED);
    ASSERT_TRUE(recorder.waitFor(1));
    // A question, not an opening: the host's result log is not told.
    EXPECT_EQ(host->reportCount(), 0u);

    // Its timeout, still under the same id, is the fault tests' interlock retry.
    EXPECT_EQ(reports(), Lines{id + " SUCCESS 21 '' [1] [2] 0:1 interlock 2:Interlock"});
}

}  // namespace
}  // namespace testing
}  // namespace auth_engine
