// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// AuthEngine set-up: init, the processor registry and the chain, the frames that mark host code
// calling back in, and the read-only inspection tests and tools use.
#include "engine/AuthEngine.h"

#include <pthread.h>

#include <algorithm>
#include <chrono>
#include <utility>

#include "auth_engine/AuthClock.h"
#include "auth_engine/AuthLogger.h"
#include "auth_engine/FailCodes.h"
#include "common/DecisionLocalTime.h"
#include "common/ProcessorSupport.h"
#include "engine/HostCall.h"
#include "engine/WorkerThread.h"
#include "processors/BuiltinProcessors.h"

namespace auth_engine {

namespace {

// The fixed default order: the links of the built-in table, in its order.
const std::vector<std::string>& defaultChain() {
    static const std::vector<std::string> names = [] {
        std::vector<std::string> chain;
        for (const processors::BuiltinProcessor& entry : processors::builtinProcessors()) {
            if (entry.inDefaultChain) {
                chain.emplace_back(entry.name);
            }
        }
        return chain;
    }();
    return names;
}

// The processors met walking from `start`, stopping at one already visited. Caller holds the chain
// lock. Chains are short (the default has 13 links), so a linear search of what was already met is
// cheaper than a set, which would allocate a node per link.
std::vector<std::shared_ptr<IAuthProcessor>> walkFrom(std::shared_ptr<IAuthProcessor> start,
                                                      std::size_t expected) {
    std::vector<std::shared_ptr<IAuthProcessor>> list;
    list.reserve(expected);
    // Each link is moved into the list rather than copied: one reference count change per link.
    for (auto current = std::move(start); current;) {
        if (std::find(list.begin(), list.end(), current) != list.end()) {
            break;
        }
        list.push_back(std::move(current));
        current = list.back()->getNext();
    }
    return list;
}

// Attaches the processors that ask the host to the engine's questions (or detaches them).
void attachEngine(const std::shared_ptr<IAuthProcessor>& processor, AuthEngine* engine) {
    if (auto* asking = dynamic_cast<HostAskingProcessor*>(processor.get())) {
        asking->attachQuestions(hostQuestionsOf(engine));
    }
}

}  // namespace

HostQuestions* hostQuestionsOf(AuthEngine* engine) {
    return engine != nullptr ? &engine->questions : nullptr;
}

AuthEngine::AuthEngine() : AuthEngine(std::make_shared<std::atomic<uint32_t>>(0)) {}

AuthEngine::AuthEngine(std::shared_ptr<std::atomic<uint32_t>> numbers)
    : parked([this](const std::string& id) { forgetQuestionsLocked(id); }),
      questions(*this),
      requestCounter(numbers ? std::move(numbers) : std::make_shared<std::atomic<uint32_t>>(0)) {
    // The semaphore lives as long as the engine, so that a late post from a host thread never
    // touches a destroyed semaphore; init reports -3 if it could not be created.
    semaphoreReady = sem_init(&queueSemaphore, 0, 0) == 0;
}

AuthEngine::~AuthEngine() {
    try {
        reset();
    } catch (...) {
        AuthLogger::error("[AuthEngine] reset threw during destruction");
    }
    if (workerStarted && pthread_equal(pthread_self(), workerThread) != 0) {
        // The worker dropped the last reference after its own shutdown: it cannot join itself,
        // so it leaves as a detached thread.
        pthread_detach(workerThread);
        workerStarted = false;
    }
    if (semaphoreReady) {
        sem_destroy(&queueSemaphore);
    }
}

// ---- host code that calls back in ----

thread_local const AuthEngine::Inside* AuthEngine::Inside::innermost = nullptr;
thread_local const AuthEngine* AuthEngine::CallbacksUnderLock::current = nullptr;

AuthEngine::Inside::Inside(AuthEngine& owner) : engine(owner), outer(innermost) {
    innermost = this;
}

AuthEngine::Inside::~Inside() {
    innermost = outer;
    // The host code that asked for a reset has returned and this thread no longer runs anything
    // of the engine: the reset completes here. The worker completes one it asked in its loop.
    if (engine.shutdownDeferred && !nested() && workerEngineOfThread != &engine) {
        try {
            engine.completeShutdown();
        } catch (...) {
            AuthLogger::error("[AuthEngine] reset threw while completing");
        }
    }
}

bool AuthEngine::Inside::onThisThread(const AuthEngine& engine) {
    for (const Inside* frame = innermost; frame != nullptr; frame = frame->outer) {
        if (&frame->engine == &engine) {
            return true;
        }
    }
    return false;
}

bool AuthEngine::Inside::nested() const {
    for (const Inside* frame = outer; frame != nullptr; frame = frame->outer) {
        if (&frame->engine == &engine) {
            return true;
        }
    }
    return false;
}

AuthEngine::CallbacksUnderLock::CallbacksUnderLock(const AuthEngine& engine) : previous(current) {
    current = &engine;
}

AuthEngine::CallbacksUnderLock::~CallbacksUnderLock() {
    current = previous;
}

bool AuthEngine::refusedUnderLock(const char* call) const {
    if (CallbacksUnderLock::engineOfThread() != this) {
        return false;
    }
    AuthLogger::error(
        "[AuthEngine] %s refused: called from a callback the engine makes while holding its lock",
        call);
    return true;
}

int AuthEngine::init(std::shared_ptr<IDataProvider> newProvider) {
    if (!newProvider) {
        return -1;
    }
    if (shutdownPending) {
        // A reset asked from host code has not completed: from inside that code a new worker
        // could not be started beside the old one; from outside, the reset completes first.
        if (workerEngineOfThread == this || Inside::onThisThread(*this)) {
            AuthLogger::error("[AuthEngine] init refused: a reset asked from host code is pending");
            return -4;
        }
        completeShutdown();
    }
    {
        std::lock_guard<std::mutex> lock(chainMutex);
        dataProvider = std::move(newProvider);
    }
    createProcessors();
    buildProcessorChain();

    if (running) {
        // A second init keeps the worker, the queues, the parked requests and the gate: answers to
        // questions asked before it still belong to the same run.
        initialized = true;
        return 0;
    }
    if (!semaphoreReady) {
        return -3;
    }
    std::lock_guard<std::mutex> starting(lifecycleMutex);
    if (workerStarted) {
        // The worker of the run before ended its loop by itself (a reset asked on it).
        pthread_join(workerThread, nullptr);
        workerStarted = false;
    }
    workerHold = weak_from_this().lock();
    std::shared_ptr<Gate> opened = std::make_shared<Gate>();
    opened->engine = this;
    {
        std::lock_guard<std::mutex> lock(chainMutex);
        gate = opened;
    }
    running = true;
    if (pthread_create(&workerThread, nullptr, &AuthEngine::asyncThreadFunc, this) != 0) {
        running = false;
        workerHold.reset();
        {
            std::unique_lock<std::shared_mutex> closing(opened->mutex);
            opened->engine = nullptr;
        }
        std::lock_guard<std::mutex> lock(chainMutex);
        gate.reset();
        return -4;
    }
    workerStarted = true;
    initialized = true;
    return 0;
}

void AuthEngine::createProcessors() {
    std::vector<std::shared_ptr<IAuthProcessor>> created;
    created.reserve(processors::builtinProcessors().size());
    for (const processors::BuiltinProcessor& entry : processors::builtinProcessors()) {
        created.push_back(entry.make());
    }
    for (const auto& processor : created) {
        attachEngine(processor, this);
    }
    std::lock_guard<std::mutex> lock(chainMutex);
    for (const auto& processor : created) {
        auto& slot = processors[processor->getName()];
        if (slot) {
            // The replaced instance may sit in a cycle left by the tail rule; unlink it so it is
            // freed.
            slot->setNext(nullptr);
        }
        slot = processor;
    }
    refreshChainWalkLocked();
}

void AuthEngine::buildProcessorChain() {
    setProcessorChain(defaultChain());
}

void AuthEngine::setProcessorChain(const std::vector<std::string>& names) {
    std::lock_guard<std::mutex> lock(chainMutex);
    if (!dataProvider) {
        return;
    }
    // Whichever way this ends, the walk is recomputed before the lock is released.
    struct RefreshWalk {
        AuthEngine& engine;
        ~RefreshWalk() { engine.refreshChainWalkLocked(); }
    } refresh{*this};
    chainHead.reset();
    if (names.empty()) {
        return;
    }
    const auto first = processors.find(names.front());
    if (first == processors.end() || !first->second) {
        return;
    }
    chainHead = first->second;
    std::shared_ptr<IAuthProcessor> tail = chainHead;
    for (std::size_t i = 1; i < names.size(); ++i) {
        const auto found = processors.find(names[i]);
        if (found == processors.end() || !found->second) {
            continue;
        }
        tail->setNext(found->second);
        tail = found->second;
    }
    // The tail keeps its old next link on purpose: a shorter chain that ends on a processor which
    // had a successor before continues into it. Every walk stops at a processor already visited.
}

void AuthEngine::registerProcessor(std::shared_ptr<IAuthProcessor> processor) {
    if (!processor) {
        return;
    }
    const Inside inside(*this);
    std::string name;
    if (!callHost("getName", [&] { name = processor->getName(); })) {
        return;
    }
    attachEngine(processor, this);
    std::lock_guard<std::mutex> lock(chainMutex);
    processors[name] = std::move(processor);
}

void AuthEngine::reloadConfig() {
    // Nothing is cached: every use asks the provider's getAuthConfig afresh, so there is nothing to
    // reload, before init or after it.
}

bool AuthEngine::isReady() const {
    return initialized;
}

// ---- chain walks ----

std::vector<std::shared_ptr<IAuthProcessor>> AuthEngine::collectChain(
    std::shared_ptr<IAuthProcessor> start) {
    std::lock_guard<std::mutex> lock(chainMutex);
    return walkFrom(std::move(start), processors.size() + 1);
}

void AuthEngine::refreshChainWalkLocked() {
    if (!chainHead) {
        chainWalk.reset();
        return;
    }
    chainWalk = std::make_shared<const std::vector<std::shared_ptr<IAuthProcessor>>>(
        walkFrom(chainHead, processors.size() + 1));
}

// ---- inspection ----

std::shared_ptr<IAuthProcessor> AuthEngine::getProcessor(const std::string& name) {
    std::lock_guard<std::mutex> lock(chainMutex);
    const auto found = processors.find(name);
    return found == processors.end() ? nullptr : found->second;
}

std::vector<std::string> AuthEngine::chainNames() {
    const Inside inside(*this);
    std::shared_ptr<IAuthProcessor> head;
    {
        std::lock_guard<std::mutex> lock(chainMutex);
        head = chainHead;
    }
    std::vector<std::string> names;
    for (const auto& processor : collectChain(head)) {
        callHost("getName", [&] { names.push_back(processor->getName()); });
    }
    return names;
}

std::size_t AuthEngine::parkedChainCount() {
    if (refusedUnderLock("parkedChainCount")) {
        return 0;
    }
    std::lock_guard<std::mutex> lock(queueMutex);
    return parked.chainCount();
}

std::size_t AuthEngine::parkedPhaseCount() {
    if (refusedUnderLock("parkedPhaseCount")) {
        return 0;
    }
    std::lock_guard<std::mutex> lock(queueMutex);
    return parked.phaseCount();
}

bool AuthEngine::peekParkedChain(const std::string& requestId, AsyncContext& out) {
    if (refusedUnderLock("peekParkedChain")) {
        return false;
    }
    std::lock_guard<std::mutex> lock(queueMutex);
    const AsyncContext* const found = parked.chain(requestId);
    if (found == nullptr) {
        return false;
    }
    out = *found;
    return true;
}

bool AuthEngine::peekParkedPhase(const std::string& phaseId, IndependentAsyncContext& out) {
    if (refusedUnderLock("peekParkedPhase")) {
        return false;
    }
    std::lock_guard<std::mutex> lock(queueMutex);
    const IndependentAsyncContext* const found = parked.phase(phaseId);
    if (found == nullptr) {
        return false;
    }
    out = *found;
    return true;
}

}  // namespace auth_engine
