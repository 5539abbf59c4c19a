// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// Relay-list texts: splitting and joining the comma-separated lists hosts and logs use.
#include <string>
#include <utility>
#include <vector>

#include "auth_engine/AuthLogger.h"
#include "common/RelayScan.h"

namespace auth_engine {

std::vector<std::string> parseRelayString(const std::string& text) {
    std::vector<std::string> relays;
    const size_t size = text.size();
    // Every id takes at least one character: one allocation instead of a growth per id for the
    // usual short texts, without trusting the size of a long one.
    relays.reserve(size < 8 ? size : 8);
    forEachRelayId(text, 0, size, [&relays](std::string&& id) { relays.push_back(std::move(id)); });
    return relays;
}

std::string joinRelayVector(const std::vector<std::string>& relays) {
    std::string text;
    for (size_t i = 0; i < relays.size(); ++i) {
        if (i > 0) {
            text += ',';
        }
        text += relays[i];
    }
    return text;
}

}  // namespace auth_engine
