// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// A scripted, thread-safe IDataProvider for tests.
//
// Set the public data members before the engine runs, or under `lock()` while it runs. Every
// operation records its name in the call log. The four questions to the host (temp key,
// anti-passback, interlock, parking) are recorded with their answer callback; by default they are
// "sent" (a handle is returned) and left unanswered, so a test can answer later through the
// callback or the engine. A test can instead answer inline (from inside the operation) with the
// `answer*` hooks, or make a relay offline. No hook or callback is called while the fake's mutex is
// held.
#pragma once

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "auth_engine/AuthLogger.h"
#include "auth_engine/IDataProvider.h"

namespace auth_engine {
namespace testing {

class FakeDataProvider : public IDataProvider {
public:
    /// One question the engine asked the host.
    struct Question {
        std::string kind;       ///< "tempkey", "antipassback", "interlock", "parking"
        std::string handle;     ///< what the fake returned ("" when offline)
        std::string relay;      ///< interlock: the relay; anti-passback: joined antiPassbackRelays
        std::string requestId;  ///< context.requestId at the time of the question
        AuthCallback callback;
        AuthContext context;  ///< copy of the context handed over
    };

    /// One onAuthResult report.
    struct Report {
        AuthContext context;
        AuthResult result = CONTINUE;
    };

    /// A hook that may answer a question inline; it runs without the fake's lock, inside the
    /// operation.
    using QuestionHook = std::function<void(Question& question)>;

    // ---- scripted data (guarded by lock() once the engine runs) ----
    std::map<std::string, UserData> users;                 ///< credential -> user
    std::shared_ptr<KeyData> keyData;                      ///< answer of getKeyData
    std::vector<std::shared_ptr<ScheduleData>> schedules;  ///< answer of getRelaySchedules
    std::vector<HolidayData> holidays;
    std::string publicPin;  ///< empty: no public PIN
    std::vector<std::string> publicPinRelays;
    std::map<std::string, std::vector<std::string>> latchPins;  ///< PIN -> relays
    AuthConfig config;
    std::set<std::string> lockedDownRelays;
    std::set<std::string> holidayExemptRelays;
    std::map<int, std::set<std::string>>
        forbiddenRelays;  ///< open type -> relays where it is forbidden
    std::optional<DtmfConfig> dtmfConfig;
    std::map<std::string, DtmfWhitelistResult> dtmfWhitelist;  ///< remote number -> answer
    std::map<std::string, UserData> dtmfUsers;                 ///< remote number -> user
    std::optional<UserData> dtmfVisitor;                       ///< admitted visitor, if any
    std::map<std::string, UserData> remoteControlUsers;
    bool tempKeySendOk = true;                     ///< requestTempKey's result
    std::map<std::string, UserData> tempKeyUsers;  ///< key -> user
    std::vector<AuthTarget> tempKeyTargets;
    std::optional<HttpOpenConfig> httpConfig;
    bool bleAllowed = true;
    std::vector<std::vector<std::string>> bleRecords;
    std::set<std::string>
        offlineRelays;  ///< anti-passback and interlock questions for these fail to send
    bool parkingOffline = false;
    std::vector<ReaderType> readerPriority;  ///< empty: getReaderPriority answers false
    std::set<std::string> throwFrom;  ///< operations that throw std::runtime_error; "*": every one
    std::map<std::string, UserData> duressCodes;  ///< duress code -> user

    /// One onGuessLockout call.
    struct Lockout {
        ReaderType reader = READER_TYPE_INTERNAL;
        int count = 0;
        int64_t end = 0;
    };

    /// Runs at the start of every operation, without the fake's lock, with the operation's name:
    /// it may throw, change the scripted data (under lock()) or call into the engine.
    std::function<void(const std::string& operation)> beforeCall;

    QuestionHook answerTempKey, answerAntiPassback, answerInterlock, answerParking;

    /// Locks the scripted data for a change while the engine runs.
    std::unique_lock<std::mutex> lock() { return std::unique_lock<std::mutex>(mutex); }

