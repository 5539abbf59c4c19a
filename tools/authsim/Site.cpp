// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

#include "Site.h"

#include <sys/stat.h>

#include <cctype>
#include <cstdlib>
#include <ctime>
#include <set>

#include "Names.h"

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

const std::vector<std::string> CHECKS = {"antiPassback", "interlock", "parking", "tempKey"};

bool matchesForm(const std::string& text, const char* form) {
    // `form` uses 9 for a digit; every other character must appear as is.
    std::size_t i = 0;
    for (; form[i] != '\0'; ++i) {
        if (i >= text.size()) {
            return false;
        }
        const bool digit = std::isdigit(static_cast<unsigned char>(text[i])) != 0;
        if (form[i] == '9' ? !digit : text[i] != form[i]) {
            return false;
        }
    }
    return i == text.size();
}

// Times and dates are compared as text by the engine, so "7:00:00" would silently never match.
std::string readForm(const json& value, const std::string& path, const char* form,
                     const char* what) {
    const std::string text = readString(value, path);
    if (!matchesForm(text, form)) {
        throw InputError(path, std::string("expected ") + what + ", got " + describe(value));
    }
    return text;
}

std::string readTimeOfDay(const json& value, const std::string& path) {
    return readForm(value, path, "99:99:99", "a time of day \"HH:MM:SS\" (zero-padded)");
}

std::string readScheduleDate(const json& value, const std::string& path) {
    const std::string text = readString(value, path);
    if (!text.empty() && !matchesForm(text, "9999-99-99") && !matchesForm(text, "99999999")) {
        throw InputError(path,
                         "expected a date \"YYYY-MM-DD\" or \"YYYYMMDD\", got " + describe(value));
    }
    return text;
}

template <typename Fn>
void forEachMember(const json& object, const std::string& path, Fn&& fn) {
    requireObject(object, path);
    for (const auto& item : object.items()) {
        if (!item.key().empty() && item.key()[0] == '_') {
            continue;
        }
        fn(item.key(), item.value(), childPath(path, item.key()));
    }
}

