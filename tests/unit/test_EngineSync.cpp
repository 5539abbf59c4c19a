// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// Set-up of the engine, its processor chain and the synchronous run; and the library on its 32-bit
// target: time values past January 2038 (validity bounds, schedule dates, holidays, timeouts, log
// lines) must behave as they do on a 64-bit host.
#include <sys/types.h>

#include <stdexcept>

#include "auth_engine/AuthLogger.h"
#include "support/EngineHarness.h"
#include "support/LogCapture.h"
#include "support/ProcessorTest.h"

static_assert(sizeof(time_t) == 8,
              "time_t must be 64-bit: build 32-bit targets with -D_TIME_BITS=64 "
              "-D_FILE_OFFSET_BITS=64 (see cmake/toolchains)");
static_assert(sizeof(off_t) == 8, "off_t must be 64-bit (-D_FILE_OFFSET_BITS=64)");

namespace auth_engine {
namespace testing {
namespace {

const Relays kDefaultChain = {"Dtmf",      "RemoteControl", "TempKey",      "Http",
                              "Input",     "UserLookup",    "DoubleAuth",   "VirtualDoor",
                              "TimeCheck", "BleInterval",   "HolidayCheck", "UnlockType",
                              "LockDown"};

TEST(EngineSetup, InitCodesRegistryAndDefaultChain) {
    EngineHarness h;
    EXPECT_EQ(h.engine.init(nullptr), -1);
    h.engine.setProcessorChain({"UserLookup"});  // no provider yet: nothing changes
    EXPECT_TRUE(!h.engine.isReady() && h.engine.chainNames().empty());
    EXPECT_EQ(h.run("").reason, "Engine not initialized");

    ASSERT_TRUE(h.start());
    EXPECT_TRUE(h.engine.isReady());
    EXPECT_EQ(h.engine.chainNames(), kDefaultChain);
    Relays all = kDefaultChain;
    all.insert(all.end(), {"AntiPassback", "Interlock", "ParkingRestriction"});
    for (const auto& name : all) {
        const auto processor = h.engine.getProcessor(name);
        EXPECT_EQ(processor ? processor->getName() : "none", name);
    }
    EXPECT_FALSE(h.engine.getProcessor("Nope"));

    h.engine.reset();
    EXPECT_FALSE(h.engine.isReady() || h.engine.getProcessor("UserLookup"));
    EXPECT_TRUE(h.engine.chainNames().empty());
}

class EngineSync : public EngineTest {
protected:
    // Chain: "P" deciding with `decide`, then "Tail" (which must only run after a CONTINUE).
    void chainOf(ScriptedProcessor::Fn decide) {
        probe = std::make_shared<ScriptedProcessor>("P", std::move(decide));
        tail = std::make_shared<ScriptedProcessor>("Tail", nullptr);
        chain({probe, tail});
    }
    void chainOf(AuthResult result) {
        chainOf([result](AuthContext&) { return result; });
    }

