// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// A fixed number of card decisions, for counting instructions under
//   valgrind --tool=callgrind --toggle-collect=auth_bench_measured_decisions
//            auth_bench_instructions MODE COUNT
// which counts only what runs inside auth_bench_measured_decisions (set-up and warm-up excluded).
// Instruction counts do not depend on what else the machine is doing, so they compare builds and
// changes reliably where timings on a shared machine do not.
//   MODE  null   the full default chain, log lines dropped unformatted (AuthLogger::setNullSink)
//         empty  the full default chain, log lines formatted for an empty-bodied sink
//         traced the null mode with the library's TraceRecorder on (a ring of 256 events, secrets
//                hashed); also prints trace_bytes_per_decision=N, the JSON lines written per
//                decision
//         floor  the same decision written by hand
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "BenchProvider.h"
#include "FloorDecision.h"
#include "auth_engine/AuthFacade.h"
#include "auth_engine/Trace.h"

namespace {

enum Mode { CHAIN, FLOOR };

auth_engine::bench::BenchProvider* floorProvider = nullptr;

int runDecisions(int mode, int count) {
    using namespace auth_engine;
    const AuthRequest request = bench::cardRequest();
    int granted = 0;
    for (int i = 0; i < count; ++i) {
        const AuthResponse response = mode == FLOOR
                                          ? bench::floorDecision(*floorProvider, request)
                                          : AuthFacade::getInstance().authenticate(request);
        granted += response.result == SUCCESS ? 1 : 0;
    }
    return granted;
}

}  // namespace

// Not inlined and not mangled, so that callgrind can switch collection on and off around it.
extern "C" __attribute__((noinline)) int auth_bench_measured_decisions(int mode, int count) {
    return runDecisions(mode, count);
}

int main(int argc, char** argv) {
    using namespace auth_engine;
    if (argc != 3) {
        std::fprintf(stderr, "usage: %s null|empty|traced|floor COUNT\n", argv[0]);
        return 2;
    }
    const int count = std::atoi(argv[2]);
    Mode mode = CHAIN;
    std::shared_ptr<TraceRecorder> recorder;
    if (std::strcmp(argv[1], "null") == 0) {
        bench::useLogging(bench::Logging::NULL_SINK);
    } else if (std::strcmp(argv[1], "traced") == 0) {
        bench::useLogging(bench::Logging::NULL_SINK);
        recorder = std::make_shared<TraceRecorder>(256);
        AuthFacade::getInstance().setTraceSink(recorder);  // before init: operations too
    } else if (std::strcmp(argv[1], "empty") == 0) {
        bench::useLogging(bench::Logging::EMPTY_SINK);
    } else if (std::strcmp(argv[1], "floor") == 0) {
        mode = FLOOR;
    } else {
        std::fprintf(stderr, "unknown mode %s\n", argv[1]);
        return 2;
    }
    auto provider = std::make_shared<bench::BenchProvider>();
    floorProvider = provider.get();
    bench::FacadeSession session(provider);
    // Warm-up outside the counted function: time zone loading, first allocations.
    const int warm = runDecisions(mode, 20);
    const uint64_t eventsBefore = recorder ? recorder->recorded() : 0;
    const int granted = auth_bench_measured_decisions(mode, count);
    if (recorder && recorder->size() > 0) {
        // The kept events are all of measured decisions (the ring is smaller than their number).
        const std::string lines = recorder->jsonLines();
        const std::size_t header = lines.find('\n') + 1;
        const double perEvent =
            static_cast<double>(lines.size() - header) / static_cast<double>(recorder->size());
        const double eventsPerDecision =
            static_cast<double>(recorder->recorded() - eventsBefore) / count;
        std::printf("trace_events_per_decision=%.1f\ntrace_bytes_per_decision=%.0f\n",
                    eventsPerDecision, perEvent * eventsPerDecision);
        AuthFacade::getInstance().setTraceSink(nullptr);
    }
    if (!session.ready() || warm != 20 || granted != count) {
        std::fprintf(stderr, "decisions were refused (%d of %d granted)\n", granted, count);
        return 1;
    }
    return 0;
}
