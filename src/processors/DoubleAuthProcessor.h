// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// Two-factor opening: a first factor is held as a pending state; a second factor of the configured
// kind, of the same user, within the timeout, continues the chain as one authentication.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "auth_engine/IAuthProcessor.h"
#include "auth_engine/IDataProvider.h"

namespace auth_engine {
namespace processors {

/// A first factor waiting for its second.
class DoubleAuthPendingState {
public:
    std::string pendingId;  ///< "double-N"
    int mode = 0;
    int firstType = 0;
    int nextType = 0;
    int readerType = 0;
    int direction = 0;
    int64_t createdMs = 0;
    int64_t expireMs = 0;  ///< below 1: never expires
    std::shared_ptr<UserData> user;
    std::string credential;
    std::string requestText;
};

class DoubleAuthProcessor : public IAuthProcessor {
public:
    AuthResult process(AuthContext& context, IDataProvider& provider) override;
    std::string getName() const override { return chain::DOUBLE_AUTH; }

    AuthResponse handleTimeout(const std::string& pendingId);
    AuthResponse cancel(const std::string& pendingId, const std::string& reason);
    void reset();
    std::size_t pendingCount();

private:
    void lazyCleanup(int64_t nowMs);  // caller holds mutex
    static bool getOrderedPair(int mode, int& first, int& second);
    static bool matchesFactor(int actual, int expected);
    static bool isParticipatingType(int openType);
    static bool isSameUser(const UserData& a, const UserData& b);
    static int composeReader(int firstReader, int secondReader, IDataProvider& provider);
    static void fillPendingResponse(AuthResponse& response, const DoubleAuthPendingState& state);
    std::string generatePendingId();  // caller holds mutex
    static int64_t nowMs();
    static AuthResponse buildPendingNotFoundResponse(const std::string& pendingId);
    /// Fills `response` as a FAILED report of `state` with `failCode`.
    static void failPending(AuthResponse& response, const DoubleAuthPendingState& state,
                            int failCode);
    /// Removes the first factor waiting under `pendingId` into `state`; false, with `response` set
    /// to the not-found response, when none waits. Takes mutex.
    bool takePending(const std::string& pendingId, DoubleAuthPendingState& state,
                     AuthResponse& response);

    std::map<std::string, DoubleAuthPendingState> pendingStates;
    int pendingCounter = 0;
    std::mutex mutex;
};

}  // namespace processors
}  // namespace auth_engine
