// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// The recording layer the facade puts between the engine and the host's provider while a trace
// sink is set: every operation is forwarded, then recorded with its arguments and its result (or
// what it threw, which is then thrown on). The answer callbacks handed to the host (operations 19,
// 26, 27, 28) are wrapped, so that each call of them is recorded before it is forwarded, with the
// number of the question it answers and whether it came from inside the asking operation.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "auth_engine/IDataProvider.h"
#include "auth_engine/Trace.h"

namespace auth_engine {
namespace trace {

class TracingProvider : public IDataProvider {
public:
    TracingProvider(std::shared_ptr<IDataProvider> host, std::shared_ptr<TraceSink> sink);

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
    bool getReaderPriority(std::vector<ReaderType>& priority) override;
    void onGuessLockout(ReaderType reader, int count, int64_t lockoutEndUptime) override;
    bool getUserByDuressCode(const std::string& code, OpenDoorType openType,
                             UserData& user) override;
    void onDuress(const AuthContext& context) override;

private:
    /// Runs `call` on the host, then records the operation: `args(json)` writes the arguments'
    /// members, `result(json, value)` the members that follow them (at least "result"). A throw
    /// is recorded as "threw" and thrown on. `question` (non-zero) numbers the question whose
    /// answer callback the operation was handed.
    template <typename Call, typename Args, typename Result>
    auto traced(const char* name, uint64_t question, Call&& call, Args&& args, Result&& result)
        -> decltype(call());

    AuthCallback wrapAnswer(const char* check, uint64_t question, AuthCallback callback);
    uint64_t newQuestion() { return questions.fetch_add(1, std::memory_order_relaxed) + 1; }

    const std::shared_ptr<IDataProvider> host;
    const std::shared_ptr<TraceSink> sink;
    std::atomic<uint64_t> questions{0};
};

}  // namespace trace
}  // namespace auth_engine
