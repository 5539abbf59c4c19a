#include <cctype>
#include <string>
#include <vector>

#include "auth_engine/AuthLogger.h"

namespace auth_engine {

std::vector<std::string> parseRelayString(const std::string& text) {
    std::vector<std::string> relays;
    const size_t size = text.size();
    // Every id takes at least one character: one allocation instead of a growth per id for the
    // usual short texts, without trusting the size of a long one.
    relays.reserve(size < 8 ? size : 8);
    for (size_t i = 0; i < size; ++i) {
        const auto byte = static_cast<unsigned char>(text[i]);
        if (byte == 'S' && i + 1 < size && std::isalpha(static_cast<unsigned char>(text[i + 1])) != 0) {
            relays.push_back(text.substr(i, 2));
            ++i;
        } else if (byte >= '0' && byte <= '9') {
            relays.emplace_back(1, static_cast<char>(byte));
        }
        // Separators, blanks and any other byte are skipped.
    }
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
