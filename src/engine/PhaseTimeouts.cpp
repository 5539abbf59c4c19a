// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// The phases' clock: timeouts, the interlock retry, and the interlock verification a host asks for
// without a credential.
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

namespace auth_engine {

void AuthEngine::checkTimeoutForIndependentRequests() {
    const int64_t now = getUptimeSeconds();

    // A retried phase is lifted out of the store and parked again through parkPhaseAndAsk, as a
    // new phase is: answers that arrive while its questions go out again wait for it.
    std::vector<std::string> retryIds;
    std::vector<IndependentAsyncContext> retries;
    std::vector<std::string> resumes;
    std::vector<IndependentAsyncContext> timedOut;
    {
        std::lock_guard<std::mutex> lock(queueMutex);
        parked.sweepPhases([&](const std::string& id, IndependentAsyncContext& phase) {
            const int64_t elapsed = now - static_cast<int64_t>(phase.startTime);
            if (elapsed < phase.timeoutSeconds) {
                return false;
            }
            if (phase.phase == PHASE_INTERLOCK) {
                // Retried as often as the configuration the split read allows (without it,
                // never: the relays stay shut).
                const int retryLimit = phase.config ? phase.config->interlockRetryLimit : 0;
                if (phase.pendingPhaseCount < retryLimit) {
                    ++phase.pendingPhaseCount;
                    phase.startTime = static_cast<uint64_t>(now);
                    retryIds.push_back(id);
                } else {
                    for (auto& result : phase.context.interlockResults) {
                        if (!result.second.answered) {
                            result.second.status = FAILED;
                            result.second.answered = true;
                            phase.context.relayFailReasons[result.first] = chain::INTERLOCK;
                        }
                    }
                    phase.context.interlockPending = 0;
                    unregisterSubRequests(id);
                    resumes.push_back(id);
                }
                return false;
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
                response.failCode = fail::NONE;
                response.reason = reasons::PHASE_TIMEOUT;
            }
            response.asyncType = phase.phase;
            // A failure never repeats what an earlier report opened; it names what stays shut.
            response.openedRelays.clear();
            response.targets.clear();
            response.failedRelays = phase.context.relays;
            response.allFailed = 1;
            timedOut.push_back(phase);
            return true;
        });
        for (const std::string& id : retryIds) {
            IndependentAsyncContext phase;
            if (parked.lift(id, phase)) {
                beginConstructionLocked(id, false);
                retries.push_back(std::move(phase));
            }
        }
    }

    std::shared_ptr<processors::InterlockProcessor> processor;
    std::shared_ptr<IDataProvider> host;
    if (!retries.empty()) {
        processor = std::dynamic_pointer_cast<processors::InterlockProcessor>(
            getProcessor(chain::INTERLOCK));
        host = provider();
    }
    for (IndependentAsyncContext& retry : retries) {
        parkPhaseAndAsk(std::move(retry), [&](IndependentAsyncContext& phase) {
            std::vector<std::string> unanswered;
            for (const auto& result : phase.context.interlockResults) {
                if (!result.second.answered) {
                    unanswered.push_back(result.first);
                }
            }
            if (!processor || !host || unanswered.empty()) {
                return false;
            }
            // Asked on a copy: what a retry marked before it threw does not count (the answers
            // given to it still do, through the questions it registered).
            AuthContext copy = phase.context;
            if (!callHost("interlock retry",
                          [&] { processor->retryPendingRelays(copy, *host, unanswered); })) {
                return false;
            }
            phase.context = std::move(copy);
            return phase.context.interlockPending <= 0;
        });
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
