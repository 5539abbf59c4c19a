// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// Guessing protection: counts, per reader, the refusals that mean "this code is not known" and
// locks a reader out once too many fall within a window. A fixed table: what is typed never makes
// it grow, and nothing is allocated per attempt. Private to the library.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>

#include "auth_engine/AuthTypes.h"
#include "auth_engine/IDataProvider.h"

namespace auth_engine {

class GuessGuard {
public:
    /// Readers tracked at once; the least recently used one not locked out makes room.
    static constexpr std::size_t READER_SLOTS = 16;
    /// Refusal times kept per reader: a larger AuthConfig::guessLimit counts as this.
    static constexpr int MAX_LIMIT = 32;

    /// What a counted refusal did.
    struct Outcome {
        bool lockoutStarted = false;
        int count = 0;           ///< refusals that started the lockout
        int64_t lockoutEnd = 0;  ///< uptime seconds
    };

    /// True while `reader` is locked out at uptime `now`. Reads no configuration, so that a
    /// decision with the protection off asks the host nothing more.
    bool refuses(int32_t reader, int64_t now) const;

    /// Whether a finished attempt's refusal means "not known" and is of a kind `config` counts.
    static bool counts(const AuthContext& context, const AuthConfig& config);

    /// Counts one refusal at `reader`; starts a lockout when the limit is reached.
    Outcome recordRefusal(int32_t reader, const AuthConfig& config, int64_t now);

    /// A granted attempt at `reader`: its count starts again.
    void recordGrant(int32_t reader);

    /// Fills a refusal for a locked-out reader into `context.response` (nothing is looked up for
    /// it); returns FAILED.
    static AuthResult refuse(AuthContext& context);

    /// True while `reader` is locked out now (uptime clock); the clock is read only when some
    /// reader is tracked.
    bool refusesNow(int32_t reader) const;

    /// Where an attempt's verdict is final: counts a "not known" refusal (telling the host that
    /// `host()` gives once when a lockout starts) or clears the reader's count on a grant. No host
    /// call, no clock reading and no log line while the protection is off and no reader is
    /// tracked.
    template <typename HostFn>
    void noteVerdict(const AuthContext& context, const AuthConfig& config, HostFn&& host) {
        const Outcome outcome = noteVerdict(context, config);
        if (outcome.lockoutStarted) {
            tellLockout(context, outcome, host().get());
        }
    }
    Outcome noteVerdict(const AuthContext& context, const AuthConfig& config);

    /// Forgets every count and lockout.
    void clear();

    /// Readers currently tracked (at most READER_SLOTS).
    std::size_t trackedReaders() const;

private:
    static void tellLockout(const AuthContext& context, const Outcome& outcome,
                            IDataProvider* host);

    struct Slot {
        bool used = false;
        int32_t reader = 0;
        uint64_t lastUse = 0;  ///< tick of the last use, for eviction
        int count = 0;         ///< refusal times held in `times`
        int head = 0;          ///< where the next time goes
        int64_t lockoutEnd = 0;
        std::array<int64_t, MAX_LIMIT> times{};
    };

    Slot* findLocked(int32_t reader);
    Slot& claimLocked(int32_t reader, int64_t now);

    mutable std::mutex mutex;
    std::array<Slot, READER_SLOTS> slots{};
    uint64_t ticks = 0;
    /// False while no slot is in use: the common case (protection off, no refusal yet) then never
    /// takes the mutex.
    std::atomic<bool> armed{false};
};

}  // namespace auth_engine
