// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// Double authentication: the first factor is held for the second, which must be of the expected
// kind and of the same user before it times out.
#include "processors/DoubleAuthProcessor.h"

#include <algorithm>
#include <climits>
#include <vector>

#include "auth_engine/AuthClock.h"
#include "auth_engine/AuthLogger.h"
#include "auth_engine/FailCodes.h"
#include "common/Distinct.h"

namespace auth_engine {
namespace processors {

namespace {

// Writes what a refused factor was measured against, so the host can tell the user what to present.
void writeBlock(AuthResponse& response, int mode, int first, int second, int readerType) {
    response.doubleAuthMode = mode;
    response.doubleAuthFirstType = first;
    response.doubleAuthNextType = second;
    response.doubleAuthReaderType = readerType;
}

// Every relay named by "id-relays;id-relays", each once, in order of first appearance. An entry
// without '-' names no relay.
std::vector<std::string> scheduleRelays(const std::string& scheduleRelay) {
    std::vector<std::string> relays;
    LazyIndex<std::string> index;
    std::size_t start = 0;
    while (start <= scheduleRelay.size()) {
        std::size_t end = scheduleRelay.find(';', start);
        if (end == std::string::npos) {
            end = scheduleRelay.size();
        }
        const std::string entry = scheduleRelay.substr(start, end - start);
        const std::size_t dash = entry.find('-');
        if (dash != std::string::npos) {
            for (const std::string& relay : parseRelayString(entry.substr(dash + 1))) {
                appendDistinct(
                    relays, [&index]() -> auto& { return index; }, relay);
            }
        }
        start = end + 1;
    }
    return relays;
}

}  // namespace

AuthResult DoubleAuthProcessor::process(AuthContext& context, IDataProvider& provider) {
    const AuthConfig config = provider.getAuthConfig();
    const int64_t now = nowMs();
    {
        std::lock_guard<std::mutex> lock(mutex);
        lazyCleanup(now);
    }

    const int mode = config.doubleAuthMode;
    const int current = context.request.openType;
    int first = 0;
    int second = 0;
    if (!config.doubleAuthEnabled || mode == DOUBLE_AUTH_MODE_OFF ||
        current == OPEN_TYPE_PUBLIC_PIN || current == OPEN_TYPE_LATCH_PIN) {
        AuthLogger::info("[DoubleAuthProcessor:%d] result=%s", __LINE__,
                         AuthLogger::authResultToString(CONTINUE));
        return CONTINUE;
    }
    if (context.request.sourceCode == SOURCE_CODE_QR) {
        AuthLogger::info("[DoubleAuthProcessor:%d] qr-code origin skips, result=%s", __LINE__,
                         AuthLogger::authResultToString(CONTINUE));
        return CONTINUE;
    }
    if (!getOrderedPair(mode, first, second) || !isParticipatingType(current)) {
        AuthLogger::info("[DoubleAuthProcessor:%d] result=%s", __LINE__,
                         AuthLogger::authResultToString(CONTINUE));
        return CONTINUE;
    }

    const int readerType = context.request.readerType;
    const std::string explicitId = context.request.doubleAuthPendingId;
    DoubleAuthPendingState state;

    if (explicitId.empty()) {
        if (matchesFactor(current, first)) {
            if (!context.userData) {
                writeBlock(context.response, mode, first, second, readerType);
                context.response.result = FAILED;
                context.response.failCode = fail::SECOND_FACTOR_OTHER_USER;
                AuthLogger::info("[DoubleAuthProcessor:%d] first factor without user, result=%s",
                                 __LINE__, AuthLogger::authResultToString(FAILED));
                return FAILED;
            }
            {
                std::lock_guard<std::mutex> lock(mutex);
                // One first factor at a time: a newer one replaces whatever was waiting.
                pendingStates.clear();
                state.pendingId = generatePendingId();
                state.mode = mode;
                state.firstType = current;
                state.nextType = second;
                state.readerType = readerType;
                state.direction = context.request.direction;
                state.createdMs = now;
                state.expireMs = now + static_cast<int64_t>(config.doubleAuthTimeoutSec) * 1000;
                state.user = context.userData;
                state.credential = context.request.credential;
                state.requestText = context.request.requestText;
                pendingStates[state.pendingId] = state;
            }
            fillPendingResponse(context.response, state);
            context.response.result = DOUBLE_AUTH_PENDING;
            context.response.doubleAuthWaiting = true;
            AuthLogger::info("[DoubleAuthProcessor:%d] result=%s", __LINE__,
                             AuthLogger::authResultToString(DOUBLE_AUTH_PENDING));
            return DOUBLE_AUTH_PENDING;
        }
        if (!matchesFactor(current, second)) {
            writeBlock(context.response, mode, first, second, readerType);
            context.response.result = FAILED;
            context.response.failCode = fail::WRONG_SECOND_FACTOR;
            AuthLogger::info(
                "[DoubleAuthProcessor:%d] unexpected factor, currentType=%d, result=%s", __LINE__,
                current, AuthLogger::authResultToString(FAILED));
            return FAILED;
        }

        // A second factor without an id belongs to the one first factor held, if any.
        std::string takenId;
        bool found = false;
        {
            std::lock_guard<std::mutex> lock(mutex);
            if (pendingStates.size() == 1) {
                const auto entry = pendingStates.begin();
                takenId = entry->first;
                state = entry->second;
                pendingStates.erase(entry);
                found = true;
            }
        }
        if (!found) {
            context.response = buildPendingNotFoundResponse(takenId);
            writeBlock(context.response, mode, first, second, readerType);
            context.response.failCode =
                takenId.empty() ? fail::WRONG_SECOND_FACTOR : fail::UNKNOWN_PENDING_ID;
            AuthLogger::info(
                "[DoubleAuthProcessor:%d] second factor without pending, currentType=%d, "
                "firstType=%d, nextType=%d, pendingId=%s, result=%s",
                __LINE__, current, first, second, takenId.c_str(),
                AuthLogger::authResultToString(FAILED));
            return FAILED;
        }
    } else {
        bool found = false;
        bool matching = false;
        {
            std::lock_guard<std::mutex> lock(mutex);
            const auto entry = pendingStates.find(explicitId);
            if (entry != pendingStates.end()) {
                found = true;
                state = entry->second;
                matching = matchesFactor(current, state.nextType);
                // A wrong kind of factor does not use up the wait: the right one may still come.
                if (matching) {
                    pendingStates.erase(entry);
                }
            }
        }
        if (!found) {
            context.response = buildPendingNotFoundResponse(explicitId);
            writeBlock(context.response, mode, first, second, readerType);
            AuthLogger::info("[DoubleAuthProcessor:%d] unknown pending id=%s, result=%s", __LINE__,
                             explicitId.c_str(), AuthLogger::authResultToString(FAILED));
            return FAILED;
        }
        if (!matching) {
            failPending(context.response, state, fail::WRONG_SECOND_FACTOR);
            AuthLogger::info(
                "[DoubleAuthProcessor:%d] explicit pending factor mismatch, currentType=%d, "
                "nextType=%d, result=%s",
                __LINE__, current, state.nextType, AuthLogger::authResultToString(FAILED));
            return FAILED;
        }
    }

    // Completion: the state has been taken out of the map whatever the verdict.
    if (!context.userData || !state.user || !isSameUser(*context.userData, *state.user)) {
        failPending(context.response, state, fail::SECOND_FACTOR_OTHER_USER);
        AuthLogger::info(
            "[DoubleAuthProcessor:%d] second factor of another user, pendingId=%s, "
            "result=%s",
            __LINE__, state.pendingId.c_str(), AuthLogger::authResultToString(FAILED));
        return FAILED;
    }
    const int composed = composeReader(state.readerType, readerType, provider);
    context.request.readerType = static_cast<ReaderType>(composed);
    context.request.direction = state.direction;
    context.userData = state.user;
    fillPendingResponse(context.response, state);
    context.response.doubleAuthPendingId.clear();
    context.response.user = state.user;
    context.response.doubleAuthReaderType = composed;
    AuthLogger::info("[DoubleAuthProcessor:%d] result=%s", __LINE__,
                     AuthLogger::authResultToString(CONTINUE));
    return CONTINUE;
}

AuthResponse DoubleAuthProcessor::handleTimeout(const std::string& pendingId) {
    DoubleAuthPendingState state;
    AuthResponse response;
    if (!takePending(pendingId, state, response)) {
        return response;
    }
    failPending(response, state, fail::DOUBLE_AUTH_TIMEOUT);
    if (state.user) {
        response.failedRelays = scheduleRelays(state.user->scheduleRelay);
    }
    AuthLogger::info("[DoubleAuthProcessor:%d] pendingId=%s timed out, failedRelays=%s, result=%s",
                     __LINE__, pendingId.c_str(), joinRelayVector(response.failedRelays).c_str(),
                     AuthLogger::authResultToString(FAILED));
    return response;
}

AuthResponse DoubleAuthProcessor::cancel(const std::string& pendingId, const std::string& reason) {
    DoubleAuthPendingState state;
    AuthResponse response;
    if (!takePending(pendingId, state, response)) {
        return response;
    }
    failPending(response, state, fail::NONE);
    response.reason = reason;
    AuthLogger::info("[DoubleAuthProcessor:%d] pendingId=%s cancelled, result=%s", __LINE__,
                     pendingId.c_str(), AuthLogger::authResultToString(FAILED));
    return response;
}

void DoubleAuthProcessor::reset() {
    std::lock_guard<std::mutex> lock(mutex);
    pendingStates.clear();
}

std::size_t DoubleAuthProcessor::pendingCount() {
    std::lock_guard<std::mutex> lock(mutex);
    return pendingStates.size();
}

void DoubleAuthProcessor::lazyCleanup(int64_t nowMs) {
    for (auto entry = pendingStates.begin(); entry != pendingStates.end();) {
        const int64_t expireMs = entry->second.expireMs;
        if (expireMs >= 1 && expireMs <= nowMs) {
            entry = pendingStates.erase(entry);
        } else {
            ++entry;
        }
    }
}

bool DoubleAuthProcessor::getOrderedPair(int mode, int& first, int& second) {
    switch (mode) {
        case DOUBLE_AUTH_MODE_FACE_CARD:
            first = OPEN_TYPE_FACE;
            second = OPEN_TYPE_CARD;
            return true;
        case DOUBLE_AUTH_MODE_FACE_PIN:
            first = OPEN_TYPE_FACE;
            second = OPEN_TYPE_PIN;
            return true;
        case DOUBLE_AUTH_MODE_PIN_CARD:
            first = OPEN_TYPE_PIN;
            second = OPEN_TYPE_CARD;
            return true;
        case DOUBLE_AUTH_MODE_CARD_PIN:
            first = OPEN_TYPE_CARD;
            second = OPEN_TYPE_PIN;
            return true;
        default:
            return false;
    }
}

bool DoubleAuthProcessor::matchesFactor(int actual, int expected) {
    switch (expected) {
        case OPEN_TYPE_PIN:
            return actual == OPEN_TYPE_PIN || actual == OPEN_TYPE_PIN_5 ||
                   actual == OPEN_TYPE_PIN_7 || actual == OPEN_TYPE_PIN_19;
        case OPEN_TYPE_CARD:
            return actual == OPEN_TYPE_CARD || actual == OPEN_TYPE_CARD_6 ||
                   actual == OPEN_TYPE_CARD_8;
        default:
            return actual == expected;
    }
}

bool DoubleAuthProcessor::isParticipatingType(int openType) {
    return openType == OPEN_TYPE_FACE || matchesFactor(openType, OPEN_TYPE_PIN) ||
           matchesFactor(openType, OPEN_TYPE_CARD);
}

bool DoubleAuthProcessor::isSameUser(const UserData& a, const UserData& b) {
    // The kind and type numbers alone are shared by many people; the identifier decides whenever
    // the host supplies one (two empty identifiers compare equal).
    return a.ownerKind == b.ownerKind && a.userType == b.userType && a.userId == b.userId;
}

int DoubleAuthProcessor::composeReader(int firstReader, int secondReader, IDataProvider& provider) {
    std::vector<ReaderType> priority;
    if (!provider.getReaderPriority(priority) || priority.empty()) {
        priority = {READER_TYPE_EXTERNAL_2, READER_TYPE_EXTERNAL_1, READER_TYPE_INTERNAL};
    }
    for (const ReaderType reader : priority) {
        if (reader == firstReader || reader == secondReader) {
            return reader;
        }
    }
    return secondReader;
}

void DoubleAuthProcessor::fillPendingResponse(AuthResponse& response,
                                              const DoubleAuthPendingState& state) {
    response.doubleAuthPendingId = state.pendingId;
    response.doubleAuthMode = state.mode;
    response.doubleAuthFirstType = state.firstType;
    response.doubleAuthNextType = state.nextType;
    response.doubleAuthTimeoutSec = static_cast<int>((state.expireMs - state.createdMs) / 1000);
    response.doubleAuthReaderType = state.readerType;
    response.doubleAuthCredential = state.credential;
    if (state.user) {
        response.user = state.user;
        response.doubleAuthUserKey = state.user->userType;
        response.doubleAuthUserKind = state.user->ownerKind;
        response.doubleAuthUserText1 = state.user->userName;
        response.doubleAuthUserText2 = state.user->userId;
    }
}

std::string DoubleAuthProcessor::generatePendingId() {
    // Wrap instead of overflowing; ids only need to differ from those still pending.
    if (pendingCounter == INT_MAX) {
        pendingCounter = 0;
    }
    ++pendingCounter;
    return "double-" + std::to_string(pendingCounter);
}

int64_t DoubleAuthProcessor::nowMs() {
    return AuthClock::now() * 1000;
}

bool DoubleAuthProcessor::takePending(const std::string& pendingId, DoubleAuthPendingState& state,
                                      AuthResponse& response) {
    std::lock_guard<std::mutex> lock(mutex);
    const auto entry = pendingStates.find(pendingId);
    if (entry == pendingStates.end()) {
        response = buildPendingNotFoundResponse(pendingId);
        return false;
    }
    state = entry->second;
    pendingStates.erase(entry);
    return true;
}

void DoubleAuthProcessor::failPending(AuthResponse& response, const DoubleAuthPendingState& state,
                                      int failCode) {
    fillPendingResponse(response, state);
    response.result = FAILED;
    response.failCode = failCode;
}

AuthResponse DoubleAuthProcessor::buildPendingNotFoundResponse(const std::string& pendingId) {
    AuthResponse response;
    response.result = FAILED;
    response.failCode = fail::UNKNOWN_PENDING_ID;
    response.doubleAuthPendingId = pendingId;
    return response;
}

}  // namespace processors
}  // namespace auth_engine
