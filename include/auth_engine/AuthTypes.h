// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

/// @file AuthTypes.h
/// @brief Enumerations, the completion callback type and every record that crosses the library
/// boundary. All records are plain values: copy them freely. Per-kind request data and the user
/// record are shared through std::shared_ptr, so copying a context shares (never duplicates) them.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace auth_engine {

/// Outcome of a processor, of a chain and of every report. Hosts exchange it as a plain integer.
enum AuthResult : int32_t {
    /// The request is granted: the relays in the report's `openedRelays`/`targets` may be actuated.
    SUCCESS = 0,
    /// The request (or the relays of this report) is refused; `reason` and `failCode` say why.
    /// A FAILED report never carries `openedRelays` or `targets`.
    FAILED = 1,
    /// A processor asked the host and the request waits for the answer (see IDataProvider
    /// operations
    /// 19, 26, 27, 28). The final answer arrives later through the completion callback.
    ASYNC_PENDING = 2,
    /// A processor has nothing against the request: the chain goes on. Never a final report result
    /// except on a default-constructed response.
    CONTINUE = 3,
    /// The request ends with no report and no callback (no processor of this library returns it;
    /// a host processor may).
    DROPPED = 4,
    /// Double authentication holds a first factor and waits for the second one; the response's
    /// `doubleAuth*` members describe the wait. Logged as "UNKNOWN".
    DOUBLE_AUTH_PENDING = 5,
    /// The user must choose among `unlockOptionsRelays`; answer with
    /// AuthFacade::handleUnlockOptionsResponse(unlockOptionsId, choice). Logged as "UNKNOWN".
    UNLOCK_OPTIONS_PENDING = 6,
    /// The request is dropped quietly: nothing opens and it is not a failure (BLE re-announcements,
    /// a BLE user outside validity). A synchronous caller's callback hears it; the host is not
    /// told.
    IGNORED = 7,
};

/// How a door is being opened. The numbers are the contract with the host.
enum OpenDoorType : int32_t {
    OPEN_TYPE_NONE = 0,
    OPEN_TYPE_CARD = 1,
    OPEN_TYPE_PUBLIC_PIN = 2,  ///< set by the user lookup when the device's public PIN was entered
    OPEN_TYPE_LATCH_PIN = 3,   ///< set by the user lookup when a latch PIN was entered
    OPEN_TYPE_PIN = 4,
    OPEN_TYPE_PIN_5 = 5,
    OPEN_TYPE_CARD_6 = 6,
    OPEN_TYPE_PIN_7 = 7,
    OPEN_TYPE_CARD_8 = 8,
    OPEN_TYPE_FACE = 9,
    OPEN_TYPE_BLE = 10,
    OPEN_TYPE_LICENSE_PLATE = 11,  ///< needs the user's vehicle key record (KeyData)
    OPEN_TYPE_HTTP = 13,
    OPEN_TYPE_DTMF = 14,
    OPEN_TYPE_TEMP_KEY = 15,
    OPEN_TYPE_REMOTE_CONTROL = 16,
    OPEN_TYPE_INPUT = 17,
    OPEN_TYPE_RELAY_KEY = 18,
    OPEN_TYPE_PIN_19 = 19,
    OPEN_TYPE_HTTP_20 = 20,
};

/// AuthRequest::sourceCode of an attempt read from a QR code.
constexpr int32_t SOURCE_CODE_QR = 4;

/// Which reader produced the attempt.
enum ReaderType : int32_t {
    READER_TYPE_INTERNAL = 0,
    READER_TYPE_EXTERNAL_1 = 1,
    READER_TYPE_EXTERNAL_2 = 2,
};

/// Direction in which a reader serves its relays.
enum RELAY_DIRECTION : int32_t {
    RELAY_DIRECTION_NONE = 0,
    RELAY_DIRECTION_IN = 1,
    RELAY_DIRECTION_OUT = 2,
};

