// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// Relay-list text: any text parses into valid relay ids, joining them and parsing again gives the
// same list, every digit of the text is one relay, and a ',' is a clean cut between two texts.
#include <cctype>

#include "FuzzInput.h"
#include "auth_engine/AuthLogger.h"

namespace auth_engine {
namespace fuzz {

void fuzzOne(FuzzInput& in) {
    const std::string text = in.rest();
    const Relays relays = parseRelayString(text);
    const auto isDigit = [](char c) { return c >= '0' && c <= '9'; };
    std::string digitsOfText;
    std::copy_if(text.begin(), text.end(), std::back_inserter(digitsOfText), isDigit);
    std::string digitRelays;
    std::size_t joinedLength = 0;
    for (const std::string& id : relays) {
        // A digit, or 'S' and a letter.
        const bool valid = (id.size() == 1 && isDigit(id[0])) ||
                           (id.size() == 2 && id[0] == 'S' &&
                            std::isalpha(static_cast<unsigned char>(id[1])) != 0);
        FUZZ_CHECK(valid, "relay id \"" + id + "\" in " + joinForDetail(relays));
        digitRelays += id.size() == 1 ? id : std::string();
        joinedLength += id.size();
    }
    // No digit is swallowed or invented: "12" is the relays 1 and 2, "S1" is the relay 1.
    FUZZ_CHECK(digitRelays == digitsOfText, "digits " + digitsOfText + " gave " + digitRelays);

    const std::string joined = joinRelayVector(relays);
    FUZZ_CHECK(joined.size() == joinedLength + (relays.empty() ? 0 : relays.size() - 1),
               "joined \"" + joined + "\"");
    FUZZ_CHECK(parseRelayString(joined) == relays, "round trip of \"" + joined + "\"");

    // A ',' ends a token: parsing two halves apart equals parsing them joined by a ','.
    const std::size_t cut = text.size() / 2;
    Relays halves = parseRelayString(text.substr(0, cut));
    const Relays second = parseRelayString(text.substr(cut));
    halves.insert(halves.end(), second.begin(), second.end());
    FUZZ_CHECK(parseRelayString(text.substr(0, cut) + "," + text.substr(cut)) == halves,
               "cut at " + std::to_string(cut));
}

}  // namespace fuzz
}  // namespace auth_engine
