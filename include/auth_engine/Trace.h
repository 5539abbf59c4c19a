// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

/// @file Trace.h
/// @brief A bounded trace of what the engine was asked, what the host answered and what the
/// engine decided, for pulling off a device and replaying on a desk (`authsim replay`).
///
/// A host hands a sink to AuthFacade::setTraceSink. From then on every facade call is recorded
/// with its arguments (and what it returned), every completion callback and onAuthResult report,
/// and the engine's clock readings. Provider operations (with their arguments and results) and the
/// answers the host gives through the callbacks handed to operations 19, 26, 27 and 28 are recorded
/// from the next AuthFacade::init on: the facade then puts a recording layer between the engine
/// and the host's provider. Without a sink nothing of this runs.
///
/// Each event is one JSON object (see TraceEvent); TraceRecorder keeps the last N of them in a
/// ring of fixed size and writes them as JSON lines on request:
///
///     {"trace":"auth_engine","format":1,"library":"0.2.0","secrets":"hashed","keyId":"...",...}
///     {"seq":1,"uptime":812,"wall":1741000000,"us":0,"thread":1,"kind":"call","name":"init",...}
///
/// Secrets (credential texts, PINs, DTMF codes, HTTP passwords) are written as a keyed hash, so
/// equal secrets stay equal within one trace and decisions that compare them replay; see
/// TraceRecorder.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <ostream>
#include <string>
#include <vector>

#include "auth_engine/export.h"

namespace auth_engine {

/// What an event records.
enum class TraceKind : int32_t {
    CALL = 0,    ///< a facade call and its arguments, written when the call begins
    RETURN = 1,  ///< what a facade call returned (a text, a number, a flag)
    OP = 2,      ///< a provider operation with its arguments and its result (or what it threw)
    ANSWER = 3,  ///< a call of an answer callback the engine handed to the host
    REPORT = 4,  ///< a verdict: onAuthResult, a completion callback, or a returned response
    CLOCK = 5,   ///< the engine's clock readings, written when one differs from the last written
};

/// The JSON name of a kind: "call", "return", "op", "answer", "report", "clock".
AUTH_ENGINE_API const char* traceKindName(TraceKind kind);

/// One event as a sink receives it. The texts are valid only during TraceSink::record.
struct TraceEvent {
    TraceKind kind = TraceKind::CALL;
    const char* name = "";  ///< the facade call, operation or callback ("getUserByCredential")
    /// The event's own members as JSON object members without the braces, e.g.
    /// `"args":{"relay":"1"},"result":true`; names are those of the library's records.
    const char* fields = "";
    std::size_t fieldsLength = 0;
    int64_t uptime = 0;  ///< AuthClock::uptime() when the event was made (not itself recorded)
    int64_t wall = 0;    ///< AuthClock::now() when the event was made (not itself recorded)
    int64_t micros = 0;  ///< real microseconds since the first event of the process
};

/// Receives trace events. Called from the host's threads and the engine's worker, sometimes while
/// the engine holds its lock: an implementation must be thread-safe, quick, must not throw and
/// must not call the facade.
class AUTH_ENGINE_API TraceSink {
public:
    virtual ~TraceSink();
    /// One event.
    virtual void record(const TraceEvent& event) = 0;
    /// Appends to `out` the text that stands for `secret` in the trace (JSON-escaped by the
    /// caller). The default writes the secret itself.
    virtual void writeSecret(const std::string& secret, std::string& out) const;
};

/// The ready sink: the last `capacity` events in a ring whose slots are reused (once each slot has
/// held an event as long as the next one, recording allocates nothing), written as JSON lines.
///
/// Secrets: in SECRETS_HASHED mode (the default) each secret is written as "sip:" and the 16 hex
/// digits of its SipHash-2-4 under the recorder's 128-bit key: equal secrets give equal texts in
/// one trace, and without the key a text cannot be turned back into the secret by anyone who does
/// not already know it. The key is random per recorder unless one is given; the header line
/// records the mode and a key id (a hash of the key, not the key). SECRETS_CLEAR writes them as
/// they are, for a lab device. Nothing else is hidden: user ids, names and relays are written as
/// they are.
class AUTH_ENGINE_API TraceRecorder : public TraceSink {
public:
    /// How secrets are written.
    enum Secrets : int32_t {
        SECRETS_HASHED = 0,  ///< keyed hash, prefix "sip:"
        SECRETS_CLEAR = 1,   ///< the secret itself
    };

    /// A recorder keeping the last `capacity` events (at least 1), hashing secrets under a random
    /// key.
    explicit TraceRecorder(std::size_t capacity, Secrets secrets = SECRETS_HASHED);
    /// A recorder hashing secrets under `key` (16 bytes; shorter keys are padded with zeros), so
    /// that traces of several devices or days can be compared.
    TraceRecorder(std::size_t capacity, const std::vector<uint8_t>& key);
    ~TraceRecorder() override;
    TraceRecorder(const TraceRecorder&) = delete;
    TraceRecorder& operator=(const TraceRecorder&) = delete;

    /// Stores one event, replacing the oldest when the ring is full.
    void record(const TraceEvent& event) override;
    /// Writes "sip:" + hash, or the secret in clear mode.
    void writeSecret(const std::string& secret, std::string& out) const override;

    /// The header line, then the kept events oldest first, one JSON object per line.
    void writeJsonLines(std::ostream& out) const;
    /// The same as one text.
    std::string jsonLines() const;
    /// Forgets the kept events (numbering goes on).
    void clear();

    /// Events kept now (at most the capacity).
    std::size_t size() const;
    /// Events recorded since construction, including those the ring has dropped since.
    uint64_t recorded() const;
    /// The secrets mode.
    Secrets secrets() const;
    /// 16 hex digits naming the key (empty in clear mode).
    std::string keyId() const;

    /// SipHash-2-4 of `data` under a 16-byte `key`, as published by its authors (exposed for
    /// tests and for tools that check a trace against a known secret).
    static uint64_t sipHash24(const uint8_t key[16], const void* data, std::size_t length);

private:
    struct Slot;
    void writeLine(const Slot& slot, std::string& out) const;

    mutable std::mutex mutex;
    std::vector<Slot> slots;
    std::size_t next = 0;  ///< the slot the next event goes into
    std::size_t kept = 0;
    uint64_t sequence = 0;
    std::vector<uint64_t> threadIds;  ///< hashes of the threads seen, in order of first event
    Secrets mode;
    uint8_t key[16] = {};
};

}  // namespace auth_engine
