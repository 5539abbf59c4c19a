// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// Asks the host once per request whether a plate user of kind 1 may open relays under parking
// restriction. An offline host lets the user through.
#pragma once

#include <string>
#include <vector>

#include "auth_engine/IAuthProcessor.h"
#include "auth_engine/IDataProvider.h"
#include "common/HostQuestions.h"

namespace auth_engine {
class AuthEngine;
namespace processors {

class ParkingRestrictionProcessor : public HostAskingProcessor {
public:
    AuthResult process(AuthContext& context, IDataProvider& provider) override;
    std::string getName() const override { return chain::PARKING_RESTRICTION; }
    AuthResult processRelays(AuthContext& context, IDataProvider& provider,
                             const std::vector<std::string>& relays);
    /// The same, decided under `config` (the engine's reading at the post-sync split) instead of
    /// a reading of its own.
    AuthResult processRelays(AuthContext& context, IDataProvider& provider,
                             const std::vector<std::string>& relays, const AuthConfig& config);
    /// Asks through `owner`'s questions (the engine hands itself over when it creates the
    /// processor).
    void setEngine(AuthEngine* owner) { attachQuestions(hostQuestionsOf(owner)); }

private:
    std::string askHost(AuthContext& context, IDataProvider& provider) const;
};

}  // namespace processors
}  // namespace auth_engine
