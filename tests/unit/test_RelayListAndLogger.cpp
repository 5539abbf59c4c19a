// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

#include <gtest/gtest.h>

#include <syslog.h>

#include "auth_engine/AuthLogger.h"
#include "auth_engine/AuthTypes.h"
#include "support/LogCapture.h"

namespace auth_engine {
namespace {

using Relays = std::vector<std::string>;

TEST(RelayList, ParseReadsDigitsAndSLetterPairsDropsTheRestAndJoinsBack) {
    EXPECT_EQ(parseRelayString("1,2,3"), (Relays{"1", "2", "3"}));
    EXPECT_EQ(parseRelayString("SA,1"), (Relays{"SA", "1"}));
    EXPECT_EQ(parseRelayString("12"), (Relays{"1", "2"}));
    EXPECT_EQ(parseRelayString(" 1 , SB ,2"), (Relays{"1", "SB", "2"}));
    EXPECT_EQ(parseRelayString("1,1"), (Relays{"1", "1"}));

    EXPECT_TRUE(parseRelayString("").empty());
    EXPECT_TRUE(parseRelayString("S").empty());
    EXPECT_EQ(parseRelayString("S1"), (Relays{"1"}));
    EXPECT_EQ(parseRelayString("sA,x;-9"), (Relays{"9"}));
    // Lower-case s, other letters and bytes above 127 are skipped without reading past the end.
    EXPECT_EQ(parseRelayString(std::string{'\xff', 'S', '\xe9', '3'}), (Relays{"3"}));
    EXPECT_EQ(parseRelayString(std::string{'S', '\0', 'A'}), Relays{});

    EXPECT_EQ(joinRelayVector({"1", "SA"}), "1,SA");
    EXPECT_EQ(joinRelayVector({"7"}), "7");
    EXPECT_EQ(joinRelayVector({}), "");
    EXPECT_EQ(joinRelayVector(parseRelayString("1,SB,2")), "1,SB,2");
}

TEST(AuthLogger, ResultTexts) {
    EXPECT_STREQ(AuthLogger::authResultToString(SUCCESS), "SUCCESS");
    EXPECT_STREQ(AuthLogger::authResultToString(FAILED), "FAILED");
    EXPECT_STREQ(AuthLogger::authResultToString(ASYNC_PENDING), "ASYNC_PENDING");
    EXPECT_STREQ(AuthLogger::authResultToString(CONTINUE), "CONTINUE");
    EXPECT_STREQ(AuthLogger::authResultToString(IGNORED), "IGNORED");
    for (int value : {4, 5, 6, -1, 8, 1000}) {
        EXPECT_STREQ(AuthLogger::authResultToString(static_cast<AuthResult>(value)), "UNKNOWN")
            << value;
    }
}

TEST(AuthLogger, BothLevelsFormatAtErrorPriorityWithNothingAdded) {
    testing::LogCapture log;
    AuthLogger::info("[Probe:%d] user=%s", 42, "alice");
    AuthLogger::error("[Probe:%d] count=%zu", 7, static_cast<size_t>(3));
    const std::string hostText = "%s%n%d";  // host text is an argument, never the format
    AuthLogger::info("%s", hostText.c_str());
    EXPECT_EQ(log.lines(),
              (std::vector<std::string>{"[Probe:42] user=alice", "[Probe:7] count=3", "%s%n%d"}));
    EXPECT_EQ(log.priorities(), (std::vector<int>{LOG_ERR, LOG_ERR, LOG_ERR}));
    std::string longText(5000, 'x');
    AuthLogger::info("%s", longText.c_str());
    EXPECT_EQ(log.lines().back(), longText);
}

TEST(Records, DefaultsAndSharedCopies) {
    AuthResponse response;
    EXPECT_EQ(response.result, CONTINUE);
    EXPECT_EQ(response.remoteFailCode, -1);
    AuthContext context;
    EXPECT_EQ(context.antiPassbackFailCode, -1);
    EXPECT_EQ(context.virtualDoorDirection, -1);
    UserData user;
    EXPECT_EQ(user.reservedInt2, -99999);
    AuthConfig config;
    EXPECT_EQ(config.antiPassbackTimeout, 30);
    EXPECT_EQ(config.interlockTimeout, 5);
    EXPECT_EQ(config.tempKeyTimeout, 3);
    EXPECT_EQ(config.doubleAuthTimeoutSec, 60);
    EXPECT_EQ(AntiPassbackSubResult().status, FAILED);

    context.userData = std::make_shared<UserData>();
    context.request.httpData = std::make_shared<HttpRequestData>();
    context.tempKeyAuthData = std::make_shared<TempKeyAuthData>();
    const AuthContext copy = context;  // NOLINT(performance-unnecessary-copy-initialization)
    EXPECT_EQ(copy.userData.get(), context.userData.get());
    EXPECT_EQ(copy.request.httpData.get(), context.request.httpData.get());
    EXPECT_EQ(copy.tempKeyAuthData.get(), context.tempKeyAuthData.get());
    EXPECT_EQ(context.userData.use_count(), 2);
}

}  // namespace
}  // namespace auth_engine