template <typename Fn>
void forEachElement(const json& list, const std::string& path, Fn&& fn) {
    if (!list.is_array()) {
        throw InputError(path, "expected a list, got " + describe(list));
    }
    for (std::size_t i = 0; i < list.size(); ++i) {
        fn(list[i], childPath(path, i));
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

void readConfig(AuthConfig& config, const json& value, const std::string& path) {
    checkKeys(value, path,
              {"doubleAuthEnabled", "antiPassbackEnabled", "interlockEnabled",
               "parkingRestrictionEnabled", "holidayEnabled", "virtualDoorEnabled",
               "cloudVirtualDoorConfigured", "virtualDoorMode", "doubleAuthMode",
               "antiPassbackTimeout", "interlockTimeout", "interlockRetryLimit", "parkingTimeout",
               "doubleAuthTimeoutSec", "tempKeyTimeout", "unlockOptionsEnabled", "readerRelayMap",
               "antiPassbackRelayMap", "interlockRelayMap"});
    const std::map<std::string, bool AuthConfig::*> flags = {
        {"doubleAuthEnabled", &AuthConfig::doubleAuthEnabled},
        {"antiPassbackEnabled", &AuthConfig::antiPassbackEnabled},
        {"interlockEnabled", &AuthConfig::interlockEnabled},
        {"parkingRestrictionEnabled", &AuthConfig::parkingRestrictionEnabled},
        {"holidayEnabled", &AuthConfig::holidayEnabled},
        {"virtualDoorEnabled", &AuthConfig::virtualDoorEnabled},
        {"cloudVirtualDoorConfigured", &AuthConfig::cloudVirtualDoorConfigured},
        {"unlockOptionsEnabled", &AuthConfig::unlockOptionsEnabled}};
    const std::map<std::string, int AuthConfig::*> numbers = {
        {"virtualDoorMode", &AuthConfig::virtualDoorMode},
        {"antiPassbackTimeout", &AuthConfig::antiPassbackTimeout},
        {"interlockTimeout", &AuthConfig::interlockTimeout},
        {"interlockRetryLimit", &AuthConfig::interlockRetryLimit},
        {"parkingTimeout", &AuthConfig::parkingTimeout},
        {"doubleAuthTimeoutSec", &AuthConfig::doubleAuthTimeoutSec},
        {"tempKeyTimeout", &AuthConfig::tempKeyTimeout}};
    forEachMember(
        value, path, [&](const std::string& key, const json& member, const std::string& at) {
            if (flags.count(key) != 0) {
                config.*flags.at(key) = readBool(member, at);
            } else if (numbers.count(key) != 0) {
                config.*numbers.at(key) = readInt(member, at);
            } else if (key == "doubleAuthMode") {
                config.doubleAuthMode = readDoubleAuthMode(member, at);
            } else if (key == "readerRelayMap") {
                config.readerRelayMap.clear();
                forEachMember(
                    member, at,
                    [&](const std::string& reader, const json& byDirection,
                        const std::string& readerPath) {
                        auto& directions = config.readerRelayMap[readReader(reader, readerPath)];
                        forEachMember(byDirection, readerPath,
                                      [&](const std::string& direction, const json& relays,
                                          const std::string& relaysPath) {
                                          directions[readDirection(direction, relaysPath)] =
                                              readRelayList(relays, relaysPath);
                                      });
                    });
            } else if (key == "antiPassbackRelayMap") {
                config.antiPassbackRelayMap.clear();
                forEachMember(member, at,
                              [&](const std::string& relay, const json& direction,
                                  const std::string& relayPath) {
                                  readRelayList(relay, relayPath);
                                  config.antiPassbackRelayMap[relay] =
                                      readDirection(direction, relayPath);
                              });
            } else {
                config.interlockRelayMap.clear();
                forEachMember(
                    member, at,
                    [&](const std::string& relay, const json& flag, const std::string& relayPath) {
                        readRelayList(relay, relayPath);
                        config.interlockRelayMap[relay] = readBool(flag, relayPath);
                    });
            }
        });
}

Plate readPlate(const json& value, const std::string& path) {
    Plate plate;
    if (!value.is_object()) {
        plate.number = readString(value, path);
        return plate;
    }
    checkKeys(value, path, {"number", "startTime", "endTime", "longTermEnable", "keyData"});
    if (!value.contains("number")) {
        throw InputError(path, "a plate needs a \"number\"");
    }
    plate.number = readString(value["number"], childPath(path, "number"));
    if (value.contains("startTime")) {
        plate.key.startTime = readTime(value["startTime"], childPath(path, "startTime"));
    }
    if (value.contains("endTime")) {
        plate.key.endTime = readTime(value["endTime"], childPath(path, "endTime"));
    }
    if (value.contains("longTermEnable")) {
        plate.key.longTermEnable =
            readBool(value["longTermEnable"], childPath(path, "longTermEnable"));
    }
    if (value.contains("keyData")) {
        plate.keyData = readBool(value["keyData"], childPath(path, "keyData"));
    }
    return plate;
}

SiteUser readUser(const json& value, const std::string& path) {
    checkKeys(value, path,
              {"userId", "userName", "userType", "scheduleRelay", "userTargetId", "holidayKey",
               "ownerKind", "validTimeStart", "validTimeEnd", "holidayExempt", "lockdownBypass",
               "credentials"});
    SiteUser user;
    UserData& data = user.data;
    if (!value.contains("userId") ||
        readString(value["userId"], childPath(path, "userId")).empty()) {
        throw InputError(childPath(path, "userId"), "every user needs a non-empty \"userId\"");
    }
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
                data.*texts.at(key) = readString(member, at);
            } else if (numbers.count(key) != 0) {
                data.*numbers.at(key) = readInt(member, at);
            } else if (key == "holidayExempt") {
                data.holidayExempt =
                    member.is_number_integer() ? readInt(member, at) : readBool(member, at);
            } else if (key == "validTimeStart") {
                data.validTimeStart = readTime(member, at);
            } else if (key == "validTimeEnd") {
                data.validTimeEnd = readTime(member, at);
            } else {
                checkKeys(member, at,
                          {"card", "pin", "face", "ble", "qr", "phone", "remote", "plate"});
                forEachMember(
                    member, at,
                    [&](const std::string& kind, const json& list, const std::string& listPath) {
                        if (kind == "plate") {
                            forEachElement(list, listPath,
                                           [&](const json& plate, const std::string& p) {
                                               user.plates.push_back(readPlate(plate, p));
                                           });
                        } else {
                            user.credentials[kind] = readStringList(list, listPath);
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
    checkKeys(value, path,
              {"id", "scheduleId", "name", "type", "startTime", "endTime", "weekly", "startDate",
               "endDate", "relay", "holidayExemption"});
    ScheduleData schedule;
    if (!value.contains("id")) {
        throw InputError(path, "a schedule needs an \"id\"");
    }
    schedule.id = readInt(value["id"], childPath(path, "id"));
    schedule.scheduleId = std::to_string(schedule.id);
    forEachMember(
        value, path, [&](const std::string& key, const json& member, const std::string& at) {
            if (key == "scheduleId") {
                schedule.scheduleId = readString(member, at);
            } else if (key == "name") {
                schedule.name = readString(member, at);
            } else if (key == "type") {
                const std::map<std::string, int> kinds = {{"daily", 1}, {"weekly", 2}, {"date", 3}};
                const auto named =
                    member.is_string() ? kinds.find(member.get<std::string>()) : kinds.end();
                schedule.type = named != kinds.end() ? named->second : readInt(member, at);
            } else if (key == "startTime" || key == "endTime") {
                (key == "startTime" ? schedule.startTime : schedule.endTime) =
                    readTimeOfDay(member, at);
            } else if (key == "startDate" || key == "endDate") {
                (key == "startDate" ? schedule.startDate : schedule.endDate) =
                    readScheduleDate(member, at);
            } else if (key == "weekly") {
                schedule.weekly = readString(member, at);
            } else if (key == "relay") {
                schedule.relay = readString(member, at);
            } else if (key == "holidayExemption") {
                schedule.holidayExemption = readBool(member, at);
            }
        });
    return schedule;
}

SiteHoliday readHoliday(const json& value, const std::string& path) {
    checkKeys(value, path,
              {"id", "name", "description", "type", "timeRange", "startDate", "endDate",
               "yearlyRepeat", "holidayKeys"});
    SiteHoliday holiday;
    HolidayData& data = holiday.data;
    forEachMember(
        value, path, [&](const std::string& key, const json& member, const std::string& at) {
            if (key == "id" || key == "type") {
                (key == "id" ? data.id : data.type) = readInt(member, at);
            } else if (key == "yearlyRepeat") {
                data.yearlyRepeat =
                    member.is_boolean() ? (member.get<bool>() ? 1 : 0) : readInt(member, at);
            } else if (key == "name" || key == "description") {
                (key == "name" ? data.name : data.description) = readString(member, at);
            } else if (key == "timeRange") {
                data.timeRange =
                    readForm(member, at, "99:99:99-99:99:99", "a time range \"HH:MM:SS-HH:MM:SS\"");
            } else if (key == "startDate" || key == "endDate") {
                (key == "startDate" ? data.startDate : data.endDate) =
                    readForm(member, at, "9999-99-99", "a date \"YYYY-MM-DD\"");
            } else {
                holiday.holidayKeys = readStringList(member, at);
            }
        });
    return holiday;
}

void readHttp(HttpOpenConfig& http, const json& value, const std::string& path) {
    checkKeys(value, path, {"enabled", "username", "password"});
    forEachMember(
        value, path, [&](const std::string& key, const json& member, const std::string& at) {
            if (key == "enabled") {
                http.enabled = readBool(member, at);
            } else {
                (key == "username" ? http.username : http.password) = readString(member, at);
            }
        });
}

void readDtmf(Site& site, const json& value, const std::string& path) {
    checkKeys(value, path, {"enabled", "whitelistRequired", "codeRelays", "whitelist", "visitors"});
    forEachMember(
        value, path, [&](const std::string& key, const json& member, const std::string& at) {
            if (key == "enabled" || key == "whitelistRequired") {
                (key == "enabled" ? site.dtmf.enabled : site.dtmf.whitelistRequired) =
                    readBool(member, at);
            } else if (key == "codeRelays") {
                site.dtmf.codeRelays = readRelayMap(member, at);
            } else if (key == "whitelist") {
                site.dtmfWhitelist.clear();
                forEachMember(
                    member, at,
                    [&](const std::string& number, const json& entry,
                        const std::string& entryPath) {
                        checkKeys(entry, entryPath, {"allowed", "resolvedPerId", "remoteUsername"});
                        DtmfWhitelistResult& result = site.dtmfWhitelist[number];
                        forEachMember(entry, entryPath,
                                      [&](const std::string& field, const json& item,
                                          const std::string& itemPath) {
                                          if (field == "allowed") {
                                              result.allowed = readBool(item, itemPath);
                                          } else {
                                              (field == "resolvedPerId" ? result.resolvedPerId
                                                                        : result.remoteUsername) =
                                                  readString(item, itemPath);
                                          }
                                      });
                    });
            } else {
                site.dtmfVisitors.clear();
                forEachMember(member, at,
                              [&](const std::string& perId, const json& userId,
                                  const std::string& entryPath) {
                                  site.dtmfVisitors[perId] = readString(userId, entryPath);
                              });
            }
        });
}

TempKey readTempKey(const json& value, const std::string& path) {
    checkKeys(
        value, path,
        {"userId", "targets", "failCode", "userText", "userText2", "requestText", "sourceCode"});
    TempKey key;
    forEachMember(value, path,
                  [&](const std::string& field, const json& member, const std::string& at) {
                      if (field == "userId") {
                          key.userId = readString(member, at);
                      } else if (field == "targets") {
                          key.data.targets = readTargets(member, at);
                      } else if (field == "failCode" || field == "sourceCode") {
                          (field == "failCode" ? key.data.failCode : key.data.sourceCode) =
                              readInt(member, at);
                      } else if (field == "userText") {
                          key.data.userText = readString(member, at);
                      } else if (field == "userText2") {
                          key.data.userText2 = readString(member, at);
                      } else {
                          key.data.requestText = readString(member, at);
                      }
                  });
    return key;
}

void readRemote(Site& site, const json& value, const std::string& path) {
    checkKeys(value, path, CHECKS);
    forEachMember(
        value, path, [&](const std::string& check, const json& byKey, const std::string& at) {
            auto& answers = site.remote[check];
            forEachMember(
                byKey, at,
                [&](const std::string& key, const json& answer, const std::string& answerPath) {
                    const auto existing = answers.find(key);
                    answers[key] = readAnswer(
                        answer, answerPath,
                        existing != answers.end() ? existing->second : RemoteAnswer{}, true);
                });
        });
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
        (key == "name" ? site.name : site.description) = readString(value, at);
    } else if (key == "config") {
        readConfig(site.config, value, at);
    } else if (key == "users") {
        site.users.clear();
        forEachElement(value, at, [&](const json& user, const std::string& p) {
            site.users.push_back(readUser(user, p));
        });
        checkUsers(site.users, at);
    } else if (key == "schedules") {
        site.schedules.clear();
        forEachElement(value, at, [&](const json& schedule, const std::string& p) {
            site.schedules.push_back(readSchedule(schedule, p));
        });
    } else if (key == "holidays") {
        site.holidays.clear();
        forEachElement(value, at, [&](const json& holiday, const std::string& p) {
            site.holidays.push_back(readHoliday(holiday, p));
        });
    } else if (key == "publicPins" || key == "latchPins") {
        (key == "publicPins" ? site.publicPins : site.latchPins) = readRelayMap(value, at);
    } else if (key == "lockdown" || key == "holidayExemptRelays") {
        (key == "lockdown" ? site.lockdown : site.holidayExemptRelays) = readRelayList(value, at);
    } else if (key == "forbiddenOpenTypes") {
        site.forbiddenOpenTypes.clear();
        forEachMember(
            value, at, [&](const std::string& relay, const json& types, const std::string& p) {
                readRelayList(relay, p);
                std::vector<int>& list = site.forbiddenOpenTypes[relay];
                const json asList = types.is_array() ? types : json::array({types});
                for (std::size_t i = 0; i < asList.size(); ++i) {
                    list.push_back(readOpenType(asList[i], types.is_array() ? childPath(p, i) : p));
                }
            });
    } else if (key == "http") {
        site.httpConfigured = true;
        readHttp(site.http, value, at);
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
        site.bleIntervalSeconds = readInt(value, at);
    } else if (key == "readerPriority") {
        site.readerPriority.clear();
        forEachElement(value, at, [&](const json& reader, const std::string& p) {
            site.readerPriority.push_back(readReader(reader, p));
        });
    } else if (key == "remote") {
        readRemote(site, value, at);
    }
}

const std::vector<std::string> SECTIONS = {
    "config",    "users",    "schedules",           "holidays",           "publicPins",
    "latchPins", "lockdown", "holidayExemptRelays", "forbiddenOpenTypes", "http",
    "dtmf",      "tempKeys", "tempKeyTargets",      "bleIntervalSeconds", "readerPriority",
    "remote"};

}  // namespace

std::vector<AuthTarget> readTargets(const json& value, const std::string& path) {
    std::vector<AuthTarget> targets;
    const json list = value.is_array() ? value : json::array({value});
    for (std::size_t i = 0; i < list.size(); ++i) {
        const std::string at = value.is_array() ? childPath(path, i) : path;
        AuthTarget target;
        if (list[i].is_object()) {
            checkKeys(list[i], at, {"type", "relay"});
            if (list[i].contains("type")) {
                target.type = readInt(list[i]["type"], childPath(at, "type"));
            }
            if (list[i].contains("relay")) {
                target.relay = readString(list[i]["relay"], childPath(at, "relay"));
            }
        } else {
            // A bare relay id, typed by the engine's own rule ("S" and a letter is a kind-1 relay).
            target.relay = readString(list[i], at);
            target.type = target.relay.size() > 1 && target.relay[0] == 'S' ? 1 : 0;
        }
        targets.push_back(target);
    }
    return targets;
}

RemoteAnswer readAnswer(const json& value, const std::string& path, RemoteAnswer base,
                        bool withMode) {
    std::vector<std::string> keys = {"result", "failCode", "remoteFailCode", "reason"};
    if (withMode) {
        keys.insert(keys.begin(), {"mode", "delayMs"});
    }
    checkKeys(value, path, keys);
    forEachMember(
        value, path, [&](const std::string& key, const json& member, const std::string& at) {
            if (key == "mode") {
                const std::string mode = readString(member, at);
                bool known = false;
                for (int m = RemoteAnswer::INLINE; m <= RemoteAnswer::OFFLINE; ++m) {
                    if (mode == modeName(static_cast<RemoteAnswer::Mode>(m))) {
                        base.mode = static_cast<RemoteAnswer::Mode>(m);
                        known = true;
                    }
                }
                if (!known) {
                    throw InputError(at,
                                     "expected a mode (inline, later, held, never, offline), got " +
                                         describe(member));
                }
            } else if (key == "delayMs") {
                base.delayMs = readInt(member, at);
            } else if (key == "result") {
                base.result = readResult(member, at);
            } else if (key == "failCode" || key == "remoteFailCode") {
                (key == "failCode" ? base.failCode : base.remoteFailCode) = readInt(member, at);
            } else {
                base.reason = readString(member, at);
            }
        });
    return base;
}

Site loadSite(const std::string& file) {
    try {
        const json root = parseJsonFile(file);
        std::vector<std::string> keys = SECTIONS;
        keys.insert(keys.end(), {"name", "description", "timezone", "start"});
        checkKeys(root, "", keys);
        Site site;
        site.file = file;
        // The time zone comes first: every time in the file is read in it.
        if (root.contains("timezone")) {
            site.timezone = readString(root["timezone"], "/timezone");
        }
        setTimezone(site.timezone, "/timezone");
        site.start = root.contains("start") ? readTime(root["start"], "/start")
                                            : readTime(json("2025-01-06T09:00:00"), "/start");
        for (const auto& item : root.items()) {
            applySection(site, item.key(), item.value(), "/" + item.key());
        }
        return site;
    } catch (const InputError& e) {
        throw InputError(file + (e.path().empty() ? "" : ": " + e.path()), e.message());
    }
}

void patchSite(Site& site, const json& patch, const std::string& path) {
    checkKeys(patch, path, SECTIONS);
    for (const auto& item : patch.items()) {
        applySection(site, item.key(), item.value(), childPath(path, item.key()));
    }
}

}  // namespace authsim
