// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// Relay-list text: any text parses into valid relay ids, joining them and parsing again gives the
// same list, every digit of the text is one relay, and a ',' is a clean cut between two texts.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "FuzzInput.h"
#include "auth_engine/AuthLogger.h"

namespace auth_engine {
namespace fuzz {
namespace {

bool isLetter(char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
}

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

bool isRelayId(const std::string& id) {
    return (id.size() == 1 && isDigit(id[0])) ||
           (id.size() == 2 && id[0] == 'S' && isLetter(id[1]));
}

}  // namespace

void fuzzOne(FuzzInput& in) {
    const std::string text = in.rest();
    const std::size_t size = text.size();
    const std::vector<std::string> relays = parseRelayString(text);

    std::string digitsOfText;
    for (const char c : text) {
        if (isDigit(c)) {
            digitsOfText.push_back(c);
        }
    }
    std::string digitRelays;
    std::size_t joinedLength = 0;
    for (const std::string& id : relays) {
        FUZZ_CHECK(isRelayId(id), "relay id \"" + id + "\" in " + joinForDetail(relays));
        if (id.size() == 1) {
            digitRelays += id;
        }
        joinedLength += id.size();
    }
    // No digit is swallowed or invented: "12" is the relays 1 and 2, "S1" is the relay 1.
    FUZZ_CHECK(digitRelays == digitsOfText, "digits " + digitsOfText + " gave " + digitRelays);

    const std::string joined = joinRelayVector(relays);
    FUZZ_CHECK(joined.size() == joinedLength + (relays.empty() ? 0 : relays.size() - 1),
               "joined \"" + joined + "\"");
    FUZZ_CHECK(parseRelayString(joined) == relays, "round trip of \"" + joined + "\"");

    // A ',' ends a token: parsing two halves apart equals parsing them joined by a ','.
    const std::size_t cut = size / 2;
    std::vector<std::string> halves = parseRelayString(text.substr(0, cut));
    const std::vector<std::string> second = parseRelayString(text.substr(cut));
    halves.insert(halves.end(), second.begin(), second.end());
    FUZZ_CHECK(parseRelayString(text.substr(0, cut) + "," + text.substr(cut)) == halves,
               "cut at " + std::to_string(cut));
}

}  // namespace fuzz
}  // namespace auth_engine
