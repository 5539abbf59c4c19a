// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

#include "support/EngineHarness.h"

#include <cstdlib>
#include <ctime>

namespace auth_engine {
namespace testing {
namespace {

using Reasons = std::map<std::string, std::string>;

// A resident whose weekday schedule (Mon-Fri 08:00-18:00) covers doors 1 and 2. Door 1 is the only
// one exempt from holidays; opening by PIN is forbidden on door 2. The default chain runs in full.
// The clock starts on Wednesday 2025-01-15 12:00:00 UTC.
class PolicyEndToEnd : public FacadeTest {
protected:
    void SetUp() override {
        UserData resident;
        resident.userId = "res-100";
        resident.scheduleRelay = "7-1,2";
        host->users["card-100"] = host->users["4711"] = resident;
        host->schedules = {std::make_shared<ScheduleData>(ScheduleData{
            7, 2, "7", "weekdays", "08:00:00", "18:00:00", "", "", "12345", "", false})};
        host->holidayExemptRelays = {"1"};
        host->forbiddenRelays[OPEN_TYPE_PIN] = {"2"};
        host->config.holidayEnabled = true;
        ASSERT_EQ(facade.init(host), 0);
    }

    // The attempt's report in one line.
    std::string attempt(const std::string& credential, OpenDoorType type) {
        return said(facade.authenticate(credential, type, READER_TYPE_INTERNAL));
    }
    Reasons lastReasons() { return host->reports().back().context.relayFailReasons; }
    // The worker thread may read the provider at any time: scripted data changes under its lock.
    void setLocked(const Relays& relays, bool holiday) {
        const auto guard = host->lock();
        host->lockedDownRelays = {relays.begin(), relays.end()};
        host->holidays.assign(holiday ? 1 : 0,
                              HolidayData{1, 0, 0, "", "feast", "", "2025-01-15", "2025-01-15"});
    }
};

TEST_F(PolicyEndToEnd, HolidayLockdownAndForbiddenOpenTypeNarrowTheDoors) {
    // Holiday: only the exempt door opens; a partial holiday carries no fail code.
    setLocked({}, true);
    EXPECT_EQ(attempt("card-100", OPEN_TYPE_CARD), "SUCCESS 0 '' [1] [2] 0:1");
    EXPECT_EQ(lastReasons(), (Reasons{{"2", "Holiday"}}));

    // Locking the exempt door leaves nothing on a holiday.
    setLocked({"1"}, true);
    EXPECT_EQ(attempt("card-100", OPEN_TYPE_CARD),
              "FAILED 6 'All relays are in lockdown' [] [2,1]");
    EXPECT_EQ(lastReasons(), (Reasons{{"1", "LockDown"}, {"2", "Holiday"}}));

    // A partial refusal keeps its fail code on the passing request.
    setLocked({"1"}, false);
    EXPECT_EQ(attempt("card-100", OPEN_TYPE_CARD), "SUCCESS 6 '' [2] [1] 0:2");

    setLocked({}, false);
    EXPECT_EQ(attempt("4711", OPEN_TYPE_PIN), "SUCCESS 4 '' [1] [2] 0:1");
    EXPECT_EQ(lastReasons(), (Reasons{{"2", "UnlockType"}}));

    // PIN forbidden on door 2 and door 1 locked: the lockdown has the last word.
    setLocked({"1"}, false);
    EXPECT_EQ(attempt("4711", OPEN_TYPE_PIN), "FAILED 6 'All relays are in lockdown' [] [2,1]");
    EXPECT_EQ(lastReasons(), (Reasons{{"1", "LockDown"}, {"2", "UnlockType"}}));
}

// Local time is converted once per decision and reused within it; a time zone change between two
// decisions at the same wall-clock second must still move the schedule's hours.
TEST_F(PolicyEndToEnd, TimeZoneChangeBetweenDecisionsIsSeen) {
    clock.setWall(TestClock::utc(2025, 1, 15, 17, 30));
    EXPECT_EQ(attempt("card-100", OPEN_TYPE_CARD), "SUCCESS 0 '' [1,2] [] 0:1 0:2");
    setenv("TZ", "UTC-1", 1);  // 18:30 local: after the schedule's hours
    tzset();
    EXPECT_EQ(attempt("card-100", OPEN_TYPE_CARD), "FAILED 3 'Not in scheduled time' [] [1,2]");
    setenv("TZ", "UTC", 1);
    tzset();
    EXPECT_EQ(attempt("card-100", OPEN_TYPE_CARD), "SUCCESS 0 '' [1,2] [] 0:1 0:2");
}

}  // namespace
}  // namespace testing
}  // namespace auth_engine
