// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// The run-time side of version.h: compiled into the library, so that it reports the library that
// was loaded, not the headers a host was built with.
#include "auth_engine/version.h"

namespace auth_engine {

const char* libraryVersion() {
    return AUTH_ENGINE_VERSION_STRING;
}

}  // namespace auth_engine
