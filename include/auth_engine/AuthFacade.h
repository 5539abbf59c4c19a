// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

/// @file AuthFacade.h
/// @brief The host's single entry point: a process-wide singleton that owns at most one engine.
///
/// Every call made before init (or after reset) is answered without touching an engine: FAILED with
/// "AuthFacade not initialized" where a response is returned, an empty text where an id is
/// returned, nothing otherwise. No call lets an exception out.
///
/// Callbacks and re-entry: host code the engine runs (a provider operation, a completion callback,
/// onAuthResult) may call the facade. A completion callback or onAuthResult may run while the
/// engine holds its lock (a parked chain that timed out, the shutdown drain in reset): there a call
/// that would wait for that lock (authenticate, authenticateAsync, handleAsyncResult,
/// handleUnlockOptionsResponse, verifyInterlockTargets, waitForIdle) is refused at once with its
/// failure value (a synchronous attempt answers FAILED, "Refused: called from a callback made under
/// the engine's lock") and an error log line; better to hand such work to another thread. reset
/// may be called from any host code (see reset). Answer callbacks that the engine hands to the
/// provider (temporary key, anti-passback, interlock, parking) may be called from anywhere, inline
/// included; only the first answer to a question counts.
///
/// One request may be reported several times (AuthResponse::asyncType names the phase): once at
/// once for the relays that open immediately or for the failure, and once per held-back phase
/// ("antipassback", "interlock", "parking") when it is decided.
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "auth_engine/AuthTypes.h"
#include "auth_engine/IAuthProcessor.h"
#include "auth_engine/IDataProvider.h"
#include "auth_engine/Trace.h"
#include "auth_engine/export.h"

namespace auth_engine {

class AuthEngine;  // private to the library

class AUTH_ENGINE_API AuthFacade {
public:
    /// The singleton, created on first use (thread-safe) and destroyed at exit.
    static AuthFacade& getInstance();
    AuthFacade(const AuthFacade&) = delete;
    AuthFacade& operator=(const AuthFacade&) = delete;

    /// Creates the engine, its processors and default chain, and starts its worker thread.
    /// @return 0 on success (also when already initialised: the running engine is kept), -1 for a
    /// null provider, -3 when the semaphore could not be created, -4 when the worker could not be
    /// started. On failure the facade stays uninitialised.
    int init(std::shared_ptr<IDataProvider> provider);

    /// Nothing to reload: configuration is fetched from the provider at every use.
    void reloadConfig();

    /// Synchronous attempt built from a credential: timestamp = now. See authenticate(AuthRequest).
    AuthResponse authenticate(const std::string& credential, OpenDoorType openType,
                              ReaderType readerType);

    /// Runs the attempt on the calling thread, with an empty request id and no callback: a chain
    /// that must wait for the host returns ASYNC_PENDING and nothing is parked (use
    /// authenticateAsync for remote checks). The returned response is the immediate report;
    /// held-back relay phases are reported to the provider's onAuthResult.
    AuthResponse authenticate(const AuthRequest& request);

    /// Queues the attempt for the worker thread. @return its request id, or an empty text when
    /// refused (not initialised, or 100 submissions already waiting). The callback receives that id
    /// with every report of the request, exactly once per report.
    std::string authenticateAsync(const AuthRequest& request, AuthCallback callback);

    /// authenticateAsync for a credential, open type and reader (timestamp = now).
    std::string authenticateAsync(const std::string& credential, OpenDoorType openType,
                                  ReaderType readerType, AuthCallback callback);

    /// Delivers a host's answer to a question the engine asked (temporary key, anti-passback,
    /// interlock, parking, or a processor of the host's that returned ASYNC_PENDING, under the
    /// request's id). `requestId` is the id the question was sent under. `type` is ignored: the
    /// engine knows each question's kind from its id. Only the first answer to an asked question
    /// counts: unknown ids, questions never asked, repeats and answers to questions asked before a
    /// reset (ids are never issued twice) are dropped.
    void handleAsyncResult(const std::string& requestId, AsyncRequestType type, AuthResult result,
                           const AuthResponse& response, const AuthContext& context);

