// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// Resolves who is asking: public and latch PINs, the credential owner, the vehicle key record,
// DTMF visitors; an unknown user fails or is left to double authentication.
#pragma once

#include <string>

#include "auth_engine/IAuthProcessor.h"
#include "auth_engine/IDataProvider.h"

namespace auth_engine {
namespace processors {

class UserLookupProcessor : public IAuthProcessor {
public:
    AuthResult process(AuthContext& context, IDataProvider& provider) override;
    std::string getName() const override { return chain::USER_LOOKUP; }
};

}  // namespace processors
}  // namespace auth_engine
