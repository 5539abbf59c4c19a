// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// Questions and answers: which questions are open, the callback the host answers through (behind
// the reset gate), routing an answer to the parked request or phase it belongs to (or holding it
// while that request or phase is being built), and what an answer changes there.
#include <map>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <vector>

#include "engine/AuthEngine.h"
#include "engine/HostCall.h"
#include "engine/QuestionIds.h"

namespace auth_engine {

namespace {

// Writes what the host reported into a parked response. Fields the host leaves empty, zero or
// negative keep what the chain already put there; failedRelays is always the engine's own.
void applyResponse(AuthResponse& stored, AuthResult result, const AuthResponse& answer) {
    stored.result = result;
    if (!answer.relays.empty()) {
        stored.relays = answer.relays;
    }
    if (!answer.unlockOptionsRelays.empty()) {
        stored.unlockOptionsRelays = answer.unlockOptionsRelays;
    }
    if (!answer.openedRelays.empty()) {
        stored.openedRelays = answer.openedRelays;
    }
    if (answer.failCode != 0) {
        stored.failCode = answer.failCode;
    }
    if (!answer.reason.empty()) {
        stored.reason = answer.reason;
    }
    if (!answer.asyncType.empty()) {
        stored.asyncType = answer.asyncType;
    }
    if (!answer.unlockOptionsId.empty()) {
        stored.unlockOptionsId = answer.unlockOptionsId;
    }
    if (answer.remoteFailCode >= 0) {
        stored.remoteFailCode = answer.remoteFailCode;
    }
}

// Merges the host's context update. A skip flag once set is never cleared by an answer.
void mergeUpdate(AuthContext& stored, const AuthContext& update) {
    if (update.dtmfAuthData) {
        stored.dtmfAuthData = update.dtmfAuthData;
    }
    if (update.remoteControlAuthData) {
        stored.remoteControlAuthData = update.remoteControlAuthData;
    }
    if (update.tempKeyAuthData) {
        stored.tempKeyAuthData = update.tempKeyAuthData;
    }
    if (update.httpRequestData) {
        stored.httpRequestData = update.httpRequestData;
    }
    if (update.inputRequestData) {
        stored.inputRequestData = update.inputRequestData;
    }
    if (!update.authTargets.empty()) {
        stored.authTargets = update.authTargets;
    }
    stored.skipUserLookup = stored.skipUserLookup || update.skipUserLookup;
    stored.skipVirtualDoor = stored.skipVirtualDoor || update.skipVirtualDoor;
    stored.skipUnlockType = stored.skipUnlockType || update.skipUnlockType;
    stored.skipTimeCheck = stored.skipTimeCheck || update.skipTimeCheck;
    stored.skipHolidayCheck = stored.skipHolidayCheck || update.skipHolidayCheck;
    stored.virtualDoorExempt = stored.virtualDoorExempt || update.virtualDoorExempt;
}

// Records one relay's answer; true when it was the relay's first answer (the pending count fell).
template <typename SubResult>
bool recordRelayAnswer(std::map<std::string, SubResult>& results, int& pending,
                       const std::string& relay, AuthResult result) {
    const auto found = results.find(relay);
    if (found == results.end() || found->second.answered) {
        return false;
    }
    found->second.status = result;
    found->second.answered = true;
    --pending;
    return true;
}

void keepFirstRemoteFailCode(AuthContext& context, const AuthResponse& answer) {
    if (answer.remoteFailCode >= 0 && context.antiPassbackFailCode < 0) {
        context.antiPassbackFailCode = answer.remoteFailCode;
    }
}

}  // namespace

void AuthEngine::registerSubRequest(const std::string& subRequestId,
                                    const std::string& parentRequestId) {
    std::lock_guard<std::mutex> lock(queueMutex);
    // A question belongs to a request or phase that is being built or is parked; one registered
    // for anything else could never be released.
    const bool perRelay =
        relayQuestionOf(subRequestId, parentRequestId).kind != RelayQuestion::NONE;
    if (!perRelay || !isLiveOwnerLocked(parentRequestId)) {
        return;
    }
    subRequests[subRequestId] = parentRequestId;
}

void AuthEngine::unregisterSubRequests(const std::string& parentRequestId) {
    for (auto it = subRequests.begin(); it != subRequests.end();) {
        if (it->second == parentRequestId) {
            it = subRequests.erase(it);
        } else {
            ++it;
        }
    }
}

AuthCallback AuthEngine::makeAnswerCallback(const std::string& routedId) {
    std::shared_ptr<Gate> current;
    {
        std::lock_guard<std::mutex> lock(chainMutex);
        current = gate;
    }
    {
        // Handing the host a callback for an id asks a question under it (a per-relay question was
        // registered before): its first answer counts.
        std::lock_guard<std::mutex> lock(queueMutex);
        if (subRequests.count(routedId) == 0 && isLiveOwnerLocked(routedId)) {
            ownQuestions.insert(routedId);
        }
    }
    return [current, routedId](const std::string& calledId, const AuthResponse& response,
                               const AuthContext& context) {
        if (!current) {
            return;
        }
        std::shared_lock<std::shared_mutex> lock(current->mutex);
        if (current->engine == nullptr) {
            return;  // the engine was reset: a late answer is dropped
        }
        AuthEngine* const engine = current->engine;
        callHost("handleAsyncResponse", [&] {
            engine->handleAsyncResponse(routedId.empty() ? calledId : routedId, response.result,
                                        response, context);
        });
    };
}

void AuthEngine::handleAsyncResponse(const std::string& requestId, AuthResult result,
                                     const AuthResponse& response,
                                     const AuthContext& contextUpdate) {
    if (requestId.empty() || refusedUnderLock("handleAsyncResponse")) {
        return;
    }
    std::string ready;
    {
        std::lock_guard<std::mutex> lock(queueMutex);
        ready = applyAnswerLocked(requestId, result, response, contextUpdate);
    }
    if (!ready.empty()) {
        enqueueResume(ready);
    }
}

std::string AuthEngine::applyAnswerLocked(const std::string& requestId, AuthResult result,
                                          const AuthResponse& response,
                                          const AuthContext& contextUpdate) {
    // Only a question the engine asked is answered, and only once: the first answer closes it.
    std::string owner;
    const auto sub = subRequests.find(requestId);
    if (sub != subRequests.end()) {
        owner = sub->second;
        subRequests.erase(sub);
    } else if (!requestId.empty() && ownQuestions.erase(requestId) != 0) {
        owner = requestId;
    } else {
        ++droppedAnswers;
        return {};
    }
    EarlyAnswer answer{requestId, owner, result, response, contextUpdate};
    // An answer that overtakes the store of its request or phase waits until the state exists.
    const auto building = underConstruction.find(owner);
    if (building != underConstruction.end()) {
        building->second.push_back(std::move(answer));
        return {};
    }
    return deliverLocked(answer);
}

std::string AuthEngine::deliverLocked(const EarlyAnswer& answer) {
    AuthContext* const context = parked.contextOf(answer.owner);
    if (context == nullptr) {
        ++droppedAnswers;  // its owner ended while the answer travelled
        return {};
    }
    mergeUpdate(*context, answer.contextUpdate);
    if (answer.id == answer.owner) {
        applyResponse(context->response, answer.result, answer.response);
        return answer.owner;
    }
    // A per-relay question (registration checked its form). Only the answer that brings the
    // count to zero resumes.
    const RelayQuestion question = relayQuestionOf(answer.id, answer.owner);
    const std::string& relay = question.relay;
    if (question.kind == RelayQuestion::ANTI_PASSBACK) {
        keepFirstRemoteFailCode(*context, answer.response);
        const bool counted = recordRelayAnswer(context->antiPassbackResults,
                                               context->antiPassbackPending, relay, answer.result);
        return counted && context->antiPassbackPending == 0 ? answer.owner : std::string();
    }
    const bool counted = recordRelayAnswer(context->interlockResults, context->interlockPending,
                                           relay, answer.result);
    return counted && context->interlockPending == 0 ? answer.owner : std::string();
}

bool AuthEngine::isLiveOwnerLocked(const std::string& id) const {
    return !id.empty() && (underConstruction.count(id) != 0 || parked.holds(id));
}

void AuthEngine::forgetQuestionsLocked(const std::string& owner) {
    unregisterSubRequests(owner);
    ownQuestions.erase(owner);
    const auto building = underConstruction.find(owner);
    if (building != underConstruction.end()) {
        droppedAnswers += building->second.size();
        building->second.clear();
    }
}

void AuthEngine::beginConstructionLocked(const std::string& id, bool askedUnderOwnId) {
    if (id.empty()) {
        return;
    }
    underConstruction.emplace(id, std::vector<EarlyAnswer>());
    if (askedUnderOwnId) {
        ownQuestions.insert(id);
    }
}

std::vector<std::string> AuthEngine::finishConstructionLocked(const std::string& id) {
    std::vector<std::string> ready;
    const auto found = underConstruction.find(id);
    if (found == underConstruction.end()) {
        return ready;
    }
    const std::vector<EarlyAnswer> answers = std::move(found->second);
    underConstruction.erase(found);
    for (const auto& answer : answers) {
        const std::string resumeId = deliverLocked(answer);
        if (!resumeId.empty() && std::find(ready.begin(), ready.end(), resumeId) == ready.end()) {
            ready.push_back(resumeId);
        }
    }
    return ready;
}

void AuthEngine::abandonConstructionLocked(const std::string& id) {
    forgetQuestionsLocked(id);
    underConstruction.erase(id);
}

std::size_t AuthEngine::subRequestCount() {
    if (refusedUnderLock("subRequestCount")) {
        return 0;
    }
    std::lock_guard<std::mutex> lock(queueMutex);
    return subRequests.size();
}

std::string AuthEngine::subRequestParent(const std::string& subRequestId) {
    if (refusedUnderLock("subRequestParent")) {
        return {};
    }
    std::lock_guard<std::mutex> lock(queueMutex);
    const auto found = subRequests.find(subRequestId);
    return found == subRequests.end() ? std::string() : found->second;
}

std::size_t AuthEngine::openQuestionCount() {
    if (refusedUnderLock("openQuestionCount")) {
        return 0;
    }
    std::lock_guard<std::mutex> lock(queueMutex);
    return subRequests.size() + ownQuestions.size();
}

bool AuthEngine::questionOpen(const std::string& id) {
    if (refusedUnderLock("questionOpen")) {
        return false;
    }
    std::lock_guard<std::mutex> lock(queueMutex);
    return subRequests.count(id) != 0 || ownQuestions.count(id) != 0;
}

std::size_t AuthEngine::heldAnswerCount() {
    if (refusedUnderLock("heldAnswerCount")) {
        return 0;
    }
    std::lock_guard<std::mutex> lock(queueMutex);
    std::size_t held = 0;
    for (const auto& entry : underConstruction) {
        held += entry.second.size();
    }
    return held;
}

uint64_t AuthEngine::droppedAnswerCount() {
    if (refusedUnderLock("droppedAnswerCount")) {
        return 0;
    }
    std::lock_guard<std::mutex> lock(queueMutex);
    return droppedAnswers;
}

}  // namespace auth_engine
