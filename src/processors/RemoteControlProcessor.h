// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// Opens the targets of a remote controller's command for a known remote user, or under a
// synthetic "command-authorized" user when the command names targets.
#pragma once

#include <string>

#include "auth_engine/IAuthProcessor.h"
#include "auth_engine/IDataProvider.h"

namespace auth_engine {
namespace processors {

class RemoteControlProcessor : public IAuthProcessor {
public:
    AuthResult process(AuthContext& context, IDataProvider& provider) override;
    std::string getName() const override { return chain::REMOTE_CONTROL; }
};

}  // namespace processors
}  // namespace auth_engine
