// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// Removes the relays in lockdown unless the user holds a lockdown bypass.
#pragma once

#include <string>

#include "auth_engine/IAuthProcessor.h"
#include "auth_engine/IDataProvider.h"

namespace auth_engine {
namespace processors {

class LockDownProcessor : public IAuthProcessor {
public:
    AuthResult process(AuthContext& context, IDataProvider& provider) override;
    std::string getName() const override { return chain::LOCK_DOWN; }
};

}  // namespace processors
}  // namespace auth_engine
