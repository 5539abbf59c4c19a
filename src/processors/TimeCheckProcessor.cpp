// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

#include "processors/TimeCheckProcessor.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdlib>
#include <ctime>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "auth_engine/AuthClock.h"
#include "auth_engine/AuthLogger.h"
#include "auth_engine/FailCodes.h"
#include "common/DecisionLocalTime.h"
#include "common/Distinct.h"
#include "common/LogSwitch.h"
#include "common/ProcessorSupport.h"

namespace auth_engine {
namespace processors {

namespace {

// The local calendar view of one instant. A decision reads it once and tests every schedule against
// it, instead of converting the same instant again for every schedule of every relay.
struct LocalView {
    bool valid = false;  // false when the time cannot be represented
    std::tm tm{};
    std::string timeOfDay;  // "HH:MM:SS"; empty when not representable
};

// strftime of the view; empty when the time cannot be represented (the callers then refuse rather
// than compare against an empty text).
std::string formatView(const LocalView& view, const char* format) {
    if (!view.valid) {
        return {};
    }
    char buffer[9];
    const std::size_t written = std::strftime(buffer, sizeof(buffer), format, &view.tm);
    return written == 0 ? std::string() : std::string(buffer, written);
}

bool twoDigits(int value) {
    return value >= 0 && value <= 99;
}

LocalView localView(int64_t now) {
    LocalView view;
    view.valid = decisionLocalTime(now, view.tm);
    const std::tm& tm = view.tm;
    if (view.valid && twoDigits(tm.tm_hour) && twoDigits(tm.tm_min) && twoDigits(tm.tm_sec)) {
        // What strftime's "%H:%M:%S" writes, without its cost.
        char text[8] = {'0', '0', ':', '0', '0', ':', '0', '0'};
        const int fields[3] = {tm.tm_hour, tm.tm_min, tm.tm_sec};
        for (std::size_t i = 0; i < 3; ++i) {
            text[i * 3] = static_cast<char>('0' + fields[i] / 10);
            text[i * 3 + 1] = static_cast<char>('0' + fields[i] % 10);
        }
        view.timeOfDay.assign(text, sizeof(text));
    } else {
        view.timeOfDay = formatView(view, "%H:%M:%S");
    }
    return view;
}

// Reads the ';'-separated schedule id list of a relay key. Each piece is read like atoi (leading
// blanks and a sign allowed, reading stops at the first non-digit); ids outside 1..INT32_MAX,
// unreadable pieces and repeats are dropped, first appearance wins.
std::vector<int> parseScheduleIds(const std::string& text) {
    std::vector<int> ids;
    SeenSet<int> seen;
    std::string::size_type start = 0;
    while (start <= text.size()) {
        std::string::size_type end = text.find(';', start);
        if (end == std::string::npos) {
            end = text.size();
        }
        // Read in place: strtol stops at the ';' that ends the piece (it is no blank and no
        // digit), or at the text's terminating zero.
        const char* const piece = text.c_str() + start;
        char* parsedEnd = nullptr;
        errno = 0;
        // Held as long long: where long is 32 bits a bound test on it would be always true.
        const long long value = std::strtol(piece, &parsedEnd, 10);
        // ERANGE: on 32-bit targets an overlong id would otherwise saturate to INT32_MAX.
        if (errno != ERANGE && value >= 1 && value <= INT32_MAX) {
            const int id = static_cast<int>(value);
            if (seen.insert(id)) {
                ids.push_back(id);
            }
        }
        start = end + 1;
    }
    return ids;
}

bool scheduleValid(const ScheduleData& schedule, int64_t now, const LocalView& view);

// The schedules of one lookup by id: the last record with an id wins (a later duplicate replaces
// the earlier). A user has a few records, which a scan finds fastest; a host that answers with
// thousands gets an index, so that a relay key naming as many schedules stays linear.
class ScheduleIndex {
public:
    explicit ScheduleIndex(const std::vector<std::shared_ptr<ScheduleData>>& records)
        : schedules(records) {
        if (schedules.size() > kDistinctInPlace) {
            byId = std::make_unique<std::unordered_map<std::string, const ScheduleData*>>();
            byId->reserve(schedules.size());
            for (const std::shared_ptr<ScheduleData>& schedule : schedules) {
                if (schedule) {
                    (*byId)[schedule->scheduleId] = schedule.get();
                }
            }
        }
    }

