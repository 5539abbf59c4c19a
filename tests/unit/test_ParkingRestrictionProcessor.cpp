#include <gtest/gtest.h>

#include "processors/ParkingRestrictionProcessor.h"
#include "support/FakeDataProvider.h"
#include "support/LogCapture.h"

namespace auth_engine {
namespace {

using processors::ParkingRestrictionProcessor;

AuthContext plate(int userType, const std::string& requestId, OpenDoorType openType,
                  AuthResult result = CONTINUE, int failCode = 0) {
    AuthContext context;
    context.request.openType = openType;
    context.userData = std::make_shared<UserData>();
    context.userData->userType = userType;
    context.relays = {"1"};
    context.requestId = requestId;
    context.response.result = result;
    context.response.failCode = failCode;
    return context;
}

TEST(ParkingRestrictionProcessor, DecidesWithoutAskingWhenItCan) {
    testing::FakeDataProvider provider;
    testing::LogCapture log;
    ParkingRestrictionProcessor processor;
    const OpenDoorType lpr = OPEN_TYPE_LICENSE_PLATE;
    AuthContext disabled = plate(1, "r", lpr);
    EXPECT_EQ(processor.process(disabled, provider), CONTINUE);
    EXPECT_EQ(processor.processRelays(disabled, provider, {"1"}), CONTINUE);
    provider.config.parkingRestrictionEnabled = true;

    // PIN opens pass before the resume test, even carrying a refusal; a resumed SUCCESS passes.
    AuthContext publicPin = plate(1, "r", OPEN_TYPE_PUBLIC_PIN, FAILED, 23),
                latchPin = plate(1, "r", OPEN_TYPE_LATCH_PIN, FAILED, 23),
                allowed = plate(1, "r", lpr, SUCCESS), kindTwo = plate(2, "r", lpr),
                card = plate(1, "r", OPEN_TYPE_CARD), noUser = plate(1, "r", lpr);
    noUser.userData.reset();
    for (AuthContext* context : {&publicPin, &latchPin, &allowed, &kindTwo, &card, &noUser}) {
        EXPECT_EQ(processor.process(*context, provider), CONTINUE);
    }
    for (AuthContext* context : {&kindTwo, &card, &noUser}) {
        EXPECT_EQ(processor.processRelays(*context, provider, {"1"}), CONTINUE);
    }
    AuthContext refused = plate(1, "r", lpr, FAILED, 23);
    EXPECT_EQ(processor.process(refused, provider), FAILED);
    EXPECT_EQ(provider.callCount("requestParking"), 0);
    EXPECT_TRUE(log.contains("openType=2, skip"));
    EXPECT_TRUE(log.contains("openType=3, skip"));
    EXPECT_EQ(log.count("resume result=CONTINUE"), 1);
    EXPECT_EQ(log.count("resume result=FAILED"), 1);
}

TEST(ParkingRestrictionProcessor, AsksOnceAndPassesWhenTheHostIsOffline) {
    testing::FakeDataProvider provider;
    provider.config.parkingRestrictionEnabled = true;
    testing::LogCapture log;
    ParkingRestrictionProcessor processor;
    const OpenDoorType lpr = OPEN_TYPE_LICENSE_PLATE;
    AuthContext routed = plate(1, "req_3", lpr), unrouted = plate(1, "", lpr);
    EXPECT_EQ(processor.process(routed, provider), ASYNC_PENDING);
    EXPECT_EQ(routed.response.reason, "Parking restriction check pending");
    EXPECT_EQ(processor.process(unrouted, provider), ASYNC_PENDING);
    EXPECT_EQ(unrouted.response.reason, "Parking restriction check pending (no callback)");
    EXPECT_TRUE(log.contains("result=ASYNC_PENDING"));
    // The independent variant waits only when an answer can be routed back.
    AuthContext phase = plate(1, "req_1_ind_parking", lpr), quiet = plate(1, "", lpr);
    EXPECT_EQ(processor.processRelays(phase, provider, {"2"}), ASYNC_PENDING);
    EXPECT_EQ(processor.processRelays(quiet, provider, {"2"}), CONTINUE);
    EXPECT_TRUE(phase.response.reason.empty());

    const auto questions = provider.questions();
    ASSERT_EQ(questions.size(), 4u);
    EXPECT_EQ(questions[2].relay, "1");  // the host reads the context's relays, not the list
    for (std::size_t i = 0; i < questions.size(); ++i) {
        EXPECT_EQ(static_cast<bool>(questions[i].callback), i % 2 == 0) << i;
    }

    provider.parkingOffline = true;
    for (const std::string id : {"req_4", ""}) {
        AuthContext offline = plate(1, id, lpr);
        EXPECT_EQ(processor.process(offline, provider), CONTINUE);
        EXPECT_EQ(offline.response.reason, "Parking restriction check skipped (offline mode)");
        EXPECT_EQ(processor.processRelays(offline, provider, {"1"}), CONTINUE);
    }
}

}  // namespace
}  // namespace auth_engine
