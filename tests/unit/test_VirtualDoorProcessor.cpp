#include <gtest/gtest.h>

#include <memory>

#include "processors/VirtualDoorProcessor.h"
#include "support/FakeDataProvider.h"

namespace auth_engine {
namespace {

using processors::VirtualDoorProcessor;
using Relays = std::vector<std::string>;
using Doors = std::map<RELAY_DIRECTION, Relays>;

AuthContext userContext(const std::string& scheduleRelay, const Relays& relays = {},
                        ReaderType reader = READER_TYPE_INTERNAL) {
    AuthContext context;
    context.request.openType = OPEN_TYPE_CARD;
    context.request.readerType = reader;
    context.userData = std::make_shared<UserData>();
    context.userData->scheduleRelay = scheduleRelay;
    context.relays = relays;
    return context;
}

TEST(VirtualDoorProcessor, ScheduleStage) {
    testing::FakeDataProvider provider;
    VirtualDoorProcessor processor;
    // Entries without '-' and empty relay lists name nothing; repeats are dropped.
    AuthContext all = userContext("3-1,2;4-2;junk;;5-;6-SA,2,S1,2");
    all.relayScheduleMap["9"] = {"old"};
    EXPECT_EQ(processor.process(all, provider), CONTINUE);
    EXPECT_EQ(all.relays, (Relays{"1", "2", "SA"}));
    EXPECT_EQ(all.relayScheduleMap, (std::map<std::string, Relays>{
                                        {"1", {"3", "6"}}, {"2", {"3", "4", "6"}}, {"SA", {"6"}}}));

    AuthContext empty = userContext("");
    EXPECT_EQ(processor.process(empty, provider), CONTINUE);
    EXPECT_TRUE(empty.relays.empty());

    AuthContext partial = userContext("3-1,2", {"2", "5"});
    EXPECT_EQ(processor.process(partial, provider), CONTINUE);
    EXPECT_EQ(partial.relays, Relays{"2"});
    EXPECT_EQ(partial.failedRelays, Relays{"5"});
    EXPECT_EQ(partial.relayFailReasons.at("5"), "NotInSchedule");

    AuthContext none = userContext("3-1", {"5", "6"});
    EXPECT_EQ(processor.process(none, provider), FAILED);
    EXPECT_EQ(none.response.result, FAILED);
    EXPECT_EQ(none.response.failCode, 3);
    EXPECT_EQ(none.response.reason, "Requested relay is not in schedule");
    EXPECT_EQ(none.response.failedRelays, (Relays{"5", "6"}));

    // An admitted DTMF visitor keeps its relays, but the time check still gets the schedule map.
    AuthContext visitor = userContext("3-1", {"5"});
    visitor.request.virtualDoorSkipRelaySchedule = true;
    EXPECT_EQ(processor.process(visitor, provider), CONTINUE);
    EXPECT_EQ(visitor.relays, Relays{"5"});
    EXPECT_EQ(visitor.relayScheduleMap.count("1"), 1U);
}

TEST(VirtualDoorProcessor, SkipsLeaveRelaysAlone) {
    testing::FakeDataProvider provider;
    provider.config.virtualDoorEnabled = true;
    provider.config.readerRelayMap[READER_TYPE_INTERNAL] = {{RELAY_DIRECTION_IN, {"7"}}};
    std::vector<AuthContext> contexts(4, userContext("3-1", {"5"}));
    contexts[0].request.openType = OPEN_TYPE_PUBLIC_PIN;
    contexts[1].request.openType = OPEN_TYPE_LATCH_PIN;
    contexts[2].userData.reset();
    contexts[3].request.virtualDoorExempt = true;
    for (AuthContext& context : contexts) {
        EXPECT_EQ(VirtualDoorProcessor().process(context, provider), CONTINUE);
        EXPECT_EQ(context.relays, Relays{"5"});
    }
    EXPECT_EQ(provider.callCount("getAuthConfig"), 0);

    // skipVirtualDoor comes after the schedule stage: doors are not applied, schedules are.
    AuthContext skip = userContext("3-1,5", {"5", "2"});
    skip.skipVirtualDoor = true;
    EXPECT_EQ(VirtualDoorProcessor().process(skip, provider), CONTINUE);
    EXPECT_EQ(skip.relays, Relays{"5"});
    EXPECT_EQ(skip.virtualDoorDirection, -1);
}

TEST(VirtualDoorProcessor, ReaderAndDirectionChoice) {
    testing::FakeDataProvider provider;
    provider.config.virtualDoorEnabled = true;
    provider.config.cloudVirtualDoorConfigured = true;
    provider.config.readerRelayMap[READER_TYPE_EXTERNAL_2] = {};

    // With remotely managed doors the internal reader without doors is refused; others pass.
    AuthContext internal = userContext("3-1,2", {"1", "2"});
    EXPECT_EQ(VirtualDoorProcessor().process(internal, provider), FAILED);
    EXPECT_EQ(internal.response.failCode, 3);
    EXPECT_EQ(internal.response.reason, "Virtual door reader access denied");
    EXPECT_EQ(internal.response.failedRelays, (Relays{"1", "2"}));
    AuthContext external = userContext("3-1,2", {"1", "2"}, READER_TYPE_EXTERNAL_2);
    EXPECT_EQ(VirtualDoorProcessor().process(external, provider), CONTINUE);
    provider.config.cloudVirtualDoorConfigured = false;
    AuthContext local = userContext("3-1,2", {"1", "2"});
    EXPECT_EQ(VirtualDoorProcessor().process(local, provider), CONTINUE);
    EXPECT_EQ(local.relays, (Relays{"1", "2"}));

    // Direction 2, then 1, then 0: the first with doors; unknown directions never count.
    const std::vector<std::pair<Doors, int>> cases = {
        {{{RELAY_DIRECTION_OUT, {}}, {RELAY_DIRECTION_IN, {"2"}}, {RELAY_DIRECTION_NONE, {"1"}}},
         1},
        {{{RELAY_DIRECTION_OUT, {"1"}}, {RELAY_DIRECTION_IN, {"2"}}}, 2},
        {{{RELAY_DIRECTION_NONE, {"1"}}}, 0},
        {{{RELAY_DIRECTION_OUT, {}}, {static_cast<RELAY_DIRECTION>(5), {"1"}}}, -1}};
    for (const auto& [doors, direction] : cases) {
        provider.config.readerRelayMap[READER_TYPE_INTERNAL] = doors;
        AuthContext context = userContext("3-1,2");
        context.request.direction = 7;
        EXPECT_EQ(VirtualDoorProcessor().process(context, provider), CONTINUE);
        EXPECT_EQ(context.virtualDoorDirection, direction);
        EXPECT_EQ(context.request.direction, direction < 0 ? 7 : direction);
        EXPECT_EQ(context.relays, direction < 0 ? (Relays{"1", "2"}) : context.accessibleDoors);
    }
}

TEST(VirtualDoorProcessor, OverrideVersusFilter) {
    testing::FakeDataProvider provider;
    provider.config.virtualDoorEnabled = true;
    provider.config.virtualDoorMode = 1;
    provider.config.readerRelayMap[READER_TYPE_EXTERNAL_1] = {
        {RELAY_DIRECTION_IN, {"3", "", "SA", "3"}}};
    provider.config.readerRelayMap[READER_TYPE_INTERNAL] = {{RELAY_DIRECTION_IN, {"1", "3"}}};

    // External reader in override mode: the configured doors replace the request.
    AuthContext override = userContext("3-1,2", {"1"}, READER_TYPE_EXTERNAL_1);
    EXPECT_EQ(VirtualDoorProcessor().process(override, provider), CONTINUE);
    EXPECT_EQ(override.relays, (Relays{"3", "SA"}));

    // A temporary key and the internal reader are filtered instead.
    AuthContext tempKey = userContext("3-1,2", {"1"}, READER_TYPE_EXTERNAL_1);
    tempKey.request.openType = OPEN_TYPE_TEMP_KEY;
    EXPECT_EQ(VirtualDoorProcessor().process(tempKey, provider), FAILED);
    EXPECT_EQ(tempKey.response.reason, "Virtual door access denied");
    EXPECT_EQ(tempKey.response.failedRelays, Relays{"1"});

    AuthContext filtered = userContext("3-1,2", {"1", "2"});
    EXPECT_EQ(VirtualDoorProcessor().process(filtered, provider), CONTINUE);
    EXPECT_EQ(filtered.relays, Relays{"1"});
    EXPECT_TRUE(filtered.failedRelays.empty());  // inaccessible doors are not failures
    EXPECT_EQ(filtered.response.failCode, 0);
}

}  // namespace
}  // namespace auth_engine
