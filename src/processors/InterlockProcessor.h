// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// Asks the host, relay by relay, whether an interlocked relay may open now. Serves the chain, the
// independent interlock phase, and the engine's retry of unanswered relays after a timeout.
#pragma once

#include <string>
#include <vector>

#include "auth_engine/IAuthProcessor.h"
#include "auth_engine/IDataProvider.h"
#include "common/HostQuestions.h"

namespace auth_engine {
class AuthEngine;
namespace processors {

class InterlockProcessor : public HostAskingProcessor {
public:
    AuthResult process(AuthContext& context, IDataProvider& provider) override;
    std::string getName() const override { return chain::INTERLOCK; }
    AuthResult processRelays(AuthContext& context, IDataProvider& provider,
                             const std::vector<std::string>& relays);
    AuthResult retryPendingRelays(AuthContext& context, IDataProvider& provider,
                                  const std::vector<std::string>& relays);
    /// Asks through `owner`'s questions (the engine hands itself over when it creates the
    /// processor).
    void setEngine(AuthEngine* owner) { attachQuestions(hostQuestionsOf(owner)); }

private:
    /// The chain's second pass: the host's answers decide each relay asked.
    AuthResult decideAnswers(AuthContext& context) const;
    void askRelay(AuthContext& context, IDataProvider& provider, const std::string& requestId,
                  const std::string& relay) const;
};

}  // namespace processors
}  // namespace auth_engine
