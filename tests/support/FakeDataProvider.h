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

#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

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
    std::vector<ReaderType> readerPriority;       ///< empty: getReaderPriority answers false
    std::set<std::string> throwFrom;              ///< operation names that throw std::runtime_error
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

    QuestionHook answerTempKey;
    QuestionHook answerAntiPassback;
    QuestionHook answerInterlock;
    QuestionHook answerParking;

    /// Locks the scripted data for a change while the engine runs.
    std::unique_lock<std::mutex> lock() { return std::unique_lock<std::mutex>(mutex); }

    // ---- what happened ----
    std::vector<std::string> calls() { return snapshot(callLog); }
    int callCount(const std::string& operation);
    std::vector<std::string> ownerKeysAsked() { return snapshot(ownerKeys); }
    std::vector<Question> questions() { return snapshot(asked); }
    std::vector<Report> reports() { return snapshot(reported); }
    std::vector<Lockout> lockouts() { return snapshot(lockoutLog); }
    /// The contexts onDuress was called with.
    std::vector<AuthContext> duressAlarms() { return snapshot(duressLog); }
    std::size_t reportCount() { return reports().size(); }
    /// Waits until at least `count` questions were asked; false on timeout.
    bool waitForQuestions(std::size_t count, int timeoutMs = 5000);
    void clearLog();

    /// Answers question `index` through its callback with a response of `result` (and `failCode`).
    void answer(std::size_t index, AuthResult result, int failCode = 0,
                const AuthContext& contextUpdate = AuthContext());

    // ---- IDataProvider ----
    std::shared_ptr<UserData> getUserByCredential(const char* credential,
                                                  const OpenDoorType& openType) override;
    std::shared_ptr<KeyData> getKeyData(const AuthContext& context, int keyKind,
                                        int ownerKind) override;
    std::vector<std::shared_ptr<ScheduleData>> getRelaySchedules(const std::string& ownerKey,
                                                                 int ownerKind) override;
    std::vector<HolidayData> getHolidays(const std::string& ownerKey, int ownerKind) override;
    bool isPublicPin(const AuthContext& context) override;
    bool getLatchPinRelays(const AuthContext& context, std::vector<std::string>& relays) override;
    std::vector<std::string> getPublicPinRelays(const AuthContext& context) override;
    AuthConfig getAuthConfig() override;
    std::vector<std::string> getLockedDownRelays(const std::vector<std::string>& relays) override;
    bool isRelayHolidayExempt(const std::string& relay) override;
    std::vector<std::string> getForbiddenUnlockTypeRelays(const std::vector<std::string>& relays,
                                                          OpenDoorType openType) override;
    bool getDtmfConfig(DtmfConfig& out, const AuthContext& context) override;
    bool requestDtmfWhitelist(const DtmfWhitelistRequest& request,
                              DtmfWhitelistResult& result) override;
    bool getDtmfUser(const std::string& remoteNumber, UserData& user,
                     const AuthContext& context) override;
    bool requestDtmfVisitorPermission(const DtmfVisitorPermissionRequest& request,
                                      UserData& user) override;
    bool getRemoteControlUser(const std::string& remoteUserId, UserData& user,
                              AuthContext& context) override;
    bool requestTempKey(const AuthContext& context, AuthCallback callback) override;
    bool getTempKeyUser(const TempKeyAuthData& data, UserData& user) override;
    void getTempKeyTargets(std::vector<AuthTarget>& targets) override;
    bool getHttpOpenConfig(HttpOpenConfig& out) override;
    bool checkBleOpenInterval(const UserData& user,
                              const std::vector<std::string>& relays) override;
    void recordBleOpen(const UserData& user, const std::vector<std::string>& relays) override;
    std::string requestAntiPassback(const AuthRequest& request, const UserData& user,
                                    AuthContext& context, AuthCallback callback) override;
    std::string requestInterlock(const AuthRequest& request, const std::string& relay,
                                 AuthContext& context, AuthCallback callback) override;
    std::string requestParking(const AuthRequest& request, const UserData& user,
                               std::string credential, AuthContext& context,
                               AuthCallback callback) override;
    void onAuthResult(const AuthContext& context, const AuthResult& result) override;
    bool getReaderPriority(std::vector<ReaderType>& priority) override;
    void onGuessLockout(ReaderType reader, int count, int64_t lockoutEndUptime) override;
    bool getUserByDuressCode(const std::string& code, OpenDoorType openType,
                             UserData& user) override;
    void onDuress(const AuthContext& context) override;

private:
    // Runs the beforeCall hook, then logs the call and, under the lock, runs `body`, unless the
    // operation is listed in throwFrom.
    template <class Body>
    auto locked(const char* operation, Body body) -> decltype(body());
    template <class T>
    T snapshot(const T& data) {
        std::lock_guard<std::mutex> guard(mutex);
        return data;
    }
    // Records `question` with a numbered handle, or with none when `offline()` (and then not at
    // all unless `recordOffline`), runs its hook without the lock and returns the handle.
    std::string ask(const char* operation, Question question, const std::function<bool()>& offline,
                    QuestionHook FakeDataProvider::*hook, bool recordOffline);

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