    // ---- what happened ----
    std::vector<std::string> calls() { return snapshot(callLog); }
    int callCount(const std::string& operation) {
        std::lock_guard<std::mutex> guard(mutex);
        return static_cast<int>(std::count(callLog.begin(), callLog.end(), operation));
    }
    std::vector<std::string> ownerKeysAsked() { return snapshot(ownerKeys); }
    std::vector<Question> questions() { return snapshot(asked); }
    std::vector<Report> reports() { return snapshot(reported); }
    std::vector<Lockout> lockouts() { return snapshot(lockoutLog); }
    /// The contexts onDuress was called with.
    std::vector<AuthContext> duressAlarms() { return snapshot(duressLog); }
    std::size_t reportCount() { return reports().size(); }
    /// Waits until at least `count` questions were asked; false on timeout.
    bool waitForQuestions(std::size_t count, int timeoutMs = 5000) {
        std::unique_lock<std::mutex> guard(mutex);
        return changed.wait_for(guard, std::chrono::milliseconds(timeoutMs),
                                [&] { return asked.size() >= count; });
    }
    void clearLog() {
        std::lock_guard<std::mutex> guard(mutex);
        callLog.clear();
        ownerKeys.clear();
        asked.clear();
        reported.clear();
    }
    /// Answers question `index` through its callback with a response of `result` (and `failCode`).
    void answer(std::size_t index, AuthResult result, int failCode = 0,
                const AuthContext& contextUpdate = AuthContext()) {
        const Question question = questions().at(index);
        AuthResponse response;
        response.result = result;
        response.failCode = failCode;
        if (question.callback) {
            question.callback(question.handle, response, contextUpdate);
        }
    }
    // ---- IDataProvider ----
    std::shared_ptr<UserData> getUserByCredential(const char* credential,
                                                  const OpenDoorType&) override {
        UserData user;
        return lookUp("getUserByCredential", users, credential == nullptr ? "" : credential, user)
                   ? std::make_shared<UserData>(user)
                   : nullptr;
    }
    std::shared_ptr<KeyData> getKeyData(const AuthContext&, int, int) override {
        return locked("getKeyData",
                      [&] { return keyData ? std::make_shared<KeyData>(*keyData) : nullptr; });
    }
    std::vector<std::shared_ptr<ScheduleData>> getRelaySchedules(const std::string& ownerKey,
                                                                 int) override {
        return locked("getRelaySchedules", [&] {
            ownerKeys.push_back(ownerKey);
            return schedules;
        });
    }
    std::vector<HolidayData> getHolidays(const std::string& ownerKey, int) override {
        return locked("getHolidays", [&] {
            ownerKeys.push_back(ownerKey);
            return holidays;
        });
    }
    bool isPublicPin(const AuthContext& context) override {
        const std::string pin = read("isPublicPin", publicPin);
        return !pin.empty() && context.request.credential == pin;
    }
    bool getLatchPinRelays(const AuthContext& context, std::vector<std::string>& relays) override {
        return lookUp("getLatchPinRelays", latchPins, context.request.credential, relays);
    }
    std::vector<std::string> getPublicPinRelays(const AuthContext&) override {
        return read("getPublicPinRelays", publicPinRelays);
    }
    AuthConfig getAuthConfig() override { return read("getAuthConfig", config); }
    std::vector<std::string> getLockedDownRelays(const std::vector<std::string>& relays) override {
        return locked("getLockedDownRelays", [&] { return listed(relays, lockedDownRelays); });
    }
    bool isRelayHolidayExempt(const std::string& relay) override {
        return locked("isRelayHolidayExempt",
                      [&] { return holidayExemptRelays.count(relay) != 0; });
    }
    std::vector<std::string> getForbiddenUnlockTypeRelays(const std::vector<std::string>& relays,
                                                          OpenDoorType openType) override {
        return locked("getForbiddenUnlockTypeRelays", [&] {
            const auto found = forbiddenRelays.find(openType);
            return found == forbiddenRelays.end() ? std::vector<std::string>()
                                                  : listed(relays, found->second);
        });
    }
    bool getDtmfConfig(DtmfConfig& out, const AuthContext&) override {
        return given(read("getDtmfConfig", dtmfConfig), out);
    }
    bool requestDtmfWhitelist(const DtmfWhitelistRequest& request,
                              DtmfWhitelistResult& result) override {
        return lookUp("requestDtmfWhitelist", dtmfWhitelist, request.remoteNumber, result);
    }
    bool getDtmfUser(const std::string& remoteNumber, UserData& user, const AuthContext&) override {
        return lookUp("getDtmfUser", dtmfUsers, remoteNumber, user);
    }
    bool requestDtmfVisitorPermission(const DtmfVisitorPermissionRequest&,
                                      UserData& user) override {
        return given(read("requestDtmfVisitorPermission", dtmfVisitor), user);
    }
    bool getRemoteControlUser(const std::string& remoteUserId, UserData& user,
                              AuthContext&) override {
        return lookUp("getRemoteControlUser", remoteControlUsers, remoteUserId, user);
    }
    bool requestTempKey(const AuthContext& context, AuthCallback callback) override {
        return !ask(
                    "requestTempKey",
                    {"tempkey", "tk", "", context.requestId, std::move(callback), context},
                    [this] { return !tempKeySendOk; }, answerTempKey, false)
                    .empty();
    }
    bool getTempKeyUser(const TempKeyAuthData& data, UserData& user) override {
        return lookUp("getTempKeyUser", tempKeyUsers, data.key, user);
    }
    void getTempKeyTargets(std::vector<AuthTarget>& targets) override {
        targets = read("getTempKeyTargets", tempKeyTargets);
    }
    bool getHttpOpenConfig(HttpOpenConfig& out) override {
        return given(read("getHttpOpenConfig", httpConfig), out);
    }
    bool checkBleOpenInterval(const UserData&, const std::vector<std::string>&) override {
        return read("checkBleOpenInterval", bleAllowed);
    }
    void recordBleOpen(const UserData&, const std::vector<std::string>& relays) override {
        locked("recordBleOpen", [&] { bleRecords.push_back(relays); });
    }
    std::string requestAntiPassback(const AuthRequest&, const UserData&, AuthContext& context,
                                    AuthCallback callback) override {
        const auto& relays = context.antiPassbackRelays;
        return ask(
            "requestAntiPassback",
            {"antipassback", "ap", joinRelayVector(relays), context.requestId, std::move(callback),
             context},
            [&] { return !listed(relays, offlineRelays).empty(); }, answerAntiPassback);
    }
    std::string requestInterlock(const AuthRequest&, const std::string& relay, AuthContext& context,
                                 AuthCallback callback) override {
        return ask(
            "requestInterlock",
            {"interlock", "il", relay, context.requestId, std::move(callback), context},
            [&] { return offlineRelays.count(relay) != 0; }, answerInterlock);
    }
    std::string requestParking(const AuthRequest&, const UserData&, std::string,
                               AuthContext& context, AuthCallback callback) override {
        return ask(
            "requestParking",
            {"parking", "pk", joinRelayVector(context.relays), context.requestId,
             std::move(callback), context},
            [&] { return parkingOffline; }, answerParking);
    }
    void onAuthResult(const AuthContext& context, const AuthResult& result) override {
        locked("onAuthResult", [&] { reported.push_back(Report{context, result}); });
        changed.notify_all();
    }
    bool getReaderPriority(std::vector<ReaderType>& priority) override {
        const auto order = read("getReaderPriority", readerPriority);
        priority = order.empty() ? priority : order;
        return !order.empty();
    }
    void onGuessLockout(ReaderType reader, int count, int64_t lockoutEndUptime) override {
        locked("onGuessLockout", [&] {
            lockoutLog.push_back(Lockout{reader, count, lockoutEndUptime});
        });
    }
    bool getUserByDuressCode(const std::string& code, OpenDoorType, UserData& user) override {
        return lookUp("getUserByDuressCode", duressCodes, code, user);
    }
    void onDuress(const AuthContext& context) override {
        locked("onDuress", [&] { duressLog.push_back(context); });
    }

private:
    // Runs the beforeCall hook, then logs the call and, under the lock, runs `body`, unless the
    // operation is listed in throwFrom: then it throws std::runtime_error instead.
    template <class Body>
    auto locked(const char* operation, Body body) -> decltype(body()) {
        if (const auto hook = snapshot(beforeCall)) {
            hook(operation);
        }
        std::lock_guard<std::mutex> guard(mutex);
        callLog.emplace_back(operation);
        if (throwFrom.count(operation) != 0 || throwFrom.count("*") != 0) {
            throw std::runtime_error(std::string("fake provider throws from ") + operation);
        }
        return body();
    }
    // A copy of scripted data, read as `operation`.
    template <class T>
    T read(const char* operation, const T& data) {
        return locked(operation, [&] { return data; });
    }
    // Copies the entry for `key` into `out`, read as `operation`; false when there is none.
    template <class Map, class Key, class Out>
    bool lookUp(const char* operation, const Map& map, const Key& key, Out& out) {
        return locked(operation, [&] {
            const auto found = map.find(key);
            if (found != map.end()) {
                out = found->second;
            }
            return found != map.end();
        });
    }
    template <class T>
    static bool given(const std::optional<T>& from, T& out) {
        out = from.value_or(out);
        return from.has_value();
    }
    // The relays listed in `set`, in their order.
    static std::vector<std::string> listed(const std::vector<std::string>& relays,
                                           const std::set<std::string>& set) {
        std::vector<std::string> out;
        std::copy_if(relays.begin(), relays.end(), std::back_inserter(out),
                     [&](const std::string& relay) { return set.count(relay) != 0; });
        return out;
    }
    template <class T>
    T snapshot(const T& data) {
        std::lock_guard<std::mutex> guard(mutex);
        return data;
    }
    // Records `question` with a numbered handle, or with none when `offline()` (and then not at
    // all unless `recordOffline`), runs its hook without the lock and returns the handle.
    std::string ask(const char* operation, Question question, const std::function<bool()>& offline,
                    const QuestionHook& hook, bool recordOffline = true) {
        QuestionHook answer;
        std::size_t index = 0;
        locked(operation, [&] {
            question.handle =
                offline() ? std::string() : question.handle + std::to_string(++handleCounter);
            answer = hook;
            index = asked.size();
            if (!question.handle.empty() || recordOffline) {
                asked.push_back(question);
            }
        });
        changed.notify_all();
        if (answer && !question.handle.empty()) {
            answer(question);
            std::lock_guard<std::mutex> guard(mutex);
            asked[index] = question;
        }
        return question.handle;
    }
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<std::string> callLog;
    std::vector<std::string> ownerKeys;
    std::vector<Question> asked;
    std::vector<Report> reported;
    std::vector<Lockout> lockoutLog;
    std::vector<AuthContext> duressLog;
    int handleCounter = 0;
};

}  // namespace testing
}  // namespace auth_engine
