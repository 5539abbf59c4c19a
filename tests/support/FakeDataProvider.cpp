// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

#include "support/FakeDataProvider.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

#include "auth_engine/AuthLogger.h"

namespace auth_engine {
namespace testing {
namespace {

// Copies the entry for `key` into `out`; false when there is none.
template <class Map, class Out>
bool lookUp(const Map& map, const std::string& key, Out& out) {
    const auto found = map.find(key);
    if (found == map.end()) {
        return false;
    }
    out = found->second;
    return true;
}

template <class Set>
std::vector<std::string> listed(const std::vector<std::string>& relays, const Set& set) {
    std::vector<std::string> out;
    std::copy_if(relays.begin(), relays.end(), std::back_inserter(out),
                 [&](const std::string& relay) { return set.count(relay) != 0; });
    return out;
}

}  // namespace

template <class Body>
auto FakeDataProvider::locked(const char* operation, Body body) -> decltype(body()) {
    if (const auto hook = snapshot(beforeCall)) {
        hook(operation);
    }
    std::lock_guard<std::mutex> guard(mutex);
    callLog.emplace_back(operation);
    if (throwFrom.count(operation) != 0) {
        throw std::runtime_error(std::string("fake provider throws from ") + operation);
    }
    return body();
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

std::shared_ptr<UserData> FakeDataProvider::getUserByCredential(const char* credential,
                                                                const OpenDoorType&) {
    return locked("getUserByCredential", [&] {
        UserData user;
        return lookUp(users, credential == nullptr ? "" : credential, user)
                   ? std::make_shared<UserData>(user)
                   : nullptr;
    });
}

std::shared_ptr<KeyData> FakeDataProvider::getKeyData(const AuthContext&, int, int) {
    return locked("getKeyData",
                  [&] { return keyData ? std::make_shared<KeyData>(*keyData) : nullptr; });
}

std::vector<std::shared_ptr<ScheduleData>> FakeDataProvider::getRelaySchedules(
    const std::string& ownerKey, int) {
    return locked("getRelaySchedules", [&] {
        ownerKeys.push_back(ownerKey);
        return schedules;
    });
}

std::vector<HolidayData> FakeDataProvider::getHolidays(const std::string& ownerKey, int) {
    return locked("getHolidays", [&] {
        ownerKeys.push_back(ownerKey);
        return holidays;
    });
}

bool FakeDataProvider::isPublicPin(const AuthContext& context) {
    return locked("isPublicPin",
                  [&] { return !publicPin.empty() && context.request.credential == publicPin; });
}

bool FakeDataProvider::getLatchPinRelays(const AuthContext& context,
                                         std::vector<std::string>& relays) {
    return locked("getLatchPinRelays",
                  [&] { return lookUp(latchPins, context.request.credential, relays); });
}

std::vector<std::string> FakeDataProvider::getPublicPinRelays(const AuthContext&) {
    return locked("getPublicPinRelays", [&] { return publicPinRelays; });
}

AuthConfig FakeDataProvider::getAuthConfig() {
    return locked("getAuthConfig", [&] { return config; });
}

std::vector<std::string> FakeDataProvider::getLockedDownRelays(
    const std::vector<std::string>& relays) {
    return locked("getLockedDownRelays", [&] { return listed(relays, lockedDownRelays); });
}

bool FakeDataProvider::isRelayHolidayExempt(const std::string& relay) {
    return locked("isRelayHolidayExempt", [&] { return holidayExemptRelays.count(relay) != 0; });
}

std::vector<std::string> FakeDataProvider::getForbiddenUnlockTypeRelays(
    const std::vector<std::string>& relays, OpenDoorType openType) {
    return locked("getForbiddenUnlockTypeRelays", [&] {
        const auto found = forbiddenRelays.find(static_cast<int>(openType));
        return found == forbiddenRelays.end() ? std::vector<std::string>()
                                              : listed(relays, found->second);
    });
}

bool FakeDataProvider::getDtmfConfig(DtmfConfig& out, const AuthContext&) {
    return locked("getDtmfConfig", [&] { return dtmfConfig && (out = *dtmfConfig, true); });
}

bool FakeDataProvider::requestDtmfWhitelist(const DtmfWhitelistRequest& request,
                                            DtmfWhitelistResult& result) {
    return locked("requestDtmfWhitelist",
                  [&] { return lookUp(dtmfWhitelist, request.remoteNumber, result); });
}

bool FakeDataProvider::getDtmfUser(const std::string& remoteNumber, UserData& user,
                                   const AuthContext&) {
    return locked("getDtmfUser", [&] { return lookUp(dtmfUsers, remoteNumber, user); });
}

bool FakeDataProvider::requestDtmfVisitorPermission(const DtmfVisitorPermissionRequest&,
                                                    UserData& user) {
    return locked("requestDtmfVisitorPermission",
                  [&] { return dtmfVisitor && (user = *dtmfVisitor, true); });
}

bool FakeDataProvider::getRemoteControlUser(const std::string& remoteUserId, UserData& user,
                                            AuthContext&) {
    return locked("getRemoteControlUser",
                  [&] { return lookUp(remoteControlUsers, remoteUserId, user); });
}

bool FakeDataProvider::requestTempKey(const AuthContext& context, AuthCallback callback) {
    const Question question{"tempkey", "tk", "", context.requestId, std::move(callback), context};
    return !ask(
                "requestTempKey", question, [this] { return !tempKeySendOk; },
                &FakeDataProvider::answerTempKey, false)
                .empty();
}

bool FakeDataProvider::getTempKeyUser(const TempKeyAuthData& data, UserData& user) {
    return locked("getTempKeyUser", [&] { return lookUp(tempKeyUsers, data.key, user); });
}

void FakeDataProvider::getTempKeyTargets(std::vector<AuthTarget>& targets) {
    locked("getTempKeyTargets", [&] { targets = tempKeyTargets; });
}

bool FakeDataProvider::getHttpOpenConfig(HttpOpenConfig& out) {
    return locked("getHttpOpenConfig", [&] { return httpConfig && (out = *httpConfig, true); });
}

bool FakeDataProvider::checkBleOpenInterval(const UserData&, const std::vector<std::string>&) {
    return locked("checkBleOpenInterval", [&] { return bleAllowed; });
}

void FakeDataProvider::recordBleOpen(const UserData&, const std::vector<std::string>& relays) {
    locked("recordBleOpen", [&] { bleRecords.push_back(relays); });
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

void FakeDataProvider::onAuthResult(const AuthContext& context, const AuthResult& result) {
    locked("onAuthResult", [&] { reported.push_back(Report{context, result}); });
    changed.notify_all();
}

bool FakeDataProvider::getReaderPriority(std::vector<ReaderType>& priority) {
    return locked("getReaderPriority",
                  [&] { return !readerPriority.empty() && (priority = readerPriority, true); });
}

void FakeDataProvider::onGuessLockout(ReaderType reader, int count, int64_t lockoutEndUptime) {
    locked("onGuessLockout", [&] {
        lockoutLog.push_back(Lockout{reader, count, lockoutEndUptime});
    });
}

bool FakeDataProvider::getUserByDuressCode(const std::string& code, OpenDoorType, UserData& user) {
    return locked("getUserByDuressCode", [&] { return lookUp(duressCodes, code, user); });
}

void FakeDataProvider::onDuress(const AuthContext& context) {
    locked("onDuress", [&] { duressLog.push_back(context); });
}

}  // namespace testing
}  // namespace auth_engine
