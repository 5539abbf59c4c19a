// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// Records completion callbacks; tests wait for them instead of sleeping.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

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
    AuthCallback callback();
    /// Waits until at least `count` calls arrived; false on timeout.
    bool waitFor(std::size_t count, int timeoutMs = 5000);
    std::size_t count();
    Call at(std::size_t index);
    std::vector<Call> all();
    /// Calls whose id equals `requestId`.
    std::vector<Call> forId(const std::string& requestId);
    void clear();

private:
    std::mutex mutex;
    std::condition_variable arrived;
    std::vector<Call> calls;
};

}  // namespace testing
}  // namespace auth_engine
