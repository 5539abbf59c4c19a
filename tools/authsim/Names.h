// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// The names by which site and scenario files spell the library's numbers (open types, results,
// readers, directions, double-authentication modes). Every name also accepts its number.
#pragma once

#include <string>

#include <auth_engine/AuthTypes.h>

#include "Json.h"

namespace authsim {

auth_engine::OpenDoorType readOpenType(const json& value, const std::string& path);
auth_engine::AuthResult readResult(const json& value, const std::string& path);
auth_engine::ReaderType readReader(const json& value, const std::string& path);
auth_engine::RELAY_DIRECTION readDirection(const json& value, const std::string& path);
auth_engine::DoubleAuthMode readDoubleAuthMode(const json& value, const std::string& path);

/// "card", "pin", ... or the number for a value without a name.
std::string openTypeName(int openType);
/// "internal", "external1", "external2", or the number.
std::string readerName(int reader);
/// "SUCCESS", ..., "DOUBLE_AUTH_PENDING", "UNLOCK_OPTIONS_PENDING"; the number for other values.
std::string resultName(int result);

}  // namespace authsim
