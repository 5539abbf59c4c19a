// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// Turns a DTMF code entered during a call into relays and (when the host knows the caller) a user,
// asking the host's whitelist when the configuration requires it.
#pragma once

#include <string>

#include "auth_engine/IAuthProcessor.h"
#include "auth_engine/IDataProvider.h"

namespace auth_engine {
namespace processors {

class DtmfProcessor : public IAuthProcessor {
public:
    AuthResult process(AuthContext& context, IDataProvider& provider) override;
    std::string getName() const override { return chain::DTMF; }
};

}  // namespace processors
}  // namespace auth_engine
