// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// The time check: which relays the user's schedules (or a relay key's) allow now, and which of
// them are exempt from holidays. The schedule tests themselves are in ScheduleRules.cpp.
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
#include "processors/ScheduleRules.h"

namespace auth_engine {
namespace processors {

namespace {

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
        if (!context.relays.empty()) {
            for (std::size_t i = 0; i + 1 < context.relays.size(); ++i) {
                context.relayScheduleMap[context.relays[i]] = idTexts;
            }
            context.relayScheduleMap[context.relays.back()] = std::move(idTexts);
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
