// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// Timings of one decision: synchronously through the full default chain (three logging setups),
// the same decision written by hand (the floor), asynchronous round trips through the worker, park
// and resume round trips, and throughput with several host threads.
//
// Besides the usual console table (on stderr), every run is printed on stdout as one line
//   <name> real_ns=<wall time per iteration> cpu_ns=<thread CPU time> [<counter>=<value> ...]
// which scripts/bench turns into the summary table. Round trips report their median and 99th
// percentile as the counters p50_us and p99_us.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <iostream>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "BenchProvider.h"
#include "FloorDecision.h"
#include "auth_engine/AuthFacade.h"
#include "auth_engine/AuthLogger.h"
#include "auth_engine/Trace.h"

namespace auth_engine {
namespace bench {
namespace {

using Clock = std::chrono::steady_clock;

AuthFacade& facade() {
    return AuthFacade::getInstance();
}

// The moment a completion callback ran, handed to the benchmark thread.
class Completion {
public:
    void signal() {
        const Clock::time_point now = Clock::now();
        // Notified under the lock: the waiter may destroy this object as soon as it sees `done`.
        std::lock_guard<std::mutex> lock(mutex);
        at = now;
        done = true;
        changed.notify_one();
    }
    Clock::time_point wait() {
        std::unique_lock<std::mutex> lock(mutex);
        changed.wait(lock, [&] { return done; });
        done = false;
        return at;
    }

private:
    std::mutex mutex;
    std::condition_variable changed;
    bool done = false;
    Clock::time_point at;
};

// Median and 99th percentile of the round trips of the final run, in microseconds.
void reportPercentiles(benchmark::State& state, std::vector<double>& microseconds) {
    if (microseconds.empty()) {
        return;
    }
    std::sort(microseconds.begin(), microseconds.end());
    const auto at = [&](double fraction) {
        const auto index =
            static_cast<std::size_t>(fraction * static_cast<double>(microseconds.size() - 1));
        return microseconds[index];
    };
    state.counters["p50_us"] = at(0.50);
    state.counters["p99_us"] = at(0.99);
}

// Times each iteration from authenticateAsync to the completion's signal, with `answer` (the host
// answering its questions) in between, and reports the percentiles. False when a submission was
// refused.
template <typename Answer>
bool timeRoundTrips(benchmark::State& state, const AuthRequest& request,
                    const AuthCallback& callback, Completion& completion, Answer&& answer) {
    std::vector<double> samples;
    for (auto _ : state) {
        const Clock::time_point start = Clock::now();
        if (facade().authenticateAsync(request, callback).empty()) {
            state.SkipWithError("submission refused");
            return false;
        }
        answer();
        const std::chrono::duration<double> elapsed = completion.wait() - start;
        state.SetIterationTime(elapsed.count());
        samples.push_back(elapsed.count() * 1e6);
    }
    reportPercentiles(state, samples);
    return true;
}

// ---- synchronous decisions ----

void decision(benchmark::State& state, Logging logging) {
    auto provider = std::make_shared<BenchProvider>();
    FacadeSession session(provider);
    const AuthRequest request = cardRequest();
    useLogging(Logging::NULL_SINK);
    const AuthResponse engine = facade().authenticate(request);
    const AuthResponse floor = floorDecision(*provider, request);
    if (!session.ready() || engine.result != SUCCESS || !sameDecision(engine, floor)) {
        state.SkipWithError("the engine and the hand-written floor disagree");
        return;
    }
    useLogging(logging);
    for (auto _ : state) {
        AuthResponse response = facade().authenticate(request);
        benchmark::DoNotOptimize(response);
    }
    useLogging(Logging::NULL_SINK);
    state.SetItemsProcessed(state.iterations());
}

void BM_Decision_NullSink(benchmark::State& state) {
    decision(state, Logging::NULL_SINK);
}
void BM_Decision_EmptySink(benchmark::State& state) {
    decision(state, Logging::EMPTY_SINK);
}
void BM_Decision_Syslog(benchmark::State& state) {
    decision(state, Logging::SYSLOG);
}

// The null-sink decision with the library's TraceRecorder on (secrets hashed, a ring of 256
// events: it wraps during the first decisions, so that the measured ones reuse its slots).
void BM_Decision_Traced(benchmark::State& state) {
    auto recorder = std::make_shared<TraceRecorder>(256);
    facade().setTraceSink(recorder);  // before the session's init: operations are recorded too
    decision(state, Logging::NULL_SINK);
    facade().setTraceSink(nullptr);
}

void BM_Floor(benchmark::State& state) {
    BenchProvider provider;
    const AuthRequest request = cardRequest();
    for (auto _ : state) {
        AuthResponse response = floorDecision(provider, request);
        benchmark::DoNotOptimize(response);
    }
    state.SetItemsProcessed(state.iterations());
}

// A relay key naming 160,000 schedules (with repeats) for one relay, the host answering with 1,000
// of them: the work of a decision must grow with the host's data, not with its square.
void BM_RelayKey160kSchedules(benchmark::State& state) {
    auto provider = std::make_shared<BenchProvider>();
    provider->schedules.clear();
    for (int id = 1; id <= 1000; ++id) {
        auto schedule = std::make_shared<ScheduleData>();
        schedule->id = id * 160;
        schedule->type = 1;
        schedule->scheduleId = std::to_string(id * 160);
        schedule->startTime = "00:00:00";
        schedule->endTime = "23:59:59";
        provider->schedules.push_back(schedule);
    }
    FacadeSession session(provider);
    useLogging(Logging::NULL_SINK);
    AuthRequest request;
    request.openType = OPEN_TYPE_RELAY_KEY;
    request.relayKeyData = std::make_shared<RelayKeyAuthData>();
    for (int id = 1; id <= 160000; ++id) {
        request.relayKeyData->scheduleIds += std::to_string(id % 150000 + 1) + ";";
    }
    request.relayKeyData->targets = {{0, "1"}};
    for (auto _ : state) {
        AuthResponse response = facade().authenticate(request);
        if (response.result != SUCCESS || response.openedRelays.size() != 1) {
            state.SkipWithError("the relay key was not granted");
            break;
        }
        benchmark::DoNotOptimize(response);
    }
}

// ---- asynchronous round trips ----

// authenticateAsync to the completion callback: the queue, the worker's wake-up through the
// semaphore, the chain and the report.
void BM_AsyncRoundTrip(benchmark::State& state) {
    auto provider = std::make_shared<BenchProvider>();
    FacadeSession session(provider);
    useLogging(Logging::NULL_SINK);
    const AuthRequest request = cardRequest();
    Completion completion;
    const AuthCallback callback = [&completion](const std::string&, const AuthResponse&,
                                                const AuthContext&) { completion.signal(); };
    timeRoundTrips(state, request, callback, completion, [] {});
}

// A temporary-key attempt: the chain parks on the host's question, the host answers from its own
// thread, the worker resumes the chain and reports.
void BM_TempKeyRoundTrip(benchmark::State& state) {
    auto provider = std::make_shared<BenchProvider>();
    FacadeSession session(provider);
    useLogging(Logging::NULL_SINK);
    const AuthRequest request = tempKeyRequest();
    const AuthContext answer = tempKeyAnswer();
    AuthResponse granted;
    granted.result = SUCCESS;
    Completion completion;
    bool opened = true;
    const AuthCallback callback = [&](const std::string&, const AuthResponse& response,
                                      const AuthContext&) {
        opened = opened && response.result == SUCCESS && response.openedRelays.size() == 2;
        completion.signal();
    };
    const bool ran = timeRoundTrips(state, request, callback, completion, [&] {
        for (auto& question : provider->takeQuestions(1)) {
            question.callback("", granted, answer);
        }
    });
    if (ran && !opened) {
        state.SkipWithError("a temporary key was not granted");
    }
}

// A user under anti-passback on both relays: the chain passes, the relays are held back in an
// independent phase with one question per relay; the host answers both, the phase resumes and
// reports.
void BM_AntiPassbackRoundTrip(benchmark::State& state) {
    auto provider = std::make_shared<BenchProvider>();
    provider->config.antiPassbackEnabled = true;
    provider->config.antiPassbackRelayMap = {{"1", 1}, {"2", 1}};
    FacadeSession session(provider);
    useLogging(Logging::NULL_SINK);
    const AuthRequest request = antiPassbackRequest();
    AuthResponse passed;
    passed.result = SUCCESS;
    Completion completion;
    bool opened = true;
    const AuthCallback callback = [&](const std::string&, const AuthResponse& response,
                                      const AuthContext&) {
        if (response.asyncType == "antipassback") {
            opened = opened && response.result == SUCCESS && response.openedRelays.size() == 2;
            completion.signal();
        }
    };
    const bool ran = timeRoundTrips(state, request, callback, completion, [&] {
        for (auto& question : provider->takeQuestions(2)) {
            question.callback("", passed, AuthContext());
        }
    });
    if (ran && !opened) {
        state.SkipWithError("the anti-passback phase did not open both relays");
    }
}

// ---- throughput ----

std::shared_ptr<BenchProvider> sharedProvider;
std::unique_ptr<FacadeSession> sharedSession;

void BM_Throughput(benchmark::State& state) {
    if (state.thread_index() == 0) {
        sharedProvider = std::make_shared<BenchProvider>();
        sharedSession = std::make_unique<FacadeSession>(sharedProvider);
        useLogging(Logging::NULL_SINK);
    }
    const AuthRequest request = cardRequest();
    for (auto _ : state) {
        AuthResponse response = facade().authenticate(request);
        benchmark::DoNotOptimize(response);
    }
    state.SetItemsProcessed(state.iterations());
    if (state.thread_index() == 0) {
        sharedSession.reset();
        sharedProvider.reset();
    }
}

BENCHMARK(BM_Decision_NullSink);
BENCHMARK(BM_Decision_EmptySink);
BENCHMARK(BM_Decision_Syslog);
BENCHMARK(BM_Decision_Traced);
BENCHMARK(BM_Floor);
BENCHMARK(BM_RelayKey160kSchedules)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_AsyncRoundTrip)->UseManualTime();
BENCHMARK(BM_TempKeyRoundTrip)->UseManualTime();
BENCHMARK(BM_AntiPassbackRoundTrip)->UseManualTime();
BENCHMARK(BM_Throughput)->Threads(1)->Threads(2)->Threads(4)->UseRealTime();

// The console table goes to stderr; stdout gets one parsable line per run (and per mean or median
// of repeated runs).
class LineReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs) {
            if (run.error_occurred) {
                std::printf("%s error=%s\n", run.benchmark_name().c_str(),
                            run.error_message.c_str());
                continue;
            }
            if (run.run_type == Run::RT_Aggregate && run.aggregate_unit != benchmark::kTime) {
                continue;  // the coefficient of variation is a ratio, not a time
            }
            // Wall time per iteration; with several threads the iterations of all of them share
            // the same wall time, so this is the inverse of the throughput.
            const double ns =
                run.GetAdjustedRealTime() / benchmark::GetTimeUnitMultiplier(run.time_unit) * 1e9;
            // CPU time of the benchmark thread: what a decision costs the processor, without the
            // time the thread waited for a core on a busy machine.
            const double cpuNs =
                run.GetAdjustedCPUTime() / benchmark::GetTimeUnitMultiplier(run.time_unit) * 1e9;
            std::printf("%s real_ns=%.1f cpu_ns=%.1f", run.benchmark_name().c_str(), ns, cpuNs);
            for (const auto& counter : run.counters) {
                std::printf(" %s=%.3f", counter.first.c_str(), counter.second.value);
            }
            std::printf("\n");
        }
        std::fflush(stdout);
    }
};

}  // namespace
}  // namespace bench
}  // namespace auth_engine

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    auth_engine::bench::LineReporter reporter;
    reporter.SetOutputStream(&std::cerr);
    reporter.SetErrorStream(&std::cerr);
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    return 0;
}
