// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// The table of built-in processors (see BuiltinProcessors.h).
#include "processors/BuiltinProcessors.h"

#include "processors/AntiPassbackProcessor.h"
#include "processors/BleIntervalProcessor.h"
#include "processors/DoubleAuthProcessor.h"
#include "processors/DtmfProcessor.h"
#include "processors/HolidayCheckProcessor.h"
#include "processors/HttpProcessor.h"
#include "processors/InputProcessor.h"
#include "processors/InterlockProcessor.h"
#include "processors/LockDownProcessor.h"
#include "processors/ParkingRestrictionProcessor.h"
#include "processors/RemoteControlProcessor.h"
#include "processors/TempKeyProcessor.h"
#include "processors/TimeCheckProcessor.h"
#include "processors/UnlockTypeProcessor.h"
#include "processors/UserLookupProcessor.h"
#include "processors/VirtualDoorProcessor.h"

namespace auth_engine {
namespace processors {

namespace {

template <typename Processor>
std::shared_ptr<IAuthProcessor> make() {
    return std::make_shared<Processor>();
}

}  // namespace

const std::vector<BuiltinProcessor>& builtinProcessors() {
    // Credential processors first, so that a DTMF, remote-control, temporary-key, HTTP or input
    // open resolves its user before the generic lookup; policies follow.
    static const std::vector<BuiltinProcessor> table = {
        {chain::DTMF, &make<DtmfProcessor>, true},
        {chain::REMOTE_CONTROL, &make<RemoteControlProcessor>, true},
        {chain::TEMP_KEY, &make<TempKeyProcessor>, true},
        {chain::HTTP, &make<HttpProcessor>, true},
        {chain::INPUT, &make<InputProcessor>, true},
        {chain::USER_LOOKUP, &make<UserLookupProcessor>, true},
        {chain::DOUBLE_AUTH, &make<DoubleAuthProcessor>, true},
        {chain::VIRTUAL_DOOR, &make<VirtualDoorProcessor>, true},
        {chain::TIME_CHECK, &make<TimeCheckProcessor>, true},
        {chain::BLE_INTERVAL, &make<BleIntervalProcessor>, true},
        {chain::HOLIDAY_CHECK, &make<HolidayCheckProcessor>, true},
        {chain::UNLOCK_TYPE, &make<UnlockTypeProcessor>, true},
        {chain::LOCK_DOWN, &make<LockDownProcessor>, true},
        {chain::ANTI_PASSBACK, &make<AntiPassbackProcessor>, false},
        {chain::INTERLOCK, &make<InterlockProcessor>, false},
        {chain::PARKING_RESTRICTION, &make<ParkingRestrictionProcessor>, false},
    };
    return table;
}

}  // namespace processors
}  // namespace auth_engine
