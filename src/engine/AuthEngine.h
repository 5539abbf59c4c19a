// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// AuthEngine: the processor registry and chain, the synchronous run, the worker thread, parked
// chains and their resume, the independent relay phase, timeouts and reset. Private to the library;
// tests and tools include it from src/.
#pragma once

#include <semaphore.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <shared_mutex>
#include <string>
#include <vector>

#include "auth_engine/AuthTypes.h"
#include "auth_engine/IAuthProcessor.h"
#include "auth_engine/IDataProvider.h"

namespace auth_engine {

/// One queued submission of authenticateAsync.
struct AsyncAuthRequest {
    AuthRequest request;
    AuthCallback callback;
    std::string requestId;    ///< empty marks "no request"
    int64_t enqueueTime = 0;  ///< uptime seconds when queued
};

class AuthEngine {
public:
    /// A parked chain, waiting for a host answer (wall-clock timed).
    struct AsyncContext {
        AuthContext context;
        AsyncRequestType type = ASYNC_TYPE_SYNC;
        int64_t createTime = 0;
        int32_t timeoutSeconds = 30;
        AuthCallback callback;
    };

    /// A parked independent relay phase (uptime timed).
    struct IndependentAsyncContext {
        AuthContext context;
        std::string phase;  ///< "antipassback", "interlock", "parking" or "unlock_options"
        AuthCallback callback;
        uint64_t startTime = 0;
        int32_t timeoutSeconds = 30;
        std::string parentRequestId;
        std::map<std::string, std::vector<int>>
            relayChecks;  ///< relay -> checks still needed (0, 1, 2)
        std::vector<std::string> interlockRelays;
        std::vector<std::string> parkingRelays;
        std::vector<std::string> apAndParkingRelays;
        std::vector<std::string> parkingOnlyRelays;
        int32_t pendingPhaseCount = 0;  ///< the interlock retry counter
        int32_t notifyHost = 1;
    };

    AuthEngine();
    ~AuthEngine();
    AuthEngine(const AuthEngine&) = delete;
    AuthEngine& operator=(const AuthEngine&) = delete;

    // ---- set-up and chain (AuthEngine.cpp) ----
    int init(std::shared_ptr<IDataProvider> provider);
    void createProcessors();
    void buildProcessorChain();
    void setProcessorChain(const std::vector<std::string>& names);
    void registerProcessor(std::shared_ptr<IAuthProcessor> processor);
    void reloadConfig();
    bool isReady() const;

    // ---- synchronous run (AuthEngine.cpp) ----
    AuthResponse authenticate(const AuthRequest& request, const AuthCallback& callback,
                              const std::string& requestId);
    AuthResult executeProcessorChain(AuthContext& context);
    std::string generateRequestId();
    int64_t getUptimeSeconds();

    // ---- worker, answers, resume (AuthEngineAsync.cpp) ----
    std::string authenticateAsync(const AuthRequest& request, const AuthCallback& callback);
    void enqueueResume(const std::string& requestId);
    static void* asyncThreadFunc(void* engine);
    void saveAsyncContext(const std::string& requestId, const AuthContext& context,
                          AsyncRequestType type, AuthCallback callback);
    void registerSubRequest(const std::string& subRequestId, const std::string& parentRequestId);
    /// Caller holds queueMutex.
    void unregisterSubRequests(const std::string& parentRequestId);
    void handleAsyncResponse(const std::string& requestId, AuthResult result,
                             const AuthResponse& response, const AuthContext& contextUpdate);
    void resumeAuthentication(const std::string& requestId);

    // ---- timeouts and reset (AuthEngineAsync.cpp; the independent sweep in
    // AuthEngineIndependent.cpp) ----
    void checkTimeoutRequests();
    void checkAllPendingTimeouts();
    void checkTimeoutForChainRequests();
    void checkTimeoutForIndependentRequests();
    void reset();

    // ---- double authentication control and interlock verification ----
    AuthResponse handleDoubleAuthTimeout(const std::string& pendingId);
    AuthResponse cancelDoubleAuth(const std::string& pendingId, const std::string& reasonText);
    std::string verifyInterlockTargets(const AuthRequest& request,
                                       const std::vector<AuthTarget>& targets,
                                       const AuthCallback& callback);

