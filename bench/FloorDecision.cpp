// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

#include "FloorDecision.h"

#include <algorithm>
#include <ctime>
#include <string>
#include <vector>

#include "auth_engine/AuthClock.h"

namespace auth_engine {
namespace bench {

namespace {

// One local calendar view serves every schedule and holiday test of the decision.
struct Now {
    char time[9] = {};    // HH:MM:SS
    char date[9] = {};    // YYYYMMDD
    char today[11] = {};  // YYYY-MM-DD
    int weekday = 0;
};

void digits(char* out, int value, int width) {
    for (int i = width - 1; i >= 0; --i) {
        out[i] = static_cast<char>('0' + value % 10);
        value /= 10;
    }
}

Now localNow() {
    Now now;
    const time_t seconds = static_cast<time_t>(AuthClock::now());
    std::tm tm{};
    localtime_r(&seconds, &tm);
    digits(now.time, tm.tm_hour, 2);
    now.time[2] = ':';
    digits(now.time + 3, tm.tm_min, 2);
    now.time[5] = ':';
    digits(now.time + 6, tm.tm_sec, 2);
    digits(now.date, tm.tm_year + 1900, 4);
    digits(now.date + 4, tm.tm_mon + 1, 2);
    digits(now.date + 6, tm.tm_mday, 2);
    digits(now.today, tm.tm_year + 1900, 4);
    now.today[4] = '-';
    digits(now.today + 5, tm.tm_mon + 1, 2);
    now.today[7] = '-';
    digits(now.today + 8, tm.tm_mday, 2);
    now.weekday = tm.tm_wday;
    return now;
}

bool scheduleAdmits(const ScheduleData& schedule, const Now& now) {
    if (!(schedule.startTime <= now.time && now.time <= schedule.endTime)) {
        return false;
    }
    const bool weekly =
        schedule.weekly.find(static_cast<char>('0' + now.weekday)) != std::string::npos;
    switch (schedule.type) {
        case 1:
            return true;
        case 2:
            return weekly;
        case 3: {
            std::string start;
            std::string end;
            for (const char c : schedule.startDate) {
                if (c != '-') {
                    start += c;
                }
            }
            for (const char c : schedule.endDate) {
                if (c != '-') {
                    end += c;
                }
            }
            return weekly && start <= now.date && now.date <= end;
        }
        default:
            return false;
    }
}

// One (relay, schedule id) pair per relay digit of a "scheduleId-relays;..." text.
struct Grant {
    std::string relay;
    std::string scheduleId;
};

std::vector<Grant> readScheduleRelay(const std::string& text) {
    std::vector<Grant> grants;
    grants.reserve(8);
    std::size_t start = 0;
    while (start <= text.size()) {
        std::size_t end = text.find(';', start);
        if (end == std::string::npos) {
            end = text.size();
        }
        const std::size_t dash = text.find('-', start);
        if (dash < end) {
            for (std::size_t i = dash + 1; i < end; ++i) {
                if (text[i] >= '0' && text[i] <= '9') {
                    grants.push_back(
                        Grant{std::string(1, text[i]), text.substr(start, dash - start)});
                }
            }
        }
        start = end + 1;
    }
    return grants;
}

bool holidayToday(const HolidayData& holiday, const Now& now) {
    const std::string today = now.today;
    if (holiday.yearlyRepeat == 0) {
        return holiday.startDate <= today && today <= holiday.endDate;
    }
    if (holiday.startDate.size() < 10 || holiday.endDate.size() < 10) {
        return false;
    }
    const std::string day = today.substr(5, 5);
    return holiday.startDate.substr(5, 5) <= day && day <= holiday.endDate.substr(5, 5);
}

bool insideAccessHours(const HolidayData& holiday, const Now& now) {
    const std::size_t dash = holiday.timeRange.find('-');
    if (holiday.type != 1 || dash == std::string::npos || dash >= 9) {
        return false;
    }
    return holiday.timeRange.substr(0, 8) <= now.time &&
           now.time <= holiday.timeRange.substr(dash + 1, 8);
}

AuthResponse refuse(AuthContext& context, IDataProvider& provider, int failCode,
                    const char* reason) {
    context.response.result = FAILED;
    context.response.failCode = failCode;
    context.response.reason = reason;
    context.response.asyncType = "sync";
    provider.onAuthResult(context, FAILED);
    return context.response;
}

}  // namespace

AuthResponse floorDecision(IDataProvider& provider, const AuthRequest& request) {
    AuthContext context;
    context.request = request;

    // Device PINs first, then the user.
    if (provider.isPublicPin(context)) {
        return refuse(context, provider, 1, "public PIN is not part of this decision");
    }
    std::vector<std::string> latch;
    if (provider.getLatchPinRelays(context, latch)) {
        return refuse(context, provider, 1, "latch PIN is not part of this decision");
    }
    const std::shared_ptr<UserData> user =
        provider.getUserByCredential(request.credential.c_str(), request.openType);
    if (!user) {
        return refuse(context, provider, 1, "User not found");
    }
    context.userData = user;
    context.response.user = user;
    provider.getAuthConfig();  // double authentication (off)

    const std::vector<Grant> grants = readScheduleRelay(user->scheduleRelay);
    provider.getAuthConfig();  // virtual doors (off)

    // Schedules: a relay opens when one of its schedules admits now.
    const Now now = localNow();
    const auto schedules = provider.getRelaySchedules(user->scheduleRelay, user->ownerKind);
    std::vector<std::string> open;
    std::vector<bool> exempt;
    open.reserve(grants.size());
    for (const Grant& grant : grants) {
        for (const auto& schedule : schedules) {
            if (!schedule || schedule->scheduleId != grant.scheduleId ||
                !scheduleAdmits(*schedule, now)) {
                continue;
            }
            const auto known = std::find(open.begin(), open.end(), grant.relay);
            if (known == open.end()) {
                open.push_back(grant.relay);
                exempt.push_back(schedule->holidayExemption);
            } else if (schedule->holidayExemption) {
                exempt[static_cast<std::size_t>(known - open.begin())] = true;
            }
        }
    }
    if (open.empty()) {
        return refuse(context, provider, 3, "Not in scheduled time");
    }

    // Holidays: the first holiday of today closes every relay neither schedule nor host exempts.
    const AuthConfig holidayConfig = provider.getAuthConfig();
    if (holidayConfig.holidayEnabled && user->holidayExempt == 0) {
        const auto holidays = provider.getHolidays(user->holidayKey, user->ownerKind);
        for (const HolidayData& holiday : holidays) {
            if (!holidayToday(holiday, now)) {
                continue;
            }
            if (!insideAccessHours(holiday, now)) {
                std::vector<std::string> kept;
                for (std::size_t r = 0; r < open.size(); ++r) {
                    // The host is asked about every relay, even one its schedule exempts.
                    const bool hostExempt = provider.isRelayHolidayExempt(open[r]);
                    if (exempt[r] || hostExempt) {
                        kept.push_back(open[r]);
                    }
                }
                open = kept;
            }
            break;
        }
        if (open.empty()) {
            return refuse(context, provider, 2, "Access denied: no relay with holiday exemption");
        }
    }

    for (const std::string& relay : provider.getForbiddenUnlockTypeRelays(open, request.openType)) {
        open.erase(std::remove(open.begin(), open.end(), relay), open.end());
    }
    for (const std::string& relay : provider.getLockedDownRelays(open)) {
        open.erase(std::remove(open.begin(), open.end(), relay), open.end());
    }
    if (open.empty()) {
        return refuse(context, provider, 6, "All relays are in lockdown");
    }
    provider.getAuthConfig();  // reader doors
    provider.getAuthConfig();  // relay checks and relay choice (none configured)

    context.relays = open;
    context.response.result = SUCCESS;
    context.response.asyncType = "sync";
    context.response.openedRelays = open;
    for (const std::string& relay : open) {
        context.response.targets.push_back(
            AuthTarget{relay.size() > 1 && relay[0] == 'S' ? 1 : 0, relay});
    }
    provider.onAuthResult(context, SUCCESS);
    return context.response;
}

}  // namespace bench
}  // namespace auth_engine
