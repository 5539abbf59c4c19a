// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// Calls into host code (provider operations, processors, callbacks) with every throw caught and
// logged. A template rather than a std::function parameter: the call sits on every step of every
// decision, and wrapping a lambda with several captures in a std::function allocates.
#pragma once

#include <exception>
#include <utility>

#include "auth_engine/AuthLogger.h"

namespace auth_engine {

/// Runs `fn`; a throw is logged with `what` and false is returned.
template <typename Fn>
bool callHost(const char* what, Fn&& fn) {
    try {
        std::forward<Fn>(fn)();
        return true;
    } catch (const std::exception& e) {
        AuthLogger::error("[AuthEngine] %s threw: %s", what, e.what());
    } catch (...) {
        AuthLogger::error("[AuthEngine] %s threw: %s", what, "unknown exception");
    }
    return false;
}

}  // namespace auth_engine
