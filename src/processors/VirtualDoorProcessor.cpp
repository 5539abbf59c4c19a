// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// Virtual doors: the relays a user may open are those of the doors their schedules name, and of
// this reader's door.
#include "processors/VirtualDoorProcessor.h"

#include <algorithm>
#include <cstddef>
#include <map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "auth_engine/AuthLogger.h"
#include "auth_engine/FailCodes.h"
#include "common/Distinct.h"
#include "common/LogSwitch.h"
#include "common/ProcessorSupport.h"
#include "common/RelayScan.h"

namespace auth_engine {
namespace processors {

namespace {

// The user's "scheduleId-relays;scheduleId-relays" text read into the relays it names (in order of
// first appearance) and, per relay, the schedules that govern it.
struct ScheduleRelays {
    std::vector<std::string> relayUnion;
    std::map<std::string, std::vector<std::string>> relaySchedules;
    // Indexes of the lists above once they grow long: a text may repeat a relay's schedule many
    // thousand times.
    LazyIndex<std::string> unionIndex;
    std::map<std::string, LazyIndex<std::string>> scheduleIndex;
};

ScheduleRelays parseScheduleRelay(const std::string& text) {
    ScheduleRelays parsed;
    // Each entry names at most one schedule per relay: reserving for that many (within reason)
    // spares the lists their growth steps.
    const std::size_t entries =
        static_cast<std::size_t>(std::count(text.begin(), text.end(), ';')) + 1;
    const std::size_t expected = entries < 8 ? entries : 8;
    parsed.relayUnion.reserve(text.size() < 8 ? text.size() : 8);
    std::size_t start = 0;
    while (start <= text.size()) {
        std::size_t end = text.find(';', start);
        if (end == std::string::npos) {
            end = text.size();
        }
        // Entries are read in place: the first '-' of the entry ends its schedule id.
        const auto entryEnd = text.begin() + static_cast<std::ptrdiff_t>(end);
        const auto dashAt =
            std::find(text.begin() + static_cast<std::ptrdiff_t>(start), entryEnd, '-');
        // An entry without '-' names no relay and is ignored.
        if (dashAt != entryEnd) {
            const auto dash = static_cast<std::size_t>(dashAt - text.begin());
            const std::string scheduleId = text.substr(start, dash - start);
            forEachRelayId(text, dash + 1, end, [&](const std::string& relay) {
                appendDistinct(
                    parsed.relayUnion, [&]() -> auto& { return parsed.unionIndex; }, relay);
                std::vector<std::string>& schedules = parsed.relaySchedules[relay];
                if (schedules.empty()) {
                    schedules.reserve(expected);
                }
                appendDistinct(
                    schedules, [&]() -> auto& { return parsed.scheduleIndex[relay]; }, scheduleId);
            });
        }
        start = end + 1;
    }
    return parsed;
}

}  // namespace

AuthResult VirtualDoorProcessor::process(AuthContext& context, IDataProvider& provider) {
    const char* const continueText = AuthLogger::authResultToString(CONTINUE);
    const char* const failedText = AuthLogger::authResultToString(FAILED);
    const int openType = static_cast<int>(context.request.openType);
    const int readerType = static_cast<int>(context.request.readerType);

    // Public and latch PINs open their own fixed relays and are never tied to a reader's doors.
    if (openType == OPEN_TYPE_PUBLIC_PIN || openType == OPEN_TYPE_LATCH_PIN) {
        AuthLogger::info("[VirtualDoorProcessor:%d] openType=%d skips, result=%s", __LINE__,
                         openType, continueText);
        return CONTINUE;
    }
    if (!context.userData) {
        AuthLogger::info("[VirtualDoorProcessor:%d] no user, result=%s", __LINE__, continueText);
        return CONTINUE;
    }
    if (context.request.virtualDoorExempt) {
        AuthLogger::info("[VirtualDoorProcessor:%d] virtualDoor skip/exempt, result=%s", __LINE__,
                         continueText);
        return CONTINUE;
    }

    // The schedule map is built even when the schedule stage is skipped: the time check reads it.
    const std::string& scheduleRelay = context.userData->scheduleRelay;
    AuthLogger::info("[VirtualDoorProcessor:%d] scheduleRelay=%s", __LINE__,
                     scheduleRelay.empty() ? "(empty)" : scheduleRelay.c_str());
    ScheduleRelays parsed = parseScheduleRelay(scheduleRelay);
    context.relayScheduleMap = std::move(parsed.relaySchedules);
    if (logLinesWanted()) {
        AuthLogger::info("[VirtualDoorProcessor:%d] relayUnion=%s", __LINE__,
                         joinRelayVector(parsed.relayUnion).c_str());
        // Every relay of the union has its entry in the map.
        for (const std::string& relay : parsed.relayUnion) {
            AuthLogger::info("[VirtualDoorProcessor:%d] relayScheduleMap[%s] has %d schedule(s)",
                             __LINE__, relay.c_str(),
                             static_cast<int>(context.relayScheduleMap[relay].size()));
        }
    }

    if (context.request.virtualDoorSkipRelaySchedule) {
        AuthLogger::info("[VirtualDoorProcessor:%d] skip relay schedule check, result=%s", __LINE__,
                         continueText);
    } else if (context.relays.empty()) {
        // A request that names no relay asks for every relay of the user's schedules (the parse
        // result is not read after this point).
        context.relays = std::move(parsed.relayUnion);
    } else {
        std::vector<std::string> requested = std::move(context.relays);
        std::vector<std::string> kept;
        const ListLookup unionLookup(parsed.relayUnion);
        for (const std::string& relay : requested) {
            if (unionLookup.contains(relay)) {
                kept.push_back(relay);
                continue;
            }
            AuthLogger::info("[VirtualDoorProcessor:%d] requested relay=%s not in scheduleRelay",
                             __LINE__, relay.c_str());
            context.failedRelays.push_back(relay);
            context.relayFailReasons[relay] = "NotInSchedule";
        }
        context.relays = std::move(kept);
        if (context.relays.empty()) {
            failRequest(context, fail::SCHEDULE, reasons::RELAY_NOT_IN_SCHEDULE);
            context.response.failedRelays = std::move(requested);
            AuthLogger::info("[VirtualDoorProcessor:%d] no requested relays in schedule, result=%s",
                             __LINE__, failedText);
            return FAILED;
        }
    }

    const AuthConfig config = provider.getAuthConfig();
    AuthLogger::info("[VirtualDoorProcessor:%d] virtualDoorMode=%d", __LINE__,
                     config.virtualDoorMode);
    if (context.skipVirtualDoor) {
        AuthLogger::info("[VirtualDoorProcessor:%d] virtualDoor skip/exempt, result=%s", __LINE__,
                         continueText);
        return CONTINUE;
    }
    if (!config.virtualDoorEnabled) {
        AuthLogger::info("[VirtualDoorProcessor:%d] virtualDoor disabled, result=%s", __LINE__,
                         continueText);
        return CONTINUE;
    }

    AuthLogger::info("[VirtualDoorProcessor:%d] context.request.readerType=%d", __LINE__,
                     readerType);
    const auto reader = config.readerRelayMap.find(context.request.readerType);
    if (reader == config.readerRelayMap.end() || reader->second.empty()) {
        // With doors managed remotely, the internal reader may open nothing it was not given.
        if (config.cloudVirtualDoorConfigured && readerType == READER_TYPE_INTERNAL) {
            failRequest(context, fail::SCHEDULE, reasons::VIRTUAL_DOOR_READER_DENIED);
            context.response.failedRelays = context.relays;
            AuthLogger::info(
                "[VirtualDoorProcessor:%d] no virtualDoor for reader, result=%s, "
                "cloudVirtualDoorConfigured=%d",
                __LINE__, failedText, static_cast<int>(config.cloudVirtualDoorConfigured));
            return FAILED;
        }
        AuthLogger::info("[VirtualDoorProcessor:%d] no virtualDoor for reader, result=%s", __LINE__,
                         continueText);
        return CONTINUE;
    }

    const std::map<RELAY_DIRECTION, std::vector<std::string>>& directions = reader->second;
    const std::vector<std::string>* doors = nullptr;
    RELAY_DIRECTION direction = RELAY_DIRECTION_NONE;
    for (const RELAY_DIRECTION candidate :
         {RELAY_DIRECTION_OUT, RELAY_DIRECTION_IN, RELAY_DIRECTION_NONE}) {
        const auto found = directions.find(candidate);
        if (found != directions.end() && !found->second.empty()) {
            doors = &found->second;
            direction = candidate;
            break;
        }
    }
    if (doors == nullptr) {
        AuthLogger::info("[VirtualDoorProcessor:%d] no direction configured for reader, result=%s",
                         __LINE__, continueText);
        return CONTINUE;
    }

    context.virtualDoorDirection = direction;
    context.request.direction = direction;
    context.accessibleDoors = *doors;
    AuthLogger::info("[VirtualDoorProcessor:%d] accessibleDoors->size()=%d", __LINE__,
                     static_cast<int>(context.accessibleDoors.size()));
    if (logLinesWanted()) {
        AuthLogger::info("[VirtualDoorProcessor:%d] processedRelays=%s", __LINE__,
                         joinRelayVector(context.relays).c_str());
    }

    // In override mode an external reader opens exactly its configured doors, whatever was asked.
    // A temporary key only ever opens what it was issued for, so it is filtered instead.
    if (config.virtualDoorMode == 1 && openType != OPEN_TYPE_TEMP_KEY &&
        (readerType == READER_TYPE_EXTERNAL_1 || readerType == READER_TYPE_EXTERNAL_2)) {
        // Blank ids and repeats in the host's door list name no further door.
        std::vector<std::string> overridden;
        LazyIndex<std::string> index;
        for (const std::string& door : context.accessibleDoors) {
            if (!door.empty()) {
                appendDistinct(
                    overridden, [&]() -> auto& { return index; }, door);
            }
        }
        context.relays = std::move(overridden);
        if (logLinesWanted()) {
            AuthLogger::info("[VirtualDoorProcessor:%d] virtual door override relays=%s", __LINE__,
                             joinRelayVector(context.relays).c_str());
        }
        AuthLogger::info("[VirtualDoorProcessor:%d] result=%s", __LINE__, continueText);
        return CONTINUE;
    }

    if (context.relays.empty()) {
        AuthLogger::info("[VirtualDoorProcessor:%d] no relays, result=%s", __LINE__, continueText);
        return CONTINUE;
    }
    // The list before filtering is kept for the refusal, which reports it.
    std::vector<std::string> beforeFilter = std::move(context.relays);
    std::vector<std::string> valid;
    const ListLookup accessible(context.accessibleDoors);
    for (const std::string& relay : beforeFilter) {
        if (accessible.contains(relay)) {
            valid.push_back(relay);
        } else {
            AuthLogger::info("[VirtualDoorProcessor:%d] relay=%s not accessible", __LINE__,
                             relay.c_str());
        }
    }
    context.relays = std::move(valid);
    if (logLinesWanted()) {
        AuthLogger::info("[VirtualDoorProcessor:%d] validRelays=%s", __LINE__,
                         joinRelayVector(context.relays).c_str());
    }
    if (!context.relays.empty()) {
        AuthLogger::info("[VirtualDoorProcessor:%d] result=%s", __LINE__, continueText);
        return CONTINUE;
    }
    failRequest(context, fail::SCHEDULE, reasons::VIRTUAL_DOOR_DENIED);
    context.response.failedRelays = std::move(beforeFilter);
    AuthLogger::info("[VirtualDoorProcessor:%d] result=%s, reason=%s", __LINE__, failedText,
                     context.response.reason.c_str());
    return FAILED;
}

}  // namespace processors
}  // namespace auth_engine
