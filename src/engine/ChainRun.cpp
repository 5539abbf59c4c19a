// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// The synchronous run: one attempt through the chain (authenticate), the chain runner every resume
// uses too, and the provider and configuration a decision reads.
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "auth_engine/AuthClock.h"
#include "auth_engine/AuthLogger.h"
#include "auth_engine/FailCodes.h"
#include "common/DecisionLocalTime.h"
#include "common/ProcessorSupport.h"
#include "engine/AuthEngine.h"
#include "engine/HostCall.h"
#include "engine/WorkerThread.h"

namespace auth_engine {

namespace {

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

}  // namespace

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
                parked.park(requestId, std::move(early));
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

    endChainRun(requestId, context, callback, result, false);
    // The context ends here: its response is handed out rather than copied.
    return std::move(context.response);
}

AuthEngine::ChainEnd AuthEngine::chainEndOf(AuthResult result, const AuthContext& context,
                                            bool resumed) {
    switch (result) {
        case ASYNC_PENDING:
            return ChainEnd::PARK;
        case DROPPED:
            return ChainEnd::STOP;
        case IGNORED:
            // Only the caller of an attempt hears that it was ignored; a resumed one ends quietly.
            return resumed ? ChainEnd::STOP : ChainEnd::TELL_CALLER;
        case DOUBLE_AUTH_PENDING:
            return ChainEnd::REPORT;
        default:
            // A resumed chain was decided by the host's answer and is reported as it stands,
            // except a temporary key's: the answer only named the user, whose relays still go
            // through the relay phase.
            return !resumed || context.pendingProcessor == chain::TEMP_KEY ? ChainEnd::RELAY_PHASE
                                                                           : ChainEnd::REPORT;
    }
}

void AuthEngine::endChainRun(const std::string& requestId, AuthContext& context,
                             const AuthCallback& callback, AuthResult result, bool resumed) {
    const ChainEnd end = chainEndOf(result, context, resumed);
    if (end == ChainEnd::PARK) {
        context.response.result = ASYNC_PENDING;
        if (requestId.empty()) {
            return;  // nothing could route an answer to it
        }
        AsyncContext chain = makeAsyncContext(context, ASYNC_TYPE_SYNC, callback);
        std::vector<std::string> ready;
        {
            std::lock_guard<std::mutex> lock(queueMutex);
            if (running) {
                parked.park(requestId, std::move(chain));
                ready = finishConstructionLocked(requestId);
            } else {
                // A reset ran while the chain did: it drops parked chains silently, and this
                // one, parked after its sweep, must not outlive it either.
                parked.dropChain(requestId);
                abandonConstructionLocked(requestId);
            }
        }
        for (const auto& id : ready) {
            enqueueResume(id);
        }
        return;
    }
    context.response.result = result;
    // The run is over: its id no longer names a live request, and answers held for it go.
    if (!requestId.empty()) {
        std::lock_guard<std::mutex> lock(queueMutex);
        parked.dropChain(requestId);
        abandonConstructionLocked(requestId);
    }
    switch (end) {
        case ChainEnd::TELL_CALLER:
            callBack(callback, context);
            return;
        case ChainEnd::REPORT:
            if (!resumed) {
                AuthLogger::info("AuthEngine::authenticate: requestId=%s, result=%s",
                                 requestId.c_str(), AuthLogger::authResultToString(result));
            } else if (result == SUCCESS) {
                callHost("buildAuthTargets", [&] { buildAuthTargets(context); });
            } else {
                context.response.targets.clear();
                if (result == FAILED) {
                    context.response.openedRelays.clear();
                }
            }
            reportToHost(provider().get(), context, callback);
            return;
        case ChainEnd::RELAY_PHASE:
            if (!resumed) {
                AuthLogger::info("AuthEngine::authenticate: requestId=%s, result=%d",
                                 requestId.c_str(), static_cast<int>(result));
            }
            callHost("processPostSyncPhase", [&] { processPostSyncPhase(context, callback); });
            return;
        default:
            return;
    }
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

}  // namespace auth_engine
