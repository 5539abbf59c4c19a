// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// A parked phase resumes once its answers are in (or its time is up): one finish step per kind of
// phase reports what it opens and refuses and launches the next phase of the request.
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

namespace auth_engine {

void AuthEngine::resumeIndependentAsync(const std::string& requestId) {
    if (refusedUnderLock("resumeIndependentAsync")) {
        return;
    }
    const Inside inside(*this);
    IndependentAsyncContext wrapper;
    {
        std::lock_guard<std::mutex> lock(queueMutex);
        // Questions still open (offline relays, late answers) close as the phase leaves.
        if (!parked.take(requestId, wrapper)) {
            return;
        }
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

}  // namespace auth_engine
