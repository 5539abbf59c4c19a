// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// The one guard around every call into host code (provider operations, processors, callbacks):
// whatever the host throws is caught and logged, and the engine goes on. And the one way a verdict
// reaches the host: onAuthResult, then the completion callback.
#pragma once

#include <exception>
#include <string>
#include <utility>

#include "auth_engine/AuthLogger.h"
#include "auth_engine/AuthTypes.h"
#include "auth_engine/IDataProvider.h"

namespace auth_engine {

/// Runs `fn`; a throw is logged with `what` and false is returned. A template rather than a
/// std::function parameter: it sits on every step of every decision, and wrapping a lambda with
/// several captures in a std::function allocates.
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

/// Calls `callback` (when set) with the context's id, response and context, guarded.
void callBack(const AuthCallback& callback, const AuthContext& context);

/// Reports a verdict: onAuthResult(context, context.response.result) when `host` is set, then the
/// callback; each guarded on its own.
void reportToHost(IDataProvider* host, const AuthContext& context, const AuthCallback& callback);

}  // namespace auth_engine
