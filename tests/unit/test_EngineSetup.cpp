#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "engine/AuthEngine.h"
#include "support/CallbackRecorder.h"
#include "support/FakeDataProvider.h"

namespace auth_engine {
namespace {

using Names = std::vector<std::string>;
using testing::CallbackRecorder;
using testing::FakeDataProvider;

class Probe : public IAuthProcessor {
public:
    using Fn = std::function<AuthResult(AuthContext&, IDataProvider&)>;
    explicit Probe(std::string probeName, Fn probeFn = nullptr)
        : name(std::move(probeName)), fn(std::move(probeFn)) {}
    AuthResult process(AuthContext& context, IDataProvider& provider) override {
        ++calls;
        return fn ? fn(context, provider) : CONTINUE;
    }
    std::string getName() const override { return name; }
    std::atomic<int> calls{0};

private:
    std::string name;
    Fn fn;
};

const Names kDefaultChain = {"Dtmf",      "RemoteControl", "TempKey",      "Http",
                             "Input",     "UserLookup",    "DoubleAuth",   "VirtualDoor",
                             "TimeCheck", "BleInterval",   "HolidayCheck", "UnlockType",
                             "LockDown"};

TEST(EngineSetup, InitCodesRegistryAndDefaultChain) {
    AuthEngine engine;
    EXPECT_EQ(engine.init(nullptr), -1);
    EXPECT_FALSE(engine.isReady());
    engine.setProcessorChain({"UserLookup"});  // no provider yet: nothing changes
    EXPECT_TRUE(engine.chainNames().empty());
    EXPECT_EQ(engine.authenticate(AuthRequest(), nullptr, "").reason, "Engine not initialized");

    ASSERT_EQ(engine.init(std::make_shared<FakeDataProvider>()), 0);
    EXPECT_TRUE(engine.isReady());
    EXPECT_EQ(engine.chainNames(), kDefaultChain);
    Names all = kDefaultChain;
    all.insert(all.end(), {"AntiPassback", "Interlock", "ParkingRestriction"});
    for (const auto& name : all) {
        const auto processor = engine.getProcessor(name);
        ASSERT_TRUE(processor) << name;
        EXPECT_EQ(processor->getName(), name);
    }
    EXPECT_FALSE(engine.getProcessor("Nope"));

    engine.reset();
    EXPECT_FALSE(engine.isReady());
    EXPECT_FALSE(engine.getProcessor("UserLookup"));
    EXPECT_TRUE(engine.chainNames().empty());
}

TEST(EngineSetup, SecondInitReplacesProviderKeepsTheWorker) {
    auto first = std::make_shared<FakeDataProvider>();
    auto second = std::make_shared<FakeDataProvider>();
    CallbackRecorder recorder;  // outlives the engine's worker
    AuthEngine engine;
    ASSERT_EQ(engine.init(first), 0);
    const auto oldLookup = engine.getProcessor("UserLookup");
    IDataProvider* seen = nullptr;
    engine.registerProcessor(std::make_shared<Probe>("Probe", [&](AuthContext&, IDataProvider& p) {
        seen = &p;
        return IGNORED;
    }));

    ASSERT_EQ(engine.init(second), 0);
    EXPECT_NE(engine.getProcessor("UserLookup"), oldLookup);
    EXPECT_EQ(engine.chainNames(), kDefaultChain);
    engine.setProcessorChain({"Probe"});
    engine.authenticate(AuthRequest(), nullptr, "");
    EXPECT_EQ(seen, second.get());

    const std::string id = engine.authenticateAsync(AuthRequest(), recorder.callback());
    ASSERT_TRUE(recorder.waitFor(1));
    ASSERT_TRUE(engine.waitForIdle(5000));
    EXPECT_EQ(recorder.count(), 1u);
    EXPECT_EQ(recorder.at(0).requestId, id);
}

TEST(EngineSetup, ChainByNamesSkipsUnknownsKeepsTailLinksAndWalksCyclesOnce) {
    AuthEngine engine;
    ASSERT_EQ(engine.init(std::make_shared<FakeDataProvider>()), 0);
    std::map<std::string, std::shared_ptr<Probe>> probes;
    for (const char* name : {"A", "B", "C", "X"}) {
        probes[name] = std::make_shared<Probe>(name);
        engine.registerProcessor(probes[name]);
    }

    // The user lookup is the tail and keeps its successors from the default chain.
    engine.setProcessorChain({"UserLookup", "Nope"});
    EXPECT_EQ(engine.chainNames(), Names(kDefaultChain.begin() + 5, kDefaultChain.end()));
    engine.setProcessorChain({"Nope", "A"});
    EXPECT_TRUE(engine.chainNames().empty());
    AuthContext empty;
    EXPECT_EQ(engine.executeProcessorChain(empty), FAILED);
    EXPECT_EQ(empty.response.reason, "No processor chain configured");

    engine.setProcessorChain({"A", "Nope", "B", "C"});
    EXPECT_EQ(engine.chainNames(), (Names{"A", "B", "C"}));
    engine.setProcessorChain({"X", "B"});  // B keeps its old successor C
    EXPECT_EQ(engine.chainNames(), (Names{"X", "B", "C"}));
    engine.setProcessorChain({"C", "A"});  // A keeps B, B keeps C: a cycle
    EXPECT_EQ(engine.chainNames(), (Names{"C", "A", "B"}));
    AuthContext context;
    EXPECT_EQ(engine.executeProcessorChain(context), SUCCESS);
    for (const char* name : {"A", "B", "C"}) {
        EXPECT_EQ(probes[name]->calls, 1) << name;
    }
    EXPECT_EQ(probes["X"]->calls, 0);

    // Registering under a taken name replaces the entry but leaves the running chain alone.
    auto newA = std::make_shared<Probe>("A");
    engine.registerProcessor(newA);
    engine.registerProcessor(nullptr);
    EXPECT_EQ(engine.getProcessor("A"), newA);
    engine.executeProcessorChain(context);
    EXPECT_EQ(probes["A"]->calls, 2);
    EXPECT_EQ(newA->calls, 0);
}

}  // namespace
}  // namespace auth_engine
