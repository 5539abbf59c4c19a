// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// The libFuzzer entry points of every target: a quiet log and a UTC calendar once, then each input
// handed to the target's fuzzOne.
#include <ctime>

#include "FuzzInput.h"
#include "auth_engine/AuthLogger.h"

// The library's log goes nowhere unless AUTH_FUZZ_LOG is set (then stderr), so that a crashing
// input can be replayed with its log. Lines are still formatted when dropped: a bad format
// argument then shows up under the sanitizers.
extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    setenv("TZ", "UTC", 1);
    tzset();
    const bool log = std::getenv("AUTH_FUZZ_LOG") != nullptr;
    auth_engine::AuthLogger::setSink([log](int, const std::string& line) {
        if (log) {
            (void)std::fprintf(stderr, "%s\n", line.c_str());
        }
    });
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    auth_engine::fuzz::FuzzInput in(data, size);
    auth_engine::fuzz::fuzzOne(in);
    return 0;
}
