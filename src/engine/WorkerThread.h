// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// Marks the thread an engine's worker runs on, so that the engine can tell its own worker from a
// host thread.
#pragma once

#include <semaphore.h>

namespace auth_engine {

class AuthEngine;

/// The engine whose worker runs on the calling thread; null on every other thread.
extern thread_local const AuthEngine* workerEngineOfThread;

/// The worker's idle wait: until `semaphore` is posted or a second has passed on the monotonic
/// clock, whichever comes first.
void waitForWork(sem_t& semaphore);

}  // namespace auth_engine
