// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// The split after the chain: what is reported at once, what is failed, what is offered for a
// choice.
#include "support/EngineHarness.h"

namespace auth_engine {
namespace testing {
namespace {

using Targets = std::vector<std::pair<int, std::string>>;

Targets targetsOf(const AuthResponse& response) {
    Targets out;
    for (const AuthTarget& target : response.targets) {
        out.emplace_back(target.type, target.relay);
    }
    return out;
}

// The chain stands in for the policy chain: it hands the post-sync phase a prepared verdict.
class IndependentPostSync : public EngineTest {
protected:
    void SetUp() override {
        host->config.antiPassbackRelayMap = {{"1", 1}, {"2", 1}};
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
    void configureConfig(const std::function<void(AuthConfig&)>& change) {
        configure([&](FakeDataProvider& fake) { change(fake.config); });
    }
    AuthResponse runAs(const std::string& id = "r1") { return run(id); }

    std::shared_ptr<UserData> user = std::make_shared<UserData>();
    Relays relays, failedRelays, deniedRelays, responseFailed;
    std::map<std::string, std::string> reasons;
    std::vector<AuthTarget> targets;
    AuthResult result = CONTINUE;
};

TEST_F(IndependentPostSync, PassedChainReportsOpenedAndRecordedFailures) {
    relays = {"4", "S1", "4"};
    failedRelays = {"1", "2", "3", "1"};
    reasons = {{"1", "TimeCheck"}, {"2", "VirtualDoor"}};  // "3" has no recorded reason

    const AuthResponse response = runAs();
    EXPECT_EQ(response.result, SUCCESS);
    EXPECT_EQ(response.openedRelays, (Relays{"4", "S1"}));
    EXPECT_EQ(response.failedRelays, (Relays{"1"}));
    EXPECT_EQ(targetsOf(response), (Targets{{0, "4"}, {1, "S1"}}));
    ASSERT_EQ(recorder.count(), 1u);
    EXPECT_EQ(recorder.at(0).requestId, "r1");
    EXPECT_EQ(recorder.at(0).response.asyncType, "sync");
    EXPECT_EQ(host->reportCount(), 1u);

    // Only failures, nothing opened: the report fails even though the chain passed.
    relays = {};
    EXPECT_EQ(runAs().result, FAILED);
}

TEST_F(IndependentPostSync, FailedChainFailsEveryRelayWithoutTargets) {
    result = FAILED;
    relays = {"1", "2"};
    failedRelays = {"3"};
    reasons = {{"3", "Holiday"}, {"1", "LockDown"}};
    user->userTargetId = "T9";
    targets = {{2, "T8"}};

    const AuthResponse response = runAs();
    EXPECT_EQ(response.result, FAILED);
    EXPECT_EQ(response.failedRelays, (Relays{"3", "1", "2"}));
    EXPECT_TRUE(response.openedRelays.empty());
    EXPECT_TRUE(response.targets.empty());
    const AuthContext reported = recorder.at(0).context;
    EXPECT_EQ(reported.relayFailReasons.at("1"), "LockDown");
    EXPECT_EQ(reported.relayFailReasons.at("2"), "AuthFailed");

    // With no relay of its own, the failure falls back on the response's list, then on the denied.
    relays = {};
    failedRelays = {};
    deniedRelays = {"7"};
    responseFailed = {"6"};
    EXPECT_EQ(runAs().failedRelays, (Relays{"6"}));
    responseFailed = {};
    EXPECT_EQ(runAs().failedRelays, (Relays{"7"}));
}

TEST_F(IndependentPostSync, TargetsKeepKindsAndAreAddedOnce) {
    AuthContext context;
    context.userData = std::make_shared<UserData>();
    context.userData->userTargetId = "U";
    context.authTargets = {{0, "1"}, {0, "9"}, {3, "X"}, {2, "U"}, {0, "1"}};

    engine.buildAuthTargetsForRelays(context, {"1", "S1", "S", "S1"}, true);
    EXPECT_EQ(targetsOf(context.response),
              (Targets{{0, "1"}, {3, "X"}, {2, "U"}, {1, "S1"}, {0, "S"}}));
    engine.buildAuthTargetsForRelays(context, {"S1"}, false);
    EXPECT_EQ(targetsOf(context.response), (Targets{{1, "S1"}}));

    // Without a relay list of its own, the opened relays are actuated.
    context.authTargets.clear();
    context.response.openedRelays = {"2"};
    engine.buildAuthTargets(context);
    EXPECT_EQ(targetsOf(context.response), (Targets{{0, "2"}, {2, "U"}}));
}

TEST_F(IndependentPostSync, SeveralRelaysAreOfferedForAChoiceOneOpensAtOnce) {
    configureConfig([](AuthConfig& config) { config.unlockOptionsEnabled = true; });
    relays = {"1"};
    EXPECT_EQ(runAs().result, SUCCESS);

    relays = {"1", "2"};
    failedRelays = {"3"};
    reasons = {{"3", "TimeCheck"}};
    const AuthResponse offer = runAs();
    EXPECT_EQ(static_cast<int>(offer.result), UNLOCK_OPTIONS_PENDING);
    EXPECT_EQ(offer.unlockOptionsRelays, (Relays{"1", "2"}));
    EXPECT_EQ(offer.unlockOptionsId, "r1_ind_unlock_options");
    EXPECT_EQ(offer.failedRelays, (Relays{"3"}));
    EXPECT_EQ(recorder.at(1).requestId, "r1");
    EXPECT_EQ(host->reports().back().result, UNLOCK_OPTIONS_PENDING);

    AuthEngine::IndependentAsyncContext parked;
    ASSERT_TRUE(engine.peekParkedPhase("r1_ind_unlock_options", parked));
    EXPECT_EQ(parked.timeoutSeconds, 30);
    EXPECT_EQ(parked.phase, "unlock_options");
    EXPECT_EQ(static_cast<int>(parked.context.response.result), UNLOCK_OPTIONS_PENDING);
    EXPECT_TRUE(parked.context.response.failedRelays.empty());

    // A request without id gets one of its own for the choice; the offer keeps the empty id.
    const AuthResponse anonymous = runAs("");
    EXPECT_EQ(recorder.at(2).requestId, "");
    EXPECT_EQ(anonymous.unlockOptionsId.rfind("req_", 0), 0u);
    EXPECT_TRUE(engine.peekParkedPhase(anonymous.unlockOptionsId, parked));
    EXPECT_EQ(parked.parentRequestId + "_ind_unlock_options", anonymous.unlockOptionsId);
}

TEST_F(IndependentPostSync, PassWithNothingToOpenIsStillReportedOnce) {
    EXPECT_EQ(runAs().result, SUCCESS);
    ASSERT_EQ(recorder.count(), 1u);
    EXPECT_TRUE(recorder.at(0).response.openedRelays.empty());

    const std::string id = submit(AuthRequest());
    ASSERT_TRUE(recorder.waitFor(2));
    ASSERT_TRUE(idle());
    EXPECT_EQ(recorder.count(), 2u);
    EXPECT_EQ(recorder.at(1).requestId, id);
    EXPECT_EQ(recorder.at(1).response.result, SUCCESS);
}

TEST_F(IndependentPostSync, NonRelayGrantIsReportedWhileRelaysAreHeldBack) {
    configureConfig([](AuthConfig& config) { config.antiPassbackEnabled = true; });
    user->userType = 1;
    user->userTargetId = "T1";
    relays = {"1"};

    const AuthResponse response = runAs();
    EXPECT_EQ(response.result, SUCCESS);
    EXPECT_TRUE(response.openedRelays.empty());
    EXPECT_EQ(targetsOf(response), (Targets{{2, "T1"}}));
    EXPECT_EQ(engine.parkedPhaseCount(), 1u);
    ASSERT_TRUE(host->waitForQuestions(1));
    host->answer(0, SUCCESS);
    ASSERT_TRUE(recorder.waitFor(2));
    // The later report opens the relay and does not repeat the user's own target.
    EXPECT_EQ(targetsOf(recorder.at(1).response), (Targets{{0, "1"}}));
}

TEST_F(IndependentPostSync, SplitFollowsOpenTypeAndUserKind) {
    configureConfig([](AuthConfig& config) {
        config.antiPassbackEnabled = true;
        config.parkingRestrictionEnabled = true;
    });
    relays = {"1", "3"};
    user->userType = 3;  // not under anti-passback
    EXPECT_EQ(runAs().openedRelays, (Relays{"1", "3"}));

    user->userType = 2;
    EXPECT_EQ(run("r2", makeRequest("", OPEN_TYPE_REMOTE_CONTROL)).openedRelays,
              (Relays{"1", "3"}));
    EXPECT_EQ(runAs("r3").openedRelays, (Relays{"3"}));  // relay 1 waits for anti-passback
    EXPECT_EQ(engine.parkedPhaseCount(), 1u);

    // Parking restriction holds every relay of a plate user of kind 1.
    user = std::make_shared<UserData>();  // the parked phase still shares the old one
    user->userType = 1;
    const std::size_t before = recorder.count();
    run("r4", makeRequest("", OPEN_TYPE_LICENSE_PLATE));
    EXPECT_EQ(recorder.count(), before);
    AuthEngine::IndependentAsyncContext parked;
    ASSERT_TRUE(engine.peekParkedPhase("r4_ind_antipassback", parked));
    EXPECT_EQ(parked.relayChecks,
              (std::map<std::string, std::vector<int>>{{"1", {0, 2}}, {"3", {2}}}));
    EXPECT_EQ(parked.apAndParkingRelays, (Relays{"1"}));
    EXPECT_EQ(parked.parkingOnlyRelays, (Relays{"3"}));
}

}  // namespace
}  // namespace testing
}  // namespace auth_engine
