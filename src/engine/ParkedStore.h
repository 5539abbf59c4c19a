// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// Everything the engine has parked while it waits for the host: chains waiting for an answer and
// independent relay phases, in one store. Whatever leaves it, by resume, timeout, sweep or
// shutdown, leaves through one path that also closes its questions. Not locked itself: the engine
// holds its queue lock around every use.
#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <string>
#include <utility>

#include "auth_engine/AuthTypes.h"

namespace auth_engine {

template <typename Chain, typename Phase>
class ParkedStore {
public:
    /// Called with the id of everything that leaves the store, before it goes.
    explicit ParkedStore(std::function<void(const std::string&)> leaving)
        : onLeave(std::move(leaving)) {}

    bool holds(const std::string& id) const {
        return chains.count(id) != 0 || phases.count(id) != 0;
    }
    std::size_t chainCount() const { return chains.size(); }
    std::size_t phaseCount() const { return phases.size(); }

    Chain* chain(const std::string& id) { return find(chains, id); }
    Phase* phase(const std::string& id) { return find(phases, id); }
    /// The context of what is parked under `id` (a phase before a chain), or null.
    AuthContext* contextOf(const std::string& id) {
        if (Phase* const found = phase(id)) {
            return &found->context;
        }
        Chain* const found = chain(id);
        return found != nullptr ? &found->context : nullptr;
    }

    void park(const std::string& id, Chain record) { chains[id] = std::move(record); }
    void park(const std::string& id, Phase record) { phases[id] = std::move(record); }

    /// Takes what is parked under `id` out into `out`; false (and `out` untouched) when nothing is.
    bool take(const std::string& id, Chain& out) { return takeFrom(chains, id, out); }
    bool take(const std::string& id, Phase& out) { return takeFrom(phases, id, out); }
    /// Takes the phase parked under `id` out to be parked again at once (an interlock retry): its
    /// questions stay open. False when nothing is parked under `id`.
    bool lift(const std::string& id, Phase& out) {
        const auto found = phases.find(id);
        if (found == phases.end()) {
            return false;
        }
        out = std::move(found->second);
        phases.erase(found);
        return true;
    }
    /// Removes the chain parked under `id`, if any.
    void dropChain(const std::string& id) {
        Chain ignored;
        takeFrom(chains, id, ignored);
    }

    /// Calls `fn(id, record)` for every chain (or phase); a record for which it returns true
    /// leaves the store.
    template <typename Fn>
    void sweepChains(Fn&& fn) {
        sweepMap(chains, fn);
    }
    template <typename Fn>
    void sweepPhases(Fn&& fn) {
        sweepMap(phases, fn);
    }

    /// Empties the store into `chainsOut` and `phasesOut` (the shutdown); the questions of what
    /// was parked are the caller's to close.
    void drain(std::map<std::string, Chain>& chainsOut, std::map<std::string, Phase>& phasesOut) {
        chainsOut = std::move(chains);
        chains.clear();
        phasesOut = std::move(phases);
        phases.clear();
    }

    /// Read-only views for inspection.
    const std::map<std::string, Chain>& allChains() const { return chains; }
    const std::map<std::string, Phase>& allPhases() const { return phases; }

private:
    template <typename Record>
    static Record* find(std::map<std::string, Record>& records, const std::string& id) {
        const auto found = records.find(id);
        return found == records.end() ? nullptr : &found->second;
    }
    template <typename Record>
    bool takeFrom(std::map<std::string, Record>& records, const std::string& id, Record& out) {
        const auto found = records.find(id);
        if (found == records.end()) {
            return false;
        }
        onLeave(id);
        out = std::move(found->second);
        records.erase(found);
        return true;
    }
    template <typename Record, typename Fn>
    void sweepMap(std::map<std::string, Record>& records, Fn& fn) {
        for (auto entry = records.begin(); entry != records.end();) {
            if (fn(entry->first, entry->second)) {
                onLeave(entry->first);
                entry = records.erase(entry);
            } else {
                ++entry;
            }
        }
    }

    std::function<void(const std::string&)> onLeave;
    std::map<std::string, Chain> chains;
    std::map<std::string, Phase> phases;
};

}  // namespace auth_engine
