// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// Marks the thread an engine's worker runs on, so that the engine can tell its own worker from a
// host thread.
#pragma once

namespace auth_engine {

class AuthEngine;

/// The engine whose worker runs on the calling thread; null on every other thread.
extern thread_local const AuthEngine* workerEngineOfThread;

}  // namespace auth_engine
