#include <gtest/gtest.h>

#include <memory>

#include "processors/RemoteControlProcessor.h"
#include "support/FakeDataProvider.h"

namespace auth_engine {
namespace {

using Relays = std::vector<std::string>;

AuthContext command(const std::string& remoteUserId, std::vector<AuthTarget> targets) {
    AuthContext context;
    context.request.openType = OPEN_TYPE_REMOTE_CONTROL;
    context.request.credential = remoteUserId;
    context.request.commandText = "open-from-app";
    context.request.targets = std::move(targets);
    return context;
}

TEST(RemoteControlProcessor, UnknownUserNeedsTargetsAndRunsUnderACommandAuthorizedUser) {
    testing::FakeDataProvider provider;
    processors::RemoteControlProcessor processor;
    AuthContext empty = command("", {{0, "1"}});
    EXPECT_EQ(processor.process(empty, provider), FAILED);
    EXPECT_EQ(empty.response.failCode, 1);
    EXPECT_EQ(empty.response.reason, "Remote control user id is empty");
    AuthContext aimless = command("ghost", {});
    EXPECT_EQ(processor.process(aimless, provider), FAILED);
    EXPECT_EQ(aimless.response.failCode, 32);
    EXPECT_EQ(aimless.response.reason, "Remote control target invalid");
    EXPECT_FALSE(aimless.userData);

    AuthContext context = command("app-42", {{0, "2"}, {1, "SA"}, {0, "2"}, {2, "lift"}});
    context.request.virtualDoorExempt = true;
    EXPECT_EQ(processor.process(context, provider), CONTINUE);
    ASSERT_TRUE(context.userData);
    EXPECT_EQ(context.userData->userId, "app-42");
    EXPECT_EQ(context.userData->userType, 1);
    EXPECT_EQ(context.response.user, context.userData);
    EXPECT_EQ(context.relays, (Relays{"2", "SA"}));
    EXPECT_EQ(context.authTargets.size(), 4u);
    ASSERT_TRUE(context.remoteControlAuthData);
    EXPECT_EQ(context.remoteControlAuthData->remoteUserId, "app-42");
    EXPECT_EQ(context.remoteControlAuthData->commandText, "open-from-app");
    EXPECT_TRUE(context.skipUserLookup && context.skipUnlockType && context.skipVirtualDoor &&
                context.virtualDoorExempt);
    EXPECT_FALSE(context.skipTimeCheck || context.skipHolidayCheck);

    // A known user needs no targets.
    provider.remoteControlUsers["resident-7"].scheduleRelay = "1-1";
    AuthContext known = command("resident-7", {});
    EXPECT_EQ(processor.process(known, provider), CONTINUE);
    ASSERT_TRUE(known.userData);
    EXPECT_EQ(known.userData->scheduleRelay, "1-1");
    EXPECT_TRUE(known.relays.empty());
    EXPECT_FALSE(known.skipVirtualDoor || known.virtualDoorExempt);
}

}  // namespace
}  // namespace auth_engine
