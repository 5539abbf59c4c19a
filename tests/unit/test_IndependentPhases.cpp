// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// Held-back relays through the anti-passback, interlock and parking phases, the relay choice,
// timeouts and shutdown, driven through a real engine and worker.
#include "support/EngineHarness.h"

namespace auth_engine {
namespace testing {
namespace {

// Answers every question from inside the provider call, by relay ("1,2" for a parking question).
FakeDataProvider::QuestionHook answering(const std::map<std::string, AuthResult>& verdicts = {}) {
    return [verdicts](FakeDataProvider::Question& question) {
        const auto verdict = verdicts.find(question.relay);
        question.callback(question.handle,
                          responseOf(verdict == verdicts.end() ? SUCCESS : verdict->second),
                          AuthContext());
    };
}

// The chain hands the post-sync phase a user (a resident, by default) and its relays.
class IndependentPhases : public EngineTest {
protected:
    void SetUp() override {
        user->userType = 1;
        host->config.antiPassbackRelayMap = {{"1", 1}, {"2", 1}, {"3", 2}};
        EngineTest::SetUp();
        use("Probe", [this](AuthContext& context) {
            context.userData = user;
            context.relays = relays;
            return CONTINUE;
        });
    }
    void TearDown() override {
        EngineTest::TearDown();
        // A failure never repeats an opening, whichever phase or path produced it.
        for (const auto& call : recorder.all()) {
            if (call.response.result == FAILED) {
                EXPECT_TRUE(call.response.openedRelays.empty()) << call.requestId;
                EXPECT_TRUE(call.response.targets.empty()) << call.requestId;
            }
        }
        for (const auto& report : host->reports()) {
            if (report.result == FAILED) {
                EXPECT_TRUE(report.context.response.openedRelays.empty());
                EXPECT_TRUE(report.context.response.targets.empty());
            }
        }
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
    void runAs(const std::string& id, OpenDoorType openType = OPEN_TYPE_CARD) {
        run(id, makeRequest("", openType));
    }
    std::vector<std::string> questionKinds() {
        std::vector<std::string> kinds;
        for (const auto& question : host->questions()) {
            kinds.push_back(question.kind + ":" + question.relay);
        }
        return kinds;
    }

    std::shared_ptr<UserData> user = std::make_shared<UserData>();
    Relays relays;
};

TEST_F(IndependentPhases, EachPhaseReportsTheRelaysItDecided) {
    enable(true, {{"3", true}});
    relays = {"5", "2", "3"};  // no check, anti-passback, anti-passback + interlock
    runAs("r1");
    ASSERT_EQ(recorder.count(), 1u);
    EXPECT_EQ(recorder.at(0).requestId, "r1");
    EXPECT_EQ(recorder.at(0).response.openedRelays, (Relays{"5"}));

    ASSERT_TRUE(host->waitForQuestions(2));
    host->answer(0, SUCCESS);
    host->answer(1, SUCCESS);
    ASSERT_TRUE(recorder.waitFor(2));
    const auto ap = recorder.at(1);
    EXPECT_EQ(ap.requestId, "r1_ind_antipassback");
    EXPECT_EQ(ap.context.requestId, "r1_ind_antipassback");
    EXPECT_EQ(ap.response.asyncType, "antipassback");
    EXPECT_EQ(ap.response.openedRelays, (Relays{"2"}));

    ASSERT_TRUE(host->waitForQuestions(3));
    EXPECT_EQ(host->questions()[2].requestId, "r1_ind_interlock");
    host->answer(2, SUCCESS);
    ASSERT_TRUE(recorder.waitFor(3));
    const auto il = recorder.at(2);
    EXPECT_EQ(il.requestId, "r1_ind_interlock");
    EXPECT_EQ(il.response.openedRelays, (Relays{"3"}));
    EXPECT_EQ(il.response.targets.size(), 1u);
    ASSERT_TRUE(idle());
    EXPECT_EQ(host->reportCount(), 3u);
    expectNothingParked(engine);
}

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
    if (!inline_) {
        EXPECT_EQ(recorder.count(), 0u);  // everything is held back
        ASSERT_TRUE(host->waitForQuestions(2));
        host->answer(0, SUCCESS);
        host->answer(1, SUCCESS);
        ASSERT_TRUE(host->waitForQuestions(3));
        EXPECT_EQ(recorder.count(), 0u);
        host->answer(2, SUCCESS);
        ASSERT_TRUE(host->waitForQuestions(4));
        EXPECT_EQ(host->questions()[3].requestId, "r1_ind_parking");
        host->answer(3, SUCCESS);
    }
    ASSERT_TRUE(recorder.waitFor(1));
    ASSERT_TRUE(idle());
    EXPECT_EQ(questionKinds(), (std::vector<std::string>{"antipassback:1", "antipassback:2",
                                                         "interlock:1", "parking:1,2"}));
    ASSERT_EQ(recorder.count(), 1u);
    EXPECT_EQ(recorder.at(0).requestId, "r1_ind_parking");
    EXPECT_EQ(recorder.at(0).response.openedRelays, (Relays{"1", "2"}));
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
    expectRelays(recorder.at(0).response, {"1", "2"}, {"3"});
    EXPECT_EQ(recorder.at(0).response.failCode, 5);
    EXPECT_EQ(recorder.at(0).context.relayFailReasons.at("3"), "AntiPassback");