    std::shared_ptr<ScriptedProcessor> probe;
    std::shared_ptr<ScriptedProcessor> tail;
};

TEST_F(EngineSync, SecondInitReplacesProviderKeepsTheWorker) {
    const auto oldLookup = engine.getProcessor("UserLookup");
    chainOf(IGNORED);
    host = std::make_shared<FakeDataProvider>();
    ASSERT_TRUE(start());
    EXPECT_NE(engine.getProcessor("UserLookup"), oldLookup);
    EXPECT_EQ(engine.chainNames(), kDefaultChain);
    engine.setProcessorChain({"P"});  // still registered
    run("");
    EXPECT_EQ(probe->lastProvider, host.get());

    const std::string id = submit(AuthRequest());
    ASSERT_TRUE(recorder.waitFor(2) && idle());
    EXPECT_EQ(calledIds(), (Relays{"", id}));
}

TEST_F(EngineSync, ChainByNamesSkipsUnknownsKeepsTailLinksAndWalksCyclesOnce) {
    std::map<std::string, std::shared_ptr<ScriptedProcessor>> probes;
    for (const char* name : {"A", "B", "C", "X"}) {
        probes[name] = std::make_shared<ScriptedProcessor>(name, nullptr);
        engine.registerProcessor(probes[name]);
    }
    const auto calls = [&] {
        return std::to_string(probes["A"]->calls) + std::to_string(probes["B"]->calls) +
               std::to_string(probes["C"]->calls) + std::to_string(probes["X"]->calls);
    };

    // The user lookup is the tail and keeps its successors from the default chain.
    engine.setProcessorChain({"UserLookup", "Nope"});
    EXPECT_EQ(engine.chainNames(), Relays(kDefaultChain.begin() + 5, kDefaultChain.end()));
    engine.setProcessorChain({"Nope", "A"});
    EXPECT_TRUE(engine.chainNames().empty());
    AuthContext context;
    EXPECT_EQ(engine.executeProcessorChain(context), FAILED);
    EXPECT_EQ(context.response.reason, "No processor chain configured");

    engine.setProcessorChain({"A", "Nope", "B", "C"});
    EXPECT_EQ(engine.chainNames(), (Relays{"A", "B", "C"}));
    engine.setProcessorChain({"X", "B"});  // B keeps its old successor C
    EXPECT_EQ(engine.chainNames(), (Relays{"X", "B", "C"}));
    engine.setProcessorChain({"C", "A"});  // A keeps B, B keeps C: a cycle
    EXPECT_EQ(engine.chainNames(), (Relays{"C", "A", "B"}));
    EXPECT_EQ(engine.executeProcessorChain(context), SUCCESS);
    EXPECT_EQ(calls(), "1110");

    // Registering under a taken name replaces the entry but leaves the running chain alone.
    auto newA = std::make_shared<ScriptedProcessor>("A", nullptr);
    engine.registerProcessor(newA);
    engine.registerProcessor(nullptr);
    EXPECT_EQ(engine.getProcessor("A"), newA);
    engine.executeProcessorChain(context);
    EXPECT_EQ(calls() + std::to_string(newA->calls), "22200");
}

TEST_F(EngineSync, DroppedIgnoredAndDoubleAuthPendingAreDispatchedAsDescribed) {
    // Dropped: nobody hears of it; ignored: the caller only; double-auth pending: caller and host.
    for (const AuthResult result : {DROPPED, IGNORED, DOUBLE_AUTH_PENDING}) {
        chainOf(result);
        EXPECT_EQ(run("r" + std::to_string(result)).result, result);
    }
    ASSERT_EQ(recorder.count(), 2u);
    EXPECT_EQ(said(recorder.at(0)) + "|" + said(recorder.at(1)),
              "r7 IGNORED 0 '' [] [] |r5 DOUBLE 0 '' [] [] ");
    ASSERT_EQ(host->reportCount(), 1u);
    EXPECT_EQ(host->reports()[0].result, DOUBLE_AUTH_PENDING);
    EXPECT_EQ(engine.parkedChainCount(), 0u);
}

TEST_F(EngineSync, ReaderDefaultRelaysPreferDirectionOut) {
    configure([](FakeDataProvider& fake) {
        fake.config.virtualDoorEnabled = true;
        fake.config.readerRelayMap[READER_TYPE_EXTERNAL_1] = {{RELAY_DIRECTION_IN, {"1"}},
                                                              {RELAY_DIRECTION_OUT, {"2", "3"}}};
        fake.config.readerRelayMap[READER_TYPE_EXTERNAL_2] = {{RELAY_DIRECTION_IN, {"4"}},
                                                              {RELAY_DIRECTION_OUT, {}}};
    });
    chainOf(IGNORED);
    Relays seen;  // "readerRelays direction relays" (the relays stay empty: informational only)
    for (const ReaderType reader :
         {READER_TYPE_EXTERNAL_1, READER_TYPE_EXTERNAL_2, READER_TYPE_INTERNAL}) {
        run("", makeRequest("", OPEN_TYPE_NONE, reader));
        const AuthContext c = recorder.all().back().context;
        seen.push_back(joinRelayVector(c.readerRelays) + " " + std::to_string(c.readerDirection) +
                       " " + joinRelayVector(c.relays));
    }
    EXPECT_EQ(seen, (Relays{"2,3 2 ", "4 1 ", " 0 "}));  // out 2, in 1
}

TEST_F(EngineSync, RequestIdsCountFromZeroAndAreNeverIssuedTwice) {
    AuthEngine fresh;
    const std::string suffix = "_" + std::to_string(clock.wall());
    EXPECT_EQ(fresh.generateRequestId(), "req_0" + suffix);
    EXPECT_EQ(fresh.generateRequestId(), "req_1" + suffix);
    // A reset does not count again: an answer to a question of before could match a new id.
    fresh.reset();
    EXPECT_EQ(fresh.generateRequestId(), "req_2" + suffix);
    EXPECT_EQ(fresh.getUptimeSeconds(), clock.up());
}

TEST_F(EngineSync, ParkingNeedsAnIdAndTakesTheTimeoutOfItsKind) {
    chainOf(ASYNC_PENDING);
    EXPECT_EQ(run("").result, ASYNC_PENDING);
    EXPECT_EQ(engine.parkedChainCount(), 0u);
    run("tk", makeRequest("", OPEN_TYPE_TEMP_KEY));
    AuthEngine::AsyncContext key;
    ASSERT_TRUE(engine.peekParkedChain("tk", key));
    EXPECT_EQ(key.context.pendingProcessor + " " + std::to_string(key.context.response.result) +
                  " " + std::to_string(key.timeoutSeconds),
              "P 2 3");
    EXPECT_EQ(recorder.count(), 0u);
}

TEST_F(EngineSync, AThrowingProcessorFailsTheRequestOnce) {
    chainOf([](AuthContext&) -> AuthResult { throw std::runtime_error("host broke"); });
    expectFailed(run("r1"), 0, "Internal error");
    EXPECT_EQ(tail->calls, 0);
    EXPECT_EQ(said(onlyReport("r1")), "FAILED 0 'Internal error' [] []");
    EXPECT_EQ(host->reportCount(), 1u);
    EXPECT_EQ(engine.parkedChainCount(), 0u);

    // A provider that throws from getAuthConfig does not stop a request either.
    configure([](FakeDataProvider& fake) { fake.throwFrom.insert("getAuthConfig"); });
    chainOf(IGNORED);
    EXPECT_EQ(run("r2").result, IGNORED);
    EXPECT_EQ(recorder.count(), 2u);
}

constexpr int64_t kLast32BitSecond = 2147483647;  // 2038-01-19 03:14:07 UTC

// A card user who may open relays 1 and 2 under schedule 7, on the real processor chain.
class Platform : public ::testing::Test, public EngineHarness {
protected:
    Platform() {
        UserData& user = host->users["card-1"];
        user.userId = user.holidayKey = "u1";
        user.scheduleRelay = "7-1,2";
        *governing = ScheduleData{7, 1, "7", "", "00:00:00", "23:59:59", "", "", "", "", false};
        host->schedules = {governing};
    }
    void TearDown() override { engine.reset(); }
    // Presents the card at each time and gives the reports in one line each.
    Relays cardAt(const std::vector<int64_t>& times) {
        EXPECT_TRUE(start());
        Relays out;
        for (const int64_t when : times) {
            clock.setWall(when);
            out.push_back(said(engine.authenticate(card, AuthCallback(), "")));
        }
        return out;
    }
    const AuthRequest card = makeRequest("card-1", OPEN_TYPE_CARD);
    LogCapture log;
    std::shared_ptr<ScheduleData> governing = std::make_shared<ScheduleData>();
};

TEST_F(Platform, UserValidityBoundsAfter2038) {
    host->users["card-1"].validTimeStart = kLast32BitSecond + 1;
    host->users["card-1"].validTimeEnd = TestClock::utc(2040, 1, 1);
    EXPECT_EQ(cardAt({kLast32BitSecond, TestClock::utc(2039, 6, 15, 12),
                      TestClock::utc(2040, 1, 1, 0, 0, 1)}),
              (Relays{"FAILED 22 'User not yet valid' [] [1,2]", "SUCCESS 0 '' [1,2] [] 0:1 0:2",
                      "FAILED 22 'User expired' [] [1,2]"}));
    // 64-bit values reach the log intact (printf types must match on 32-bit targets).
    EXPECT_TRUE(
        log.contains("currentTime=2191752000, validTimeStart=2147483648, "
                     "validTimeEnd=2208988800"));
}

TEST_F(Platform, ScheduleDateRangeIn2039) {
    *governing = ScheduleData{7,   3,  "7",  "", "08:00:00", "18:00:00", "2039-03-01", "2039-03-31",
                              "2", "", false};  // Tuesdays only
    const std::string refused = "FAILED 3 'Not in scheduled time' [] [1,2]";
    EXPECT_EQ(cardAt({TestClock::utc(2039, 3, 15, 12),        // a Tuesday inside the range
                      TestClock::utc(2039, 3, 16, 12),        // Wednesday
                      TestClock::utc(2039, 3, 15, 18, 0, 1),  // after hours
                      TestClock::utc(2039, 4, 5, 12),         // a Tuesday after the range
                      TestClock::utc(2040, 3, 13, 12)}),      // a Tuesday a year later
              (Relays{"SUCCESS 0 '' [1,2] [] 0:1 0:2", refused, refused, refused, refused}));
}

TEST_F(Platform, HolidaysIn2040) {
    host->config.holidayEnabled = true;
    // The leap day, and Christmas repeating every year from its first one.
    host->holidays = {HolidayData{0, 0, 0, "", "", "", "2040-02-29", "2040-02-29"},
                      HolidayData{0, 1, 0, "", "", "", "2030-12-25", "2030-12-26"}};
    const std::string refused =
                          "FAILED 2 'Access denied: no relay with holiday exemption' [] [1,2]",
                      open = "SUCCESS 0 '' [1,2] [] 0:1 0:2";
    EXPECT_EQ(cardAt({TestClock::utc(2040, 2, 29, 10), TestClock::utc(2041, 12, 26, 23),
                      TestClock::utc(2040, 2, 28, 23, 59, 59), TestClock::utc(2040, 3, 1),
                      TestClock::utc(2041, 12, 27)}),
              (Relays{refused, refused, open, open, open}));
}

TEST_F(Platform, TimeoutsAcrossThe32BitBoundary) {
    // The wall clock crosses 2^31 while a chain is parked; the uptime is past 2^32 while a relay
    // phase waits.
    clock.setWall(kLast32BitSecond - 1);
    clock.setUptime(5000000000LL);
    host->tempKeyUsers["tk-1"] = host->users["card-1"];
    host->users["card-1"].userType = 1;
    host->config.antiPassbackEnabled = true;
    host->config.antiPassbackRelayMap = {{"1", RELAY_DIRECTION_IN}};
    ASSERT_TRUE(start());
    ASSERT_EQ(run("tk", makeRequest("tk-1", OPEN_TYPE_TEMP_KEY)).result, ASYNC_PENDING);
    // Relay 2 opens at once; relay 1 waits for its anti-passback answer.
    run("ap", card);
    ASSERT_EQ(recorder.count(), 1u);
    // The temporary key waits 3 s, the phase 30 s: the chains and phases left after each sweep.
    std::string left;
    for (const int64_t seconds : {3, 1, 25, 1}) {
        clock.advance(seconds);
        engine.checkTimeoutRequests();
        left += std::to_string(engine.parkedChainCount() * 10 + engine.parkedPhaseCount()) + " ";
    }
    EXPECT_EQ(left, "11 1 1 0 ");
    EXPECT_EQ(said(onlyReport("tk")), "FAILED 24 'Async request timeout' [] []");
    EXPECT_EQ(said(onlyReport("ap_ind_antipassback")),
              "FAILED 0 'Independent async request timeout' [] [1]");
    host->answer(host->questions().size() - 1, SUCCESS);  // too late: decides nothing
    ASSERT_TRUE(idle());
    EXPECT_EQ(recorder.count(), 3u);
    EXPECT_EQ(engine.subRequestCount(), 0u);
}

}  // namespace
}  // namespace testing
}  // namespace auth_engine
