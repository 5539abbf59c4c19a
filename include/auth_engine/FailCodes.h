// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

/// @file FailCodes.h
/// @brief The fail codes of AuthResponse::failCode and the fixed reason texts the engine and its
/// processors report, by name. A host compares against these rather than against numbers and
/// texts of its own.
#pragma once

namespace auth_engine {

/// Values of AuthResponse::failCode.
namespace fail {
constexpr int NONE = 0;                       ///< none, a cancelled first factor, an internal error
constexpr int GENERIC = 1;                    ///< generic failure, unknown user, no user data
constexpr int HOLIDAY = 2;                    ///< a holiday holds every relay
constexpr int SCHEDULE = 3;                   ///< outside the schedules, or a virtual door
constexpr int FORBIDDEN_OPEN_TYPE = 4;        ///< this way of opening is forbidden on the relays
constexpr int ANTI_PASSBACK = 5;              ///< anti-passback refused
constexpr int LOCKDOWN = 6;                   ///< the relays are in lockdown
constexpr int PLATE_VALIDITY = 7;             ///< a vehicle plate outside its validity
constexpr int DOUBLE_AUTH_TIMEOUT = 19;       ///< the first factor waited in vain
constexpr int INTERLOCK = 21;                 ///< interlock refused, or could not be asked
constexpr int USER_VALIDITY = 22;             ///< a user outside validity, plate data missing
constexpr int PARKING = 23;                   ///< parking restriction refused
constexpr int TEMP_KEY = 24;                  ///< a temporary key could not be validated
constexpr int HTTP_DISABLED = 30;             ///< HTTP opening is off
constexpr int HTTP_AUTHENTICATION = 31;       ///< HTTP credentials rejected
constexpr int INVALID_TARGET = 32;            ///< a door command names a target it may not open
constexpr int WRONG_SECOND_FACTOR = 40;       ///< a second factor of the wrong kind, or none held
constexpr int SECOND_FACTOR_OTHER_USER = 41;  ///< a second factor of another user, or of none
constexpr int UNKNOWN_PENDING_ID = 42;        ///< no first factor waits under that id
constexpr int RELAY_CHOICE = 44;              ///< the relay choice was cancelled or timed out
constexpr int TOO_MANY_ATTEMPTS = 45;  ///< the reader is locked out after repeated unknown codes
}  // namespace fail

/// Fixed texts of AuthResponse::reason.
namespace reasons {
// The engine and the facade.
constexpr const char* FACADE_NOT_INITIALIZED = "AuthFacade not initialized";
constexpr const char* ENGINE_NOT_INITIALIZED = "Engine not initialized";
constexpr const char* INTERNAL_ERROR = "Internal error";
constexpr const char* ENGINE_SHUTDOWN = "Engine shutdown";
constexpr const char* NO_CHAIN = "No processor chain configured";
constexpr const char* REQUEST_ID_IN_USE = "Request id already in use";
constexpr const char* REFUSED_UNDER_LOCK =
    "Refused: called from a callback made under the engine's lock";
constexpr const char* ASYNC_TIMEOUT = "Async request timeout";
constexpr const char* PHASE_TIMEOUT = "Independent async request timeout";
constexpr const char* CHOICE_TIMEOUT = "Unlock options timeout";
constexpr const char* CHOICE_CANCELED = "User canceled relay selection";
constexpr const char* DOUBLE_AUTH_UNAVAILABLE = "DoubleAuth processor not available";
// Users and credentials.
constexpr const char* USER_NOT_FOUND = "User not found";
constexpr const char* NO_USER_DATA = "No user data";
constexpr const char* USER_NOT_YET_VALID = "User not yet valid";
constexpr const char* USER_EXPIRED = "User expired";
constexpr const char* PLATE_DATA_NOT_FOUND = "License plate key data not found";
constexpr const char* PLATE_NOT_YET_VALID = "License plate not yet valid";
constexpr const char* PLATE_EXPIRED = "License plate expired";
constexpr const char* DTMF_DATA_INVALID = "Invalid DTMF data";
constexpr const char* DTMF_DISABLED = "DTMF open disabled";
constexpr const char* DTMF_CODE_INVALID = "Invalid DTMF code";
constexpr const char* DTMF_NOT_WHITELISTED = "DTMF caller not whitelisted";
constexpr const char* REMOTE_USER_EMPTY = "Remote control user id is empty";
constexpr const char* REMOTE_TARGET_INVALID = "Remote control target invalid";
constexpr const char* TEMP_KEY_EMPTY = "Temp key is empty";
constexpr const char* TEMP_KEY_REQUEST_FAILED = "Temp key request failed";
constexpr const char* TEMP_KEY_DENIED = "Temp key dclient denied";
constexpr const char* TEMP_KEY_USER_NOT_FOUND = "Temp key user not found";
constexpr const char* HTTP_DATA_INVALID = "Invalid HTTP data";
constexpr const char* HTTP_TARGET_INVALID = "Invalid HTTP target";
constexpr const char* HTTP_DISABLED = "HTTP open disabled";
constexpr const char* HTTP_AUTHENTICATION_FAILED = "HTTP authentication failed";
constexpr const char* INPUT_DATA_INVALID = "Invalid Input data";
constexpr const char* INPUT_TARGET_INVALID = "Invalid Input target";
// Policies.
constexpr const char* NOT_IN_SCHEDULE = "Not in scheduled time";
constexpr const char* RELAY_KEY_TARGET_INVALID = "Relay key target invalid";
constexpr const char* RELAY_KEY_SCHEDULE_INVALID = "Relay key schedule invalid";
constexpr const char* HOLIDAY_NO_EXEMPT_RELAY = "Access denied: no relay with holiday exemption";
constexpr const char* RELAY_NOT_IN_SCHEDULE = "Requested relay is not in schedule";
constexpr const char* VIRTUAL_DOOR_READER_DENIED = "Virtual door reader access denied";
constexpr const char* VIRTUAL_DOOR_DENIED = "Virtual door access denied";
constexpr const char* FORBIDDEN_FOR_ALL_RELAYS = "Forbidden open type for all relays";
constexpr const char* ALL_RELAYS_LOCKED = "All relays are in lockdown";
constexpr const char* BLE_INTERVAL = "BLE open interval";
constexpr const char* TOO_MANY_ATTEMPTS = "Too many failed attempts";
// Checks against other devices.
constexpr const char* ANTI_PASSBACK_PENDING = "Anti-passback verification pending";
constexpr const char* ANTI_PASSBACK_PENDING_UNROUTED =
    "Anti-passback verification pending (no callback)";
constexpr const char* ANTI_PASSBACK_OFFLINE = "Anti-passback check skipped (offline mode)";
constexpr const char* ANTI_PASSBACK_ALL_OFFLINE =
    "Anti-passback check skipped (all relays offline)";
constexpr const char* ANTI_PASSBACK_FAILED = "Anti-passback failed for all relays";
constexpr const char* INTERLOCK_PENDING = "Interlock verification pending";
constexpr const char* INTERLOCK_UNREACHABLE = "Interlock request failed";
constexpr const char* INTERLOCK_FAILED = "Interlock failed for all relays";
constexpr const char* PARKING_PENDING = "Parking restriction check pending";
constexpr const char* PARKING_PENDING_UNROUTED = "Parking restriction check pending (no callback)";
constexpr const char* PARKING_OFFLINE = "Parking restriction check skipped (offline mode)";
/// Not a response reason: the entry of AuthContext::relayFailReasons for a relay refused because
/// the attempt itself failed (the other entries name the processor that refused the relay).
constexpr const char* RELAY_ATTEMPT_FAILED = "AuthFailed";
}  // namespace reasons

}  // namespace auth_engine
