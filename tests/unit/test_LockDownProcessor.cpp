#include <gtest/gtest.h>

#include <memory>

#include "processors/LockDownProcessor.h"
#include "support/FakeDataProvider.h"

namespace auth_engine {
namespace {

using processors::LockDownProcessor;
using Relays = std::vector<std::string>;

AuthContext contextWith(const Relays& relays, int bypass) {
    AuthContext context;
    context.userData = std::make_shared<UserData>();
    context.userData->lockdownBypass = bypass;
    context.relays = relays;
    return context;
}

TEST(LockDownProcessor, PartialAndTotalLockdown) {
    testing::FakeDataProvider provider;
    provider.lockedDownRelays = {"2", "SA"};
    AuthContext partial = contextWith({"1", "2", "SA"}, 0);
    partial.failedRelays = {"2"};  // failed earlier: listed again, not merged
    EXPECT_EQ(LockDownProcessor().process(partial, provider), CONTINUE);
    EXPECT_EQ(partial.relays, Relays{"1"});
    EXPECT_EQ(partial.failedRelays, (Relays{"2", "2", "SA"}));
    EXPECT_EQ(partial.relayFailReasons.at("SA"), "LockDown");
    EXPECT_EQ(partial.response.failedRelays, (Relays{"2", "SA"}));
    EXPECT_EQ(partial.response.failCode, 6);
    EXPECT_EQ(partial.response.result, CONTINUE);

    // Without a user there is no bypass.
    AuthContext all = contextWith({"SA", "2"}, 0);
    all.userData.reset();
    EXPECT_EQ(LockDownProcessor().process(all, provider), FAILED);
    EXPECT_TRUE(all.relays.empty());
    EXPECT_EQ(all.response.result, FAILED);
    EXPECT_EQ(all.response.failCode, 6);
    EXPECT_EQ(all.response.reason, "All relays are in lockdown");
}

TEST(LockDownProcessor, BypassAndNothingLocked) {
    testing::FakeDataProvider provider;
    provider.lockedDownRelays = {"1"};
    for (int bypass : {-1, 0, 1, 5}) {
        AuthContext context = contextWith({"1"}, bypass);
        EXPECT_EQ(LockDownProcessor().process(context, provider), bypass >= 1 ? CONTINUE : FAILED);
    }
    // Nothing locked (or nothing to check): an earlier partial verdict stays as it was.
    AuthContext free = contextWith({"3"}, 0);
    free.response.failCode = 4;
    free.response.failedRelays = {"9"};
    EXPECT_EQ(LockDownProcessor().process(free, provider), CONTINUE);
    EXPECT_EQ(free.relays, Relays{"3"});
    EXPECT_EQ(free.response.failCode, 4);
    EXPECT_EQ(free.response.failedRelays, Relays{"9"});
    AuthContext empty = contextWith({}, 0);
    EXPECT_EQ(LockDownProcessor().process(empty, provider), CONTINUE);
    EXPECT_EQ(provider.callCount("getLockedDownRelays"), 3);
}

}  // namespace
}  // namespace auth_engine