    /// The same without the ignored kind.
    void handleAsyncResult(const std::string& requestId, AuthResult result,
                           const AuthResponse& response, const AuthContext& context);

    /// The user's choice among the relays offered with UNLOCK_OPTIONS_PENDING. `optionsId` is the
    /// offer's AuthResponse::unlockOptionsId. Only relays that were offered count; an empty choice
    /// (or none left) cancels the request with fail code 44.
    void handleUnlockOptionsResponse(const std::string& optionsId,
                                     const std::vector<std::string>& selectedRelays);

    /// Ends a waiting first factor of double authentication as timed out (fail code 19, the user's
    /// relays in failedRelays). Unknown id: fail code 42. Without a reachable "DoubleAuth"
    /// processor: FAILED "DoubleAuth processor not available".
    AuthResponse handleDoubleAuthTimeout(const std::string& pendingId);

    /// Cancels a waiting first factor (fail code 0, `reasonText` as reason). Unknown id: 42.
    AuthResponse cancelDoubleAuth(const std::string& pendingId, const std::string& reasonText);

    /// Asks whether interlocked relay targets may open now, without running the credential chain.
    /// @return the id the callback will carry, or an empty text when refused (interlock off, no
    /// targets, a target that is not an interlocked relay). The host's onAuthResult is not told.
    std::string verifyInterlockTargets(const AuthRequest& request,
                                       const std::vector<AuthTarget>& targets,
                                       AuthCallback callback);

    /// Replaces the chain by processor names. Unknown names are skipped; an unknown first name
    /// leaves the chain empty (every attempt then fails with "No processor chain configured").
    void setProcessorChain(const std::vector<std::string>& names);

    /// Registers (or replaces) a processor under its getName(), so that a chain can name it. Does
    /// not relink the current chain. Ignored before init.
    void registerProcessor(std::shared_ptr<IAuthProcessor> processor);

    /// Stops the worker, fails queued submissions and parked relay phases with "Engine shutdown",
    /// drops parked chains silently, and destroys the engine. Late answers are dropped. init starts
    /// afresh (request ids go on counting: none is issued twice).
    ///
    /// Called from host code the engine is running (a provider operation, a callback,
    /// onAuthResult), on the worker or any other thread, the facade is uninitialised at once and
    /// the shutdown completes once that host code has returned: the worker never joins itself and
    /// nothing in use is freed.
    void reset();

    /// True between a successful init and reset.
    bool isReady() const;

    /// Waits until the engine has nothing left to do for now: every queued attempt and every
    /// answered request handled, and one timeout sweep run at the clocks' present reading (the
    /// worker is woken for it instead of waiting up to its one-second tick). For an orderly
    /// shut-down (let the last decisions finish before reset) and for hosts that drive the clocks
    /// through AuthClock. Questions still waiting for a peer do not count: only the host can
    /// answer them. @return true when idle (at once when not initialised), false when
    /// `timeoutMs` passed first, and false at once, with an error log line, when called on the
    /// engine's worker thread (from a callback or a provider operation), where it could never end.
    bool waitForIdle(int timeoutMs);

    /// Installs a trace sink (see Trace.h), or removes it with an empty pointer. From this call on,
    /// facade calls with their arguments and results, completion callbacks and the engine's clock
    /// readings are recorded; provider operations, onAuthResult reports and answers through the
    /// callbacks handed to the provider are recorded from the next init on (an engine already
    /// running keeps its provider as it was given). Removing the sink stops all recording at once,
    /// except by an engine started with it, whose operations go on being recorded until reset.
    /// Without a sink, tracing costs nothing measurable (one relaxed atomic load per facade call
    /// and no extra work per clock reading). Thread-safe.
    void setTraceSink(std::shared_ptr<TraceSink> sink);

private:
    AuthFacade();
    ~AuthFacade();

    /// The engine, copied under `engineMutex` by every call, so that reset cannot pull it from
    /// under a running call.
    std::shared_ptr<AuthEngine> currentEngine() const;

    mutable std::mutex engineMutex;
    std::shared_ptr<AuthEngine> engine;
};

}  // namespace auth_engine
