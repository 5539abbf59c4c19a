// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// The recording provider layer: every operation is forwarded to the host's provider and recorded
// with its arguments and result (or throw). This file: lookups, configuration and answers.
#include "trace/TracingProvider.h"

#include "trace/TracedCall.h"

namespace auth_engine {
namespace trace {

TracingProvider::TracingProvider(std::shared_ptr<IDataProvider> host,
                                 std::shared_ptr<TraceSink> sink)
    : host(std::move(host)), sink(std::move(sink)) {}

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

}  // namespace trace
}  // namespace auth_engine
