// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// Guessing protection (see GuessGuard.h): counts refused unknown codes per reader and holds
// lockouts.
#include "engine/GuessGuard.h"

#include <algorithm>

#include "auth_engine/AuthClock.h"
#include "auth_engine/AuthLogger.h"
#include "auth_engine/FailCodes.h"
#include "common/ProcessorSupport.h"
#include "engine/HostCall.h"

namespace auth_engine {

namespace {

bool isCard(OpenDoorType openType) {
    return openType == OPEN_TYPE_CARD || openType == OPEN_TYPE_CARD_6 ||
           openType == OPEN_TYPE_CARD_8;
}

}  // namespace

bool GuessGuard::refuses(int32_t reader, int64_t now) const {
    if (!armed.load(std::memory_order_acquire)) {
        return false;
    }
    std::lock_guard<std::mutex> lock(mutex);
    for (const Slot& slot : slots) {
        if (slot.used && slot.reader == reader) {
            return now < slot.lockoutEnd;
        }
    }
    return false;
}

bool GuessGuard::refusesNow(int32_t reader) const {
    return armed.load(std::memory_order_acquire) && refuses(reader, AuthClock::uptime());
}

bool GuessGuard::counts(const AuthContext& context, const AuthConfig& config) {
    if (config.guessLimit <= 0 || context.response.result != FAILED) {
        return false;
    }
    const OpenDoorType kind = context.request.openType;
    if (!isMemorisedCode(kind) && !(config.guessCountsCards && isCard(kind))) {
        return false;
    }
    const AuthResponse& response = context.response;
    if (response.failCode == fail::WRONG_SECOND_FACTOR ||
        response.failCode == fail::SECOND_FACTOR_OTHER_USER) {
        return true;
    }
    return response.failCode == fail::GENERIC && (response.reason == reasons::USER_NOT_FOUND ||
                                                  response.reason == reasons::DTMF_CODE_INVALID);
}

GuessGuard::Outcome GuessGuard::recordRefusal(int32_t reader, const AuthConfig& config,
                                              int64_t now) {
    Outcome outcome;
    if (config.guessLimit <= 0) {
        return outcome;
    }
    const int limit = std::min(config.guessLimit, MAX_LIMIT);
    const int64_t window = std::max(config.guessWindowSeconds, 0);
    std::lock_guard<std::mutex> lock(mutex);
    Slot& slot = claimLocked(reader, now);
    // Only the times inside the window count; the oldest sit at the tail of the ring.
    int kept = 0;
    for (int i = slot.count; i > 0; --i) {
        const int64_t time = slot.times[(slot.head - i + MAX_LIMIT) % MAX_LIMIT];
        if (now - time < window) {
            kept = i;
            break;
        }
    }
    slot.count = kept;
    slot.times[slot.head] = now;
    slot.head = (slot.head + 1) % MAX_LIMIT;
    slot.count = std::min(slot.count + 1, MAX_LIMIT);
    if (slot.count >= limit) {
        outcome.lockoutStarted = true;
        outcome.count = slot.count;
        outcome.lockoutEnd = now + std::max(config.guessLockoutSeconds, 0);
        slot.lockoutEnd = outcome.lockoutEnd;
        slot.count = 0;
    }
    return outcome;
}

AuthResult GuessGuard::refuse(AuthContext& context) {
    context.response.failCode = fail::TOO_MANY_ATTEMPTS;
    context.response.reason = reasons::TOO_MANY_ATTEMPTS;
    AuthLogger::info("[GuessGuard:%d] reader=%d locked out, result=%s", __LINE__,
                     static_cast<int>(context.request.readerType),
                     AuthLogger::authResultToString(FAILED));
    return FAILED;
}

GuessGuard::Outcome GuessGuard::noteVerdict(const AuthContext& context, const AuthConfig& config) {
    const int32_t reader = context.request.readerType;
    if (context.response.result == SUCCESS) {
        recordGrant(reader);
        return Outcome{};
    }
    if (!counts(context, config)) {
        return Outcome{};
    }
    return recordRefusal(reader, config, AuthClock::uptime());
}

void GuessGuard::tellLockout(const AuthContext& context, const Outcome& outcome,
                             IDataProvider* host) {
    AuthLogger::info(
        "[GuessGuard:%d] reader=%d locked out after %d unknown codes until uptime %lld", __LINE__,
        static_cast<int>(context.request.readerType), outcome.count,
        static_cast<long long>(outcome.lockoutEnd));
    if (host != nullptr) {
        callHost("onGuessLockout", [&] {
            host->onGuessLockout(context.request.readerType, outcome.count, outcome.lockoutEnd);
        });
    }
}

void GuessGuard::recordGrant(int32_t reader) {
    if (!armed.load(std::memory_order_acquire)) {
        return;
    }
    std::lock_guard<std::mutex> lock(mutex);
    if (Slot* slot = findLocked(reader)) {
        slot->count = 0;
    }
}

void GuessGuard::clear() {
    std::lock_guard<std::mutex> lock(mutex);
    slots.fill(Slot{});
    ticks = 0;
    armed.store(false, std::memory_order_release);
}

std::size_t GuessGuard::trackedReaders() const {
    std::lock_guard<std::mutex> lock(mutex);
    return static_cast<std::size_t>(
        std::count_if(slots.begin(), slots.end(), [](const Slot& slot) { return slot.used; }));
}

GuessGuard::Slot* GuessGuard::findLocked(int32_t reader) {
    for (Slot& slot : slots) {
        if (slot.used && slot.reader == reader) {
            slot.lastUse = ++ticks;
            return &slot;
        }
    }
    return nullptr;
}

GuessGuard::Slot& GuessGuard::claimLocked(int32_t reader, int64_t now) {
    if (Slot* found = findLocked(reader)) {
        return *found;
    }
    // A free slot, else the least recently used reader that is not locked out: a lockout is never
    // dropped to make room while another slot could give way.
    Slot* victim = nullptr;
    for (Slot& slot : slots) {
        if (!slot.used) {
            victim = &slot;
            break;
        }
        const bool lockedOut = now < slot.lockoutEnd;
        const bool victimLockedOut = victim != nullptr && now < victim->lockoutEnd;
        if (victim == nullptr || (victimLockedOut && !lockedOut) ||
            (victimLockedOut == lockedOut && slot.lastUse < victim->lastUse)) {
            victim = &slot;
        }
    }
    *victim = Slot{};
    victim->used = true;
    victim->reader = reader;
    victim->lastUse = ++ticks;
    armed.store(true, std::memory_order_release);
    return *victim;
}

}  // namespace auth_engine
