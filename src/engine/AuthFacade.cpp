// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// The host's entry point. Every call works on a copy of the engine pointer taken under engineMutex,
// so that reset, which swaps the pointer out before resetting the engine, never pulls the engine
// from under a call that is still running. No exception leaves a facade call.
#include "auth_engine/AuthFacade.h"

#include <atomic>
#include <cstdint>
#include <exception>
#include <string>
#include <type_traits>
#include <utility>

#include "auth_engine/AuthClock.h"
#include "auth_engine/AuthLogger.h"
#include "auth_engine/FailCodes.h"
#include "common/ProcessorSupport.h"
#include "engine/AuthEngine.h"
#include "trace/TraceHub.h"
#include "trace/TraceJson.h"
#include "trace/TracingProvider.h"

namespace auth_engine {

namespace {

AuthResponse notInitialized() {
    return failedResponse("AuthFacade not initialized");
}

// One sequence of request numbers for every engine the facade makes: an answer to a question asked
// before a reset must never find a request of the next engine under the same id.
const std::shared_ptr<std::atomic<uint32_t>>& requestNumbers() {
    static const auto numbers = std::make_shared<std::atomic<uint32_t>>(0);
    return numbers;
}

AuthRequest buildRequest(const std::string& credential, OpenDoorType openType,
                         ReaderType readerType) {
    AuthRequest request;
    request.credential = credential;
    request.openType = openType;
    request.readerType = readerType;
    request.timestamp = AuthClock::now();
    return request;
}

// Runs `fn`; an exception is logged and the result of `fallback` is returned instead. The
// fallback is built only when it is needed: the authentication path would otherwise build and
// destroy a whole response on every call.
template <typename Fn, typename Fallback>
auto shieldedLazy(const char* what, Fallback&& fallback, Fn&& fn) -> decltype(fn()) {
    try {
        return fn();
    } catch (const std::exception& e) {
        AuthLogger::error("[AuthFacade] %s threw: %s", what, e.what());
    } catch (...) {
        AuthLogger::error("[AuthFacade] %s threw: %s", what, "unknown exception");
    }
    return fallback();
}

// The same with a fallback value at hand.
template <typename Result, typename Fn>
Result shielded(const char* what, Result fallback, Fn&& fn) {
    return shieldedLazy(
        what, [&fallback] { return std::move(fallback); }, std::forward<Fn>(fn));
}

template <typename Fn>
void shieldedVoid(const char* what, Fn&& fn) {
    shielded<bool>(what, false, [&] {
        fn();
        return true;
    });
}

// The trace of one facade call: with a sink set, the call and its arguments are recorded when it
// begins, what it returns when it ends, and reports made on this thread meanwhile name the call.
// Without a sink it costs one relaxed load.
class CallTrace {
public:
    template <typename Args>
    CallTrace(const char* name, Args&& args) : name(name) {
        if (!trace::active()) {
            return;
        }
        sink = trace::currentSink();
        if (!sink) {
            return;
        }
        call = trace::nextCall();
        saved = trace::currentCall();
        trace::currentCall() = call;
        std::string& text = trace::buffer();
        trace::JsonOut json(text, *sink);
        json.key("call").value(static_cast<int64_t>(call)).key("args").open();
        args(json);
        json.close();
        trace::emit(*sink, TraceKind::CALL, name, text);
    }
    ~CallTrace() {
        if (sink) {
            trace::currentCall() = saved;
        }
    }
    CallTrace(const CallTrace&) = delete;
    CallTrace& operator=(const CallTrace&) = delete;

    bool on() const { return sink != nullptr; }

    /// A returned response is a report of the call.
    AuthResponse returned(AuthResponse response) const {
        if (sink) {
            std::string& text = trace::buffer();
            trace::JsonOut json(text, *sink);
            json.key("call").value(static_cast<int64_t>(call)).key("response");
            trace::write(json, response);
            trace::emit(*sink, TraceKind::REPORT, name, text);
        }
        return response;
    }

    template <typename Value>
    Value returned(Value value) const {
        if (sink) {
            std::string& text = trace::buffer();
            trace::JsonOut json(text, *sink);
            json.key("call").value(static_cast<int64_t>(call)).key("result");
            if constexpr (std::is_same_v<Value, int>) {
                json.value(static_cast<int64_t>(value));
            } else {
                json.value(value);
            }
            trace::emit(*sink, TraceKind::RETURN, name, text);
        }
        return value;
    }

