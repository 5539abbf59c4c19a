// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// Authorises an open triggered by one of the device's inputs (relays "1" and "2" only).
#pragma once

#include <string>

#include "auth_engine/IAuthProcessor.h"
#include "auth_engine/IDataProvider.h"

namespace auth_engine {
namespace processors {

class InputProcessor : public IAuthProcessor {
public:
    AuthResult process(AuthContext& context, IDataProvider& provider) override;
    std::string getName() const override { return chain::INPUT; }
};

}  // namespace processors
}  // namespace auth_engine
