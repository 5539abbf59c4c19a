// Shared by the fuzz targets: a reader that turns the fuzzer's bytes into small decisions, the
// failure check, and the common set-up (quiet log, UTC calendar).
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

#include "auth_engine/AuthLogger.h"

namespace auth_engine {
namespace fuzz {

/// Reads the input front to back. Reading past the end yields zeros, so every input, however
/// short, decodes to something; decisions made from zeros are the plain, common ones.
class FuzzInput {
public:
    FuzzInput(const uint8_t* data, std::size_t size) : data(data), size(size) {}

    bool empty() const { return position >= size; }

    uint8_t byte() { return position < size ? data[position++] : 0; }

    bool flag() { return (byte() & 1) != 0; }

    /// A value in [low, high] (both inclusive; low <= high).
    int range(int low, int high) {
        const auto span = static_cast<uint32_t>(static_cast<int64_t>(high) - low + 1);
        uint32_t raw = byte();
        if (span > 256) {
            raw = (raw << 8) | byte();
        }
        return static_cast<int>(static_cast<int64_t>(low) + raw % span);
    }

    int64_t int64() {
        uint64_t value = 0;
        for (int i = 0; i < 8; ++i) {
            value = (value << 8) | byte();
        }
        return static_cast<int64_t>(value);
    }

    int32_t int32() {
        uint32_t value = 0;
        for (int i = 0; i < 4; ++i) {
            value = (value << 8) | byte();
        }
        return static_cast<int32_t>(value);
    }

    template <typename T>
    const T& pick(const std::vector<T>& options) {
        return options[static_cast<std::size_t>(range(0, static_cast<int>(options.size()) - 1))];
    }

    /// Up to `maxLength` raw bytes (NUL and non-ASCII included), length first.
    std::string bytes(std::size_t maxLength) {
        const std::size_t length = byte() % (maxLength + 1);
        std::string text;
        for (std::size_t i = 0; i < length && !empty(); ++i) {
            text += static_cast<char>(byte());
        }
        return text;
    }

    /// Up to `maxLength` characters drawn from `alphabet`, length first.
    std::string textFrom(const std::string& alphabet, std::size_t maxLength) {
        const std::size_t length = byte() % (maxLength + 1);
        std::string text;
        for (std::size_t i = 0; i < length && !empty(); ++i) {
            text += alphabet[byte() % alphabet.size()];
        }
        return text;
    }

private:
    const uint8_t* data;
    std::size_t size;
    std::size_t position = 0;
};

[[noreturn]] inline void fuzzFailure(const char* file, int line, const char* condition,
                                     const std::string& detail) {
    (void)std::fprintf(stderr, "%s:%d: invariant violated: %s\n%s\n", file, line, condition,
                       detail.c_str());
    std::fflush(stderr);
    std::abort();
}

/// Aborts (a crash for libFuzzer, a failure for the replay) when `condition` does not hold.
#define FUZZ_CHECK(condition, detail)                                                   \
    do {                                                                                \
        if (!(condition)) {                                                             \
            ::auth_engine::fuzz::fuzzFailure(__FILE__, __LINE__, #condition, (detail)); \
        }                                                                               \
    } while (0)

/// Calendars in UTC; the library's log goes nowhere unless AUTH_FUZZ_LOG is set (then stderr),
/// so that a crashing input can be replayed with its log. Lines are still formatted when dropped:
/// a bad format argument then shows up under the sanitizers.
inline void fuzzSetUp() {
    setenv("TZ", "UTC", 1);
    tzset();
    if (std::getenv("AUTH_FUZZ_LOG") != nullptr) {
        AuthLogger::setSink(
            [](int, const std::string& line) { (void)std::fprintf(stderr, "%s\n", line.c_str()); });
    } else {
        AuthLogger::setSink([](int, const std::string&) {});
    }
}

inline std::string joinForDetail(const std::vector<std::string>& list) {
    std::string text = "[";
    for (std::size_t i = 0; i < list.size(); ++i) {
        text += (i == 0 ? "\"" : ", \"") + list[i] + "\"";
    }
    return text + "]";
}

}  // namespace fuzz
}  // namespace auth_engine