/// Kind of a parked wait. Texts: "antipassback", "interlock", "parking", "sync".
enum AsyncRequestType : int32_t {
    ASYNC_TYPE_ANTI_PASSBACK = 0,
    ASYNC_TYPE_INTERLOCK = 1,
    ASYNC_TYPE_PARKING = 2,
    ASYNC_TYPE_SYNC = 3,  ///< every chain park uses this kind
};

/// Factor pair of double authentication (first factor, then second).
enum DoubleAuthMode : int32_t {
    DOUBLE_AUTH_MODE_OFF = 0,
    DOUBLE_AUTH_MODE_FACE_CARD = 1,
    DOUBLE_AUTH_MODE_FACE_PIN = 2,
    DOUBLE_AUTH_MODE_PIN_CARD = 3,
    DOUBLE_AUTH_MODE_CARD_PIN = 4,
};

/// One thing to actuate. `type`: 0 relay, 1 relay whose id has more than one character and begins
/// with "S", 2 the user's own (non-relay) target.
struct AuthTarget {
    int type = 0;
    std::string relay;
};

/// Per-relay status kept in AuthContext::relayStatusMap.
struct RelayStatus {
    bool holidayExemption = false;
};

/// Vehicle key record of a user (open type 11). Times are seconds since the epoch; 0 or less:
/// unbounded.
struct KeyData {
    int64_t startTime = 0;
    int64_t endTime = 0;
    bool longTermEnable = false;  ///< true: the validity bounds are not checked
};

/// Relay-key record (open type 18).
struct RelayKeyAuthData {
    std::string scheduleIds;  ///< ';'-separated schedule ids
    std::vector<AuthTarget> targets;
};

/// Filled by the remote control processor.
struct RemoteControlAuthData {
    std::string remoteUserId;
    std::string commandText;
    std::vector<AuthTarget> targets;
};

/// A temporary key's validation answer, supplied by the host in the answer context.
struct TempKeyAuthData {
    std::string key;
    std::string userText;
    std::string requestText;
    int failCode = 0;  ///< non-zero: the remote service denied the key with this code
    int sourceCode = 0;
    std::string userText2;
    std::vector<AuthTarget> targets;
};

/// An HTTP open command as parsed by the host.
struct HttpRequestData {
    int source = 0;    ///< 0: checked against HttpOpenConfig; other values skip that check
    int authMode = 0;  ///< 0: username/password below; 1: host decided (preAuthenticated)
    std::string username;
    std::string password;
    std::string clientText;
    int preAuthenticated = 0;
    int extValue1 = 0, extValue2 = 0, extValue3 = 0;
    std::vector<AuthTarget> targets;
};

/// An input-line open as reported by the host.
struct InputRequestData {
    int inputId = 0, inputState = 0, extValue1 = 0, extValue2 = 0;
    std::vector<AuthTarget> targets;
};

/// HTTP open settings of the device.
struct HttpOpenConfig {
    bool enabled = false;
    std::string username;
    std::string password;
};

/// Question to the host whether a DTMF visitor may be admitted.
struct DtmfVisitorPermissionRequest {
    std::string resolvedPerId;
    std::string remoteUsername;
    std::vector<AuthTarget> targets;
};

/// A schedule. Times "HH:MM:SS", dates "YYYY-MM-DD" or "YYYYMMDD", compared as zero-padded text in
/// local time, both ends inclusive. `type`: 1 daily, 2 weekly, 3 date range; `weekly` holds one
/// digit per weekday, '0' = Sunday.
///
/// A time range never crosses midnight: `startTime` "22:00:00" with `endTime` "06:00:00" matches
/// nothing. A night is two schedules, 22:00:00-23:59:59 and 00:00:00-06:00:00. The time of day is
/// the local one, so a daylight-saving change moves the range with the wall clock: on the night
/// the clocks go forward, the skipped hour never matches (a range inside it stays shut, one across
/// it is open an hour less); on the night they go back, the repeated hour matches twice.
struct ScheduleData {
    int id = 0;
    int type = 0;
    std::string scheduleId, name, startTime, endTime, startDate, endDate, weekly, relay;
    bool holidayExemption = false;
};

