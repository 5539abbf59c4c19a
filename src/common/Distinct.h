// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// Keeping the first of each value of a list, and asking whether a list holds a value, in time that
// grows linearly with the host's data. A decision usually meets a handful of relays or targets:
// those are compared in place, without allocating. A host that hands over thousands (a relay key
// naming a hundred thousand schedules, say) gets a hash set instead of a quadratic scan.
#pragma once

#include <algorithm>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <unordered_set>
#include <utility>
#include <vector>

#include "auth_engine/AuthTypes.h"

namespace auth_engine {

/// Lists up to this size are searched in place.
constexpr std::size_t kDistinctInPlace = 16;

/// Remembers the values it was offered.
template <typename T, typename Hash = std::hash<T>>
class SeenSet {
public:
    SeenSet() = default;
    /// Seeded with every value of `values`.
    explicit SeenSet(const std::vector<T>& values) {
        for (const T& value : values) {
            insert(value);
        }
    }

    /// True the first time `value` is offered.
    bool insert(const T& value) {
        if (!hashed.empty()) {
            return hashed.insert(value).second;
        }
        if (std::find(few.begin(), few.end(), value) != few.end()) {
            return false;
        }
        few.push_back(value);
        if (few.size() > kDistinctInPlace) {
            hashed.insert(std::make_move_iterator(few.begin()), std::make_move_iterator(few.end()));
            few.clear();
        }
        return true;
    }

    bool contains(const T& value) const {
        if (!hashed.empty()) {
            return hashed.count(value) != 0;
        }
        return std::find(few.begin(), few.end(), value) != few.end();
    }

private:
    std::vector<T> few;
    std::unordered_set<T, Hash> hashed;
};

/// The hash set of a list that grew long, made on first use: a short list never pays for it.
template <typename T>
class LazyIndex {
public:
    std::unordered_set<T>& get() {
        if (!set) {
            set = std::make_unique<std::unordered_set<T>>();
        }
        return *set;
    }

private:
    std::unique_ptr<std::unordered_set<T>> set;
};

/// Appends `value` to `list` unless the list holds it already; true when it was appended.
/// `indexOf()` gives the list's LazyIndex, asked for only once the list has grown past what a scan
/// handles well (the index is filled from the list then).
template <typename T, typename IndexOf>
bool appendDistinct(std::vector<T>& list, IndexOf&& indexOf, const T& value) {
    if (list.size() <= kDistinctInPlace) {
        if (std::find(list.begin(), list.end(), value) != list.end()) {
            return false;
        }
        list.push_back(value);
        return true;
    }
    std::unordered_set<T>& index = indexOf().get();
    if (index.empty()) {
        index.insert(list.begin(), list.end());
    }
    if (!index.insert(value).second) {
        return false;
    }
    list.push_back(value);
    return true;
}

/// Membership in a list that stays as it is: short lists are scanned where they lie, a long one is
/// indexed once. The list must outlive the lookup and stay unchanged.
class ListLookup {
public:
    explicit ListLookup(const std::vector<std::string>& values) : list(values) {
        if (list.size() > kDistinctInPlace) {
            index = std::make_unique<Index>();
            index->reserve(list.size());
            for (const std::string& value : list) {
                index->insert(&value);
            }
        }
    }

    bool contains(const std::string& value) const {
        if (!index) {
            return std::find(list.begin(), list.end(), value) != list.end();
        }
        return index->count(&value) != 0;
    }

private:
    struct ByText {
        std::size_t operator()(const std::string* text) const {
            return std::hash<std::string>()(*text);
        }
        bool operator()(const std::string* a, const std::string* b) const { return *a == *b; }
    };
    using Index = std::unordered_set<const std::string*, ByText, ByText>;
    const std::vector<std::string>& list;
    std::unique_ptr<Index> index;
};

/// A list of targets in which each kind and id appears once, however long the list grows.
class DistinctTargets {
public:
    explicit DistinctTargets(std::vector<AuthTarget>& list) : targets(list) {}

    /// Appends a target of this kind and id unless the list has one; true when it was appended.
    bool add(int type, const std::string& id) {
        if (targets.size() <= kDistinctInPlace) {
            const auto same = [&](const AuthTarget& target) {
                return target.type == type && target.relay == id;
            };
            if (std::any_of(targets.begin(), targets.end(), same)) {
                return false;
            }
        } else {
            std::unordered_set<std::string>& index = keys.get();
            if (index.empty()) {
                for (const AuthTarget& target : targets) {
                    index.insert(keyOf(target.type, target.relay));
                }
            }
            if (!index.insert(keyOf(type, id)).second) {
                return false;
            }
        }
        targets.push_back(AuthTarget{type, id});
        return true;
    }

private:
    static std::string keyOf(int type, const std::string& id) {
        return std::to_string(type) + ':' + id;
    }
    std::vector<AuthTarget>& targets;
    LazyIndex<std::string> keys;
};

/// `values` with repeats dropped, first appearance kept.
inline std::vector<std::string> distinctInOrder(const std::vector<std::string>& values) {
    std::vector<std::string> kept;
    kept.reserve(values.size());
    LazyIndex<std::string> index;
    for (const std::string& value : values) {
        appendDistinct(
            kept, [&index]() -> auto& { return index; }, value);
    }
    return kept;
}

/// Appends each relay of a door command's relay targets (kinds 0 and 1, non-empty) to `relays`
/// unless it is there already.
inline void appendTargetRelays(std::vector<std::string>& relays,
                               const std::vector<AuthTarget>& targets) {
    LazyIndex<std::string> index;
    for (const AuthTarget& target : targets) {
        if ((target.type == 0 || target.type == 1) && !target.relay.empty()) {
            appendDistinct(
                relays, [&index]() -> auto& { return index; }, target.relay);
        }
    }
}

}  // namespace auth_engine
