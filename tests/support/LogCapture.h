// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// Captures the library's log lines for the lifetime of the object (restores syslog afterwards).
#pragma once

#include <algorithm>
#include <mutex>
#include <string>
#include <vector>

#include "auth_engine/AuthLogger.h"

namespace auth_engine {
namespace testing {

// Not copyable (its mutex), as the sink it installs holds `this`.
class LogCapture {
public:
    LogCapture() {
        AuthLogger::setSink([this](int priority, const std::string& line) {
            std::lock_guard<std::mutex> guard(mutex);
            captured.push_back(line);
            levels.push_back(priority);
        });
    }
    ~LogCapture() { AuthLogger::setSink(nullptr); }

    std::vector<std::string> lines() {
        std::lock_guard<std::mutex> guard(mutex);
        return captured;
    }
    /// True when some line contains `text`.
    bool contains(const std::string& text) {
        const std::vector<std::string> all = lines();
        return std::any_of(all.begin(), all.end(), [&](const std::string& line) {
            return line.find(text) != std::string::npos;
        });
    }
    /// Priorities seen, one per line.
    std::vector<int> priorities() {
        std::lock_guard<std::mutex> guard(mutex);
        return levels;
    }
    void clear() {
        std::lock_guard<std::mutex> guard(mutex);
        captured.clear();
        levels.clear();
    }

private:
    std::mutex mutex;
    std::vector<std::string> captured;
    std::vector<int> levels;
};

}  // namespace testing
}  // namespace auth_engine