/// A holiday. `type` 1: access is unrestricted during `timeRange` ("HH:MM:SS-HH:MM:SS", which, like
/// a schedule's range, never crosses midnight); other types hold the whole day. `yearlyRepeat`
/// non-zero: only month and day are compared.
struct HolidayData {
    int id = 0;
    int yearlyRepeat = 0;
    int type = 0;
    std::string timeRange, name, description, startDate, endDate;
};

/// Answer for one relay of an anti-passback check. `status` 0 or 3 passes.
struct AntiPassbackSubResult {
    std::string relay;
    int status = FAILED;
    bool answered = false;
};

/// Answer for one relay of an interlock check. Only `status` 0 passes.
struct InterlockSubResult {
    std::string relay;
    int status = FAILED;
    bool answered = false;
};

/// DTMF data of a request (AuthRequest::dtmfData).
struct DtmfRequestData {
    std::string dtmfCode;
    std::string remoteNumber;
    std::string remoteUsername;
    std::string callId;
};

/// Filled by the DTMF processor.
struct DtmfAuthData {
    std::string resolvedPerId;
    std::string remoteUsername;
    std::string dtmfCode;
    std::string remoteNumber;
    bool whitelisted = false;
    std::vector<AuthTarget> targets;
};

/// DTMF settings of the device: which code opens which relays.
struct DtmfConfig {
    bool enabled = false;
    std::map<std::string, std::vector<std::string>> codeRelays;
    bool whitelistRequired = false;
};

/// Whitelist question for a DTMF caller.
struct DtmfWhitelistRequest {
    std::string remoteNumber;
    std::string remoteUsername;
    std::string dtmfCode;
};

/// Whitelist answer for a DTMF caller.
struct DtmfWhitelistResult {
    bool allowed = false;
    std::string resolvedPerId;
    std::string remoteUsername;
};

/// A user as the host knows it.
struct UserData {
    int userType = 0;           ///< 1 and 2 are under anti-passback, 1 under parking restriction
    std::string userName;       ///< display name
    std::string userId;         ///< identifier; log lines print it as "user=%s"
    std::string scheduleRelay;  ///< schedule-to-relay text "id-relays;id-relays", e.g. "1-12;2-5":
                                ///< schedule 1 for relays 1 and 2, schedule 2 for relay 5 (relay
                                ///< ids are single digits or "S" and a letter, so "12" is two
                                ///< relays); an entry without '-' ("1") is ignored. Also the
                                ///< schedule owner key
    std::string userTargetId;   ///< non-relay target the user may open
    std::string holidayKey;     ///< owner key handed to getHolidays
    std::string userText;       ///< receives TempKeyAuthData::userText
    std::string userText2;      ///< receives TempKeyAuthData::userText2
    std::string reservedText1;
    std::string reservedText2;
    int ownerKind =
        0;  ///< handed with the owner keys to getRelaySchedules, getHolidays, getKeyData
    int64_t validTimeStart = 0;  ///< 0 or less: unbounded
    int64_t validTimeEnd = 0;    ///< 0 or less: unbounded
    int holidayExempt = 0;       ///< non-zero: holidays never hold this user
    int lockdownBypass = 0;      ///< 1 or more: passes any lockdown
    int reservedInt1 = 0;
    int reservedInt2 = -99999;
    int reservedInt3 = 0;
};

