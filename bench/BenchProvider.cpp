// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

#include "BenchProvider.h"

#include <utility>

#include "auth_engine/AuthFacade.h"
#include "auth_engine/AuthLogger.h"

namespace auth_engine {
namespace bench {

namespace {

std::shared_ptr<UserData> makeUser(const char* id, int userType) {
    auto user = std::make_shared<UserData>();
    user->userType = userType;
    user->userName = "Bench User";
    user->userId = id;
    // Relays 1 and 2, each governed by schedules 11 and 12.
    user->scheduleRelay = "11-12;12-12";
    user->holidayKey = "site-holidays";
    return user;
}

std::shared_ptr<ScheduleData> makeSchedule(int id, int type, const char* weekly) {
    auto schedule = std::make_shared<ScheduleData>();
    schedule->id = id;
    schedule->type = type;
    schedule->scheduleId = std::to_string(id);
    schedule->name = "Schedule " + schedule->scheduleId;
    schedule->startTime = "00:00:00";
    schedule->endTime = "23:59:59";
    schedule->weekly = weekly;
    return schedule;
}

HolidayData makeHoliday(int id, const char* start, const char* end) {
    HolidayData holiday;
    holiday.id = id;
    holiday.name = "Closed";
    holiday.startDate = start;
    holiday.endDate = end;
    return holiday;
}

/// An attempt at the site's internal reader.
AuthRequest requestOf(const char* credential, OpenDoorType openType) {
    AuthRequest request;
    request.credential = credential;
    request.openType = openType;
    request.readerType = READER_TYPE_INTERNAL;
    return request;
}

}  // namespace

BenchProvider::BenchProvider() {
    config.holidayEnabled = true;
    users[CARD_USER] = makeUser("u-1001", 0);
    users[AP_USER] = makeUser("u-1002", 1);
    // Both schedules admit all day, every day, so every relay evaluates both of them (the engine
    // keeps looking for a holiday-exempting one after the first valid schedule).
    schedules = {makeSchedule(11, 1, ""), makeSchedule(12, 2, "0123456")};
    // Holidays the holiday check reads on every decision; none is today.
    holidays = {makeHoliday(1, "2001-01-01", "2001-01-02"),
                makeHoliday(2, "2002-12-24", "2002-12-26")};
    tempKeyTargets = {AuthTarget{0, "1"}, AuthTarget{0, "2"}};
}

std::vector<BenchProvider::Question> BenchProvider::takeQuestions(std::size_t count) {
    std::unique_lock<std::mutex> lock(questionMutex);
    questionArrived.wait(lock, [&] { return questions.size() >= count; });
    std::vector<Question> taken = std::move(questions);
    questions.clear();
    return taken;
}

void BenchProvider::ask(Question question) {
    if (!keepQuestions) {
        return;
    }
    std::lock_guard<std::mutex> lock(questionMutex);
    questions.push_back(std::move(question));
    questionArrived.notify_one();
}

std::shared_ptr<UserData> BenchProvider::getUserByCredential(const char* credential,
                                                             const OpenDoorType& /*openType*/) {
    const auto found = users.find(credential == nullptr ? "" : credential);
    return found == users.end() ? nullptr : found->second;
}

std::shared_ptr<KeyData> BenchProvider::getKeyData(const AuthContext&, int, int) {
    return nullptr;
}

std::vector<std::shared_ptr<ScheduleData>> BenchProvider::getRelaySchedules(const std::string&,
                                                                            int) {
    return schedules;
}

std::vector<HolidayData> BenchProvider::getHolidays(const std::string&, int) {
    return holidays;
}

bool BenchProvider::isPublicPin(const AuthContext&) {
    return false;
}

bool BenchProvider::getLatchPinRelays(const AuthContext&, std::vector<std::string>&) {
    return false;
}

std::vector<std::string> BenchProvider::getPublicPinRelays(const AuthContext&) {
    return {};
}

AuthConfig BenchProvider::getAuthConfig() {
    return config;
}

std::vector<std::string> BenchProvider::getLockedDownRelays(const std::vector<std::string>&) {
    return {};
}

bool BenchProvider::isRelayHolidayExempt(const std::string&) {
    return false;
}

std::vector<std::string> BenchProvider::getForbiddenUnlockTypeRelays(
    const std::vector<std::string>&, OpenDoorType) {
    return {};
}

bool BenchProvider::getDtmfConfig(DtmfConfig&, const AuthContext&) {
    return false;
}

bool BenchProvider::requestDtmfWhitelist(const DtmfWhitelistRequest&, DtmfWhitelistResult&) {
    return false;
}

bool BenchProvider::getDtmfUser(const std::string&, UserData&, const AuthContext&) {
    return false;
}

bool BenchProvider::requestDtmfVisitorPermission(const DtmfVisitorPermissionRequest&, UserData&) {
    return false;
}

bool BenchProvider::getRemoteControlUser(const std::string&, UserData&, AuthContext&) {
    return false;
}

bool BenchProvider::requestTempKey(const AuthContext& /*context*/, AuthCallback callback) {
    ask(Question{"tempkey", std::string(), std::move(callback)});
    return true;
}

bool BenchProvider::getTempKeyUser(const TempKeyAuthData&, UserData& user) {
    user = *users.at(CARD_USER);
    return true;
}

void BenchProvider::getTempKeyTargets(std::vector<AuthTarget>& targets) {
    targets = tempKeyTargets;
}

bool BenchProvider::getHttpOpenConfig(HttpOpenConfig&) {
    return false;
}

bool BenchProvider::checkBleOpenInterval(const UserData&, const std::vector<std::string>&) {
    return true;
}

void BenchProvider::recordBleOpen(const UserData&, const std::vector<std::string>&) {}

std::string BenchProvider::requestAntiPassback(const AuthRequest&, const UserData&,
                                               AuthContext& context, AuthCallback callback) {
    const std::string relay =
        context.antiPassbackRelays.empty() ? std::string() : context.antiPassbackRelays.front();
    ask(Question{"antipassback", relay, std::move(callback)});
    return "ap-" + relay;
}

std::string BenchProvider::requestInterlock(const AuthRequest&, const std::string&, AuthContext&,
                                            AuthCallback) {
    return {};  // no interlock peer on this site
}

std::string BenchProvider::requestParking(const AuthRequest&, const UserData&, std::string,
                                          AuthContext&, AuthCallback) {
    return {};
}

void BenchProvider::onAuthResult(const AuthContext&, const AuthResult&) {
    reports.fetch_add(1, std::memory_order_relaxed);
}

void useLogging(Logging logging) {
    switch (logging) {
        case Logging::NULL_SINK:
            AuthLogger::setNullSink();
            break;
        case Logging::EMPTY_SINK:
            AuthLogger::setSink([](int, const std::string&) {});
            break;
        case Logging::SYSLOG:
            AuthLogger::setSink(nullptr);
            break;
    }
}

FacadeSession::FacadeSession(std::shared_ptr<BenchProvider> provider) {
    initialised = AuthFacade::getInstance().init(std::move(provider)) == 0;
}

FacadeSession::~FacadeSession() {
    AuthFacade::getInstance().reset();
}

bool sameDecision(const AuthResponse& a, const AuthResponse& b) {
    const auto sameTargets = [](const std::vector<AuthTarget>& x,
                                const std::vector<AuthTarget>& y) {
        if (x.size() != y.size()) {
            return false;
        }
        for (std::size_t i = 0; i < x.size(); ++i) {
            if (x[i].type != y[i].type || x[i].relay != y[i].relay) {
                return false;
            }
        }
        return true;
    };
    return a.result == b.result && a.failCode == b.failCode && a.asyncType == b.asyncType &&
           a.openedRelays == b.openedRelays && a.failedRelays == b.failedRelays &&
           sameTargets(a.targets, b.targets) && a.user == b.user;
}

AuthRequest cardRequest() {
    return requestOf(CARD_USER, OPEN_TYPE_CARD);
}

AuthRequest antiPassbackRequest() {
    return requestOf(AP_USER, OPEN_TYPE_CARD);
}

AuthRequest tempKeyRequest() {
    return requestOf(TEMP_KEY, OPEN_TYPE_TEMP_KEY);
}

AuthContext tempKeyAnswer() {
    AuthContext update;
    auto data = std::make_shared<TempKeyAuthData>();
    data->key = TEMP_KEY;
    update.tempKeyAuthData = std::move(data);
    return update;
}

}  // namespace bench
}  // namespace auth_engine
