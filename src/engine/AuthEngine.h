// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// AuthEngine, the coordinator of the units in src/engine: set-up, registry and chain
// (AuthEngine.cpp), the synchronous run and chain runner (ChainRun.cpp), the worker
// (EngineWorker.cpp), questions and answers (EngineAnswers.cpp), parked chains, their resume,
// timeouts and reset (AuthEngineAsync.cpp), the relay phases (PostSync.cpp, PhaseLaunch.cpp,
// PhaseFinish.cpp, PhaseTimeouts.cpp, with their rules in RelaySplit.cpp). Private to the
// library; tests and tools include it from src/.
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
#include "common/HostQuestions.h"
#include "engine/GuessGuard.h"
#include "engine/ParkedStore.h"

namespace auth_engine {

/// One queued submission of authenticateAsync.
struct AsyncAuthRequest {
    AuthRequest request;
    AuthCallback callback;
    std::string requestId;    ///< empty marks "no request"
    int64_t enqueueTime = 0;  ///< uptime seconds when queued
};

class AuthEngine : public std::enable_shared_from_this<AuthEngine> {
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
        /// The configuration the post-sync split read: it decides every phase of the request, so
        /// that a check cannot be switched off between the split and its question.
        std::shared_ptr<const AuthConfig> config;
    };

    AuthEngine();
    /// An engine that draws its request ids from `numbers`, shared with the engines before and
    /// after it (the facade's, across reset and init), so that no id is ever issued twice.
    explicit AuthEngine(std::shared_ptr<std::atomic<uint32_t>> numbers);
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

    // ---- synchronous run (ChainRun.cpp) ----
    AuthResponse authenticate(const AuthRequest& request, const AuthCallback& callback,
                              const std::string& requestId);
    AuthResult executeProcessorChain(AuthContext& context);
    std::string generateRequestId();
    int64_t getUptimeSeconds();

    // ---- the worker and its queues (EngineWorker.cpp) ----
    std::string authenticateAsync(const AuthRequest& request, const AuthCallback& callback);
    void enqueueResume(const std::string& requestId);
    static void* asyncThreadFunc(void* engine);

    // ---- questions and answers (EngineAnswers.cpp) ----
    void registerSubRequest(const std::string& subRequestId, const std::string& parentRequestId);
    /// Caller holds queueMutex.
    void unregisterSubRequests(const std::string& parentRequestId);
    void handleAsyncResponse(const std::string& requestId, AuthResult result,
                             const AuthResponse& response, const AuthContext& contextUpdate);

    // ---- parked chains and their resume (AuthEngineAsync.cpp) ----
    void saveAsyncContext(const std::string& requestId, const AuthContext& context,
                          AsyncRequestType type, AuthCallback callback);
    void resumeAuthentication(const std::string& requestId);

    // ---- timeouts and reset (AuthEngineAsync.cpp; the phases' sweep in PhaseTimeouts.cpp) ----
    void checkTimeoutRequests();
    void checkAllPendingTimeouts();
    void checkTimeoutForChainRequests();
    void checkTimeoutForIndependentRequests();
    /// Stops the worker and empties the engine. Called from host code the engine is running (a
    /// provider operation, a callback, onAuthResult), on the worker or any other thread, it closes
    /// the engine at once and completes once that host code has returned: the worker never joins
    /// itself and nothing in use is freed.
    void reset();

    // ---- double authentication control and interlock verification ----
    AuthResponse handleDoubleAuthTimeout(const std::string& pendingId);
    AuthResponse cancelDoubleAuth(const std::string& pendingId, const std::string& reasonText);
    std::string verifyInterlockTargets(const AuthRequest& request,
                                       const std::vector<AuthTarget>& targets,
                                       const AuthCallback& callback);

    // ---- independent relay phase (PostSync.cpp, PhaseLaunch.cpp, PhaseFinish.cpp) ----
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