    expectRelays(recorder.at(1).response, {"4"}, {"5"});
    EXPECT_EQ(recorder.at(1).response.failCode, 21);
    EXPECT_EQ(recorder.at(1).context.relayFailReasons.at("5"), "Interlock");
    // The relay refused by anti-passback is never asked about interlock.
    EXPECT_EQ(host->callCount("requestInterlock"), 2);
}

TEST_F(IndependentPhases, OfflineRelaysFailTheirCheck) {
    relays = {"1", "2"};
    configure([](FakeDataProvider& fake) { fake.answerInterlock = answering(); });
    struct Case {
        bool antiPassback;  // else interlock
        Relays offline;
        Relays opened;
    };
    // All offline: no waiting, every relay fails (no "all offline passes" here).
    const std::vector<Case> cases = {{true, {"2"}, {"1"}},
                                     {true, {"1", "2"}, {}},
                                     {false, {"2"}, {"1"}},
                                     {false, {"1", "2"}, {}}};
    for (std::size_t i = 0; i < cases.size(); ++i) {
        const Case& check = cases[i];
        SCOPED_TRACE(i);
        enable(check.antiPassback, check.antiPassback
                                       ? std::map<std::string, bool>{}
                                       : std::map<std::string, bool>{{"1", true}, {"2", true}});
        configure([&](FakeDataProvider& fake) {
            fake.offlineRelays = {check.offline.begin(), check.offline.end()};
        });
        const std::size_t asked = host->questions().size();
        runAs("r" + std::to_string(i));
        ASSERT_TRUE(host->waitForQuestions(asked + 2));  // the offline relay is asked too
        if (check.antiPassback && !check.opened.empty()) {
            host->answer(asked, SUCCESS);  // anti-passback is answered later, interlock inline
        }
        ASSERT_TRUE(recorder.waitFor(i + 1));
        const auto report = recorder.at(i);
        EXPECT_EQ(report.requestId,
                  "r" + std::to_string(i) +
                      (check.antiPassback ? "_ind_antipassback" : "_ind_interlock"));
        EXPECT_EQ(report.response.result, check.opened.empty() ? FAILED : SUCCESS);
        expectRelays(report.response, check.opened, check.offline);
        if (check.opened.empty()) {
            EXPECT_EQ(report.response.failCode, check.antiPassback ? 5 : 21);
        }
    }
}

TEST_F(IndependentPhases, ParkingPassesOfflineAndRefusesAnythingButSuccess) {
    enable(false, {}, true);
    configure([](FakeDataProvider& fake) { fake.parkingOffline = true; });
    relays = {"1"};
    runAs("r1", OPEN_TYPE_LICENSE_PLATE);
    ASSERT_TRUE(recorder.waitFor(1));
    EXPECT_EQ(recorder.at(0).response.result, SUCCESS);
    EXPECT_EQ(recorder.at(0).response.asyncType, "parking");

    configure([](FakeDataProvider& fake) { fake.parkingOffline = false; });
    runAs("r2", OPEN_TYPE_LICENSE_PLATE);
    runAs("r3", OPEN_TYPE_LICENSE_PLATE);
    ASSERT_TRUE(host->waitForQuestions(3));
    host->answer(1, FAILED, 23);
    host->answer(2, CONTINUE);
    ASSERT_TRUE(recorder.waitFor(3));
    for (const auto& refused :
         {recorder.forId("r2_ind_parking"), recorder.forId("r3_ind_parking")}) {
        ASSERT_EQ(refused.size(), 1u);
        EXPECT_EQ(refused[0].response.result, FAILED);
        EXPECT_EQ(refused[0].response.failCode, 23);
        EXPECT_EQ(refused[0].response.failedRelays, (Relays{"1"}));
        EXPECT_EQ(refused[0].context.relayFailReasons.at("1"), "ParkingRestriction");
    }
}

TEST_F(IndependentPhases, ChosenRelaysRunThroughThePhaseAgain) {
    configure([](FakeDataProvider& fake) {
        fake.config.unlockOptionsEnabled = true;
        fake.config.antiPassbackEnabled = true;
    });
    user->userType = 0;
    relays = {"1", "2", "3"};
    runAs("r1");
    AuthResponse choice;
    choice.result = SUCCESS;
    choice.unlockOptionsRelays = {"9", "3", "1", "3"};  // only offered relays count, each once
    engine.handleAsyncResponse("r1_ind_unlock_options", SUCCESS, choice, AuthContext());
    ASSERT_TRUE(recorder.waitFor(2));
    EXPECT_EQ(recorder.at(1).requestId, "r1");
    EXPECT_EQ(recorder.at(1).response.result, SUCCESS);
    EXPECT_EQ(recorder.at(1).response.openedRelays, (Relays{"3", "1"}));
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
    EXPECT_EQ(host->questions()[0].requestId, parent + "_ind_antipassback");
    EXPECT_EQ(host->questions()[0].relay, "2");
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
    for (const char* id : {"r1_ind_unlock_options", "r2_ind_unlock_options"}) {
        expectFailed(onlyReport(id), 44, "User canceled relay selection");
    }
    EXPECT_EQ(recorder.forId("r3_ind_unlock_options").at(0).response.failCode, 9);

    sweepAfter(29);
    EXPECT_EQ(recorder.count(), 7u);
    sweepAfter(1);
    const AuthResponse expired = onlyReport("r4_ind_unlock_options");
    EXPECT_EQ(expired.failCode, 44);
    EXPECT_EQ(expired.reason, "Unlock options timeout");
    EXPECT_EQ(expired.asyncType, "unlock_options");
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
    AuthEngine::IndependentAsyncContext parked;
    ASSERT_TRUE(engine.peekParkedPhase("r1_ind_interlock", parked));
    EXPECT_EQ(parked.pendingPhaseCount, 1);
    EXPECT_EQ(recorder.count(), 0u);
    sweepAfter(5);
    ASSERT_TRUE(recorder.waitFor(1));
    EXPECT_EQ(recorder.at(0).requestId, "r1_ind_interlock");
    EXPECT_EQ(recorder.at(0).response.failCode, 21);
    EXPECT_EQ(recorder.at(0).context.relayFailReasons.at("1"), "Interlock");
    EXPECT_EQ(host->callCount("requestInterlock"), 2);

    // A retry that is answered at once opens the relay.
    runAs("r2");
    configure([](FakeDataProvider& fake) { fake.answerInterlock = answering(); });
    sweepAfter(5);
    ASSERT_TRUE(recorder.waitFor(2));
    EXPECT_EQ(recorder.at(1).requestId, "r2_ind_interlock");
    EXPECT_EQ(recorder.at(1).response.openedRelays, (Relays{"1"}));
}

TEST_F(IndependentPhases, ExpiredPhaseFailsAndIgnoresLateAnswers) {
    enable(true);
    relays = {"1", "5"};
    runAs("r1");
    EXPECT_EQ(recorder.at(0).response.openedRelays, (Relays{"5"}));
    sweepAfter(29);
    EXPECT_EQ(recorder.count(), 1u);
    sweepAfter(1);
    ASSERT_TRUE(recorder.waitFor(2));
    const auto expired = recorder.at(1);
    EXPECT_EQ(expired.requestId, "r1_ind_antipassback");
    EXPECT_EQ(expired.response.result, FAILED);
    EXPECT_EQ(expired.response.reason, "Independent async request timeout");
    EXPECT_EQ(expired.response.asyncType, "antipassback");
    EXPECT_EQ(expired.response.failedRelays, (Relays{"1"}));

    host->answer(0, SUCCESS);
    ASSERT_TRUE(idle());
    EXPECT_EQ(recorder.count(), 2u);
    EXPECT_EQ(engine.subRequestCount(), 0u);
}

TEST_F(IndependentPhases, ResetFailsEveryParkedPhase) {
    enable(true, {{"4", true}});
    relays = {"1"};
    runAs("r1");
    relays = {"4"};
    runAs("r2");
    EXPECT_EQ(engine.parkedPhaseCount(), 2u);
    engine.reset();
    ASSERT_EQ(recorder.count(), 2u);
    for (const char* id : {"r1_ind_antipassback", "r2_ind_interlock"}) {
        EXPECT_EQ(onlyReport(id).result, FAILED);
        EXPECT_EQ(onlyReport(id).reason, "Engine shutdown");
    }
}

}  // namespace
}  // namespace testing
}  // namespace auth_engine
