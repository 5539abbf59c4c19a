// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

#include "Site.h"

#include <sys/stat.h>

#include <cctype>
#include <cstdlib>
#include <ctime>
#include <set>

#include "Names.h"
#include "Schema.h"

namespace authsim {

using namespace auth_engine;

const char* modeName(RemoteAnswer::Mode mode) {
    switch (mode) {
        case RemoteAnswer::INLINE:
            return "inline";
        case RemoteAnswer::LATER:
            return "later";
        case RemoteAnswer::HELD:
            return "held";
        case RemoteAnswer::NEVER:
            return "never";
        default:
            return "offline";
    }
}

const SiteUser* Site::findUser(const std::string& userId) const {
    for (const auto& user : users) {
        if (user.data.userId == userId) {
            return &user;
        }
    }
    return nullptr;
}

RemoteAnswer Site::answerFor(const std::string& check, const std::string& key) const {
    const auto answers = remote.find(check);
    if (answers != remote.end()) {
        for (const std::string& candidate : {key, std::string("*")}) {
            const auto found = answers->second.find(candidate);
            if (found != answers->second.end()) {
                return found->second;
            }
        }
    }
    return RemoteAnswer{};
}

namespace {

template <typename Fn>
void forEachMember(const json& object, const std::string& path, Fn&& fn) {
    for (const auto& item : object.items()) {
        if (!item.key().empty() && item.key()[0] == '_') {
            continue;  // a comment
        }
        fn(item.key(), item.value(), childPath(path, item.key()));
    }
}

std::map<std::string, std::vector<std::string>> readRelayMap(const json& value,
                                                             const std::string& path) {
    std::map<std::string, std::vector<std::string>> out;
    forEachMember(value, path,
                  [&](const std::string& key, const json& relays, const std::string& at) {
                      out[key] = readRelayList(relays, at);
                  });
    return out;
}

// The config members a site gives by name, flags and numbers.
const std::map<std::string, bool AuthConfig::*>& configFlags() {
    static const std::map<std::string, bool AuthConfig::*> table = {
        {"doubleAuthEnabled", &AuthConfig::doubleAuthEnabled},
        {"antiPassbackEnabled", &AuthConfig::antiPassbackEnabled},
        {"interlockEnabled", &AuthConfig::interlockEnabled},
        {"parkingRestrictionEnabled", &AuthConfig::parkingRestrictionEnabled},
        {"holidayEnabled", &AuthConfig::holidayEnabled},
        {"virtualDoorEnabled", &AuthConfig::virtualDoorEnabled},
        {"cloudVirtualDoorConfigured", &AuthConfig::cloudVirtualDoorConfigured},
        {"unlockOptionsEnabled", &AuthConfig::unlockOptionsEnabled},
        {"guessCountsCards", &AuthConfig::guessCountsCards},
        {"duressEnabled", &AuthConfig::duressEnabled}};
    return table;
}

const std::map<std::string, int AuthConfig::*>& configNumbers() {
    static const std::map<std::string, int AuthConfig::*> table = {
        {"virtualDoorMode", &AuthConfig::virtualDoorMode},
        {"antiPassbackTimeout", &AuthConfig::antiPassbackTimeout},
        {"interlockTimeout", &AuthConfig::interlockTimeout},
        {"interlockRetryLimit", &AuthConfig::interlockRetryLimit},
        {"parkingTimeout", &AuthConfig::parkingTimeout},
        {"doubleAuthTimeoutSec", &AuthConfig::doubleAuthTimeoutSec},
        {"tempKeyTimeout", &AuthConfig::tempKeyTimeout},
        {"guessLimit", &AuthConfig::guessLimit},
        {"guessWindowSeconds", &AuthConfig::guessWindowSeconds},
        {"guessLockoutSeconds", &AuthConfig::guessLockoutSeconds}};
    return table;
}

void readConfig(AuthConfig& config, const json& value, const std::string& path) {
    const auto& flags = configFlags();
    const auto& numbers = configNumbers();
    forEachMember(
        value, path, [&](const std::string& key, const json& member, const std::string& at) {
            if (flags.count(key) != 0) {
                config.*flags.at(key) = member.get<bool>();
            } else if (numbers.count(key) != 0) {
                config.*numbers.at(key) = member.get<int>();
            } else if (key == "doubleAuthMode") {
                config.doubleAuthMode = readDoubleAuthMode(member, at);
            } else if (key == "readerRelayMap") {
                config.readerRelayMap.clear();
                forEachMember(member, at,
                              [&](const std::string& reader, const json& byDirection,
                                  const std::string& readerPath) {
                                  auto& directions =
                                      config.readerRelayMap[readReader(reader, readerPath)];
                                  forEachMember(byDirection, readerPath,
                                                [&](const std::string& direction,
                                                    const json& relays, const std::string& p) {
                                                    directions[readDirection(direction, p)] =
                                                        readRelayList(relays, p);
                                                });
                              });
            } else if (key == "antiPassbackRelayMap") {
                config.antiPassbackRelayMap.clear();
                forEachMember(member, at,
                              [&](const std::string& relay, const json& direction,
                                  const std::string& relayPath) {
                                  checkRelayId(relay, relayPath);
                                  config.antiPassbackRelayMap[relay] =
                                      readDirection(direction, relayPath);
                              });
            } else if (key == "interlockRelayMap") {
                config.interlockRelayMap.clear();
                forEachMember(
                    member, at,
                    [&](const std::string& relay, const json& flag, const std::string& relayPath) {
                        checkRelayId(relay, relayPath);
                        config.interlockRelayMap[relay] = flag.get<bool>();
                    });
            }
        });
}

Plate readPlate(const json& value, const std::string& path) {
    Plate plate;
    if (!value.is_object()) {
        plate.number = readString(value);
        return plate;
    }
    plate.number = readString(value["number"]);
    if (value.contains("startTime")) {
        plate.key.startTime = readTime(value["startTime"], childPath(path, "startTime"));
    }
    if (value.contains("endTime")) {
        plate.key.endTime = readTime(value["endTime"], childPath(path, "endTime"));
    }
    plate.key.longTermEnable = value.value("longTermEnable", false);
    plate.keyData = value.value("keyData", true);
    return plate;
}

SiteUser readUser(const json& value, const std::string& path) {
    SiteUser user;
    UserData& data = user.data;
    const std::map<std::string, std::string UserData::*> texts = {
        {"userId", &UserData::userId},
        {"userName", &UserData::userName},
        {"scheduleRelay", &UserData::scheduleRelay},
        {"userTargetId", &UserData::userTargetId},
        {"holidayKey", &UserData::holidayKey}};
    const std::map<std::string, int UserData::*> numbers = {
        {"userType", &UserData::userType},
        {"ownerKind", &UserData::ownerKind},
        {"lockdownBypass", &UserData::lockdownBypass}};
    forEachMember(
        value, path, [&](const std::string& key, const json& member, const std::string& at) {
            if (texts.count(key) != 0) {
                data.*texts.at(key) = readString(member);
            } else if (numbers.count(key) != 0) {
                data.*numbers.at(key) = member.get<int>();
            } else if (key == "holidayExempt") {
                data.holidayExempt =
                    member.is_boolean() ? (member.get<bool>() ? 1 : 0) : member.get<int>();
            } else if (key == "validTimeStart") {
                data.validTimeStart = readTime(member, at);
            } else if (key == "validTimeEnd") {
                data.validTimeEnd = readTime(member, at);
            } else if (key == "credentials") {
                forEachMember(
                    member, at,
                    [&](const std::string& kind, const json& list, const std::string& listPath) {
                        if (kind != "plate") {
                            user.credentials[kind] = readStringList(list);
                            return;
                        }
                        for (std::size_t i = 0; i < list.size(); ++i) {
                            user.plates.push_back(readPlate(list[i], childPath(listPath, i)));
                        }
                    });
            }
        });
    return user;
}

// Two users sharing a credential would make the lookup depend on the file's order.
void checkUsers(const std::vector<SiteUser>& users, const std::string& path) {
    std::set<std::string> ids;
    std::map<std::string, std::string> owners;
    for (std::size_t i = 0; i < users.size(); ++i) {
        const std::string at = childPath(path, i);
        if (!ids.insert(users[i].data.userId).second) {
            throw InputError(childPath(at, "userId"),
                             "the user id \"" + users[i].data.userId + "\" is used twice");
        }
        std::vector<std::string> keys;
        for (const auto& kind : users[i].credentials) {
            for (const auto& credential : kind.second) {
                keys.push_back(kind.first + " " + credential);
            }
        }
        for (const auto& plate : users[i].plates) {
            keys.push_back("plate " + plate.number);
        }
        for (const auto& key : keys) {
            const auto owner = owners.emplace(key, users[i].data.userId);
            if (!owner.second && owner.first->second != users[i].data.userId) {
                throw InputError(childPath(at, "credentials"),
                                 "the " + key + " also belongs to " + owner.first->second);
            }
        }
    }
}

ScheduleData readSchedule(const json& value, const std::string& path) {
    ScheduleData schedule;
    schedule.id = value["id"].get<int>();
    schedule.scheduleId = value.value("scheduleId", std::to_string(schedule.id));
    schedule.name = value.value("name", "");
    if (value.contains("type")) {
        const std::map<std::string, int> kinds = {{"daily", 1}, {"weekly", 2}, {"date", 3}};
        schedule.type =
            value["type"].is_string() ? kinds.at(value["type"]) : value["type"].get<int>();
    }
    schedule.startTime = value.value("startTime", "");
    schedule.endTime = value.value("endTime", "");
    schedule.startDate = value.value("startDate", "");
    schedule.endDate = value.value("endDate", "");
    checkDate(schedule.startDate, childPath(path, "startDate"));
    checkDate(schedule.endDate, childPath(path, "endDate"));
    schedule.weekly = value.value("weekly", "");
    schedule.relay = value.value("relay", "");
    schedule.holidayExemption = value.value("holidayExemption", false);
    return schedule;
}

SiteHoliday readHoliday(const json& value, const std::string& path) {
    SiteHoliday holiday;
    HolidayData& data = holiday.data;
    data.id = value.value("id", 0);
    data.type = value.value("type", 0);
    if (value.contains("yearlyRepeat")) {
        const json& repeat = value["yearlyRepeat"];
        data.yearlyRepeat = repeat.is_boolean() ? (repeat.get<bool>() ? 1 : 0) : repeat.get<int>();
    }
    data.name = value.value("name", "");
    data.description = value.value("description", "");
    data.timeRange = value.value("timeRange", "");
    data.startDate = value.value("startDate", "");
    data.endDate = value.value("endDate", "");
    checkDate(data.startDate, childPath(path, "startDate"));
    checkDate(data.endDate, childPath(path, "endDate"));
    if (value.contains("holidayKeys")) {
        holiday.holidayKeys = readStringList(value["holidayKeys"]);
    }
    return holiday;
}

void readHttp(HttpOpenConfig& http, const json& value) {
    http.enabled = value.value("enabled", http.enabled);
    http.username = value.value("username", http.username);
    http.password = value.value("password", http.password);
}

void readDtmf(Site& site, const json& value, const std::string& path) {
    site.dtmf.enabled = value.value("enabled", site.dtmf.enabled);
    site.dtmf.whitelistRequired = value.value("whitelistRequired", site.dtmf.whitelistRequired);
    if (value.contains("codeRelays")) {
        site.dtmf.codeRelays = readRelayMap(value["codeRelays"], childPath(path, "codeRelays"));
    }
    if (value.contains("whitelist")) {
        site.dtmfWhitelist.clear();
        for (const auto& entry : value["whitelist"].items()) {
            DtmfWhitelistResult& result = site.dtmfWhitelist[entry.key()];
            result.allowed = entry.value().value("allowed", false);
            result.resolvedPerId = entry.value().value("resolvedPerId", "");
            result.remoteUsername = entry.value().value("remoteUsername", "");
        }
    }
    if (value.contains("visitors")) {
        site.dtmfVisitors.clear();
        for (const auto& entry : value["visitors"].items()) {
            site.dtmfVisitors[entry.key()] = entry.value().get<std::string>();
        }
    }
}

TempKey readTempKey(const json& value, const std::string& path) {
    TempKey key;
    key.userId = value.value("userId", "");
    if (value.contains("targets")) {
        key.data.targets = readTargets(value["targets"], childPath(path, "targets"));
    }
    key.data.failCode = value.value("failCode", 0);
    key.data.sourceCode = value.value("sourceCode", 0);
    key.data.userText = value.value("userText", "");
    key.data.userText2 = value.value("userText2", "");
    key.data.requestText = value.value("requestText", "");
    return key;
}

void readRemote(Site& site, const json& value) {
    for (const auto& check : value.items()) {
        auto& answers = site.remote[check.key()];
        for (const auto& entry : check.value().items()) {
            const auto existing = answers.find(entry.key());
            answers[entry.key()] = readAnswer(
                entry.value(), existing != answers.end() ? existing->second : RemoteAnswer{});
        }
    }
}

void setTimezone(const std::string& zone, const std::string& path) {
    // glibc falls back to UTC for a zone it does not know; say so instead of running in the wrong
    // zone.
    struct stat info {};
    const bool known = zone == "UTC" || zone.find_first_of("0123456789") != std::string::npos ||
                       stat(("/usr/share/zoneinfo/" + zone).c_str(), &info) == 0;
    if (!known) {
        throw InputError(path, "unknown time zone \"" + zone + "\"");
    }
    setenv("TZ", zone.c_str(), 1);
    tzset();
}

void applySection(Site& site, const std::string& key, const json& value, const std::string& at) {
    if (key == "name" || key == "description") {
        (key == "name" ? site.name : site.description) = value.get<std::string>();
    } else if (key == "config") {
        readConfig(site.config, value, at);
    } else if (key == "users") {
        site.users.clear();
        for (std::size_t i = 0; i < value.size(); ++i) {
            site.users.push_back(readUser(value[i], childPath(at, i)));
        }
        checkUsers(site.users, at);
    } else if (key == "schedules") {
        site.schedules.clear();
        for (std::size_t i = 0; i < value.size(); ++i) {
            site.schedules.push_back(readSchedule(value[i], childPath(at, i)));
        }
    } else if (key == "holidays") {
        site.holidays.clear();
        for (std::size_t i = 0; i < value.size(); ++i) {
            site.holidays.push_back(readHoliday(value[i], childPath(at, i)));
        }
    } else if (key == "publicPins" || key == "latchPins") {
        (key == "publicPins" ? site.publicPins : site.latchPins) = readRelayMap(value, at);
    } else if (key == "lockdown" || key == "holidayExemptRelays") {
        (key == "lockdown" ? site.lockdown : site.holidayExemptRelays) = readRelayList(value, at);
    } else if (key == "forbiddenOpenTypes") {
        site.forbiddenOpenTypes.clear();
        forEachMember(value, at,
                      [&](const std::string& relay, const json& types, const std::string& p) {
                          checkRelayId(relay, p);
                          std::vector<int>& list = site.forbiddenOpenTypes[relay];
                          for (std::size_t i = 0; i < types.size(); ++i) {
                              list.push_back(readOpenType(types[i], childPath(p, i)));
                          }
                      });
    } else if (key == "http") {
        site.httpConfigured = true;
        readHttp(site.http, value);
    } else if (key == "dtmf") {
        site.dtmfConfigured = true;
        readDtmf(site, value, at);
    } else if (key == "tempKeys") {
        site.tempKeys.clear();
        forEachMember(value, at,
                      [&](const std::string& name, const json& entry, const std::string& p) {
                          site.tempKeys[name] = readTempKey(entry, p);
                      });
    } else if (key == "tempKeyTargets") {
        site.tempKeyTargets = readTargets(value, at);
    } else if (key == "bleIntervalSeconds") {
        site.bleIntervalSeconds = value.get<int>();
    } else if (key == "readerPriority") {
        site.readerPriority.clear();
        for (std::size_t i = 0; i < value.size(); ++i) {
            site.readerPriority.push_back(readReader(value[i], childPath(at, i)));
        }
    } else if (key == "remote") {
        readRemote(site, value);
    }
}

}  // namespace

std::vector<AuthTarget> readTargets(const json& value, const std::string& path) {
    std::vector<AuthTarget> targets;
    for (std::size_t i = 0; i < value.size(); ++i) {
        const json& item = value[i];
        AuthTarget target;
        if (item.is_object()) {
            target.type = item.value("type", 0);
            target.relay = item.value("relay", "");
        } else {
            // A bare relay id, typed by the engine's own rule ("S" and a letter is a kind-1 relay).
            target.relay = item.get<std::string>();
            checkRelayId(target.relay, childPath(path, i));
            target.type = target.relay.size() > 1 ? 1 : 0;
        }
        targets.push_back(target);
    }
    return targets;
}

RemoteAnswer readAnswer(const json& value, RemoteAnswer base) {
    if (value.contains("mode")) {
        for (int m = RemoteAnswer::INLINE; m <= RemoteAnswer::OFFLINE; ++m) {
            if (value["mode"] == modeName(static_cast<RemoteAnswer::Mode>(m))) {
                base.mode = static_cast<RemoteAnswer::Mode>(m);
            }
        }
    }
    base.delayMs = value.value("delayMs", base.delayMs);
    if (value.contains("result")) {
        base.result = readResult(value["result"], "/result");
    }
    base.failCode = value.value("failCode", base.failCode);
    base.remoteFailCode = value.value("remoteFailCode", base.remoteFailCode);
    base.reason = value.value("reason", base.reason);
    return base;
}

std::vector<std::string> scheduleWarnings(const Site& site) {
    // The engine compares times of day as text with no wrap past midnight: a range that ends
    // before it starts never matches. The file is still accepted, as the engine accepts it.
    std::vector<std::string> warnings;
    for (std::size_t i = 0; i < site.schedules.size(); ++i) {
        const ScheduleData& s = site.schedules[i];
        if (!s.startTime.empty() && !s.endTime.empty() && s.endTime < s.startTime) {
            warnings.push_back("/schedules/" + std::to_string(i) + ": the range " + s.startTime +
                               "-" + s.endTime +
                               " ends before it starts and never matches (no range crosses "
                               "midnight): write it as two schedules, " +
                               s.startTime + "-23:59:59 and 00:00:00-" + s.endTime);
        }
    }
    for (std::size_t i = 0; i < site.holidays.size(); ++i) {
        const std::string& range = site.holidays[i].data.timeRange;
        if (range.size() == 17 && range.substr(9) < range.substr(0, 8)) {
            warnings.push_back("/holidays/" + std::to_string(i) + "/timeRange: the range " + range +
                               " ends before it starts and never matches (no range crosses "
                               "midnight)");
        }
    }
    return warnings;
}

json configJson(const AuthConfig& config) {
    json out = json::object();
    for (const auto& flag : configFlags()) {
        out[flag.first] = config.*flag.second;
    }
    for (const auto& number : configNumbers()) {
        out[number.first] = config.*number.second;
    }
    out["doubleAuthMode"] = static_cast<int>(config.doubleAuthMode);
    json& readers = out["readerRelayMap"] = json::object();
    for (const auto& reader : config.readerRelayMap) {
        for (const auto& direction : reader.second) {
            readers[readerName(reader.first)][std::to_string(direction.first)] = direction.second;
        }
    }
    json& antiPassback = out["antiPassbackRelayMap"] = json::object();
    for (const auto& entry : config.antiPassbackRelayMap) {
        antiPassback[entry.first] = static_cast<int>(entry.second);
    }
    out["interlockRelayMap"] = config.interlockRelayMap;
    return out;
}

Site loadSite(const std::string& file) {
    try {
        const json root = parseJsonFile(file);
        const std::vector<Problem> problems = validate(Format::SITE, root);
        if (!problems.empty()) {
            throw InputError(problems);
        }
        Site site;
        site.file = file;
        // The time zone comes first: every time in the file is read in it.
        site.timezone = root.value("timezone", site.timezone);
        setTimezone(site.timezone, "/timezone");
        site.start = root.contains("start") ? readTime(root["start"], "/start")
                                            : readTime(json("2025-01-06T09:00:00"), "/start");
        for (const auto& item : root.items()) {
            applySection(site, item.key(), item.value(), "/" + item.key());
        }
        return site;
    } catch (const InputError& e) {
        throw e.within(file);
    }
}

void patchSite(Site& site, const json& patch, const std::string& path) {
    for (const auto& item : patch.items()) {
        applySection(site, item.key(), item.value(), childPath(path, item.key()));
    }
}

}  // namespace authsim
