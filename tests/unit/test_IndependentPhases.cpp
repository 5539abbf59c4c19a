// Held-back relays through the anti-passback, interlock and parking phases, the relay choice,
// timeouts and shutdown, driven through a real engine and worker.
#include <gtest/gtest.h>

#include <memory>

#include "engine/AuthEngine.h"
#include "support/CallbackRecorder.h"
#include "support/FakeDataProvider.h"
#include "support/TestClock.h"

namespace auth_engine {
namespace {

using Relays = std::vector<std::string>;
using testing::FakeDataProvider;

class Probe : public IAuthProcessor {
public:
    AuthResult process(AuthContext& context, IDataProvider& /*provider*/) override {
        context.userData = user;
        context.relays = relays;
        return CONTINUE;
    }
    std::string getName() const override { return "Probe"; }

    std::shared_ptr<UserData> user = std::make_shared<UserData>();
    Relays relays;
};

// Answers every question from inside the provider call, by relay ("1,2" for a parking question).
FakeDataProvider::QuestionHook answering(const std::map<std::string, AuthResult>& verdicts = {}) {
    return [verdicts](FakeDataProvider::Question& question) {
        AuthResponse response;
        const auto verdict = verdicts.find(question.relay);
        response.result = verdict == verdicts.end() ? SUCCESS : verdict->second;
        question.callback(question.handle, response, AuthContext());
    };
}

class IndependentPhases : public ::testing::Test {
protected:
    void SetUp() override {
        probe->user->userType = 1;
        host->config.antiPassbackRelayMap = {{"1", 1}, {"2", 1}, {"3", 2}};
        ASSERT_EQ(engine.init(host), 0);
        engine.registerProcessor(probe);
        engine.setProcessorChain({"Probe"});
    }
    void TearDown() override {
        engine.reset();
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
    void configure(const std::function<void(FakeDataProvider&)>& change) {
        const auto lock = host->lock();
        change(*host);
    }
    void run(const std::string& id, OpenDoorType openType = OPEN_TYPE_CARD) {
        AuthRequest request;
        request.openType = openType;
        engine.authenticate(request, recorder.callback(), id);
    }
    void sweepAfter(int64_t seconds) {
        clock.advance(seconds);
        engine.checkAllPendingTimeouts();
        ASSERT_TRUE(engine.waitForIdle(5000));
    }
    std::vector<std::string> questionKinds() {
        std::vector<std::string> kinds;
        for (const auto& question : host->questions()) {
            kinds.push_back(question.kind + ":" + question.relay);
        }
        return kinds;
    }

    testing::TestClock clock;
    testing::CallbackRecorder recorder;
    std::shared_ptr<FakeDataProvider> host = std::make_shared<FakeDataProvider>();
    std::shared_ptr<Probe> probe = std::make_shared<Probe>();
    AuthEngine engine;
};

TEST_F(IndependentPhases, EachPhaseReportsTheRelaysItDecided) {
    configure([](FakeDataProvider& fake) {
        fake.config.antiPassbackEnabled = true;
        fake.config.interlockEnabled = true;
        fake.config.interlockRelayMap = {{"3", true}};
    });
    probe->relays = {"5", "2", "3"};  // no check, anti-passback, anti-passback + interlock
    run("r1");
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
    ASSERT_TRUE(engine.waitForIdle(5000));
    EXPECT_EQ(host->reportCount(), 3u);
    EXPECT_EQ(engine.parkedPhaseCount(), 0u);
    EXPECT_EQ(engine.subRequestCount(), 0u);
}

class IndependentPhaseTiming : public IndependentPhases,
                               public ::testing::WithParamInterface<bool> {};

TEST_P(IndependentPhaseTiming, ChecksRunInOrderAntiPassbackInterlockParking) {
    const bool inline_ = GetParam();
    configure([inline_](FakeDataProvider& fake) {
        fake.config.antiPassbackEnabled = true;
        fake.config.interlockEnabled = true;
        fake.config.parkingRestrictionEnabled = true;
        fake.config.interlockRelayMap = {{"1", true}};
        if (inline_) {
            fake.answerAntiPassback = fake.answerInterlock = fake.answerParking = answering();
        }
    });
    probe->relays = {"1", "2"};  // checks 0, 1, 2 and 0, 2
    run("r1", OPEN_TYPE_LICENSE_PLATE);
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
    ASSERT_TRUE(engine.waitForIdle(5000));
    EXPECT_EQ(questionKinds(), (std::vector<std::string>{"antipassback:1", "antipassback:2",
                                                         "interlock:1", "parking:1,2"}));
    ASSERT_EQ(recorder.count(), 1u);
    EXPECT_EQ(recorder.at(0).requestId, "r1_ind_parking");
    EXPECT_EQ(recorder.at(0).response.openedRelays, (Relays{"1", "2"}));
}

INSTANTIATE_TEST_SUITE_P(AnsweredInlineOrLater, IndependentPhaseTiming, ::testing::Bool());

TEST_F(IndependentPhases, AntiPassbackAcceptsContinueInterlockDoesNot) {
    configure([](FakeDataProvider& fake) {
        fake.config.antiPassbackEnabled = true;
        fake.config.interlockEnabled = true;
        fake.config.interlockRelayMap = {{"3", true}, {"4", true}, {"5", true}};
        fake.answerAntiPassback = answering({{"2", CONTINUE}, {"3", FAILED}});
        fake.answerInterlock = answering({{"5", CONTINUE}});
    });
    probe->relays = {"1", "2", "3", "4", "5"};
    run("r1");
    ASSERT_TRUE(recorder.waitFor(2));
    const auto ap = recorder.at(0).response;
    EXPECT_EQ(ap.openedRelays, (Relays{"1", "2"}));
    EXPECT_EQ(ap.failedRelays, (Relays{"3"}));
    EXPECT_EQ(ap.failCode, 5);
    EXPECT_EQ(recorder.at(0).context.relayFailReasons.at("3"), "AntiPassback");

    const auto il = recorder.at(1).response;
    EXPECT_EQ(il.openedRelays, (Relays{"4"}));
    EXPECT_EQ(il.failedRelays, (Relays{"5"}));
    EXPECT_EQ(il.failCode, 21);
    EXPECT_EQ(recorder.at(1).context.relayFailReasons.at("5"), "Interlock");
    // The relay refused by anti-passback is never asked about interlock.
    EXPECT_EQ(host->callCount("requestInterlock"), 2);
}

TEST_F(IndependentPhases, OfflineRelaysFailTheirCheck) {
    configure([](FakeDataProvider& fake) {
        fake.config.antiPassbackEnabled = true;
        fake.offlineRelays = {"2"};
    });
    probe->relays = {"1", "2"};
    run("r1");
    ASSERT_TRUE(host->waitForQuestions(2));
    host->answer(0, SUCCESS);
    ASSERT_TRUE(recorder.waitFor(1));
    EXPECT_EQ(recorder.at(0).response.openedRelays, (Relays{"1"}));
    EXPECT_EQ(recorder.at(0).response.failedRelays, (Relays{"2"}));

    // All offline: no waiting, every relay fails (no "all offline passes" here).
    configure([](FakeDataProvider& fake) { fake.offlineRelays = {"1", "2"}; });
    run("r2");
    ASSERT_TRUE(recorder.waitFor(2));
    EXPECT_EQ(recorder.at(1).requestId, "r2_ind_antipassback");
    EXPECT_EQ(recorder.at(1).response.result, FAILED);
    EXPECT_EQ(recorder.at(1).response.failedRelays, (Relays{"1", "2"}));
    EXPECT_EQ(recorder.at(1).response.failCode, 5);

    configure([](FakeDataProvider& fake) {
        fake.config.antiPassbackEnabled = false;
        fake.config.interlockEnabled = true;
        fake.config.interlockRelayMap = {{"1", true}, {"2", true}};
        fake.offlineRelays = {"2"};
        fake.answerInterlock = answering();
    });
    run("r3");
    ASSERT_TRUE(recorder.waitFor(3));
    EXPECT_EQ(recorder.at(2).response.openedRelays, (Relays{"1"}));
    EXPECT_EQ(recorder.at(2).response.failedRelays, (Relays{"2"}));
    configure([](FakeDataProvider& fake) { fake.offlineRelays = {"1", "2"}; });
    run("r4");
    ASSERT_TRUE(recorder.waitFor(4));
    EXPECT_EQ(recorder.at(3).response.result, FAILED);
    EXPECT_EQ(recorder.at(3).response.failedRelays, (Relays{"1", "2"}));
    EXPECT_EQ(recorder.at(3).response.failCode, 21);
}

TEST_F(IndependentPhases, ParkingPassesOfflineAndRefusesAnythingButSuccess) {
    configure([](FakeDataProvider& fake) {
        fake.config.parkingRestrictionEnabled = true;
        fake.parkingOffline = true;
    });
    probe->relays = {"1"};
    run("r1", OPEN_TYPE_LICENSE_PLATE);
    ASSERT_TRUE(recorder.waitFor(1));
    EXPECT_EQ(recorder.at(0).response.result, SUCCESS);
    EXPECT_EQ(recorder.at(0).response.asyncType, "parking");

    configure([](FakeDataProvider& fake) { fake.parkingOffline = false; });
    run("r2", OPEN_TYPE_LICENSE_PLATE);
    run("r3", OPEN_TYPE_LICENSE_PLATE);
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
    probe->user->userType = 0;
    probe->relays = {"1", "2", "3"};
    run("r1");
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
    probe->user = std::make_shared<UserData>();
    probe->user->userType = 1;
    engine.authenticate(AuthRequest(), recorder.callback(), "");
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
    probe->relays = {"1", "2"};
    for (const char* id : {"r1", "r2", "r3", "r4"}) {
        run(id);
    }
    AuthResponse answer;
    engine.handleAsyncResponse("r1_ind_unlock_options", FAILED, answer, AuthContext());
    answer.openedRelays = {"7"};
    engine.handleAsyncResponse("r2_ind_unlock_options", SUCCESS, answer, AuthContext());
    answer.failCode = 9;
    engine.handleAsyncResponse("r3_ind_unlock_options", FAILED, answer, AuthContext());
    ASSERT_TRUE(recorder.waitFor(7));
    for (const char* id : {"r1_ind_unlock_options", "r2_ind_unlock_options"}) {
        ASSERT_EQ(recorder.forId(id).size(), 1u) << id;
        const AuthResponse cancelled = recorder.forId(id)[0].response;
        EXPECT_EQ(cancelled.result, FAILED);
        EXPECT_EQ(cancelled.failCode, 44);
        EXPECT_EQ(cancelled.reason, "User canceled relay selection");
    }
    EXPECT_EQ(recorder.forId("r3_ind_unlock_options").at(0).response.failCode, 9);

    sweepAfter(29);
    EXPECT_EQ(recorder.count(), 7u);
    sweepAfter(1);
    ASSERT_EQ(recorder.forId("r4_ind_unlock_options").size(), 1u);
    const AuthResponse expired = recorder.forId("r4_ind_unlock_options")[0].response;
    EXPECT_EQ(expired.failCode, 44);
    EXPECT_EQ(expired.reason, "Unlock options timeout");
    EXPECT_EQ(expired.asyncType, "unlock_options");
}

TEST_F(IndependentPhases, InterlockIsRetriedOnceThenFailed) {
    configure([](FakeDataProvider& fake) {
        fake.config.interlockEnabled = true;
        fake.config.interlockRelayMap = {{"1", true}};
        fake.config.interlockTimeout = 5;
        fake.config.interlockRetryLimit = 1;
    });
    probe->relays = {"1"};
    run("r1");
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
    run("r2");
    configure([](FakeDataProvider& fake) { fake.answerInterlock = answering(); });
    sweepAfter(5);
    ASSERT_TRUE(recorder.waitFor(2));
    EXPECT_EQ(recorder.at(1).requestId, "r2_ind_interlock");
    EXPECT_EQ(recorder.at(1).response.openedRelays, (Relays{"1"}));
}

TEST_F(IndependentPhases, ExpiredPhaseFailsAndIgnoresLateAnswers) {
    configure([](FakeDataProvider& fake) { fake.config.antiPassbackEnabled = true; });
    probe->relays = {"1", "5"};
    run("r1");
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
    ASSERT_TRUE(engine.waitForIdle(5000));
    EXPECT_EQ(recorder.count(), 2u);
    EXPECT_EQ(engine.subRequestCount(), 0u);
}

TEST_F(IndependentPhases, ResetFailsEveryParkedPhase) {
    configure([](FakeDataProvider& fake) {
        fake.config.antiPassbackEnabled = true;
        fake.config.interlockEnabled = true;
        fake.config.interlockRelayMap = {{"4", true}};
    });
    probe->relays = {"1"};
    run("r1");
    probe->relays = {"4"};
    run("r2");
    EXPECT_EQ(engine.parkedPhaseCount(), 2u);
    engine.reset();
    ASSERT_EQ(recorder.count(), 2u);
    for (const char* id : {"r1_ind_antipassback", "r2_ind_interlock"}) {
        ASSERT_EQ(recorder.forId(id).size(), 1u) << id;
        EXPECT_EQ(recorder.forId(id)[0].response.result, FAILED);
        EXPECT_EQ(recorder.forId(id)[0].response.reason, "Engine shutdown");
    }
}

}  // namespace
}  // namespace auth_engine
