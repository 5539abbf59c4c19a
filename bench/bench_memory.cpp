// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// Memory held by waiting work, counted by replacing the global operator new/delete of this program
// (the library's allocations resolve to them too). Every figure is live heap bytes (as the
// allocator hands them out, malloc_usable_size) above the idle engine:
//   parked_chain_bytes      per chain parked on a temporary-key question
//   parked_phase_bytes      per anti-passback phase held back on two relay questions
//   queued_100_peak_bytes   peak while 100 submissions wait for a busy worker and are worked off
//   parked_1000_peak_bytes  peak while 1,000 chains are parked
// and the number of allocations of one synchronous card decision, through the engine and by hand
// (decision_allocations, floor_allocations).
// Output: one "key=value" line per figure.
#include <malloc.h>

#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <new>
#include <string>

#include "BenchProvider.h"
#include "FloorDecision.h"
#include "auth_engine/AuthLogger.h"
#include "engine/AuthEngine.h"

namespace {

std::atomic<long long> liveBytes{0};
std::atomic<long long> peakBytes{0};
std::atomic<long long> allocations{0};

void* allocate(std::size_t size, std::size_t alignment) {
    void* const memory =
        alignment <= alignof(std::max_align_t)
            ? std::malloc(size == 0 ? 1 : size)
            : std::aligned_alloc(alignment, (size + alignment - 1) / alignment * alignment);
    if (memory == nullptr) {
        return nullptr;
    }
    allocations.fetch_add(1, std::memory_order_relaxed);
    const long long now = liveBytes.fetch_add(static_cast<long long>(malloc_usable_size(memory))) +
                          static_cast<long long>(malloc_usable_size(memory));
    long long peak = peakBytes.load();
    while (now > peak && !peakBytes.compare_exchange_weak(peak, now)) {
    }
    return memory;
}

void release(void* memory) {
    if (memory != nullptr) {
        liveBytes.fetch_sub(static_cast<long long>(malloc_usable_size(memory)));
        std::free(memory);
    }
}

void* allocateOrThrow(std::size_t size, std::size_t alignment) {
    void* const memory = allocate(size, alignment);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}

}  // namespace

