#include <gtest/gtest.h>

#include <memory>

#include "processors/BleIntervalProcessor.h"
#include "support/FakeDataProvider.h"
#include "support/LogCapture.h"

namespace auth_engine {
namespace {

using processors::BleIntervalProcessor;
using Relays = std::vector<std::string>;

// A host that allows one BLE open per user.
class OncePerUserProvider : public testing::FakeDataProvider {
public:
    bool checkBleOpenInterval(const UserData& user, const Relays& relays) override {
        FakeDataProvider::checkBleOpenInterval(user, relays);
        return bleRecords.empty() || lastUser != user.userId;
    }
    void recordBleOpen(const UserData& user, const Relays& relays) override {
        FakeDataProvider::recordBleOpen(user, relays);
        lastUser = user.userId;
    }
    std::string lastUser;
};

AuthContext bleContext(const std::string& userId, const Relays& relays) {
    AuthContext context;
    context.request.openType = OPEN_TYPE_BLE;
    context.userData = std::make_shared<UserData>();
    context.userData->userId = userId;
    context.relays = relays;
    return context;
}

TEST(BleIntervalProcessor, SecondOpenInARowIsIgnoredAndNotRecorded) {
    OncePerUserProvider provider;
    testing::LogCapture log;
    AuthContext first = bleContext("u7", {"1", "SA"});
    EXPECT_EQ(BleIntervalProcessor().process(first, provider), CONTINUE);
    EXPECT_EQ(provider.bleRecords, (std::vector<Relays>{{"1", "SA"}}));

    AuthContext second = bleContext("u7", {"1", "SA"});
    second.response.failCode = 3;
    EXPECT_EQ(BleIntervalProcessor().process(second, provider), IGNORED);
    EXPECT_EQ(second.response.reason, "BLE open interval");
    EXPECT_EQ(second.response.result, CONTINUE);
    EXPECT_EQ(second.response.failCode, 3);
    EXPECT_TRUE(second.failedRelays.empty());
    EXPECT_TRUE(log.contains("] result=IGNORED, user=u7, relays=1,SA"));
    EXPECT_EQ(provider.calls(),
              (Relays{"checkBleOpenInterval", "recordBleOpen", "checkBleOpenInterval"}));
}

TEST(BleIntervalProcessor, OnlyBleWithUserAndRelaysIsChecked) {
    testing::FakeDataProvider provider;
    provider.bleAllowed = false;
    std::vector<AuthContext> contexts(3, bleContext("u1", {"1"}));
    contexts[0].userData.reset();
    contexts[1].relays.clear();
    contexts[2].request.openType = OPEN_TYPE_CARD;
    for (AuthContext& context : contexts) {
        EXPECT_EQ(BleIntervalProcessor().process(context, provider), CONTINUE);
        EXPECT_TRUE(context.response.reason.empty());
    }
    EXPECT_TRUE(provider.calls().empty());
}

}  // namespace
}  // namespace auth_engine
