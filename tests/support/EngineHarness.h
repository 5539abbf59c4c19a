// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// Shared set-up of the engine and facade tests: an engine wired to the fake host, a callback
// recorder and the test clock; scripted processors; request builders and the common expectations.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "auth_engine/AuthFacade.h"
#include "engine/AuthEngine.h"
#include "support/CallbackRecorder.h"
#include "support/FakeDataProvider.h"
#include "support/TestClock.h"

namespace auth_engine {
namespace testing {

using Relays = std::vector<std::string>;

/// Generous cap for every wait (slow hosts such as the emulator); a healthy run never gets near it.
constexpr int kWaitMs = 60000;

/// A processor whose decision is a function. Counts its calls and keeps a copy of every context it
/// was handed (as handed, before the function runs).
class ScriptedProcessor : public IAuthProcessor {
public:
    using Fn = std::function<AuthResult(AuthContext&)>;
    ScriptedProcessor(std::string processorName, Fn decide);
    AuthResult process(AuthContext& context, IDataProvider& provider) override;
    std::string getName() const override { return name; }
    std::vector<AuthContext> seen();
    /// The contexts of the passes that resumed a parked chain.
    std::vector<AuthContext> resumed();

    std::atomic<int> calls{0};
    IDataProvider* lastProvider = nullptr;  ///< written by the deciding thread

private:
    std::string name;
    Fn fn;
    std::mutex mutex;
    std::vector<AuthContext> contexts;
};

/// The decision of a processor that asks the host once: ASYNC_PENDING on the first pass, then what
/// the host answered.
AuthResult askOnce(const AuthContext& context);

/// Holds the threads that pass through it until opened; a test waits for them to arrive.
class Latch {
public:
    /// Counts one more arrival without waiting.
    void arrive();
    /// Arrives, then waits until open().
    void pass();
    /// Arrives, then yields while `hold` is true (for a holder that must not block a joining
    /// reset).
    void passWhile(const std::function<bool()>& hold);
    bool waitEntered(std::size_t count = 1, int timeoutMs = kWaitMs);
    void open();

private:
    std::mutex mutex;
    std::condition_variable changed;
    std::size_t entered = 0;
    bool opened = false;
};

AuthRequest makeRequest(const std::string& credential, OpenDoorType openType = OPEN_TYPE_NONE,
                        ReaderType readerType = READER_TYPE_INTERNAL);
AuthResponse responseOf(AuthResult result, int failCode = 0, int remoteFailCode = -1);
/// A host answer context carrying a temporary key's validation data.
AuthContext tempKeyAnswer(const std::string& key);

/// FAILED with this code and reason, and nothing opened or actuated.
void expectFailed(const AuthResponse& response, int failCode, const std::string& reason);
void expectNothingParked(AuthEngine& engine);
/// Each of `ids` (at least one) was called back exactly once, and nothing else was.
void expectCalledBackOnce(CallbackRecorder& recorder, std::vector<std::string> ids);

/// An engine on the fake host. Members are declared so that the engine, and with it its worker,
/// goes first: the recorder and the clock outlive every callback.
class EngineHarness {
public:
    /// init with `host`; false when it fails.
    bool start() { return engine.init(host) == 0; }
    /// Registers a scripted processor and makes it the whole chain.
    std::shared_ptr<ScriptedProcessor> use(const std::string& name, ScriptedProcessor::Fn decide);
    /// Registers the processors and chains them in this order.
    void chain(const std::vector<std::shared_ptr<IAuthProcessor>>& processors);
    /// Changes the scripted host data under its lock (the worker may read it at any time).
    void configure(const std::function<void(FakeDataProvider&)>& change);
    AuthResponse run(const std::string& id, const AuthRequest& request = AuthRequest()) {
        return engine.authenticate(request, recorder.callback(), id);
    }
    std::string submit(const AuthRequest& request) {
        return engine.authenticateAsync(request, recorder.callback());
    }
    /// Delivers a host answer and waits for the engine to settle.
    void answer(const std::string& id, AuthResult result, int failCode = 0,
                const AuthContext& update = AuthContext());
    /// Moves time on, runs every timeout sweep and waits for the engine to settle.
    void sweepAfter(int64_t seconds);
    bool idle() { return engine.waitForIdle(kWaitMs); }
    /// The one report recorded for `id`; a failure, and a default response, unless there is exactly
    /// one.
    AuthResponse onlyReport(const std::string& id);
    std::string reportOf(const std::string& id) { return said(onlyReport(id)); }
    /// Request ids of the recorded callbacks, in order.
    std::vector<std::string> calledIds();

    TestClock clock;
    CallbackRecorder recorder;
    std::shared_ptr<FakeDataProvider> host = std::make_shared<FakeDataProvider>();
    AuthEngine engine;
};

/// A test whose engine is initialised on the fake host.
class EngineTest : public ::testing::Test, public EngineHarness {
protected:
    void SetUp() override { ASSERT_TRUE(start()); }
    /// Stops the worker before anything the test's processors use goes away.
    void TearDown() override { engine.reset(); }
};

/// A test of the facade singleton on the fake host; the facade is reset after each test, before the
/// recorder and the clock go.
class FacadeTest : public ::testing::Test {
protected:
    void TearDown() override { facade.reset(); }

    TestClock clock;
    CallbackRecorder recorder;
    std::shared_ptr<FakeDataProvider> host = std::make_shared<FakeDataProvider>();
    AuthFacade& facade = AuthFacade::getInstance();
};

}  // namespace testing
}  // namespace auth_engine
