// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

/// @file IAuthProcessor.h
/// @brief The processor contract (one link of the chain of responsibility) and the chain names.
#pragma once

#include <memory>
#include <string>

#include "auth_engine/AuthTypes.h"
#include "auth_engine/export.h"

namespace auth_engine {

class IDataProvider;

/// One authentication step. Processors hold no per-request state: everything per request lives in
/// the AuthContext, and configuration is fetched from the provider at each use.
///
/// process() returns CONTINUE to hand the context on, ASYNC_PENDING after asking the host, or a
/// final result that ends the chain. A host may add its own processor with
/// AuthFacade::registerProcessor and name it in setProcessorChain.
///
/// Re-entry: after ASYNC_PENDING the engine parks the request under its id; once the host has
/// answered (through the callback it was handed, or AuthFacade::handleAsyncResult under the
/// request's id) the same processor's process() is called again with the answer merged into the
/// context and context.pendingProcessor equal to its getName(). That, and nothing else, means
/// "resumed with the answer": the response's result and fail code are also written by earlier
/// processors and by answers to other questions, so a processor never infers from them that its own
/// question was answered. A request that is not answered in time ends FAILED without a second call.
class AUTH_ENGINE_API IAuthProcessor {
public:
    virtual ~IAuthProcessor() = default;
    virtual AuthResult process(AuthContext& context, IDataProvider& provider) = 0;
    /// The name under which the engine registers the processor and a chain names it.
    virtual std::string getName() const = 0;
    void setNext(std::shared_ptr<IAuthProcessor> next);
    std::shared_ptr<IAuthProcessor> getNext() const;

protected:
    std::shared_ptr<IAuthProcessor> next;
};

/// The chain names of the built-in processors.
namespace chain {
constexpr const char* USER_LOOKUP = "UserLookup";
constexpr const char* DTMF = "Dtmf";
constexpr const char* REMOTE_CONTROL = "RemoteControl";
constexpr const char* TEMP_KEY = "TempKey";
constexpr const char* HTTP = "Http";
constexpr const char* INPUT = "Input";
constexpr const char* DOUBLE_AUTH = "DoubleAuth";
constexpr const char* TIME_CHECK = "TimeCheck";
constexpr const char* BLE_INTERVAL = "BleInterval";
constexpr const char* VIRTUAL_DOOR = "VirtualDoor";
constexpr const char* HOLIDAY_CHECK = "HolidayCheck";
constexpr const char* UNLOCK_TYPE = "UnlockType";
constexpr const char* LOCK_DOWN = "LockDown";
constexpr const char* ANTI_PASSBACK = "AntiPassback";
constexpr const char* INTERLOCK = "Interlock";
constexpr const char* PARKING_RESTRICTION = "ParkingRestriction";
}  // namespace chain

}  // namespace auth_engine
