// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// Relay ids read straight out of a text, without building a list first: the reading rule of
// parseRelayString, for callers that look at each id once.
#pragma once

#include <cctype>
#include <cstddef>
#include <string>

namespace auth_engine {

/// Calls visit(id) for each relay id in text[first, last) (last is clamped to the text), in order
/// and with repeats: a single digit, or "S" followed by one letter; every other byte is skipped.
template <typename Visit>
void forEachRelayId(const std::string& text, std::size_t first, std::size_t last, Visit&& visit) {
    const std::size_t end = last < text.size() ? last : text.size();
    for (std::size_t i = first; i < end; ++i) {
        const auto byte = static_cast<unsigned char>(text[i]);
        if (byte == 'S' && i + 1 < end &&
            std::isalpha(static_cast<unsigned char>(text[i + 1])) != 0) {
            visit(std::string(text, i, 2));
            ++i;
        } else if (byte >= '0' && byte <= '9') {
            visit(std::string(1, static_cast<char>(byte)));
        }
    }
}

}  // namespace auth_engine