/// One attempt, as the host hands it over.
struct AuthRequest {
    std::string credential;  ///< card number, PIN, code...; handed to getUserByCredential
    OpenDoorType openType = OPEN_TYPE_NONE;
    ReaderType readerType = READER_TYPE_INTERNAL;
    std::vector<std::string> relays;  ///< read only by the relay-key path of the time check
    int64_t timestamp = 0;            ///< seconds since the epoch
    int64_t reservedValue64 = 0;
    std::string reservedText0;
    int sourceCode = 0;  ///< SOURCE_CODE_QR (4) for a QR code
    std::shared_ptr<DtmfRequestData> dtmfData;
    std::shared_ptr<HttpRequestData> httpData;
    std::shared_ptr<InputRequestData> inputData;
    std::shared_ptr<RelayKeyAuthData> relayKeyData;
    std::vector<AuthTarget> targets;  ///< explicit targets (remote control, HTTP, input, temp key)
    std::string commandText;          ///< text 1 (remote control carries it)
    std::string requestText;          ///< text 2 (temp key; kept by a pending first factor)
    std::string userText2;            ///< text 3 (temp key)
    std::string userText;             ///< text 4 (temp key)
    bool virtualDoorExempt = false;
    bool virtualDoorSkipRelaySchedule = false;  ///< set for an admitted DTMF visitor
    std::string doubleAuthPendingId;  ///< explicit "double-N" id of a second factor; empty = none
    std::string reservedText1;
    int direction = 0;  ///< RELAY_DIRECTION chosen by virtual doors / double auth
};

/// A decision, or one report of a decision. A default-constructed response reports CONTINUE.
struct AuthResponse {
    AuthResult result = CONTINUE;
    int failCode = 0;  ///< see the fail code table in the README
    std::vector<std::string> failedRelays;
    std::string reason;
    std::shared_ptr<UserData> user;
    std::string asyncType;  ///< "sync", "antipassback", "interlock", "parking"; "unlock_options" on
                            ///< a timed-out choice
    int allFailed = 0;
    std::vector<std::string> unlockOptionsRelays;
    std::vector<std::string> openedRelays;
    std::vector<AuthTarget> targets;  ///< what to actuate
    std::vector<AuthTarget> extraTargets;
    int remoteFailCode = -1;
    bool doubleAuthWaiting = false;
    std::string doubleAuthPendingId;
    int doubleAuthMode = 0, doubleAuthFirstType = 0, doubleAuthNextType = 0,
        doubleAuthTimeoutSec = 0, doubleAuthUserKey = 0,
        doubleAuthUserKind = 0;  ///< key = user.userType, kind = user.ownerKind
    std::string doubleAuthUserText1, doubleAuthUserText2,
        doubleAuthCredential;  ///< userName, userId
    int doubleAuthReaderType = 0;
    std::string unlockOptionsId;
    std::vector<std::string> relays;  ///< relays carried by a host answer
    int parkingPending = 0;
    /// True when the attempt was made with the user's duress code (AuthConfig::duressEnabled): it
    /// opens what the user's normal code opens, and IDataProvider::onDuress was called before this
    /// report so that the host's alarm path runs even if the report is lost.
    bool duress = false;
};

