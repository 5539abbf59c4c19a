// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

#include "support/FakeDataProvider.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

#include "auth_engine/AuthLogger.h"

namespace auth_engine {
namespace testing {
void FakeDataProvider::enter(const char* operation) {
    callLog.emplace_back(operation);
    if (throwFrom.count(operation) != 0 || throwFrom.count("*") != 0) {
        throw std::runtime_error(std::string("fake provider throws from ") + operation);
    }
}

std::vector<std::string> FakeDataProvider::listed(const std::vector<std::string>& relays,
                                                  const std::set<std::string>& set) {
    std::vector<std::string> out;
    std::copy_if(relays.begin(), relays.end(), std::back_inserter(out),
                 [&](const std::string& relay) { return set.count(relay) != 0; });
    return out;
}

int FakeDataProvider::callCount(const std::string& operation) {
    std::lock_guard<std::mutex> guard(mutex);
    return static_cast<int>(std::count(callLog.begin(), callLog.end(), operation));
}

bool FakeDataProvider::waitForQuestions(std::size_t count, int timeoutMs) {
    std::unique_lock<std::mutex> guard(mutex);
    return changed.wait_for(guard, std::chrono::milliseconds(timeoutMs),
                            [&] { return asked.size() >= count; });
}

void FakeDataProvider::clearLog() {
    std::lock_guard<std::mutex> guard(mutex);
    callLog.clear();
    ownerKeys.clear();
    asked.clear();
    reported.clear();
}

void FakeDataProvider::answer(std::size_t index, AuthResult result, int failCode,
                              const AuthContext& contextUpdate) {
    const Question question = questions().at(index);
    AuthResponse response;
    response.result = result;
    response.failCode = failCode;
    if (question.callback) {
        question.callback(question.handle, response, contextUpdate);
    }
}

std::string FakeDataProvider::ask(const char* operation, Question question,
                                  const std::function<bool()>& offline,
                                  QuestionHook FakeDataProvider::*hook, bool recordOffline) {
    QuestionHook answer;
    std::size_t index = 0;
    const bool recorded = locked(operation, [&] {
        question.handle =
            offline() ? std::string() : question.handle + std::to_string(++handleCounter);
        answer = this->*hook;
        index = asked.size();
        if (question.handle.empty() && !recordOffline) {
            return false;
        }
        asked.push_back(question);
        return true;
    });
    if (!recorded) {
        return std::string();
    }
    changed.notify_all();
    if (answer && !question.handle.empty()) {
        answer(question);
        std::lock_guard<std::mutex> guard(mutex);
        asked[index] = question;
    }
    return question.handle;
}

bool FakeDataProvider::requestTempKey(const AuthContext& context, AuthCallback callback) {
    const Question question{"tempkey", "tk", "", context.requestId, std::move(callback), context};
    return !ask(
                "requestTempKey", question, [this] { return !tempKeySendOk; },
                &FakeDataProvider::answerTempKey, false)
                .empty();
}

std::string FakeDataProvider::requestAntiPassback(const AuthRequest&, const UserData&,
                                                  AuthContext& context, AuthCallback callback) {
    const auto& relays = context.antiPassbackRelays;
    return ask(
        "requestAntiPassback",
        {"antipassback", "ap", joinRelayVector(relays), context.requestId, std::move(callback),
         context},
        [&] { return !listed(relays, offlineRelays).empty(); },
        &FakeDataProvider::answerAntiPassback, true);
}

std::string FakeDataProvider::requestInterlock(const AuthRequest&, const std::string& relay,
                                               AuthContext& context, AuthCallback callback) {
    return ask(
        "requestInterlock",
        {"interlock", "il", relay, context.requestId, std::move(callback), context},
        [&] { return offlineRelays.count(relay) != 0; }, &FakeDataProvider::answerInterlock, true);
}

std::string FakeDataProvider::requestParking(const AuthRequest&, const UserData&, std::string,
                                             AuthContext& context, AuthCallback callback) {
    return ask(
        "requestParking",
        {"parking", "pk", joinRelayVector(context.relays), context.requestId, std::move(callback),
         context},
        [&] { return parkingOffline; }, &FakeDataProvider::answerParking, true);
}

}  // namespace testing
}  // namespace auth_engine
