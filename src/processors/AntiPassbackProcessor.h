// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// Asks the host, relay by relay, whether the user may pass a relay under anti-passback. In the
// chain (process) it sends the questions and later sums the answers up; in the independent relay
// phase (processRelays) it only sends them and the engine sums them up.
#pragma once

#include <string>
#include <vector>

#include "auth_engine/IAuthProcessor.h"
#include "auth_engine/IDataProvider.h"
#include "common/HostQuestions.h"

namespace auth_engine {
class AuthEngine;
namespace processors {

class AntiPassbackProcessor : public HostAskingProcessor {
public:
    AuthResult process(AuthContext& context, IDataProvider& provider) override;
    std::string getName() const override { return chain::ANTI_PASSBACK; }
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
    void sendPerRelay(AuthContext& context, IDataProvider& provider, bool logLines) const;
};

}  // namespace processors
}  // namespace auth_engine
