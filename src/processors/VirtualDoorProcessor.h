// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// Builds the relay schedule map from the user's schedule-relay text, restricts the requested
// relays to it, and applies the reader-to-door configuration (override or filter).
#pragma once

#include <string>

#include "auth_engine/IAuthProcessor.h"
#include "auth_engine/IDataProvider.h"

namespace auth_engine {
namespace processors {

class VirtualDoorProcessor : public IAuthProcessor {
public:
    AuthResult process(AuthContext& context, IDataProvider& provider) override;
    std::string getName() const override { return chain::VIRTUAL_DOOR; }
};

}  // namespace processors
}  // namespace auth_engine
