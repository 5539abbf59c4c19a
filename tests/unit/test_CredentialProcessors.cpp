// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// The processors that turn what was presented into a user and candidate relays: the user lookup and
// the DTMF, remote control, HTTP and input openings.
#include <gtest/gtest.h>

#include <memory>

#include "processors/DtmfProcessor.h"
#include "processors/HttpProcessor.h"
#include "processors/InputProcessor.h"
#include "processors/RemoteControlProcessor.h"
#include "processors/UserLookupProcessor.h"
#include "support/ProcessorTest.h"

namespace auth_engine {
namespace {

using namespace testing;  // NOLINT(google-build-using-namespace)

// Openings that name no user pass every user check.
void expectUserChecksSkipped(const AuthContext& context) {
    EXPECT_TRUE(context.skipUserLookup && context.skipVirtualDoor && context.skipUnlockType &&
                context.skipTimeCheck && context.skipHolidayCheck && context.virtualDoorExempt);
}

// ---- user lookup ----

using UserLookupProcessor = ProcessorTest<processors::UserLookupProcessor>;

TEST_F(UserLookupProcessor, SkipsAndUnknownUsers) {
    AuthContext skipped = presenting(OPEN_TYPE_CARD, "unknown");
    skipped.skipUserLookup = true;
    EXPECT_EQ(run(skipped), CONTINUE);
    EXPECT_EQ(decide(presenting(OPEN_TYPE_RELAY_KEY, "unknown")), "CONTINUE 0 '' [] []");
    EXPECT_TRUE(provider.calls().empty());

    // An unknown user is deferred only when double authentication is on, for its factor kinds.
    provider.config.doubleAuthEnabled = true;
    provider.config.doubleAuthMode = DOUBLE_AUTH_MODE_FACE_CARD;
    for (const OpenDoorType kind :
         {OPEN_TYPE_CARD, OPEN_TYPE_PIN, OPEN_TYPE_FACE, OPEN_TYPE_PIN_19}) {
        EXPECT_EQ(decide(presenting(kind, "nobody")), "CONTINUE 0 '' [] []") << kind;
    }
    EXPECT_EQ(run(presenting(OPEN_TYPE_BLE, "nobody")), FAILED);

    provider.config.doubleAuthMode = DOUBLE_AUTH_MODE_OFF;  // enabled with mode OFF is not on
    EXPECT_EQ(decide(presenting(OPEN_TYPE_CARD, "nobody")), "FAILED 1 'User not found' [] []");
}

TEST_F(UserLookupProcessor, DevicePinsReplaceRelaysExceptForQrCodes) {
    provider.publicPin = "1234";
    provider.publicPinRelays = {"2", "SA"};
    provider.latchPins["5678"] = {"3"};
    provider.users["1234"] = UserData();

    AuthContext pub = presenting(OPEN_TYPE_CARD_6, "1234");
    pub.relays = {"1"};
    EXPECT_EQ(decide(pub), "CONTINUE 0 '' [2,SA] []");
    EXPECT_TRUE(pub.request.openType == OPEN_TYPE_PUBLIC_PIN && pub.skipUnlockType &&
                !pub.userData);
    AuthContext latch = presenting(OPEN_TYPE_CARD_8, "5678");
    EXPECT_EQ(decide(latch), "CONTINUE 0 '' [3] []");
    EXPECT_TRUE(latch.request.openType == OPEN_TYPE_LATCH_PIN && !latch.skipUnlockType);
    EXPECT_EQ(provider.callCount("getUserByCredential"), 0);

    // A QR code, or a kind that cannot carry a device PIN, is looked up as a credential.
    AuthContext qr = presenting(OPEN_TYPE_CARD, "1234"), pin = presenting(OPEN_TYPE_PIN, "1234");
    qr.request.sourceCode = SOURCE_CODE_QR;
    for (AuthContext context : {qr, pin}) {
        const OpenDoorType before = context.request.openType;
        EXPECT_EQ(run(context), CONTINUE);
        EXPECT_TRUE(context.request.openType == before && context.userData);
    }
    EXPECT_EQ(provider.callCount("isPublicPin"), 2);
}

TEST_F(UserLookupProcessor, FoundUsersPlateKeysAndDtmfVisitors) {
    provider.users["AB123"] = UserData();
    provider.keyData = std::make_shared<KeyData>();
    AuthContext plate = presenting(OPEN_TYPE_LICENSE_PLATE, "AB123");
    AuthContext card = presenting(OPEN_TYPE_CARD, "AB123");
    EXPECT_EQ(run(plate) + run(card), 2 * CONTINUE);
    EXPECT_TRUE(plate.userData && plate.response.user == plate.userData && plate.keyData &&
                !card.keyData);
    EXPECT_EQ(provider.callCount("getKeyData"), 1);

    // A DTMF visitor gets a private user and skips relay schedules.
    provider.dtmfVisitor = UserData();
    provider.dtmfVisitor->userId = "visitor";
    auto called = [](bool withData) {
        AuthContext context = presenting(OPEN_TYPE_DTMF, "#1");
        context.dtmfAuthData = withData ? std::make_shared<DtmfAuthData>() : nullptr;
        return context;
    };

    AuthContext context = called(true);
    EXPECT_EQ(run(context), CONTINUE);
    // Nobody else holds the visitor record.
    EXPECT_TRUE(context.userData && context.userData->userId == "visitor" &&
                context.response.user == context.userData && context.userData.use_count() == 2 &&
                context.request.virtualDoorSkipRelaySchedule);

    // Without DTMF data the visitor is never asked; a refused visitor is an unknown user.
    EXPECT_EQ(run(called(false)), FAILED);
    EXPECT_EQ(provider.callCount("requestDtmfVisitorPermission"), 1);
    provider.dtmfVisitor.reset();
    AuthContext refused = called(true);
    EXPECT_EQ(run(refused), FAILED);
    EXPECT_FALSE(refused.userData || refused.request.virtualDoorSkipRelaySchedule);
}

// ---- DTMF ----

AuthContext dtmfOpen(const std::string& code, const std::string& number = "+100") {
    AuthContext context = attempt(OPEN_TYPE_DTMF, {}, nullptr);
    context.request.dtmfData =
        std::make_shared<DtmfRequestData>(DtmfRequestData{code, number, "caller", "call-1"});
    return context;
}

// What the DTMF stage learnt of the caller: "[whitelisted] perId remoteUsername".
std::string caller(const DtmfAuthData& data) {
    return (data.whitelisted ? "whitelisted " : "") + data.resolvedPerId + " " +
           data.remoteUsername;
}

class DtmfProcessor : public ProcessorTest<processors::DtmfProcessor> {
protected:
    DtmfProcessor() {
        provider.dtmfConfig = DtmfConfig{true, {{"#1", {"1", "SA", "1"}}, {"#9", {""}}}, false};
    }
    // Expects a refusal with `failCode` and `reason` that leaves nothing to open.
    void expectRefused(AuthContext context, int failCode, const std::string& reason) {
        EXPECT_EQ(decide(context),
                  "FAILED " + std::to_string(failCode) + " '" + reason + "' [] []");
        EXPECT_FALSE(context.dtmfAuthData) << reason;
    }
};

TEST_F(DtmfProcessor, RefusesWithoutDataConfigurationKnownCodeOrWhitelisting) {
    expectRefused(attempt(OPEN_TYPE_DTMF, {}, nullptr), 0, "Invalid DTMF data");
    for (const std::string code : {"#3", "", "#9"}) {
        expectRefused(dtmfOpen(code), 1, "Invalid DTMF code");
    }
    provider.dtmfConfig->whitelistRequired = true;
    provider.dtmfWhitelist["+200"] = DtmfWhitelistResult{false, "per-2", "Flat 2"};
    for (const std::string number : {"+100", "+200"}) {
        expectRefused(dtmfOpen("#1", number), 1, "DTMF caller not whitelisted");
    }
    provider.dtmfConfig->enabled = false;
    expectRefused(dtmfOpen("#1"), 1, "DTMF open disabled");
    provider.dtmfConfig.reset();
    expectRefused(dtmfOpen("#1"), 1, "DTMF open disabled");
}

// Code relays become targets once and a known caller is the user; a whitelisted visitor is left to
// the user lookup.
TEST_F(DtmfProcessor, KnownCallersAndWhitelistedVisitors) {
    provider.dtmfUsers["+100"].userId = "r-1";
    AuthContext context = dtmfOpen("#1");
    context.authTargets = {{0, "1"}};
    EXPECT_EQ(decide(context), "CONTINUE 0 '' [1,SA] []");
    EXPECT_EQ(provider.callCount("requestDtmfWhitelist"), 0);
    EXPECT_EQ(targetsOf(context.authTargets), " 0:1 1:SA");
    ASSERT_TRUE(context.dtmfAuthData && context.userData);
    EXPECT_EQ(caller(*context.dtmfAuthData) + " " + context.userData->userId, " caller r-1");
    EXPECT_TRUE(context.response.user == context.userData && context.skipUserLookup);

    provider.dtmfConfig->whitelistRequired = true;
    provider.dtmfWhitelist["+200"] = DtmfWhitelistResult{true, "per-5", "Flat 5"};
    AuthContext visitor = dtmfOpen("#1", "+200");
    EXPECT_EQ(run(visitor), CONTINUE);
    EXPECT_EQ(visitor.dtmfAuthData ? caller(*visitor.dtmfAuthData) : "-",
              "whitelisted per-5 Flat 5");
    EXPECT_FALSE(visitor.userData || visitor.skipUserLookup);
}

// ---- remote control ----

AuthContext command(const std::string& remoteUserId, Targets targets) {
    AuthContext context = presenting(OPEN_TYPE_REMOTE_CONTROL, remoteUserId);
    context.request.commandText = "open-from-app";
    context.request.targets = std::move(targets);
    return context;
}

using RemoteControlProcessor = ProcessorTest<processors::RemoteControlProcessor>;

TEST_F(RemoteControlProcessor, UnknownUserNeedsTargetsAndRunsUnderACommandAuthorizedUser) {
    AuthContext empty = command("", {{0, "1"}}), aimless = command("ghost", {});
    EXPECT_EQ(decide(empty), "FAILED 1 'Remote control user id is empty' [] []");
    EXPECT_EQ(decide(aimless), "FAILED 32 'Remote control target invalid' [] []");
    EXPECT_FALSE(aimless.userData);

    AuthContext context = command("app-42", {{0, "2"}, {1, "SA"}, {0, "2"}, {2, "lift"}});
    context.request.virtualDoorExempt = true;
    EXPECT_EQ(decide(context), "CONTINUE 0 '' [2,SA] []");
    ASSERT_TRUE(context.userData && context.remoteControlAuthData);
    EXPECT_EQ(context.userData->userId + std::to_string(context.userData->userType) + " " +
                  context.remoteControlAuthData->remoteUserId + " " +
                  context.remoteControlAuthData->commandText,
              "app-421 app-42 open-from-app");
    EXPECT_EQ(targetsOf(context.authTargets), " 0:2 1:SA 0:2 2:lift");
    EXPECT_TRUE(context.response.user == context.userData);
    EXPECT_TRUE(context.skipUserLookup && context.skipUnlockType && context.skipVirtualDoor &&
                context.virtualDoorExempt && !context.skipTimeCheck && !context.skipHolidayCheck);

    // A known user needs no targets.
    provider.remoteControlUsers["resident-7"].scheduleRelay = "1-1";
    AuthContext known = command("resident-7", {});
    EXPECT_EQ(decide(known), "CONTINUE 0 '' [] []");
    EXPECT_TRUE(known.userData && known.userData->scheduleRelay == "1-1" &&
                !known.skipVirtualDoor && !known.virtualDoorExempt);
}

// ---- HTTP ----

AuthContext httpOpen(Targets targets, int source = 0) {
    AuthContext context = attempt(OPEN_TYPE_HTTP, {}, nullptr);
    context.request.httpData = std::make_shared<HttpRequestData>(
        HttpRequestData{source, 0, "", "", "", 0, 0, 0, 0, std::move(targets)});
    return context;
}

using HttpProcessor = ProcessorTest<processors::HttpProcessor>;

TEST_F(HttpProcessor, TargetsAreCheckedLiterallyAndLocalCommandsNeedValidCredentials) {
    EXPECT_EQ(decide(attempt(OPEN_TYPE_HTTP_20, {}, nullptr)),
              "FAILED 0 'Invalid HTTP data' [] []");
    const std::vector<Targets> invalid = {{},          {{0, "3"}},           {{1, "sa"}},
                                          {{0, "SA"}}, {{1, "1"}},           {{2, ""}},
                                          {{3, "1"}},  {{0, "1"}, {1, "SC"}}};
    for (const Targets& targets : invalid) {
        EXPECT_EQ(decide(httpOpen(targets, 1)), "FAILED 32 'Invalid HTTP target' [] []");
    }

    // Source 1 passes although HTTP opening is not configured; kind 2 is carried but is no relay.
    AuthContext valid = httpOpen({{0, "1"}, {1, "SB"}, {2, "gate-7"}, {0, "1"}}, 1);
    valid.request.targets = {{0, "2"}};
    EXPECT_EQ(decide(valid), "CONTINUE 0 '' [1,SB] []");
    EXPECT_EQ(targetsOf(valid.authTargets), " 0:1 1:SB 2:gate-7 0:1");
    expectUserChecksSkipped(valid);
    EXPECT_TRUE(valid.httpRequestData && valid.httpRequestData != valid.request.httpData);
    EXPECT_EQ(provider.callCount("getHttpOpenConfig"), 0);

    AuthContext fromRequest = httpOpen({}, 1);
    fromRequest.request.targets = {{0, "2"}};
    EXPECT_EQ(decide(fromRequest), "CONTINUE 0 '' [2] []");

    // Local commands need opening enabled and valid credentials.
    auto code = [&](int mode, const std::string& user, const std::string& password, int preAuth) {
        AuthContext context = httpOpen({});
        *context.request.httpData =
            HttpRequestData{0, mode, user, password, "", preAuth, 0, 0, 0, {{0, "1"}}};
        return failCodeOf(context);
    };
    EXPECT_EQ(code(1, "", "", 1), 30);  // no configuration
    provider.httpConfig = HttpOpenConfig{false, "admin", "s3cret"};
    EXPECT_EQ(code(0, "admin", "s3cret", 0), 30);

    provider.httpConfig->enabled = true;
    EXPECT_EQ(code(0, "admin", "s3cret", 0), -1);
    for (const auto& [user, password] : std::vector<std::pair<std::string, std::string>>{
             {"admin", "s3cre"}, {"admin", "s3cret!"}, {"admin", "S3cret"}, {"Admin", "s3cret"}}) {
        EXPECT_EQ(code(0, user, password, 0), 31) << user << "/" << password;
    }
    EXPECT_EQ(code(1, "", "", 1), -1);
    EXPECT_EQ(code(1, "admin", "s3cret", 0), 31);
    EXPECT_EQ(code(2, "admin", "s3cret", 1), 31);

    provider.httpConfig = HttpOpenConfig{true, "", ""};
    EXPECT_EQ(code(0, "", "", 0), -1);
    EXPECT_EQ(code(0, "", "x", 0), 31);
}

// ---- input ----

AuthContext inputOpen(Targets inputTargets, Targets requestTargets = {}) {
    AuthContext context = attempt(OPEN_TYPE_INPUT, {}, nullptr);
    context.request.inputData =
        std::make_shared<InputRequestData>(InputRequestData{0, 0, 0, 0, std::move(inputTargets)});
    context.request.targets = std::move(requestTargets);
    return context;
}

using InputProcessor = ProcessorTest<processors::InputProcessor>;

TEST_F(InputProcessor, OpensOnlyRelayOneOrTwoOfTheInputsTargets) {
    AuthContext card = inputOpen({{0, "1"}});
    card.request.openType = OPEN_TYPE_CARD;
    EXPECT_EQ(decide(card), "CONTINUE 0 '' [] []");

    EXPECT_EQ(decide(attempt(OPEN_TYPE_INPUT, {}, nullptr)), "FAILED 0 'Invalid Input data' [] []");
    const std::vector<Targets> invalid = {{},        {{0, "SA"}}, {{1, "SA"}},          {{0, "3"}},
                                          {{0, ""}}, {{2, "1"}},  {{0, "1"}, {0, "12"}}};
    for (const Targets& targets : invalid) {
        EXPECT_EQ(decide(inputOpen(targets)), "FAILED 32 'Invalid Input target' [] []");
    }

    // Targets named by the input win over the request's, and no user check applies.
    AuthContext context = inputOpen({{0, "2"}, {0, "1"}, {0, "2"}}, {{0, "SA"}});
    EXPECT_EQ(decide(context), "CONTINUE 0 '' [2,1] []");
    EXPECT_TRUE(context.inputRequestData && context.inputRequestData != context.request.inputData);
    expectUserChecksSkipped(context);

    EXPECT_EQ(decide(inputOpen({}, {{0, "1"}})), "CONTINUE 0 '' [1] []");
}

}  // namespace
}  // namespace auth_engine
