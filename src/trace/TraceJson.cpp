// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// How each record the engine and its host exchange is written into a trace line: requests,
// responses, users, schedules, configuration and the rest, member by member.
#include "trace/TraceJson.h"

namespace auth_engine {
namespace trace {

void write(JsonOut& json, const AuthTarget& target) {
    json.open().field("type", target.type).key("relay").value(target.relay).close();
}

void write(JsonOut& json, const std::vector<AuthTarget>& targets) {
    json.openList();
    for (const auto& target : targets) {
        write(json, target);
    }
    json.closeList();
}

namespace {

void targetsField(JsonOut& json, const char* name, const std::vector<AuthTarget>& targets) {
    if (!targets.empty()) {
        json.key(name);
        write(json, targets);
    }
}

void write(JsonOut& json, const DtmfRequestData& data) {
    json.open()
        .secretField("dtmfCode", data.dtmfCode)
        .field("remoteNumber", data.remoteNumber)
        .field("remoteUsername", data.remoteUsername)
        .field("callId", data.callId)
        .close();
}

void write(JsonOut& json, const HttpRequestData& data) {
    json.open()
        .field("source", data.source)
        .field("authMode", data.authMode)
        .field("username", data.username)
        .secretField("password", data.password)
        .field("clientText", data.clientText)
        .field("preAuthenticated", data.preAuthenticated)
        .field("extValue1", data.extValue1)
        .field("extValue2", data.extValue2)
        .field("extValue3", data.extValue3);
    targetsField(json, "targets", data.targets);
    json.close();
}

void write(JsonOut& json, const InputRequestData& data) {
    json.open()
        .field("inputId", data.inputId)
        .field("inputState", data.inputState)
        .field("extValue1", data.extValue1)
        .field("extValue2", data.extValue2);
    targetsField(json, "targets", data.targets);
    json.close();
}

void write(JsonOut& json, const RelayKeyAuthData& data) {
    json.open().field("scheduleIds", data.scheduleIds);
    targetsField(json, "targets", data.targets);
    json.close();
}

void write(JsonOut& json, const DtmfAuthData& data) {
    json.open()
        .field("resolvedPerId", data.resolvedPerId)
        .field("remoteUsername", data.remoteUsername)
        .secretField("dtmfCode", data.dtmfCode)
        .field("remoteNumber", data.remoteNumber)
        .flag("whitelisted", data.whitelisted);
    targetsField(json, "targets", data.targets);
    json.close();
}

void write(JsonOut& json, const RemoteControlAuthData& data) {
    json.open().field("remoteUserId", data.remoteUserId).field("commandText", data.commandText);
    targetsField(json, "targets", data.targets);
    json.close();
}

template <typename Record>
void sharedField(JsonOut& json, const char* name, const std::shared_ptr<Record>& record) {
    if (record) {
        json.key(name);
        write(json, *record);
    }
}

}  // namespace

void write(JsonOut& json, const AuthRequest& r) {
    json.open();
    if (credentialIsSecret(r.openType)) {
        json.secretField("credential", r.credential);
    } else {
        json.field("credential", r.credential);
    }
    json.field("openType", r.openType)
        .field("readerType", r.readerType)
        .field("relays", r.relays)
        .field("timestamp", r.timestamp)
        .field("reservedValue64", r.reservedValue64)
        .field("reservedText0", r.reservedText0)
        .field("sourceCode", r.sourceCode);
    sharedField(json, "dtmfData", r.dtmfData);
    sharedField(json, "httpData", r.httpData);
    sharedField(json, "inputData", r.inputData);
    sharedField(json, "relayKeyData", r.relayKeyData);
    targetsField(json, "targets", r.targets);
    json.field("commandText", r.commandText)
        .field("requestText", r.requestText)
        .field("userText2", r.userText2)
        .field("userText", r.userText)
        .flag("virtualDoorExempt", r.virtualDoorExempt)
        .flag("virtualDoorSkipRelaySchedule", r.virtualDoorSkipRelaySchedule)
        .field("doubleAuthPendingId", r.doubleAuthPendingId)
        .field("reservedText1", r.reservedText1)
        .field("direction", r.direction)
        .close();
}

void write(JsonOut& json, const AuthResponse& r) {
    json.open().key("result").value(static_cast<int64_t>(r.result));
    json.field("failCode", r.failCode)
        .field("failedRelays", r.failedRelays)
        .field("reason", r.reason);
    sharedField(json, "user", r.user);
    json.field("asyncType", r.asyncType)
        .field("allFailed", r.allFailed)
        .field("unlockOptionsRelays", r.unlockOptionsRelays)
        .field("openedRelays", r.openedRelays);
    targetsField(json, "targets", r.targets);
    targetsField(json, "extraTargets", r.extraTargets);
    json.field("remoteFailCode", r.remoteFailCode, -1)
        .flag("doubleAuthWaiting", r.doubleAuthWaiting)
        .field("doubleAuthPendingId", r.doubleAuthPendingId)
        .field("doubleAuthMode", r.doubleAuthMode)
        .field("doubleAuthFirstType", r.doubleAuthFirstType)
        .field("doubleAuthNextType", r.doubleAuthNextType)
        .field("doubleAuthTimeoutSec", r.doubleAuthTimeoutSec)
        .field("doubleAuthUserKey", r.doubleAuthUserKey)
        .field("doubleAuthUserKind", r.doubleAuthUserKind)
        .field("doubleAuthUserText1", r.doubleAuthUserText1)
        .field("doubleAuthUserText2", r.doubleAuthUserText2)
        .secretField("doubleAuthCredential", r.doubleAuthCredential)
        .field("doubleAuthReaderType", r.doubleAuthReaderType)
        .field("unlockOptionsId", r.unlockOptionsId)
        .field("relays", r.relays)
        .field("parkingPending", r.parkingPending)
        .flag("duress", r.duress)
        .close();
}

void write(JsonOut& json, const UserData& u) {
    json.open()
        .field("userType", u.userType)
        .field("userName", u.userName)
        .field("userId", u.userId)
        .field("scheduleRelay", u.scheduleRelay)
        .field("userTargetId", u.userTargetId)
        .field("holidayKey", u.holidayKey)
        .field("userText", u.userText)
        .field("userText2", u.userText2)
        .field("reservedText1", u.reservedText1)
        .field("reservedText2", u.reservedText2)
        .field("ownerKind", u.ownerKind)
        .field("validTimeStart", u.validTimeStart)
        .field("validTimeEnd", u.validTimeEnd)
        .field("holidayExempt", u.holidayExempt)
        .field("lockdownBypass", u.lockdownBypass)
        .field("reservedInt1", u.reservedInt1)
        .field("reservedInt2", u.reservedInt2, -99999)
        .field("reservedInt3", u.reservedInt3)
        .close();
}

void write(JsonOut& json, const KeyData& k) {
    json.open()
        .field("startTime", k.startTime)
        .field("endTime", k.endTime)
        .flag("longTermEnable", k.longTermEnable)
        .close();
}

void write(JsonOut& json, const ScheduleData& s) {
    json.open()
        .field("id", s.id)
        .field("type", s.type)
        .field("scheduleId", s.scheduleId)
        .field("name", s.name)
        .field("startTime", s.startTime)
        .field("endTime", s.endTime)
        .field("startDate", s.startDate)
        .field("endDate", s.endDate)
        .field("weekly", s.weekly)
        .field("relay", s.relay)
        .flag("holidayExemption", s.holidayExemption)
        .close();
}

void write(JsonOut& json, const HolidayData& h) {
    json.open()
        .field("id", h.id)
        .field("yearlyRepeat", h.yearlyRepeat)
        .field("type", h.type)
        .field("timeRange", h.timeRange)
        .field("name", h.name)
        .field("description", h.description)
        .field("startDate", h.startDate)
        .field("endDate", h.endDate)
        .close();
}

void write(JsonOut& json, const AuthConfig& c) {
    json.open()
        .flag("doubleAuthEnabled", c.doubleAuthEnabled)
        .flag("antiPassbackEnabled", c.antiPassbackEnabled)
        .flag("interlockEnabled", c.interlockEnabled)
        .flag("parkingRestrictionEnabled", c.parkingRestrictionEnabled)
        .flag("holidayEnabled", c.holidayEnabled)
        .flag("virtualDoorEnabled", c.virtualDoorEnabled)
        .flag("cloudVirtualDoorConfigured", c.cloudVirtualDoorConfigured)
        .field("virtualDoorMode", c.virtualDoorMode)
        .field("doubleAuthMode", c.doubleAuthMode)
        .field("antiPassbackTimeout", c.antiPassbackTimeout, 30)
        .field("interlockTimeout", c.interlockTimeout, 5)
        .field("interlockRetryLimit", c.interlockRetryLimit, 1)
        .field("parkingTimeout", c.parkingTimeout, 30)
        .field("doubleAuthTimeoutSec", c.doubleAuthTimeoutSec, 60)
        .field("tempKeyTimeout", c.tempKeyTimeout, 3)
        .flag("unlockOptionsEnabled", c.unlockOptionsEnabled)
        .field("guessLimit", c.guessLimit, 0)
        .field("guessWindowSeconds", c.guessWindowSeconds, 60)
        .field("guessLockoutSeconds", c.guessLockoutSeconds, 60)
        .flag("guessCountsCards", c.guessCountsCards)
        .flag("duressEnabled", c.duressEnabled);
    if (!c.readerRelayMap.empty()) {
        // {"reader": {"direction": [relays]}}, both numbers written as texts
        json.key("readerRelayMap").open();
        for (const auto& reader : c.readerRelayMap) {
            json.key(std::to_string(reader.first)).open();
            for (const auto& direction : reader.second) {
                json.key(std::to_string(direction.first)).list(direction.second);
            }
            json.close();
        }
        json.close();
    }
    if (!c.antiPassbackRelayMap.empty()) {
        json.key("antiPassbackRelayMap").open();
        for (const auto& entry : c.antiPassbackRelayMap) {
            json.key(entry.first).value(static_cast<int64_t>(entry.second));
        }
        json.close();
    }
    if (!c.interlockRelayMap.empty()) {
        json.key("interlockRelayMap").open();
        for (const auto& entry : c.interlockRelayMap) {
            json.key(entry.first).value(entry.second);
        }
        json.close();
    }
    json.close();
}

void write(JsonOut& json, const DtmfConfig& c) {
    json.open().flag("enabled", c.enabled).flag("whitelistRequired", c.whitelistRequired);
    if (!c.codeRelays.empty()) {
        // The codes are secrets: a list of {"code", "relays"} instead of an object keyed by them.
        json.key("codeRelays").openList();
        for (const auto& entry : c.codeRelays) {
            json.open().key("code").secret(entry.first).key("relays").list(entry.second).close();
        }
        json.closeList();
    }
    json.close();
}

void write(JsonOut& json, const HttpOpenConfig& c) {
    json.open()
        .flag("enabled", c.enabled)
        .field("username", c.username)
        .secretField("password", c.password)
        .close();
}

void write(JsonOut& json, const DtmfWhitelistRequest& r) {
    json.open()
        .field("remoteNumber", r.remoteNumber)
        .field("remoteUsername", r.remoteUsername)
        .secretField("dtmfCode", r.dtmfCode)
        .close();
}

void write(JsonOut& json, const DtmfWhitelistResult& r) {
    json.open()
        .flag("allowed", r.allowed)
        .field("resolvedPerId", r.resolvedPerId)
        .field("remoteUsername", r.remoteUsername)
        .close();
}

void write(JsonOut& json, const DtmfVisitorPermissionRequest& r) {
    json.open().field("resolvedPerId", r.resolvedPerId).field("remoteUsername", r.remoteUsername);
    targetsField(json, "targets", r.targets);
    json.close();
}

void write(JsonOut& json, const TempKeyAuthData& d) {
    json.open()
        .secretField("key", d.key)
        .field("userText", d.userText)
        .field("requestText", d.requestText)
        .field("failCode", d.failCode)
        .field("sourceCode", d.sourceCode)
        .field("userText2", d.userText2);
    targetsField(json, "targets", d.targets);
    json.close();
}

void writeAsked(JsonOut& json, const AuthContext& c) {
    json.open().field("requestId", c.requestId).key("request");
    write(json, c.request);
    if (c.userData) {
        json.key("userId").value(c.userData->userId);
    }
    json.field("relays", c.relays)
        .field("antiPassbackRelays", c.antiPassbackRelays)
        .field("asyncType", c.asyncType)
        .close();
}

void writeAnswer(JsonOut& json, const AuthContext& c) {
    json.open();
    sharedField(json, "dtmfAuthData", c.dtmfAuthData);
    sharedField(json, "remoteControlAuthData", c.remoteControlAuthData);
    sharedField(json, "tempKeyAuthData", c.tempKeyAuthData);
    sharedField(json, "httpRequestData", c.httpRequestData);
    sharedField(json, "inputRequestData", c.inputRequestData);
    targetsField(json, "authTargets", c.authTargets);
    json.flag("skipUserLookup", c.skipUserLookup)
        .flag("skipVirtualDoor", c.skipVirtualDoor)
        .flag("skipUnlockType", c.skipUnlockType)
        .flag("skipTimeCheck", c.skipTimeCheck)
        .flag("skipHolidayCheck", c.skipHolidayCheck)
        .flag("virtualDoorExempt", c.virtualDoorExempt)
        .close();
}

}  // namespace trace
}  // namespace auth_engine
