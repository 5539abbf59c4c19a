// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// The recording provider layer, continued: the operations that ask other devices or the host
// (temporary keys, peers, parking), the reports and the guessing and duress notices.
#include "trace/TracingProvider.h"

#include "trace/TracedCall.h"

namespace auth_engine {
namespace trace {

bool TracingProvider::requestTempKey(const AuthContext& context, AuthCallback callback) {
    const uint64_t question = newQuestion();
    AuthCallback wrapped = wrapAnswer("tempKey", question, std::move(callback));
    return traced(
        "requestTempKey", question, [&] { return host->requestTempKey(context, wrapped); },
        [&](JsonOut& json) {
            json.key("context");
            writeAsked(json, context);
        },
        plainResult);
}

bool TracingProvider::getTempKeyUser(const TempKeyAuthData& data, UserData& user) {
    return traced(
        "getTempKeyUser", 0, [&] { return host->getTempKeyUser(data, user); },
        [&](JsonOut& json) {
            json.key("data");
            write(json, data);
        },
        [&](JsonOut& json, bool value) {
            json.key("result").value(value).key("user");
            write(json, user);
        });
}

void TracingProvider::getTempKeyTargets(std::vector<AuthTarget>& targets) {
    traced(
        "getTempKeyTargets", 0, [&] { host->getTempKeyTargets(targets); }, noArgs,
        [&](JsonOut& json) {
            json.key("targets");
            write(json, targets);
        });
}

bool TracingProvider::getHttpOpenConfig(HttpOpenConfig& config) {
    return traced(
        "getHttpOpenConfig", 0, [&] { return host->getHttpOpenConfig(config); }, noArgs,
        [&](JsonOut& json, bool value) {
            json.key("result").value(value).key("config");
            write(json, config);
        });
}

bool TracingProvider::checkBleOpenInterval(const UserData& user,
                                           const std::vector<std::string>& relays) {
    return traced(
        "checkBleOpenInterval", 0, [&] { return host->checkBleOpenInterval(user, relays); },
        [&](JsonOut& json) {
            json.key("userId").value(user.userId);
            writeList(json, "relays", relays);
        },
        plainResult);
}

void TracingProvider::recordBleOpen(const UserData& user, const std::vector<std::string>& relays) {
    traced(
        "recordBleOpen", 0, [&] { host->recordBleOpen(user, relays); },
        [&](JsonOut& json) {
            json.key("userId").value(user.userId);
            writeList(json, "relays", relays);
        },
        [](JsonOut&) {});
}

std::string TracingProvider::requestAntiPassback(const AuthRequest& request, const UserData& user,
                                                 AuthContext& context, AuthCallback callback) {
    const uint64_t question = newQuestion();
    AuthCallback wrapped = wrapAnswer("antiPassback", question, std::move(callback));
    return traced(
        "requestAntiPassback", question,
        [&] { return host->requestAntiPassback(request, user, context, wrapped); },
        [&](JsonOut& json) {
            json.key("userId").value(user.userId);
            json.key("context");
            writeAsked(json, context);
        },
        plainResult);
}

std::string TracingProvider::requestInterlock(const AuthRequest& request, const std::string& relay,
                                              AuthContext& context, AuthCallback callback) {
    const uint64_t question = newQuestion();
    AuthCallback wrapped = wrapAnswer("interlock", question, std::move(callback));
    return traced(
        "requestInterlock", question,
        [&] { return host->requestInterlock(request, relay, context, wrapped); },
        [&](JsonOut& json) {
            json.key("relay").value(relay);
            json.key("context");
            writeAsked(json, context);
        },
        plainResult);
}

std::string TracingProvider::requestParking(const AuthRequest& request, const UserData& user,
                                            std::string credential, AuthContext& context,
                                            AuthCallback callback) {
    const uint64_t question = newQuestion();
    AuthCallback wrapped = wrapAnswer("parking", question, std::move(callback));
    const std::string asked = credential;
    return traced(
        "requestParking", question,
        [&] {
            return host->requestParking(request, user, std::move(credential), context, wrapped);
        },
        [&](JsonOut& json) {
            json.key("userId").value(user.userId);
            if (credentialIsSecret(request.openType)) {
                json.key("credential").secret(asked);
            } else {
                json.key("credential").value(asked);
            }
            json.key("context");
            writeAsked(json, context);
        },
        plainResult);
}

void TracingProvider::onAuthResult(const AuthContext& context, const AuthResult& result) {
    std::string& text = buffer();
    JsonOut json(text, *sink);
    if (currentCall() != 0) {
        json.key("call").value(static_cast<int64_t>(currentCall()));
    }
    json.key("requestId").value(context.requestId);
    json.key("result").value(static_cast<int64_t>(result));
    json.field("tag", context.request.reservedText0);
    json.key("response");
    write(json, context.response);
    emit(*sink, TraceKind::REPORT, "onAuthResult", text);
    host->onAuthResult(context, result);
}

bool TracingProvider::getReaderPriority(std::vector<ReaderType>& priority) {
    return traced(
        "getReaderPriority", 0, [&] { return host->getReaderPriority(priority); }, noArgs,
        [&](JsonOut& json, bool value) {
            json.key("result").value(value).key("priority").openList();
            for (const ReaderType reader : priority) {
                json.value(static_cast<int64_t>(reader));
            }
            json.closeList();
        });
}

void TracingProvider::onGuessLockout(ReaderType reader, int count, int64_t lockoutEndUptime) {
    traced(
        "onGuessLockout", 0, [&] { host->onGuessLockout(reader, count, lockoutEndUptime); },
        [&](JsonOut& json) {
            json.key("reader").value(static_cast<int64_t>(reader));
            json.key("count").value(static_cast<int64_t>(count));
            json.key("lockoutEndUptime").value(lockoutEndUptime);
        },
        [](JsonOut&) {});
}

bool TracingProvider::getUserByDuressCode(const std::string& code, OpenDoorType openType,
                                          UserData& user) {
    return traced(
        "getUserByDuressCode", 0, [&] { return host->getUserByDuressCode(code, openType, user); },
        [&](JsonOut& json) {
            json.key("code").secret(code);
            json.key("openType").value(static_cast<int64_t>(openType));
        },
        [&](JsonOut& json, bool value) {
            json.key("result").value(value).key("user");
            write(json, user);
        });
}

void TracingProvider::onDuress(const AuthContext& context) {
    traced(
        "onDuress", 0, [&] { host->onDuress(context); },
        [&](JsonOut& json) {
            json.key("context");
            writeAsked(json, context);
        },
        [](JsonOut&) {});
}

}  // namespace trace
}  // namespace auth_engine
