// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// The site: everything a door device's host knows (configuration, users and their credentials,
// schedules, holidays, PINs, relay settings, DTMF, HTTP, temporary keys) and how the remote peers
// answer the engine's questions. Loaded from a JSON site file; a scenario step may patch it.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include <auth_engine/AuthTypes.h>

#include "Json.h"

namespace authsim {

/// How a remote peer (another door, the parking server, the key service) answers one question.
struct RemoteAnswer {
    enum Mode {
        INLINE,   ///< from inside the provider call that asks
        LATER,    ///< from another thread, `delayMs` real milliseconds later
        HELD,     ///< when a scenario's "answer" step says so
        NEVER,    ///< the question is sent but no answer ever comes
        OFFLINE,  ///< the question cannot be sent (empty handle / false)
    };
    Mode mode = OFFLINE;
    int delayMs = 0;
    auth_engine::AuthResult result = auth_engine::SUCCESS;
    int failCode = 0;
    int remoteFailCode = -1;
    std::string reason;
};

const char* modeName(RemoteAnswer::Mode mode);

/// A vehicle plate; `keyData` false: the host has no key record for it.
struct Plate {
    std::string number;
    bool keyData = true;
    auth_engine::KeyData key;
};

struct SiteUser {
    auth_engine::UserData data;
    /// kind ("card", "pin", "face", "ble", "qr", "phone", "remote", "duress") -> credentials
    std::map<std::string, std::vector<std::string>> credentials;
    std::vector<Plate> plates;
};

struct SiteHoliday {
    auth_engine::HolidayData data;
    std::vector<std::string> holidayKeys;  ///< the users' holidayKey values it holds; empty: all
};

/// What the key service knows about a temporary key: its owner and the answer data it sends.
struct TempKey {
    std::string userId;
    auth_engine::TempKeyAuthData data;
};

struct Site {
    std::string file;
    std::string name;
    std::string description;
    std::string timezone = "UTC";
    int64_t start = 0;  ///< simulated wall-clock time at the start of a run

    auth_engine::AuthConfig config;
    std::vector<SiteUser> users;
    std::vector<auth_engine::ScheduleData> schedules;
    std::vector<SiteHoliday> holidays;
    std::map<std::string, std::vector<std::string>> publicPins;
    std::map<std::string, std::vector<std::string>> latchPins;
    std::vector<std::string> lockdown;
    std::vector<std::string> holidayExemptRelays;
    std::map<std::string, std::vector<int>> forbiddenOpenTypes;  ///< relay -> open types
    bool httpConfigured = false;
    auth_engine::HttpOpenConfig http;
    bool dtmfConfigured = false;
    auth_engine::DtmfConfig dtmf;
    std::map<std::string, auth_engine::DtmfWhitelistResult> dtmfWhitelist;  ///< by caller number
    std::map<std::string, std::string> dtmfVisitors;  ///< resolvedPerId -> user id admitted
    std::map<std::string, TempKey> tempKeys;
    std::vector<auth_engine::AuthTarget> tempKeyTargets;
    int bleIntervalSeconds = 0;
    std::vector<auth_engine::ReaderType> readerPriority;
    /// check ("antiPassback", "interlock", "parking", "tempKey") -> relay, key or "*" -> answer
    std::map<std::string, std::map<std::string, RemoteAnswer>> remote;

    const SiteUser* findUser(const std::string& userId) const;
    /// The answer configured for `key`, else for "*", else OFFLINE.
    RemoteAnswer answerFor(const std::string& check, const std::string& key) const;
};

/// Loads a site file: checks it against the site schema (every violation is reported), then reads
/// it. Errors are InputErrors whose paths start with the file name. Sets the process's time zone
/// (TZ) to the site's.
Site loadSite(const std::string& file);

/// Applies a patch object (site-file sections, already checked against the schema) to `site`:
/// "config", "remote", "http" and "dtmf" are merged member by member, every other section is
/// replaced.
void patchSite(Site& site, const json& patch, const std::string& path);

/// A config as a site file writes it, every member given (a site step that patches the config
/// with it leaves nothing of the config before).
json configJson(const auth_engine::AuthConfig& config);

/// Time ranges of the site that end before they start (and so never match), one text each.
std::vector<std::string> scheduleWarnings(const Site& site);

/// Targets: relay ids ("1", "SA"), or objects {"type": 2, "relay": "lift-3"}.
std::vector<auth_engine::AuthTarget> readTargets(const json& value, const std::string& path);

/// Reads the members of an answer given in `value` on top of `base`.
RemoteAnswer readAnswer(const json& value, RemoteAnswer base);

}  // namespace authsim
