// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

#include "trace/TracingProvider.h"

#include <exception>
#include <type_traits>
#include <utility>

#include "trace/TraceHub.h"
#include "trace/TraceJson.h"

namespace auth_engine {
namespace trace {

namespace {

// The question whose operation is running on this thread: an answer given from inside it is
// "inline", which a replay must repeat from inside the same operation.
uint64_t& askingQuestion() {
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

void writeList(JsonOut& json, const char* name, const std::vector<std::string>& items) {
    json.key(name).list(items);
}

}  // namespace

TracingProvider::TracingProvider(std::shared_ptr<IDataProvider> host,
                                 std::shared_ptr<TraceSink> sink)
    : host(std::move(host)), sink(std::move(sink)) {}

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

AuthCallback TracingProvider::wrapAnswer(const char* check, uint64_t question,
                                         AuthCallback callback) {
    if (!callback) {
        return callback;
    }
    std::shared_ptr<TraceSink> to = sink;
    return [to, check, question, callback](const std::string& id, const AuthResponse& response,
                                           const AuthContext& context) {
        std::string& text = buffer();
        JsonOut json(text, *to);
        json.key("question").value(static_cast<int64_t>(question));
        json.key("inline").value(askingQuestion() == question);
        json.key("id").value(id);
        json.key("response");
        write(json, response);
        json.key("context");
        writeAnswer(json, context);
        emit(*to, TraceKind::ANSWER, check, text);
        callback(id, response, context);
    };
}

namespace {

auto noArgs = [](JsonOut&) {};

auto plainResult = [](JsonOut& json, const auto& value) {
    json.key("result");
    using Value = std::decay_t<decltype(value)>;
    if constexpr (std::is_same_v<Value, std::vector<std::string>>) {
        json.list(value);
    } else {
        json.value(value);
    }
};

}  // namespace

std::shared_ptr<UserData> TracingProvider::getUserByCredential(const char* credential,
                                                               const OpenDoorType& openType) {
    return traced(
        "getUserByCredential", 0, [&] { return host->getUserByCredential(credential, openType); },
        [&](JsonOut& json) {
            const std::string text = credential != nullptr ? credential : "";
            if (credentialIsSecret(openType)) {
                json.key("credential").secret(text);
            } else {
                json.key("credential").value(text);
            }
            json.key("openType").value(static_cast<int64_t>(openType));
        },
        [](JsonOut& json, const std::shared_ptr<UserData>& user) {
            json.key("result");
            writeShared(json, user);
        });
}

std::shared_ptr<KeyData> TracingProvider::getKeyData(const AuthContext& context, int keyKind,
                                                     int ownerKind) {
    return traced(
        "getKeyData", 0, [&] { return host->getKeyData(context, keyKind, ownerKind); },
        [&](JsonOut& json) {
            json.key("context");
            writeAsked(json, context);
            json.key("keyKind").value(static_cast<int64_t>(keyKind));
            json.key("ownerKind").value(static_cast<int64_t>(ownerKind));
        },
        [](JsonOut& json, const std::shared_ptr<KeyData>& key) {
            json.key("result");
            writeShared(json, key);
        });
}

std::vector<std::shared_ptr<ScheduleData>> TracingProvider::getRelaySchedules(
    const std::string& ownerKey, int ownerKind) {
    return traced(
        "getRelaySchedules", 0, [&] { return host->getRelaySchedules(ownerKey, ownerKind); },
        [&](JsonOut& json) {
            json.key("ownerKey").value(ownerKey);
            json.key("ownerKind").value(static_cast<int64_t>(ownerKind));
        },
        [](JsonOut& json, const std::vector<std::shared_ptr<ScheduleData>>& schedules) {
            json.key("result").openList();
            for (const auto& schedule : schedules) {
                writeShared(json, schedule);
            }
            json.closeList();
        });
}

std::vector<HolidayData> TracingProvider::getHolidays(const std::string& ownerKey, int ownerKind) {
    return traced(
        "getHolidays", 0, [&] { return host->getHolidays(ownerKey, ownerKind); },
        [&](JsonOut& json) {
            json.key("ownerKey").value(ownerKey);
            json.key("ownerKind").value(static_cast<int64_t>(ownerKind));
        },
        [](JsonOut& json, const std::vector<HolidayData>& holidays) {
            json.key("result").openList();
            for (const auto& holiday : holidays) {
                write(json, holiday);
            }
            json.closeList();
        });
}

bool TracingProvider::isPublicPin(const AuthContext& context) {
    return traced(
        "isPublicPin", 0, [&] { return host->isPublicPin(context); },
        [&](JsonOut& json) {
            json.key("context");
            writeAsked(json, context);
        },
        plainResult);
}

bool TracingProvider::getLatchPinRelays(const AuthContext& context,
                                        std::vector<std::string>& relays) {
    return traced(
        "getLatchPinRelays", 0, [&] { return host->getLatchPinRelays(context, relays); },
        [&](JsonOut& json) {
            json.key("context");
            writeAsked(json, context);
        },
        [&](JsonOut& json, bool value) {
            json.key("result").value(value);
            writeList(json, "relays", relays);
        });
}

std::vector<std::string> TracingProvider::getPublicPinRelays(const AuthContext& context) {
    return traced(
        "getPublicPinRelays", 0, [&] { return host->getPublicPinRelays(context); },
        [&](JsonOut& json) {
            json.key("context");
            writeAsked(json, context);
        },
        plainResult);
}

AuthConfig TracingProvider::getAuthConfig() {
    return traced(
        "getAuthConfig", 0, [&] { return host->getAuthConfig(); }, noArgs,
        [](JsonOut& json, const AuthConfig& config) {
            json.key("result");
            write(json, config);
        });
}

std::vector<std::string> TracingProvider::getLockedDownRelays(
    const std::vector<std::string>& relays) {
    return traced(
        "getLockedDownRelays", 0, [&] { return host->getLockedDownRelays(relays); },
        [&](JsonOut& json) { writeList(json, "relays", relays); }, plainResult);
}

bool TracingProvider::isRelayHolidayExempt(const std::string& relay) {
    return traced(
        "isRelayHolidayExempt", 0, [&] { return host->isRelayHolidayExempt(relay); },
        [&](JsonOut& json) { json.key("relay").value(relay); }, plainResult);
}

std::vector<std::string> TracingProvider::getForbiddenUnlockTypeRelays(
    const std::vector<std::string>& relays, OpenDoorType openType) {
    return traced(
        "getForbiddenUnlockTypeRelays", 0,
        [&] { return host->getForbiddenUnlockTypeRelays(relays, openType); },
        [&](JsonOut& json) {
            writeList(json, "relays", relays);
            json.key("openType").value(static_cast<int64_t>(openType));
        },
        plainResult);
}

bool TracingProvider::getDtmfConfig(DtmfConfig& config, const AuthContext& context) {
    return traced(
        "getDtmfConfig", 0, [&] { return host->getDtmfConfig(config, context); },
        [&](JsonOut& json) {
            json.key("context");
            writeAsked(json, context);
        },
        [&](JsonOut& json, bool value) {
            json.key("result").value(value).key("config");
            write(json, config);
        });
}

bool TracingProvider::requestDtmfWhitelist(const DtmfWhitelistRequest& request,
                                           DtmfWhitelistResult& result) {
    return traced(
        "requestDtmfWhitelist", 0, [&] { return host->requestDtmfWhitelist(request, result); },
        [&](JsonOut& json) {
            json.key("request");
            write(json, request);
        },
        [&](JsonOut& json, bool value) {
            json.key("result").value(value).key("whitelist");
            write(json, result);
        });
}

bool TracingProvider::getDtmfUser(const std::string& remoteNumber, UserData& user,
                                  const AuthContext& context) {
    return traced(
        "getDtmfUser", 0, [&] { return host->getDtmfUser(remoteNumber, user, context); },
        [&](JsonOut& json) {
            json.key("remoteNumber").value(remoteNumber);
            json.key("context");
            writeAsked(json, context);
        },
        [&](JsonOut& json, bool value) {
            json.key("result").value(value).key("user");
            write(json, user);
        });
}

bool TracingProvider::requestDtmfVisitorPermission(const DtmfVisitorPermissionRequest& request,
                                                   UserData& user) {
    return traced(
        "requestDtmfVisitorPermission", 0,
        [&] { return host->requestDtmfVisitorPermission(request, user); },
        [&](JsonOut& json) {
            json.key("request");
            write(json, request);
        },
        [&](JsonOut& json, bool value) {
            json.key("result").value(value).key("user");
            write(json, user);
        });
}

bool TracingProvider::getRemoteControlUser(const std::string& remoteUserId, UserData& user,
                                           AuthContext& context) {
    return traced(
        "getRemoteControlUser", 0,
        [&] { return host->getRemoteControlUser(remoteUserId, user, context); },
        [&](JsonOut& json) {
            json.key("remoteUserId").value(remoteUserId);
            json.key("context");
            writeAsked(json, context);
        },
        [&](JsonOut& json, bool value) {
            json.key("result").value(value).key("user");
            write(json, user);
        });
}

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
