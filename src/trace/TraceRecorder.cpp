// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// The ring of events and its JSON lines. Each slot keeps its strings between uses, so a warm ring
// records without allocating; the lock is held only to copy an event in or out.
#include <cstdio>
#include <cstring>
#include <functional>
#include <random>
#include <sstream>
#include <thread>

#include "auth_engine/Trace.h"
#include "auth_engine/version.h"

namespace auth_engine {

namespace {

uint64_t rotate(uint64_t x, int bits) {
    return (x << bits) | (x >> (64 - bits));
}

void sipRound(uint64_t& v0, uint64_t& v1, uint64_t& v2, uint64_t& v3) {
    v0 += v1;
    v1 = rotate(v1, 13);
    v1 ^= v0;
    v0 = rotate(v0, 32);
    v2 += v3;
    v3 = rotate(v3, 16);
    v3 ^= v2;
    v0 += v3;
    v3 = rotate(v3, 21);
    v3 ^= v0;
    v2 += v1;
    v1 = rotate(v1, 17);
    v1 ^= v2;
    v2 = rotate(v2, 32);
}

uint64_t littleEndian(const uint8_t* bytes, std::size_t count) {
    uint64_t value = 0;
    for (std::size_t i = 0; i < count; ++i) {
        value |= static_cast<uint64_t>(bytes[i]) << (8 * i);
    }
    return value;
}

void appendHex(std::string& out, uint64_t value) {
    char digits[17];
    (void)std::snprintf(digits, sizeof(digits), "%016llx", static_cast<unsigned long long>(value));
    out.append(digits, 16);
}

}  // namespace

const char* traceKindName(TraceKind kind) {
    switch (kind) {
        case TraceKind::CALL:
            return "call";
        case TraceKind::RETURN:
            return "return";
        case TraceKind::OP:
            return "op";
        case TraceKind::ANSWER:
            return "answer";
        case TraceKind::REPORT:
            return "report";
        case TraceKind::CLOCK:
            return "clock";
    }
    return "unknown";
}

TraceSink::~TraceSink() = default;

void TraceSink::writeSecret(const std::string& secret, std::string& out) const {
    out += secret;
}

struct TraceRecorder::Slot {
    uint64_t seq = 0;
    int64_t uptime = 0;
    int64_t wall = 0;
    int64_t micros = 0;
    int thread = 0;
    TraceKind kind = TraceKind::CALL;
    std::string name;
    std::string fields;
};

uint64_t TraceRecorder::sipHash24(const uint8_t key[16], const void* data, std::size_t length) {
    const uint64_t k0 = littleEndian(key, 8);
    const uint64_t k1 = littleEndian(key + 8, 8);
    uint64_t v0 = 0x736f6d6570736575ULL ^ k0;
    uint64_t v1 = 0x646f72616e646f6dULL ^ k1;
    uint64_t v2 = 0x6c7967656e657261ULL ^ k0;
    uint64_t v3 = 0x7465646279746573ULL ^ k1;
    const auto* bytes = static_cast<const uint8_t*>(data);
    const std::size_t whole = length - length % 8;
    for (std::size_t i = 0; i < whole; i += 8) {
        const uint64_t m = littleEndian(bytes + i, 8);
        v3 ^= m;
        sipRound(v0, v1, v2, v3);
        sipRound(v0, v1, v2, v3);
        v0 ^= m;
    }
    const uint64_t last =
        (static_cast<uint64_t>(length & 0xff) << 56) | littleEndian(bytes + whole, length % 8);
    v3 ^= last;
    sipRound(v0, v1, v2, v3);
    sipRound(v0, v1, v2, v3);
    v0 ^= last;
    v2 ^= 0xff;
    for (int i = 0; i < 4; ++i) {
        sipRound(v0, v1, v2, v3);
    }
    return v0 ^ v1 ^ v2 ^ v3;
}

TraceRecorder::TraceRecorder(std::size_t capacity, Secrets secrets)
    : slots(capacity == 0 ? 1 : capacity), mode(secrets) {
    if (mode == SECRETS_HASHED) {
        std::random_device random;
        for (std::size_t i = 0; i < sizeof(key); i += 4) {
            const uint32_t word = random();
            std::memcpy(key + i, &word, 4);
        }
    }
}

TraceRecorder::TraceRecorder(std::size_t capacity, const std::vector<uint8_t>& givenKey)
    : slots(capacity == 0 ? 1 : capacity), mode(SECRETS_HASHED) {
    std::memcpy(key, givenKey.data(),
                givenKey.size() < sizeof(key) ? givenKey.size() : sizeof(key));
}

TraceRecorder::~TraceRecorder() = default;

void TraceRecorder::record(const TraceEvent& event) {
    const uint64_t threadHash = std::hash<std::thread::id>()(std::this_thread::get_id());
    std::lock_guard<std::mutex> lock(mutex);
    int thread = 0;
    while (thread < static_cast<int>(threadIds.size()) && threadIds[thread] != threadHash) {
        ++thread;
    }
    if (thread == static_cast<int>(threadIds.size())) {
        threadIds.push_back(threadHash);  // one entry per thread ever seen: a few
    }
    Slot& slot = slots[next];
    slot.seq = ++sequence;
    slot.uptime = event.uptime;
    slot.wall = event.wall;
    slot.micros = event.micros;
    slot.thread = thread + 1;
    slot.kind = event.kind;
    slot.name.assign(event.name);
    slot.fields.assign(event.fields, event.fieldsLength);
    next = (next + 1) % slots.size();
    kept = kept < slots.size() ? kept + 1 : kept;
}

void TraceRecorder::writeSecret(const std::string& secret, std::string& out) const {
    if (mode == SECRETS_CLEAR) {
        out += secret;
        return;
    }
    out += "sip:";
    appendHex(out, sipHash24(key, secret.data(), secret.size()));
}

std::string TraceRecorder::keyId() const {
    if (mode == SECRETS_CLEAR) {
        return {};
    }
    // The hash of a fixed text under the key: names the key without giving it away.
    static const char label[] = "auth_engine trace key";
    std::string id;
    appendHex(id, sipHash24(key, label, sizeof(label) - 1));
    return id;
}

void TraceRecorder::writeLine(const Slot& slot, std::string& out) const {
    out += "{\"seq\":" + std::to_string(slot.seq) + ",\"uptime\":" + std::to_string(slot.uptime) +
           ",\"wall\":" + std::to_string(slot.wall) + ",\"us\":" + std::to_string(slot.micros) +
           ",\"thread\":" + std::to_string(slot.thread) + R"(,"kind":")" +
           traceKindName(slot.kind) + R"(","name":")" + slot.name + "\"";
    if (!slot.fields.empty()) {
        out += ',';
        out += slot.fields;
    }
    out += "}\n";
}

