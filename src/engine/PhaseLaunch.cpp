// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// Starting the interlock and parking phases (and parking any phase while its questions go out):
// each held-back group waits under its own phase id and is reported on its own.
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
#include "processors/InterlockProcessor.h"
#include "processors/ParkingRestrictionProcessor.h"

namespace auth_engine {

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
    wrapper.context.response = phaseResponse(PHASE_INTERLOCK, context.response);
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
    wrapper.context.response = phaseResponse(PHASE_PARKING, context.response);
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
    parked.park(phaseId, std::move(phase));
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
    failed.response = phaseResponse(phase, context.response);
    failed.response.result = FAILED;
    failed.response.reason = reasons::INTERNAL_ERROR;
    failed.response.failedRelays = relays;
    failed.response.allFailed = 1;
    // A verification the host asked for directly is answered through its callback only.
    reportToHost(notifyProvider ? provider().get() : nullptr, failed, callback);
}

// ---------------------------------------------------------------------------------------------------
// Resume of a parked phase

}  // namespace auth_engine
