// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// authsim trace-to-scenario: a trace becomes a site and a scenario that reproduce it.
//
// The trace is read once, in order. The facade calls and the host's later answers become steps
// (attempt, answer, choose, chain, reset, init, double-*, verify-interlock; advance or time where
// the engine's clocks moved), and every report becomes an expectation of the step it came in. What
// the host's provider answered becomes facts ("card X belongs to user U", "relay 5 is not locked
// down", the config): each fact is a member of some site section. The site file holds the first
// value of every fact; when a later step saw another value, a site step before it patches the
// sections that changed. A peer's question is answered as recorded: at once (mode inline), by an
// answer step where the answer came (held), never, or not sent (offline).
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <map>
#include <set>

#include <auth_engine/AuthTypes.h>

#include "Names.h"
#include "Scenario.h"
#include "TraceTools.h"

namespace authsim {

using namespace auth_engine;

namespace {

constexpr int EXIT_BAD_INPUT = 2;

/// A fact's place: its site section, then the names under it ({"cred", "card", "1001"}).
using FactKey = std::vector<std::string>;
using Facts = std::map<FactKey, json>;

struct Attempt {
    std::string label;
    uint64_t call = 0;
    bool sync = false;
    int thread = 0;
    bool inCall = false;    ///< a synchronous call that has not returned yet
    std::string requestId;  ///< the engine's id, which its phases' ids start with
    std::string tag;        ///< the request's reservedText0, which onAuthResult reports carry
};

struct Question {
    std::string check, key, requestId;
    std::size_t step = 0;   ///< the step during which it was asked
    bool sent = false;      ///< a handle (or true) came back
    json inlineAnswer;      ///< the answer given from inside the asking operation
    bool answered = false;  ///< answered later (an answer step, or handleAsyncResult)
};

bool startsId(const std::string& id, const std::string& prefix) {
    return !prefix.empty() && id.rfind(prefix, 0) == 0 &&
           (id.size() == prefix.size() || id[prefix.size()] == '_');
}

// The credential kind of the site a user lookup of `openType` searches (SiteProvider's order).
std::string credentialKind(int openType) {
    switch (openType) {
        case OPEN_TYPE_CARD:
        case OPEN_TYPE_CARD_6:
        case OPEN_TYPE_CARD_8:
            return "card";
        case OPEN_TYPE_PIN:
        case OPEN_TYPE_PIN_5:
        case OPEN_TYPE_PIN_7:
        case OPEN_TYPE_PIN_19:
            return "pin";
        case OPEN_TYPE_FACE:
            return "face";
        case OPEN_TYPE_BLE:
            return "ble";
        default:
            return "";
    }
}

std::string firstOf(const json& list) {
    return list.empty() ? std::string() : list.front().get<std::string>();
}

// A member of `from` (a trace's record) copied under `to` when it is present.
void copy(const json& from, const char* name, json& into, const char* to = nullptr) {
    if (from.contains(name)) {
        into[to != nullptr ? to : name] = from[name];
    }
}

// What a peer's answer carries in a site or an answer step: result, failCode, remoteFailCode and
// reason. `dropped` receives the names of the other members.
json answerFields(const json& response, std::string& dropped) {
    json out = {{"result", "SUCCESS"}, {"failCode", 0}, {"remoteFailCode", -1}, {"reason", ""}};
    for (const auto& item : response.items()) {
        if (item.key() == "result") {
            out["result"] = resultName(item.value().get<int>());
        } else if (item.key() == "failCode" || item.key() == "remoteFailCode" ||
                   item.key() == "reason") {
            out[item.key()] = item.value();
        } else {
            dropped += (dropped.empty() ? "" : ", ") + item.key();
        }
    }
    return out;
}

class Converter {
public:
    explicit Converter(const TraceData& trace) : trace(trace) {}

    /// Reads the whole trace; false (after printing why) when it cannot be expressed.
    bool read();
    json site() const;
    json scenario() const;
    const std::vector<std::string>& warnings() const { return notes; }

private:
    void step(json value, const TraceLine& line);
    /// The facts of the step running (a note step if the trace begins inside the engine's work).
    Facts& current(const TraceLine& line);
    void fact(const FactKey& key, json value, const TraceLine& line);
    void user(const json& record, const TraceLine& line);
    void credential(const std::string& kind, const std::string& text, const json* record,
                    const TraceLine& line);
    bool call(const TraceLine& line);
    void operation(const TraceLine& line);
    void question(const TraceLine& line, const std::string& check, const std::string& key);
    void report(const TraceLine& line);
    void moveClock(const TraceLine& line);
    json attemptStep(const json& request, const TraceLine& line);
    json answer(const json& response, const TraceLine& line);
    Attempt* attemptOf(const std::string& requestId);
    void warn(const TraceLine& line, const std::string& text);
    bool refuse(const TraceLine& line, const std::string& text);
    static json render(const Facts& facts);

