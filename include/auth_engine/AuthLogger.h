// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

/// @file AuthLogger.h
/// @brief Logging and relay-list helpers.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "auth_engine/AuthTypes.h"
#include "auth_engine/export.h"

namespace auth_engine {

/// Logging of the library. Both levels format printf-style and go to the system log (vsyslog) with
/// priority 3; nothing is added to the text. setSink redirects every line (tests, hosts with their
/// own log); an empty function restores vsyslog. Host-supplied text is never used as a format.
class AUTH_ENGINE_API AuthLogger {
public:
    static void info(const char* format, ...) __attribute__((format(printf, 1, 2)));
    static void error(const char* format, ...) __attribute__((format(printf, 1, 2)));
    /// "SUCCESS", "FAILED", "ASYNC_PENDING", "CONTINUE", "IGNORED", and "UNKNOWN" for every other
    /// value.
    static const char* authResultToString(AuthResult result);
    /// Thread-safe. The sink is called on the logging thread and must not log through AuthLogger.
    /// Any call, with an empty function included, ends a null sink set by setNullSink.
    static void setSink(std::function<void(int priority, const std::string& line)> sink);
    /// Drops every line without formatting it, for hosts that keep no library log (and for
    /// measuring the engine without its logging). Thread-safe; setSink ends it.
    static void setNullSink();
};

/// Reads relay ids: single digits, or "S" followed by one letter; everything else is skipped
/// ("12" is the relays "1" and "2"). Order and repeats are kept.
AUTH_ENGINE_API std::vector<std::string> parseRelayString(const std::string& text);

/// Joins relay ids with "," (no spaces); an empty list gives an empty text.
AUTH_ENGINE_API std::string joinRelayVector(const std::vector<std::string>& relays);

}  // namespace auth_engine
