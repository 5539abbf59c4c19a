// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// A lean IDataProvider for the benchmarks: fixed, read-only site data (one door pair, a few users)
// answered without locks or call logging, so that what is measured is the engine, not the double.
// The questions the engine sends (temporary key, anti-passback) are queued for the benchmark thread
// to answer, as a real host does from its own network thread.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "auth_engine/IDataProvider.h"

namespace auth_engine {
namespace bench {

/// Credentials of the site: a plain card user (relays 1 and 2, two schedules each), the same under
/// anti-passback (userType 1), and a temporary key the host answers.
constexpr const char* CARD_USER = "04A1B2C3";
constexpr const char* AP_USER = "04D4E5F6";
constexpr const char* TEMP_KEY = "TK-123456";

class BenchProvider : public IDataProvider {
public:
    /// One question the engine asked.
    struct Question {
        std::string kind;  ///< "tempkey" or "antipassback"
        std::string relay;
        AuthCallback callback;
    };

    BenchProvider();

    // The site, answered as it is: set before the engine runs, never while it does.
    AuthConfig config;
    std::map<std::string, std::shared_ptr<UserData>> users;  ///< credential -> user
    std::vector<std::shared_ptr<ScheduleData>> schedules;
    std::vector<HolidayData> holidays;
    std::vector<AuthTarget> tempKeyTargets;

    /// false: questions are acknowledged but not kept (memory figures count the engine only).
    bool keepQuestions = true;

    /// Waits until `count` questions are queued and takes them.
    std::vector<Question> takeQuestions(std::size_t count);
    std::size_t reportCount() const { return reports.load(std::memory_order_relaxed); }

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
    bool getDtmfConfig(DtmfConfig& config, const AuthContext& context) override;
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
    bool getHttpOpenConfig(HttpOpenConfig& config) override;
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

private:
    void ask(Question question);

    std::atomic<std::size_t> reports{0};
    std::mutex questionMutex;
    std::condition_variable questionArrived;
    std::vector<Question> questions;
};

/// Where the library's log lines go during a measurement.
enum class Logging {
    NULL_SINK,   ///< AuthLogger::setNullSink: lines are dropped unformatted
    EMPTY_SINK,  ///< AuthLogger::setSink with an empty-bodied function: formatted, then dropped
    SYSLOG,      ///< the default system log
};
void useLogging(Logging logging);

/// The facade initialised with a provider for the lifetime of the object.
class FacadeSession {
public:
    explicit FacadeSession(std::shared_ptr<BenchProvider> provider);
    ~FacadeSession();
    FacadeSession(const FacadeSession&) = delete;
    FacadeSession& operator=(const FacadeSession&) = delete;
    bool ready() const { return initialised; }

private:
    bool initialised = false;
};

/// Same verdict, phase, relays and targets.
bool sameDecision(const AuthResponse& a, const AuthResponse& b);

/// The synchronous card attempt every decision benchmark makes.
AuthRequest cardRequest();
/// The same attempt by the anti-passback user.
AuthRequest antiPassbackRequest();
/// A temporary-key attempt.
AuthRequest tempKeyRequest();
/// The host's answer to a temporary-key question.
AuthContext tempKeyAnswer();

}  // namespace bench
}  // namespace auth_engine
