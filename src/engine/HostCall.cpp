// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// Reporting a verdict to the host, each call guarded.
#include "engine/HostCall.h"

namespace auth_engine {

void callBack(const AuthCallback& callback, const AuthContext& context) {
    if (callback) {
        callHost("callback", [&] { callback(context.requestId, context.response, context); });
    }
}

void reportToHost(IDataProvider* host, const AuthContext& context, const AuthCallback& callback) {
    if (host != nullptr) {
        callHost("onAuthResult", [&] { host->onAuthResult(context, context.response.result); });
    }
    callBack(callback, context);
}

}  // namespace auth_engine