    // ---- inspection for tests and tools (read-only, take the lock; safe at any time: from a
    // callback the engine makes under its lock they answer empty, with an error log line) ----
    std::shared_ptr<IAuthProcessor> getProcessor(const std::string& name);
    /// Names met walking from the head, stopping at a processor already visited.
    std::vector<std::string> chainNames();
    std::size_t parkedChainCount();
    std::size_t parkedPhaseCount();
    std::size_t subRequestCount();
    bool peekParkedChain(const std::string& requestId, AsyncContext& out);
    bool peekParkedPhase(const std::string& phaseId, IndependentAsyncContext& out);
    std::string subRequestParent(const std::string& subRequestId);
    /// Questions asked and not yet answered: per-relay sub-requests and questions asked under a
    /// request's or phase's own id.
    std::size_t openQuestionCount();
    /// Whether a question asked under `id` is open: its first answer would count.
    bool questionOpen(const std::string& id);
    /// Answers that wait for their request or phase to be stored.
    std::size_t heldAnswerCount();
    /// Answers dropped since the engine was made: unknown ids, repeats, answers to questions that
    /// were never asked or whose request had already ended.
    uint64_t droppedAnswerCount();
    /// Whether guessing protection holds `reader` locked out now.
    bool readerLockedOut(int32_t reader) const { return guessGuard.refusesNow(reader); }
    /// Readers guessing protection tracks (never more than GuessGuard::READER_SLOTS).
    std::size_t guessReaderCount() const { return guessGuard.trackedReaders(); }
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
    friend HostQuestions* hostQuestionsOf(AuthEngine* engine);

    /// The engine as the processors that ask the host see it.
    class Questions : public HostQuestions {
    public:
        explicit Questions(AuthEngine& owner) : engine(owner) {}
        void registerQuestion(const std::string& questionId, const std::string& askingId) override {
            engine.registerSubRequest(questionId, askingId);
        }
        AuthCallback answerTo(const std::string& questionId) override {
            return engine.makeAnswerCallback(questionId);
        }

    private:
        AuthEngine& engine;
    };

    /// Callbacks handed to the host reach the engine only through this gate. reset closes it first;
    /// each init opens a new one, so an answer from before a reset never reaches a later request.
    struct Gate {
        std::shared_mutex mutex;
        AuthEngine* engine = nullptr;  ///< null once closed
    };

    /// A host answer to one open question: the question's id and the request or phase it belongs
    /// to (the same id for a question asked under the owner's own id).
    struct EarlyAnswer {
        std::string id;
        std::string owner;
        AuthResult result = FAILED;
        AuthResponse response;
        AuthContext contextUpdate;
    };

    // ---- questions, answers and ids under construction (*Locked calls require queueMutex) ----

    /// A request or phase that is being built or is parked: questions may be asked for it.
    bool isLiveOwnerLocked(const std::string& id) const;
    /// Closes every question of `owner` and drops the answers held for it.
    void forgetQuestionsLocked(const std::string& owner);
    /// Applies one answer to its parked owner; returns the id to resume, or empty.
    std::string deliverLocked(const EarlyAnswer& answer);
    /// Starts building `id`; answers to its questions are held until it is stored. A request
    /// (unlike a phase) is asked under its own id from the start: a processor of its chain may
    /// wait for an answer to it.
    void beginConstructionLocked(const std::string& id, bool askedUnderOwnId);
    /// Ends construction of `id` after its state was stored: applies the answers that waited, in
    /// arrival order, and returns the ids to resume (to be passed to enqueueResume after
    /// unlocking).
    std::vector<std::string> finishConstructionLocked(const std::string& id);
    /// Ends construction without storing: its questions are closed and waiting answers dropped.
    void abandonConstructionLocked(const std::string& id);
    /// Takes one answer to an open question (closing it): applied to a parked owner (returns the
    /// id to resume, or empty), held for an owner under construction, dropped otherwise.
    std::string applyAnswerLocked(const std::string& requestId, AuthResult result,
                                  const AuthResponse& response, const AuthContext& contextUpdate);

    // ---- host code that calls back in ----

    /// Marks the calling thread as inside an operation of this engine for the frame's lifetime:
    /// host code it runs may call back in. When the outermost frame of a thread other than the
    /// worker ends while a reset asked from inside waits, that reset completes there.
    class Inside {
    public:
        explicit Inside(AuthEngine& engine);
        ~Inside();
        Inside(const Inside&) = delete;
        Inside& operator=(const Inside&) = delete;
        /// Whether an outer frame of the same engine exists on this thread.
        bool nested() const;
        /// Whether the calling thread is inside an operation of `engine`.
        static bool onThisThread(const AuthEngine& engine);

