// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// Reading a trace the library's TraceRecorder wrote (JSON lines: a header, then one event per
// line), and turning its members back into the library's records. Members a trace leaves out hold
// the record's default.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <auth_engine/AuthTypes.h>

#include "Json.h"

namespace authsim {

struct TraceLine {
    uint64_t seq = 0;
    int64_t uptime = 0;
    int64_t wall = 0;
    int64_t micros = 0;
    int thread = 0;
    std::string kind;  ///< "call", "return", "op", "answer", "report", "clock"
    std::string name;
    json data;  ///< the whole line
};

struct TraceData {
    std::string file;
    json header;
    std::vector<TraceLine> events;
};

/// Reads a trace; refuses (InputError, every problem with its line) what is not one.
TraceData loadTrace(const std::string& file);
/// Reads a trace from text (the JSON lines of a recorder).
TraceData parseTrace(const std::string& text, const std::string& name);

/// One line of a trace, shortened to `width` characters, for messages.
std::string brief(const TraceLine& line, std::size_t width = 160);

std::vector<auth_engine::AuthTarget> toTargets(const json& value);
auth_engine::AuthRequest toRequest(const json& value);
auth_engine::AuthResponse toResponse(const json& value);
auth_engine::UserData toUser(const json& value);
auth_engine::KeyData toKey(const json& value);
auth_engine::ScheduleData toSchedule(const json& value);
auth_engine::HolidayData toHoliday(const json& value);
auth_engine::AuthConfig toConfig(const json& value);
auth_engine::DtmfConfig toDtmfConfig(const json& value);
auth_engine::HttpOpenConfig toHttpConfig(const json& value);
auth_engine::DtmfWhitelistResult toWhitelist(const json& value);
/// An answer's context: the parts the engine takes over.
auth_engine::AuthContext toAnswerContext(const json& value);

}  // namespace authsim
