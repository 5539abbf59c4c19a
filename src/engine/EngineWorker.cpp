// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// The worker: the two queues (new submissions, answered requests to resume), the semaphore that
// wakes it, its loop of one item and one timeout sweep per pass, and the waits for it to be idle.
#include <pthread.h>

#include <chrono>
#include <ctime>
#include <utility>

#include "auth_engine/AuthLogger.h"
#include "engine/AuthEngine.h"
#include "engine/HostCall.h"
#include "engine/WorkerThread.h"

namespace auth_engine {

namespace {

constexpr std::size_t kRequestQueueLimit = 100;

}  // namespace

thread_local const AuthEngine* workerEngineOfThread = nullptr;

void waitForWork(sem_t& semaphore) {
    // The deadline is on the monotonic clock: a step of the wall clock (an NTP correction at boot)
    // must not keep the timeout sweep from running for the size of the step.
    timespec deadline{};
    clock_gettime(CLOCK_MONOTONIC, &deadline);
    deadline.tv_sec += 1;
#if defined(__GLIBC__) && (__GLIBC__ > 2 || (__GLIBC__ == 2 && __GLIBC_MINOR__ >= 30))
    sem_clockwait(&semaphore, CLOCK_MONOTONIC, &deadline);
#else
    // Without sem_clockwait the wait is measured on the wall clock after all.
    timespec wall{};
    clock_gettime(CLOCK_REALTIME, &wall);
    wall.tv_sec += 1;
    sem_timedwait(&semaphore, &wall);
    (void)deadline;
#endif
}

std::string AuthEngine::authenticateAsync(const AuthRequest& request,
                                          const AuthCallback& callback) {
    if (!initialized || !running || !provider() || refusedUnderLock("authenticateAsync")) {
        return {};
    }
    std::string requestId;
    {
        std::lock_guard<std::mutex> lock(queueMutex);
        // Checked again under the lock: reset drains the queue under it, so nothing accepted after
        // the drain could be left without its callback.
        if (!running || requestQueue.size() >= kRequestQueueLimit) {
            return {};
        }
        AsyncAuthRequest entry;
        entry.request = request;
        entry.callback = callback;
        entry.requestId = generateRequestId();
        entry.enqueueTime = getUptimeSeconds();
        requestId = entry.requestId;
        requestQueue.push_back(std::move(entry));
    }
    sem_post(&queueSemaphore);
    return requestId;
}

void AuthEngine::enqueueResume(const std::string& requestId) {
    {
        std::lock_guard<std::mutex> lock(queueMutex);
        resumeQueue.push_back(requestId);
    }
    if (semaphoreReady) {
        sem_post(&queueSemaphore);
    }
}

bool AuthEngine::processNextItem() {
    if (!running) {
        return false;
    }
    // Posted, timed out or interrupted: every outcome starts a pass.
    waitForWork(queueSemaphore);
    if (!running) {
        return false;
    }
    // One item per wake-up; each item had its own post, so nothing is lost. Resumes go first so
    // that answered requests are not starved by new submissions.
    bool haveResume = false;
    std::string resumeId;
    AsyncAuthRequest entry;
    {
        std::lock_guard<std::mutex> lock(queueMutex);
        workerBusy = true;
        ++passesStarted;
        if (!resumeQueue.empty()) {
            resumeId = std::move(resumeQueue.front());
            resumeQueue.pop_front();
            haveResume = true;
        } else if (!requestQueue.empty()) {
            entry = std::move(requestQueue.front());
            requestQueue.pop_front();
        }
    }
    if (haveResume) {
        callHost("resumeAuthentication", [&] { resumeAuthentication(resumeId); });
    } else if (!entry.requestId.empty()) {
        callHost("authenticate",
                 [&] { authenticate(entry.request, entry.callback, entry.requestId); });
    }
    callHost("checkAllPendingTimeouts", [&] { checkAllPendingTimeouts(); });
    {
        std::lock_guard<std::mutex> lock(queueMutex);
        workerBusy = false;
        ++passesCompleted;
    }
    idleChanged.notify_all();
    return true;
}

void* AuthEngine::asyncThreadFunc(void* arg) {
    auto* const self = static_cast<AuthEngine*>(arg);
    workerEngineOfThread = self;
    callHost("reloadConfig", [&] { self->reloadConfig(); });
    while (self->processNextItem()) {
    }
    if (self->shutdownOnWorker) {
        // The reset was asked from host code this worker ran: it empties the engine itself, and
        // is joined by whoever next starts, resets or destroys the engine.
        callHost("reset", [&] { self->tearDown(); });
    }
    {
        std::lock_guard<std::mutex> lock(self->queueMutex);
        self->workerBusy = false;
    }
    self->idleChanged.notify_all();
    // The last thing the worker touches: releasing its hold may free the engine.
    const std::shared_ptr<AuthEngine> hold = std::move(self->workerHold);
    return nullptr;
}

bool AuthEngine::waitForIdle(int timeoutMs) {
    if (refusedUnderLock("waitForIdle")) {
        return false;
    }
    std::unique_lock<std::mutex> lock(queueMutex);
    return idleChanged.wait_for(
        lock, std::chrono::milliseconds(timeoutMs < 0 ? 0 : timeoutMs),
        [&] { return !running || (resumeQueue.empty() && requestQueue.empty() && !workerBusy); });
}

bool AuthEngine::settle(int timeoutMs) {
    if (workerEngineOfThread == this) {
        AuthLogger::error("[AuthEngine] waitForIdle refused: called on the engine's own worker");
        return false;
    }
    if (refusedUnderLock("waitForIdle")) {
        return false;
    }
    std::unique_lock<std::mutex> lock(queueMutex);
    if (!running) {
        return true;
    }
    // A pass already under way may have read the clocks before the caller moved them: only a pass
    // that starts after this point counts.
    const uint64_t target = passesStarted + 1;
    lock.unlock();
    sem_post(&queueSemaphore);
    lock.lock();
    return idleChanged.wait_for(
        lock, std::chrono::milliseconds(timeoutMs < 0 ? 0 : timeoutMs), [&] {
            return !running || (passesCompleted >= target && resumeQueue.empty() &&
                                requestQueue.empty() && !workerBusy);
        });
}

}  // namespace auth_engine
