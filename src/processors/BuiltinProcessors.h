// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// The built-in processors in one table: chain name, how to make one, and whether it is a link of
// the default chain (the per-relay checks are registered but run only in the relay phases). The
// table's order is the default chain's.
#pragma once

#include <memory>
#include <vector>

#include "auth_engine/IAuthProcessor.h"

namespace auth_engine {
namespace processors {

struct BuiltinProcessor {
    const char* name;
    std::shared_ptr<IAuthProcessor> (*make)();
    bool inDefaultChain;
};

/// Every built-in processor, in the default chain's order.
const std::vector<BuiltinProcessor>& builtinProcessors();

}  // namespace processors
}  // namespace auth_engine
