// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// Schedule texts from the host: a user's schedule-to-relay text read by the virtual door, and a
// relay key's schedule id list read by the time check. Whatever the texts hold, the schedule map
// names no relay the text does not name, keeps no schedule id below 1, and the relay key's verdict
// matches a reference evaluation of the host's schedules.
#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "FuzzInput.h"
#include "FuzzReference.h"
#include "FuzzValues.h"
#include "auth_engine/AuthClock.h"
#include "auth_engine/AuthLogger.h"
#include "processors/TimeCheckProcessor.h"
#include "processors/VirtualDoorProcessor.h"
#include "support/FakeDataProvider.h"

namespace auth_engine {
namespace fuzz {
namespace {

using testing::FakeDataProvider;

// The schedule-to-relay text as the rules read it: entries split at ';', an entry names relays
// only after its first '-', the part before it is the schedule id.
struct ScheduleRelayText {
    Relays relayUnion;
    std::map<std::string, Relays> schedulesOf;
};

ScheduleRelayText readScheduleRelay(const std::string& text) {
    ScheduleRelayText read;
    std::vector<std::string> entries(1);
    for (const char c : text) {
        if (c == ';') {
            entries.emplace_back();
        } else {
            entries.back().push_back(c);
        }
    }
    for (const std::string& entry : entries) {
        const std::size_t dash = entry.find('-');
        if (dash == std::string::npos) {
            continue;
        }
        const std::string id = entry.substr(0, dash);
        for (const std::string& relay : parseRelayString(entry.substr(dash + 1))) {
            if (!contains(read.relayUnion, relay)) {
                read.relayUnion.push_back(relay);
            }
            Relays& ids = read.schedulesOf[relay];
            if (!contains(ids, id)) {
                ids.push_back(id);
            }
        }
    }
    return read;
}

std::string describe(const AuthContext& context, AuthResult result) {
    return "result=" + std::to_string(result) +
           " failCode=" + std::to_string(context.response.failCode) +
           " reason=" + context.response.reason + " relays=" + joinForDetail(context.relays) +
           " failed=" + joinForDetail(context.failedRelays);
}

void checkVirtualDoor(FuzzInput& in) {
    FakeDataProvider provider;
    provider.config.virtualDoorEnabled = in.flag();
    provider.config.cloudVirtualDoorConfigured = in.flag();
    provider.config.virtualDoorMode = in.range(0, 2);
    for (int reader = 0; reader <= 2; ++reader) {
        if (!in.flag()) {
            continue;
        }
        auto& directions = provider.config.readerRelayMap[static_cast<ReaderType>(reader)];
        for (int direction = 0; direction <= 2; ++direction) {
            if (in.flag()) {
                directions[static_cast<RELAY_DIRECTION>(direction)] = relaysFrom(in);
            }
        }
    }

    AuthContext context;
    static const std::vector<int> openTypes = {1, 2, 3, 4, 9, 11, 14, 15, 17};
    context.request.openType = static_cast<OpenDoorType>(in.pick(openTypes));
    context.request.readerType = static_cast<ReaderType>(in.range(0, 3));
    context.request.virtualDoorExempt = in.range(0, 7) == 0;
    context.request.virtualDoorSkipRelaySchedule = in.range(0, 7) == 0;
    context.skipVirtualDoor = in.range(0, 7) == 0;
    const bool withUser = in.range(0, 7) != 0;
    const std::string text = in.flag() ? in.textFrom("0123456789;-,SABx ", 48) : in.bytes(48);
    if (withUser) {
        context.userData = std::make_shared<UserData>();
        context.userData->scheduleRelay = text;
    }
    context.relays = relaysFrom(in);
    context.relayScheduleMap["9"] = {"stale"};  // whatever was there must be replaced
    const AuthContext before = context;

    processors::VirtualDoorProcessor processor;
    const AuthResult result = processor.process(context, provider);
    const std::string detail = "scheduleRelay=\"" + text + "\" " + describe(context, result);
    FUZZ_CHECK(result == CONTINUE || result == FAILED, detail);

    const int openType = context.request.openType;
    if (openType == OPEN_TYPE_PUBLIC_PIN || openType == OPEN_TYPE_LATCH_PIN || !withUser ||
        before.request.virtualDoorExempt) {
        FUZZ_CHECK(result == CONTINUE && context.relays == before.relays &&
                       context.relayScheduleMap == before.relayScheduleMap,
                   detail);
        return;
    }

    const ScheduleRelayText expected = readScheduleRelay(text);
    FUZZ_CHECK(context.relayScheduleMap == expected.schedulesOf, detail);
    const Relays named = parseRelayString(text);
    for (const auto& entry : context.relayScheduleMap) {
        FUZZ_CHECK(contains(named, entry.first), detail + " unnamed relay " + entry.first);
        FUZZ_CHECK(!entry.second.empty(), detail);
        for (const std::string& id : entry.second) {
            FUZZ_CHECK(id.find(';') == std::string::npos && id.find('-') == std::string::npos,
                       detail + " schedule id " + id);
        }
    }

    // The relays after the schedule stage: what was asked that the text names, or everything the
    // text names when nothing was asked.
    const bool scheduleStage = !before.request.virtualDoorSkipRelaySchedule;
    Relays staged = before.relays;
    if (scheduleStage) {
        staged = before.relays.empty() ? expected.relayUnion : Relays();
        for (const std::string& relay : before.relays) {
            if (contains(expected.relayUnion, relay)) {
                staged.push_back(relay);
            }
        }
        for (std::size_t i = before.failedRelays.size(); i < context.failedRelays.size(); ++i) {
            const std::string& relay = context.failedRelays[i];
            FUZZ_CHECK(!contains(expected.relayUnion, relay), detail);
            FUZZ_CHECK(context.relayFailReasons[relay] == "NotInSchedule", detail);
        }
        if (!before.relays.empty() && staged.empty()) {
            FUZZ_CHECK(result == FAILED && context.response.failCode == 3 &&
                           context.response.reason == "Requested relay is not in schedule" &&
                           context.response.failedRelays == before.relays,
                       detail);
            return;
        }
    }

    const AuthConfig& config = provider.config;
    const int readerType = before.request.readerType;
    const auto reader = config.readerRelayMap.find(before.request.readerType);
    if (!config.virtualDoorEnabled || before.skipVirtualDoor) {
        FUZZ_CHECK(result == CONTINUE && context.relays == staged, detail);
        return;
    }
    if (reader == config.readerRelayMap.end() || reader->second.empty()) {
        if (config.cloudVirtualDoorConfigured && readerType == 0) {
            FUZZ_CHECK(result == FAILED && context.response.failCode == 3 &&
                           context.response.reason == "Virtual door reader access denied" &&
                           context.response.failedRelays == staged,
                       detail);
        } else {
            FUZZ_CHECK(result == CONTINUE && context.relays == staged, detail);
        }
        return;
    }
    // The reader's doors: the first non-empty list of direction 2, then 1, then 0.
    const Relays* doors = nullptr;
    for (const RELAY_DIRECTION direction :
         {RELAY_DIRECTION_OUT, RELAY_DIRECTION_IN, RELAY_DIRECTION_NONE}) {
        const auto found = reader->second.find(direction);
        if (doors == nullptr && found != reader->second.end() && !found->second.empty()) {
            doors = &found->second;
        }
    }
    if (doors == nullptr) {
        FUZZ_CHECK(result == CONTINUE && context.relays == staged, detail);
        return;
    }
    FUZZ_CHECK(context.accessibleDoors == *doors, detail);
    if (config.virtualDoorMode == 1 && openType != OPEN_TYPE_TEMP_KEY &&
        (readerType == 1 || readerType == 2)) {
        // The override opens each configured door once; a blank entry names no door.
        Relays overridden;
        for (const std::string& door : *doors) {
            if (!door.empty() && !contains(overridden, door)) {
                overridden.push_back(door);
            }
        }
        FUZZ_CHECK(result == CONTINUE && context.relays == overridden, detail);
        return;
    }
    Relays reachable;
    for (const std::string& relay : staged) {
        if (contains(*doors, relay)) {
            reachable.push_back(relay);
        }
    }
    if (!staged.empty() && reachable.empty()) {
        FUZZ_CHECK(result == FAILED && context.response.failCode == 3 &&
                       context.response.reason == "Virtual door access denied" &&
                       context.response.failedRelays == staged,
                   detail);
        return;
    }
    FUZZ_CHECK(result == CONTINUE && context.relays == reachable, detail);
}

void checkRelayKey(FuzzInput& in) {
    FakeDataProvider provider;
    const int scheduleCount = in.range(0, 4);
    for (int i = 0; i < scheduleCount; ++i) {
        provider.schedules.push_back(scheduleFrom(in));
    }
    const int64_t now = momentFrom(in);
    AuthClock::setNowOverride([now] { return now; });

    const std::string idAlphabet = "0123456789;-+ \t";
    AuthContext context;
    context.request.openType = OPEN_TYPE_RELAY_KEY;
    context.request.credential = in.flag() ? in.textFrom(idAlphabet, 24) : in.bytes(24);
    if (in.flag()) {
        context.request.relayKeyData = std::make_shared<RelayKeyAuthData>();
        context.request.relayKeyData->scheduleIds =
            in.flag() ? in.textFrom(idAlphabet, 24) : in.bytes(24);
        context.request.relayKeyData->targets = targetsFrom(in);
    }
    context.request.targets = targetsFrom(in);
    context.request.relays = relaysFrom(in);
    context.relays = {"9"};
    context.relayScheduleMap["9"] = {"stale"};
    const AuthContext before = context;

    processors::TimeCheckProcessor processor;
    const AuthResult result = processor.process(context, provider);
    AuthClock::setNowOverride(nullptr);

    // The reference verdict.
    const RelayKeyAuthData* keyData = before.request.relayKeyData.get();
    const std::vector<AuthTarget>& source =
        keyData != nullptr && !keyData->targets.empty() ? keyData->targets : before.request.targets;
    Relays list;
    for (const AuthTarget& target : source) {
        if ((target.type == 0 || target.type == 1) && !target.relay.empty() &&
            !contains(list, target.relay)) {
            list.push_back(target.relay);
        }
    }
    if (list.empty()) {
        list = before.request.relays;
    }
    const std::string idText =
        keyData != nullptr ? keyData->scheduleIds : before.request.credential;
    const std::string detail =
        "ids=\"" + idText + "\" now=" + std::to_string(now) + " " + describe(context, result);

    if (list.empty()) {
        FUZZ_CHECK(result == FAILED && context.response.failCode == 32 &&
                       context.relays == before.relays && context.failedRelays.empty(),
                   detail);
        return;
    }
    FUZZ_CHECK(context.authTargets.size() == source.size(), detail);

    const std::vector<int> ids = referenceScheduleIds(idText);
    if (ids.empty()) {
        FUZZ_CHECK(result == FAILED && context.response.failCode == 3 &&
                       context.response.reason == "Relay key schedule invalid",
                   detail);
        FUZZ_CHECK(context.relays == list && provider.callCount("getRelaySchedules") == 0, detail);
        for (const std::string& relay : list) {
            FUZZ_CHECK(contains(context.failedRelays, relay), detail);
        }
        return;
    }

    Relays idTexts;
    std::string ownerKey;
    for (const int id : ids) {
        idTexts.push_back(std::to_string(id));
        for (const std::string& relay : list) {
            ownerKey += (ownerKey.empty() ? "" : ";") + std::to_string(id) + "-" + relay;
        }
    }
    for (const std::string& relay : list) {
        const auto entry = context.relayScheduleMap.find(relay);
        FUZZ_CHECK(entry != context.relayScheduleMap.end() && entry->second == idTexts, detail);
    }
    for (const auto& entry : context.relayScheduleMap) {
        FUZZ_CHECK(contains(list, entry.first), detail + " unnamed relay " + entry.first);
        FUZZ_CHECK(entry.second == idTexts, detail);
        for (const std::string& id : entry.second) {
            errno = 0;
            const long long value = std::strtoll(id.c_str(), nullptr, 10);
            FUZZ_CHECK(errno == 0 && value >= 1 && value <= INT32_MAX, detail + " id " + id);
        }
    }
    FUZZ_CHECK(provider.ownerKeysAsked() == std::vector<std::string>{ownerKey},
               detail + " owner key " + ownerKey);

    std::map<std::string, std::shared_ptr<ScheduleData>> byId;
    for (const auto& schedule : provider.schedules) {
        if (schedule) {
            byId[schedule->scheduleId] = schedule;
        }
    }
    bool admitted = false;
    bool exempt = false;
    for (const std::string& id : idTexts) {
        const auto found = byId.find(id);
        if (found != byId.end() && referenceScheduleValid(*found->second, now)) {
            admitted = true;
            exempt = exempt || found->second->holidayExemption;
        }
    }
    FUZZ_CHECK(context.relays == list, detail);
    if (!admitted) {
        FUZZ_CHECK(result == FAILED && context.response.failCode == 3 &&
                       context.response.reason == "Not in scheduled time",
                   detail);
        for (const std::string& relay : list) {
            FUZZ_CHECK(contains(context.failedRelays, relay), detail);
        }
        return;
    }
    FUZZ_CHECK(result == CONTINUE && context.failedRelays.empty(), detail);
    for (const std::string& relay : list) {
        FUZZ_CHECK(context.relayHolidayExemption[relay] == exempt &&
                       context.relayStatusMap[relay].holidayExemption == exempt,
                   detail + " exemption of " + relay);
    }
}

}  // namespace

void fuzzOne(FuzzInput& in) {
    (in.flag() ? checkRelayKey : checkVirtualDoor)(in);
}

}  // namespace fuzz
}  // namespace auth_engine