    // ---- independent relay phase (AuthEngineIndependent.cpp) ----
    void processPostSyncPhase(AuthContext& context, const AuthCallback& callback);
    void buildAuthTargets(AuthContext& context);
    void buildAuthTargetsForRelays(AuthContext& context, const std::vector<std::string>& relays,
                                   bool includeUserTarget);
    void notifyIndependentPhase(AuthContext& context, const AuthCallback& callback,
                                const std::string& phase, const std::vector<std::string>& opened,
                                const std::vector<std::string>& failed, int failCode,
                                bool notifyProvider);
    void launchInterlockPhase(const AuthContext& context, const AuthCallback& callback,
                              const std::map<std::string, std::vector<int>>& relayChecks,
                              const std::string& parentRequestId,
                              const std::vector<std::string>& relays, bool notifyProvider);
    void launchParkingPhase(const AuthContext& context, const AuthCallback& callback,
                            const std::map<std::string, std::vector<int>>& relayChecks,
                            const std::string& parentRequestId,
                            const std::vector<std::string>& relays);
    void resumeIndependentAsync(const std::string& requestId);

    // ---- inspection for tests and tools (read-only, take the lock; safe at any time) ----
    std::shared_ptr<IAuthProcessor> getProcessor(const std::string& name);
    /// Names met walking from the head, stopping at a processor already visited.
    std::vector<std::string> chainNames();
    std::size_t parkedChainCount();
    std::size_t parkedPhaseCount();
    std::size_t subRequestCount();
    bool peekParkedChain(const std::string& requestId, AsyncContext& out);
    bool peekParkedPhase(const std::string& phaseId, IndependentAsyncContext& out);
    std::string subRequestParent(const std::string& subRequestId);
    /// True once both queues are empty and the worker waits after a whole pass (or no worker runs).
    bool waitForIdle(int timeoutMs);
    /// Wakes the worker for one more pass (its timeout sweep reads the clocks as they are now) and
    /// waits until that pass is complete with both queues empty. True at once when no worker runs;
    /// false on timeout, and at once (with an error log line) on the worker's own thread, where
    /// waiting for the worker could never end.
    bool settle(int timeoutMs);

    // ---- host answer routing, used by the processors that ask the host ----

    /// The answer callback to hand to the host for a question sent under `routedId`. It forwards
    /// (routedId, response.result, response, context) to handleAsyncResponse through the engine's
    /// gate, so that an answer arriving after reset (or for an earlier init) is dropped. When
    /// `routedId` is empty the id the host passes is used instead.
    AuthCallback makeAnswerCallback(const std::string& routedId);

private:
    /// Callbacks handed to the host reach the engine only through this gate. reset closes it first;
    /// each init opens a new one, so an answer from before a reset never reaches a later request.
    struct Gate {
        std::shared_mutex mutex;
        AuthEngine* engine = nullptr;  ///< null once closed
    };

    /// An answer that arrived while its request or phase was under construction.
    struct EarlyAnswer {
        std::string requestId;
        AuthResult result = FAILED;
        AuthResponse response;
        AuthContext contextUpdate;
    };

    // Chain walk shared by authenticate and the resume: runs from `start` until a non-CONTINUE
    // result, stopping at a processor already visited. Sets pendingProcessor on ASYNC_PENDING. A
    // throw from a processor ends the request FAILED, fail code 0, "Internal error".
    AuthResult runChainFrom(std::shared_ptr<IAuthProcessor> start, AuthContext& context);

    // ---- ids under construction (all *Locked calls require queueMutex) ----
    void beginConstructionLocked(const std::string& id);
    /// Ends construction of `id` after its state was stored: applies the answers that waited, in
    /// arrival order, and returns the ids to resume (to be passed to enqueueResume after
    /// unlocking).
    std::vector<std::string> finishConstructionLocked(const std::string& id);
    /// Ends construction without storing: the waiting answers are dropped.
    void abandonConstructionLocked(const std::string& id);
    /// Applies one answer as handleAsyncResponse describes; returns the id to resume, or empty.
    /// An answer whose id or parent is under construction is queued instead.
    std::string applyAnswerLocked(const std::string& requestId, AuthResult result,
                                  const AuthResponse& response, const AuthContext& contextUpdate);

