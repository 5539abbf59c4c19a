#include <gtest/gtest.h>

#include <memory>

#include "processors/InputProcessor.h"
#include "support/FakeDataProvider.h"

namespace auth_engine {
namespace {

using Relays = std::vector<std::string>;
using Targets = std::vector<AuthTarget>;

AuthContext inputOpen(Targets inputTargets, Targets requestTargets = {}) {
    AuthContext context;
    context.request.openType = OPEN_TYPE_INPUT;
    context.request.inputData = std::make_shared<InputRequestData>();
    context.request.inputData->targets = std::move(inputTargets);
    context.request.targets = std::move(requestTargets);
    return context;
}

TEST(InputProcessor, OpensOnlyRelayOneOrTwoOfTheInputsTargets) {
    testing::FakeDataProvider provider;
    processors::InputProcessor processor;
    AuthContext card = inputOpen({{0, "1"}});
    card.request.openType = OPEN_TYPE_CARD;
    EXPECT_EQ(processor.process(card, provider), CONTINUE);
    EXPECT_TRUE(card.relays.empty());

    AuthContext missing;
    missing.request.openType = OPEN_TYPE_INPUT;
    EXPECT_EQ(processor.process(missing, provider), FAILED);
    EXPECT_EQ(missing.response.reason, "Invalid Input data");

    for (const Targets& targets : std::vector<Targets>{{},
                                                       {{0, "SA"}},
                                                       {{1, "SA"}},
                                                       {{0, "3"}},
                                                       {{0, ""}},
                                                       {{2, "1"}},
                                                       {{0, "1"}, {0, "12"}}}) {
        AuthContext context = inputOpen(targets);
        EXPECT_EQ(processor.process(context, provider), FAILED);
        EXPECT_EQ(context.response.failCode, 32);
        EXPECT_EQ(context.response.reason, "Invalid Input target");
        EXPECT_TRUE(context.relays.empty());
    }

    // Targets named by the input win over the request's, and no user check applies.
    AuthContext context = inputOpen({{0, "2"}, {0, "1"}, {0, "2"}}, {{0, "SA"}});
    EXPECT_EQ(processor.process(context, provider), CONTINUE);
    EXPECT_EQ(context.relays, (Relays{"2", "1"}));
    ASSERT_TRUE(context.inputRequestData);
    EXPECT_NE(context.inputRequestData, context.request.inputData);
    EXPECT_TRUE(context.skipUserLookup && context.skipVirtualDoor && context.skipUnlockType &&
                context.skipTimeCheck && context.skipHolidayCheck && context.virtualDoorExempt);

    AuthContext fallback = inputOpen({}, {{0, "1"}});
    EXPECT_EQ(processor.process(fallback, provider), CONTINUE);
    EXPECT_EQ(fallback.relays, (Relays{"1"}));
}

}  // namespace
}  // namespace auth_engine
