// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// A host may hand over far more data than a door ever needs: a relay key naming a million
// schedules, a schedule text repeating one relay half a million times, two hundred thousand relays
// of which half are locked. Each decision must still finish (its work grows with the data, not with
// its square: this test's time limit is a few seconds where a quadratic pass would take hours) and
// decide exactly as it would on small data.
#include "auth_engine/AuthLogger.h"
#include "support/EngineHarness.h"
#include "support/ProcessorTest.h"

namespace auth_engine {
namespace testing {
namespace {

std::shared_ptr<ScheduleData> allDay(const std::string& id) {
    return std::make_shared<ScheduleData>(ScheduleData{std::atoi(id.c_str()), 1, id, "", "00:00:00",
                                                       "23:59:59", "", "", "", "", false});
}

class HostDataScale : public EngineTest {
protected:
    void SetUp() override {
        AuthLogger::setNullSink();  // millions of trace lines are not what is measured
        EngineTest::SetUp();
    }
    void TearDown() override {
        EngineTest::TearDown();
        AuthLogger::setSink({});
    }
};

TEST_F(HostDataScale, RelayKeyWithAMillionScheduleIds) {
    AuthRequest request = makeRequest("", OPEN_TYPE_RELAY_KEY);
    request.relayKeyData = std::make_shared<RelayKeyAuthData>();
    for (int id = 1; id <= 1000000; ++id) {
        request.relayKeyData->scheduleIds += std::to_string(id) + ";";
    }
    request.relayKeyData->scheduleIds += "7;7;7";  // repeats are dropped
    request.relayKeyData->targets = {{0, "1"}, {0, "1"}};
    configure([](FakeDataProvider& fake) {
        for (int id = 200000; id >= 1; --id) {  // the one that admits is found among thousands
            fake.schedules.push_back(allDay(id == 7 ? "7" : std::to_string(id + 2000000)));
        }
    });
    EXPECT_EQ(said(engine.authenticate(request, AuthCallback(), "")), "SUCCESS 0 '' [1] [] 0:1");
}

TEST_F(HostDataScale, ScheduleTextRepeatingOneRelay) {
    configure([](FakeDataProvider& fake) {
        UserData& user = fake.users["card"];
        for (int entry = 0; entry < 500000; ++entry) {
            user.scheduleRelay += std::to_string(entry % 250000 + 10) + "-1;";
        }
        user.scheduleRelay += "9-2";
        fake.schedules = {allDay("9"), allDay("249999")};
    });
    EXPECT_EQ(said(engine.authenticate(makeRequest("card", OPEN_TYPE_CARD), AuthCallback(), "")),
              "SUCCESS 0 '' [1,2] [] 0:1 0:2");
}

TEST_F(HostDataScale, TwoHundredThousandRelaysHalfLockedDown) {
    configure([](FakeDataProvider& fake) {
        fake.publicPin = "0000";
        for (int relay = 0; relay < 200000; ++relay) {
            fake.publicPinRelays.push_back("R" + std::to_string(relay));
            if (relay % 2 == 1) {
                fake.lockedDownRelays.insert("R" + std::to_string(relay));
            }
        }
        fake.publicPinRelays.push_back("R0");  // a repeat opens nothing twice
    });
    const AuthResponse decided =
        engine.authenticate(makeRequest("0000", OPEN_TYPE_CARD), AuthCallback(), "");
    EXPECT_EQ(std::to_string(decided.result) + " " + std::to_string(decided.openedRelays.size()) +
                  " " + std::to_string(decided.failedRelays.size()) + " " +
                  std::to_string(decided.targets.size()) + " " + decided.openedRelays.front() +
                  " " + decided.failedRelays.back(),
              "0 100000 100000 100000 R0 R199999");
}

}  // namespace
}  // namespace testing
}  // namespace auth_engine