    /// Calls host code (provider operation, onAuthResult, callback); a throw is caught and logged
    /// with `what`, and false is returned so that the caller goes on with its next step.
    static bool guardHostCall(const char* what, const std::function<void()>& fn);

    /// onAuthResult(context, context.response.result), then the callback if set, each guarded.
    void reportToHost(const AuthContext& context, const AuthCallback& callback);

    /// The processors met walking from `start`, stopping at one already visited (takes chainMutex).
    std::vector<std::shared_ptr<IAuthProcessor>> collectChain(
        std::shared_ptr<IAuthProcessor> start);
    /// Recomputes chainWalk from chainHead after a link changed. Caller holds chainMutex.
    void refreshChainWalkLocked();
    /// Runs `list` from position `first` as the chain runner does, without any engine lock.
    AuthResult runProcessors(const std::vector<std::shared_ptr<IAuthProcessor>>& list,
                             std::size_t first, AuthContext& context);
    /// The chain walk and the provider as one reading under chainMutex.
    struct ChainSnapshot {
        std::shared_ptr<const std::vector<std::shared_ptr<IAuthProcessor>>> walk;
        std::shared_ptr<IDataProvider> host;
    };
    ChainSnapshot chainSnapshot();
    /// Runs a snapshot's chain from its head: FAILED, fail code 0, with "No processor chain
    /// configured" when there is no chain or "Engine not initialized" when there is no provider.
    static AuthResult runSnapshot(const ChainSnapshot& snapshot, AuthContext& context);
    /// The record that saveAsyncContext stores, built without the lock (the timeout needs the
    /// configuration, which is a provider call).
    AsyncContext makeAsyncContext(const AuthContext& context, AsyncRequestType type,
                                  AuthCallback callback);

    /// A copy of the provider (null before init and after reset).
    std::shared_ptr<IDataProvider> provider();
    /// The configuration from the provider, or a default one without provider or when it throws.
    AuthConfig fetchConfig();

    // State, in the documented order.
    std::atomic<bool> initialized{false};
    std::shared_ptr<IDataProvider> dataProvider;
    std::shared_ptr<IAuthProcessor> chainHead;
    std::map<std::string, std::shared_ptr<IAuthProcessor>> processors;
    AuthContext currentContext;
    std::map<std::string, AsyncContext> asyncContexts;
    std::map<std::string, IndependentAsyncContext> independentContexts;
    std::map<std::string, std::string> subRequests;
    std::deque<std::string> resumeQueue;
    std::atomic<uint32_t> requestCounter{0};
    std::atomic<bool> running{false};
    pthread_t workerThread{};
    std::deque<AsyncAuthRequest> requestQueue;
    std::mutex queueMutex;
    sem_t queueSemaphore{};

    bool semaphoreReady = false;
    bool workerStarted = false;
    bool workerBusy = false;       ///< guarded by queueMutex: the worker is inside a pass
    uint64_t passesStarted = 0;    ///< guarded by queueMutex
    uint64_t passesCompleted = 0;  ///< guarded by queueMutex
    /// Notified (with queueMutex) whenever the worker ends a pass or stops; waitForIdle waits on
    /// it.
    std::condition_variable idleChanged;
    std::shared_ptr<Gate> gate;  ///< guarded by chainMutex; null before init and after reset
    std::map<std::string, std::vector<EarlyAnswer>> underConstruction;  ///< guarded by queueMutex
    /// The walk from chainHead (what a decision runs), recomputed under chainMutex whenever a link
    /// or the head changes, so that a decision takes its chain with one reference count instead of
    /// walking and counting every link. Null when there is no chain.
    std::shared_ptr<const std::vector<std::shared_ptr<IAuthProcessor>>> chainWalk;
    /// Guards chainHead, chainWalk, processors, dataProvider and every processor's `next` link: a
    /// chain walk collects the processors to run under it, then runs them without it.
    mutable std::mutex chainMutex;
};

}  // namespace auth_engine
