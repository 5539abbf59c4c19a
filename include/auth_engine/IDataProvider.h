// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

/// @file IDataProvider.h
/// @brief The host interface. The engine keeps no data of its own: users, keys, schedules,
/// holidays, configuration and every remote check come through this class, which the host
/// implements.
///
/// Threads: operations are called from the host thread that calls a synchronous authenticate and
/// from the engine's single worker thread; an implementation must be safe for both at once.
///
/// Absence is reported by the result (empty pointer, false, empty list), never by an exception. An
/// exception that escapes an operation anyway is caught and logged by the engine; the request it
/// served ends FAILED with fail code 0 and reason "Internal error", and nothing opens for it: an
/// answer that cannot be had never becomes a default (getAuthConfig throwing at the relay split
/// does not switch the checks off).
///
/// Answer callbacks (handed to operations 19, 26, 27 and 28) may be called on any thread, at any
/// time, inline from inside the operation included. They only forward to the engine. The first
/// answer to a question counts; repeats, answers to questions never asked and answers to questions
/// asked before a reset are dropped. An answer given inline from an operation that then throws
/// counts as failed. An empty callback means that no answer is expected. An empty returned handle
/// (26, 27, 28) means the question was not sent (device offline). A parking refusal carries fail
/// code 23.
///
/// The questions are answered under these ids, also through AuthFacade::handleAsyncResult: a
/// temporary key (19) and a parking check (28) under the asking context's requestId; an
/// anti-passback (26) or interlock (27) question under antiPassbackQuestionId or
/// interlockQuestionId of that requestId and the relay. The relay phases run under relayPhaseId of
/// the request id and the phase ("antipassback", "interlock", "parking", "unlock_options"), which
/// is then the asking context's requestId: a parking check of a phase is answered under that.
///
/// Host code may call back into the engine: reset from inside an operation or a callback completes
/// once that code has returned. Completion callbacks and onAuthResult may run while the engine
/// holds its lock (a timed-out parked chain, the shutdown drain): a facade call from there that
/// would wait for that lock is refused at once (see AuthFacade.h); hand such work to another
/// thread.
///
/// The order of the operations is part of the binary contract with the host; never reorder them.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "auth_engine/AuthTypes.h"
#include "auth_engine/export.h"

namespace auth_engine {

/// The id an anti-passback question about `relay` is answered under, when asked for a request or
/// phase running under `requestId`: requestId + "_ap_" + relay.
AUTH_ENGINE_API std::string antiPassbackQuestionId(const std::string& requestId,
                                                   const std::string& relay);
/// The same for an interlock question: requestId + "_il_" + relay.
AUTH_ENGINE_API std::string interlockQuestionId(const std::string& requestId,
                                                const std::string& relay);
/// The id a relay phase of a request runs (and is reported) under: requestId + "_ind_" + phase.
AUTH_ENGINE_API std::string relayPhaseId(const std::string& requestId, const std::string& phase);

class IDataProvider {
public:
    virtual ~IDataProvider() = default;

    /// 1. Reserved; never called.
    virtual void reservedOperation1() {}

    /// 2. The owner of a credential (user lookup). Called once per attempt that needs a user.
    /// @return the user, or an empty pointer for "not found".
    virtual std::shared_ptr<UserData> getUserByCredential(const char* credential,
                                                          const OpenDoorType& openType) = 0;

    /// 3. The vehicle key record of the user of a plate attempt (open type 11). `keyKind` is always
    /// 0, `ownerKind` is UserData::ownerKind. An empty pointer fails the attempt (fail code 22).
    virtual std::shared_ptr<KeyData> getKeyData(const AuthContext& context, int keyKind,
                                                int ownerKind) = 0;

    /// 4. The schedules of an owner: a user's UserData::scheduleRelay text with its owner kind, or
    /// for a relay key an "id-relay;id-relay" text with owner kind 0. Null entries are skipped.
    virtual std::vector<std::shared_ptr<ScheduleData>> getRelaySchedules(
        const std::string& ownerKey, int ownerKind) = 0;

    /// 5. The holidays that apply to an owner (UserData::holidayKey, UserData::ownerKind).
    virtual std::vector<HolidayData> getHolidays(const std::string& ownerKey, int ownerKind) = 0;

    /// 6. True when the entered PIN (context.request.credential) is the device's public PIN.
    virtual bool isPublicPin(const AuthContext& context) = 0;

    /// 7. True when the PIN is a latch PIN; the relays to latch are written to `relays`.
    virtual bool getLatchPinRelays(const AuthContext& context,
                                   std::vector<std::string>& relays) = 0;

    /// 8. Reserved; never called.
    virtual void reservedOperation8() {}

    /// 9. The relays the public PIN opens.
    virtual std::vector<std::string> getPublicPinRelays(const AuthContext& context) = 0;

