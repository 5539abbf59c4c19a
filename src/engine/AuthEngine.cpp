// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// AuthEngine set-up, processor registry and chain, the synchronous run and the small helpers shared
// by every path (host-call guard, reporting, inspection).
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
#include "processors/AntiPassbackProcessor.h"
#include "processors/BleIntervalProcessor.h"
#include "processors/DoubleAuthProcessor.h"
#include "processors/DtmfProcessor.h"
#include "processors/HolidayCheckProcessor.h"
#include "processors/HttpProcessor.h"
#include "processors/InputProcessor.h"
#include "processors/InterlockProcessor.h"
#include "processors/LockDownProcessor.h"
#include "processors/ParkingRestrictionProcessor.h"
#include "processors/RemoteControlProcessor.h"
#include "processors/TempKeyProcessor.h"
#include "processors/TimeCheckProcessor.h"
#include "processors/UnlockTypeProcessor.h"
#include "processors/UserLookupProcessor.h"
#include "processors/VirtualDoorProcessor.h"

namespace auth_engine {

namespace {

// The fixed default order: credential processors first, so that a DTMF, remote-control,
// temporary-key, HTTP or input open resolves its user before the generic lookup; policies follow.
// The three per-relay checks are registered but run only in the independent relay phase.
const std::vector<std::string>& defaultChain() {
    static const std::vector<std::string> names = {
        chain::DTMF,       chain::REMOTE_CONTROL, chain::TEMP_KEY,      chain::HTTP,
        chain::INPUT,      chain::USER_LOOKUP,    chain::DOUBLE_AUTH,   chain::VIRTUAL_DOOR,
        chain::TIME_CHECK, chain::BLE_INTERVAL,   chain::HOLIDAY_CHECK, chain::UNLOCK_TYPE,
        chain::LOCK_DOWN};
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

// The chain runner: runs `list` from position `first` until a result other than CONTINUE (all
// CONTINUE is SUCCESS), and records the processor that returned ASYNC_PENDING. A throw from a
// processor ends the request FAILED, fail code 0, "Internal error".
AuthResult runList(IDataProvider& host, const std::vector<std::shared_ptr<IAuthProcessor>>& list,
                   std::size_t first, AuthContext& context) {
    AuthResult result = CONTINUE;
    for (std::size_t i = first; i < list.size() && result == CONTINUE; ++i) {
        const auto& processor = list[i];
        const bool completed = callHost("processor", [&] {
            result = processor->process(context, host);
            if (result == ASYNC_PENDING) {
                context.pendingProcessor = processor->getName();
            }
        });
        if (!completed) {
            // A processor throws only when the host's code it called did; the request ends here and
            // is reported once by the caller's normal path.
            context.response.failCode = 0;
            context.response.reason = reasons::INTERNAL_ERROR;
            return FAILED;
        }
    }
    return result == CONTINUE ? SUCCESS : result;
}

// The provider a decision on this thread already holds, for the steps of that decision (post-sync
// split, reports, parking), so that they do not take the chain lock again for it. Set by
// authenticate for its duration; nested decisions restore the outer one.
struct HeldProvider {
    const AuthEngine* engine = nullptr;
    const std::shared_ptr<IDataProvider>* host = nullptr;
};
thread_local HeldProvider heldProvider;

// Also marks the thread as running a decision, so that its local time is converted once.
class HoldProvider {
public:
    HoldProvider(const AuthEngine* engine, const std::shared_ptr<IDataProvider>* host)
        : previous(heldProvider), previousLocalTime(beginDecisionLocalTime()) {
        heldProvider = HeldProvider{engine, host};
    }
    ~HoldProvider() {
        heldProvider = previous;
        endDecisionLocalTime(previousLocalTime);
    }
    HoldProvider(const HoldProvider&) = delete;
    HoldProvider& operator=(const HoldProvider&) = delete;

private:
    const HeldProvider previous;
    const DecisionLocalTimeState previousLocalTime;
};

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
    : questions(*this),
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
    std::vector<std::shared_ptr<IAuthProcessor>> created = {
        std::make_shared<processors::UserLookupProcessor>(),
        std::make_shared<processors::DtmfProcessor>(),
        std::make_shared<processors::RemoteControlProcessor>(),
        std::make_shared<processors::TempKeyProcessor>(),
        std::make_shared<processors::HttpProcessor>(),
        std::make_shared<processors::InputProcessor>(),
        std::make_shared<processors::DoubleAuthProcessor>(),
        std::make_shared<processors::TimeCheckProcessor>(),
        std::make_shared<processors::BleIntervalProcessor>(),
        std::make_shared<processors::VirtualDoorProcessor>(),
        std::make_shared<processors::HolidayCheckProcessor>(),
        std::make_shared<processors::UnlockTypeProcessor>(),
        std::make_shared<processors::LockDownProcessor>(),
        std::make_shared<processors::AntiPassbackProcessor>(),
        std::make_shared<processors::InterlockProcessor>(),
        std::make_shared<processors::ParkingRestrictionProcessor>(),
    };
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

AuthResponse AuthEngine::authenticate(const AuthRequest& request, const AuthCallback& callback,
                                      const std::string& requestId) {
    // The chain and the provider it runs against, taken together under one lock. A decision nested
    // in another one on this thread reports to the provider the outer one holds, as provider()
    // gives it.
    const ChainSnapshot chain = chainSnapshot();
    // A reference, not a copy: the snapshot lives as long as this call, and so does the outer
    // decision that holds its own provider.
    const std::shared_ptr<IDataProvider>& host =
        heldProvider.engine == this ? *heldProvider.host : chain.host;
    // The worker decides a submission it has taken even when a reset has begun meanwhile (the reset
    // waits for it): the submission was accepted, so its caller must hear back. Processors and
    // provider stay until the worker is joined.
    const bool fromWorker = workerEngineOfThread == this;
    if ((!initialized && !fromWorker) || !host) {
        return failedResponse(reasons::ENGINE_NOT_INITIALIZED);
    }
    if (refusedUnderLock("authenticate")) {
        return failedResponse(reasons::REFUSED_UNDER_LOCK);
    }
    const Inside inside(*this);
    const HoldProvider holding(this, &host);

    AuthContext context;
    context.request = request;
    context.response.result = FAILED;
    context.response.failCode = 0;
    context.requestId = requestId;
    context.authTargets = request.targets;

    if (!requestId.empty()) {
        // Visible by id while the chain runs; answers that arrive meanwhile wait for the park.
        AsyncContext early = makeAsyncContext(context, ASYNC_TYPE_SYNC, callback);
        bool inUse = false;
        {
            std::lock_guard<std::mutex> lock(queueMutex);
            // A caller's id that still names a request, a phase or a question would let the
            // answers of one decide the other.
            inUse = isLiveOwnerLocked(requestId) || subRequests.count(requestId) != 0 ||
                    ownQuestions.count(requestId) != 0;
            if (!inUse) {
                asyncContexts[requestId] = std::move(early);
                beginConstructionLocked(requestId, true);
            }
        }
        if (inUse) {
            AuthLogger::error("[AuthEngine:%d] requestId=%s is already in use, refused", __LINE__,
                              requestId.c_str());
            context.response.reason = reasons::REQUEST_ID_IN_USE;
            reportToHost(provider().get(), context, callback);
            return context.response;
        }
    }

    // A locked-out reader is refused before anything is looked up for the attempt.
    const AuthResult result = guessGuard.refusesNow(request.readerType)
                                  ? GuessGuard::refuse(context)
                                  : runSnapshot(chain, context);
    if (context.response.duress) {
        // Before any report of the attempt, so that the host's alarm runs even if that is lost.
        callHost("onDuress", [&] { host->onDuress(context); });
    }

    // Reader default relays (informational): direction 2 is deliberately preferred over 1.
    if (context.readerRelays.empty()) {
        // Asked of the provider this call already holds (as fetchConfig does, a throw gives the
        // default configuration).
        AuthConfig config;
        callHost("getAuthConfig", [&] { config = host->getAuthConfig(); });
        if (config.virtualDoorEnabled) {
            const auto reader = config.readerRelayMap.find(context.request.readerType);
            if (reader != config.readerRelayMap.end() && !reader->second.empty()) {
                const auto out = reader->second.find(RELAY_DIRECTION_OUT);
                const auto in = reader->second.find(RELAY_DIRECTION_IN);
                if (out != reader->second.end() && !out->second.empty()) {
                    context.readerRelays = out->second;
                    context.readerDirection = RELAY_DIRECTION_OUT;
                } else if (in != reader->second.end() && !in->second.empty()) {
                    context.readerRelays = in->second;
                    context.readerDirection = RELAY_DIRECTION_IN;
                }
            }
        }
    }

    const auto release = [&] {
        if (requestId.empty()) {
            return;
        }
        std::lock_guard<std::mutex> lock(queueMutex);
        asyncContexts.erase(requestId);
        abandonConstructionLocked(requestId);
    };

    switch (result) {
        case ASYNC_PENDING: {
            context.response.result = ASYNC_PENDING;
            if (!requestId.empty()) {
                AsyncContext parked = makeAsyncContext(context, ASYNC_TYPE_SYNC, callback);
                std::vector<std::string> ready;
                {
                    std::lock_guard<std::mutex> lock(queueMutex);
                    if (running) {
                        asyncContexts[requestId] = std::move(parked);
                        ready = finishConstructionLocked(requestId);
                    } else {
                        // A reset ran while the chain did: it drops parked chains silently, and
                        // this one, parked after its sweep, must not outlive it either.
                        asyncContexts.erase(requestId);
                        abandonConstructionLocked(requestId);
                    }
                }
                for (const auto& id : ready) {
                    enqueueResume(id);
                }
            }
            return context.response;
        }
        case DROPPED:
            context.response.result = DROPPED;
            release();
            return context.response;
        case IGNORED:
            context.response.result = IGNORED;
            if (callback) {
                callHost("callback", [&] { callback(requestId, context.response, context); });
            }
            release();
            return context.response;
        case DOUBLE_AUTH_PENDING:
            context.response.result = DOUBLE_AUTH_PENDING;
            AuthLogger::info("AuthEngine::authenticate: requestId=%s, result=%s", requestId.c_str(),
                             AuthLogger::authResultToString(DOUBLE_AUTH_PENDING));
            reportToHost(provider().get(), context, callback);
            release();
            return context.response;
        default:
            break;
    }

    release();
    context.response.result = result;
    AuthLogger::info("AuthEngine::authenticate: requestId=%s, result=%d", requestId.c_str(),
                     static_cast<int>(result));
    callHost("processPostSyncPhase", [&] { processPostSyncPhase(context, callback); });
    // The context ends here: its response is handed out rather than copied.
    return std::move(context.response);
}

AuthResult AuthEngine::executeProcessorChain(AuthContext& context) {
    return runSnapshot(chainSnapshot(), context);
}

std::string AuthEngine::generateRequestId() {
    const uint32_t number = requestCounter->fetch_add(1);
    return "req_" + std::to_string(number) + "_" + std::to_string(AuthClock::now());
}

int64_t AuthEngine::getUptimeSeconds() {
    return AuthClock::uptime();
}

// ---- chain walks ----

AuthEngine::ChainSnapshot AuthEngine::chainSnapshot() {
    ChainSnapshot snapshot;
    std::lock_guard<std::mutex> lock(chainMutex);
    snapshot.walk = chainWalk;
    snapshot.host = dataProvider;
    return snapshot;
}

AuthResult AuthEngine::runSnapshot(const ChainSnapshot& snapshot, AuthContext& context) {
    if (!snapshot.walk || snapshot.walk->empty()) {
        context.response.failCode = 0;
        context.response.reason = reasons::NO_CHAIN;
        return FAILED;
    }
    if (!snapshot.host) {
        context.response.failCode = 0;
        context.response.reason = reasons::ENGINE_NOT_INITIALIZED;
        return FAILED;
    }
    return runList(*snapshot.host, *snapshot.walk, 0, context);
}

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

AuthResult AuthEngine::runProcessors(const std::vector<std::shared_ptr<IAuthProcessor>>& list,
                                     std::size_t first, AuthContext& context) {
    const std::shared_ptr<IDataProvider> host = provider();
    if (!host) {
        context.response.failCode = 0;
        context.response.reason = reasons::ENGINE_NOT_INITIALIZED;
        return FAILED;
    }
    return runList(*host, list, first, context);
}

std::shared_ptr<IDataProvider> AuthEngine::provider() {
    if (heldProvider.engine == this) {
        return *heldProvider.host;
    }
    std::lock_guard<std::mutex> lock(chainMutex);
    return dataProvider;
}

AuthConfig AuthEngine::fetchConfig() {
    const std::shared_ptr<IDataProvider> host = provider();
    AuthConfig config;
    if (host) {
        callHost("getAuthConfig", [&] { config = host->getAuthConfig(); });
    }
    return config;
}

std::shared_ptr<const AuthConfig> AuthEngine::readConfig() {
    const std::shared_ptr<IDataProvider> host = provider();
    if (!host) {
        return std::make_shared<const AuthConfig>();
    }
    std::shared_ptr<const AuthConfig> config;
    callHost("getAuthConfig",
             [&] { config = std::make_shared<const AuthConfig>(host->getAuthConfig()); });
    return config;
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
    return asyncContexts.size();
}

std::size_t AuthEngine::parkedPhaseCount() {
    if (refusedUnderLock("parkedPhaseCount")) {
        return 0;
    }
    std::lock_guard<std::mutex> lock(queueMutex);
    return independentContexts.size();
}

bool AuthEngine::peekParkedChain(const std::string& requestId, AsyncContext& out) {
    if (refusedUnderLock("peekParkedChain")) {
        return false;
    }
    std::lock_guard<std::mutex> lock(queueMutex);
    const auto found = asyncContexts.find(requestId);
    if (found == asyncContexts.end()) {
        return false;
    }
    out = found->second;
    return true;
}

bool AuthEngine::peekParkedPhase(const std::string& phaseId, IndependentAsyncContext& out) {
    if (refusedUnderLock("peekParkedPhase")) {
        return false;
    }
    std::lock_guard<std::mutex> lock(queueMutex);
    const auto found = independentContexts.find(phaseId);
    if (found == independentContexts.end()) {
        return false;
    }
    out = found->second;
    return true;
}

}  // namespace auth_engine