    const TraceData& trace;
    std::vector<json> steps;
    std::vector<Facts> stepFacts;  ///< per step: the facts its operations showed
    std::vector<Attempt> attempts;
    std::map<uint64_t, Question> questions;
    std::map<std::string, int64_t> lastBleOpen;
    int64_t bleAtLeast = 0;
    int64_t bleAtMost = INT64_MAX;
    int64_t wall = 0;
    int64_t uptime = 0;
    bool started = false;
    std::vector<std::string> notes;
};

void Converter::warn(const TraceLine& line, const std::string& text) {
    notes.push_back("event #" + std::to_string(line.seq) + " (" + line.kind + " " + line.name +
                    "): " + text);
}

bool Converter::refuse(const TraceLine& line, const std::string& text) {
    (void)std::fprintf(stderr, "authsim: %s: event #%llu (%s %s): %s\n", trace.file.c_str(),
                       static_cast<unsigned long long>(line.seq), line.kind.c_str(),
                       line.name.c_str(), text.c_str());
    return false;
}

void Converter::step(json value, const TraceLine& line) {
    if (steps.empty() && !started) {
        warn(line,
             "the trace begins with the engine running: what it held before (attempts "
             "waiting, counters) is not in the scenario");
    }
    started = true;
    steps.push_back(std::move(value));
    stepFacts.emplace_back();
}

Facts& Converter::current(const TraceLine& line) {
    if (stepFacts.empty()) {
        step({{"do", "note"}, {"text", "the engine at work before the trace's first call"}}, line);
    }
    return stepFacts.back();
}

void Converter::fact(const FactKey& key, json value, const TraceLine& line) {
    Facts& facts = current(line);
    const auto known = facts.find(key);
    if (known != facts.end() && known->second != value) {
        warn(line, "the host answered " + key.front() +
                       " otherwise than earlier in the same step; "
                       "the scenario gives the later answer to both");
    }
    facts[key] = std::move(value);
}

// The user record in the site's form; members the site cannot give are named in a warning.
void Converter::user(const json& record, const TraceLine& line) {
    static const std::set<std::string> members = {
        "userId",    "userName",       "scheduleRelay", "userTargetId",   "holidayKey",  "userType",
        "ownerKind", "lockdownBypass", "holidayExempt", "validTimeStart", "validTimeEnd"};
    json out = json::object();
    for (const auto& item : record.items()) {
        if (members.count(item.key()) != 0) {
            out[item.key()] = item.value();
        } else {
            warn(line, "the user's member " + item.key() + " cannot be given in a site: left out");
        }
    }
    fact({"user", record.value("userId", "")}, out, line);
}

void Converter::credential(const std::string& kind, const std::string& text, const json* record,
                           const TraceLine& line) {
    if (record != nullptr && record->is_object()) {
        user(*record, line);
        fact({"cred", kind, text}, record->value("userId", ""), line);
    } else {
        fact({"cred", kind, text}, nullptr, line);
    }
}

Attempt* Converter::attemptOf(const std::string& requestId) {
    for (auto it = attempts.rbegin(); it != attempts.rend(); ++it) {
        if (startsId(requestId, it->requestId)) {
            return &*it;
        }
    }
    return nullptr;
}

// The attempt step of a request; what a scenario cannot give is named in a warning.
json Converter::attemptStep(const json& request, const TraceLine& line) {
    json out = {{"do", "attempt"}, {"type", openTypeName(request.value("openType", 0))}};
    // member of the request -> key of the step ("" : the same name); the runner sets the rest
    static const std::map<std::string, std::string> keys = {{"credential", ""},
                                                            {"readerType", "reader"},
                                                            {"relays", ""},
                                                            {"targets", ""},
                                                            {"sourceCode", ""},
                                                            {"doubleAuthPendingId", "pendingId"},
                                                            {"direction", ""},
                                                            {"virtualDoorExempt", ""},
                                                            {"commandText", "command"},
                                                            {"requestText", ""},
                                                            {"userText", ""},
                                                            {"userText2", ""},
                                                            {"httpData", "http"},
                                                            {"inputData", "input"},
                                                            {"dtmfData", "dtmf"},
                                                            {"relayKeyData", "relayKey"}};
    static const std::map<std::string, std::set<std::string>> parts = {
        {"httpData",
         {"source", "authMode", "username", "password", "clientText", "preAuthenticated",
          "targets"}},
        {"inputData", {"inputId", "inputState", "targets"}},
        {"dtmfData", {"dtmfCode", "remoteNumber", "remoteUsername", "callId"}},
        {"relayKeyData", {"scheduleIds", "targets"}}};
    for (const auto& item : request.items()) {
        const std::string& name = item.key();
        const auto key = keys.find(name);
        if (name == "openType" || name == "reservedText0") {
            continue;  // the runner writes its own tag in reservedText0
        }
        if (name == "timestamp") {
            if (item.value() != line.wall) {
                warn(line,
                     "the request's timestamp is not the clock's reading: the runner "
                     "stamps it with the clock");
            }
            continue;
        }
        if (key == keys.end()) {
            warn(line, "the request's member " + name + " cannot be given in a scenario: left out");
            continue;
        }
        json value = item.value();
        if (name == "targets" || name == "readerType" || name == "direction") {
            value = name == "readerType" ? json(readerName(value.get<int>())) : value;
        }
        const auto sub = parts.find(name);
        if (sub != parts.end()) {
            for (auto part = value.begin(); part != value.end();) {
                if (sub->second.count(part.key()) == 0) {
                    warn(line, "the request's member " + name + "." + part.key() +
                                   " cannot be given in a scenario: left out");
                    part = value.erase(part);
                } else {
                    ++part;
                }
            }
        }
        out[key->second.empty() ? name : key->second] = value;
    }
    return out;
}

json Converter::answer(const json& response, const TraceLine& line) {
    std::string dropped;
    json out = answerFields(response, dropped);
    if (!dropped.empty()) {
        warn(line,
             "a peer of authsim answers only with result, failCode, remoteFailCode and "
             "reason: " +
                 dropped + " left out");
    }
    return out;
}

void Converter::moveClock(const TraceLine& line) {
    const int64_t by = line.wall - wall;
    const int64_t up = line.uptime - uptime;
    if (by == 0 && up == 0) {
        return;
    }
    if (by > 0 && up == by && by <= MAX_DURATION) {
        step({{"do", "advance"}, {"by", by}}, line);
    } else {
        if (up != std::max<int64_t>(by, 0)) {
            warn(line, "the uptime moved by " + std::to_string(up) + " s and the wall clock by " +
                           std::to_string(by) + " s: the scenario moves the uptime with it");
        }
        step({{"do", "time"}, {"at", line.wall}}, line);
    }
    wall = line.wall;
    uptime = line.uptime;
}

bool Converter::call(const TraceLine& line) {
    const std::string& name = line.name;
    const json args = line.data.value("args", json::object());
    const uint64_t number = line.data.value("call", 0ULL);
    if (name == "waitForIdle") {
        return true;
    }
    if (name == "init" && !started && steps.empty()) {
        started = true;  // the runner's own start
        return true;
    }
    if (name == "authenticate" || name == "authenticateAsync" || name == "verifyInterlockTargets" ||
        name == "handleDoubleAuthTimeout" || name == "cancelDoubleAuth") {
        Attempt attempt;
        attempt.label = "a" + std::to_string(attempts.size() + 1);
        attempt.call = number;
        attempt.sync = name == "authenticate";
        attempt.inCall = attempt.sync;
        attempt.thread = line.thread;
        attempt.tag = args.value("request", json::object()).value("reservedText0", "");
        json value;
        if (name == "verifyInterlockTargets") {
            value = {{"do", "verify-interlock"}, {"targets", args.value("targets", json::array())}};
            json request = args.value("request", json::object());
            request.erase("timestamp");
            request.erase("reservedText0");
            if (!request.empty()) {
                warn(line,
                     "the verification's request carries members a scenario cannot give: "
                     "left out");
            }
        } else if (name == "handleDoubleAuthTimeout" || name == "cancelDoubleAuth") {
            value = {{"do", name == "cancelDoubleAuth" ? "double-cancel" : "double-timeout"},
                     {"pendingId", args.value("pendingId", "")}};
            if (name == "cancelDoubleAuth") {
                value["reason"] = args.value("reasonText", "");
            }
        } else {
            value = attemptStep(args.value("request", json::object()), line);
            if (attempt.sync) {
                value["sync"] = true;
            }
        }
        value["label"] = attempt.label;
        attempts.push_back(attempt);
        step(value, line);
    } else if (name == "handleAsyncResult") {
        const std::string id = args.value("requestId", "");
        Question* asked = nullptr;
        for (auto& entry : questions) {
            Question& candidate = entry.second;
            if (!candidate.answered && startsId(id, candidate.requestId) &&
                (asked == nullptr || candidate.requestId.size() > asked->requestId.size())) {
                asked = &candidate;
            }
        }
        if (asked == nullptr) {
            warn(line, "it answers " + id + ", a question asked before the trace begins: left out");
            return true;
        }
        asked->answered = true;
        const json response = args.value("response", json::object());
        if (args.value("result", 0) != response.value("result", 0)) {
            warn(line, "the result differs from the response's: the scenario gives the response's");
        }
        json value = {{"do", "answer"},
                      {"check", asked->check},
                      {asked->check == "tempKey" ? "key" : "relay", asked->key},
                      {"via", "facade"}};
        value.update(answer(response, line));
        step(value, line);
    } else if (name == "handleUnlockOptionsResponse") {
        const Attempt* attempt = attemptOf(args.value("optionsId", ""));
        json value = {{"do", "choose"}, {"relays", args.value("selectedRelays", json::array())}};
        if (attempt != nullptr) {
            value["attempt"] = attempt->label;
        }
        step(value, line);
    } else if (name == "setProcessorChain") {
        step({{"do", "chain"}, {"names", args.value("names", json::array())}}, line);
    } else if (name == "reset" || name == "init") {
        step({{"do", name}}, line);
    } else if (name == "reloadConfig") {
        warn(line,
             "a scenario has no step for reloadConfig: left out (the engine reads the "
             "config again at each attempt)");
    } else {
        return refuse(line, "the facade call " + name +
                                " cannot be expressed in a scenario (a host's own processor is "
                                "code, which a trace does not carry)");
    }
    return true;
}

void Converter::question(const TraceLine& line, const std::string& check, const std::string& key) {
    current(line);
    Question& asked = questions[line.data.value("question", 0ULL)];
    asked.check = check;
    asked.key = key;
    asked.step = stepFacts.size() - 1;
    asked.requestId = line.data["args"].value("context", json::object()).value("requestId", "");
    const json& result = line.data.contains("result") ? line.data["result"] : json();
    asked.sent = result.is_boolean() ? result.get<bool>()
                                     : result.is_string() && !result.get<std::string>().empty();
}

void Converter::operation(const TraceLine& line) {
    const std::string& name = line.name;
    const json& data = line.data;
    const json args = data.value("args", json::object());
    const json context = args.value("context", json::object());
    const json request = context.value("request", json::object());
    const std::string credentialText = request.value("credential", "");
    const json none;
    const json& result = data.contains("result") ? data["result"] : none;
    const bool ok = result.is_boolean() && result.get<bool>();
    for (auto& attempt : attempts) {
        // A synchronous attempt's id, which its later phases' ids start with.
        if (attempt.inCall && attempt.thread == line.thread && attempt.requestId.empty()) {
            attempt.requestId = context.value("requestId", "");
        }
    }
    if (data.contains("threw")) {
        warn(line,
             "the host threw here; a site cannot throw: the scenario answers as if "
             "nothing was found");
        return;
    }
    if (name == "getAuthConfig") {
        fact({"config"}, result, line);
    } else if (name == "getUserByCredential") {
        const int openType = args.value("openType", 0);
        const std::string kind =
            openType == OPEN_TYPE_LICENSE_PLATE ? "plate" : credentialKind(openType);
        if (kind.empty() && result.is_object()) {
            warn(line, "a site has no credential of open type " + openTypeName(openType) +
                           ": the user is not found");
        } else if (!kind.empty()) {
            credential(kind, args.value("credential", ""), &result, line);
        }
    } else if (name == "getKeyData") {
        fact({"plateKey", credentialText}, result, line);
    } else if (name == "getRelaySchedules") {
        for (const auto& schedule : result) {
            if (!schedule.is_object()) {
                warn(line, "the host returned an empty schedule, which a site cannot give");
                continue;
            }
            fact({"schedule", schedule.value("scheduleId", std::to_string(schedule.value("id", 0))),
                  std::to_string(schedule.value("id", 0))},
                 schedule, line);
        }
    } else if (name == "getHolidays") {
        fact({"holidays", args.value("ownerKey", "")}, result, line);
    } else if (name == "isPublicPin") {
        if (!ok || current(line).count({"publicPins", credentialText}) == 0) {
            fact({"publicPins", credentialText}, ok ? json::array() : json(), line);
        }
    } else if (name == "getPublicPinRelays") {
        current(line).erase({"publicPins", credentialText});  // isPublicPin's, without relays
        fact({"publicPins", credentialText}, result, line);
    } else if (name == "getLatchPinRelays") {
        fact({"latchPins", credentialText}, ok ? data.value("relays", json::array()) : json(),
             line);
    } else if (name == "getLockedDownRelays" || name == "getForbiddenUnlockTypeRelays") {
        const bool lockdown = name == "getLockedDownRelays";
        for (const auto& relay : args.value("relays", json::array())) {
            const bool listed = std::find(result.begin(), result.end(), relay) != result.end();
            if (lockdown) {
                fact({"lockdown", relay.get<std::string>()}, listed, line);
            } else {
                fact({"forbidden", relay.get<std::string>(),
                      std::to_string(args.value("openType", 0))},
                     listed, line);
            }
        }
    } else if (name == "isRelayHolidayExempt") {
        fact({"holidayExemptRelays", args.value("relay", "")}, ok, line);
    } else if (name == "getDtmfConfig" || name == "getHttpOpenConfig") {
        fact({name == "getDtmfConfig" ? "dtmf" : "http"},
             ok ? data.value("config", json::object()) : json(), line);
    } else if (name == "requestDtmfWhitelist") {
        fact({"whitelist", args["request"].value("remoteNumber", "")},
             ok ? data.value("whitelist", json::object()) : json(), line);
    } else if (name == "getDtmfUser" || name == "getRemoteControlUser" ||
               name == "getUserByDuressCode") {
        const std::string kind = name == "getDtmfUser"            ? "phone"
                                 : name == "getRemoteControlUser" ? "remote"
                                                                  : "duress";
        const std::string text = args.value(kind == "phone"    ? "remoteNumber"
                                            : kind == "remote" ? "remoteUserId"
                                                               : "code",
                                            "");
        credential(kind, text, ok ? &data["user"] : nullptr, line);
    } else if (name == "requestDtmfVisitorPermission") {
        if (ok) {
            user(data["user"], line);
        }
        fact({"visitors", args["request"].value("resolvedPerId", "")},
             ok ? json(data["user"].value("userId", "")) : json(), line);
    } else if (name == "getTempKeyUser") {
        if (ok) {
            user(data["user"], line);
        }
        fact({"tempKeyUser", args["data"].value("key", "")},
             ok ? json(data["user"].value("userId", "")) : json(), line);
    } else if (name == "getTempKeyTargets") {
        fact({"tempKeyTargets"}, data.value("targets", json::array()), line);
    } else if (name == "getReaderPriority") {
        json readers = json::array();
        for (const auto& reader : ok ? data.value("priority", json::array()) : json::array()) {
            readers.push_back(readerName(reader.get<int>()));
        }
        fact({"readerPriority"}, readers, line);
    } else if (name == "checkBleOpenInterval" || name == "recordBleOpen") {
        const std::string userId = args.value("userId", "");
        const auto last = lastBleOpen.find(userId);
        if (name == "recordBleOpen") {
            lastBleOpen[userId] = line.wall;
        } else if (last == lastBleOpen.end() && !ok) {
            warn(line, "the BLE interval refused a user the trace shows no earlier opening of");
        } else if (last != lastBleOpen.end()) {
            const int64_t gap = line.wall - last->second;
            (ok ? bleAtMost : bleAtLeast) =
                ok ? std::min(bleAtMost, gap) : std::max(bleAtLeast, gap + 1);
        }
    } else if (name == "requestAntiPassback") {
        question(line, "antiPassback", firstOf(context.value("antiPassbackRelays", json::array())));
    } else if (name == "requestInterlock") {
        question(line, "interlock", args.value("relay", ""));
    } else if (name == "requestParking") {
        question(line, "parking", firstOf(context.value("relays", json::array())));
    } else if (name == "requestTempKey") {
        question(line, "tempKey", credentialText);
    } else if (name != "onAuthResult" && name != "onGuessLockout" && name != "onDuress") {
        warn(line, "authsim does not know the operation " + name + ": left out");
    }
}

void Converter::report(const TraceLine& line) {
    const uint64_t number = line.data.value("call", 0ULL);
    Attempt* attempt = nullptr;
    for (auto& candidate : attempts) {
        if (line.name != "onAuthResult" && candidate.call == number) {
            attempt = &candidate;
        }
    }
    if (line.name == "onAuthResult") {
        const std::string id = line.data.value("requestId", "");
        for (auto& candidate : attempts) {
            // The report made inside a synchronous authenticate is the response it returns.
            if (candidate.inCall && candidate.thread == line.thread) {
                candidate.requestId = candidate.requestId.empty() ? id : candidate.requestId;
                return;
            }
        }
        attempt = attemptOf(id);
        const std::string tag = line.data.value("tag", "");
        for (auto& candidate : attempts) {
            attempt =
                attempt == nullptr && !tag.empty() && candidate.tag == tag ? &candidate : attempt;
        }
        const bool unnamed = std::any_of(attempts.begin(), attempts.end(), [](const Attempt& a) {
            return !a.sync && a.requestId.empty();
        });
        if ((attempt != nullptr && !attempt->sync) || (attempt == nullptr && unnamed)) {
            return;  // an asynchronous attempt's reports are its callback's
        }
    }
    if (attempt == nullptr) {
        warn(line, "a report of no attempt the trace shows made: not checked");
        return;
    }
    attempt->inCall = false;
    const json response = line.data.value("response", json::object());
    json expect = {{"attempt", attempt->label},
                   {"phase", response.value("asyncType", "")},
                   {"result", resultName(response.value("result", 0))},
                   {"opened", response.value("openedRelays", json::array())},
                   {"failed", response.value("failedRelays", json::array())},
                   {"failCode", response.value("failCode", 0)},
                   {"reason", response.value("reason", "")},
                   {"user", response.value("user", json::object()).value("userId", "")}};
    copy(response, "unlockOptionsRelays", expect, "offered");
    copy(response, "doubleAuthPendingId", expect, "pendingId");
    copy(response, "remoteFailCode", expect);
    copy(response, "duress", expect);
    if (response.contains("targets")) {
        for (const auto& target : response["targets"]) {
            expect["targets"].push_back(target.value("relay", ""));
        }
    }
    steps.back()["expect"].push_back(expect);
}

bool Converter::read() {
    if (!trace.events.empty()) {
        wall = trace.events.front().wall;
        uptime = trace.events.front().uptime;
    }
    for (const TraceLine& line : trace.events) {
        const bool isAnswer = line.kind == "answer";
        const bool later = isAnswer && !line.data.value("inline", false);
        if (line.kind == "call" || later) {
            moveClock(line);
        }
        if (line.kind == "call" && !call(line)) {
            return false;
        } else if (line.kind == "return" && line.data.value("result", json()).is_string()) {
            for (auto& attempt : attempts) {
                attempt.requestId = attempt.call == line.data.value("call", 0ULL)
                                        ? line.data["result"].get<std::string>()
                                        : attempt.requestId;
            }
        } else if (line.kind == "op") {
            operation(line);
        } else if (line.kind == "report") {
            report(line);
        } else if (isAnswer) {
            const auto asked = questions.find(line.data.value("question", 0ULL));
            if (later && (asked == questions.end() || asked->second.answered)) {
                warn(line, "it answers a question asked before the trace begins: left out");
                continue;
            }
            Question& question = questions[line.data.value("question", 0ULL)];
            const json context = line.data.value("context", json::object());
            if (context.contains("tempKeyAuthData")) {
                json data = context["tempKeyAuthData"];
                const std::string key = data.value("key", "");
                data.erase("key");
                fact({"tempKey", key}, data, line);
            } else if (!context.empty()) {
                warn(line, "the answer's context carries members a peer of authsim cannot give");
            }
            if (later) {
                question.answered = true;
                json value = {{"do", "answer"},
                              {"check", question.check},
                              {question.check == "tempKey" ? "key" : "relay", question.key}};
                value.update(answer(line.data.value("response", json::object()), line));
                step(value, line);
            } else {
                question.inlineAnswer = answer(line.data.value("response", json::object()), line);
            }
        }
    }
    // What a peer answered: the question's mode, in the site as the step that asked it saw it.
    for (const auto& entry : questions) {
        const Question& asked = entry.second;
        json answer = {{"mode", !asked.sent                     ? "offline"
                                : !asked.inlineAnswer.is_null() ? "inline"
                                : asked.answered                ? "held"
                                                                : "never"}};
        answer.update(asked.inlineAnswer.is_null() ? json::object() : asked.inlineAnswer);
        json& known = stepFacts[asked.step][{"remote", asked.check, asked.key}];
        if (!known.is_null() && known != answer) {
            notes.push_back("question " + std::to_string(entry.first) +
                            ": the peer answered two questions of one step about " + asked.key +
                            " in different ways; the site answers both as the later one");
        }
        known = answer;
    }
    if (bleAtLeast > 0 && !stepFacts.empty()) {
        stepFacts.front()[{"bleIntervalSeconds"}] = bleAtLeast;
        if (bleAtLeast > bleAtMost) {
            notes.push_back(
                "the BLE openings the trace refused and those it let pass fit no one "
                "interval: the scenario uses " +
                std::to_string(bleAtLeast) + " s");
        }
    }
    return true;
}

json Converter::render(const Facts& facts) {
    json site = json::object();
    std::map<std::string, json> users;
    std::vector<std::pair<json, json>> holidays;  // a holiday, the owner keys it holds
    for (const auto& entry : facts) {
        const FactKey& key = entry.first;
        const json& value = entry.second;
        const std::string& section = key.front();
        if (section == "config") {
            site["config"] = configJson(toConfig(value));
        } else if (section == "user") {
            json& record = users[key[1]];
            const json credentials = record.is_object() ? record["credentials"] : json();
            record = value;
            if (!credentials.is_null()) {
                record["credentials"] = credentials;
            }
        } else if (section == "cred" && value.is_string()) {
            json credential = key[2];
            if (key[1] == "plate") {
                const auto plateKey = facts.find({"plateKey", key[2]});
                credential = {{"number", key[2]}};
                if (plateKey != facts.end() && plateKey->second.is_null()) {
                    credential["keyData"] = false;
                } else if (plateKey != facts.end()) {
                    credential.update(plateKey->second);
                }
            }
            users[value.get<std::string>()]["credentials"][key[1]].push_back(credential);
        } else if (section == "schedule") {
            site["schedules"].push_back(value);
        } else if (section == "holidays") {
            for (const auto& holiday : value) {
                auto found = std::find_if(holidays.begin(), holidays.end(), [&](const auto& known) {
                    return known.first == holiday;
                });
                if (found == holidays.end()) {
                    found = holidays.emplace(holidays.end(), holiday, json::array());
                }
                found->second.push_back(key[1]);
            }
        } else if ((section == "publicPins" || section == "latchPins") && value.is_array()) {
            site[section][key[1]] = value;
        } else if ((section == "lockdown" || section == "holidayExemptRelays") && value == true) {
            site[section].push_back(key[1]);
        } else if (section == "forbidden" && value == true) {
            site["forbiddenOpenTypes"][key[1]].push_back(openTypeName(std::stoi(key[2])));
        } else if (section == "http" && value.is_object()) {
            site["http"] = {{"enabled", false}, {"username", ""}, {"password", ""}};
            site["http"].update(value);
        } else if (section == "dtmf" && value.is_object()) {
            site["dtmf"].update({{"enabled", false}, {"whitelistRequired", false}});
            site["dtmf"].update(value);
            site["dtmf"]["codeRelays"] = json::object();
            for (const auto& code : value.value("codeRelays", json::array())) {
                site["dtmf"]["codeRelays"][code.value("code", "")] = code["relays"];
            }
        } else if (section == "whitelist" && value.is_object()) {
            site["dtmf"]["whitelist"][key[1]] = value;
        } else if (section == "visitors" && value.is_string()) {
            site["dtmf"]["visitors"][key[1]] = value;
        } else if (section == "tempKey") {
            site["tempKeys"][key[1]].update(value);
        } else if (section == "tempKeyUser" && value.is_string()) {
            site["tempKeys"][key[1]]["userId"] = value;
        } else if (section == "remote") {
            site["remote"][key[1]][key[2]] = value;
        } else if (key.size() == 1) {
            site[section] = value;  // tempKeyTargets, readerPriority, bleIntervalSeconds
        }
    }
    for (auto& user : users) {
        site["users"].push_back(user.second);
    }
    for (auto& holiday : holidays) {
        holiday.first["holidayKeys"] = holiday.second;
        site["holidays"].push_back(holiday.first);
    }
    return site;
}

json Converter::site() const {
    Facts first;
    for (const Facts& facts : stepFacts) {
        first.insert(facts.begin(), facts.end());  // a fact's first value wins
    }
    json out = render(first);
    out["name"] = "From the trace " + trace.file;
    out["timezone"] = "UTC";
    out["start"] = trace.events.empty() ? 0 : trace.events.front().wall;
    return out;
}

json Converter::scenario() const {
    Facts now;
    for (const Facts& facts : stepFacts) {
        now.insert(facts.begin(), facts.end());
    }
    json out = {{"name", "From the trace " + trace.file},
                {"description",
                 "Made by authsim trace-to-scenario: the trace's calls, with the "
                 "reports it recorded as expectations."},
                {"steps", json::array()}};
    for (std::size_t i = 0; i < steps.size(); ++i) {
        const json before = render(now);
        for (const auto& fact : stepFacts[i]) {
            now[fact.first] = fact.second;
        }
        const json after = render(now);
        json patch = {{"do", "site"}};
        for (const auto& section : before.items()) {
            if (!after.contains(section.key())) {
                patch[section.key()] = json(section.value().type());  // emptied
            }
        }
        for (const auto& section : after.items()) {
            if (before.value(section.key(), json()) != section.value()) {
                patch[section.key()] = section.value();
            }
        }
        if (patch.size() > 1) {
            out["steps"].push_back(patch);
        }
        out["steps"].push_back(steps[i]);
    }
    return out;
}

// A scenario as the examples are written: one step per line, "do" first and "expect" last.
std::string scenarioText(const json& scenario) {
    std::string text = "{\n  \"name\": " + scenario["name"].dump() +
                       ",\n  \"description\": " + scenario["description"].dump() +
                       ",\n  \"steps\": [";
    const char* separator = "\n";
    for (const json& step : scenario["steps"]) {
        text += separator + std::string("    {\"do\": ") + step["do"].dump();
        for (const auto& member : step.items()) {
            if (member.key() != "do" && member.key() != "expect") {
                text += ", " + json(member.key()).dump() + ": " + member.value().dump();
            }
        }
        if (step.contains("expect")) {
            text += ", \"expect\": " + step["expect"].dump();
        }
        text += "}";
        separator = ",\n";
    }
    return text + "\n  ]\n}\n";
}

bool writeText(const std::string& text, const std::string& file) {
    std::ofstream out(file);
    out << text;
    if (!out) {
        (void)std::fprintf(stderr, "authsim: %s: cannot write the file\n", file.c_str());
    }
    return static_cast<bool>(out);
}

}  // namespace

int traceToScenario(const TraceData& trace, const std::string& siteFile,
                    const std::string& scenarioFile) {
    Converter converter(trace);
    if (!converter.read()) {
        return EXIT_BAD_INPUT;
    }
    if (trace.header.value("secrets", "") == "hashed") {
        (void)std::fprintf(
            stderr,
            "authsim: warning: %s: the trace's secrets are hashed: the site and the "
            "scenario use the hashed texts as credentials, PINs and codes, so decisions "
            "that depend on a secret's form (its length, its digits) may not reproduce\n",
            trace.file.c_str());
    }
    for (const auto& note : converter.warnings()) {
        (void)std::fprintf(stderr, "authsim: warning: %s: %s\n", trace.file.c_str(), note.c_str());
    }
    if (!writeText(converter.site().dump(2) + "\n", siteFile) ||
        !writeText(scenarioText(converter.scenario()), scenarioFile)) {
        return EXIT_BAD_INPUT;
    }
    // The files must be what authsim reads: the same schemas and checks as for any input.
    try {
        const Site site = loadSite(siteFile);
        loadScenario(scenarioFile, site);
    } catch (const InputError& e) {
        for (const auto& problem : e.problems()) {
            (void)std::fprintf(stderr, "authsim: generated file refused: %s: %s\n",
                               problem.path.c_str(), problem.message.c_str());
        }
        return EXIT_BAD_INPUT;
    }
    std::printf("authsim: %s: wrote %s and %s\n", trace.file.c_str(), siteFile.c_str(),
                scenarioFile.c_str());
    return 0;
}

}  // namespace authsim
