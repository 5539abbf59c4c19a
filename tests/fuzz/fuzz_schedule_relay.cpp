// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// Schedule texts from the host: a user's schedule-to-relay text read by the virtual door, and a
// relay key's schedule id list read by the time check. Whatever the texts hold, the schedule map
// is the one a plain reading of the text gives (so it names no relay the text does not name and
// keeps no schedule id below 1), and the relay key's verdict matches a reference evaluation of
// the host's schedules.
#include "FuzzValues.h"
#include "auth_engine/AuthClock.h"
#include "processors/TimeCheckProcessor.h"
#include "processors/VirtualDoorProcessor.h"
#include "support/FakeDataProvider.h"

namespace auth_engine {
namespace fuzz {
namespace {

using testing::FakeDataProvider;
using ScheduleMap = std::map<std::string, Relays>;

std::string describe(const AuthContext& context, AuthResult result) {
    return std::to_string(result) + " " + std::to_string(context.response.failCode) + " " +
           context.response.reason + joinForDetail(context.relays) +
           joinForDetail(context.failedRelays);
}

void checkVirtualDoor(FuzzInput& in) {
    FakeDataProvider provider;
    const AuthConfig& config = provider.config;
    provider.config.virtualDoorEnabled = in.flag();
    provider.config.cloudVirtualDoorConfigured = in.flag();
    provider.config.virtualDoorMode = in.range(0, 2);
    readerDoorsFrom(
        in, provider.config, [&in] { return in.flag(); }, 4);

    AuthContext context;
    context.request.openType =
        static_cast<OpenDoorType>(in.pick(std::vector<int>({1, 2, 3, 4, 9, 11, 14, 15, 17})));
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

    const AuthResult result = processors::VirtualDoorProcessor().process(context, provider);
    const std::string detail = "scheduleRelay=\"" + text + "\" " + describe(context, result);
    const auto continued = [&](const Relays& relays) {
        return result == CONTINUE && context.relays == relays;
    };
    const auto refused = [&](const std::string& reason, const Relays& failed) {
        return result == FAILED && context.response.failCode == 3 &&
               context.response.reason == reason && context.response.failedRelays == failed;
    };
    FUZZ_CHECK(result == CONTINUE || result == FAILED, detail);
    const int openType = context.request.openType;
    if (openType == OPEN_TYPE_PUBLIC_PIN || openType == OPEN_TYPE_LATCH_PIN || !withUser ||
        before.request.virtualDoorExempt) {
        return FUZZ_CHECK(
            continued(before.relays) && context.relayScheduleMap == before.relayScheduleMap,
            detail);
    }

    // The text as the rules read it: entries split at ';', an entry names relays only after its
    // first '-', the part before it is the schedule id.
    Relays named;
    ScheduleMap schedulesOf;
    std::istringstream entries(text);
    for (std::string entry; std::getline(entries, entry, ';');) {
        const std::size_t dash = entry.find('-');
        for (const std::string& relay :
             dash == std::string::npos ? Relays() : parseRelayString(entry.substr(dash + 1))) {
            Relays& ids = schedulesOf[relay];
            if (!contains(ids, entry.substr(0, dash))) {
                ids.push_back(entry.substr(0, dash));
            }
            if (!contains(named, relay)) {
                named.push_back(relay);
            }
        }
    }
    FUZZ_CHECK(context.relayScheduleMap == schedulesOf, detail);

    // The relays after the schedule stage: what was asked that the text names, or everything the
    // text names when nothing was asked.
    Relays staged = before.relays;
    if (!before.request.virtualDoorSkipRelaySchedule) {
        staged = before.relays.empty() ? named : Relays();
        std::copy_if(before.relays.begin(), before.relays.end(), std::back_inserter(staged),
                     [&](const std::string& relay) { return contains(named, relay); });
        for (std::size_t i = before.failedRelays.size(); i < context.failedRelays.size(); ++i) {
            const std::string& relay = context.failedRelays[i];
            FUZZ_CHECK(
                !contains(named, relay) && context.relayFailReasons[relay] == "NotInSchedule",
                detail);
        }
        if (!before.relays.empty() && staged.empty()) {
            return FUZZ_CHECK(refused("Requested relay is not in schedule", before.relays), detail);
        }
    }

    // The reader's doors: the first non-empty list of direction 2, then 1, then 0.
    const int readerType = before.request.readerType;
    const auto reader = config.readerRelayMap.find(before.request.readerType);
    const bool noReader = reader == config.readerRelayMap.end() || reader->second.empty();
    Relays doors;
    for (const RELAY_DIRECTION direction :
         {RELAY_DIRECTION_OUT, RELAY_DIRECTION_IN, RELAY_DIRECTION_NONE}) {
        if (!noReader && doors.empty() && reader->second.count(direction) != 0) {
            doors = reader->second.at(direction);
        }
    }
    if (!config.virtualDoorEnabled || before.skipVirtualDoor || doors.empty()) {
        const bool denied = config.virtualDoorEnabled && !before.skipVirtualDoor && noReader &&
                            config.cloudVirtualDoorConfigured && readerType == 0;
        return FUZZ_CHECK(
            denied ? refused("Virtual door reader access denied", staged) : continued(staged),
            detail);
    }
    FUZZ_CHECK(context.accessibleDoors == doors, detail);
    Relays chosen;
    if (config.virtualDoorMode == 1 && openType != OPEN_TYPE_TEMP_KEY &&
        (readerType == 1 || readerType == 2)) {
        // The override opens each configured door once; a blank entry names no door.
        for (const std::string& door : doors) {
            if (!door.empty() && !contains(chosen, door)) {
                chosen.push_back(door);
            }
        }
        return FUZZ_CHECK(continued(chosen), detail);
    }
    std::copy_if(staged.begin(), staged.end(), std::back_inserter(chosen),
                 [&](const std::string& relay) { return contains(doors, relay); });
    FUZZ_CHECK(!staged.empty() && chosen.empty() ? refused("Virtual door access denied", staged)
                                                 : continued(chosen),
               detail);
}

void checkRelayKey(FuzzInput& in) {
    FakeDataProvider provider;
    for (int i = 0, count = in.range(0, 4); i < count; ++i) {
        provider.schedules.push_back(scheduleFrom(in));
    }
    const int64_t now = momentFrom(in);
    const std::string idAlphabet = "0123456789;-+ \t";
    AuthContext context;
    context.request.openType = OPEN_TYPE_RELAY_KEY;
    context.request.credential = in.flag() ? in.textFrom(idAlphabet, 24) : in.bytes(24);
    if (in.flag()) {
        const std::string ids = in.flag() ? in.textFrom(idAlphabet, 24) : in.bytes(24);
        context.request.relayKeyData =
            std::make_shared<RelayKeyAuthData>(RelayKeyAuthData{ids, targetsFrom(in)});
    }
    context.request.targets = targetsFrom(in);
    context.request.relays = relaysFrom(in);
    context.relays = {"9"};
    context.relayScheduleMap["9"] = {"stale"};
    const AuthContext before = context;
    AuthClock::setNowOverride([now] { return now; });
    const AuthResult result = processors::TimeCheckProcessor().process(context, provider);
    AuthClock::setNowOverride(nullptr);

    // The reference verdict: the relays of the relay targets (the key's own first), else the
    // requested relays; the schedule ids of the key, else of the credential.
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
    list = list.empty() ? before.request.relays : list;
    const std::string idText =
        keyData != nullptr ? keyData->scheduleIds : before.request.credential;
    const std::string detail =
        "ids=\"" + idText + "\" now=" + std::to_string(now) + " " + describe(context, result);
    const auto refused = [&](const std::string& reason) {
        return result == FAILED && context.response.failCode == 3 &&
               context.response.reason == reason &&
               std::all_of(list.begin(), list.end(), [&](const std::string& relay) {
                   return contains(context.failedRelays, relay);
               });
    };
    if (list.empty()) {
        return FUZZ_CHECK(result == FAILED && context.response.failCode == 32 &&
                              context.relays == before.relays && context.failedRelays.empty(),
                          detail);
    }
    FUZZ_CHECK(context.authTargets.size() == source.size() && context.relays == list, detail);
    const std::vector<int> ids = referenceScheduleIds(idText);
    if (ids.empty()) {
        return FUZZ_CHECK(
            refused("Relay key schedule invalid") && provider.callCount("getRelaySchedules") == 0,
            detail);
    }

    Relays idTexts;
    std::string ownerKey;
    for (const int id : ids) {
        idTexts.push_back(std::to_string(id));
        for (const std::string& relay : list) {
            ownerKey += (ownerKey.empty() ? "" : ";") + std::to_string(id) + "-" + relay;
        }
    }
    ScheduleMap expected;
    for (const std::string& relay : list) {
        expected[relay] = idTexts;
    }
    FUZZ_CHECK(context.relayScheduleMap == expected, detail);
    FUZZ_CHECK(provider.ownerKeysAsked() == Strings{ownerKey}, detail + " owner key " + ownerKey);

    bool admitted = false, exempt = false;
    for (const std::string& id : idTexts) {
        // A repeated schedule id: the host's last entry counts.
        const auto found = std::find_if(
            provider.schedules.rbegin(), provider.schedules.rend(),
            [&id](const std::shared_ptr<ScheduleData>& s) { return s && s->scheduleId == id; });
        if (found != provider.schedules.rend() && referenceScheduleValid(**found, now)) {
            admitted = true;
            exempt = exempt || (*found)->holidayExemption;
        }
    }
    if (!admitted) {
        return FUZZ_CHECK(refused("Not in scheduled time"), detail);
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
