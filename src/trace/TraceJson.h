// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// A small JSON writer for trace events, appending to a caller's buffer, and the library's records
// written with their member names. Members equal to the record's default are left out (a reader
// takes the default back), which keeps a decision's trace small. Secrets go through the sink.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "auth_engine/AuthTypes.h"
#include "auth_engine/Trace.h"

namespace auth_engine {
namespace trace {

class JsonOut {
public:
    JsonOut(std::string& out, const TraceSink& sink) : out(out), sink(sink) {}

    /// `"name":` with the separating comma when needed.
    JsonOut& key(const char* name);
    JsonOut& key(const std::string& name);  ///< escaped
    JsonOut& open();                        ///< {
    JsonOut& close();                       ///< }
    JsonOut& openList();
    JsonOut& closeList();
    JsonOut& value(const std::string& text);
    JsonOut& value(const char* text);
    JsonOut& value(int64_t number);
    JsonOut& value(bool flag);
    JsonOut& null();
    JsonOut& secret(const std::string& text);
    JsonOut& list(const std::vector<std::string>& items);

    // Members left out when they hold the default.
    JsonOut& field(const char* name, const std::string& text);
    JsonOut& field(const char* name, int64_t number, int64_t otherwise = 0);
    JsonOut& flag(const char* name, bool value);
    JsonOut& field(const char* name, const std::vector<std::string>& items);
    JsonOut& secretField(const char* name, const std::string& text);

    std::string& text() { return out; }

private:
    void separate();
    std::string& out;
    const TraceSink& sink;
    bool first = true;
};

/// Whether a request's credential is a secret. A remote-control attempt carries the remote user's
/// id there, an input attempt nothing, and a relay-key attempt its schedule list, which the time
/// check parses: hashing those would hide nothing and change the decision on replay.
bool credentialIsSecret(OpenDoorType openType);

void write(JsonOut& json, const AuthTarget& target);
void write(JsonOut& json, const std::vector<AuthTarget>& targets);
void write(JsonOut& json, const AuthRequest& request);
void write(JsonOut& json, const AuthResponse& response);
void write(JsonOut& json, const UserData& user);
void write(JsonOut& json, const KeyData& key);
void write(JsonOut& json, const ScheduleData& schedule);
void write(JsonOut& json, const HolidayData& holiday);
void write(JsonOut& json, const AuthConfig& config);
void write(JsonOut& json, const DtmfConfig& config);
void write(JsonOut& json, const HttpOpenConfig& config);
void write(JsonOut& json, const DtmfWhitelistRequest& request);
void write(JsonOut& json, const DtmfWhitelistResult& result);
void write(JsonOut& json, const DtmfVisitorPermissionRequest& request);
void write(JsonOut& json, const TempKeyAuthData& data);
/// What an operation's context argument carries that the host reads.
void writeAsked(JsonOut& json, const AuthContext& context);
/// What an answer's context carries that the engine takes over.
void writeAnswer(JsonOut& json, const AuthContext& context);

/// A shared record: the record, or null.
template <typename Record>
void writeShared(JsonOut& json, const std::shared_ptr<Record>& record) {
    if (record) {
        write(json, *record);
    } else {
        json.null();
    }
}

}  // namespace trace
}  // namespace auth_engine