    private:
        static thread_local const Inside* innermost;
        AuthEngine& engine;
        const Inside* const outer;
    };
    /// Host code called while this thread holds queueMutex (a timed-out chain's callbacks, the
    /// shutdown drain) runs inside this frame: a call back in that would lock again is refused.
    class CallbacksUnderLock {
    public:
        explicit CallbacksUnderLock(const AuthEngine& engine);
        ~CallbacksUnderLock();
        CallbacksUnderLock(const CallbacksUnderLock&) = delete;
        CallbacksUnderLock& operator=(const CallbacksUnderLock&) = delete;

        /// The engine whose lock the calling thread holds while running host code, if any.
        static const AuthEngine* engineOfThread() { return current; }

    private:
        static thread_local const AuthEngine* current;
        const AuthEngine* const previous;
    };
    /// True (after an error log line naming `call`) when the calling thread runs a callback this
    /// engine made while holding queueMutex: the call would wait for that lock forever.
    bool refusedUnderLock(const char* call) const;

    /// One pass of the worker: waits for a post (or a second), takes one item (a resume before a
    /// new submission), runs it, sweeps the timeouts. False once the engine stops running.
    bool processNextItem();

    /// Closes the engine to new work: the gate (late answers are dropped), the intake, the ready
    /// flag; wakes the worker so that it stops after its present pass.
    void closeIntake();
    /// Joins the worker and empties the engine, once per reset.
    void completeShutdown();
    /// Fails what is queued or parked as at shutdown and empties the engine; no join.
    void tearDown();

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
    /// What ends a chain run, for an attempt's first run and every resume alike.
    enum class ChainEnd {
        PARK,         ///< waits for the host's answer under its id
        STOP,         ///< ends without a report
        TELL_CALLER,  ///< ends with the caller's callback only
        REPORT,       ///< reported as it stands
        RELAY_PHASE,  ///< its relays go through the relay phase, which reports
    };
    static ChainEnd chainEndOf(AuthResult result, const AuthContext& context, bool resumed);
    /// Ends a run of the chain over `context` (parked, if at all, under `requestId`) with
    /// `result` as chainEndOf says: parks it again, or frees its id and tells the host.
    void endChainRun(const std::string& requestId, AuthContext& context,
                     const AuthCallback& callback, AuthResult result, bool resumed);
    /// The record that saveAsyncContext stores, built without the lock (the timeout needs the
    /// configuration, which is a provider call).
    AsyncContext makeAsyncContext(const AuthContext& context, AsyncRequestType type,
                                  AuthCallback callback);

    /// A copy of the provider (null before init and after reset).
    std::shared_ptr<IDataProvider> provider();
    /// The configuration from the provider, or a default one without provider or when it throws:
    /// for what decides nothing (a parked chain's timeout, the reader's informational relays).
    AuthConfig fetchConfig();
    /// The configuration that decides a split or a phase: a default one without provider, null when
    /// the provider throws (the caller then refuses, nothing opens).
    std::shared_ptr<const AuthConfig> readConfig();

    // ---- independent phases ----

