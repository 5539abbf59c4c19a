// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

#include "support/CallbackRecorder.h"

#include <chrono>
#include <stdexcept>

namespace auth_engine {
namespace testing {

AuthCallback CallbackRecorder::callback() {
    return [this](const std::string& requestId, const AuthResponse& response,
                  const AuthContext& context) {
        {
            std::lock_guard<std::mutex> guard(mutex);
            calls.push_back(Call{requestId, response, context});
        }
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
    if (index >= calls.size()) {
        throw std::out_of_range("no such callback");
    }
    return calls[index];
}

std::vector<CallbackRecorder::Call> CallbackRecorder::all() {
    std::lock_guard<std::mutex> guard(mutex);
    return calls;
}

std::vector<CallbackRecorder::Call> CallbackRecorder::forId(const std::string& requestId) {
    std::lock_guard<std::mutex> guard(mutex);
    std::vector<Call> matching;
    for (const auto& call : calls) {
        if (call.requestId == requestId) {
            matching.push_back(call);
        }
    }
    return matching;
}

void CallbackRecorder::clear() {
    std::lock_guard<std::mutex> guard(mutex);
    calls.clear();
}

}  // namespace testing
}  // namespace auth_engine
