// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// The worker must sweep timeouts about once a second whatever the wall clock does. This program
// stands in for the C library's clock_gettime (the engine, in the same process, calls this one):
// it can show the wall clock an hour ahead of the kernel's, which is what a worker sees when the
// clock is stepped back an hour (an NTP correction at boot) after it computed its deadline.
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>

#include "support/EngineHarness.h"

namespace {
std::atomic<long long> wallAhead{0};
}  // namespace

// Under 64-bit time_t on 32-bit targets the headers give this definition the name of the 64-bit
// entry point, which is the one the engine calls.
extern "C" int clock_gettime(clockid_t clock, struct timespec* now) noexcept {
#ifdef SYS_clock_gettime64
    const long result = syscall(SYS_clock_gettime64, clock, now);
#else
    const long result = syscall(SYS_clock_gettime, clock, now);
#endif
    if (result == 0 && clock == CLOCK_REALTIME) {
        now->tv_sec += static_cast<time_t>(wallAhead.load());
    }
    return static_cast<int>(result);
}

namespace auth_engine {
namespace testing {
namespace {

// The stepped clock is left as it is at the end: this is the program's only test.
using ClockStep = EngineTest;

TEST_F(ClockStep, AWallClockStepDoesNotHoldBackTheTimeoutSweep) {
    use("Parker", [](AuthContext& context) { return askOnce(context); });
    ASSERT_EQ(run("r1").result, ASYNC_PENDING);
    wallAhead = 3600;
    // One pass makes the worker compute its next wait under the stepped clock; then the parked
    // chain's time runs out, and nothing but the worker's own wake-up can sweep it.
    ASSERT_TRUE(engine.settle(kWaitMs));
    clock.advance(31);
    ASSERT_TRUE(recorder.waitFor(1, kWaitMs));
    expectFailed(recorder.at(0).response, 0, "Async request timeout");
}

}  // namespace
}  // namespace testing
}  // namespace auth_engine