/// Per-request working state carried through the processor chain.
struct AuthContext {
    AuthRequest request;
    AuthResponse response;
    std::shared_ptr<UserData> userData;  ///< the resolved user
    std::shared_ptr<KeyData> keyData;
    std::vector<std::string> relays;  ///< the working relay list the processors narrow
    std::vector<std::string> failedRelays;
    std::map<std::string, std::string> relayFailReasons;
    int holidayState = 0;
    uint32_t reservedWord1 = 0, reservedWord2 = 0, reservedWord3 = 0;
    std::string requestId;
    std::string pendingProcessor;
    std::map<std::string, RelayStatus> relayStatusMap;
    std::vector<std::string> deniedRelays;
    std::map<std::string, int> antiPassbackDirections;
    int antiPassbackFailCode = -1;
    std::map<std::string, AntiPassbackSubResult> antiPassbackResults;
    int antiPassbackPending = 0;
    std::vector<std::string> antiPassbackRelays;
    std::map<std::string, InterlockSubResult> interlockResults;
    int interlockPending = 0;
    std::string asyncType;
    std::vector<std::string> interlockCheckRelays;
    std::vector<std::string> independentApRelays;
    std::vector<std::string> independentParkingRelays;
    std::map<std::string, std::vector<std::string>> relayScheduleMap;
    std::map<std::string, bool> relayHolidayExemption;
    bool skipUserLookup =
        false;  ///< flags skipUserLookup..virtualDoorExempt are "the six skip flags"
    bool skipVirtualDoor = false;
    bool skipUnlockType = false;  ///< also "the public-PIN flag"
    bool skipTimeCheck = false;
    bool skipHolidayCheck = false;
    bool virtualDoorExempt = false;
    bool unlockOptionsResolved = false;  ///< not a skip flag, never merged from answers
    std::shared_ptr<DtmfAuthData> dtmfAuthData;
    std::shared_ptr<RemoteControlAuthData> remoteControlAuthData;
    std::shared_ptr<TempKeyAuthData> tempKeyAuthData;
    std::shared_ptr<HttpRequestData> httpRequestData;
    std::shared_ptr<InputRequestData> inputRequestData;
    std::vector<AuthTarget>
        authTargets;  ///< targets gathered by processors; starts as the request's
    int virtualDoorDirection = -1;
    std::vector<std::string> readerRelays;  ///< informational: the reader's configured relays
    int readerDirection = 0;
    std::vector<std::string> interlockRequestedRelays;
    std::vector<std::string> accessibleDoors;
};

/// Configuration, fetched from the host afresh at every use (never cached).
struct AuthConfig {
    bool doubleAuthEnabled = false;
    bool antiPassbackEnabled = false;
    bool interlockEnabled = false;
    bool parkingRestrictionEnabled = false;
    bool holidayEnabled = false;
    bool virtualDoorEnabled = false;
    bool cloudVirtualDoorConfigured = false;
    int virtualDoorMode = 0;  ///< 1: a reader's doors override the requested relays
    DoubleAuthMode doubleAuthMode = DOUBLE_AUTH_MODE_OFF;
    int antiPassbackTimeout = 30;  ///< seconds
    int interlockTimeout = 5;      ///< seconds
    int interlockRetryLimit = 1;
    int parkingTimeout = 30;        ///< seconds
    int doubleAuthTimeoutSec = 60;  ///< seconds
    int tempKeyTimeout = 3;         ///< seconds
    bool unlockOptionsEnabled = false;
    std::map<ReaderType, std::map<RELAY_DIRECTION, std::vector<std::string>>> readerRelayMap;
    std::map<std::string, int> antiPassbackRelayMap;  ///< relay -> direction; 0 or absent: none
    std::map<std::string, bool> interlockRelayMap;    ///< relay -> interlocked
    /// Guessing protection: after this many refusals for an unknown code (or card, see
    /// guessCountsCards) within guessWindowSeconds at one reader (AuthRequest::readerType), the
    /// attempts at that reader are refused for guessLockoutSeconds with fail::TOO_MANY_ATTEMPTS,
    /// before any user data is looked up. 0 (the default) switches the protection off; values
    /// above 32 count as 32. A granted attempt at the reader clears its count. A lockout that has
    /// started runs to its end (or to a reset) even if the protection is switched off meanwhile.
    int guessLimit = 0;
    /// Guessing protection: the window, in seconds of uptime, in which guessLimit refusals lock
    /// the reader out.
    int guessWindowSeconds = 60;
    /// Guessing protection: how long, in seconds of uptime, a reader stays locked out.
    int guessLockoutSeconds = 60;
    /// Guessing protection: false (the default) counts memorised codes only (PIN and DTMF open
    /// types); true also counts unknown cards.
    bool guessCountsCards = false;
    /// Duress codes: true asks IDataProvider::getUserByDuressCode for a PIN or DTMF attempt whose
    /// normal lookup found no user. False (the default) never asks.
    bool duressEnabled = false;
};

/// The one completion callback type: (request id, response, context).
using AuthCallback = std::function<void(const std::string& requestId, const AuthResponse& response,
                                        const AuthContext& context)>;

}  // namespace auth_engine
