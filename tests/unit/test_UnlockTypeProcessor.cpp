#include <gtest/gtest.h>

#include "processors/UnlockTypeProcessor.h"
#include "support/FakeDataProvider.h"

namespace auth_engine {
namespace {

using processors::UnlockTypeProcessor;
using Relays = std::vector<std::string>;

// A host whose answer is returned verbatim, so it can name relays that were not asked about.
class VerbatimProvider : public testing::FakeDataProvider {
public:
    Relays answer;
    Relays getForbiddenUnlockTypeRelays(const Relays& relays, OpenDoorType openType) override {
        FakeDataProvider::getForbiddenUnlockTypeRelays(relays, openType);
        return answer;
    }
};

AuthContext contextWith(const Relays& relays, OpenDoorType openType,
                        ReaderType reader = READER_TYPE_INTERNAL) {
    AuthContext context;
    context.request.openType = openType;
    context.request.readerType = reader;
    context.relays = relays;
    return context;
}

TEST(UnlockTypeProcessor, PartialAndTotalRemoval) {
    testing::FakeDataProvider provider;
    provider.forbiddenRelays[OPEN_TYPE_CARD] = {"2", "SA"};
    AuthContext partial = contextWith({"1", "2", "3"}, OPEN_TYPE_CARD);
    EXPECT_EQ(UnlockTypeProcessor().process(partial, provider), CONTINUE);
    EXPECT_EQ(partial.relays, (Relays{"1", "3"}));
    EXPECT_EQ(partial.failedRelays, Relays{"2"});
    EXPECT_EQ(partial.relayFailReasons.at("2"), "UnlockType");
    EXPECT_EQ(partial.response.failedRelays, Relays{"2"});
    EXPECT_EQ(partial.response.failCode, 4);
    EXPECT_EQ(partial.response.result, CONTINUE);

    AuthContext all = contextWith({"SA", "2"}, OPEN_TYPE_CARD);
    EXPECT_EQ(UnlockTypeProcessor().process(all, provider), FAILED);
    EXPECT_TRUE(all.relays.empty());
    EXPECT_EQ(all.response.result, FAILED);
    EXPECT_EQ(all.response.failCode, 4);
    EXPECT_EQ(all.response.reason, "Forbidden open type for all relays");
}

TEST(UnlockTypeProcessor, SkipsAndHostAnswers) {
    VerbatimProvider provider;
    provider.answer = {"1"};
    std::vector<AuthContext> skipped = {contextWith({"1"}, OPEN_TYPE_CARD, READER_TYPE_EXTERNAL_1),
                                        contextWith({"1"}, OPEN_TYPE_RELAY_KEY),
                                        contextWith({}, OPEN_TYPE_CARD),
                                        contextWith({"1"}, OPEN_TYPE_PIN)};
    skipped[3].skipUnlockType = true;
    for (AuthContext& context : skipped) {
        EXPECT_EQ(UnlockTypeProcessor().process(context, provider), CONTINUE);
        EXPECT_EQ(context.response.failCode, 0);
    }
    EXPECT_EQ(provider.callCount("getForbiddenUnlockTypeRelays"), 0);

    // Nothing forbidden keeps an earlier verdict; unknown or near-miss names remove nothing but are
    // still reported as the host's answer.
    AuthContext context = contextWith({"1", "2"}, OPEN_TYPE_PIN);
    context.response.failCode = 6;
    provider.answer = {};
    EXPECT_EQ(UnlockTypeProcessor().process(context, provider), CONTINUE);
    EXPECT_EQ(context.response.failCode, 6);
    provider.answer = {"9", "", " 1"};
    EXPECT_EQ(UnlockTypeProcessor().process(context, provider), CONTINUE);
    EXPECT_EQ(context.relays, (Relays{"1", "2"}));
    EXPECT_TRUE(context.failedRelays.empty());
    EXPECT_EQ(context.response.failCode, 4);
    EXPECT_EQ(context.response.failedRelays, provider.answer);
}

}  // namespace
}  // namespace auth_engine
