#include <gtest/gtest.h>

#include <memory>

#include "processors/HttpProcessor.h"
#include "support/FakeDataProvider.h"

namespace auth_engine {
namespace {

using Relays = std::vector<std::string>;
using Targets = std::vector<AuthTarget>;

AuthContext httpOpen(Targets targets, int source = 0) {
    AuthContext context;
    context.request.openType = OPEN_TYPE_HTTP;
    context.request.httpData = std::make_shared<HttpRequestData>();
    context.request.httpData->source = source;
    context.request.httpData->targets = std::move(targets);
    return context;
}

TEST(HttpProcessor, TargetsAreCheckedLiterallyAndCommandsFromElsewhereSkipTheConfiguration) {
    testing::FakeDataProvider provider;
    processors::HttpProcessor processor;
    AuthContext missing;
    missing.request.openType = OPEN_TYPE_HTTP_20;
    EXPECT_EQ(processor.process(missing, provider), FAILED);
    EXPECT_EQ(missing.response.reason, "Invalid HTTP data");

    for (const Targets& targets : std::vector<Targets>{{},
                                                       {{0, "3"}},
                                                       {{1, "sa"}},
                                                       {{0, "SA"}},
                                                       {{1, "1"}},
                                                       {{2, ""}},
                                                       {{3, "1"}},
                                                       {{0, "1"}, {1, "SC"}}}) {
        AuthContext context = httpOpen(targets, 1);
        EXPECT_EQ(processor.process(context, provider), FAILED);
        EXPECT_EQ(context.response.failCode, 32);
        EXPECT_EQ(context.response.reason, "Invalid HTTP target");
    }

    // Source 1 passes although HTTP opening is not configured; kind 2 is carried but is no relay.
    AuthContext valid = httpOpen({{0, "1"}, {1, "SB"}, {2, "gate-7"}, {0, "1"}}, 1);
    valid.request.targets = {{0, "2"}};
    EXPECT_EQ(processor.process(valid, provider), CONTINUE);
    EXPECT_EQ(valid.relays, (Relays{"1", "SB"}));
    EXPECT_EQ(valid.authTargets.size(), 4u);
    EXPECT_TRUE(valid.skipUserLookup && valid.skipVirtualDoor && valid.skipUnlockType &&
                valid.skipTimeCheck && valid.skipHolidayCheck && valid.virtualDoorExempt);
    ASSERT_TRUE(valid.httpRequestData);
    EXPECT_NE(valid.httpRequestData, valid.request.httpData);
    EXPECT_EQ(provider.callCount("getHttpOpenConfig"), 0);

    AuthContext fromRequest = httpOpen({}, 1);
    fromRequest.request.targets = {{0, "2"}};
    EXPECT_EQ(processor.process(fromRequest, provider), CONTINUE);
    EXPECT_EQ(fromRequest.relays, (Relays{"2"}));
}

TEST(HttpProcessor, LocalCommandsNeedOpeningEnabledAndValidCredentials) {
    testing::FakeDataProvider provider;
    processors::HttpProcessor processor;
    auto run = [&](int mode, const std::string& user, const std::string& password, int preAuth) {
        AuthContext context = httpOpen({{0, "1"}});
        context.request.httpData->authMode = mode;
        context.request.httpData->username = user;
        context.request.httpData->password = password;
        context.request.httpData->preAuthenticated = preAuth;
        return processor.process(context, provider) == CONTINUE ? 0 : context.response.failCode;
    };
    EXPECT_EQ(run(1, "", "", 1), 30);  // no configuration
    provider.httpConfig = HttpOpenConfig{false, "admin", "s3cret"};
    EXPECT_EQ(run(0, "admin", "s3cret", 0), 30);

    provider.httpConfig->enabled = true;
    EXPECT_EQ(run(0, "admin", "s3cret", 0), 0);
    for (const auto& [user, password] : std::vector<std::pair<std::string, std::string>>{
             {"admin", "s3cre"}, {"admin", "s3cret!"}, {"admin", "S3cret"}, {"Admin", "s3cret"}}) {
        EXPECT_EQ(run(0, user, password, 0), 31) << user << "/" << password;
    }
    EXPECT_EQ(run(1, "", "", 1), 0);
    EXPECT_EQ(run(1, "admin", "s3cret", 0), 31);
    EXPECT_EQ(run(2, "admin", "s3cret", 1), 31);

    provider.httpConfig = HttpOpenConfig{true, "", ""};
    EXPECT_EQ(run(0, "", "", 0), 0);
    EXPECT_EQ(run(0, "", "x", 0), 31);
}

}  // namespace
}  // namespace auth_engine
