// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

/// @file export.h
/// @brief AUTH_ENGINE_API marks what the library exports.
///
/// The library is compiled with hidden visibility: only classes and functions marked here are
/// visible to a host, so that the engine and its processors can change without breaking the
/// binary interface. The same marking serves the shared and the static library and the hosts that
/// include these headers. Define AUTH_ENGINE_API before including a header to override it.
#pragma once

#ifndef AUTH_ENGINE_API
#if defined(__GNUC__) || defined(__clang__)
#define AUTH_ENGINE_API __attribute__((visibility("default")))
#else
#define AUTH_ENGINE_API
#endif
#endif
