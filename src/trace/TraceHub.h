// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// Where trace events are made: the sink the facade was given, the clock readings the engine made
// since the last event, and the per-thread buffer events are written into. With no sink set, the
// only cost anywhere is the relaxed load in active().
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "auth_engine/Trace.h"

namespace auth_engine {
namespace trace {

/// Set while a sink is installed (relaxed: a call that misses a sink set at the same moment is
/// simply not recorded).
extern std::atomic<bool> sinkSet;

inline bool active() {
    return sinkSet.load(std::memory_order_relaxed);
}

/// Installs (or, with an empty pointer, removes) the sink; also switches the clock hook.
void setSink(std::shared_ptr<TraceSink> sink);
std::shared_ptr<TraceSink> currentSink();

/// The buffer of the calling thread, emptied. An event is written into it and emitted before any
/// host code runs, so one buffer per thread is enough.
std::string& buffer();

/// Hands the buffer's text to `sink` as one event, preceded by a clock event when the engine read
/// a clock value different from the last one written.
void emit(TraceSink& sink, TraceKind kind, const char* name, const std::string& fields);

/// A number for each facade call, so that its completion callbacks and its reports can name it.
uint64_t nextCall();
/// The facade call running on this thread (0: none); reports made inside it name it.
uint64_t& currentCall();

/// Called by AuthClock for each reading while tracing is on.
void clockRead(bool wall, int64_t value);

}  // namespace trace
}  // namespace auth_engine
