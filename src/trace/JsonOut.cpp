// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// The JSON writer of the trace: escaping, keys, values, lists, and secrets written as their keyed
// hash (or in clear where the recorder allows it).
#include "trace/TraceJson.h"

#include <cstdio>

namespace auth_engine {
namespace trace {

namespace {

void appendEscaped(std::string& out, const char* text, std::size_t length) {
    out += '"';
    for (std::size_t i = 0; i < length; ++i) {
        const auto c = static_cast<unsigned char>(text[i]);
        switch (c) {
            case '"':
                out += "\\\"";
                break;
            case '\\':
                out += "\\\\";
                break;
            case '\n':
                out += "\\n";
                break;
            case '\r':
                out += "\\r";
                break;
            case '\t':
                out += "\\t";
                break;
            default:
                if (c < 0x20) {
                    char code[8];
                    (void)std::snprintf(code, sizeof(code), "\\u%04x", c);
                    out += code;
                } else {
                    out += static_cast<char>(c);
                }
        }
    }
    out += '"';
}

}  // namespace

bool credentialIsSecret(OpenDoorType openType) {
    return openType != OPEN_TYPE_REMOTE_CONTROL && openType != OPEN_TYPE_INPUT &&
           openType != OPEN_TYPE_RELAY_KEY;
}

void JsonOut::separate() {
    if (!first) {
        out += ',';
    }
    first = false;
}

JsonOut& JsonOut::key(const char* name) {
    separate();
    out += '"';
    out += name;
    out += "\":";
    first = true;  // the value that follows takes no comma
    return *this;
}

JsonOut& JsonOut::key(const std::string& name) {
    separate();
    appendEscaped(out, name.data(), name.size());
    out += ':';
    first = true;
    return *this;
}

JsonOut& JsonOut::open() {
    separate();
    out += '{';
    first = true;
    return *this;
}

JsonOut& JsonOut::close() {
    out += '}';
    first = false;
    return *this;
}

JsonOut& JsonOut::openList() {
    separate();
    out += '[';
    first = true;
    return *this;
}

JsonOut& JsonOut::closeList() {
    out += ']';
    first = false;
    return *this;
}

JsonOut& JsonOut::value(const std::string& text) {
    separate();
    appendEscaped(out, text.data(), text.size());
    return *this;
}

JsonOut& JsonOut::value(const char* text) {
    separate();
    appendEscaped(out, text, std::char_traits<char>::length(text));
    return *this;
}

JsonOut& JsonOut::value(int64_t number) {
    separate();
    char digits[24];
    const int length =
        std::snprintf(digits, sizeof(digits), "%lld", static_cast<long long>(number));
    out.append(digits, static_cast<std::size_t>(length));
    return *this;
}

JsonOut& JsonOut::value(bool flag) {
    separate();
    out += flag ? "true" : "false";
    return *this;
}

JsonOut& JsonOut::null() {
    separate();
    out += "null";
    return *this;
}

JsonOut& JsonOut::secret(const std::string& text) {
    if (text.empty()) {
        return value(text);  // nothing to hide, and an empty text must stay recognisably empty
    }
    separate();
    // The sink writes its stand-in for the secret into a per-thread scratch text (kept, so that
    // nothing is allocated once warm), which is then escaped into the event.
    thread_local std::string scratch;
    scratch.clear();
    sink.writeSecret(text, scratch);
    appendEscaped(out, scratch.data(), scratch.size());
    return *this;
}

JsonOut& JsonOut::list(const std::vector<std::string>& items) {
    openList();
    for (const auto& item : items) {
        value(item);
    }
    return closeList();
}

JsonOut& JsonOut::field(const char* name, const std::string& text) {
    return text.empty() ? *this : key(name).value(text);
}

JsonOut& JsonOut::field(const char* name, int64_t number, int64_t otherwise) {
    return number == otherwise ? *this : key(name).value(number);
}

JsonOut& JsonOut::flag(const char* name, bool value) {
    return value ? key(name).value(true) : *this;
}

JsonOut& JsonOut::field(const char* name, const std::vector<std::string>& items) {
    return items.empty() ? *this : key(name).list(items);
}

JsonOut& JsonOut::secretField(const char* name, const std::string& text) {
    return text.empty() ? *this : key(name).secret(text);
}

}  // namespace trace
}  // namespace auth_engine