    /// The completion callback, recording each report before forwarding it.
    AuthCallback completion(AuthCallback callback) const {
        if (!sink || !callback) {
            return callback;
        }
        return [to = sink, id = call, callback](const std::string& requestId,
                                                const AuthResponse& response,
                                                const AuthContext& context) {
            std::string& text = trace::buffer();
            trace::JsonOut json(text, *to);
            json.key("call").value(static_cast<int64_t>(id)).key("requestId").value(requestId);
            json.key("response");
            trace::write(json, response);
            trace::emit(*to, TraceKind::REPORT, "callback", text);
            callback(requestId, response, context);
        };
    }

private:
    const char* name;
    std::shared_ptr<TraceSink> sink;
    uint64_t call = 0;
    uint64_t saved = 0;
};

const auto noArgs = [](trace::JsonOut&) {};

}  // namespace

AuthFacade& AuthFacade::getInstance() {
    // The trace's state is made first so that it outlives the facade, whose destructor resets.
    (void)trace::currentSink();
    static AuthFacade instance;
    return instance;
}

AuthFacade::AuthFacade() = default;

AuthFacade::~AuthFacade() {
    reset();
}

std::shared_ptr<AuthEngine> AuthFacade::currentEngine() const {
    std::lock_guard<std::mutex> lock(engineMutex);
    return engine;
}

int AuthFacade::init(std::shared_ptr<IDataProvider> provider) {
    const CallTrace trace("init", noArgs);
    return trace.returned(shielded<int>("init", -4, [&] {
        if (currentEngine()) {
            return 0;  // already running: a second init keeps the engine and its provider
        }
        if (trace.on() && provider) {
            // Operations and answers are recorded by a layer between the engine and the host.
            provider =
                std::make_shared<trace::TracingProvider>(std::move(provider), trace::currentSink());
        }
        // The engine starts without the facade's lock held: a callback of another engine that
        // calls the facade (it takes that lock) must never wait behind an engine's own locks.
        auto created = std::make_shared<AuthEngine>(requestNumbers());
        const int code = created->init(std::move(provider));
        if (code != 0) {
            return code;
        }
        {
            std::lock_guard<std::mutex> lock(engineMutex);
            if (!engine) {
                engine = std::move(created);
                return 0;
            }
        }
        created->reset();  // another init won the race: its engine stays, this one goes
        return 0;
    }));
}

void AuthFacade::reloadConfig() {
    const CallTrace trace("reloadConfig", noArgs);
    if (const auto current = currentEngine()) {
        shieldedVoid("reloadConfig", [&] { current->reloadConfig(); });
    }
}

AuthResponse AuthFacade::authenticate(const std::string& credential, OpenDoorType openType,
                                      ReaderType readerType) {
    if (!currentEngine()) {
        return notInitialized();
    }
    return authenticate(buildRequest(credential, openType, readerType));
}

AuthResponse AuthFacade::authenticate(const AuthRequest& request) {
    const auto decide = [&]() -> AuthResponse {
        const auto current = currentEngine();
        if (!current) {
            return notInitialized();
        }
        return shieldedLazy(
            "authenticate", [] { return failedResponse(reasons::INTERNAL_ERROR); },
            [&] { return current->authenticate(request, AuthCallback(), std::string()); });
    };
    if (!trace::active()) {
        // The response is built in place, as without a trace: no move of it on the hot path.
        return decide();
    }
    const CallTrace trace("authenticate", [&](trace::JsonOut& json) {
        json.key("request");
        trace::write(json, request);
    });
    return trace.returned(decide());
}

std::string AuthFacade::authenticateAsync(const AuthRequest& request, AuthCallback callback) {
    const CallTrace trace("authenticateAsync", [&](trace::JsonOut& json) {
        json.key("request");
        trace::write(json, request);
    });
    const auto current = currentEngine();
    if (!current) {
        return trace.returned(std::string());
    }
    if (trace.on()) {
        callback = trace.completion(std::move(callback));
    }
    return trace.returned(shielded<std::string>("authenticateAsync", std::string(), [&] {
        return current->authenticateAsync(request, callback);
    }));
}

std::string AuthFacade::authenticateAsync(const std::string& credential, OpenDoorType openType,
                                          ReaderType readerType, AuthCallback callback) {
    if (!currentEngine()) {
        return {};
    }
    return authenticateAsync(buildRequest(credential, openType, readerType), std::move(callback));
}

void AuthFacade::handleAsyncResult(const std::string& requestId, AsyncRequestType type,
                                   AuthResult result, const AuthResponse& response,
                                   const AuthContext& context) {
    (void)type;  // the engine knows each question's kind from its id
    handleAsyncResult(requestId, result, response, context);
}

void AuthFacade::handleAsyncResult(const std::string& requestId, AuthResult result,
                                   const AuthResponse& response, const AuthContext& context) {
    const CallTrace trace("handleAsyncResult", [&](trace::JsonOut& json) {
        json.key("requestId").value(requestId).key("result").value(static_cast<int64_t>(result));
        json.key("response");
        trace::write(json, response);
        json.key("context");
        trace::writeAnswer(json, context);
    });
    if (const auto current = currentEngine()) {
        shieldedVoid("handleAsyncResult",
                     [&] { current->handleAsyncResponse(requestId, result, response, context); });
    }
}

void AuthFacade::handleUnlockOptionsResponse(const std::string& optionsId,
                                             const std::vector<std::string>& selectedRelays) {
    const CallTrace trace("handleUnlockOptionsResponse", [&](trace::JsonOut& json) {
        json.key("optionsId").value(optionsId).key("selectedRelays").list(selectedRelays);
    });
    const auto current = currentEngine();
    if (!current) {
        return;
    }
    shieldedVoid("handleUnlockOptionsResponse", [&] {
        AuthResponse response;
        response.unlockOptionsId = optionsId;
        if (!selectedRelays.empty()) {
            response.result = SUCCESS;
            response.unlockOptionsRelays = selectedRelays;
        } else {
            response.result = FAILED;
            response.failCode = fail::RELAY_CHOICE;
            response.reason = reasons::CHOICE_CANCELED;
        }
        current->handleAsyncResponse(optionsId, response.result, response, AuthContext());
    });
}

AuthResponse AuthFacade::handleDoubleAuthTimeout(const std::string& pendingId) {
    const CallTrace trace("handleDoubleAuthTimeout",
                          [&](trace::JsonOut& json) { json.key("pendingId").value(pendingId); });
    const auto current = currentEngine();
    if (!current) {
        return trace.returned(notInitialized());
    }
    return trace.returned(shieldedLazy(
        "handleDoubleAuthTimeout", [] { return failedResponse(reasons::INTERNAL_ERROR); },
        [&] { return current->handleDoubleAuthTimeout(pendingId); }));
}

AuthResponse AuthFacade::cancelDoubleAuth(const std::string& pendingId,
                                          const std::string& reasonText) {
    const CallTrace trace("cancelDoubleAuth", [&](trace::JsonOut& json) {
        json.key("pendingId").value(pendingId).key("reasonText").value(reasonText);
    });
    const auto current = currentEngine();
    if (!current) {
        return trace.returned(notInitialized());
    }
    return trace.returned(shieldedLazy(
        "cancelDoubleAuth", [] { return failedResponse(reasons::INTERNAL_ERROR); },
        [&] { return current->cancelDoubleAuth(pendingId, reasonText); }));
}

std::string AuthFacade::verifyInterlockTargets(const AuthRequest& request,
                                               const std::vector<AuthTarget>& targets,
                                               AuthCallback callback) {
    const CallTrace trace("verifyInterlockTargets", [&](trace::JsonOut& json) {
        json.key("request");
        trace::write(json, request);
        json.key("targets");
        trace::write(json, targets);
    });
    const auto current = currentEngine();
    if (!current) {
        return trace.returned(std::string());
    }
    callback = trace.completion(std::move(callback));
    return trace.returned(shielded<std::string>("verifyInterlockTargets", std::string(), [&] {
        return current->verifyInterlockTargets(request, targets, callback);
    }));
}

void AuthFacade::setProcessorChain(const std::vector<std::string>& names) {
    const CallTrace trace("setProcessorChain",
                          [&](trace::JsonOut& json) { json.key("names").list(names); });
    if (const auto current = currentEngine()) {
        shieldedVoid("setProcessorChain", [&] { current->setProcessorChain(names); });
    }
}

void AuthFacade::registerProcessor(std::shared_ptr<IAuthProcessor> processor) {
    const CallTrace trace("registerProcessor", [&](trace::JsonOut& json) {
        json.key("name").value(processor ? processor->getName() : std::string());
    });
    if (const auto current = currentEngine()) {
        shieldedVoid("registerProcessor",
                     [&] { current->registerProcessor(std::move(processor)); });
    }
}

void AuthFacade::reset() {
    const CallTrace trace("reset", noArgs);
    std::shared_ptr<AuthEngine> old;
    {
        std::lock_guard<std::mutex> lock(engineMutex);
        old = std::move(engine);
        engine.reset();
    }
    if (old) {
        shieldedVoid("reset", [&] { old->reset(); });
    }
}

bool AuthFacade::waitForIdle(int timeoutMs) {
    const CallTrace trace("waitForIdle", [&](trace::JsonOut& json) {
        json.key("timeoutMs").value(static_cast<int64_t>(timeoutMs));
    });
    const auto current = currentEngine();
    if (!current) {
        return trace.returned(true);
    }
    return trace.returned(
        shielded<bool>("waitForIdle", false, [&] { return current->settle(timeoutMs); }));
}

void AuthFacade::setTraceSink(std::shared_ptr<TraceSink> sink) {
    trace::setSink(std::move(sink));
}

bool AuthFacade::isReady() const {
    const auto current = currentEngine();
    return current && current->isReady();
}

}  // namespace auth_engine
