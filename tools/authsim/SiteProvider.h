// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// The host side of the simulator: an IDataProvider that answers every operation from a Site, and
// plays the remote peers that answer anti-passback, interlock, parking and temporary-key questions
// (inline, later from another thread, when a scenario says so, never, or offline).
//
// The engine calls it from the host thread and from its worker at the same time: all site data and
// the questions in flight are guarded by one mutex, and no engine callback is ever called while it
// is held (an answer may re-enter the engine, which takes its own lock).
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <auth_engine/IDataProvider.h>

#include "Site.h"

namespace authsim {

class SiteProvider : public auth_engine::IDataProvider {
public:
    /// A question the engine asked and the answer the peer will give.
    struct Question {
        std::string check;     ///< "antiPassback", "interlock", "parking", "tempKey"
        std::string key;       ///< the relay asked about, or the temporary key
        std::string engineId;  ///< the id the engine routes the answer by
        RemoteAnswer answer;
        auth_engine::AuthCallback callback;
        auth_engine::AuthContext update;  ///< carried with the answer (temporary-key data)
        int64_t askedAt = 0;              ///< simulated wall-clock time of the question
    };

    /// What the simulator shows: a line about a question or an answer, and the engine's reports
    /// through onAuthResult. Both are called without the provider's lock held.
    struct Listener {
        std::function<void(const std::string& line)> note;
        std::function<void(const auth_engine::AuthContext& context, auth_engine::AuthResult result)>
            hostReport;
    };

    SiteProvider(Site site, Listener listener);
    ~SiteProvider() override;
    SiteProvider(const SiteProvider&) = delete;
    SiteProvider& operator=(const SiteProvider&) = delete;

    Site site() const;
    void setSite(Site site);

    /// Takes the oldest question of `check` that waits for a scenario's answer (about `key`, or any
    /// when `key` is empty).
    bool takeHeld(const std::string& check, const std::string& key, Question& question);
    /// Answers now: through the question's callback, or through AuthFacade::handleAsyncResult.
    void deliver(const Question& question, const RemoteAnswer& answer, bool viaFacade);
    /// Waits until every "later" answer has been delivered; false when `limit` ran out first.
    bool waitForDeliveries(std::chrono::milliseconds limit);
    /// Counts questions and delivered answers, so that a caller can tell when things went quiet.
    uint64_t activity() const;
    /// The questions that wait for a scenario's answer (held) and those no peer will answer
    /// (never), oldest first.
    std::vector<Question> waiting() const;

    std::shared_ptr<auth_engine::UserData> getUserByCredential(
        const char* credential, const auth_engine::OpenDoorType& openType) override;
    std::shared_ptr<auth_engine::KeyData> getKeyData(const auth_engine::AuthContext& context,
                                                     int keyKind, int ownerKind) override;
    std::vector<std::shared_ptr<auth_engine::ScheduleData>> getRelaySchedules(
        const std::string& ownerKey, int ownerKind) override;
    std::vector<auth_engine::HolidayData> getHolidays(const std::string& ownerKey,
                                                      int ownerKind) override;
    bool isPublicPin(const auth_engine::AuthContext& context) override;
    bool getLatchPinRelays(const auth_engine::AuthContext& context,
                           std::vector<std::string>& relays) override;
    std::vector<std::string> getPublicPinRelays(const auth_engine::AuthContext& context) override;
    auth_engine::AuthConfig getAuthConfig() override;
    std::vector<std::string> getLockedDownRelays(const std::vector<std::string>& relays) override;
    bool isRelayHolidayExempt(const std::string& relay) override;
    std::vector<std::string> getForbiddenUnlockTypeRelays(
        const std::vector<std::string>& relays, auth_engine::OpenDoorType openType) override;
    bool getDtmfConfig(auth_engine::DtmfConfig& config,
                       const auth_engine::AuthContext& context) override;
    bool requestDtmfWhitelist(const auth_engine::DtmfWhitelistRequest& request,
                              auth_engine::DtmfWhitelistResult& result) override;
    bool getDtmfUser(const std::string& remoteNumber, auth_engine::UserData& user,
                     const auth_engine::AuthContext& context) override;
    bool requestDtmfVisitorPermission(const auth_engine::DtmfVisitorPermissionRequest& request,
                                      auth_engine::UserData& user) override;
    bool getRemoteControlUser(const std::string& remoteUserId, auth_engine::UserData& user,
                              auth_engine::AuthContext& context) override;
    bool requestTempKey(const auth_engine::AuthContext& context,
                        auth_engine::AuthCallback callback) override;
    bool getTempKeyUser(const auth_engine::TempKeyAuthData& data,
                        auth_engine::UserData& user) override;
    void getTempKeyTargets(std::vector<auth_engine::AuthTarget>& targets) override;
    bool getHttpOpenConfig(auth_engine::HttpOpenConfig& config) override;
    bool checkBleOpenInterval(const auth_engine::UserData& user,
                              const std::vector<std::string>& relays) override;
    void recordBleOpen(const auth_engine::UserData& user,
                       const std::vector<std::string>& relays) override;
    std::string requestAntiPassback(const auth_engine::AuthRequest& request,
                                    const auth_engine::UserData& user,
                                    auth_engine::AuthContext& context,
                                    auth_engine::AuthCallback callback) override;
    std::string requestInterlock(const auth_engine::AuthRequest& request, const std::string& relay,
                                 auth_engine::AuthContext& context,
                                 auth_engine::AuthCallback callback) override;
    std::string requestParking(const auth_engine::AuthRequest& request,
                               const auth_engine::UserData& user, std::string credential,
                               auth_engine::AuthContext& context,
                               auth_engine::AuthCallback callback) override;
    void onAuthResult(const auth_engine::AuthContext& context,
                      const auth_engine::AuthResult& result) override;
    bool getReaderPriority(std::vector<auth_engine::ReaderType>& priority) override;
    void onGuessLockout(auth_engine::ReaderType reader, int count,
                        int64_t lockoutEndUptime) override;
    bool getUserByDuressCode(const std::string& code, auth_engine::OpenDoorType openType,
                             auth_engine::UserData& user) override;
    void onDuress(const auth_engine::AuthContext& context) override;

private:
    using Clock = std::chrono::steady_clock;

    /// Sends a question to its peer; returns the handle, empty when the peer is offline.
    std::string ask(Question question);
    const SiteUser* userWith(const std::string& kind, const std::string& credential) const;
    void courierLoop();

    const Listener listener;
    mutable std::mutex mutex;
    std::condition_variable courierWake;
    std::condition_variable deliveriesDone;
    Site data;
    std::vector<Question> held;
    std::vector<Question> unanswered;  ///< asked of a peer in mode "never"
    std::multimap<Clock::time_point, Question> scheduled;
    std::size_t inFlight = 0;
    std::map<std::string, int64_t> lastBleOpen;  ///< user id -> simulated time of the last BLE open
    uint64_t questionCount = 0;
    uint64_t answerCount = 0;
    bool stopping = false;
    std::thread courier;  ///< delivers the "later" answers; started last, joined first
};

}  // namespace authsim
