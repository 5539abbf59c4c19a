// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

#include "support/EngineHarness.h"

#include <algorithm>
#include <chrono>
#include <thread>
#include <utility>

#include "auth_engine/AuthLogger.h"

namespace auth_engine {
namespace testing {

ScriptedProcessor::ScriptedProcessor(std::string processorName, Fn decide)
    : name(std::move(processorName)), fn(std::move(decide)) {}

AuthResult ScriptedProcessor::process(AuthContext& context, IDataProvider& provider) {
    ++calls;
    {
        std::lock_guard<std::mutex> lock(mutex);
        lastProvider = &provider;
        contexts.push_back(context);
    }
    return fn ? fn(context) : CONTINUE;
}

std::vector<AuthContext> ScriptedProcessor::seen() {
    std::lock_guard<std::mutex> lock(mutex);
    return contexts;
}

std::vector<AuthContext> ScriptedProcessor::resumed() {
    std::vector<AuthContext> out = seen();
    out.erase(std::remove_if(out.begin(), out.end(),
                             [](const AuthContext& c) { return c.pendingProcessor.empty(); }),
              out.end());
    return out;
}

AuthResult askOnce(const AuthContext& context) {
    return context.pendingProcessor.empty() ? ASYNC_PENDING : context.response.result;
}

void Latch::arrive() {
    std::lock_guard<std::mutex> lock(mutex);
    ++entered;
    changed.notify_all();
}

void Latch::pass() {
    arrive();
    std::unique_lock<std::mutex> lock(mutex);
    changed.wait(lock, [this] { return opened; });
}

void Latch::passWhile(const std::function<bool()>& hold) {
    arrive();
    while (hold()) {
        std::this_thread::yield();
    }
}

bool Latch::waitEntered(std::size_t count, int timeoutMs) {
    std::unique_lock<std::mutex> lock(mutex);
    return changed.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                            [&] { return entered >= count; });
}

void Latch::open() {
    std::lock_guard<std::mutex> lock(mutex);
    opened = true;
    changed.notify_all();
}

AuthRequest makeRequest(const std::string& credential, OpenDoorType type, ReaderType reader) {
    AuthRequest request;
    request.credential = credential;
    request.openType = type;
    request.readerType = reader;
    return request;
}

AuthResponse responseOf(AuthResult result, int failCode, int remoteFailCode) {
    AuthResponse response;
    response.result = result;
    response.failCode = failCode;
    response.remoteFailCode = remoteFailCode;
    return response;
}

AuthContext tempKeyAnswer(const std::string& key) {
    AuthContext update;
    update.tempKeyAuthData = std::make_shared<TempKeyAuthData>();
    update.tempKeyAuthData->key = key;
    return update;
}

void expectFailed(const AuthResponse& response, int failCode, const std::string& reason) {
    // Whatever relays failed, nothing opened and no target named.
    EXPECT_EQ(said(response), "FAILED " + std::to_string(failCode) + " '" + reason + "' [] [" +
                                  joinRelayVector(response.failedRelays) + "]");
}

void expectNothingParked(AuthEngine& engine) {
    EXPECT_EQ(engine.parkedChainCount() + engine.parkedPhaseCount() + engine.subRequestCount(), 0u)
        << "chains, phases and sub-requests left";
}

void expectCalledBackOnce(CallbackRecorder& recorder, std::vector<std::string> ids) {
    std::vector<std::string> called;
    for (const auto& call : recorder.all()) {
        called.push_back(call.requestId);
    }
    EXPECT_FALSE(ids.empty());
    std::sort(called.begin(), called.end());
    std::sort(ids.begin(), ids.end());
    EXPECT_EQ(called, ids);
}

std::shared_ptr<ScriptedProcessor> EngineHarness::use(const std::string& name,
                                                      ScriptedProcessor::Fn decide) {
    auto processor = std::make_shared<ScriptedProcessor>(name, std::move(decide));
    chain({processor});
    return processor;
}

void EngineHarness::chain(const std::vector<std::shared_ptr<IAuthProcessor>>& processors) {
    std::vector<std::string> names;
    for (const auto& processor : processors) {
        engine.registerProcessor(processor);
        names.push_back(processor->getName());
    }
    engine.setProcessorChain(names);
}

void EngineHarness::configure(const std::function<void(FakeDataProvider&)>& change) {
    const auto lock = host->lock();
    change(*host);
}

void EngineHarness::answer(const std::string& id, AuthResult result, int failCode,
                           const AuthContext& update) {
    engine.handleAsyncResponse(id, result, responseOf(result, failCode), update);
    EXPECT_TRUE(idle());
}

void EngineHarness::sweepAfter(int64_t seconds) {
    clock.advance(seconds);
    engine.checkAllPendingTimeouts();
    EXPECT_TRUE(idle());
}

AuthResponse EngineHarness::onlyReport(const std::string& id) {
    const auto calls = recorder.forId(id);
    EXPECT_EQ(calls.size(), 1u) << id;
    return calls.size() == 1 ? calls[0].response : AuthResponse();
}

std::vector<std::string> EngineHarness::calledIds() {
    std::vector<std::string> ids;
    for (const auto& call : recorder.all()) {
        ids.push_back(call.requestId);
    }
    return ids;
}

}  // namespace testing
}  // namespace auth_engine
