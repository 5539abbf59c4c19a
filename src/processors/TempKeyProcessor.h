// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// Has a temporary key validated by a remote service through the host: the first pass asks and parks
// the request, the second pass (resumed with the answer in context.tempKeyAuthData) turns the
// answer into a user and targets, or a failure.
#pragma once

#include <string>

#include "auth_engine/IAuthProcessor.h"
#include "auth_engine/IDataProvider.h"
#include "common/HostQuestions.h"

namespace auth_engine {
class AuthEngine;
namespace processors {

class TempKeyProcessor : public HostAskingProcessor {
public:
    AuthResult process(AuthContext& context, IDataProvider& provider) override;
    std::string getName() const override { return chain::TEMP_KEY; }
    /// Asks through `owner`'s questions (the engine hands itself over when it creates the
    /// processor).
    void setEngine(AuthEngine* owner) { attachQuestions(hostQuestionsOf(owner)); }
};

}  // namespace processors
}  // namespace auth_engine
