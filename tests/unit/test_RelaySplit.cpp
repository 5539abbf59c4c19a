// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// The relay split and the phase outcomes as plain functions, relay lists and the logger: one line
// per case, the whole outcome in one string.
#include <gtest/gtest.h>
#include <syslog.h>

#include <memory>
#include <string>
#include <vector>

#include "auth_engine/AuthLogger.h"
#include "engine/RelaySplit.h"
#include "support/LogCapture.h"

namespace auth_engine {
namespace {

using Relays = std::vector<std::string>;

std::string checksOf(const RelayChecks& checks) {
    std::string out;
    for (const auto& entry : checks) {
        out += " " + entry.first + ":";
        for (const int check : entry.second) {
            out += "AIP"[check];
        }
    }
    return out;
}

std::string describe(const RelaySplit& split) {
    return "now=" + joinRelayVector(split.immediate) +
           " ap=" + joinRelayVector(split.antiPassback) +
           " il=" + joinRelayVector(split.interlock) + " park=" + joinRelayVector(split.parking) +
           checksOf(split.checks);
}

std::string describe(const PhaseOutcome& outcome) {
    return "open=" + joinRelayVector(outcome.opened) + " fail=" + joinRelayVector(outcome.failed) +
           " il=" + joinRelayVector(outcome.interlock) +
           " park=" + joinRelayVector(outcome.parking) + checksOf(outcome.checks);
}

struct SplitCase {
    int userType;
    OpenDoorType openType;
    bool apOn, interlockOn, parkingOn;
    std::string expected;
};

TEST(RelaySplit, ChecksFollowUserOpenTypeAndConfiguration) {
    const std::vector<SplitCase> cases = {
        {1, OPEN_TYPE_CARD, true, true, true, "now=3 ap=1,2 il=2 park= 1:A 2:AI"},
        {2, OPEN_TYPE_CARD, true, false, false, "now=3 ap=1,2 il= park= 1:A 2:A"},
        {3, OPEN_TYPE_CARD, true, true, false, "now=1,3 ap= il=2 park= 2:I"},
        {1, OPEN_TYPE_REMOTE_CONTROL, true, false, false, "now=1,2,3 ap= il= park="},
        {1, OPEN_TYPE_LICENSE_PLATE, true, true, true,
         "now= ap=1,2 il=2 park=1,2,3 1:AP 2:AIP 3:P"},
        {2, OPEN_TYPE_LICENSE_PLATE, false, false, true, "now=1,2,3 ap= il= park="},
        {-1, OPEN_TYPE_CARD, true, false, false, "now=1,2,3 ap= il= park="},  // no user
    };
    for (const SplitCase& c : cases) {
        AuthConfig config;
        config.antiPassbackEnabled = c.apOn;
        config.antiPassbackRelayMap = {{"1", 1}, {"2", 2}, {"3", 0}};
        config.interlockEnabled = c.interlockOn;
        config.interlockRelayMap = {{"2", true}, {"3", false}};
        config.parkingRestrictionEnabled = c.parkingOn;
        AuthContext context;
        if (c.userType >= 0) {  // without a user nothing is held for anti-passback
            context.userData = std::make_shared<UserData>();
            context.userData->userType = c.userType;
        }
        context.request.openType = c.openType;
        EXPECT_EQ(describe(splitRelays({"1", "2", "3"}, context, config)), c.expected)
            << "user type " << c.userType << ", open type " << c.openType;
    }
}

AntiPassbackSubResult ap(AuthResult status) {
    return {"", status, true};
}

InterlockSubResult il(AuthResult status, bool answered = true) {
    return {"", status, answered};
}

TEST(RelaySplit, AntiPassbackOutcomeOpensRefusesAndHandsOn) {
    const RelayChecks checks = {{"1", {0}}, {"2", {0, 1}}, {"3", {0, 2}},
                                {"4", {0}}, {"5", {1}},    {"6", {2}}};
    const Relays relays = {"1", "2", "3", "4"};
    EXPECT_EQ(
        describe(afterAntiPassback(
            checks, relays,
            {{"1", ap(SUCCESS)}, {"2", ap(CONTINUE)}, {"3", ap(SUCCESS)}, {"4", ap(FAILED)}})),
        "open=1 fail=4 il=2,5 park= 2:I 3:P 5:I 6:P");
    // Without interlock relays, parking takes what is left; a relay never asked fails.
    EXPECT_EQ(describe(afterAntiPassback({{"1", {0}}, {"3", {0, 2}}, {"6", {2}}}, {"1", "3"},
                                         {{"3", ap(SUCCESS)}})),
              "open= fail=1 il= park=3,6 3:P 6:P");
    // An answer for a relay whose first check is not anti-passback leaves it waiting, then shut.
    EXPECT_EQ(describe(afterAntiPassback({{"5", {1}}, {"7", {0}}}, {}, {{"5", ap(SUCCESS)}})),
              "open= fail=7 il=5 park= 5:I");
}

TEST(RelaySplit, InterlockOutcomeOpensOnlyAnsweredSuccess) {
    const RelayChecks checks = {{"1", {1}}, {"2", {1, 2}}, {"3", {1}},
                                {"4", {1}}, {"6", {2}},    {"7", {0}}};
    EXPECT_EQ(describe(afterInterlock(checks, {{"1", il(SUCCESS)},
                                               {"2", il(SUCCESS)},
                                               {"3", il(SUCCESS, false)},
                                               {"4", il(CONTINUE)}})),
              "open=1 fail=3,4,7 il= park=2,6 2:P 6:P 7:A");
}

// Each relay followed by "|", so that an empty relay shows.
std::string listed(const Relays& relays) {
    std::string out;
    for (const std::string& relay : relays) {
        out += relay + "|";
    }
    return out;
}

TEST(RelayList, ParseReadsDigitsAndSLetterPairsDropsTheRestAndJoinsBack) {
    // Lower-case s, other letters and bytes above 127 are skipped without reading past the end.
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"1,2,3", "1|2|3|"},
        {"SA,1", "SA|1|"},
        {"12", "1|2|"},
        {" 1 , SB ,2", "1|SB|2|"},
        {"1,1", "1|1|"},
        {"", ""},
        {"S", ""},
        {"S1", "1|"},
        {"sA,x;-9", "9|"},
        {std::string{'\xff', 'S', '\xe9', '3'}, "3|"},
        {std::string{'S', '\0', 'A'}, ""}};
    for (const auto& c : cases) {
        EXPECT_EQ(listed(parseRelayString(c.first)), c.second) << c.first;
    }
    EXPECT_EQ(joinRelayVector({"1", "SA"}) + " " + joinRelayVector({"7"}) + " " +
                  joinRelayVector({}) + " " + joinRelayVector(parseRelayString("1,SB,2")),
              "1,SA 7  1,SB,2");
}

TEST(AuthLogger, ResultTexts) {
    std::string texts;
    for (int value : {0, 1, 2, 3, 7, 4, 5, 6, -1, 8, 1000}) {
        texts += std::string(AuthLogger::authResultToString(static_cast<AuthResult>(value))) + " ";
    }
    EXPECT_EQ(texts,
              "SUCCESS FAILED ASYNC_PENDING CONTINUE IGNORED UNKNOWN UNKNOWN UNKNOWN "
              "UNKNOWN UNKNOWN UNKNOWN ");
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
}

}  // namespace
}  // namespace auth_engine
