#include <gtest/gtest.h>

#include <memory>

#include "processors/UserLookupProcessor.h"
#include "support/FakeDataProvider.h"

namespace auth_engine {
namespace {

using processors::UserLookupProcessor;
using Relays = std::vector<std::string>;

AuthContext attempt(const std::string& credential, OpenDoorType openType) {
    AuthContext context;
    context.request.credential = credential;
    context.request.openType = openType;
    return context;
}

TEST(UserLookupProcessor, SkipFlagAndRelayKeyContinueWithoutLookup) {
    testing::FakeDataProvider provider;
    AuthContext skipped = attempt("unknown", OPEN_TYPE_CARD);
    skipped.skipUserLookup = true;
    EXPECT_EQ(UserLookupProcessor().process(skipped, provider), CONTINUE);
    AuthContext relayKey = attempt("unknown", OPEN_TYPE_RELAY_KEY);
    EXPECT_EQ(UserLookupProcessor().process(relayKey, provider), CONTINUE);
    EXPECT_EQ(relayKey.response.result, CONTINUE);
    EXPECT_TRUE(provider.calls().empty());
}

TEST(UserLookupProcessor, DevicePinsReplaceRelaysExceptForQrCodes) {
    testing::FakeDataProvider provider;
    provider.publicPin = "1234";
    provider.publicPinRelays = {"2", "SA"};
    provider.latchPins["5678"] = {"3"};
    provider.users["1234"] = UserData();
    UserLookupProcessor processor;

    AuthContext pub = attempt("1234", OPEN_TYPE_CARD_6);
    pub.relays = {"1"};
    EXPECT_EQ(processor.process(pub, provider), CONTINUE);
    EXPECT_EQ(pub.request.openType, OPEN_TYPE_PUBLIC_PIN);
    EXPECT_EQ(pub.relays, (Relays{"2", "SA"}));
    EXPECT_TRUE(pub.skipUnlockType);
    EXPECT_FALSE(pub.userData);

    AuthContext latch = attempt("5678", OPEN_TYPE_CARD_8);
    EXPECT_EQ(processor.process(latch, provider), CONTINUE);
    EXPECT_EQ(latch.request.openType, OPEN_TYPE_LATCH_PIN);
    EXPECT_EQ(latch.relays, (Relays{"3"}));
    EXPECT_FALSE(latch.skipUnlockType);
    EXPECT_EQ(provider.callCount("getUserByCredential"), 0);

    // A QR code, or a kind that cannot carry a device PIN, is looked up as a credential.
    AuthContext qr = attempt("1234", OPEN_TYPE_CARD);
    qr.request.sourceCode = SOURCE_CODE_QR;
    AuthContext pin = attempt("1234", OPEN_TYPE_PIN);
    for (AuthContext* context : {&qr, &pin}) {
        const OpenDoorType before = context->request.openType;
        EXPECT_EQ(processor.process(*context, provider), CONTINUE);
        EXPECT_EQ(context->request.openType, before);
        EXPECT_TRUE(context->userData);
    }
    EXPECT_EQ(provider.callCount("isPublicPin"), 2);
}

TEST(UserLookupProcessor, FoundUserSharedWithResponseAndPlateKeyFetched) {
    testing::FakeDataProvider provider;
    provider.users["AB123"] = UserData();
    provider.keyData = std::make_shared<KeyData>();
    AuthContext plate = attempt("AB123", OPEN_TYPE_LICENSE_PLATE);
    EXPECT_EQ(UserLookupProcessor().process(plate, provider), CONTINUE);
    ASSERT_TRUE(plate.userData);
    EXPECT_EQ(plate.response.user, plate.userData);
    EXPECT_TRUE(plate.keyData);

    AuthContext card = attempt("AB123", OPEN_TYPE_CARD);
    EXPECT_EQ(UserLookupProcessor().process(card, provider), CONTINUE);
    EXPECT_FALSE(card.keyData);
    EXPECT_EQ(provider.callCount("getKeyData"), 1);
}

TEST(UserLookupProcessor, DtmfVisitorGetsPrivateUserAndSkipsRelaySchedules) {
    testing::FakeDataProvider provider;
    provider.dtmfVisitor = UserData();
    provider.dtmfVisitor->userId = "visitor";

    AuthContext context = attempt("#1", OPEN_TYPE_DTMF);
    context.dtmfAuthData = std::make_shared<DtmfAuthData>();
    EXPECT_EQ(UserLookupProcessor().process(context, provider), CONTINUE);
    ASSERT_TRUE(context.userData);
    EXPECT_EQ(context.userData->userId, "visitor");
    EXPECT_EQ(context.response.user, context.userData);
    EXPECT_EQ(context.userData.use_count(), 2);  // nobody else holds the visitor record
    EXPECT_TRUE(context.request.virtualDoorSkipRelaySchedule);

    // Without DTMF data the visitor is never asked; a refused visitor is an unknown user.
    AuthContext bare = attempt("#1", OPEN_TYPE_DTMF);
    EXPECT_EQ(UserLookupProcessor().process(bare, provider), FAILED);
    EXPECT_EQ(provider.callCount("requestDtmfVisitorPermission"), 1);
    provider.dtmfVisitor.reset();
    AuthContext refused = attempt("#1", OPEN_TYPE_DTMF);
    refused.dtmfAuthData = std::make_shared<DtmfAuthData>();
    EXPECT_EQ(UserLookupProcessor().process(refused, provider), FAILED);
    EXPECT_FALSE(refused.userData);
    EXPECT_FALSE(refused.request.virtualDoorSkipRelaySchedule);
}

TEST(UserLookupProcessor, UnknownUserDeferredOnlyWhenDoubleAuthIsOnForFactorKinds) {
    testing::FakeDataProvider provider;
    provider.config.doubleAuthEnabled = true;
    provider.config.doubleAuthMode = DOUBLE_AUTH_MODE_FACE_CARD;
    UserLookupProcessor processor;

    for (const OpenDoorType kind :
         {OPEN_TYPE_CARD, OPEN_TYPE_PIN, OPEN_TYPE_FACE, OPEN_TYPE_PIN_19}) {
        AuthContext context = attempt("nobody", kind);
        EXPECT_EQ(processor.process(context, provider), CONTINUE) << kind;
        EXPECT_EQ(context.response.failCode, 0) << kind;
    }
    AuthContext ble = attempt("nobody", OPEN_TYPE_BLE);
    EXPECT_EQ(processor.process(ble, provider), FAILED);

    provider.config.doubleAuthMode = DOUBLE_AUTH_MODE_OFF;  // enabled with mode OFF is not on
    AuthContext card = attempt("nobody", OPEN_TYPE_CARD);
    EXPECT_EQ(processor.process(card, provider), FAILED);
    EXPECT_EQ(card.response.result, FAILED);
    EXPECT_EQ(card.response.failCode, 1);
    EXPECT_EQ(card.response.reason, "User not found");
}

}  // namespace
}  // namespace auth_engine
