// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// authsim's side of the library's trace: recording a run (run --trace, run --html), replaying a
// trace against the engine (replay), drawing one as a page (--html).
#pragma once

#include <memory>
#include <string>

#include <auth_engine/Trace.h>

#include "TraceFile.h"

namespace authsim {

/// Where a run writes its trace and its page (empty: not written).
struct TraceOutput {
    std::string traceFile;
    std::string htmlFile;
};

/// Records the engine while it lives, when `output` asks for a trace or a page: installs a
/// TraceRecorder as the facade's trace sink (before the engines start) and removes it at the end.
class TraceCapture {
public:
    explicit TraceCapture(TraceOutput output);
    ~TraceCapture();
    TraceCapture(const TraceCapture&) = delete;
    TraceCapture& operator=(const TraceCapture&) = delete;
    /// Writes the files asked for; false (with a message) when one cannot be written.
    bool write() const;

private:
    TraceOutput output;
    std::shared_ptr<auth_engine::TraceRecorder> recorder;
};

/// Replays `trace` against the engine and checks every report against the recorded one; prints
/// the first divergence with the events around it. @return the exit status (0 or 1).
int replayTrace(const TraceData& trace, const std::string& htmlFile);

/// Writes a site and a scenario that reproduce `trace` (trace-to-scenario), and checks them as
/// authsim checks its inputs. Prints a warning for each part of the trace they cannot express, and
/// refuses (a message naming the event) a trace whose calls a scenario cannot make.
/// @return the exit status (0, or 2 for a trace refused or a file not written)
int traceToScenario(const TraceData& trace, const std::string& siteFile,
                    const std::string& scenarioFile);

/// Writes a self-contained page with one timeline per attempt. `divergence` (0: none) marks the
/// event where a replay went another way. False when the file cannot be written.
bool writeTraceHtml(const TraceData& trace, const std::string& file, uint64_t divergence = 0);

}  // namespace authsim
