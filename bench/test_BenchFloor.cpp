// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// The hand-written floor is a fair yardstick only while it asks the provider exactly what the chain
// asks, in the same order, and reaches the same decision. Checked for the benchmarked decision and
// for its holiday variant (a holiday in force, relays kept by an exempting schedule).
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "BenchProvider.h"
#include "FloorDecision.h"
#include "auth_engine/AuthLogger.h"
#include "engine/AuthEngine.h"
#include "support/TestClock.h"

namespace auth_engine {
namespace bench {
namespace {

using testing::TestClock;

// Records the operations asked on the recording thread (the engine's worker also reads the
// configuration when it wakes up; those calls are not part of the decision).
class RecordingProvider : public BenchProvider {
public:
    std::vector<std::string> calls;

    std::shared_ptr<UserData> getUserByCredential(const char* credential,
                                                  const OpenDoorType& openType) override {
        record("getUserByCredential");
        return BenchProvider::getUserByCredential(credential, openType);
    }
    std::shared_ptr<KeyData> getKeyData(const AuthContext& context, int keyKind,
                                        int ownerKind) override {
        record("getKeyData");
        return BenchProvider::getKeyData(context, keyKind, ownerKind);
    }
    std::vector<std::shared_ptr<ScheduleData>> getRelaySchedules(const std::string& ownerKey,
                                                                 int ownerKind) override {
        record("getRelaySchedules");
        return BenchProvider::getRelaySchedules(ownerKey, ownerKind);
    }
    std::vector<HolidayData> getHolidays(const std::string& ownerKey, int ownerKind) override {
        record("getHolidays");
        return BenchProvider::getHolidays(ownerKey, ownerKind);
    }
    bool isPublicPin(const AuthContext& context) override {
        record("isPublicPin");
        return BenchProvider::isPublicPin(context);
    }
    bool getLatchPinRelays(const AuthContext& context, std::vector<std::string>& relays) override {
        record("getLatchPinRelays");
        return BenchProvider::getLatchPinRelays(context, relays);
    }
    AuthConfig getAuthConfig() override {
        record("getAuthConfig");
        return BenchProvider::getAuthConfig();
    }
    std::vector<std::string> getLockedDownRelays(const std::vector<std::string>& relays) override {
        record("getLockedDownRelays");
        return BenchProvider::getLockedDownRelays(relays);
    }
    bool isRelayHolidayExempt(const std::string& relay) override {
        record("isRelayHolidayExempt:" + relay);
        return BenchProvider::isRelayHolidayExempt(relay);
    }
    std::vector<std::string> getForbiddenUnlockTypeRelays(const std::vector<std::string>& relays,
                                                          OpenDoorType openType) override {
        record("getForbiddenUnlockTypeRelays");
        return BenchProvider::getForbiddenUnlockTypeRelays(relays, openType);
    }
    bool checkBleOpenInterval(const UserData& user,
                              const std::vector<std::string>& relays) override {
        record("checkBleOpenInterval");
        return BenchProvider::checkBleOpenInterval(user, relays);
    }
    void onAuthResult(const AuthContext& context, const AuthResult& result) override {
        record("onAuthResult");
        BenchProvider::onAuthResult(context, result);
    }

private:
    void record(const std::string& call) {
        if (std::this_thread::get_id() == recorder) {
            calls.push_back(call);
        }
    }
    const std::thread::id recorder = std::this_thread::get_id();
};

// Decides the card attempt through the engine and by hand; both must agree in calls and verdict.
void expectSameAsTheEngine(const std::shared_ptr<RecordingProvider>& provider) {
    AuthEngine engine;
    ASSERT_EQ(engine.init(provider), 0);
    const AuthResponse viaChain = engine.authenticate(cardRequest(), AuthCallback(), std::string());
    const std::vector<std::string> chainCalls = provider->calls;
    provider->calls.clear();
    const AuthResponse byHand = floorDecision(*provider, cardRequest());

    EXPECT_EQ(provider->calls, chainCalls);
    EXPECT_TRUE(sameDecision(viaChain, byHand));
    EXPECT_EQ(viaChain.result, SUCCESS);
    EXPECT_EQ(viaChain.openedRelays, (std::vector<std::string>{"1", "2"}));
    EXPECT_EQ(byHand.targets.size(), 2u);
}

TEST(BenchFloor, AsksWhatTheChainAsksAndDecidesTheSame) {
    TestClock clock;  // Wednesday 2025-01-15 12:00 UTC
    AuthLogger::setNullSink();
    auto provider = std::make_shared<RecordingProvider>();
    expectSameAsTheEngine(provider);
    EXPECT_EQ(provider->calls.front(), "isPublicPin");
    EXPECT_EQ(provider->calls.back(), "onAuthResult");

    // A holiday today: every relay is asked about, and the exempting schedule keeps both open.
    auto holiday = std::make_shared<RecordingProvider>();
    holiday->holidays.front().startDate = "2025-01-15";
    holiday->holidays.front().endDate = "2025-01-15";
    holiday->schedules.back()->holidayExemption = true;
    expectSameAsTheEngine(holiday);
    EXPECT_EQ(std::count(holiday->calls.begin(), holiday->calls.end(), "isRelayHolidayExempt:1"),
              1);
    AuthLogger::setSink(nullptr);
}

}  // namespace
}  // namespace bench
}  // namespace auth_engine

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
