#include <gtest/gtest.h>

#include <memory>

#include "processors/DtmfProcessor.h"
#include "support/FakeDataProvider.h"

namespace auth_engine {
namespace {

using Relays = std::vector<std::string>;

AuthContext dtmfOpen(const std::string& code, const std::string& number = "+100") {
    AuthContext context;
    context.request.openType = OPEN_TYPE_DTMF;
    context.request.dtmfData =
        std::make_shared<DtmfRequestData>(DtmfRequestData{code, number, "caller", "call-1"});
    return context;
}

class DtmfProcessorTest : public ::testing::Test {
protected:
    DtmfProcessorTest() {
        provider.dtmfConfig = DtmfConfig{true, {{"#1", {"1", "SA", "1"}}, {"#9", {""}}}, false};
    }
    // The fail code, or -1 when the chain goes on; a refusal must leave nothing to open.
    int run(AuthContext context) {
        if (processor.process(context, provider) == CONTINUE) {
            return -1;
        }
        EXPECT_TRUE(context.relays.empty() && !context.dtmfAuthData);
        reason = context.response.reason;
        return context.response.failCode;
    }
    testing::FakeDataProvider provider;
    processors::DtmfProcessor processor;
    std::string reason;
};

TEST_F(DtmfProcessorTest, RefusesWithoutDataConfigurationKnownCodeOrWhitelisting) {
    AuthContext noData;
    noData.request.openType = OPEN_TYPE_DTMF;
    EXPECT_EQ(run(noData), 0);
    EXPECT_EQ(reason, "Invalid DTMF data");
    for (const std::string code : {"#3", "", "#9"}) {
        EXPECT_EQ(run(dtmfOpen(code)), 1) << code;
        EXPECT_EQ(reason, "Invalid DTMF code");
    }
    provider.dtmfConfig->whitelistRequired = true;
    provider.dtmfWhitelist["+200"] = DtmfWhitelistResult{false, "per-2", "Flat 2"};
    for (const std::string number : {"+100", "+200"}) {
        EXPECT_EQ(run(dtmfOpen("#1", number)), 1) << number;
        EXPECT_EQ(reason, "DTMF caller not whitelisted");
    }
    provider.dtmfConfig->enabled = false;
    EXPECT_EQ(run(dtmfOpen("#1")), 1);
    EXPECT_EQ(reason, "DTMF open disabled");
    provider.dtmfConfig.reset();
    EXPECT_EQ(run(dtmfOpen("#1")), 1);
    EXPECT_EQ(reason, "DTMF open disabled");
}

TEST_F(DtmfProcessorTest, WhitelistedVisitorIsLeftToTheUserLookup) {
    provider.dtmfConfig->whitelistRequired = true;
    provider.dtmfWhitelist["+100"] = DtmfWhitelistResult{true, "per-5", "Flat 5"};
    AuthContext context = dtmfOpen("#1");
    EXPECT_EQ(processor.process(context, provider), CONTINUE);
    ASSERT_TRUE(context.dtmfAuthData);
    EXPECT_TRUE(context.dtmfAuthData->whitelisted);
    EXPECT_EQ(context.dtmfAuthData->resolvedPerId, "per-5");
    EXPECT_EQ(context.dtmfAuthData->remoteUsername, "Flat 5");
    EXPECT_FALSE(context.userData);
    EXPECT_FALSE(context.skipUserLookup);
}

TEST_F(DtmfProcessorTest, CodeRelaysBecomeTargetsOnceAndAKnownCallerIsTheUser) {
    UserData resident;
    resident.userId = "r-1";
    provider.dtmfUsers["+100"] = resident;
    AuthContext context = dtmfOpen("#1");
    context.authTargets = {{0, "1"}};
    EXPECT_EQ(processor.process(context, provider), CONTINUE);
    EXPECT_EQ(provider.callCount("requestDtmfWhitelist"), 0);
    EXPECT_EQ(context.relays, (Relays{"1", "SA"}));
    ASSERT_EQ(context.authTargets.size(), 2u);
    EXPECT_EQ(context.authTargets[1].type, 1);
    ASSERT_TRUE(context.dtmfAuthData);
    EXPECT_EQ(context.dtmfAuthData->remoteUsername, "caller");
    EXPECT_FALSE(context.dtmfAuthData->whitelisted);
    ASSERT_TRUE(context.userData);
    EXPECT_EQ(context.userData->userId, "r-1");
    EXPECT_EQ(context.response.user, context.userData);
    EXPECT_TRUE(context.skipUserLookup);
}

}  // namespace
}  // namespace auth_engine
