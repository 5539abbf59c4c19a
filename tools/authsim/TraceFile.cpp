// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

#include "TraceFile.h"

#include <fstream>
#include <sstream>

namespace authsim {

using namespace auth_engine;

namespace {

std::string text(const json& object, const char* key) {
    const auto found = object.find(key);
    return found != object.end() && found->is_string() ? found->get<std::string>() : std::string();
}

int64_t number(const json& object, const char* key, int64_t otherwise = 0) {
    const auto found = object.find(key);
    return found != object.end() && found->is_number_integer() ? found->get<int64_t>() : otherwise;
}

int integer(const json& object, const char* key, int otherwise = 0) {
    return static_cast<int>(number(object, key, otherwise));
}

bool flag(const json& object, const char* key) {
    const auto found = object.find(key);
    return found != object.end() && found->is_boolean() && found->get<bool>();
}

std::vector<std::string> texts(const json& object, const char* key) {
    std::vector<std::string> items;
    const auto found = object.find(key);
    if (found != object.end() && found->is_array()) {
        for (const auto& item : *found) {
            if (item.is_string()) {
                items.push_back(item.get<std::string>());
            }
        }
    }
    return items;
}

const json& member(const json& object, const char* key) {
    static const json none;
    const auto found = object.find(key);
    return found != object.end() ? *found : none;
}

std::vector<AuthTarget> targetsOf(const json& object, const char* key) {
    return toTargets(member(object, key));
}

}  // namespace

TraceData parseTrace(const std::string& content, const std::string& name) {
    TraceData trace;
    trace.file = name;
    std::istringstream in(content);
    std::string line;
    std::vector<Problem> problems;
    int number = 0;
    while (std::getline(in, line)) {
        ++number;
        if (line.empty()) {
            continue;
        }
        const std::string where = name + ": line " + std::to_string(number);
        json value;
        try {
            value = json::parse(line);
        } catch (const json::parse_error& e) {
            problems.push_back({where, std::string("not valid JSON: ") + e.what()});
            continue;
        }
        if (!value.is_object()) {
            problems.push_back({where, "expected a JSON object, got " + describe(value)});
            continue;
        }
        if (trace.header.is_null()) {
            if (text(value, "trace") != "auth_engine") {
                problems.push_back({where,
                                    "not an auth_engine trace: the first line must be "
                                    "its header {\"trace\":\"auth_engine\",...}"});
                break;
            }
            trace.header = value;
            continue;
        }
        TraceLine event;
        event.seq = static_cast<uint64_t>(authsim::number(value, "seq"));
        event.uptime = authsim::number(value, "uptime");
        event.wall = authsim::number(value, "wall");
        event.micros = authsim::number(value, "us");
        event.thread = integer(value, "thread");
        event.kind = text(value, "kind");
        event.name = text(value, "name");
        if (event.seq == 0 || event.kind.empty() || event.name.empty()) {
            problems.push_back({where, "an event needs \"seq\", \"kind\" and \"name\""});
            continue;
        }
        event.data = std::move(value);
        trace.events.push_back(std::move(event));
    }
    if (trace.header.is_null() && problems.empty()) {
        problems.push_back({name, "the file holds no trace"});
    }
    if (!problems.empty()) {
        throw InputError(problems);
    }
    return trace;
}

TraceData loadTrace(const std::string& file) {
    std::ifstream in(file, std::ios::binary);
    if (!in) {
        throw InputError(file, "cannot open the file");
    }
    std::ostringstream content;
    content << in.rdbuf();
    return parseTrace(content.str(), file);
}

std::string brief(const TraceLine& line, std::size_t width) {
    json shown = line.data;
    for (const char* key : {"seq", "uptime", "wall", "us", "thread", "kind", "name"}) {
        shown.erase(key);
    }
    std::string text = "#" + std::to_string(line.seq) + " " + line.kind + " " + line.name +
                       " (thread " + std::to_string(line.thread) + ") " + shown.dump();
    if (text.size() > width) {
        text = text.substr(0, width - 3) + "...";
    }
    return text;
}

std::vector<AuthTarget> toTargets(const json& value) {
    std::vector<AuthTarget> targets;
    if (value.is_array()) {
        for (const auto& item : value) {
            AuthTarget target;
            target.type = integer(item, "type");
            target.relay = text(item, "relay");
            targets.push_back(target);
        }
    }
    return targets;
}

AuthRequest toRequest(const json& v) {
    AuthRequest r;
    r.credential = text(v, "credential");
    r.openType = static_cast<OpenDoorType>(integer(v, "openType"));
    r.readerType = static_cast<ReaderType>(integer(v, "readerType"));
    r.relays = texts(v, "relays");
    r.timestamp = number(v, "timestamp");
    r.reservedValue64 = number(v, "reservedValue64");
    r.reservedText0 = text(v, "reservedText0");
    r.sourceCode = integer(v, "sourceCode");
    if (v.contains("dtmfData")) {
        const json& d = v["dtmfData"];
        r.dtmfData = std::make_shared<DtmfRequestData>();
        r.dtmfData->dtmfCode = text(d, "dtmfCode");
        r.dtmfData->remoteNumber = text(d, "remoteNumber");
        r.dtmfData->remoteUsername = text(d, "remoteUsername");
        r.dtmfData->callId = text(d, "callId");
    }
    if (v.contains("httpData")) {
        const json& d = v["httpData"];
        r.httpData = std::make_shared<HttpRequestData>();
        r.httpData->source = integer(d, "source");
        r.httpData->authMode = integer(d, "authMode");
        r.httpData->username = text(d, "username");
        r.httpData->password = text(d, "password");
        r.httpData->clientText = text(d, "clientText");
        r.httpData->preAuthenticated = integer(d, "preAuthenticated");
        r.httpData->extValue1 = integer(d, "extValue1");
        r.httpData->extValue2 = integer(d, "extValue2");
        r.httpData->extValue3 = integer(d, "extValue3");
        r.httpData->targets = targetsOf(d, "targets");
    }
    if (v.contains("inputData")) {
        const json& d = v["inputData"];
        r.inputData = std::make_shared<InputRequestData>();
        r.inputData->inputId = integer(d, "inputId");
        r.inputData->inputState = integer(d, "inputState");
        r.inputData->extValue1 = integer(d, "extValue1");
        r.inputData->extValue2 = integer(d, "extValue2");
        r.inputData->targets = targetsOf(d, "targets");
    }
    if (v.contains("relayKeyData")) {
        const json& d = v["relayKeyData"];
        r.relayKeyData = std::make_shared<RelayKeyAuthData>();
        r.relayKeyData->scheduleIds = text(d, "scheduleIds");
        r.relayKeyData->targets = targetsOf(d, "targets");
    }
    r.targets = targetsOf(v, "targets");
    r.commandText = text(v, "commandText");
    r.requestText = text(v, "requestText");
    r.userText2 = text(v, "userText2");
    r.userText = text(v, "userText");
    r.virtualDoorExempt = flag(v, "virtualDoorExempt");
    r.virtualDoorSkipRelaySchedule = flag(v, "virtualDoorSkipRelaySchedule");
    r.doubleAuthPendingId = text(v, "doubleAuthPendingId");
    r.reservedText1 = text(v, "reservedText1");
    r.direction = integer(v, "direction");
    return r;
}

AuthResponse toResponse(const json& v) {
    AuthResponse r;
    r.result = static_cast<AuthResult>(integer(v, "result", CONTINUE));
    r.failCode = integer(v, "failCode");
    r.failedRelays = texts(v, "failedRelays");
    r.reason = text(v, "reason");
    if (v.contains("user") && v["user"].is_object()) {
        r.user = std::make_shared<UserData>(toUser(v["user"]));
    }
    r.asyncType = text(v, "asyncType");
    r.allFailed = integer(v, "allFailed");
    r.unlockOptionsRelays = texts(v, "unlockOptionsRelays");
    r.openedRelays = texts(v, "openedRelays");
    r.targets = targetsOf(v, "targets");
    r.extraTargets = targetsOf(v, "extraTargets");
    r.remoteFailCode = integer(v, "remoteFailCode", -1);
    r.doubleAuthWaiting = flag(v, "doubleAuthWaiting");
    r.doubleAuthPendingId = text(v, "doubleAuthPendingId");
    r.doubleAuthMode = integer(v, "doubleAuthMode");
    r.doubleAuthFirstType = integer(v, "doubleAuthFirstType");
    r.doubleAuthNextType = integer(v, "doubleAuthNextType");
    r.doubleAuthTimeoutSec = integer(v, "doubleAuthTimeoutSec");
    r.doubleAuthUserKey = integer(v, "doubleAuthUserKey");
    r.doubleAuthUserKind = integer(v, "doubleAuthUserKind");
    r.doubleAuthUserText1 = text(v, "doubleAuthUserText1");
    r.doubleAuthUserText2 = text(v, "doubleAuthUserText2");
    r.doubleAuthCredential = text(v, "doubleAuthCredential");
    r.doubleAuthReaderType = integer(v, "doubleAuthReaderType");
    r.unlockOptionsId = text(v, "unlockOptionsId");
    r.relays = texts(v, "relays");
    r.parkingPending = integer(v, "parkingPending");
    r.duress = flag(v, "duress");
    return r;
}

UserData toUser(const json& v) {
    UserData u;
    u.userType = integer(v, "userType");
    u.userName = text(v, "userName");
    u.userId = text(v, "userId");
    u.scheduleRelay = text(v, "scheduleRelay");
    u.userTargetId = text(v, "userTargetId");
    u.holidayKey = text(v, "holidayKey");
    u.userText = text(v, "userText");
    u.userText2 = text(v, "userText2");
    u.reservedText1 = text(v, "reservedText1");
    u.reservedText2 = text(v, "reservedText2");
    u.ownerKind = integer(v, "ownerKind");
    u.validTimeStart = number(v, "validTimeStart");
    u.validTimeEnd = number(v, "validTimeEnd");
    u.holidayExempt = integer(v, "holidayExempt");
    u.lockdownBypass = integer(v, "lockdownBypass");
    u.reservedInt1 = integer(v, "reservedInt1");
    u.reservedInt2 = integer(v, "reservedInt2", -99999);
    u.reservedInt3 = integer(v, "reservedInt3");
    return u;
}

KeyData toKey(const json& v) {
    KeyData k;
    k.startTime = number(v, "startTime");
    k.endTime = number(v, "endTime");
    k.longTermEnable = flag(v, "longTermEnable");
    return k;
}

ScheduleData toSchedule(const json& v) {
    ScheduleData s;
    s.id = integer(v, "id");
    s.type = integer(v, "type");
    s.scheduleId = text(v, "scheduleId");
    s.name = text(v, "name");
    s.startTime = text(v, "startTime");
    s.endTime = text(v, "endTime");
    s.startDate = text(v, "startDate");
    s.endDate = text(v, "endDate");
    s.weekly = text(v, "weekly");
    s.relay = text(v, "relay");
    s.holidayExemption = flag(v, "holidayExemption");
    return s;
}

HolidayData toHoliday(const json& v) {
    HolidayData h;
    h.id = integer(v, "id");
    h.yearlyRepeat = integer(v, "yearlyRepeat");
    h.type = integer(v, "type");
    h.timeRange = text(v, "timeRange");
    h.name = text(v, "name");
    h.description = text(v, "description");
    h.startDate = text(v, "startDate");
    h.endDate = text(v, "endDate");
    return h;
}

AuthConfig toConfig(const json& v) {
    AuthConfig c;
    c.doubleAuthEnabled = flag(v, "doubleAuthEnabled");
    c.antiPassbackEnabled = flag(v, "antiPassbackEnabled");
    c.interlockEnabled = flag(v, "interlockEnabled");
    c.parkingRestrictionEnabled = flag(v, "parkingRestrictionEnabled");
    c.holidayEnabled = flag(v, "holidayEnabled");
    c.virtualDoorEnabled = flag(v, "virtualDoorEnabled");
    c.cloudVirtualDoorConfigured = flag(v, "cloudVirtualDoorConfigured");
    c.virtualDoorMode = integer(v, "virtualDoorMode");
    c.doubleAuthMode = static_cast<DoubleAuthMode>(integer(v, "doubleAuthMode"));
    c.antiPassbackTimeout = integer(v, "antiPassbackTimeout", 30);
    c.interlockTimeout = integer(v, "interlockTimeout", 5);
    c.interlockRetryLimit = integer(v, "interlockRetryLimit", 1);
    c.parkingTimeout = integer(v, "parkingTimeout", 30);
    c.doubleAuthTimeoutSec = integer(v, "doubleAuthTimeoutSec", 60);
    c.tempKeyTimeout = integer(v, "tempKeyTimeout", 3);
    c.unlockOptionsEnabled = flag(v, "unlockOptionsEnabled");
    c.guessLimit = integer(v, "guessLimit", 0);
    c.guessWindowSeconds = integer(v, "guessWindowSeconds", 60);
    c.guessLockoutSeconds = integer(v, "guessLockoutSeconds", 60);
    c.guessCountsCards = flag(v, "guessCountsCards");
    c.duressEnabled = flag(v, "duressEnabled");
    for (const auto& reader : member(v, "readerRelayMap").items()) {
        for (const auto& direction : reader.value().items()) {
            auto& relays =
                c.readerRelayMap[static_cast<ReaderType>(std::stoi(reader.key()))]
                                [static_cast<RELAY_DIRECTION>(std::stoi(direction.key()))];
            relays = direction.value().get<std::vector<std::string>>();
        }
    }
    for (const auto& entry : member(v, "antiPassbackRelayMap").items()) {
        c.antiPassbackRelayMap[entry.key()] = entry.value().get<int>();
    }
    for (const auto& entry : member(v, "interlockRelayMap").items()) {
        c.interlockRelayMap[entry.key()] = entry.value().get<bool>();
    }
    return c;
}

DtmfConfig toDtmfConfig(const json& v) {
    DtmfConfig c;
    c.enabled = flag(v, "enabled");
    c.whitelistRequired = flag(v, "whitelistRequired");
    const json& codes = member(v, "codeRelays");
    if (codes.is_array()) {
        for (const auto& entry : codes) {
            c.codeRelays[text(entry, "code")] = texts(entry, "relays");
        }
    }
    return c;
}

HttpOpenConfig toHttpConfig(const json& v) {
    HttpOpenConfig c;
    c.enabled = flag(v, "enabled");
    c.username = text(v, "username");
    c.password = text(v, "password");
    return c;
}

DtmfWhitelistResult toWhitelist(const json& v) {
    DtmfWhitelistResult r;
    r.allowed = flag(v, "allowed");
    r.resolvedPerId = text(v, "resolvedPerId");
    r.remoteUsername = text(v, "remoteUsername");
    return r;
}

AuthContext toAnswerContext(const json& v) {
    AuthContext c;
    if (v.contains("dtmfAuthData")) {
        const json& d = v["dtmfAuthData"];
        c.dtmfAuthData = std::make_shared<DtmfAuthData>();
        c.dtmfAuthData->resolvedPerId = text(d, "resolvedPerId");
        c.dtmfAuthData->remoteUsername = text(d, "remoteUsername");
        c.dtmfAuthData->dtmfCode = text(d, "dtmfCode");
        c.dtmfAuthData->remoteNumber = text(d, "remoteNumber");
        c.dtmfAuthData->whitelisted = flag(d, "whitelisted");
        c.dtmfAuthData->targets = targetsOf(d, "targets");
    }
    if (v.contains("remoteControlAuthData")) {
        const json& d = v["remoteControlAuthData"];
        c.remoteControlAuthData = std::make_shared<RemoteControlAuthData>();
        c.remoteControlAuthData->remoteUserId = text(d, "remoteUserId");
        c.remoteControlAuthData->commandText = text(d, "commandText");
        c.remoteControlAuthData->targets = targetsOf(d, "targets");
    }
    if (v.contains("tempKeyAuthData")) {
        const json& d = v["tempKeyAuthData"];
        c.tempKeyAuthData = std::make_shared<TempKeyAuthData>();
        c.tempKeyAuthData->key = text(d, "key");
        c.tempKeyAuthData->userText = text(d, "userText");
        c.tempKeyAuthData->requestText = text(d, "requestText");
        c.tempKeyAuthData->failCode = integer(d, "failCode");
        c.tempKeyAuthData->sourceCode = integer(d, "sourceCode");
        c.tempKeyAuthData->userText2 = text(d, "userText2");
        c.tempKeyAuthData->targets = targetsOf(d, "targets");
    }
    if (v.contains("httpRequestData")) {
        c.httpRequestData = toRequest(json{{"httpData", v["httpRequestData"]}}).httpData;
    }
    if (v.contains("inputRequestData")) {
        c.inputRequestData = toRequest(json{{"inputData", v["inputRequestData"]}}).inputData;
    }
    c.authTargets = targetsOf(v, "authTargets");
    c.skipUserLookup = flag(v, "skipUserLookup");
    c.skipVirtualDoor = flag(v, "skipVirtualDoor");
    c.skipUnlockType = flag(v, "skipUnlockType");
    c.skipTimeCheck = flag(v, "skipTimeCheck");
    c.skipHolidayCheck = flag(v, "skipHolidayCheck");
    c.virtualDoorExempt = flag(v, "virtualDoorExempt");
    return c;
}

}  // namespace authsim
