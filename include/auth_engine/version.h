// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

/// @file version.h
/// @brief The library's version, at compile time (these macros) and at run time (libraryVersion).
///
/// A host that compares the two learns whether it runs against the library it was built with.
#pragma once

#include "auth_engine/export.h"

#define AUTH_ENGINE_VERSION_MAJOR 0
#define AUTH_ENGINE_VERSION_MINOR 2
#define AUTH_ENGINE_VERSION_PATCH 0
#define AUTH_ENGINE_VERSION_STRING "0.2.0"

namespace auth_engine {

/// The version of the library the process actually runs, "MAJOR.MINOR.PATCH", for a host's log.
AUTH_ENGINE_API const char* libraryVersion();

}  // namespace auth_engine
