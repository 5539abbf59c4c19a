// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

#include "Names.h"

#include <utility>
#include <vector>

namespace authsim {

using namespace auth_engine;

namespace {

using Table = std::vector<std::pair<const char*, int>>;

const Table& openTypes() {
    static const Table table = {
        {"none", OPEN_TYPE_NONE},
        {"card", OPEN_TYPE_CARD},
        {"public_pin", OPEN_TYPE_PUBLIC_PIN},
        {"latch_pin", OPEN_TYPE_LATCH_PIN},
        {"pin", OPEN_TYPE_PIN},
        {"pin5", OPEN_TYPE_PIN_5},
        {"card6", OPEN_TYPE_CARD_6},
        {"pin7", OPEN_TYPE_PIN_7},
        {"card8", OPEN_TYPE_CARD_8},
        {"face", OPEN_TYPE_FACE},
        {"ble", OPEN_TYPE_BLE},
        {"plate", OPEN_TYPE_LICENSE_PLATE},
        {"http", OPEN_TYPE_HTTP},
        {"dtmf", OPEN_TYPE_DTMF},
        {"temp_key", OPEN_TYPE_TEMP_KEY},
        {"remote_control", OPEN_TYPE_REMOTE_CONTROL},
        {"input", OPEN_TYPE_INPUT},
        {"relay_key", OPEN_TYPE_RELAY_KEY},
        {"pin19", OPEN_TYPE_PIN_19},
        {"http20", OPEN_TYPE_HTTP_20},
    };
    return table;
}

const Table& results() {
    static const Table table = {
        {"SUCCESS", SUCCESS},
        {"FAILED", FAILED},
        {"ASYNC_PENDING", ASYNC_PENDING},
        {"CONTINUE", CONTINUE},
        {"DROPPED", DROPPED},
        {"DOUBLE_AUTH_PENDING", DOUBLE_AUTH_PENDING},
        {"UNLOCK_OPTIONS_PENDING", UNLOCK_OPTIONS_PENDING},
        {"IGNORED", IGNORED},
    };
    return table;
}

const Table& readers() {
    static const Table table = {{"internal", READER_TYPE_INTERNAL},
                                {"external1", READER_TYPE_EXTERNAL_1},
                                {"external2", READER_TYPE_EXTERNAL_2}};
    return table;
}

const Table& directions() {
    static const Table table = {
        {"none", RELAY_DIRECTION_NONE}, {"in", RELAY_DIRECTION_IN}, {"out", RELAY_DIRECTION_OUT}};
    return table;
}

const Table& doubleAuthModes() {
    static const Table table = {{"off", DOUBLE_AUTH_MODE_OFF},
                                {"face_card", DOUBLE_AUTH_MODE_FACE_CARD},
                                {"face_pin", DOUBLE_AUTH_MODE_FACE_PIN},
                                {"pin_card", DOUBLE_AUTH_MODE_PIN_CARD},
                                {"card_pin", DOUBLE_AUTH_MODE_CARD_PIN}};
    return table;
}

// A name from the table, or a number. The schema has already refused any other name and any
// number out of range.
int readNamed(const json& value, const std::string& path, const Table& table, const char* what) {
    if (!value.is_string()) {
        return value.get<int>();
    }
    const std::string text = value.get<std::string>();
    if (!text.empty() && text.find_first_not_of("0123456789") == std::string::npos) {
        return std::stoi(text);  // a reader written as a key of readerRelayMap: "1"
    }
    for (const auto& entry : table) {
        if (value == entry.first) {
            return entry.second;
        }
    }
    throw InputError(path, std::string("expected ") + what + ", got " + describe(value));
}

std::string nameOf(int number, const Table& table) {
    for (const auto& entry : table) {
        if (entry.second == number) {
            return entry.first;
        }
    }
    return std::to_string(number);
}

}  // namespace

OpenDoorType readOpenType(const json& value, const std::string& path) {
    return static_cast<OpenDoorType>(readNamed(value, path, openTypes(), "an open type"));
}

AuthResult readResult(const json& value, const std::string& path) {
    return static_cast<AuthResult>(readNamed(value, path, results(), "a result"));
}

ReaderType readReader(const json& value, const std::string& path) {
    return static_cast<ReaderType>(readNamed(value, path, readers(), "a reader"));
}

RELAY_DIRECTION readDirection(const json& value, const std::string& path) {
    return static_cast<RELAY_DIRECTION>(readNamed(value, path, directions(), "a direction"));
}

DoubleAuthMode readDoubleAuthMode(const json& value, const std::string& path) {
    return static_cast<DoubleAuthMode>(
        readNamed(value, path, doubleAuthModes(), "a double-authentication mode"));
}

std::string openTypeName(int openType) {
    return nameOf(openType, openTypes());
}

std::string readerName(int reader) {
    return nameOf(reader, readers());
}

std::string resultName(int result) {
    return nameOf(result, results());
}

}  // namespace authsim
