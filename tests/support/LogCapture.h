// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// Captures the library's log lines for the lifetime of the object (restores syslog afterwards).
#pragma once

#include <mutex>
#include <string>
#include <vector>

namespace auth_engine {
namespace testing {

class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<std::string> lines();
    /// True when some line contains `text`.
    bool contains(const std::string& text);
    /// Number of lines that contain `text`.
    int count(const std::string& text);
    /// Priorities seen, one per line.
    std::vector<int> priorities();
    void clear();

private:
    std::mutex mutex;
    std::vector<std::string> captured;
    std::vector<int> levels;
};

}  // namespace testing
}  // namespace auth_engine
