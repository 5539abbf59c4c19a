// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// Whether the library's log lines go anywhere. A null sink drops lines before formatting them, but
// the arguments are still built by the caller: text that exists only for a log line (joined relay
// lists, counts that need a pass of their own) is built only when this says lines are wanted.
#pragma once

namespace auth_engine {

/// False while AuthLogger::setNullSink is in force.
bool logLinesWanted();

}  // namespace auth_engine
