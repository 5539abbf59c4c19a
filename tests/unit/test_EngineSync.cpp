// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// Set-up of the engine, its processor chain and the synchronous run.
#include <stdexcept>

#include "support/EngineHarness.h"

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
    EXPECT_FALSE(h.engine.isReady());
    h.engine.setProcessorChain({"UserLookup"});  // no provider yet: nothing changes
    EXPECT_TRUE(h.engine.chainNames().empty());
    EXPECT_EQ(h.run("").reason, "Engine not initialized");

    ASSERT_TRUE(h.start());
    EXPECT_TRUE(h.engine.isReady());
    EXPECT_EQ(h.engine.chainNames(), kDefaultChain);
    Relays all = kDefaultChain;
    all.insert(all.end(), {"AntiPassback", "Interlock", "ParkingRestriction"});
    for (const auto& name : all) {
        const auto processor = h.engine.getProcessor(name);
        ASSERT_TRUE(processor) << name;
        EXPECT_EQ(processor->getName(), name);
    }
    EXPECT_FALSE(h.engine.getProcessor("Nope"));

    h.engine.reset();
    EXPECT_FALSE(h.engine.isReady());
    EXPECT_FALSE(h.engine.getProcessor("UserLookup"));
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
    ASSERT_TRUE(recorder.waitFor(2));
    ASSERT_TRUE(idle());
    EXPECT_EQ(calledIds(), (Relays{"", id}));
}

TEST_F(EngineSync, ChainByNamesSkipsUnknownsKeepsTailLinksAndWalksCyclesOnce) {
    std::map<std::string, std::shared_ptr<ScriptedProcessor>> probes;
    for (const char* name : {"A", "B", "C", "X"}) {
        probes[name] = std::make_shared<ScriptedProcessor>(name, nullptr);
        engine.registerProcessor(probes[name]);
    }

    // The user lookup is the tail and keeps its successors from the default chain.
    engine.setProcessorChain({"UserLookup", "Nope"});
    EXPECT_EQ(engine.chainNames(), Relays(kDefaultChain.begin() + 5, kDefaultChain.end()));
    engine.setProcessorChain({"Nope", "A"});
    EXPECT_TRUE(engine.chainNames().empty());
    AuthContext empty;
    EXPECT_EQ(engine.executeProcessorChain(empty), FAILED);
    EXPECT_EQ(empty.response.reason, "No processor chain configured");

    engine.setProcessorChain({"A", "Nope", "B", "C"});
    EXPECT_EQ(engine.chainNames(), (Relays{"A", "B", "C"}));
    engine.setProcessorChain({"X", "B"});  // B keeps its old successor C
    EXPECT_EQ(engine.chainNames(), (Relays{"X", "B", "C"}));
    engine.setProcessorChain({"C", "A"});  // A keeps B, B keeps C: a cycle
    EXPECT_EQ(engine.chainNames(), (Relays{"C", "A", "B"}));
    AuthContext context;
    EXPECT_EQ(engine.executeProcessorChain(context), SUCCESS);
    for (const char* name : {"A", "B", "C"}) {
        EXPECT_EQ(probes[name]->calls, 1) << name;
    }
    EXPECT_EQ(probes["X"]->calls, 0);

    // Registering under a taken name replaces the entry but leaves the running chain alone.
    auto newA = std::make_shared<ScriptedProcessor>("A", nullptr);
    engine.registerProcessor(newA);
    engine.registerProcessor(nullptr);
    EXPECT_EQ(engine.getProcessor("A"), newA);
    engine.executeProcessorChain(context);
    EXPECT_EQ(probes["A"]->calls, 2);
    EXPECT_EQ(newA->calls, 0);
}

TEST_F(EngineSync, DroppedIgnoredAndDoubleAuthPendingAreDispatchedAsDescribed) {
    chainOf(DROPPED);
    EXPECT_EQ(run("r4").result, DROPPED);
    EXPECT_EQ(recorder.count(), 0u);

    chainOf(IGNORED);
    EXPECT_EQ(run("r7").result, IGNORED);
    ASSERT_EQ(recorder.count(), 1u);
    EXPECT_EQ(recorder.at(0).requestId, "r7");
    EXPECT_EQ(host->reportCount(), 0u);

    chainOf(DOUBLE_AUTH_PENDING);
    EXPECT_EQ(run("r5").result, DOUBLE_AUTH_PENDING);
    ASSERT_EQ(recorder.count(), 2u);
    EXPECT_EQ(recorder.at(1).response.result, DOUBLE_AUTH_PENDING);
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
    for (const ReaderType reader :
         {READER_TYPE_EXTERNAL_1, READER_TYPE_EXTERNAL_2, READER_TYPE_INTERNAL}) {
        run("", makeRequest("", OPEN_TYPE_NONE, reader));
    }
    ASSERT_EQ(recorder.count(), 3u);
    EXPECT_EQ(recorder.at(0).context.readerRelays, (Relays{"2", "3"}));
    EXPECT_EQ(recorder.at(0).context.readerDirection, RELAY_DIRECTION_OUT);
    EXPECT_TRUE(recorder.at(0).context.relays.empty());  // informational only
    EXPECT_EQ(recorder.at(1).context.readerRelays, Relays{"4"});
    EXPECT_EQ(recorder.at(1).context.readerDirection, RELAY_DIRECTION_IN);
    EXPECT_TRUE(recorder.at(2).context.readerRelays.empty());
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

    run("plain");
    run("tk", makeRequest("", OPEN_TYPE_TEMP_KEY));
    AuthEngine::AsyncContext plain;
    AuthEngine::AsyncContext key;
    ASSERT_TRUE(engine.peekParkedChain("plain", plain));
    ASSERT_TRUE(engine.peekParkedChain("tk", key));
    EXPECT_EQ(plain.context.pendingProcessor, "P");
    EXPECT_EQ(plain.context.response.result, ASYNC_PENDING);
    EXPECT_EQ(plain.timeoutSeconds, 30);
    EXPECT_EQ(key.timeoutSeconds, 3);
    EXPECT_EQ(recorder.count(), 0u);
}

TEST_F(EngineSync, AThrowingProcessorFailsTheRequestOnce) {
    chainOf([](AuthContext&) -> AuthResult { throw std::runtime_error("host broke"); });
    expectFailed(run("r1"), 0, "Internal error");
    EXPECT_EQ(tail->calls, 0);
    ASSERT_EQ(recorder.count(), 1u);
    EXPECT_EQ(recorder.at(0).response.reason, "Internal error");
    EXPECT_EQ(host->reportCount(), 1u);
    EXPECT_EQ(engine.parkedChainCount(), 0u);

    // A provider that throws from getAuthConfig does not stop a request either.
    configure([](FakeDataProvider& fake) { fake.throwFrom.insert("getAuthConfig"); });
    chainOf(IGNORED);
    EXPECT_EQ(run("r2").result, IGNORED);
    EXPECT_EQ(recorder.count(), 2u);
}

}  // namespace
}  // namespace testing
}  // namespace auth_engine
