// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// The trace's hub: the sink events go to, the per-thread buffer a line is written into, the
// numbering of facade calls, and clock readings.
#include "trace/TraceHub.h"

#include <chrono>
#include <mutex>
#include <utility>

#include "trace/ClockHook.h"

namespace auth_engine {
namespace trace {

std::atomic<bool> sinkSet{false};

namespace {

struct Hub {
    std::mutex sinkMutex;
    std::shared_ptr<TraceSink> sink;
    // Emitting is serialised, so that a clock event is always followed by the event it precedes.
    std::mutex emitMutex;
    int64_t writtenNow = 0;
    int64_t writtenUptime = 0;
    std::atomic<int64_t> readNow{0};
    std::atomic<int64_t> readUptime{0};
    std::atomic<uint64_t> calls{0};
    const std::chrono::steady_clock::time_point start = std::chrono::steady_clock::now();
};

Hub& hub() {
    static Hub instance;
    return instance;
}

}  // namespace

void setSink(std::shared_ptr<TraceSink> sink) {
    Hub& h = hub();
    const bool on = sink != nullptr;
    {
        std::lock_guard<std::mutex> lock(h.sinkMutex);
        h.sink = std::move(sink);
    }
    {
        // A new sink starts with every clock written afresh.
        std::lock_guard<std::mutex> lock(h.emitMutex);
        h.writtenNow = 0;
        h.writtenUptime = 0;
    }
    setClockTracing(on);
    sinkSet.store(on, std::memory_order_relaxed);
}

std::shared_ptr<TraceSink> currentSink() {
    Hub& h = hub();
    std::lock_guard<std::mutex> lock(h.sinkMutex);
    return h.sink;
}

std::string& buffer() {
    thread_local std::string text;
    text.clear();
    return text;
}

void clockRead(bool wall, int64_t value) {
    Hub& h = hub();
    (wall ? h.readNow : h.readUptime).store(value, std::memory_order_relaxed);
}

void emit(TraceSink& sink, TraceKind kind, const char* name, const std::string& fields) {
    Hub& h = hub();
    TraceEvent event;
    event.uptime = untracedUptime();
    event.wall = untracedNow();
    event.micros = std::chrono::duration_cast<std::chrono::microseconds>(
                       std::chrono::steady_clock::now() - h.start)
                       .count();
    std::lock_guard<std::mutex> lock(h.emitMutex);
    const int64_t now = h.readNow.load(std::memory_order_relaxed);
    const int64_t uptime = h.readUptime.load(std::memory_order_relaxed);
    if ((now != 0 && now != h.writtenNow) || (uptime != 0 && uptime != h.writtenUptime)) {
        // The readings are written as the engine made them, so that a replay can set its clocks to
        // them; idle sweeps that read the same values again add nothing.
        h.writtenNow = now != 0 ? now : h.writtenNow;
        h.writtenUptime = uptime != 0 ? uptime : h.writtenUptime;
        thread_local std::string clockFields;
        clockFields.clear();
        clockFields += "\"now\":" + std::to_string(h.writtenNow) +
                       ",\"uptime\":" + std::to_string(h.writtenUptime);
        TraceEvent clock = event;
        clock.kind = TraceKind::CLOCK;
        clock.name = "readings";
        clock.fields = clockFields.c_str();
        clock.fieldsLength = clockFields.size();
        sink.record(clock);
    }
    event.kind = kind;
    event.name = name;
    event.fields = fields.c_str();
    event.fieldsLength = fields.size();
    sink.record(event);
}

uint64_t nextCall() {
    return hub().calls.fetch_add(1, std::memory_order_relaxed) + 1;
}

uint64_t& currentCall() {
    thread_local uint64_t call = 0;
    return call;
}

}  // namespace trace
}  // namespace auth_engine
