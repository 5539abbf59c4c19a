// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// After the chain has passed: relays that need no further check open at once, the others are held
// back per relay for anti-passback, then interlock, then parking restriction, or offered for a
// choice first. Also the targets and the report of each phase.
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "auth_engine/AuthLogger.h"
#include "auth_engine/FailCodes.h"
#include "common/Distinct.h"
#include "engine/AuthEngine.h"
#include "engine/HostCall.h"
#include "engine/RelayPhase.h"
#include "engine/RelaySplit.h"
#include "processors/AntiPassbackProcessor.h"

namespace auth_engine {

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
    // A verification the host asked for directly is answered through its callback only.
    reportToHost(notifyProvider ? provider().get() : nullptr, context, callback);
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
        wrapper.context.response = phaseResponse(PHASE_SYNC, context.response);
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
        context.response = phaseResponse(PHASE_SYNC, context.response);
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

}  // namespace auth_engine
