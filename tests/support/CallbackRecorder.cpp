// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

#include "support/CallbackRecorder.h"

#include <algorithm>
#include <chrono>

namespace auth_engine {
namespace testing {

AuthCallback CallbackRecorder::callback() {
    return [this](const std::string& requestId, const AuthResponse& response,
                  const AuthContext& context) {
        std::lock_guard<std::mutex> guard(mutex);
        calls.push_back(Call{requestId, response, context});
        arrived.notify_all();
    };
}

bool CallbackRecorder::waitFor(std::size_t count, int timeoutMs) {
    std::unique_lock<std::mutex> guard(mutex);
    return arrived.wait_for(guard, std::chrono::milliseconds(timeoutMs),
                            [&] { return calls.size() >= count; });
}

std::size_t CallbackRecorder::count() {
    std::lock_guard<std::mutex> guard(mutex);
    return calls.size();
}

CallbackRecorder::Call CallbackRecorder::at(std::size_t index) {
    std::lock_guard<std::mutex> guard(mutex);
    return calls.at(index);
}

std::vector<CallbackRecorder::Call> CallbackRecorder::all() {
    std::lock_guard<std::mutex> guard(mutex);
    return calls;
}

std::vector<CallbackRecorder::Call> CallbackRecorder::forId(const std::string& requestId) {
    std::vector<Call> matching = all();
    matching.erase(std::remove_if(matching.begin(), matching.end(),
                                  [&](const Call& call) { return call.requestId != requestId; }),
                   matching.end());
    return matching;
}

void CallbackRecorder::clear() {
    std::lock_guard<std::mutex> guard(mutex);
    calls.clear();
}

}  // namespace testing
}  // namespace auth_engine
