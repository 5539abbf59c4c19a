// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

/// @file auth_engine.h
/// @brief Umbrella header: everything a host needs.
#pragma once

#include "auth_engine/AuthClock.h"
#include "auth_engine/AuthFacade.h"
#include "auth_engine/AuthLogger.h"
#include "auth_engine/AuthTypes.h"
#include "auth_engine/FailCodes.h"
#include "auth_engine/IAuthProcessor.h"
#include "auth_engine/IDataProvider.h"
#include "auth_engine/Trace.h"
#include "auth_engine/export.h"
#include "auth_engine/version.h"
