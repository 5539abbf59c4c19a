// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// Authorises an HTTP open command: valid targets, HTTP opening enabled, credentials.
#pragma once

#include <string>

#include "auth_engine/IAuthProcessor.h"
#include "auth_engine/IDataProvider.h"

namespace auth_engine {
namespace processors {

class HttpProcessor : public IAuthProcessor {
public:
    AuthResult process(AuthContext& context, IDataProvider& provider) override;
    std::string getName() const override { return chain::HTTP; }
};

}  // namespace processors
}  // namespace auth_engine
