// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

#include "support/LogCapture.h"

#include <algorithm>

#include "auth_engine/AuthLogger.h"

namespace auth_engine {
namespace testing {

LogCapture::LogCapture() {
    AuthLogger::setSink([this](int priority, const std::string& line) {
        std::lock_guard<std::mutex> guard(mutex);
        captured.push_back(line);
        levels.push_back(priority);
    });
}

LogCapture::~LogCapture() {
    AuthLogger::setSink(nullptr);
}

std::vector<std::string> LogCapture::lines() {
    std::lock_guard<std::mutex> guard(mutex);
    return captured;
}

bool LogCapture::contains(const std::string& text) {
    return count(text) > 0;
}

int LogCapture::count(const std::string& text) {
    std::lock_guard<std::mutex> guard(mutex);
    return static_cast<int>(std::count_if(
        captured.begin(), captured.end(),
        [&](const std::string& line) { return line.find(text) != std::string::npos; }));
}

std::vector<int> LogCapture::priorities() {
    std::lock_guard<std::mutex> guard(mutex);
    return levels;
}

void LogCapture::clear() {
    std::lock_guard<std::mutex> guard(mutex);
    captured.clear();
    levels.clear();
}

}  // namespace testing
}  // namespace auth_engine
