// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// AuthEngine asynchronous side: the worker thread and its queues, parked chains, host answers and
// their routing, the resume of parked chains, the chain timeout sweep and reset.
#include <pthread.h>

#include <algorithm>
#include <ctime>
#include <exception>
#include <utility>

#include "auth_engine/AuthClock.h"
#include "auth_engine/AuthLogger.h"
#include "common/ProcessorSupport.h"
#include "engine/AuthEngine.h"
#include "engine/QuestionIds.h"
#include "engine/WorkerThread.h"

namespace auth_engine {

thread_local const AuthEngine* workerEngineOfThread = nullptr;

void waitForWork(sem_t& semaphore) {
    // The deadline is on the monotonic clock: a step of the wall clock (an NTP correction at boot)
    // must not keep the timeout sweep from running for the size of the step.
    timespec deadline{};
    clock_gettime(CLOCK_MONOTONIC, &deadline);
    deadline.tv_sec += 1;
#if defined(__GLIBC__) && (__GLIBC__ > 2 || (__GLIBC__ == 2 && __GLIBC_MINOR__ >= 30))
    sem_clockwait(&semaphore, CLOCK_MONOTONIC, &deadline);
#else
    // Without sem_clockwait the wait is measured on the wall clock after all.
    timespec wall{};
    clock_gettime(CLOCK_REALTIME, &wall);
    wall.tv_sec += 1;
    sem_timedwait(&semaphore, &wall);
    (void)deadline;
#endif
}
thread_local const AuthEngine::RegistrationScope* AuthEngine::registrationScope = nullptr;

namespace {

constexpr std::size_t kRequestQueueLimit = 100;

// Writes what the host reported into a parked response. Fields the host leaves empty, zero or
// negative keep what the chain already put there; failedRelays is always the engine's own.
void applyResponse(AuthResponse& stored, AuthResult result, const AuthResponse& answer) {
    stored.result = result;
    if (!answer.relays.empty()) {
        stored.relays = answer.relays;
    }
    if (!answer.unlockOptionsRelays.empty()) {
        stored.unlockOptionsRelays = answer.unlockOptionsRelays;
    }
    if (!answer.openedRelays.empty()) {
        stored.openedRelays = answer.openedRelays;
    }
    if (answer.failCode != 0) {
        stored.failCode = answer.failCode;
    }
    if (!answer.reason.empty()) {
        stored.reason = answer.reason;
    }
    if (!answer.asyncType.empty()) {
        stored.asyncType = answer.asyncType;
    }
    if (!answer.unlockOptionsId.empty()) {
        stored.unlockOptionsId = answer.unlockOptionsId;
    }
    if (answer.remoteFailCode >= 0) {
        stored.remoteFailCode = answer.remoteFailCode;
    }
}

// Merges the host's context update. A skip flag once set is never cleared by an answer.
void mergeUpdate(AuthContext& stored, const AuthContext& update) {
    if (update.dtmfAuthData) {
        stored.dtmfAuthData = update.dtmfAuthData;
    }
    if (update.remoteControlAuthData) {
        stored.remoteControlAuthData = update.remoteControlAuthData;
    }
    if (update.tempKeyAuthData) {
        stored.tempKeyAuthData = update.tempKeyAuthData;
    }
    if (update.httpRequestData) {
        stored.httpRequestData = update.httpRequestData;
    }
    if (update.inputRequestData) {
        stored.inputRequestData = update.inputRequestData;
    }
    if (!update.authTargets.empty()) {
        stored.authTargets = update.authTargets;
    }
    stored.skipUserLookup = stored.skipUserLookup || update.skipUserLookup;
    stored.skipVirtualDoor = stored.skipVirtualDoor || update.skipVirtualDoor;
    stored.skipUnlockType = stored.skipUnlockType || update.skipUnlockType;
    stored.skipTimeCheck = stored.skipTimeCheck || update.skipTimeCheck;
    stored.skipHolidayCheck = stored.skipHolidayCheck || update.skipHolidayCheck;
    stored.virtualDoorExempt = stored.virtualDoorExempt || update.virtualDoorExempt;
}

// Records one relay's answer; true when it was the relay's first answer (the pending count fell).
template <typename SubResult>
bool recordRelayAnswer(std::map<std::string, SubResult>& results, int& pending,
                       const std::string& relay, AuthResult result) {
    const auto found = results.find(relay);
    if (found == results.end() || found->second.answered) {
        return false;
    }
    found->second.status = result;
    found->second.answered = true;
    --pending;
    return true;
}

void keepFirstRemoteFailCode(AuthContext& context, const AuthResponse& answer) {
    if (answer.remoteFailCode >= 0 && context.antiPassbackFailCode < 0) {
        context.antiPassbackFailCode = answer.remoteFailCode;
    }
}

AuthResponse shutdownResponse() {
    return failedResponse("Engine shutdown");
}

}  // namespace

// ---- submissions and the worker ----

std::string AuthEngine::authenticateAsync(const AuthRequest& request,
                                          const AuthCallback& callback) {
    if (!initialized || !running || !provider() || refusedUnderLock("authenticateAsync")) {
        return {};
    }
    std::string requestId;
    {
        std::lock_guard<std::mutex> lock(queueMutex);
        // Checked again under the lock: reset drains the queue under it, so nothing accepted after
        // the drain could be left without its callback.
        if (!running || requestQueue.size() >= kRequestQueueLimit) {
            return {};
        }
        AsyncAuthRequest entry;
        entry.request = request;
        entry.callback = callback;
        entry.requestId = generateRequestId();
        entry.enqueueTime = getUptimeSeconds();
        requestId = entry.requestId;
        requestQueue.push_back(std::move(entry));
    }
    sem_post(&queueSemaphore);
    return requestId;
}

void AuthEngine::enqueueResume(const std::string& requestId) {
    {
        std::lock_guard<std::mutex> lock(queueMutex);
        resumeQueue.push_back(requestId);
    }
    if (semaphoreReady) {
        sem_post(&queueSemaphore);
    }
}

void* AuthEngine::asyncThreadFunc(void* arg) {
    auto* const self = static_cast<AuthEngine*>(arg);
    workerEngineOfThread = self;
    guardHostCall("reloadConfig", [&] { self->reloadConfig(); });
    while (self->running) {
        // Posted, timed out or interrupted: every outcome starts a pass.
        waitForWork(self->queueSemaphore);
        if (!self->running) {
            break;
        }
        // One item per wake-up; each item had its own post, so nothing is lost. Resumes go first
        // so that answered requests are not starved by new submissions.
        bool haveResume = false;
        std::string resumeId;
        AsyncAuthRequest entry;
        {
            std::lock_guard<std::mutex> lock(self->queueMutex);
            self->workerBusy = true;
            ++self->passesStarted;
            if (!self->resumeQueue.empty()) {
                resumeId = std::move(self->resumeQueue.front());
                self->resumeQueue.pop_front();
                haveResume = true;
            } else if (!self->requestQueue.empty()) {
                entry = std::move(self->requestQueue.front());
                self->requestQueue.pop_front();
            }
        }
        if (haveResume) {
            guardHostCall("resumeAuthentication", [&] { self->resumeAuthentication(resumeId); });
        } else if (!entry.requestId.empty()) {
            guardHostCall("authenticate", [&] {
                self->authenticate(entry.request, entry.callback, entry.requestId);
            });
        }
        guardHostCall("checkAllPendingTimeouts", [&] { self->checkAllPendingTimeouts(); });
        {
            std::lock_guard<std::mutex> lock(self->queueMutex);
            self->workerBusy = false;
            ++self->passesCompleted;
        }
        self->idleChanged.notify_all();
    }
    if (self->shutdownOnWorker) {
        // The reset was asked from host code this worker ran: it empties the engine itself, and
        // is joined by whoever next starts, resets or destroys the engine.
        guardHostCall("reset", [&] { self->tearDown(); });
    }
    {
        std::lock_guard<std::mutex> lock(self->queueMutex);
        self->workerBusy = false;
    }
    self->idleChanged.notify_all();
    // The last thing the worker touches: releasing its hold may free the engine.
    const std::shared_ptr<AuthEngine> hold = std::move(self->workerHold);
    return nullptr;
}

// ---- parked chains and sub-requests ----

AuthEngine::AsyncContext AuthEngine::makeAsyncContext(const AuthContext& context,
                                                      AsyncRequestType type,
                                                      AuthCallback callback) {
    AsyncContext parked;
    parked.context = context;
    parked.type = type;
    parked.createTime = AuthClock::now();
    parked.callback = std::move(callback);
    parked.timeoutSeconds = 30;
    if (provider()) {
        const AuthConfig config = fetchConfig();
        if (type == ASYNC_TYPE_ANTI_PASSBACK) {
            parked.timeoutSeconds = config.antiPassbackTimeout;
        } else if (type == ASYNC_TYPE_PARKING) {
            parked.timeoutSeconds = config.parkingTimeout;
        } else if (context.request.openType == OPEN_TYPE_TEMP_KEY) {
            parked.timeoutSeconds = config.tempKeyTimeout;
        }
    }
    return parked;
}

void AuthEngine::saveAsyncContext(const std::string& requestId, const AuthContext& context,
                                  AsyncRequestType type, AuthCallback callback) {
    AsyncContext parked = makeAsyncContext(context, type, std::move(callback));
    std::lock_guard<std::mutex> lock(queueMutex);
    asyncContexts[requestId] = std::move(parked);
    // A parked chain waits for an answer under its id.
    if (!requestId.empty() && underConstruction.count(requestId) == 0) {
        ownQuestions.insert(requestId);
    }
}

void AuthEngine::registerSubRequest(const std::string& subRequestId,
                                    const std::string& parentRequestId) {
    std::lock_guard<std::mutex> lock(queueMutex);
    // A question belongs to a request or phase that is being built or is parked; one registered
    // for anything else could never be released.
    const bool perRelay =
        relayQuestionOf(subRequestId, parentRequestId).kind != RelayQuestion::NONE;
    if (!perRelay || !isLiveOwnerLocked(parentRequestId)) {
        return;
    }
    const RegistrationScope* const scope = registrationScope;
    if (scope != nullptr && scope->engine == this && scope->owner == parentRequestId) {
        const auto phase = independentContexts.find(parentRequestId);
        if (phase == independentContexts.end() || phase->second.generation != scope->generation) {
            return;  // the phase the retry asks for has ended (or another took its id)
        }
    }
    subRequests[subRequestId] = parentRequestId;
}

void AuthEngine::unregisterSubRequests(const std::string& parentRequestId) {
    for (auto it = subRequests.begin(); it != subRequests.end();) {
        if (it->second == parentRequestId) {
            it = subRequests.erase(it);
        } else {
            ++it;
        }
    }
}

// ---- answers ----

AuthCallback AuthEngine::makeAnswerCallback(const std::string& routedId) {
    std::shared_ptr<Gate> current;
    {
        std::lock_guard<std::mutex> lock(chainMutex);
        current = gate;
    }
    {
        // Handing the host a callback for an id asks a question under it (a per-relay question was
        // registered before): its first answer counts.
        std::lock_guard<std::mutex> lock(queueMutex);
        if (subRequests.count(routedId) == 0 && isLiveOwnerLocked(routedId)) {
            ownQuestions.insert(routedId);
        }
    }
    return [current, routedId](const std::string& calledId, const AuthResponse& response,
                               const AuthContext& context) {
        if (!current) {
            return;
        }
        std::shared_lock<std::shared_mutex> lock(current->mutex);
        if (current->engine == nullptr) {
            return;  // the engine was reset: a late answer is dropped
        }
        AuthEngine* const engine = current->engine;
        guardHostCall("handleAsyncResponse", [&] {
            engine->handleAsyncResponse(routedId.empty() ? calledId : routedId, response.result,
                                        response, context);
        });
    };
}

void AuthEngine::handleAsyncResponse(const std::string& requestId, AuthResult result,
                                     const AuthResponse& response,
                                     const AuthContext& contextUpdate) {
    if (requestId.empty() || refusedUnderLock("handleAsyncResponse")) {
        return;
    }
    std::string ready;
    {
        std::lock_guard<std::mutex> lock(queueMutex);
        ready = applyAnswerLocked(requestId, result, response, contextUpdate);
    }
    if (!ready.empty()) {
        enqueueResume(ready);
    }
}

std::string AuthEngine::applyAnswerLocked(const std::string& requestId, AuthResult result,
                                          const AuthResponse& response,
                                          const AuthContext& contextUpdate) {
    // Only a question the engine asked is answered, and only once: the first answer closes it.
    std::string owner;
    const auto sub = subRequests.find(requestId);
    if (sub != subRequests.end()) {
        owner = sub->second;
        subRequests.erase(sub);
    } else if (!requestId.empty() && ownQuestions.erase(requestId) != 0) {
        owner = requestId;
    } else {
        ++droppedAnswers;
        return {};
    }
    EarlyAnswer answer{requestId, owner, result, response, contextUpdate};
    // An answer that overtakes the store of its request or phase waits until the state exists.
    const auto building = underConstruction.find(owner);
    if (building != underConstruction.end()) {
        building->second.push_back(std::move(answer));
        return {};
    }
    return deliverLocked(answer);
}

std::string AuthEngine::deliverLocked(const EarlyAnswer& answer) {
    const auto phase = independentContexts.find(answer.owner);
    const auto chain = asyncContexts.find(answer.owner);
    AuthContext* const context = phase != independentContexts.end() ? &phase->second.context
                                 : chain != asyncContexts.end()     ? &chain->second.context
                                                                    : nullptr;
    if (context == nullptr) {
        ++droppedAnswers;  // its owner ended while the answer travelled
        return {};
    }
    mergeUpdate(*context, answer.contextUpdate);
    if (answer.id == answer.owner) {
        applyResponse(context->response, answer.result, answer.response);
        return answer.owner;
    }
    // A per-relay question (registration checked its form). Only the answer that brings the
    // count to zero resumes.
    const RelayQuestion question = relayQuestionOf(answer.id, answer.owner);
    const std::string& relay = question.relay;
    if (question.kind == RelayQuestion::ANTI_PASSBACK) {
        keepFirstRemoteFailCode(*context, answer.response);
        const bool counted = recordRelayAnswer(context->antiPassbackResults,
                                               context->antiPassbackPending, relay, answer.result);
        return counted && context->antiPassbackPending == 0 ? answer.owner : std::string();
    }
    const bool counted = recordRelayAnswer(context->interlockResults, context->interlockPending,
                                           relay, answer.result);
    return counted && context->interlockPending == 0 ? answer.owner : std::string();
}

// ---- questions and ids under construction ----

bool AuthEngine::isLiveOwnerLocked(const std::string& id) const {
    return !id.empty() && (underConstruction.count(id) != 0 || asyncContexts.count(id) != 0 ||
                           independentContexts.count(id) != 0);
}

void AuthEngine::forgetQuestionsLocked(const std::string& owner) {
    unregisterSubRequests(owner);
    ownQuestions.erase(owner);
    const auto building = underConstruction.find(owner);
    if (building != underConstruction.end()) {
        droppedAnswers += building->second.size();
        building->second.clear();
    }
}

void AuthEngine::beginConstructionLocked(const std::string& id, bool askedUnderOwnId) {
    if (id.empty()) {
        return;
    }
    underConstruction.emplace(id, std::vector<EarlyAnswer>());
    if (askedUnderOwnId) {
        ownQuestions.insert(id);
    }
}

std::vector<std::string> AuthEngine::finishConstructionLocked(const std::string& id) {
    std::vector<std::string> ready;
    const auto found = underConstruction.find(id);
    if (found == underConstruction.end()) {
        return ready;
    }
    const std::vector<EarlyAnswer> answers = std::move(found->second);
    underConstruction.erase(found);
    for (const auto& answer : answers) {
        const std::string resumeId = deliverLocked(answer);
        if (!resumeId.empty() && std::find(ready.begin(), ready.end(), resumeId) == ready.end()) {
            ready.push_back(resumeId);
        }
    }
    return ready;
}

void AuthEngine::abandonConstructionLocked(const std::string& id) {
    forgetQuestionsLocked(id);
    underConstruction.erase(id);
}

// ---- resume ----

void AuthEngine::resumeAuthentication(const std::string& requestId) {
    if (refusedUnderLock("resumeAuthentication")) {
        return;
    }
    const Inside inside(*this);
    AsyncContext parked;
    {
        std::unique_lock<std::mutex> lock(queueMutex);
        if (independentContexts.count(requestId) != 0) {
            lock.unlock();
            resumeIndependentAsync(requestId);
            return;
        }
        const auto found = asyncContexts.find(requestId);
        if (found == asyncContexts.end()) {
            return;  // duplicate or late resume
        }
        parked = std::move(found->second);
        asyncContexts.erase(found);
        // Questions of the run that parked are settled now; the rerun asks afresh.
        forgetQuestionsLocked(requestId);
        beginConstructionLocked(requestId, true);
    }
    AuthContext& context = parked.context;
    const AuthCallback& callback = parked.callback;
    const auto endConstruction = [&] {
        std::lock_guard<std::mutex> lock(queueMutex);
        abandonConstructionLocked(requestId);
    };

    const AuthResult stored = context.response.result;
    if (stored == DROPPED || stored == IGNORED) {
        endConstruction();
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
        guardHostCall("getName", [&] { name = walk[i]->getName(); });
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

    if (result == ASYNC_PENDING) {
        context.response.result = ASYNC_PENDING;
        AsyncContext again = makeAsyncContext(context, ASYNC_TYPE_SYNC, callback);
        std::vector<std::string> ready;
        {
            std::lock_guard<std::mutex> lock(queueMutex);
            asyncContexts[requestId] = std::move(again);
            ready = finishConstructionLocked(requestId);
        }
        for (const auto& id : ready) {
            enqueueResume(id);
        }
        return;
    }

    context.response.result = result;
    endConstruction();
    if (result == DROPPED || result == IGNORED) {
        return;
    }
    if (context.pendingProcessor == chain::TEMP_KEY && result != DOUBLE_AUTH_PENDING) {
        guardHostCall("processPostSyncPhase", [&] { processPostSyncPhase(context, callback); });
        return;
    }
    if (result == SUCCESS) {
        guardHostCall("buildAuthTargets", [&] { buildAuthTargets(context); });
    } else {
        context.response.targets.clear();
        if (result == FAILED) {
            context.response.openedRelays.clear();
        }
    }
    reportToHost(context, callback);
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
    guardHostCall("checkTimeoutForChainRequests", [&] { checkTimeoutForChainRequests(); });
    guardHostCall("checkTimeoutForIndependentRequests",
                  [&] { checkTimeoutForIndependentRequests(); });
}

void AuthEngine::checkTimeoutForChainRequests() {
    // Parked chains are timed on the wall clock, as saveAsyncContext stamps them.
    const int64_t now = AuthClock::now();
    const std::shared_ptr<IDataProvider> host = provider();
    std::lock_guard<std::mutex> lock(queueMutex);
    for (auto it = asyncContexts.begin(); it != asyncContexts.end();) {
        const std::string id = it->first;
        AsyncContext& parked = it->second;
        const int64_t elapsed = now - parked.createTime;
        if (underConstruction.count(id) != 0 ||
            elapsed <= static_cast<int64_t>(parked.timeoutSeconds)) {
            ++it;
            continue;
        }
        AuthContext& context = parked.context;
        for (auto& entry : context.antiPassbackResults) {
            if (!entry.second.answered) {
                entry.second.status = FAILED;
                entry.second.answered = true;
            }
        }
        context.response.result = FAILED;
        context.response.failCode = context.request.openType == OPEN_TYPE_TEMP_KEY ? 24 : 0;
        context.response.reason = "Async request timeout";
        context.response.openedRelays.clear();
        context.response.targets.clear();
        // Called under the lock by design; a call back in that would lock again is refused.
        const CallbacksUnderLock underLock(*this);
        if (host) {
            guardHostCall("onAuthResult",
                          [&] { host->onAuthResult(context, context.response.result); });
        }
        if (parked.callback) {
            guardHostCall("callback",
                          [&] { parked.callback(context.requestId, context.response, context); });
        }
        forgetQuestionsLocked(id);
        it = asyncContexts.erase(it);
    }
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
                guardHostCall("callback", [&] {
                    entry.callback(entry.requestId, shutdownResponse(), AuthContext());
                });
            }
        }
        chains = std::move(asyncContexts);
        asyncContexts.clear();
        phases = std::move(independentContexts);
        independentContexts.clear();
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
            guardHostCall("callback", [&] {
                phase.callback(phase.context.requestId, shutdownResponse(), AuthContext());
            });
        }
    }

    std::lock_guard<std::mutex> lock(chainMutex);
    dataProvider.reset();
}

}  // namespace auth_engine