void TraceRecorder::writeJsonLines(std::ostream& out) const {
    out << jsonLines();
}

std::string TraceRecorder::jsonLines() const {
    std::lock_guard<std::mutex> lock(mutex);
    std::string text = std::string(R"({"trace":"auth_engine","format":1,"library":")") +
                       AUTH_ENGINE_VERSION_STRING + R"(","secrets":")" +
                       (mode == SECRETS_CLEAR ? "clear" : "hashed") + "\"";
    if (mode == SECRETS_HASHED) {
        text += R"(,"keyId":")" + keyId() + "\"";
    }
    text += ",\"capacity\":" + std::to_string(slots.size()) +
            ",\"events\":" + std::to_string(kept) +
            ",\"dropped\":" + std::to_string(sequence - kept) + "}\n";
    const std::size_t first = (next + slots.size() - kept) % slots.size();
    for (std::size_t i = 0; i < kept; ++i) {
        writeLine(slots[(first + i) % slots.size()], text);
    }
    return text;
}

void TraceRecorder::clear() {
    std::lock_guard<std::mutex> lock(mutex);
    kept = 0;
}

std::size_t TraceRecorder::size() const {
    std::lock_guard<std::mutex> lock(mutex);
    return kept;
}

uint64_t TraceRecorder::recorded() const {
    std::lock_guard<std::mutex> lock(mutex);
    return sequence;
}

TraceRecorder::Secrets TraceRecorder::secrets() const {
    return mode;
}

}  // namespace auth_engine
