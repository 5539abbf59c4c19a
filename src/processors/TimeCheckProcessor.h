// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// Decides whether the user, the vehicle plate or the relay key is valid now, and which candidate
// relays their schedules open at this time of day, weekday and date. Also records, per relay,
// whether the admitting schedule grants a holiday exemption (read by the holiday check).
#pragma once

#include <cstdint>
#include <string>

#include "auth_engine/IAuthProcessor.h"
#include "auth_engine/IDataProvider.h"

namespace auth_engine {
namespace processors {

class TimeCheckProcessor : public IAuthProcessor {
public:
    AuthResult process(AuthContext& context, IDataProvider& provider) override;
    std::string getName() const override { return chain::TIME_CHECK; }

    /// Narrows context.relays to those admitted by a schedule valid at `now`.
    AuthResult checkRelaySchedules(AuthContext& context, IDataProvider& provider,
                                   const std::string& ownerKey, int ownerKind, int64_t now);
    /// Temporary keys: only fills the holiday-exemption maps.
    AuthResult checkTempKeyHolidayExemption(AuthContext& context, IDataProvider& provider);
    bool isScheduleValid(const ScheduleData& schedule, int64_t now);
    bool isInDailyTime(const std::string& startTime, const std::string& endTime, int64_t now);
    bool isWeeklyMatch(const std::string& weekly, int64_t now);
    bool isInDateRange(const std::string& startDate, const std::string& endDate, int64_t now);

private:
    static void markAllRelaysFailed(AuthContext& context, const char* word);
    static AuthResult failureResult(const AuthContext& context);
};

}  // namespace processors
}  // namespace auth_engine