void* operator new(std::size_t size) {
    return allocateOrThrow(size, 0);
}
void* operator new[](std::size_t size) {
    return allocateOrThrow(size, 0);
}
void* operator new(std::size_t size, std::align_val_t alignment) {
    return allocateOrThrow(size, static_cast<std::size_t>(alignment));
}
void* operator new[](std::size_t size, std::align_val_t alignment) {
    return allocateOrThrow(size, static_cast<std::size_t>(alignment));
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return allocate(size, 0);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
    return allocate(size, 0);
}
void operator delete(void* memory) noexcept {
    release(memory);
}
void operator delete[](void* memory) noexcept {
    release(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
    release(memory);
}
void operator delete[](void* memory, std::size_t) noexcept {
    release(memory);
}
void operator delete(void* memory, std::align_val_t) noexcept {
    release(memory);
}
void operator delete[](void* memory, std::align_val_t) noexcept {
    release(memory);
}
void operator delete(void* memory, std::size_t, std::align_val_t) noexcept {
    release(memory);
}
void operator delete[](void* memory, std::size_t, std::align_val_t) noexcept {
    release(memory);
}
void operator delete(void* memory, const std::nothrow_t&) noexcept {
    release(memory);
}
void operator delete[](void* memory, const std::nothrow_t&) noexcept {
    release(memory);
}

namespace auth_engine {
namespace bench {
namespace {

constexpr int PARKED = 1000;
constexpr int QUEUED = 100;

// Keeps the worker inside its first decision until released, so that submissions pile up.
class HoldingProvider : public BenchProvider {
public:
    std::shared_ptr<UserData> getUserByCredential(const char* credential,
                                                  const OpenDoorType& openType) override {
        std::unique_lock<std::mutex> lock(mutex);
        if (holding) {
            entered = true;
            changed.notify_all();
            changed.wait(lock, [&] { return !holding; });
        }
        lock.unlock();
        return BenchProvider::getUserByCredential(credential, openType);
    }
    void hold() {
        std::lock_guard<std::mutex> lock(mutex);
        holding = true;
        entered = false;
    }
    void waitEntered() {
        std::unique_lock<std::mutex> lock(mutex);
        changed.wait(lock, [&] { return entered; });
    }
    void release() {
        {
            std::lock_guard<std::mutex> lock(mutex);
            holding = false;
        }
        changed.notify_all();
    }

private:
    std::mutex mutex;
    std::condition_variable changed;
    bool holding = false;
    bool entered = false;
};

std::shared_ptr<HoldingProvider> makeProvider() {
    auto provider = std::make_shared<HoldingProvider>();
    provider->keepQuestions =
        false;  // the host's own copies of the answer callbacks are not counted
    provider->config.antiPassbackEnabled = true;
    provider->config.antiPassbackRelayMap = {{"1", 1}, {"2", 1}};
    // Long enough that the worker's sweep never ends a parked request while it is counted.
    provider->config.tempKeyTimeout = 3600;
    provider->config.antiPassbackTimeout = 3600;
    return provider;
}

// A completion callback as small as a host's usually is: one pointer.
AuthCallback hostCallback(std::atomic<int>* reports) {
    return [reports](const std::string&, const AuthResponse&, const AuthContext&) {
        reports->fetch_add(1);
    };
}

long long parkPerRequest(const AuthRequest& request, bool phases, long long* peak) {
    auto provider = makeProvider();
    AuthEngine engine;
    engine.init(provider);
    std::atomic<int> reports{0};
    const AuthCallback callback = hostCallback(&reports);
    // One request first, so that lazily created state (time zone, thread-locals) is not counted.
    engine.authenticate(request, callback, engine.generateRequestId());
    engine.waitForIdle(5000);
    const long long before = liveBytes.load();
    peakBytes.store(before);
    for (int i = 0; i < PARKED; ++i) {
        engine.authenticate(request, callback, engine.generateRequestId());
    }
    const long long after = liveBytes.load();
    const std::size_t parked = phases ? engine.parkedPhaseCount() : engine.parkedChainCount();
    if (peak != nullptr) {
        *peak = peakBytes.load() - before;
    }
    if (parked != static_cast<std::size_t>(PARKED) + 1) {
        std::fprintf(stderr, "expected %d parked, found %zu\n", PARKED + 1, parked);
        std::exit(1);
    }
    return (after - before) / PARKED;
}

long long queuedPeak() {
    auto provider = makeProvider();
    AuthEngine engine;
    engine.init(provider);
    std::atomic<int> reports{0};
    const AuthCallback callback = hostCallback(&reports);
    const AuthRequest request = cardRequest();
    engine.authenticate(request, callback, std::string());  // warm-up
    provider->hold();
    engine.authenticateAsync(request, callback);
    provider->waitEntered();
    const long long before = liveBytes.load();
    peakBytes.store(before);
    for (int i = 0; i < QUEUED; ++i) {
        if (engine.authenticateAsync(request, callback).empty()) {
            std::fprintf(stderr, "submission %d refused\n", i);
            std::exit(1);
        }
    }
    provider->release();
    engine.waitForIdle(10000);
    if (reports.load() != QUEUED + 2) {
        std::fprintf(stderr, "expected %d reports, got %d\n", QUEUED + 2, reports.load());
        std::exit(1);
    }
    return peakBytes.load() - before;
}

// Allocations of one decision, averaged over a thousand.
template <typename Decide>
long long allocationsPerDecision(Decide&& decide) {
    decide();  // warm-up
    const long long before = allocations.load();
    for (int i = 0; i < PARKED; ++i) {
        decide();
    }
    return (allocations.load() - before) / PARKED;
}

}  // namespace
}  // namespace bench
}  // namespace auth_engine

int main() {
    using namespace auth_engine;
    using namespace auth_engine::bench;
    AuthLogger::setNullSink();
    long long parkedPeak = 0;
    const long long chain = parkPerRequest(tempKeyRequest(), false, &parkedPeak);
    const long long phase = parkPerRequest(antiPassbackRequest(), true, nullptr);
    const long long queued = queuedPeak();
    long long engineAllocations = 0;
    long long floorAllocations = 0;
    {
        auto provider = std::make_shared<BenchProvider>();
        AuthEngine engine;
        engine.init(provider);
        const AuthRequest request = cardRequest();
        engineAllocations = allocationsPerDecision(
            [&] { engine.authenticate(request, AuthCallback(), std::string()); });
        floorAllocations = allocationsPerDecision([&] { floorDecision(*provider, request); });
    }
    std::printf("parked_chain_bytes=%lld\n", chain);
    std::printf("parked_phase_bytes=%lld\n", phase);
    std::printf("queued_100_peak_bytes=%lld\n", queued);
    std::printf("parked_1000_peak_bytes=%lld\n", parkedPeak);
    std::printf("decision_allocations=%lld\n", engineAllocations);
    std::printf("floor_allocations=%lld\n", floorAllocations);
    return 0;
}
