// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

#include "Json.h"

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <sstream>

namespace authsim {

namespace {

std::string joinProblems(const std::vector<Problem>& problems) {
    std::string text;
    for (const auto& problem : problems) {
        text += (text.empty() ? "" : "\n") +
                (problem.path.empty() ? problem.message : problem.path + ": " + problem.message);
    }
    return text;
}

bool isLeapYear(int year) {
    return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
}

bool dateExists(int year, int month, int day) {
    static const int days[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    if (month < 1 || month > 12 || day < 1) {
        return false;
    }
    return day <= days[month - 1] + (month == 2 && isLeapYear(year) ? 1 : 0);
}

}  // namespace

InputError::InputError(const std::string& path, const std::string& message)
    : InputError(std::vector<Problem>{{path, message}}) {}

InputError::InputError(std::vector<Problem> problems)
    : std::runtime_error(joinProblems(problems)), list(std::move(problems)) {}

InputError InputError::within(const std::string& prefix) const {
    std::vector<Problem> prefixed = list;
    for (auto& problem : prefixed) {
        problem.path = prefix + (problem.path.empty() ? "" : ": " + problem.path);
    }
    return InputError(std::move(prefixed));
}

json parseJsonFile(const std::string& file) {
    std::ifstream in(file, std::ios::binary);
    if (!in) {
        throw InputError("", "cannot open the file");
    }
    std::stringstream buffer;
    buffer << in.rdbuf();
    const std::string text = buffer.str();
    if (text.find_first_not_of(" \t\r\n") == std::string::npos) {
        throw InputError("", "the file is empty (expected a JSON object, {...})");
    }
    try {
        return json::parse(text);
    } catch (const json::parse_error& e) {
        // Turn the byte offset into a line and column, which an editor can jump to, and keep the
        // parser's reason ("unexpected string literal; expected '}'").
        std::size_t line = 1;
        std::size_t column = 1;
        const std::size_t end = std::min<std::size_t>(e.byte > 0 ? e.byte - 1 : 0, text.size());
        for (std::size_t i = 0; i < end; ++i) {
            if (text[i] == '\n') {
                ++line;
                column = 1;
            } else {
                ++column;
            }
        }
        std::string reason = e.what();
        const std::size_t colon = reason.find(": ", reason.find("column"));
        reason = colon == std::string::npos ? reason : reason.substr(colon + 2);
        throw InputError("line " + std::to_string(line) + ", column " + std::to_string(column),
                         "not valid JSON: " + reason);
    }
}

std::string childPath(const std::string& path, const std::string& key) {
    return path + "/" + key;
}

std::string childPath(const std::string& path, std::size_t index) {
    return path + "/" + std::to_string(index);
}

std::string describe(const json& value) {
    switch (value.type()) {
        case json::value_t::null:
            return "null";
        case json::value_t::object:
            return "an object";
        case json::value_t::array:
            return "a list";
        case json::value_t::string:
            return "the text " + value.dump();
        case json::value_t::boolean:
            return value.get<bool>() ? "true" : "false";
        default:
            return "the number " + value.dump();
    }
}

std::string readString(const json& value) {
    return value.is_string() ? value.get<std::string>() : value.dump();
}

std::vector<std::string> readStringList(const json& value) {
    std::vector<std::string> out;
    for (const auto& item : value) {
        out.push_back(readString(item));
    }
    return out;
}

void checkRelayId(const std::string& relay, const std::string& path) {
    const bool digit = relay.size() == 1 && std::isdigit(static_cast<unsigned char>(relay[0])) != 0;
    const bool lettered = relay.size() == 2 && relay[0] == 'S' &&
                          std::isalpha(static_cast<unsigned char>(relay[1])) != 0;
    if (!digit && !lettered) {
        throw InputError(
            path,
            "expected a relay id (a digit, or S and a letter), got \"" + relay + "\"" +
                (relay.size() > 1 && std::isdigit(static_cast<unsigned char>(relay[0])) != 0
                     ? " (the engine would read it as " + std::to_string(relay.size()) + " relays)"
                     : ""));
    }
}

std::vector<std::string> readRelayList(const json& value, const std::string& path) {
    std::vector<std::string> relays = readStringList(value);
    for (std::size_t i = 0; i < relays.size(); ++i) {
        checkRelayId(relays[i], childPath(path, i));
    }
    return relays;
}

void checkDate(const std::string& date, const std::string& path) {
    int year = 0;
    int month = 0;
    int day = 0;
    const bool dashed = date.size() == 10;
    if (date.empty() ||
        std::sscanf(date.c_str(), dashed ? "%4d-%2d-%2d" : "%4d%2d%2d", &year, &month, &day) != 3) {
        return;  // the form is the schema's to check; an empty date is allowed where it may be
    }
    if (!dateExists(year, month, day)) {
        throw InputError(path, date + " does not exist");
    }
}

int64_t readTime(const json& value, const std::string& path) {
    if (value.is_number_integer()) {
        return value.get<int64_t>();
    }
    const std::string text = value.get<std::string>();
    std::tm parts{};
    std::sscanf(text.c_str(), "%4d-%2d-%2dT%2d:%2d:%2d", &parts.tm_year, &parts.tm_mon,
                &parts.tm_mday, &parts.tm_hour, &parts.tm_min, &parts.tm_sec);
    const std::string date = text.substr(0, 10);
    const std::string clock = text.substr(11);
    checkDate(date, path);
    if (parts.tm_hour > 23 || parts.tm_min > 59 || parts.tm_sec > 59) {
        throw InputError(path, "the time of day " + clock + " in \"" + text + "\" does not exist");
    }
    parts.tm_year -= 1900;
    parts.tm_mon -= 1;
    parts.tm_isdst = -1;
    std::tm normalised = parts;
    const std::time_t when = std::mktime(&normalised);
    // mktime moves a local time that a daylight-saving change skips by an hour.
    if (when == static_cast<std::time_t>(-1) || normalised.tm_hour != parts.tm_hour ||
        normalised.tm_min != parts.tm_min || normalised.tm_mday != parts.tm_mday) {
        const char* zone = std::getenv("TZ");
        throw InputError(path, clock + " on " + date + " does not exist in the time zone " +
                                   (zone != nullptr ? zone : "UTC") +
                                   " (a daylight-saving change skips it)");
    }
    return static_cast<int64_t>(when);
}

int64_t readDuration(const json& value, const std::string& path) {
    if (value.is_number_integer()) {
        return value.get<int64_t>();
    }
    const std::string text = value.get<std::string>();
    int64_t unit = 1;
    switch (text.back()) {
        case 'm':
            unit = 60;
            break;
        case 'h':
            unit = 3600;
            break;
        case 'd':
            unit = 86400;
            break;
        default:
            break;
    }
    // Digit by digit, stopping before the product could overflow into a negative step.
    int64_t number = 0;
    for (const char c : text) {
        if (std::isdigit(static_cast<unsigned char>(c)) == 0) {
            break;
        }
        number = number * 10 + (c - '0');
        if (number > MAX_DURATION / unit) {
            throw InputError(path, "the duration \"" + text +
                                       "\" is too long: a step moves the clock by 0 to 3650 "
                                       "days (315360000 s)");
        }
    }
    return number * unit;
}

std::string formatTime(int64_t when) {
    const auto seconds = static_cast<std::time_t>(when);
    std::tm parts{};
    localtime_r(&seconds, &parts);
    char text[32];
    std::strftime(text, sizeof(text), "%Y-%m-%d %a %H:%M:%S", &parts);
    return text;
}

}  // namespace authsim
