// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

#include "support/FakeDataProvider.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

#include "auth_engine/AuthLogger.h"

namespace auth_engine {
namespace testing {

void FakeDataProvider::enterLocked(const char* operation) {
    callLog.emplace_back(operation);
    if (throwFrom.count(operation) != 0) {
        throw std::runtime_error(std::string("fake provider throws from ") + operation);
    }
}

void FakeDataProvider::beginCall(const char* operation) {
    std::function<void(const std::string&)> hook;
    {
        std::lock_guard<std::mutex> guard(mutex);
        hook = beforeCall;
    }
    if (hook) {
        hook(operation);
    }
}

std::vector<std::string> FakeDataProvider::calls() {
    std::lock_guard<std::mutex> guard(mutex);
    return callLog;
}

int FakeDataProvider::callCount(const std::string& operation) {
    std::lock_guard<std::mutex> guard(mutex);
    return static_cast<int>(std::count(callLog.begin(), callLog.end(), operation));
}

std::vector<std::string> FakeDataProvider::ownerKeysAsked() {
    std::lock_guard<std::mutex> guard(mutex);
    return ownerKeys;
}

std::vector<FakeDataProvider::Question> FakeDataProvider::questions() {
    std::lock_guard<std::mutex> guard(mutex);
    return asked;
}

std::vector<FakeDataProvider::Report> FakeDataProvider::reports() {
    std::lock_guard<std::mutex> guard(mutex);
    return reported;
}

std::size_t FakeDataProvider::reportCount() {
    std::lock_guard<std::mutex> guard(mutex);
    return reported.size();
}

bool FakeDataProvider::waitForReports(std::size_t count, int timeoutMs) {
    std::unique_lock<std::mutex> guard(mutex);
    return changed.wait_for(guard, std::chrono::milliseconds(timeoutMs),
                            [&] { return reported.size() >= count; });
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
    AuthCallback callback;
    std::string handle;
    {
        std::lock_guard<std::mutex> guard(mutex);
        if (index >= asked.size()) {
            throw std::out_of_range("no such question");
        }
        callback = asked[index].callback;
        handle = asked[index].handle;
    }
    AuthResponse response;
    response.result = result;
    response.failCode = failCode;
    if (callback) {
        callback(handle, response, contextUpdate);
    }
}

std::string FakeDataProvider::ask(Question question, const QuestionHook& hook) {
    std::size_t index = 0;
    {
        std::lock_guard<std::mutex> guard(mutex);
        index = asked.size();
        asked.push_back(question);
    }
    changed.notify_all();
    if (hook && !question.handle.empty()) {
        hook(question);
        std::lock_guard<std::mutex> guard(mutex);
        asked[index] = question;
    }
    return question.handle;
}

std::shared_ptr<UserData> FakeDataProvider::getUserByCredential(const char* credential,
                                                                const OpenDoorType& openType) {
    (void)openType;
    beginCall("getUserByCredential");
    std::lock_guard<std::mutex> guard(mutex);
    enterLocked("getUserByCredential");
    const auto found = users.find(credential == nullptr ? std::string() : std::string(credential));
    if (found == users.end()) {
        return nullptr;
    }
    return std::make_shared<UserData>(found->second);
}

std::shared_ptr<KeyData> FakeDataProvider::getKeyData(const AuthContext& context, int keyKind,
                                                      int ownerKind) {
    (void)context;
    (void)keyKind;
    (void)ownerKind;
    beginCall("getKeyData");
    std::lock_guard<std::mutex> guard(mutex);
    enterLocked("getKeyData");
    return keyData ? std::make_shared<KeyData>(*keyData) : nullptr;
}

std::vector<std::shared_ptr<ScheduleData>> FakeDataProvider::getRelaySchedules(
    const std::string& ownerKey, int ownerKind) {
    (void)ownerKind;
    beginCall("getRelaySchedules");
    std::lock_guard<std::mutex> guard(mutex);
    enterLocked("getRelaySchedules");
    ownerKeys.push_back(ownerKey);
    return schedules;
}

std::vector<HolidayData> FakeDataProvider::getHolidays(const std::string& ownerKey, int ownerKind) {
    (void)ownerKind;
    beginCall("getHolidays");
    std::lock_guard<std::mutex> guard(mutex);
    enterLocked("getHolidays");
    ownerKeys.push_back(ownerKey);
    return holidays;
}

bool FakeDataProvider::isPublicPin(const AuthContext& context) {
    beginCall("isPublicPin");
    std::lock_guard<std::mutex> guard(mutex);
    enterLocked("isPublicPin");
    return !publicPin.empty() && context.request.credential == publicPin;
}

bool FakeDataProvider::getLatchPinRelays(const AuthContext& context,
                                         std::vector<std::string>& relays) {
    beginCall("getLatchPinRelays");
    std::lock_guard<std::mutex> guard(mutex);
    enterLocked("getLatchPinRelays");
    const auto found = latchPins.find(context.request.credential);
    if (found == latchPins.end()) {
        return false;
    }
    relays = found->second;
    return true;
}

std::vector<std::string> FakeDataProvider::getPublicPinRelays(const AuthContext& context) {
    (void)context;
    beginCall("getPublicPinRelays");
    std::lock_guard<std::mutex> guard(mutex);
    enterLocked("getPublicPinRelays");
    return publicPinRelays;
}

AuthConfig FakeDataProvider::getAuthConfig() {
    beginCall("getAuthConfig");
    std::lock_guard<std::mutex> guard(mutex);
    enterLocked("getAuthConfig");
    return config;
}

std::vector<std::string> FakeDataProvider::getLockedDownRelays(
    const std::vector<std::string>& relays) {
    beginCall("getLockedDownRelays");
    std::lock_guard<std::mutex> guard(mutex);
    enterLocked("getLockedDownRelays");
    std::vector<std::string> locked;
    for (const auto& relay : relays) {
        if (lockedDownRelays.count(relay) != 0) {
            locked.push_back(relay);
        }
    }
    return locked;
}

bool FakeDataProvider::isRelayHolidayExempt(const std::string& relay) {
    beginCall("isRelayHolidayExempt");
    std::lock_guard<std::mutex> guard(mutex);
    enterLocked("isRelayHolidayExempt");
    return holidayExemptRelays.count(relay) != 0;
}

std::vector<std::string> FakeDataProvider::getForbiddenUnlockTypeRelays(
    const std::vector<std::string>& relays, OpenDoorType openType) {
    beginCall("getForbiddenUnlockTypeRelays");
    std::lock_guard<std::mutex> guard(mutex);
    enterLocked("getForbiddenUnlockTypeRelays");
    std::vector<std::string> forbidden;
    const auto found = forbiddenRelays.find(static_cast<int>(openType));
    if (found == forbiddenRelays.end()) {
        return forbidden;
    }
    for (const auto& relay : relays) {
        if (found->second.count(relay) != 0) {
            forbidden.push_back(relay);
        }
    }
    return forbidden;
}

bool FakeDataProvider::getDtmfConfig(DtmfConfig& out, const AuthContext& context) {
    (void)context;
    beginCall("getDtmfConfig");
    std::lock_guard<std::mutex> guard(mutex);
    enterLocked("getDtmfConfig");
    if (!dtmfConfig) {
        return false;
    }
    out = *dtmfConfig;
    return true;
}

bool FakeDataProvider::requestDtmfWhitelist(const DtmfWhitelistRequest& request,
                                            DtmfWhitelistResult& result) {
    beginCall("requestDtmfWhitelist");
    std::lock_guard<std::mutex> guard(mutex);
    enterLocked("requestDtmfWhitelist");
    const auto found = dtmfWhitelist.find(request.remoteNumber);
    if (found == dtmfWhitelist.end()) {
        return false;
    }
    result = found->second;
    return true;
}

bool FakeDataProvider::getDtmfUser(const std::string& remoteNumber, UserData& user,
                                   const AuthContext& context) {
    (void)context;
    beginCall("getDtmfUser");
    std::lock_guard<std::mutex> guard(mutex);
    enterLocked("getDtmfUser");
    const auto found = dtmfUsers.find(remoteNumber);
    if (found == dtmfUsers.end()) {
        return false;
    }
    user = found->second;
    return true;
}

bool FakeDataProvider::requestDtmfVisitorPermission(const DtmfVisitorPermissionRequest& request,
                                                    UserData& user) {
    (void)request;
    beginCall("requestDtmfVisitorPermission");
    std::lock_guard<std::mutex> guard(mutex);
    enterLocked("requestDtmfVisitorPermission");
    if (!dtmfVisitor) {
        return false;
    }
    user = *dtmfVisitor;
    return true;
}

bool FakeDataProvider::getRemoteControlUser(const std::string& remoteUserId, UserData& user,
                                            AuthContext& context) {
    (void)context;
    beginCall("getRemoteControlUser");
    std::lock_guard<std::mutex> guard(mutex);
    enterLocked("getRemoteControlUser");
    const auto found = remoteControlUsers.find(remoteUserId);
    if (found == remoteControlUsers.end()) {
        return false;
    }
    user = found->second;
    return true;
}

bool FakeDataProvider::requestTempKey(const AuthContext& context, AuthCallback callback) {
    Question question;
    QuestionHook hook;
    {
        beginCall("requestTempKey");
        std::lock_guard<std::mutex> guard(mutex);
        enterLocked("requestTempKey");
        if (!tempKeySendOk) {
            return false;
        }
        question.kind = "tempkey";
        question.handle = "tk" + std::to_string(++handleCounter);
        question.requestId = context.requestId;
        question.callback = std::move(callback);
        question.context = context;
        hook = answerTempKey;
    }
    ask(std::move(question), hook);
    return true;
}

bool FakeDataProvider::getTempKeyUser(const TempKeyAuthData& data, UserData& user) {
    beginCall("getTempKeyUser");
    std::lock_guard<std::mutex> guard(mutex);
    enterLocked("getTempKeyUser");
    const auto found = tempKeyUsers.find(data.key);
    if (found == tempKeyUsers.end()) {
        return false;
    }
    user = found->second;
    return true;
}

void FakeDataProvider::getTempKeyTargets(std::vector<AuthTarget>& targets) {
    beginCall("getTempKeyTargets");
    std::lock_guard<std::mutex> guard(mutex);
    enterLocked("getTempKeyTargets");
    targets = tempKeyTargets;
}

bool FakeDataProvider::getHttpOpenConfig(HttpOpenConfig& out) {
    beginCall("getHttpOpenConfig");
    std::lock_guard<std::mutex> guard(mutex);
    enterLocked("getHttpOpenConfig");
    if (!httpConfig) {
        return false;
    }
    out = *httpConfig;
    return true;
}

bool FakeDataProvider::checkBleOpenInterval(const UserData& user,
                                            const std::vector<std::string>& relays) {
    (void)user;
    (void)relays;
    beginCall("checkBleOpenInterval");
    std::lock_guard<std::mutex> guard(mutex);
    enterLocked("checkBleOpenInterval");
    return bleAllowed;
}

void FakeDataProvider::recordBleOpen(const UserData& user, const std::vector<std::string>& relays) {
    (void)user;
    beginCall("recordBleOpen");
    std::lock_guard<std::mutex> guard(mutex);
    enterLocked("recordBleOpen");
    bleRecords.push_back(relays);
}

std::string FakeDataProvider::requestAntiPassback(const AuthRequest& request, const UserData& user,
                                                  AuthContext& context, AuthCallback callback) {
    (void)request;
    (void)user;
    Question question;
    QuestionHook hook;
    {
        beginCall("requestAntiPassback");
        std::lock_guard<std::mutex> guard(mutex);
        enterLocked("requestAntiPassback");
        question.kind = "antipassback";
        question.relay = joinRelayVector(context.antiPassbackRelays);
        bool offline = false;
        for (const auto& relay : context.antiPassbackRelays) {
            offline = offline || offlineRelays.count(relay) != 0;
        }
        question.handle = offline ? std::string() : "ap" + std::to_string(++handleCounter);
        question.requestId = context.requestId;
        question.callback = std::move(callback);
        question.context = context;
        hook = answerAntiPassback;
    }
    return ask(std::move(question), hook);
}

std::string FakeDataProvider::requestInterlock(const AuthRequest& request, const std::string& relay,
                                               AuthContext& context, AuthCallback callback) {
    (void)request;
    Question question;
    QuestionHook hook;
    {
        beginCall("requestInterlock");
        std::lock_guard<std::mutex> guard(mutex);
        enterLocked("requestInterlock");
        question.kind = "interlock";
        question.relay = relay;
        question.handle = offlineRelays.count(relay) != 0 ? std::string()
                                                          : "il" + std::to_string(++handleCounter);
        question.requestId = context.requestId;
        question.callback = std::move(callback);
        question.context = context;
        hook = answerInterlock;
    }
    return ask(std::move(question), hook);
}

std::string FakeDataProvider::requestParking(const AuthRequest& request, const UserData& user,
                                             std::string credential, AuthContext& context,
                                             AuthCallback callback) {
    (void)request;
    (void)user;
    (void)credential;
    Question question;
    QuestionHook hook;
    {
        beginCall("requestParking");
        std::lock_guard<std::mutex> guard(mutex);
        enterLocked("requestParking");
        question.kind = "parking";
        question.relay = joinRelayVector(context.relays);
        question.handle = parkingOffline ? std::string() : "pk" + std::to_string(++handleCounter);
        question.requestId = context.requestId;
        question.callback = std::move(callback);
        question.context = context;
        hook = answerParking;
    }
    return ask(std::move(question), hook);
}

void FakeDataProvider::onAuthResult(const AuthContext& context, const AuthResult& result) {
    {
        beginCall("onAuthResult");
        std::lock_guard<std::mutex> guard(mutex);
        enterLocked("onAuthResult");
        reported.push_back(Report{context, result});
    }
    changed.notify_all();
}

bool FakeDataProvider::getReaderPriority(std::vector<ReaderType>& priority) {
    beginCall("getReaderPriority");
    std::lock_guard<std::mutex> guard(mutex);
    enterLocked("getReaderPriority");
    if (readerPriority.empty()) {
        return false;
    }
    priority = readerPriority;
    return true;
}

void FakeDataProvider::onGuessLockout(ReaderType reader, int count, int64_t lockoutEndUptime) {
    beginCall("onGuessLockout");
    std::lock_guard<std::mutex> guard(mutex);
    enterLocked("onGuessLockout");
    lockoutLog.push_back(Lockout{reader, count, lockoutEndUptime});
}

bool FakeDataProvider::getUserByDuressCode(const std::string& code, OpenDoorType openType,
                                           UserData& user) {
    (void)openType;
    beginCall("getUserByDuressCode");
    std::lock_guard<std::mutex> guard(mutex);
    enterLocked("getUserByDuressCode");
    const auto found = duressCodes.find(code);
    if (found == duressCodes.end()) {
        return false;
    }
    user = found->second;
    return true;
}

void FakeDataProvider::onDuress(const AuthContext& context) {
    beginCall("onDuress");
    std::lock_guard<std::mutex> guard(mutex);
    enterLocked("onDuress");
    duressLog.push_back(context);
}

std::vector<FakeDataProvider::Lockout> FakeDataProvider::lockouts() {
    std::lock_guard<std::mutex> guard(mutex);
    return lockoutLog;
}

std::vector<AuthContext> FakeDataProvider::duressAlarms() {
    std::lock_guard<std::mutex> guard(mutex);
    return duressLog;
}

}  // namespace testing
}  // namespace auth_engine
