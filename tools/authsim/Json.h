// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// Reading the site and scenario files. A file is first checked against its JSON Schema (Schema.h),
// so the readers here only convert values the schema has already accepted; they keep the checks a
// schema cannot make (that a date exists, that a text is a relay id, that a duration fits), and
// say where in the file (a JSON pointer such as /users/2/validTimeEnd) and which value failed.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace authsim {

using nlohmann::json;

/// One problem in an input: where it is and what is wrong there.
struct Problem {
    std::string path;
    std::string message;
};

/// The problems of an input file (every one found, not only the first).
class InputError : public std::runtime_error {
public:
    InputError(const std::string& path, const std::string& message);
    explicit InputError(std::vector<Problem> problems);
    const std::vector<Problem>& problems() const { return list; }
    const std::string& path() const { return list.front().path; }
    const std::string& message() const { return list.front().message; }
    /// The same problems, each path preceded by `prefix` ("site.json" -> "site.json: /users/0").
    InputError within(const std::string& prefix) const;

private:
    std::vector<Problem> list;
};

/// Reads a whole JSON file; a syntax error names the line, the column and the parser's reason.
json parseJsonFile(const std::string& file);

std::string childPath(const std::string& path, const std::string& key);
std::string childPath(const std::string& path, std::size_t index);

/// A short description of a value for messages, e.g. `the text "abc"` or `an object`.
std::string describe(const json& value);

/// A text; a card number written as a number is still a card number.
std::string readString(const json& value);
/// A list of texts.
std::vector<std::string> readStringList(const json& value);
/// A list of relay ids: each a digit, or "S" and a letter.
std::vector<std::string> readRelayList(const json& value, const std::string& path);
/// Refuses a text that is not a relay id.
void checkRelayId(const std::string& relay, const std::string& path);
/// Refuses a date "YYYY-MM-DD" or "YYYYMMDD" that does not exist, such as 2025-06-31.
void checkDate(const std::string& date, const std::string& path);
/// A point in time: "YYYY-MM-DDTHH:MM:SS" in the site's time zone, or seconds since the epoch.
int64_t readTime(const json& value, const std::string& path);
/// The longest step a duration may take: 3650 days.
constexpr int64_t MAX_DURATION = 3650LL * 86400;
/// A duration: seconds as a number, or a text such as "31s", "2m", "1h", "1d".
int64_t readDuration(const json& value, const std::string& path);

/// Formats seconds since the epoch as "YYYY-MM-DD Www HH:MM:SS" in local time.
std::string formatTime(int64_t when);

}  // namespace authsim
