#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "engine/AuthEngine.h"
#include "support/CallbackRecorder.h"
#include "support/FakeDataProvider.h"
#include "support/TestClock.h"

namespace auth_engine {
namespace {

using testing::CallbackRecorder;
using testing::FakeDataProvider;
using Relays = std::vector<std::string>;

class Probe : public IAuthProcessor {
public:
    using Fn = std::function<AuthResult(AuthContext&)>;
    Probe(std::string probeName, Fn probeFn) : name(std::move(probeName)), fn(std::move(probeFn)) {}
    AuthResult process(AuthContext& context, IDataProvider&) override {
        ++calls;
        return fn(context);
    }
    std::string getName() const override { return name; }
    int calls = 0;

private:
    std::string name;
    Probe::Fn fn;
};

class EngineSync : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(engine.init(provider), 0); }

    // Chain: "P" returning `result`, then "Tail" (which must only run after a CONTINUE).
    void chainOf(Probe::Fn fn) {
        probe = std::make_shared<Probe>("P", std::move(fn));
        tail = std::make_shared<Probe>("Tail", [](AuthContext&) { return CONTINUE; });
        engine.registerProcessor(probe);
        engine.registerProcessor(tail);
        engine.setProcessorChain({"P", "Tail"});
    }
    void chainOf(AuthResult result) {
        chainOf([result](AuthContext&) { return result; });
    }

    CallbackRecorder recorder;
    std::shared_ptr<FakeDataProvider> provider = std::make_shared<FakeDataProvider>();
    AuthEngine engine;
    std::shared_ptr<Probe> probe;
    std::shared_ptr<Probe> tail;
};

TEST_F(EngineSync, DroppedIgnoredAndDoubleAuthPendingAreDispatchedAsDescribed) {
    chainOf(DROPPED);
    EXPECT_EQ(engine.authenticate(AuthRequest(), recorder.callback(), "r4").result, DROPPED);
    EXPECT_EQ(recorder.count(), 0u);

    chainOf(IGNORED);
    EXPECT_EQ(engine.authenticate(AuthRequest(), recorder.callback(), "r7").result, IGNORED);
    ASSERT_EQ(recorder.count(), 1u);
    EXPECT_EQ(recorder.at(0).requestId, "r7");
    EXPECT_EQ(provider->reportCount(), 0u);

    chainOf(DOUBLE_AUTH_PENDING);
    EXPECT_EQ(engine.authenticate(AuthRequest(), recorder.callback(), "r5").result,
              DOUBLE_AUTH_PENDING);
    ASSERT_EQ(recorder.count(), 2u);
    EXPECT_EQ(recorder.at(1).response.result, DOUBLE_AUTH_PENDING);
    ASSERT_EQ(provider->reportCount(), 1u);
    EXPECT_EQ(provider->reports()[0].result, DOUBLE_AUTH_PENDING);
    EXPECT_EQ(engine.parkedChainCount(), 0u);
}

TEST_F(EngineSync, ReaderDefaultRelaysPreferDirectionOut) {
    {
        auto lock = provider->lock();
        provider->config.virtualDoorEnabled = true;
        provider->config.readerRelayMap[READER_TYPE_EXTERNAL_1] = {
            {RELAY_DIRECTION_IN, {"1"}}, {RELAY_DIRECTION_OUT, {"2", "3"}}};
        provider->config.readerRelayMap[READER_TYPE_EXTERNAL_2] = {{RELAY_DIRECTION_IN, {"4"}},
                                                                   {RELAY_DIRECTION_OUT, {}}};
    }
    chainOf(IGNORED);
    AuthRequest request;
    for (const ReaderType reader :
         {READER_TYPE_EXTERNAL_1, READER_TYPE_EXTERNAL_2, READER_TYPE_INTERNAL}) {
        request.readerType = reader;
        engine.authenticate(request, recorder.callback(), "");
    }
    ASSERT_EQ(recorder.count(), 3u);
    EXPECT_EQ(recorder.at(0).context.readerRelays, (Relays{"2", "3"}));
    EXPECT_EQ(recorder.at(0).context.readerDirection, RELAY_DIRECTION_OUT);
    EXPECT_TRUE(recorder.at(0).context.relays.empty());  // informational only
    EXPECT_EQ(recorder.at(1).context.readerRelays, Relays{"4"});
    EXPECT_EQ(recorder.at(1).context.readerDirection, RELAY_DIRECTION_IN);
    EXPECT_TRUE(recorder.at(2).context.readerRelays.empty());
}

TEST_F(EngineSync, RequestIdsCountFromZeroPerEngineRun) {
    testing::TestClock clock;
    AuthEngine fresh;
    const std::string suffix = "_" + std::to_string(clock.wall());
    EXPECT_EQ(fresh.generateRequestId(), "req_0" + suffix);
    EXPECT_EQ(fresh.generateRequestId(), "req_1" + suffix);
    fresh.reset();
    EXPECT_EQ(fresh.generateRequestId(), "req_0" + suffix);
    EXPECT_EQ(fresh.getUptimeSeconds(), clock.up());
}

TEST_F(EngineSync, ParkingNeedsAnIdAndTakesTheTimeoutOfItsKind) {
    chainOf(ASYNC_PENDING);
    EXPECT_EQ(engine.authenticate(AuthRequest(), recorder.callback(), "").result, ASYNC_PENDING);
    EXPECT_EQ(engine.parkedChainCount(), 0u);

    AuthRequest tempKey;
    tempKey.openType = OPEN_TYPE_TEMP_KEY;
    engine.authenticate(AuthRequest(), recorder.callback(), "plain");
    engine.authenticate(tempKey, recorder.callback(), "tk");
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
    const AuthResponse response = engine.authenticate(AuthRequest(), recorder.callback(), "r1");
    EXPECT_EQ(response.result, FAILED);
    EXPECT_EQ(response.failCode, 0);
    EXPECT_EQ(response.reason, "Internal error");
    EXPECT_EQ(tail->calls, 0);
    ASSERT_EQ(recorder.count(), 1u);
    EXPECT_EQ(recorder.at(0).response.reason, "Internal error");
    EXPECT_EQ(provider->reportCount(), 1u);
    EXPECT_EQ(engine.parkedChainCount(), 0u);

    // A provider that throws from getAuthConfig does not stop a request either.
    {
        auto lock = provider->lock();
        provider->throwFrom.insert("getAuthConfig");
    }
    chainOf(IGNORED);
    EXPECT_EQ(engine.authenticate(AuthRequest(), recorder.callback(), "r2").result, IGNORED);
    EXPECT_EQ(recorder.count(), 2u);
}

}  // namespace
}  // namespace auth_engine
