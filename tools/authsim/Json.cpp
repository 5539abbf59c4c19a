// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

#include "Json.h"

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <fstream>
#include <sstream>

namespace authsim {

InputError::InputError(const std::string& path, const std::string& message)
    : std::runtime_error(path.empty() ? message : path + ": " + message),
      where(path),
      detail(message) {}

json parseJsonFile(const std::string& file) {
    std::ifstream in(file, std::ios::binary);
    if (!in) {
        throw InputError("", "cannot open the file");
    }
    std::stringstream buffer;
    buffer << in.rdbuf();
    const std::string text = buffer.str();
    try {
        return json::parse(text);
    } catch (const json::parse_error& e) {
        // Turn the byte offset into a line and column, which an editor can jump to.
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
        throw InputError("line " + std::to_string(line) + ", column " + std::to_string(column),
                         "not valid JSON");
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

namespace {

[[noreturn]] void expected(const std::string& path, const std::string& what, const json& got) {
    throw InputError(path, "expected " + what + ", got " + describe(got));
}

bool parseWholeInt(const std::string& text, long long& out) {
    if (text.empty()) {
        return false;
    }
    std::size_t used = 0;
    try {
        out = std::stoll(text, &used, 10);
    } catch (const std::exception&) {
        return false;
    }
    return used == text.size();
}

bool isRelayId(const std::string& relay) {
    if (relay.size() == 1) {
        return std::isdigit(static_cast<unsigned char>(relay[0])) != 0;
    }
    return relay.size() == 2 && relay[0] == 'S' &&
           std::isalpha(static_cast<unsigned char>(relay[1])) != 0;
}

}  // namespace

void requireObject(const json& value, const std::string& path) {
    if (!value.is_object()) {
        expected(path.empty() ? "/" : path, "an object", value);
    }
}

void checkKeys(const json& object, const std::string& path,
               const std::vector<std::string>& allowed) {
    requireObject(object, path);
    for (const auto& item : object.items()) {
        const std::string& key = item.key();
        if (!key.empty() && key[0] == '_') {
            continue;
        }
        bool known = false;
        for (const auto& name : allowed) {
            known = known || name == key;
        }
        if (!known) {
            std::string list;
            for (const auto& name : allowed) {
                list += (list.empty() ? "" : ", ") + name;
            }
            throw InputError(childPath(path, key), "unknown key (expected one of: " + list + ")");
        }
    }
}

std::string readString(const json& value, const std::string& path) {
    if (value.is_string()) {
        return value.get<std::string>();
    }
    if (value.is_number_integer()) {
        return value.dump();  // a card number written as a number is still a card number
    }
    expected(path, "a text", value);
}

int readInt(const json& value, const std::string& path) {
    long long number = 0;
    if (value.is_number_integer()) {
        number = value.get<long long>();
    } else if (!value.is_string() || !parseWholeInt(value.get<std::string>(), number)) {
        expected(path, "an integer", value);
    }
    if (number < INT32_MIN || number > INT32_MAX) {
        expected(path, "an integer that fits 32 bits", value);
    }
    return static_cast<int>(number);
}

bool readBool(const json& value, const std::string& path) {
    if (value.is_boolean()) {
        return value.get<bool>();
    }
    if (value.is_number_integer() && (value.get<long long>() == 0 || value.get<long long>() == 1)) {
        return value.get<long long>() == 1;
    }
    if (value.is_string() && (value == "true" || value == "false")) {
        return value == "true";
    }
    expected(path, "true or false", value);
}

std::vector<std::string> readStringList(const json& value, const std::string& path) {
    if (value.is_string() || value.is_number_integer()) {
        return {readString(value, path)};
    }
    if (!value.is_array()) {
        expected(path, "a list of texts", value);
    }
    std::vector<std::string> out;
    for (std::size_t i = 0; i < value.size(); ++i) {
        out.push_back(readString(value[i], childPath(path, i)));
    }
    return out;
}

std::vector<std::string> readRelayList(const json& value, const std::string& path) {
    std::vector<std::string> relays = readStringList(value, path);
    for (std::size_t i = 0; i < relays.size(); ++i) {
        if (!isRelayId(relays[i])) {
            throw InputError(
                value.is_array() ? childPath(path, i) : path,
                "expected a relay id (a digit, or S and a letter), got \"" + relays[i] + "\"");
        }
    }
    return relays;
}

int64_t readTime(const json& value, const std::string& path) {
    if (value.is_number_integer()) {
        return value.get<int64_t>();
    }
    const char* const form = "a time \"YYYY-MM-DDTHH:MM:SS\" or seconds since the epoch";
    if (!value.is_string()) {
        expected(path, form, value);
    }
    const std::string text = value.get<std::string>();
    std::tm parts{};
    char tail = 0;
    if (text.size() != 19 ||
        std::sscanf(text.c_str(), "%4d-%2d-%2dT%2d:%2d:%2d%c", &parts.tm_year, &parts.tm_mon,
                    &parts.tm_mday, &parts.tm_hour, &parts.tm_min, &parts.tm_sec, &tail) != 6) {
        expected(path, form, value);
    }
    parts.tm_year -= 1900;
    parts.tm_mon -= 1;
    parts.tm_isdst = -1;
    std::tm normalised = parts;
    const std::time_t when = std::mktime(&normalised);
    // mktime quietly rolls 2025-02-30 over into March: refuse what does not survive the round trip.
    if (when == static_cast<std::time_t>(-1) || normalised.tm_mday != parts.tm_mday ||
        normalised.tm_mon != parts.tm_mon || normalised.tm_hour != parts.tm_hour ||
        normalised.tm_min != parts.tm_min || normalised.tm_sec != parts.tm_sec) {
        expected(path, form, value);
    }
    return static_cast<int64_t>(when);
}

int64_t readDuration(const json& value, const std::string& path) {
    const char* const form = "a duration such as 31, \"31s\", \"2m\", \"1h\" or \"1d\"";
    if (value.is_number_integer()) {
        return value.get<int64_t>();
    }
    if (!value.is_string() || value.get<std::string>().empty()) {
        expected(path, form, value);
    }
    std::string text = value.get<std::string>();
    int64_t unit = 1;
    switch (text.back()) {
        case 's':
            text.pop_back();
            break;
        case 'm':
            unit = 60;
            text.pop_back();
            break;
        case 'h':
            unit = 3600;
            text.pop_back();
            break;
        case 'd':
            unit = 86400;
            text.pop_back();
            break;
        default:
            break;
    }
    long long number = 0;
    if (!parseWholeInt(text, number) || number < 0) {
        expected(path, form, value);
    }
    return static_cast<int64_t>(number) * unit;
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
