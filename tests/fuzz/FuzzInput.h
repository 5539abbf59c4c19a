// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// Shared by the fuzz targets: a reader that turns the fuzzer's bytes into small decisions, the
// failure check, the entry every target defines, and list helpers for the failure details.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

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

    /// A value in [low, high] (both inclusive; low <= high); spans over 256 read two bytes.
    int range(int low, int high) {
        const auto span = static_cast<uint32_t>(static_cast<int64_t>(high) - low + 1);
        const uint32_t raw = span > 256 ? bigEndian<uint16_t>() : byte();
        return static_cast<int>(static_cast<int64_t>(low) + raw % span);
    }

    int64_t int64() { return static_cast<int64_t>(bigEndian<uint64_t>()); }
    int32_t int32() { return static_cast<int32_t>(bigEndian<uint32_t>()); }

    template <typename T>
    const T& pick(const std::vector<T>& options) {
        return options[static_cast<std::size_t>(range(0, static_cast<int>(options.size()) - 1))];
    }

    /// A length byte (up to `maxLength`), then one byte per character (fewer when the input
    /// ends): raw bytes, NUL and non-ASCII included.
    std::string bytes(std::size_t maxLength) { return textFrom(std::string(), maxLength); }

    /// As bytes(), each byte mapped to a character of `alphabet` (when not empty).
    std::string textFrom(const std::string& alphabet, std::size_t maxLength) {
        const std::size_t length = byte() % (maxLength + 1);
        std::string out;
        for (std::size_t i = 0; i < length && !empty(); ++i) {
            const uint8_t raw = byte();
            out += alphabet.empty() ? static_cast<char>(raw) : alphabet[raw % alphabet.size()];
        }
        return out;
    }

    /// Everything not read yet, as it is.
    std::string rest() {
        const std::size_t from = std::exchange(position, size);
        return std::string(reinterpret_cast<const char*>(data) + from, size - from);
    }

private:
    template <typename Unsigned>
    Unsigned bigEndian() {
        Unsigned value = 0;
        for (std::size_t i = 0; i < sizeof(Unsigned); ++i) {
            value = static_cast<Unsigned>((value << 8) | byte());
        }
        return value;
    }

    const uint8_t* data;
    std::size_t size;
    std::size_t position = 0;
};

/// Aborts (a crash for libFuzzer, a failure for the replay) when `condition` does not hold; the
/// detail is built only then.
#define FUZZ_CHECK(condition, detail)                                                           \
    ((condition) ? void()                                                                       \
                 : ((void)std::fprintf(stderr, "%s:%d: invariant violated: %s\n%s\n", __FILE__, \
                                       __LINE__, #condition, std::string(detail).c_str()),      \
                    std::abort()))

/// The check of one input; each target defines it, and fuzz_entry.cpp hands every input to it.
void fuzzOne(FuzzInput& in);

using Relays = std::vector<std::string>;

inline bool contains(const Relays& list, const std::string& value) {
    return std::find(list.begin(), list.end(), value) != list.end();
}

inline std::string joinForDetail(const Relays& list) {
    std::string text;
    for (const std::string& item : list) {
        text += (text.empty() ? "[\"" : ", \"") + item + "\"";
    }
    return text.empty() ? "[]" : text + "]";
}

}  // namespace fuzz
}  // namespace auth_engine
