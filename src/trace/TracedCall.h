// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// How the recording provider layer records one operation (TracingProvider::traced) and what its
// two files share: the question running on this thread, the record of a throw, the writers of
// arguments and results.
#pragma once

#include <exception>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "trace/TraceHub.h"
#include "trace/TraceJson.h"
#include "trace/TracingProvider.h"

namespace auth_engine {
namespace trace {

// The question whose operation is running on this thread: an answer given from inside it is
// "inline", which a replay must repeat from inside the same operation.
inline uint64_t& askingQuestion() {
    thread_local uint64_t question = 0;
    return question;
}

class Asking {
public:
    explicit Asking(uint64_t question) : saved(askingQuestion()) { askingQuestion() = question; }
    ~Asking() { askingQuestion() = saved; }
    Asking(const Asking&) = delete;
    Asking& operator=(const Asking&) = delete;

private:
    uint64_t saved;
};

template <typename Args>
void recordThrow(TraceSink& sink, const char* name, uint64_t question, Args& args,
                 const char* what) {
    std::string& text = buffer();
    JsonOut json(text, sink);
    if (question != 0) {
        json.key("question").value(static_cast<int64_t>(question));
    }
    json.key("args").open();
    args(json);
    json.close().key("threw").value(what);
    emit(sink, TraceKind::OP, name, text);
}

inline void writeList(JsonOut& json, const char* name, const std::vector<std::string>& items) {
    json.key(name).list(items);
}

inline const auto noArgs = [](JsonOut&) {};

inline const auto plainResult = [](JsonOut& json, const auto& value) {
    json.key("result");
    using Value = std::decay_t<decltype(value)>;
    if constexpr (std::is_same_v<Value, std::vector<std::string>>) {
        json.list(value);
    } else {
        json.value(value);
    }
};

template <typename Call, typename Args, typename Result>
auto TracingProvider::traced(const char* name, uint64_t question, Call&& call, Args&& args,
                             Result&& result) -> decltype(call()) {
    using Value = decltype(call());
    const auto finish = [&](auto&&... value) {
        std::string& text = buffer();
        JsonOut json(text, *sink);
        if (question != 0) {
            json.key("question").value(static_cast<int64_t>(question));
        }
        json.key("args").open();
        args(json);
        json.close();
        result(json, value...);
        emit(*sink, TraceKind::OP, name, text);
    };
    try {
        const Asking asking(question != 0 ? question : askingQuestion());
        if constexpr (std::is_void_v<Value>) {
            call();
            finish();
        } else {
            Value value = call();
            finish(value);
            return value;
        }
    } catch (const std::exception& e) {
        recordThrow(*sink, name, question, args, e.what());
        throw;
    } catch (...) {
        recordThrow(*sink, name, question, args, "unknown exception");
        throw;
    }
}

}  // namespace trace
}  // namespace auth_engine
