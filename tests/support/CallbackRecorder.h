// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// Records completion callbacks; tests wait for them instead of sleeping.
#pragma once

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <string>
#include <vector>

#include "auth_engine/AuthLogger.h"
#include "auth_engine/AuthTypes.h"

namespace auth_engine {
namespace testing {

class CallbackRecorder {
public:
    struct Call {
        std::string requestId;
        AuthResponse response;
        AuthContext context;
    };

    /// A callback that records into this recorder. The recorder must outlive every call of it.
    AuthCallback callback() {
        return [this](const std::string& requestId, const AuthResponse& response,
                      const AuthContext& context) {
            std::lock_guard<std::mutex> guard(mutex);
            calls.push_back(Call{requestId, response, context});
            arrived.notify_all();
        };
    }
    /// Waits until at least `count` calls arrived; false on timeout.
    bool waitFor(std::size_t count, int timeoutMs = 5000) {
        std::unique_lock<std::mutex> guard(mutex);
        return arrived.wait_for(guard, std::chrono::milliseconds(timeoutMs),
                                [&] { return calls.size() >= count; });
    }
    std::size_t count() {
        std::lock_guard<std::mutex> guard(mutex);
        return calls.size();
    }
    Call at(std::size_t index) {
        std::lock_guard<std::mutex> guard(mutex);
        return calls.at(index);
    }
    std::vector<Call> all() {
        std::lock_guard<std::mutex> guard(mutex);
        return calls;
    }
    /// Calls whose id equals `requestId`.
    std::vector<Call> forId(const std::string& requestId) {
        std::vector<Call> matching = all();
        matching.erase(
            std::remove_if(matching.begin(), matching.end(),
                           [&](const Call& call) { return call.requestId != requestId; }),
            matching.end());
        return matching;
    }
    void clear() {
        std::lock_guard<std::mutex> guard(mutex);
        calls.clear();
    }

private:
    std::mutex mutex;
    std::condition_variable arrived;
    std::vector<Call> calls;
};

/// Targets in one line: " type:relay" for each.
inline std::string targetsOf(const std::vector<AuthTarget>& targets) {
    std::string text;
    for (const AuthTarget& target : targets) {
        text += " " + std::to_string(target.type) + ":" + target.relay;
    }
    return text;
}

/// A report in one line: "RESULT failCode 'reason' [opened] [failed]", then " type:relay" for each
/// target.
inline std::string said(const AuthResponse& r) {
    static const char* const kNames[] = {"SUCCESS", "FAILED", "ASYNC_PENDING",  "CONTINUE",
                                         "DROPPED", "DOUBLE", "UNLOCK_OPTIONS", "IGNORED"};
    std::string text = std::string(r.result >= 0 && r.result <= IGNORED ? kNames[r.result] : "?") +
                       " " + std::to_string(r.failCode) + " '" + r.reason + "' [" +
                       joinRelayVector(r.openedRelays) + "] [" + joinRelayVector(r.failedRelays) +
                       "]";
    return text + targetsOf(r.targets);
}

/// A callback in one line: "id " + said(response) + " asyncType relay:reason...", with the
/// context's id when it is not the one called back.
inline std::string said(const CallbackRecorder::Call& call) {
    std::string text = call.requestId + " " + said(call.response) + " " + call.response.asyncType;
    text += call.context.requestId == call.requestId ? "" : " context " + call.context.requestId;
    for (const auto& reason : call.context.relayFailReasons) {
        text += " " + reason.first + ":" + reason.second;
    }
    return text;
}

}  // namespace testing
}  // namespace auth_engine
