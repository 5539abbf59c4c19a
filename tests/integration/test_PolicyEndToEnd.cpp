#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "auth_engine/AuthFacade.h"
#include "support/FakeDataProvider.h"
#include "support/TestClock.h"

namespace auth_engine {
namespace {

using Relays = std::vector<std::string>;
using Reasons = std::map<std::string, std::string>;

// A resident whose weekday schedule (Mon-Fri 08:00-18:00) covers doors 1 and 2. Door 1 is the only
// one exempt from holidays; opening by PIN is forbidden on door 2. The default chain runs in full.
class PolicyEndToEnd : public ::testing::Test {
protected:
    void SetUp() override {
        UserData resident;
        resident.userId = "res-100";
        resident.scheduleRelay = "7-1,2";
        provider->users["card-100"] = resident;
        provider->users["4711"] = resident;
        provider->schedules = {std::make_shared<ScheduleData>(ScheduleData{
            7, 2, "7", "weekdays", "08:00:00", "18:00:00", "", "", "12345", "", false})};
        provider->holidayExemptRelays = {"1"};
        provider->forbiddenRelays[OPEN_TYPE_PIN] = {"2"};
        provider->config.holidayEnabled = true;
        ASSERT_EQ(AuthFacade::getInstance().init(provider), 0);
    }
    void TearDown() override { AuthFacade::getInstance().reset(); }

    AuthResponse attempt(const std::string& credential, OpenDoorType type) {
        return AuthFacade::getInstance().authenticate(credential, type, READER_TYPE_INTERNAL);
    }
    Reasons lastReasons() { return provider->reports().back().context.relayFailReasons; }
    // The worker thread may read the provider at any time: scripted data changes under its lock.
    void setLocked(const Relays& relays, bool holiday) {
        const auto guard = provider->lock();
        provider->lockedDownRelays = {relays.begin(), relays.end()};
        provider->holidays.clear();
        if (holiday) {
            provider->holidays.push_back(
                HolidayData{1, 0, 0, "", "feast", "", "2025-01-15", "2025-01-15"});
        }
    }

    testing::TestClock clock;  // Wednesday 2025-01-15 12:00:00 UTC
    std::shared_ptr<testing::FakeDataProvider> provider =
        std::make_shared<testing::FakeDataProvider>();
};

TEST_F(PolicyEndToEnd, WeeklyScheduleOpensBothDoorsOnlyInItsHours) {
    AuthResponse open = attempt("card-100", OPEN_TYPE_CARD);
    EXPECT_EQ(open.result, SUCCESS);
    EXPECT_EQ(open.openedRelays, (Relays{"1", "2"}));
    EXPECT_TRUE(open.failedRelays.empty());
    EXPECT_EQ(open.failCode, 0);

    for (int64_t when : {testing::TestClock::utc(2025, 1, 18, 12),
                         testing::TestClock::utc(2025, 1, 15, 18, 0, 1)}) {
        clock.setWall(when);
        AuthResponse closed = attempt("card-100", OPEN_TYPE_CARD);
        EXPECT_EQ(closed.result, FAILED);
        EXPECT_EQ(closed.failCode, 3);
        EXPECT_EQ(closed.reason, "Not in scheduled time");
        EXPECT_EQ(closed.failedRelays, (Relays{"1", "2"}));
        EXPECT_TRUE(closed.openedRelays.empty());
        EXPECT_EQ(lastReasons(), (Reasons{{"1", "TimeCheck"}, {"2", "TimeCheck"}}));
    }
    EXPECT_EQ(provider->reportCount(), 3U);
}

TEST_F(PolicyEndToEnd, HolidayLockdownAndForbiddenOpenTypeNarrowTheDoors) {
    // Holiday: only the exempt door opens; a partial holiday carries no fail code.
    setLocked({}, true);
    AuthResponse holiday = attempt("card-100", OPEN_TYPE_CARD);
    EXPECT_EQ(holiday.result, SUCCESS);
    EXPECT_EQ(holiday.openedRelays, Relays{"1"});
    EXPECT_EQ(holiday.failedRelays, Relays{"2"});
    EXPECT_EQ(holiday.failCode, 0);
    EXPECT_EQ(lastReasons(), (Reasons{{"2", "Holiday"}}));

    // Locking the exempt door leaves nothing on a holiday.
    setLocked({"1"}, true);
    AuthResponse locked = attempt("card-100", OPEN_TYPE_CARD);
    EXPECT_EQ(locked.result, FAILED);
    EXPECT_EQ(locked.failCode, 6);
    EXPECT_EQ(locked.reason, "All relays are in lockdown");
    EXPECT_EQ(locked.failedRelays, (Relays{"2", "1"}));
    EXPECT_EQ(lastReasons(), (Reasons{{"1", "LockDown"}, {"2", "Holiday"}}));

    // A partial refusal keeps its fail code on the passing request.
    setLocked({"1"}, false);
    AuthResponse partialLock = attempt("card-100", OPEN_TYPE_CARD);
    EXPECT_EQ(partialLock.result, SUCCESS);
    EXPECT_EQ(partialLock.openedRelays, Relays{"2"});
    EXPECT_EQ(partialLock.failedRelays, Relays{"1"});
    EXPECT_EQ(partialLock.failCode, 6);

    setLocked({}, false);
    AuthResponse byPin = attempt("4711", OPEN_TYPE_PIN);
    EXPECT_EQ(byPin.result, SUCCESS);
    EXPECT_EQ(byPin.openedRelays, Relays{"1"});
    EXPECT_EQ(byPin.failedRelays, Relays{"2"});
    EXPECT_EQ(byPin.failCode, 4);
    EXPECT_EQ(lastReasons(), (Reasons{{"2", "UnlockType"}}));

    // PIN forbidden on door 2 and door 1 locked: the lockdown has the last word.
    setLocked({"1"}, false);
    AuthResponse nothing = attempt("4711", OPEN_TYPE_PIN);
    EXPECT_EQ(nothing.result, FAILED);
    EXPECT_EQ(nothing.failCode, 6);
    EXPECT_EQ(nothing.reason, "All relays are in lockdown");
    EXPECT_EQ(nothing.failedRelays, (Relays{"2", "1"}));
    EXPECT_EQ(lastReasons(), (Reasons{{"1", "LockDown"}, {"2", "UnlockType"}}));
}

}  // namespace
}  // namespace auth_engine