    /// 10. The current configuration. Called afresh at every use, so a change takes effect with the
    /// next request.
    virtual AuthConfig getAuthConfig() = 0;

    /// 11. Those of `relays` that are in lockdown.
    virtual std::vector<std::string> getLockedDownRelays(
        const std::vector<std::string>& relays) = 0;

    /// 12. True when `relay` ignores holidays.
    virtual bool isRelayHolidayExempt(const std::string& relay) = 0;

    /// 13. Those of `relays` on which `openType` is forbidden. An empty list forbids nothing.
    virtual std::vector<std::string> getForbiddenUnlockTypeRelays(
        const std::vector<std::string>& relays, OpenDoorType openType) = 0;

    /// 14. The DTMF configuration; false when there is none (DTMF opening disabled).
    virtual bool getDtmfConfig(DtmfConfig& config, const AuthContext& context) = 0;

    /// 15. Whether a DTMF caller is whitelisted; false or `result.allowed` false refuses the
    /// caller.
    virtual bool requestDtmfWhitelist(const DtmfWhitelistRequest& request,
                                      DtmfWhitelistResult& result) = 0;

    /// 16. The user behind a DTMF caller's number; false lets the user lookup decide (visitor
    /// path).
    virtual bool getDtmfUser(const std::string& remoteNumber, UserData& user,
                             const AuthContext& context) = 0;

    /// 17. True when a DTMF visitor is admitted; `user` then becomes the attempt's user.
    virtual bool requestDtmfVisitorPermission(const DtmfVisitorPermissionRequest& request,
                                              UserData& user) = 0;

    /// 18. The user of a remote-control command; false lets a command with targets through under a
    /// synthetic "command-authorized" user.
    virtual bool getRemoteControlUser(const std::string& remoteUserId, UserData& user,
                                      AuthContext& context) = 0;

    /// 19. Send a temporary key (context.request.credential) for remote validation. Return true
    /// when the question was sent; the answer comes through `callback` (or
    /// AuthFacade::handleAsyncResult with the request id), its context carrying `tempKeyAuthData`.
    /// False fails the attempt (fail code 24).
    virtual bool requestTempKey(const AuthContext& context, AuthCallback callback) = 0;

    /// 20. The user behind a validated temporary key; false fails the attempt ("Temp key user not
    /// found").
    virtual bool getTempKeyUser(const TempKeyAuthData& data, UserData& user) = 0;

    /// 21. The default targets a temporary key opens when the answer names none.
    virtual void getTempKeyTargets(std::vector<AuthTarget>& targets) = 0;

    /// 22. The HTTP open configuration; false means HTTP opening is disabled.
    virtual bool getHttpOpenConfig(HttpOpenConfig& config) = 0;

    /// 23. Reserved; never called.
    virtual void reservedOperation23() {}

    /// 24. False when the user opened these relays by BLE too recently (the attempt is IGNORED).
    virtual bool checkBleOpenInterval(const UserData& user,
                                      const std::vector<std::string>& relays) = 0;

    /// 25. Remember the time of this BLE open (called when the interval check passes).
    virtual void recordBleOpen(const UserData& user, const std::vector<std::string>& relays) = 0;

    /// 26. Send an anti-passback question for the relays in context.antiPassbackRelays (one relay
    /// per call while answers are routed; context.antiPassbackDirections holds the directions).
    /// @return a handle of the sent question, or an empty text when the relay is offline.
    /// The answer's `result` 0 or 3 passes; `remoteFailCode` 0 or more is kept for the report.
    virtual std::string requestAntiPassback(const AuthRequest& request, const UserData& user,
                                            AuthContext& context, AuthCallback callback) = 0;

    /// 27. Send an interlock question for one relay. Only an answer `result` 0 passes.
    /// @return a handle, or an empty text when offline (the relay fails).
    virtual std::string requestInterlock(const AuthRequest& request, const std::string& relay,
                                         AuthContext& context, AuthCallback callback) = 0;

    /// 28. Send a parking-restriction question for the relays in context.relays.
    /// @return a handle, or an empty text when offline (the restriction is skipped). Answer SUCCESS
    /// to pass; any other answer refuses with fail code 23.
    virtual std::string requestParking(const AuthRequest& request, const UserData& user,
                                       std::string credential, AuthContext& context,
                                       AuthCallback callback) = 0;

    /// 29. The engine's report of a verdict (final, partial or per phase). One request may be
    /// reported several times: context.response.asyncType names the phase. May run under the engine
    /// lock (see the file comment): do not call back into the engine from here.
    virtual void onAuthResult(const AuthContext& context, const AuthResult& result) = 0;

    /// 30. The reader priority used to compose the reader of a two-factor opening. False or an
    /// empty list means the priority 2, 1, 0.
    virtual bool getReaderPriority(std::vector<ReaderType>& priority) {
        (void)priority;
        return false;
    }
};

}  // namespace auth_engine