    /// What a resumed phase decides and reports: one step per kind of phase. The phase has left
    /// the store; `parentId` is the request the next phase is launched for.
    void finishRelayChoice(IndependentAsyncContext& wrapper);
    void finishParking(IndependentAsyncContext& wrapper);
    void finishInterlock(IndependentAsyncContext& wrapper, const std::string& parentId);
    void finishAntiPassback(IndependentAsyncContext& wrapper, const std::string& parentId);
    /// Parks `phase` while its questions go out: answers that arrive while `ask` runs (outside
    /// every engine lock) wait, and are applied once the phase is stored. `ask` returns whether
    /// the phase is decided already; a decided phase resumes at once.
    void parkPhaseAndAsk(IndependentAsyncContext phase,
                         const std::function<bool(IndependentAsyncContext&)>& ask);
    /// Closes every question of `owner` and drops the answers held for it (takes queueMutex).
    void forgetQuestions(const std::string& owner);
    /// Stores a phase that was being built under `phaseId` and
    /// applies the answers that waited; returns the ids to resume. Caller holds queueMutex.
    std::vector<std::string> storePhaseLocked(const std::string& phaseId,
                                              IndependentAsyncContext phase);
    void startInterlockPhase(const AuthContext& context, const AuthCallback& callback,
                             const std::map<std::string, std::vector<int>>& relayChecks,
                             const std::string& parentRequestId,
                             const std::vector<std::string>& relays, bool notifyProvider,
                             const std::shared_ptr<const AuthConfig>& snapshot);
    void startParkingPhase(const AuthContext& context, const AuthCallback& callback,
                           const std::map<std::string, std::vector<int>>& relayChecks,
                           const std::string& parentRequestId,
                           const std::vector<std::string>& relays,
                           const std::shared_ptr<const AuthConfig>& snapshot);
    /// The next phase of a request, under the configuration its earlier phase was decided with.
    void continueWithInterlock(const IndependentAsyncContext& finished, const AuthContext& context,
                               const std::map<std::string, std::vector<int>>& checks,
                               const std::string& parentId, const std::vector<std::string>& relays);
    void continueWithParking(const IndependentAsyncContext& finished, const AuthContext& context,
                             const std::map<std::string, std::vector<int>>& checks,
                             const std::string& parentId, const std::vector<std::string>& relays);
    /// Reports a phase that could not be started (its configuration could not be read): FAILED,
    /// fail code 0, "Internal error", every relay of it refused.
    void reportPhaseFailure(const AuthContext& context, const AuthCallback& callback,
                            const char* phase, const std::string& parentId,
                            const std::vector<std::string>& relays, bool notifyProvider);

    // State, in the documented order.
    std::atomic<bool> initialized{false};
    std::shared_ptr<IDataProvider> dataProvider;
    std::shared_ptr<IAuthProcessor> chainHead;
    std::map<std::string, std::shared_ptr<IAuthProcessor>> processors;
    /// Parked chains and phases; guarded by queueMutex. What leaves it has its questions closed.
    ParkedStore<AsyncContext, IndependentAsyncContext> parked;
    std::map<std::string, std::string> subRequests;
    std::deque<std::string> resumeQueue;
    Questions questions;
    /// Never set back, not even by reset: an id is issued once in the engine's life.
    std::shared_ptr<std::atomic<uint32_t>> requestCounter;
    std::atomic<bool> running{false};
    pthread_t workerThread{};
    /// Keeps a shared engine alive while its worker runs (empty for an engine not held by a
    /// shared pointer): a reset from host code on the worker must not free it under the worker.
    std::shared_ptr<AuthEngine> workerHold;
    /// A reset was asked and has not completed yet (set by closeIntake).
    std::atomic<bool> shutdownPending{false};
    /// The worker itself asked for the reset: it completes it when it leaves its loop.
    std::atomic<bool> shutdownOnWorker{false};
    /// Host code on another thread asked for the reset: that thread completes it when it leaves.
    std::atomic<bool> shutdownDeferred{false};
    /// Serialises starting and joining the worker.
    std::mutex lifecycleMutex;
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
    /// Ids asked under a request's or phase's own id, not yet answered; guarded by queueMutex.
    std::set<std::string> ownQuestions;
    uint64_t droppedAnswers = 0;  ///< guarded by queueMutex
    /// The walk from chainHead (what a decision runs), recomputed under chainMutex whenever a link
    /// or the head changes, so that a decision takes its chain with one reference count instead of
    /// walking and counting every link. Null when there is no chain.
    std::shared_ptr<const std::vector<std::shared_ptr<IAuthProcessor>>> chainWalk;
    /// Counts unknown codes per reader and holds lockouts (AuthConfig::guessLimit); reset clears
    /// it.
    GuessGuard guessGuard;
    /// Guards chainHead, chainWalk, processors, dataProvider and every processor's `next` link: a
    /// chain walk collects the processors to run under it, then runs them without it.
    mutable std::mutex chainMutex;
};

}  // namespace auth_engine
