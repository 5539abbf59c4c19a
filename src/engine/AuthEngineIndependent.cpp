// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// The independent relay phase: after the chain has passed, relays that need no further check open
// at once, the others are held back per relay for anti-passback, then interlock, then parking
// restriction. Each held-back group waits under its own phase id and is reported on its own, so one
// request may produce several reports.
#include <algorithm>
#include <exception>
#include <memory>
#include <string>
#include <unordered_set>
#include <utility>
#include <vector>

#include "auth_engine/AuthLogger.h"
#include "auth_engine/FailCodes.h"
#include "common/Distinct.h"
#include "engine/AuthEngine.h"
#include "engine/HostCall.h"
#include "engine/RelaySplit.h"
#include "processors/AntiPassbackProcessor.h"
#include "processors/InterlockProcessor.h"
#include "processors/ParkingRestrictionProcessor.h"

namespace auth_engine {

namespace {

const char* const PHASE_SYNC = "sync";
const char* const PHASE_ANTI_PASSBACK = "antipassback";
const char* const PHASE_INTERLOCK = "interlock";
const char* const PHASE_PARKING = "parking";
const char* const PHASE_UNLOCK_OPTIONS = "unlock_options";

constexpr int32_t CHOICE_TIMEOUT_SECONDS = 30;

bool contains(const std::vector<std::string>& list, const std::string& value) {
    return std::find(list.begin(), list.end(), value) != list.end();
}

bool isRelayTarget(const AuthTarget& target) {
    return target.type == 0 || target.type == 1;
}

/// A phase of `context` to park under "<parentId>_ind_<phase>" for `relays`, timed from
/// `startTime`. The caller adds what only its phase needs.
AuthEngine::IndependentAsyncContext newPhase(const AuthContext& context, const char* phase,
                                             const std::string& parentId,
                                             const std::vector<std::string>& relays,
                                             const AuthCallback& callback, int64_t startTime,
                                             int32_t timeoutSeconds) {
    AuthEngine::IndependentAsyncContext wrapper;
    wrapper.context = context;
    wrapper.context.asyncType = phase;
    wrapper.context.relays = relays;
    wrapper.context.requestId = relayPhaseId(parentId, phase);
    wrapper.phase = phase;
    wrapper.callback = callback;
    wrapper.startTime = static_cast<uint64_t>(startTime);
    wrapper.timeoutSeconds = timeoutSeconds;
    wrapper.parentRequestId = parentId;
    return wrapper;
}

/// A response that carries no outcome yet, only the phase it belongs to.
AuthResponse phaseResponse(const char* phase) {
    AuthResponse response;
    response.asyncType = phase;
    return response;
}

}  // namespace

// ---------------------------------------------------------------------------------------------------
// Targets and phase reports

void AuthEngine::buildAuthTargets(AuthContext& context) {
    const std::vector<std::string> relays =
        context.relays.empty() ? context.response.openedRelays : context.relays;
    buildAuthTargetsForRelays(context, relays, true);
}

void AuthEngine::buildAuthTargetsForRelays(AuthContext& context,
                                           const std::vector<std::string>& relays,
                                           bool includeUserTarget) {
    std::vector<AuthTarget> targets;
    targets.reserve(context.authTargets.size() + relays.size() + 1);
    DistinctTargets add(targets);
    const ListLookup opened(relays);
    // Targets gathered by the chain keep their kind; a relay target is only actuated for a relay
    // that this report opens.
    for (const AuthTarget& target : context.authTargets) {
        if (isRelayTarget(target) ? opened.contains(target.relay) : includeUserTarget) {
            add.add(target.type, target.relay);
        }
    }
    for (const std::string& relay : relays) {
        add.add(relay.size() > 1 && relay[0] == 'S' ? 1 : 0, relay);
    }
    if (includeUserTarget && context.userData && !context.userData->userTargetId.empty()) {
        add.add(2, context.userData->userTargetId);
    }
    context.response.targets = std::move(targets);
}

void AuthEngine::notifyIndependentPhase(AuthContext& context, const AuthCallback& callback,
                                        const std::string& phase,
                                        const std::vector<std::string>& opened,
                                        const std::vector<std::string>& failed, int failCode,
                                        bool notifyProvider) {
    if (opened.empty() && failed.empty()) {
        return;
    }
    context.asyncType = phase;
    context.response.asyncType = phase;
    context.response.openedRelays = opened;
    context.response.failedRelays = failed;
    context.response.failCode = failed.empty() ? 0 : failCode;
    context.response.result = opened.empty() ? FAILED : SUCCESS;
    context.response.allFailed = opened.empty() ? 1 : 0;
    if (opened.empty()) {
        context.response.targets.clear();
    } else {
        // Non-relay grants went out with the immediate report; they are not repeated.
        buildAuthTargetsForRelays(context, opened, false);
    }
    if (notifyProvider) {
        reportToHost(provider().get(), context, callback);
    } else if (callback) {
        callHost("independent phase callback",
                 [&callback, &context] { callback(context.requestId, context.response, context); });
    }
}

// ---------------------------------------------------------------------------------------------------
// Post-sync split

void AuthEngine::processPostSyncPhase(AuthContext& context, const AuthCallback& callback) {
    if (refusedUnderLock("processPostSyncPhase")) {
        return;
    }
    const Inside inside(*this);
    const bool chainFailed = context.response.result == FAILED;

    // A relay refused only by the virtual-door policy is not this reader's door: it is neither
    // reported as failed nor opened.
    std::vector<std::string> failed;
    LazyIndex<std::string> failedIndex;
    for (const std::string& relay : context.failedRelays) {
        const auto reason = context.relayFailReasons.find(relay);
        if (reason != context.relayFailReasons.end() && reason->second != chain::VIRTUAL_DOOR) {
            appendDistinct(
                failed, [&]() -> auto& { return failedIndex; }, relay);
        }
    }
    std::vector<std::string> candidates;
    candidates.reserve(context.relays.size());
    {
        const ListLookup failedLookup(failed);
        LazyIndex<std::string> candidateIndex;
        for (const std::string& relay : context.relays) {
            if (!failedLookup.contains(relay)) {
                appendDistinct(
                    candidates, [&]() -> auto& { return candidateIndex; }, relay);
            }
        }
    }
    if (chainFailed) {
        for (const std::string& relay : candidates) {
            failed.push_back(relay);
            context.relayFailReasons.emplace(relay, reasons::RELAY_ATTEMPT_FAILED);
        }
        candidates.clear();
        if (failed.empty()) {
            failed = !context.response.failedRelays.empty() ? context.response.failedRelays
                                                            : context.deniedRelays;
        }
    }

    // This one reading decides which checks apply, and rides with every phase of the request: a
    // change on the host's side cannot switch a check off between the split and its question. A
    // reading that fails opens nothing: no default configuration stands in for the host's.
    std::shared_ptr<const AuthConfig> snapshot = readConfig();
    if (!snapshot) {
        failed.insert(failed.end(), candidates.begin(), candidates.end());
        context.asyncType = PHASE_SYNC;
        context.response.asyncType = PHASE_SYNC;
        context.response.result = FAILED;
        context.response.failCode = 0;
        context.response.reason = reasons::INTERNAL_ERROR;
        context.response.failedRelays = std::move(failed);
        context.response.openedRelays.clear();
        context.response.targets.clear();
        context.response.allFailed = 1;
        reportToHost(provider().get(), context, callback);
        return;
    }
    const AuthConfig& config = *snapshot;

    // A request without id still needs one to route the answers of a parked phase; the reports
    // that go out at once keep the caller's (empty) id.
    std::string parentId = context.requestId;
    const auto ensureParentId = [this, &parentId] {
        if (parentId.empty()) {
            parentId = generateRequestId();
        }
        return parentId;
    };

    if (!context.unlockOptionsResolved && config.unlockOptionsEnabled && candidates.size() > 1) {
        IndependentAsyncContext wrapper =
            newPhase(context, PHASE_UNLOCK_OPTIONS, ensureParentId(), candidates, callback,
                     getUptimeSeconds(), CHOICE_TIMEOUT_SECONDS);
        const std::string optionsId = wrapper.context.requestId;
        // The choice still belongs to the synchronous answer. Only the host's answer may be read on
        // resume, never what the chain left behind.
        wrapper.context.asyncType = PHASE_SYNC;
        wrapper.context.response = phaseResponse(PHASE_SYNC);
        wrapper.context.response.result = UNLOCK_OPTIONS_PENDING;
        std::vector<std::string> resumes;
        {
            std::lock_guard<std::mutex> lock(queueMutex);
            beginConstructionLocked(optionsId, true);
            resumes = storePhaseLocked(optionsId, std::move(wrapper));
        }
        for (const std::string& id : resumes) {
            enqueueResume(id);
        }

        context.asyncType = PHASE_SYNC;
        const bool duress = context.response.duress;
        context.response = phaseResponse(PHASE_SYNC);
        context.response.duress = duress;
        context.response.result = UNLOCK_OPTIONS_PENDING;
        context.response.failedRelays = failed;
        context.response.unlockOptionsId = optionsId;
        context.response.unlockOptionsRelays = candidates;
        reportToHost(provider().get(), context, callback);
        return;
    }

    // Split the candidates by the checks they still need.
    RelaySplit split = splitRelays(candidates, context, config);
    const std::vector<std::string>& apRelays = split.antiPassback;
    const std::vector<std::string>& interlockRelays = split.interlock;
    const std::vector<std::string>& parkingRelays = split.parking;
    const RelayChecks& relayChecks = split.checks;

    bool grantsTarget = context.userData && !context.userData->userTargetId.empty();
    for (const AuthTarget& target : context.authTargets) {
        grantsTarget = grantsTarget || !isRelayTarget(target);
    }
    grantsTarget = grantsTarget && context.response.result != FAILED;

    context.asyncType = PHASE_SYNC;
    context.response.asyncType = PHASE_SYNC;
    // The relays opened now move into the report; `opened` reads them there.
    context.response.openedRelays = std::move(split.immediate);
    const std::vector<std::string>& opened = context.response.openedRelays;
    context.response.failedRelays = failed;
    if (!opened.empty() || grantsTarget) {
        context.response.result = SUCCESS;
        buildAuthTargetsForRelays(context, opened, true);
    } else {
        context.response.targets.clear();
        if (!failed.empty()) {
            context.response.result = FAILED;
        }
    }
    const bool heldBack = !relayChecks.empty();
    if (!heldBack && context.response.result != FAILED) {
        // A passed request always hears back once, even when nothing was left to open.
        context.response.result = SUCCESS;
    }
    // The attempt's verdict is final here: the guessing protection counts or clears the reader.
    guessGuard.noteVerdict(context, config, [this] { return provider(); });
    if (!opened.empty() || !failed.empty() || grantsTarget || context.response.result == FAILED ||
        !heldBack) {
        reportToHost(provider().get(), context, callback);
    }
    if (!heldBack) {
        return;
    }

    if (!apRelays.empty()) {
        IndependentAsyncContext wrapper =
            newPhase(context, PHASE_ANTI_PASSBACK, ensureParentId(), apRelays, callback,
                     getUptimeSeconds(), config.antiPassbackTimeout);
        const std::string phaseId = wrapper.context.requestId;
        wrapper.context.independentApRelays = apRelays;
        wrapper.context.independentParkingRelays = parkingRelays;
        // The immediate report's lists belong to that report, not to this phase.
        wrapper.context.response.asyncType = PHASE_ANTI_PASSBACK;
        wrapper.context.response.openedRelays.clear();
        wrapper.context.response.failedRelays.clear();
        wrapper.context.response.targets.clear();
        wrapper.relayChecks = relayChecks;
        wrapper.interlockRelays = interlockRelays;
        wrapper.parkingRelays = parkingRelays;
        const ListLookup parkingLookup(parkingRelays);
        const ListLookup apLookup(apRelays);
        for (const std::string& relay : apRelays) {
            if (parkingLookup.contains(relay)) {
                wrapper.apAndParkingRelays.push_back(relay);
            }
        }
        for (const std::string& relay : parkingRelays) {
            if (!apLookup.contains(relay)) {
                wrapper.parkingOnlyRelays.push_back(relay);
            }
        }
        wrapper.config = snapshot;

        parkPhaseAndAsk(std::move(wrapper), [&](IndependentAsyncContext& phase) {
            const auto processor = std::dynamic_pointer_cast<processors::AntiPassbackProcessor>(
                getProcessor(chain::ANTI_PASSBACK));
            if (!processor) {
                return false;  // nothing was asked: the phase ends by its timeout
            }
            AuthResult apResult = ASYNC_PENDING;
            const std::shared_ptr<IDataProvider> host = provider();
            const bool asked =
                host && callHost("anti-passback phase question", [&] {
                    apResult = processor->processRelays(phase.context, *host, apRelays, config);
                });
            if (!asked) {
                // Nothing reliable was sent, and an answer given before the throw cannot count:
                // every relay of the phase fails, once, on resume.
                forgetQuestions(phaseId);
                for (const std::string& relay : apRelays) {
                    AntiPassbackSubResult& result = phase.context.antiPassbackResults[relay];
                    result.relay = relay;
                    result.status = FAILED;
                    result.answered = true;
                }
                phase.context.antiPassbackPending = 0;
                apResult = FAILED;
            }
            AuthLogger::info(
                "[AuthEngine::processPostSyncPhase] Saved independent AP context: requestId=%s, "
                "pendingCount=%d, resultCount=%d, relayCount=%d, apResult=%d",
                phaseId.c_str(), phase.context.antiPassbackPending,
                static_cast<int>(phase.context.antiPassbackResults.size()),
                static_cast<int>(apRelays.size()), static_cast<int>(apResult));
            return apResult != ASYNC_PENDING;
        });
    } else if (!interlockRelays.empty()) {
        startInterlockPhase(context, callback, relayChecks, ensureParentId(), interlockRelays, true,
                            snapshot);
    } else if (!parkingRelays.empty()) {
        startParkingPhase(context, callback, relayChecks, ensureParentId(), parkingRelays,
                          snapshot);
    }
}

// ---------------------------------------------------------------------------------------------------
// Interlock and parking launches

void AuthEngine::launchInterlockPhase(const AuthContext& context, const AuthCallback& callback,
                                      const std::map<std::string, std::vector<int>>& relayChecks,
                                      const std::string& parentRequestId,
                                      const std::vector<std::string>& requested,
                                      bool notifyProvider) {
    if (refusedUnderLock("launchInterlockPhase")) {
        return;
    }
    const Inside inside(*this);
    const std::shared_ptr<const AuthConfig> snapshot = readConfig();
    if (!snapshot) {
        reportPhaseFailure(context, callback, PHASE_INTERLOCK, parentRequestId,
                           distinctInOrder(requested), notifyProvider);
        return;
    }
    startInterlockPhase(context, callback, relayChecks, parentRequestId, requested, notifyProvider,
                        snapshot);
}

void AuthEngine::startInterlockPhase(const AuthContext& context, const AuthCallback& callback,
                                     const std::map<std::string, std::vector<int>>& relayChecks,
                                     const std::string& parentRequestId,
                                     const std::vector<std::string>& requested, bool notifyProvider,
                                     const std::shared_ptr<const AuthConfig>& snapshot) {
    // Each relay is asked once, so that the pending count can reach zero.
    const std::vector<std::string> relays = distinctInOrder(requested);
    if (relays.empty()) {
        return;
    }

    IndependentAsyncContext wrapper =
        newPhase(context, PHASE_INTERLOCK, parentRequestId, relays, callback, getUptimeSeconds(),
                 snapshot->interlockTimeout);
    const std::string phaseId = wrapper.context.requestId;
    wrapper.context.response = phaseResponse(PHASE_INTERLOCK);
    wrapper.context.interlockRequestedRelays = relays;
    wrapper.context.interlockCheckRelays = relays;
    wrapper.context.interlockPending = static_cast<int>(relays.size());
    wrapper.context.interlockResults.clear();
    for (const std::string& relay : relays) {
        wrapper.context.interlockResults[relay].relay = relay;
    }
    wrapper.relayChecks = relayChecks;
    wrapper.interlockRelays = relays;
    wrapper.notifyHost = notifyProvider ? 1 : 0;
    wrapper.config = snapshot;

    parkPhaseAndAsk(std::move(wrapper), [&](IndependentAsyncContext& phase) {
        const auto processor = std::dynamic_pointer_cast<processors::InterlockProcessor>(
            getProcessor(chain::INTERLOCK));
        const std::shared_ptr<IDataProvider> host = provider();
        const bool asked = processor && host && callHost("interlock phase question", [&] {
                               processor->processRelays(phase.context, *host, relays);
                           });
        if (!asked) {
            // Nobody can vouch for these relays, an answer given before a throw included: they
            // stay shut.
            forgetQuestions(phaseId);
            for (auto& entry : phase.context.interlockResults) {
                entry.second.status = FAILED;
                entry.second.answered = true;
                phase.context.relayFailReasons[entry.first] = chain::INTERLOCK;
            }
            phase.context.interlockPending = 0;
        }
        // Relays answered from inside the call (offline peers) may have decided the phase already.
        return phase.context.interlockPending <= 0;
    });
}

void AuthEngine::launchParkingPhase(const AuthContext& context, const AuthCallback& callback,
                                    const std::map<std::string, std::vector<int>>& relayChecks,
                                    const std::string& parentRequestId,
                                    const std::vector<std::string>& requested) {
    if (refusedUnderLock("launchParkingPhase")) {
        return;
    }
    const Inside inside(*this);
    const std::shared_ptr<const AuthConfig> snapshot = readConfig();
    if (!snapshot) {
        reportPhaseFailure(context, callback, PHASE_PARKING, parentRequestId,
                           distinctInOrder(requested), true);
        return;
    }
    startParkingPhase(context, callback, relayChecks, parentRequestId, requested, snapshot);
}

void AuthEngine::startParkingPhase(const AuthContext& context, const AuthCallback& callback,
                                   const std::map<std::string, std::vector<int>>& relayChecks,
                                   const std::string& parentRequestId,
                                   const std::vector<std::string>& requested,
                                   const std::shared_ptr<const AuthConfig>& snapshot) {
    const std::vector<std::string> relays = distinctInOrder(requested);
    if (relays.empty()) {
        return;
    }

    IndependentAsyncContext wrapper =
        newPhase(context, PHASE_PARKING, parentRequestId, relays, callback, getUptimeSeconds(),
                 snapshot->parkingTimeout);
    const std::string phaseId = wrapper.context.requestId;
    wrapper.context.response = phaseResponse(PHASE_PARKING);
    wrapper.context.independentParkingRelays = relays;
    wrapper.relayChecks = relayChecks;
    wrapper.parkingRelays = relays;
    wrapper.config = snapshot;

    parkPhaseAndAsk(std::move(wrapper), [&](IndependentAsyncContext& phase) {
        const auto processor = std::dynamic_pointer_cast<processors::ParkingRestrictionProcessor>(
            getProcessor(chain::PARKING_RESTRICTION));
        const std::shared_ptr<IDataProvider> host = provider();
        AuthResult result = FAILED;
        if (processor && host) {
            const bool asked = callHost("parking phase question", [&] {
                result = processor->processRelays(phase.context, *host, relays, *snapshot);
            });
            if (!asked) {
                // A throw leaves the result FAILED, even after an answer given from inside the
                // call.
                result = FAILED;
                forgetQuestions(phaseId);
            }
        }
        if (result == ASYNC_PENDING) {
            return false;
        }
        // Decided without an answer: an offline host (or a check that does not apply) lets the
        // user through; a missing processor or a failure to ask does not.
        phase.context.response.result = result == CONTINUE ? SUCCESS : FAILED;
        return true;
    });
}

void AuthEngine::parkPhaseAndAsk(IndependentAsyncContext phase,
                                 const std::function<bool(IndependentAsyncContext&)>& ask) {
    const std::string phaseId = phase.context.requestId;
    {
        std::lock_guard<std::mutex> lock(queueMutex);
        beginConstructionLocked(phaseId, false);
    }
    const bool decided = ask(phase);
    std::vector<std::string> resumes;
    {
        std::lock_guard<std::mutex> lock(queueMutex);
        resumes = storePhaseLocked(phaseId, std::move(phase));
    }
    if (decided && !contains(resumes, phaseId)) {
        resumes.push_back(phaseId);
    }
    for (const std::string& id : resumes) {
        enqueueResume(id);
    }
}

void AuthEngine::forgetQuestions(const std::string& owner) {
    std::lock_guard<std::mutex> lock(queueMutex);
    forgetQuestionsLocked(owner);
}

std::vector<std::string> AuthEngine::storePhaseLocked(const std::string& phaseId,
                                                      IndependentAsyncContext phase) {
    phase.generation = ++phaseGenerations;
    independentContexts[phaseId] = std::move(phase);
    return finishConstructionLocked(phaseId);
}

void AuthEngine::continueWithInterlock(const IndependentAsyncContext& finished,
                                       const AuthContext& context,
                                       const std::map<std::string, std::vector<int>>& checks,
                                       const std::string& parentId,
                                       const std::vector<std::string>& relays) {
    if (finished.config) {
        startInterlockPhase(context, finished.callback, checks, parentId, relays, true,
                            finished.config);
    } else {
        launchInterlockPhase(context, finished.callback, checks, parentId, relays, true);
    }
}

void AuthEngine::continueWithParking(const IndependentAsyncContext& finished,
                                     const AuthContext& context,
                                     const std::map<std::string, std::vector<int>>& checks,
                                     const std::string& parentId,
                                     const std::vector<std::string>& relays) {
    if (finished.config) {
        startParkingPhase(context, finished.callback, checks, parentId, relays, finished.config);
    } else {
        launchParkingPhase(context, finished.callback, checks, parentId, relays);
    }
}

void AuthEngine::reportPhaseFailure(const AuthContext& context, const AuthCallback& callback,
                                    const char* phase, const std::string& parentId,
                                    const std::vector<std::string>& relays, bool notifyProvider) {
    if (relays.empty()) {
        return;
    }
    AuthContext failed = context;
    failed.requestId = relayPhaseId(parentId, phase);
    failed.asyncType = phase;
    failed.relays = relays;
    failed.response = phaseResponse(phase);
    failed.response.result = FAILED;
    failed.response.reason = reasons::INTERNAL_ERROR;
    failed.response.failedRelays = relays;
    failed.response.allFailed = 1;
    if (notifyProvider) {
        reportToHost(provider().get(), failed, callback);
    } else if (callback) {
        callHost("independent phase callback",
                 [&] { callback(failed.requestId, failed.response, failed); });
    }
}

// ---------------------------------------------------------------------------------------------------
// Resume of a parked phase

void AuthEngine::resumeIndependentAsync(const std::string& requestId) {
    if (refusedUnderLock("resumeIndependentAsync")) {
        return;
    }
    const Inside inside(*this);
    IndependentAsyncContext wrapper;
    {
        std::lock_guard<std::mutex> lock(queueMutex);
        const auto entry = independentContexts.find(requestId);
        if (entry == independentContexts.end()) {
            return;
        }
        wrapper = entry->second;
        independentContexts.erase(entry);
        // Questions still open (offline relays, late answers) can no longer be applied.
        forgetQuestionsLocked(requestId);
    }
    AuthContext& context = wrapper.context;
    if (context.response.result == DROPPED) {
        return;
    }
    const std::string parentId =
        wrapper.parentRequestId.empty() ? context.requestId : wrapper.parentRequestId;

    if (wrapper.phase == PHASE_UNLOCK_OPTIONS) {
        finishRelayChoice(wrapper);
    } else if (wrapper.phase == PHASE_PARKING) {
        finishParking(wrapper);
    } else if (wrapper.phase == PHASE_INTERLOCK) {
        finishInterlock(wrapper, parentId);
    } else if (wrapper.phase == PHASE_ANTI_PASSBACK) {
        finishAntiPassback(wrapper, parentId);
    }
}

void AuthEngine::finishRelayChoice(IndependentAsyncContext& wrapper) {
    AuthContext& context = wrapper.context;
    context.response.asyncType = PHASE_SYNC;
    // Only relays that were offered count, each once, in the order the user chose them.
    const std::vector<std::string>& answer = !context.response.unlockOptionsRelays.empty()
                                                 ? context.response.unlockOptionsRelays
                                                 : context.response.openedRelays;
    std::vector<std::string> chosen;
    {
        const ListLookup offered(context.relays);
        LazyIndex<std::string> chosenIndex;
        for (const std::string& relay : answer) {
            if (offered.contains(relay)) {
                appendDistinct(
                    chosen, [&]() -> auto& { return chosenIndex; }, relay);
            }
        }
    }
    if (context.response.result == SUCCESS && !chosen.empty()) {
        context.relays = chosen;
        context.failedRelays.clear();
        context.relayFailReasons.clear();
        context.unlockOptionsResolved = true;
        if (!wrapper.parentRequestId.empty()) {
            context.requestId = wrapper.parentRequestId;
        }
        context.response.unlockOptionsRelays.clear();
        context.response.unlockOptionsId.clear();
        AuthLogger::info("[AuthEngine::resumeIndependentAsync] UnlockOptions selected %d relays",
                         static_cast<int>(chosen.size()));
        processPostSyncPhase(context, wrapper.callback);
        return;
    }
    context.response.result = FAILED;
    context.response.targets.clear();
    context.response.openedRelays.clear();
    if (context.response.failCode == 0) {
        context.response.failCode = fail::RELAY_CHOICE;
        context.response.reason = reasons::CHOICE_CANCELED;
    }
    AuthLogger::info("[AuthEngine::resumeIndependentAsync] UnlockOptions canceled, failCode=%d",
                     context.response.failCode);
    reportToHost(provider().get(), context, wrapper.callback);
}

void AuthEngine::finishParking(IndependentAsyncContext& wrapper) {
    AuthContext& context = wrapper.context;
    const bool passed = context.response.result == SUCCESS;
    context.asyncType = PHASE_PARKING;
    context.response.result = passed ? SUCCESS : FAILED;
    context.response.asyncType = PHASE_PARKING;
    context.response.allFailed = passed ? 0 : 1;
    if (passed) {
        context.response.openedRelays = context.relays;
        context.response.failedRelays.clear();
        buildAuthTargetsForRelays(context, context.relays, false);
    } else {
        context.response.openedRelays.clear();
        context.response.failedRelays = context.relays;
        context.response.failCode = fail::PARKING;
        for (const std::string& relay : context.relays) {
            context.relayFailReasons[relay] = chain::PARKING_RESTRICTION;
        }
        context.response.targets.clear();
    }
    reportToHost(provider().get(), context, wrapper.callback);
}

void AuthEngine::finishInterlock(IndependentAsyncContext& wrapper, const std::string& parentId) {
    AuthContext& context = wrapper.context;
    // The question's "pending" text no longer describes anything once the phase is decided.
    context.response.reason.clear();
    PhaseOutcome outcome = afterInterlock(wrapper.relayChecks, context.interlockResults);
    for (const std::string& relay : outcome.failed) {
        context.relayFailReasons[relay] = chain::INTERLOCK;
    }
    notifyIndependentPhase(context, wrapper.callback, PHASE_INTERLOCK, outcome.opened,
                           outcome.failed, fail::INTERLOCK, wrapper.notifyHost != 0);
    continueWithParking(wrapper, context, outcome.checks, parentId, outcome.parking);
}

void AuthEngine::finishAntiPassback(IndependentAsyncContext& wrapper, const std::string& parentId) {
    AuthContext& context = wrapper.context;
    PhaseOutcome outcome =
        afterAntiPassback(wrapper.relayChecks, context.relays, context.antiPassbackResults);
    for (const std::string& relay : outcome.failed) {
        context.relayFailReasons[relay] = chain::ANTI_PASSBACK;
    }
    notifyIndependentPhase(context, wrapper.callback, PHASE_ANTI_PASSBACK, outcome.opened,
                           outcome.failed, fail::ANTI_PASSBACK, true);
    if (!outcome.interlock.empty()) {
        continueWithInterlock(wrapper, context, outcome.checks, parentId, outcome.interlock);
    } else {
        continueWithParking(wrapper, context, outcome.checks, parentId, outcome.parking);
    }
}

// ---------------------------------------------------------------------------------------------------
// Timeouts

void AuthEngine::checkTimeoutForIndependentRequests() {
    const int64_t now = getUptimeSeconds();

    // A retry asks on a copy of the phase, outside the lock: the generation tells whether the
    // phase it writes back to is still the one it copied.
    struct Retry {
        std::string id;
        uint64_t generation = 0;
        AuthContext copy;
    };
    std::vector<Retry> retries;
    std::vector<std::string> resumes;
    std::vector<IndependentAsyncContext> timedOut;
    {
        std::lock_guard<std::mutex> lock(queueMutex);
        for (auto entry = independentContexts.begin(); entry != independentContexts.end();) {
            IndependentAsyncContext& phase = entry->second;
            const int64_t elapsed = now - static_cast<int64_t>(phase.startTime);
            if (elapsed < phase.timeoutSeconds) {
                ++entry;
                continue;
            }
            if (phase.phase == PHASE_INTERLOCK) {
                // Retried as often as the configuration the split read allows (without it,
                // never: the relays stay shut).
                const int retryLimit = phase.config ? phase.config->interlockRetryLimit : 0;
                if (phase.pendingPhaseCount < retryLimit) {
                    ++phase.pendingPhaseCount;
                    phase.startTime = static_cast<uint64_t>(now);
                    retries.push_back(Retry{entry->first, phase.generation, phase.context});
                } else {
                    for (auto& result : phase.context.interlockResults) {
                        if (!result.second.answered) {
                            result.second.status = FAILED;
                            result.second.answered = true;
                            phase.context.relayFailReasons[result.first] = chain::INTERLOCK;
                        }
                    }
                    phase.context.interlockPending = 0;
                    unregisterSubRequests(entry->first);
                    resumes.push_back(entry->first);
                }
                ++entry;
                continue;
            }
            for (auto& result : phase.context.antiPassbackResults) {
                if (!result.second.answered) {
                    result.second.status = FAILED;
                    result.second.answered = true;
                }
            }
            AuthResponse& response = phase.context.response;
            response.result = FAILED;
            if (phase.phase == PHASE_UNLOCK_OPTIONS) {
                response.failCode = fail::RELAY_CHOICE;
                response.reason = reasons::CHOICE_TIMEOUT;
            } else {
                response.failCode = 0;
                response.reason = reasons::PHASE_TIMEOUT;
            }
            response.asyncType = phase.phase;
            // A failure never repeats what an earlier report opened; it names what stays shut.
            response.openedRelays.clear();
            response.targets.clear();
            response.failedRelays = phase.context.relays;
            response.allFailed = 1;
            timedOut.push_back(phase);
            forgetQuestionsLocked(entry->first);
            entry = independentContexts.erase(entry);
        }
    }

    std::shared_ptr<processors::InterlockProcessor> processor;
    std::shared_ptr<IDataProvider> host;
    if (!retries.empty()) {
        processor = std::dynamic_pointer_cast<processors::InterlockProcessor>(
            getProcessor(chain::INTERLOCK));
        host = provider();
    }
    for (Retry& retry : retries) {
        AuthContext& copy = retry.copy;
        std::vector<std::string> unanswered;
        for (const auto& result : copy.interlockResults) {
            if (!result.second.answered) {
                unanswered.push_back(result.first);
            }
        }
        if (!processor || !host || unanswered.empty()) {
            continue;
        }
        bool asked = false;
        {
            const RegistrationScope scope{this, retry.id, retry.generation};
            registrationScope = &scope;
            asked = callHost("interlock retry",
                             [&] { processor->retryPendingRelays(copy, *host, unanswered); });
            registrationScope = nullptr;
        }
        if (!asked) {
            continue;
        }
        bool ready = false;
        {
            std::lock_guard<std::mutex> lock(queueMutex);
            const auto stored = independentContexts.find(retry.id);
            if (stored == independentContexts.end() ||
                stored->second.generation != retry.generation) {
                continue;  // settled (or replaced) while the questions went out
            }
            AuthContext& target = stored->second.context;
            for (const std::string& relay : unanswered) {
                const auto local = copy.interlockResults.find(relay);
                const auto kept = target.interlockResults.find(relay);
                if (local == copy.interlockResults.end() || kept == target.interlockResults.end() ||
                    kept->second.answered || !local->second.answered) {
                    continue;
                }
                kept->second = local->second;
                --target.interlockPending;
                const auto reason = copy.relayFailReasons.find(relay);
                if (reason != copy.relayFailReasons.end()) {
                    target.relayFailReasons[relay] = reason->second;
                }
            }
            ready = target.interlockPending <= 0;
        }
        if (ready) {
            enqueueResume(retry.id);
        }
    }
    for (const std::string& id : resumes) {
        enqueueResume(id);
    }
    for (const IndependentAsyncContext& phase : timedOut) {
        reportToHost(provider().get(), phase.context, phase.callback);
    }
}

// ---------------------------------------------------------------------------------------------------
// Interlock verification without a credential

std::string AuthEngine::verifyInterlockTargets(const AuthRequest& request,
                                               const std::vector<AuthTarget>& targets,
                                               const AuthCallback& callback) {
    if (refusedUnderLock("verifyInterlockTargets")) {
        return {};
    }
    const Inside inside(*this);
    if (!initialized.load() || !provider() || !running.load() || targets.empty()) {
        return {};
    }
    // A reading that fails refuses the verification: nobody could say the relays are interlocked.
    const std::shared_ptr<const AuthConfig> snapshot = readConfig();
    if (!snapshot || !snapshot->interlockEnabled) {
        return {};
    }
    const AuthConfig& config = *snapshot;
    for (const AuthTarget& target : targets) {
        const auto interlocked = config.interlockRelayMap.find(target.relay);
        if (!isRelayTarget(target) || target.relay.empty() ||
            interlocked == config.interlockRelayMap.end() || !interlocked->second) {
            return {};
        }
    }
    std::vector<AuthTarget> unique;
    std::vector<std::string> relays;
    LazyIndex<std::string> relayIndex;
    for (const AuthTarget& target : targets) {
        if (appendDistinct(
                relays, [&]() -> auto& { return relayIndex; }, target.relay)) {
            unique.push_back(target);
        }
    }

    std::string requestId = generateRequestId();
    AuthContext context;
    context.request = request;
    context.request.targets = unique;
    context.authTargets = unique;
    context.asyncType = PHASE_INTERLOCK;
    context.relays = relays;
    context.requestId = requestId;

    std::map<std::string, std::vector<int>> relayChecks;
    for (const std::string& relay : relays) {
        relayChecks[relay] = {CHECK_INTERLOCK};
    }
    // The caller knows the verification by the id returned here, whatever id the phase reports.
    AuthCallback wrapper;
    if (callback) {
        wrapper = [callback, requestId](const std::string& /*phaseId*/,
                                        const AuthResponse& response, const AuthContext& reported) {
            AuthContext copy = reported;
            copy.requestId = requestId;
            callback(requestId, response, copy);
        };
    }
    startInterlockPhase(context, wrapper, relayChecks, requestId, relays, false, snapshot);
    return requestId;
}

}  // namespace auth_engine