    const ScheduleData* find(const std::string& id) const {
        if (!byId) {
            for (auto it = schedules.rbegin(); it != schedules.rend(); ++it) {
                if (*it && (*it)->scheduleId == id) {
                    return it->get();
                }
            }
            return nullptr;
        }
        const auto found = byId->find(id);
        return found == byId->end() ? nullptr : found->second;
    }

    /// How many different ids the records carry (null records left out).
    int distinctIds() const {
        int count = 0;
        for (const std::shared_ptr<ScheduleData>& schedule : schedules) {
            if (schedule && find(schedule->scheduleId) == schedule.get()) {
                ++count;
            }
        }
        return count;
    }

private:
    const std::vector<std::shared_ptr<ScheduleData>>& schedules;
    std::unique_ptr<std::unordered_map<std::string, const ScheduleData*>> byId;
};

// The owner key of a relay key: for each schedule id, for each relay, "id-relay", joined by ';'.
// Written into a buffer sized once: a key may name a hundred thousand ids.
std::string relayKeyOwner(const std::vector<std::string>& ids,
                          const std::vector<std::string>& relays) {
    std::size_t relayText = 0;
    for (const std::string& relay : relays) {
        relayText += relay.size() + 2;  // with its '-' and ';'
    }
    std::size_t length = 0;
    for (const std::string& id : ids) {
        length += id.size() * relays.size() + relayText;
    }
    std::string key(length, ';');
    char* out = &key[0];
    for (const std::string& id : ids) {
        for (const std::string& relay : relays) {
            out = std::copy(id.begin(), id.end(), out);
            *out++ = '-';
            out = std::copy(relay.begin(), relay.end(), out) + 1;  // the ';' is already there
        }
    }
    key.resize(length == 0 ? 0 : length - 1);  // no separator after the last piece
    return key;
}

void setHolidayExemption(AuthContext& context, const std::string& relay, bool exempt) {
    context.relayHolidayExemption[relay] = exempt;
    context.relayStatusMap[relay].holidayExemption = exempt;
}

}  // namespace

void TimeCheckProcessor::markAllRelaysFailed(AuthContext& context, const char* word) {
    SeenSet<std::string> failed(context.failedRelays);
    for (const std::string& relay : context.relays) {
        if (failed.insert(relay)) {
            context.failedRelays.push_back(relay);
            context.relayFailReasons[relay] = word;
        }
    }
}

AuthResult TimeCheckProcessor::failureResult(const AuthContext& context) {
    // A BLE open is attempted in passing; a refusal is dropped quietly rather than reported.
    return context.request.openType == OPEN_TYPE_BLE ? IGNORED : FAILED;
}

AuthResult TimeCheckProcessor::process(AuthContext& context, IDataProvider& provider) {
    const OpenDoorType openType = context.request.openType;

    if (context.skipTimeCheck) {
        AuthLogger::info("[TimeCheckProcessor:%d] skipTimeCheck, result=%s", __LINE__,
                         AuthLogger::authResultToString(CONTINUE));
        return CONTINUE;
    }
    if (openType == OPEN_TYPE_TEMP_KEY) {
        AuthLogger::info("[TimeCheckProcessor:%d] temp_key, only check holiday exemption",
                         __LINE__);
        return checkTempKeyHolidayExemption(context, provider);
    }
    if (openType == OPEN_TYPE_PUBLIC_PIN || openType == OPEN_TYPE_LATCH_PIN) {
        AuthLogger::info("[TimeCheckProcessor:%d] openType=%d, skip", __LINE__,
                         static_cast<int>(openType));
        return CONTINUE;
    }

    const int64_t now = AuthClock::now();

    if (openType == OPEN_TYPE_RELAY_KEY) {
        AuthRequest& request = context.request;
        const RelayKeyAuthData* const keyData = request.relayKeyData.get();
        const std::vector<AuthTarget>& source =
            (keyData != nullptr && !keyData->targets.empty()) ? keyData->targets : request.targets;
        std::vector<std::string> relayList;
        appendTargetRelays(relayList, source);
        if (relayList.empty()) {
            relayList = request.relays;
        }
        if (relayList.empty()) {
            failRequest(context, fail::INVALID_TARGET, reasons::RELAY_KEY_TARGET_INVALID);
            AuthLogger::info("[TimeCheckProcessor:%d] result=%s, reason=%s", __LINE__,
                             AuthLogger::authResultToString(FAILED),
                             context.response.reason.c_str());
            return FAILED;
        }

        const std::vector<int> scheduleIds =
            parseScheduleIds(keyData != nullptr ? keyData->scheduleIds : request.credential);
        context.relays = std::move(relayList);
        context.authTargets = source;
        if (scheduleIds.empty()) {
            markAllRelaysFailed(context, "TimeCheck");
            failRequest(context, fail::SCHEDULE, reasons::RELAY_KEY_SCHEDULE_INVALID);
            AuthLogger::info("[TimeCheckProcessor:%d] result=%s, reason=%s", __LINE__,
                             AuthLogger::authResultToString(FAILED),
                             context.response.reason.c_str());
            return FAILED;
        }

        std::vector<std::string> idTexts;
        idTexts.reserve(scheduleIds.size());
        for (const int id : scheduleIds) {
            idTexts.push_back(std::to_string(id));
        }
        // Same "id-relay;id-relay" form as a user's scheduleRelay, so the host answers both alike.
        const std::string ownerKey = relayKeyOwner(idTexts, context.relays);
        // Every relay is governed by every id: the last relay takes the list itself.
        context.relayScheduleMap.clear();
        for (std::size_t i = 0; i < context.relays.size(); ++i) {
            std::vector<std::string>& governing = context.relayScheduleMap[context.relays[i]];
            if (i + 1 < context.relays.size()) {
                governing = idTexts;
            } else {
                governing = std::move(idTexts);
            }
        }
        return checkRelaySchedules(context, provider, ownerKey, 0, now);
    }

    const std::shared_ptr<UserData> user = context.userData;
    if (!user) {
        markAllRelaysFailed(context, "TimeCheck");
        failRequest(context, fail::GENERIC, reasons::NO_USER_DATA);
        AuthLogger::info("[TimeCheckProcessor:%d] result=%s, reason=%s", __LINE__,
                         AuthLogger::authResultToString(FAILED), context.response.reason.c_str());
        return FAILED;
    }

    if (openType == OPEN_TYPE_LICENSE_PLATE) {
        AuthLogger::info("[TimeCheckProcessor:%d] openType=%d", __LINE__,
                         static_cast<int>(openType));
        const std::shared_ptr<KeyData> plate = context.keyData;
        if (!plate) {
            markAllRelaysFailed(context, "TimeCheck");
            failRequest(context, fail::USER_VALIDITY, reasons::PLATE_DATA_NOT_FOUND);
            AuthLogger::info("[TimeCheckProcessor:%d] result=%s, reason=%s", __LINE__,
                             AuthLogger::authResultToString(FAILED),
                             context.response.reason.c_str());
            return FAILED;
        }
        const int64_t plateNow = AuthClock::now();
        AuthLogger::info("[TimeCheckProcessor:%d] currentTime=%lld", __LINE__,
                         static_cast<long long>(plateNow));
        if (!plate->longTermEnable) {
            AuthLogger::info("[TimeCheckProcessor:%d] longTermEnable=%d", __LINE__,
                             static_cast<int>(plate->longTermEnable));
            AuthLogger::info("[TimeCheckProcessor:%d] startTime=%lld", __LINE__,
                             static_cast<long long>(plate->startTime));
            AuthLogger::info("[TimeCheckProcessor:%d] endTime=%lld", __LINE__,
                             static_cast<long long>(plate->endTime));
            const char* reason = nullptr;
            if (plate->startTime >= 1 && plateNow < plate->startTime) {
                reason = reasons::PLATE_NOT_YET_VALID;
            } else if (plate->endTime >= 1 && plateNow > plate->endTime) {
                reason = reasons::PLATE_EXPIRED;
            }
            if (reason != nullptr) {
                markAllRelaysFailed(context, "InvalidTimeRange");
                failRequest(context, fail::PLATE_VALIDITY, reason);
                AuthLogger::info("[TimeCheckProcessor:%d] result=%s, reason=%s", __LINE__,
                                 AuthLogger::authResultToString(FAILED), reason);
                return FAILED;
            }
        }
    }

    if (user->validTimeStart >= 1 && now < user->validTimeStart) {
        markAllRelaysFailed(context, "InvalidUserTime");
        failRequest(context, fail::USER_VALIDITY, reasons::USER_NOT_YET_VALID);
        AuthLogger::info("[TimeCheckProcessor:%d] result=%s, reason=%s", __LINE__,
                         AuthLogger::authResultToString(FAILED), context.response.reason.c_str());
        return failureResult(context);
    }
    AuthLogger::info(
        "[TimeCheckProcessor:%d] currentTime=%lld, validTimeStart=%lld, validTimeEnd=%lld",
        __LINE__, static_cast<long long>(now), static_cast<long long>(user->validTimeStart),
        static_cast<long long>(user->validTimeEnd));
    if (user->validTimeEnd >= 1 && now > user->validTimeEnd) {
        markAllRelaysFailed(context, "InvalidUserTime");
        failRequest(context, fail::USER_VALIDITY, reasons::USER_EXPIRED);
        AuthLogger::info("[TimeCheckProcessor:%d] result=%s, reason=%s", __LINE__,
                         AuthLogger::authResultToString(FAILED), context.response.reason.c_str());
        return failureResult(context);
    }

    return checkRelaySchedules(context, provider, user->scheduleRelay, user->ownerKind, now);
}

AuthResult TimeCheckProcessor::checkRelaySchedules(AuthContext& context, IDataProvider& provider,
                                                   const std::string& ownerKey, int ownerKind,
                                                   int64_t now) {
    if (context.relayScheduleMap.empty()) {
        AuthLogger::info("[TimeCheckProcessor:%d] relayScheduleMap empty, result=%s", __LINE__,
                         AuthLogger::authResultToString(CONTINUE));
        return CONTINUE;
    }

    // `schedules` keeps the records alive for the whole call: lookups hand out plain pointers.
    const std::vector<std::shared_ptr<ScheduleData>> schedules =
        provider.getRelaySchedules(ownerKey, ownerKind);
    const ScheduleIndex index(schedules);
    const bool logging = logLinesWanted();
    if (logging) {
        for (const std::shared_ptr<ScheduleData>& schedule : schedules) {
            if (schedule) {
                AuthLogger::info("[TimeCheckProcessor:%d] schedule=%s, name=%s", __LINE__,
                                 schedule->scheduleId.c_str(), schedule->name.c_str());
            }
        }
        AuthLogger::info("[TimeCheckProcessor:%d] loaded %d schedules, scheduleById size=%d",
                         __LINE__, static_cast<int>(schedules.size()), index.distinctIds());
    }

    // The relays that pass are moved to the front of the list as it is walked, in their order; a
    // relay is only ever moved to a place already walked, so the rest is still to be read.
    const LocalView view = localView(now);
    std::vector<std::string>& relays = context.relays;
    std::size_t keptCount = 0;
    for (std::size_t i = 0; i < relays.size(); ++i) {
        const std::string& relay = relays[i];
        const auto governing = context.relayScheduleMap.find(relay);
        bool admitted = false;
        bool exempt = false;
        const bool governed =
            governing != context.relayScheduleMap.end() && !governing->second.empty();
        if (!governed) {
            AuthLogger::info("[TimeCheckProcessor:%d] relay=%s has no schedules, skip time check",
                             __LINE__, relay.c_str());
        } else {
            for (const std::string& id : governing->second) {
                if (logging) {
                    AuthLogger::info("[TimeCheckProcessor:%d] relay=%s schedule=%s", __LINE__,
                                     relay.c_str(), id.c_str());
                }
                const ScheduleData* const found = index.find(id);
                if (found == nullptr || !scheduleValid(*found, now, view)) {
                    continue;
                }
                admitted = true;
                if (logging) {
                    AuthLogger::info(
                        "[TimeCheckProcessor:%d] relay=%s schedule=%s valid, holidayExemption=%d",
                        __LINE__, relay.c_str(), id.c_str(),
                        static_cast<int>(found->holidayExemption));
                }
                // Keep looking past a valid schedule without exemption: an exempting one later
                // wins.
                if (found->holidayExemption) {
                    exempt = true;
                    break;
                }
            }
            if (admitted) {
                setHolidayExemption(context, relay, exempt);
                if (logging) {
                    AuthLogger::info("[TimeCheckProcessor:%d] relay=%s passed, holidayExemption=%d",
                                     __LINE__, relay.c_str(), static_cast<int>(exempt));
                }
            } else {
                context.failedRelays.push_back(relay);
                context.relayFailReasons[relay] = "TimeCheck";
                AuthLogger::info("[TimeCheckProcessor:%d] relay=%s failed time check", __LINE__,
                                 relay.c_str());
            }
        }
        if (!governed || admitted) {
            if (keptCount != i) {
                relays[keptCount] = std::move(relays[i]);
            }
            ++keptCount;
        }
    }

    if (keptCount == 0) {
        // Nothing was moved: the candidate list is left as it was so later reporting still sees
        // what was asked for.
        failRequest(context, fail::SCHEDULE, reasons::NOT_IN_SCHEDULE);
        AuthLogger::info("[TimeCheckProcessor:%d] result=%s, reason=%s", __LINE__,
                         AuthLogger::authResultToString(FAILED), context.response.reason.c_str());
        return failureResult(context);
    }
    relays.resize(keptCount);
    AuthLogger::info("[TimeCheckProcessor:%d] result=%s", __LINE__,
                     AuthLogger::authResultToString(CONTINUE));
    return CONTINUE;
}

AuthResult TimeCheckProcessor::checkTempKeyHolidayExemption(AuthContext& context,
                                                            IDataProvider& provider) {
    const std::shared_ptr<UserData> user = context.userData;
    if (!user) {
        AuthLogger::info("[TimeCheckProcessor:%d] temp_key no user, skip holiday exemption",
                         __LINE__);
        return CONTINUE;
    }

    const int64_t now = AuthClock::now();
    const std::vector<std::shared_ptr<ScheduleData>> schedules =
        provider.getRelaySchedules(user->scheduleRelay, user->ownerKind);
    bool hasExemption = false;
    const LocalView view = localView(now);
    for (const std::shared_ptr<ScheduleData>& schedule : schedules) {
        if (schedule && schedule->holidayExemption && scheduleValid(*schedule, now, view)) {
            hasExemption = true;
            AuthLogger::info("[TimeCheckProcessor:%d] temp_key active exempting schedule=%s",
                             __LINE__, schedule->scheduleId.c_str());
            break;
        }
    }
    for (const std::string& relay : context.relays) {
        setHolidayExemption(context, relay, hasExemption);
    }
    AuthLogger::info("[TimeCheckProcessor:%d] temp_key user=%s, schedules=%d, hasExemption=%d",
                     __LINE__, user->userId.c_str(), static_cast<int>(schedules.size()),
                     static_cast<int>(hasExemption));
    return CONTINUE;
}

namespace {

bool inDailyTime(const std::string& startTime, const std::string& endTime, const LocalView& view) {
    const std::string& current = view.timeOfDay;
    AuthLogger::info("[TimeCheckProcessor:%d] isInDailyTime: current=%s, start=%s, end=%s",
                     __LINE__, current.c_str(), startTime.c_str(), endTime.c_str());
    if (current.empty()) {
        return false;
    }
    // Zero-padded texts order like the times they spell; an overnight range never matches.
    return startTime <= current && current <= endTime;
}

bool weeklyMatch(const std::string& weekly, int64_t now, const LocalView& view) {
    if (!view.valid) {
        AuthLogger::error("[TimeCheckProcessor:%d] isWeeklyMatch: time %lld not representable",
                          __LINE__, static_cast<long long>(now));
        return false;
    }
    AuthLogger::info("[TimeCheckProcessor:%d] isWeeklyMatch: wday=%d, weekly=%s", __LINE__,
                     view.tm.tm_wday, weekly.c_str());
    return weekly.find(static_cast<char>('0' + view.tm.tm_wday)) != std::string::npos;
}

bool inDateRange(const std::string& startDate, const std::string& endDate, const LocalView& view) {
    const std::string current = formatView(view, "%Y%m%d");
    std::string start;
    std::string end;
    for (const char c : startDate) {
        if (c != '-') {
            start += c;
        }
    }
    for (const char c : endDate) {
        if (c != '-') {
            end += c;
        }
    }
    // Deliberately asymmetric: an overlong start keeps its first eight characters, an overlong
    // end its last eight.
    if (start.size() > 8) {
        start.resize(8);
    }
    if (end.size() > 8) {
        end = end.substr(end.size() - 8);
    }
    AuthLogger::info("[TimeCheckProcessor:%d] isInDateRange: current=%s, start=%s, end=%s",
                     __LINE__, current.c_str(), start.c_str(), end.c_str());
    if (current.empty()) {
        return false;
    }
    return start <= current && current <= end;
}

bool scheduleValid(const ScheduleData& schedule, int64_t now, const LocalView& view) {
    // Every schedule of every relay passes here: its trace lines are not even assembled when
    // nobody reads them.
    const bool logging = logLinesWanted();
    if (logging) {
        AuthLogger::info(
            "[TimeCheckProcessor:%d] isScheduleValid: id=%d, type=%d, startTime=%s, endTime=%s, "
            "weekly=%s, startDate=%s, endDate=%s, relay=%s",
            __LINE__, schedule.id, schedule.type, schedule.startTime.c_str(),
            schedule.endTime.c_str(), schedule.weekly.c_str(), schedule.startDate.c_str(),
            schedule.endDate.c_str(), schedule.relay.c_str());
    }

    if (!inDailyTime(schedule.startTime, schedule.endTime, view)) {
        AuthLogger::info("[TimeCheckProcessor:%d] isInDailyTime=false", __LINE__);
        return false;
    }
    if (logging) {
        AuthLogger::info("[TimeCheckProcessor:%d] isInDailyTime=true", __LINE__);
    }

    switch (schedule.type) {
        case 1:
            if (logging) {
                AuthLogger::info("[TimeCheckProcessor:%d] type=DAILY, passed", __LINE__);
            }
            return true;
        case 2: {
            const bool weekly = weeklyMatch(schedule.weekly, now, view);
            if (logging) {
                AuthLogger::info("[TimeCheckProcessor:%d] type=WEEKLY, isWeeklyMatch=%d", __LINE__,
                                 static_cast<int>(weekly));
            }
            return weekly;
        }
        case 3: {
            const bool weekly = weeklyMatch(schedule.weekly, now, view);
            AuthLogger::info("[TimeCheckProcessor:%d] type=DATE, isWeeklyMatch=%d", __LINE__,
                             static_cast<int>(weekly));
            if (!weekly) {
                return false;
            }
            const bool inRange = inDateRange(schedule.startDate, schedule.endDate, view);
            AuthLogger::info("[TimeCheckProcessor:%d] type=DATE, isInDateRange=%d", __LINE__,
                             static_cast<int>(inRange));
            return inRange;
        }
        default:
            AuthLogger::info("[TimeCheckProcessor:%d] unknown type=%d", __LINE__, schedule.type);
            return false;
    }
}

}  // namespace

bool TimeCheckProcessor::isScheduleValid(const ScheduleData& schedule, int64_t now) {
    return scheduleValid(schedule, now, localView(now));
}

bool TimeCheckProcessor::isInDailyTime(const std::string& startTime, const std::string& endTime,
                                       int64_t now) {
    return inDailyTime(startTime, endTime, localView(now));
}

bool TimeCheckProcessor::isWeeklyMatch(const std::string& weekly, int64_t now) {
    return weeklyMatch(weekly, now, localView(now));
}

bool TimeCheckProcessor::isInDateRange(const std::string& startDate, const std::string& endDate,
                                       int64_t now) {
    return inDateRange(startDate, endDate, localView(now));
}

}  // namespace processors
}  // namespace auth_engine
