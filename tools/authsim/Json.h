// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// Reading the site and scenario files: every value is read through these helpers, which know where
// in the file they are (a JSON pointer such as /users/2/validTimeEnd) and say what they expected.
// The readers are lenient about the spelling of a value ("31" for 31, "true" for true, "1" for
// ["1"]) because the shell's typed steps carry every value as text.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace authsim {

using nlohmann::json;

/// A problem in an input file: where it is and what was expected there.
class InputError : public std::runtime_error {
public:
    InputError(const std::string& path, const std::string& message);
    const std::string& path() const { return where; }
    const std::string& message() const { return detail; }

private:
    std::string where;
    std::string detail;
};

/// Reads a whole JSON file; a syntax error names the line and column.
json parseJsonFile(const std::string& file);

std::string childPath(const std::string& path, const std::string& key);
std::string childPath(const std::string& path, std::size_t index);

/// A short description of a value for messages, e.g. `the text "abc"` or `an object`.
std::string describe(const json& value);

void requireObject(const json& value, const std::string& path);
/// Refuses keys not in `allowed`; keys starting with "_" are comments and always allowed.
void checkKeys(const json& object, const std::string& path,
               const std::vector<std::string>& allowed);

std::string readString(const json& value, const std::string& path);
int readInt(const json& value, const std::string& path);
bool readBool(const json& value, const std::string& path);
/// A list of texts; a single text counts as a list of one.
std::vector<std::string> readStringList(const json& value, const std::string& path);
/// A list of relay ids: each a digit, or "S" and a letter.
std::vector<std::string> readRelayList(const json& value, const std::string& path);
/// A point in time: "YYYY-MM-DDTHH:MM:SS" in the site's time zone, or seconds since the epoch.
int64_t readTime(const json& value, const std::string& path);
/// A duration: seconds as a number, or a text such as "31s", "2m", "1h", "1d".
int64_t readDuration(const json& value, const std::string& path);

/// Formats seconds since the epoch as "YYYY-MM-DD Www HH:MM:SS" in local time.
std::string formatTime(int64_t when);

}  // namespace authsim
