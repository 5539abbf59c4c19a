// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// The relay split and the phase outcomes as plain functions: one line per case, the whole outcome
// in one string.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "engine/RelaySplit.h"

namespace auth_engine {
namespace {

using Relays = std::vector<std::string>;

std::string join(const Relays& relays) {
    std::string out;
    for (const std::string& relay : relays) {
        out += (out.empty() ? "" : ",") + relay;
    }
    return out;
}

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
    return "now=" + join(split.immediate) + " ap=" + join(split.antiPassback) +
           " il=" + join(split.interlock) + " park=" + join(split.parking) + checksOf(split.checks);
}

std::string describe(const PhaseOutcome& outcome) {
    return "open=" + join(outcome.opened) + " fail=" + join(outcome.failed) +
           " il=" + join(outcome.interlock) + " park=" + join(outcome.parking) +
           checksOf(outcome.checks);
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
    };
    for (const SplitCase& c : cases) {
        AuthConfig config;
        config.antiPassbackEnabled = c.apOn;
        config.antiPassbackRelayMap = {{"1", 1}, {"2", 2}, {"3", 0}};
        config.interlockEnabled = c.interlockOn;
        config.interlockRelayMap = {{"2", true}, {"3", false}};
        config.parkingRestrictionEnabled = c.parkingOn;
        AuthContext context;
        context.userData = std::make_shared<UserData>();
        context.userData->userType = c.userType;
        context.request.openType = c.openType;
        EXPECT_EQ(describe(splitRelays({"1", "2", "3"}, context, config)), c.expected)
            << "user type " << c.userType << ", open type " << c.openType;
    }
    AuthConfig config;
    config.antiPassbackEnabled = true;
    config.antiPassbackRelayMap = {{"1", 1}};
    EXPECT_EQ(describe(splitRelays({"1"}, AuthContext(), config)), "now=1 ap= il= park=")
        << "without a user nothing is held for anti-passback";
}

AntiPassbackSubResult ap(AuthResult status) {
    AntiPassbackSubResult result;
    result.status = status;
    result.answered = true;
    return result;
}

InterlockSubResult il(AuthResult status, bool answered = true) {
    InterlockSubResult result;
    result.status = status;
    result.answered = answered;
    return result;
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

}  // namespace
}  // namespace auth_engine
