// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// Parked chains: how one is stored, its resume once answered, the timeout sweep over them, and
// reset, which ends everything parked.
#include <pthread.h>

#include <algorithm>
#include <ctime>
#include <exception>
#include <utility>

#include "auth_engine/AuthClock.h"
#include "auth_engine/AuthLogger.h"
#include "auth_engine/FailCodes.h"
#include "common/ProcessorSupport.h"
#include "engine/AuthEngine.h"
#include "engine/HostCall.h"
#include "engine/WorkerThread.h"

namespace auth_engine {

namespace {

AuthResponse shutdownResponse() {
    return failedResponse(reasons::ENGINE_SHUTDOWN);
}

}  // namespace

// ---- parked chains ----

AuthEngine::AsyncContext AuthEngine::makeAsyncContext(const AuthContext& context,
                                                      AsyncRequestType type,
                                                      AuthCallback callback) {
    AsyncContext chain;
    chain.context = context;
    chain.type = type;
    chain.createTime = AuthClock::now();
    chain.callback = std::move(callback);
    chain.timeoutSeconds = 30;
    if (provider()) {
        const AuthConfig config = fetchConfig();
        if (type == ASYNC_TYPE_ANTI_PASSBACK) {
            chain.timeoutSeconds = config.antiPassbackTimeout;
        } else if (type == ASYNC_TYPE_PARKING) {
            chain.timeoutSeconds = config.parkingTimeout;
        } else if (context.request.openType == OPEN_TYPE_TEMP_KEY) {
            chain.timeoutSeconds = config.tempKeyTimeout;
        }
    }
    return chain;
}

void AuthEngine::saveAsyncContext(const std::string& requestId, const AuthContext& context,
                                  AsyncRequestType type, AuthCallback callback) {
    AsyncContext chain = makeAsyncContext(context, type, std::move(callback));
    std::lock_guard<std::mutex> lock(queueMutex);
    parked.park(requestId, std::move(chain));
    // A parked chain waits for an answer under its id.
    if (!requestId.empty() && underConstruction.count(requestId) == 0) {
        ownQuestions.insert(requestId);
    }
}

// ---- resume ----

void AuthEngine::resumeAuthentication(const std::string& requestId) {
    if (refusedUnderLock("resumeAuthentication")) {
        return;
    }
    const Inside inside(*this);
    AsyncContext chain;
    {
        std::unique_lock<std::mutex> lock(queueMutex);
        if (parked.phase(requestId) != nullptr) {
            lock.unlock();
            resumeIndependentAsync(requestId);
            return;
        }
        // Questions of the run that parked are settled as it leaves; the rerun asks afresh.
        if (!parked.take(requestId, chain)) {
            return;  // duplicate or late resume
        }
        beginConstructionLocked(requestId, true);
    }
    AuthContext& context = chain.context;
    const AuthCallback& callback = chain.callback;
    const AuthResult stored = context.response.result;
    if (stored == DROPPED || stored == IGNORED) {
        std::lock_guard<std::mutex> lock(queueMutex);
        abandonConstructionLocked(requestId);
        return;
    }

    // Resume at the processor that parked the request; it finds its answer in the context.
    std::shared_ptr<const std::vector<std::shared_ptr<IAuthProcessor>>> current;
    {
        std::lock_guard<std::mutex> lock(chainMutex);
        current = chainWalk;
    }
    const std::vector<std::shared_ptr<IAuthProcessor>> noChain;
    const std::vector<std::shared_ptr<IAuthProcessor>>& walk = current ? *current : noChain;
    std::size_t index = walk.size();
    for (std::size_t i = 0; i < walk.size() && index == walk.size(); ++i) {
        std::string name;
        callHost("getName", [&] { name = walk[i]->getName(); });
        if (name == context.pendingProcessor) {
            index = i;
        }
    }
    AuthResult result = FAILED;
    if (index < walk.size()) {
        result = runProcessors(walk, index, context);
    } else {
        // Nothing left to decide: only an answer that itself granted the request passes.
        result = stored == SUCCESS ? SUCCESS : FAILED;
    }

    endChainRun(requestId, context, callback, result, true);
}

// ---- timeouts ----

void AuthEngine::checkTimeoutRequests() {
    checkAllPendingTimeouts();
}

void AuthEngine::checkAllPendingTimeouts() {
    if (refusedUnderLock("checkAllPendingTimeouts")) {
        return;
    }
    const Inside inside(*this);
    callHost("checkTimeoutForChainRequests", [&] { checkTimeoutForChainRequests(); });
    callHost("checkTimeoutForIndependentRequests", [&] { checkTimeoutForIndependentRequests(); });
}

void AuthEngine::checkTimeoutForChainRequests() {
    // Parked chains are timed on the wall clock, as saveAsyncContext stamps them.
    const int64_t now = AuthClock::now();
    const std::shared_ptr<IDataProvider> host = provider();
    std::lock_guard<std::mutex> lock(queueMutex);
    parked.sweepChains([&](const std::string& id, AsyncContext& chain) {
        const int64_t elapsed = now - chain.createTime;
        if (underConstruction.count(id) != 0 ||
            elapsed <= static_cast<int64_t>(chain.timeoutSeconds)) {
            return false;
        }
        AuthContext& context = chain.context;
        for (auto& entry : context.antiPassbackResults) {
            if (!entry.second.answered) {
                entry.second.status = FAILED;
                entry.second.answered = true;
            }
        }
        context.response.result = FAILED;
        context.response.failCode =
            context.request.openType == OPEN_TYPE_TEMP_KEY ? fail::TEMP_KEY : fail::NONE;
        context.response.reason = reasons::ASYNC_TIMEOUT;
        context.response.openedRelays.clear();
        context.response.targets.clear();
        // Called under the lock by design; a call back in that would lock again is refused.
        const CallbacksUnderLock underLock(*this);
        reportToHost(host.get(), context, chain.callback);
        return true;
    });
}

// ---- reset ----

void AuthEngine::reset() {
    const Inside inside(*this);  // a reset asked from this reset's own callbacks is part of it
    closeIntake();
    if (workerEngineOfThread == this) {
        // Host code the worker runs asked: the worker cannot join itself. It stops after its
        // present pass and empties the engine on its way out.
        shutdownOnWorker = true;
        return;
    }
    if (inside.nested()) {
        // Host code this thread runs for the engine asked: the operation it interrupted still uses
        // the engine. The reset completes when the thread leaves the engine.
        shutdownDeferred = true;
        return;
    }
    completeShutdown();
}

void AuthEngine::closeIntake() {
    // Close the gate first: answers still travelling from the host are dropped from now on, and an
    // answer already inside the engine finishes before the state goes away.
    std::shared_ptr<Gate> closing;
    {
        std::lock_guard<std::mutex> lock(chainMutex);
        closing = std::move(gate);
        gate.reset();
    }
    if (closing) {
        std::unique_lock<std::shared_mutex> lock(closing->mutex);
        closing->engine = nullptr;
    }
    // running is cleared before initialized, so whoever sees the engine not ready also knows the
    // worker takes no further item.
    shutdownPending = true;
    running = false;
    initialized = false;
    if (semaphoreReady) {
        sem_post(&queueSemaphore);
    }
}

void AuthEngine::completeShutdown() {
    std::lock_guard<std::mutex> once(lifecycleMutex);
    if (!shutdownPending) {
        return;  // completed by another thread meanwhile
    }
    if (workerStarted) {
        pthread_join(workerThread, nullptr);
        workerStarted = false;
    }
    tearDown();
    shutdownOnWorker = false;
    shutdownDeferred = false;
    shutdownPending = false;
}

void AuthEngine::tearDown() {
    guessGuard.clear();
    std::map<std::string, IndependentAsyncContext> phases;
    std::map<std::string, AsyncContext> chains;
    {
        std::lock_guard<std::mutex> lock(queueMutex);
        // Queued submissions are failed in order, under the lock, like a timed-out chain.
        const CallbacksUnderLock underLock(*this);
        while (!requestQueue.empty()) {
            const AsyncAuthRequest entry = std::move(requestQueue.front());
            requestQueue.pop_front();
            if (entry.callback) {
                callHost("callback", [&] {
                    entry.callback(entry.requestId, shutdownResponse(), AuthContext());
                });
            }
        }
        parked.drain(chains, phases);
        subRequests.clear();
        ownQuestions.clear();
        resumeQueue.clear();
        underConstruction.clear();
    }
    idleChanged.notify_all();

    {
        std::lock_guard<std::mutex> lock(chainMutex);
        // Unlink every processor: the tail rule can leave cycles that would otherwise never be
        // freed.
        for (auto& entry : processors) {
            if (entry.second) {
                entry.second->setNext(nullptr);
            }
        }
        chainHead.reset();
        chainWalk.reset();
        processors.clear();
    }

    // Parked chains vanish silently; parked phases are told, outside the lock.
    chains.clear();
    for (const auto& entry : phases) {
        const IndependentAsyncContext& phase = entry.second;
        if (phase.callback) {
            callHost("callback", [&] {
                phase.callback(phase.context.requestId, shutdownResponse(), AuthContext());
            });
        }
    }

    std::lock_guard<std::mutex> lock(chainMutex);
    dataProvider.reset();
}

}  // namespace auth_engine
