// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

#include "SiteProvider.h"

#include <algorithm>
#include <utility>

#include <auth_engine/AuthClock.h>
#include <auth_engine/AuthFacade.h>

#include "Names.h"

namespace authsim {

using namespace auth_engine;

namespace {

bool contains(const std::vector<std::string>& list, const std::string& item) {
    return std::find(list.begin(), list.end(), item) != list.end();
}

// The credential kinds a user lookup of this open type searches.
std::vector<std::string> credentialKinds(int openType) {
    switch (openType) {
        case OPEN_TYPE_CARD:
        case OPEN_TYPE_CARD_6:
        case OPEN_TYPE_CARD_8:
            return {"card", "qr"};  // QR readers report their codes as card reads
        case OPEN_TYPE_PIN:
        case OPEN_TYPE_PIN_5:
        case OPEN_TYPE_PIN_7:
        case OPEN_TYPE_PIN_19:
            return {"pin"};
        case OPEN_TYPE_FACE:
            return {"face"};
        case OPEN_TYPE_BLE:
            return {"ble"};
        default:
            return {};
    }
}

std::string describeAnswer(const RemoteAnswer& answer) {
    std::string text = modeName(answer.mode);
    if (answer.mode == RemoteAnswer::OFFLINE || answer.mode == RemoteAnswer::NEVER) {
        return text;
    }
    if (answer.mode == RemoteAnswer::LATER) {
        text += " (" + std::to_string(answer.delayMs) + " ms)";
    }
    text += " " + resultName(answer.result);
    if (answer.failCode != 0) {
        text += " failCode=" + std::to_string(answer.failCode);
    }
    return text;
}

}  // namespace

SiteProvider::SiteProvider(Site site, Listener listener)
    : listener(std::move(listener)), data(std::move(site)) {
    courier = std::thread([this] { courierLoop(); });
}

SiteProvider::~SiteProvider() {
    {
        std::lock_guard<std::mutex> lock(mutex);
        stopping = true;
    }
    courierWake.notify_all();
    courier.join();
}

Site SiteProvider::site() const {
    std::lock_guard<std::mutex> lock(mutex);
    return data;
}

void SiteProvider::setSite(Site site) {
    std::lock_guard<std::mutex> lock(mutex);
    data = std::move(site);
}

bool SiteProvider::takeHeld(const std::string& check, const std::string& key, Question& question) {
    std::lock_guard<std::mutex> lock(mutex);
    for (auto it = held.begin(); it != held.end(); ++it) {
        if (it->check == check && (key.empty() || it->key == key)) {
            question = std::move(*it);
            held.erase(it);
            return true;
        }
    }
    return false;
}

void SiteProvider::deliver(const Question& question, const RemoteAnswer& answer, bool viaFacade) {
    AuthResponse response;
    response.result = answer.result;
    response.failCode = answer.failCode;
    response.remoteFailCode = answer.remoteFailCode;
    response.reason = answer.reason;
    if (viaFacade) {
        AuthFacade::getInstance().handleAsyncResult(question.engineId, answer.result, response,
                                                    question.update);
    } else if (question.callback) {
        question.callback(question.engineId, response, question.update);
    }
    std::lock_guard<std::mutex> lock(mutex);
    ++answerCount;
}

bool SiteProvider::waitForDeliveries(std::chrono::milliseconds limit) {
    std::unique_lock<std::mutex> lock(mutex);
    return deliveriesDone.wait_for(lock, limit,
                                   [this] { return scheduled.empty() && inFlight == 0; });
}

std::vector<SiteProvider::Question> SiteProvider::waiting() const {
    std::lock_guard<std::mutex> lock(mutex);
    std::vector<Question> all = held;
    all.insert(all.end(), unanswered.begin(), unanswered.end());
    std::stable_sort(all.begin(), all.end(),
                     [](const Question& a, const Question& b) { return a.askedAt < b.askedAt; });
    return all;
}

uint64_t SiteProvider::activity() const {
    std::lock_guard<std::mutex> lock(mutex);
    return questionCount + answerCount;
}

void SiteProvider::courierLoop() {
    std::unique_lock<std::mutex> lock(mutex);
    while (!stopping) {
        if (scheduled.empty()) {
            courierWake.wait(lock);
            continue;
        }
        const auto due = scheduled.begin()->first;
        if (Clock::now() < due) {
            courierWake.wait_until(lock, due);
            continue;
        }
        const Question question = std::move(scheduled.begin()->second);
        scheduled.erase(scheduled.begin());
        ++inFlight;
        lock.unlock();
        if (listener.note) {
            listener.note("! " + question.check + " " + question.key + " answered " +
                          resultName(question.answer.result));
        }
        deliver(question, question.answer, false);
        lock.lock();
        --inFlight;
        deliveriesDone.notify_all();
    }
}

std::string SiteProvider::ask(Question question) {
    std::string handle;
    bool answerNow = false;
    {
        std::lock_guard<std::mutex> lock(mutex);
        question.answer = data.answerFor(question.check, question.key);
        question.askedAt = AuthClock::now();
        ++questionCount;
        if (question.answer.mode != RemoteAnswer::OFFLINE) {
            handle = question.check + "-" + std::to_string(questionCount);
        }
        // Without a callback the engine expects no answer: the question is only sent.
        if (question.callback) {
            switch (question.answer.mode) {
                case RemoteAnswer::INLINE:
                    answerNow = true;
                    break;
                case RemoteAnswer::LATER:
                    scheduled.emplace(
                        Clock::now() + std::chrono::milliseconds(question.answer.delayMs),
                        question);
                    courierWake.notify_all();
                    break;
                case RemoteAnswer::HELD:
                    held.push_back(question);
                    break;
                case RemoteAnswer::NEVER:
                    unanswered.push_back(question);
                    break;
                default:
                    break;
            }
        }
    }
    if (listener.note) {
        listener.note("? " + question.check + " " + question.key + " -> " +
                      (question.callback
                           ? describeAnswer(question.answer)
                           : std::string(modeName(question.answer.mode)) + ", no answer expected"));
    }
    if (answerNow) {
        deliver(question, question.answer, false);
    }
    return handle;
}

const SiteUser* SiteProvider::userWith(const std::string& kind,
                                       const std::string& credential) const {
    for (const auto& user : data.users) {
        const auto found = user.credentials.find(kind);
        if (found != user.credentials.end() && contains(found->second, credential)) {
            return &user;
        }
    }
    return nullptr;
}

std::shared_ptr<UserData> SiteProvider::getUserByCredential(const char* credential,
                                                            const OpenDoorType& openType) {
    if (credential == nullptr) {
        return nullptr;
    }
    std::lock_guard<std::mutex> lock(mutex);
    if (openType == OPEN_TYPE_LICENSE_PLATE) {
        for (const auto& user : data.users) {
            for (const auto& plate : user.plates) {
                if (plate.number == credential) {
                    return std::make_shared<UserData>(user.data);
                }
            }
        }
        return nullptr;
    }
    for (const auto& kind : credentialKinds(openType)) {
        if (const SiteUser* user = userWith(kind, credential)) {
            return std::make_shared<UserData>(user->data);
        }
    }
    return nullptr;
}

std::shared_ptr<KeyData> SiteProvider::getKeyData(const AuthContext& context, int, int) {
    if (!context.userData) {
        return nullptr;
    }
    std::lock_guard<std::mutex> lock(mutex);
    if (const SiteUser* user = data.findUser(context.userData->userId)) {
        for (const auto& plate : user->plates) {
            if (plate.number == context.request.credential && plate.keyData) {
                return std::make_shared<KeyData>(plate.key);
            }
        }
    }
    return nullptr;
}

std::vector<std::shared_ptr<ScheduleData>> SiteProvider::getRelaySchedules(
    const std::string& ownerKey, int) {
    // The owner key reads "id-relays;id-relays" (a user's scheduleRelay, or a relay key's
    // composition): the schedules are those whose id stands before a '-'.
    std::vector<std::string> ids;
    std::size_t start = 0;
    while (start <= ownerKey.size()) {
        const std::size_t end = std::min(ownerKey.find(';', start), ownerKey.size());
        const std::string entry = ownerKey.substr(start, end - start);
        const std::size_t dash = entry.find('-');
        if (dash != std::string::npos) {
            std::string id = entry.substr(0, dash);
            id.erase(0, id.find_first_not_of(' '));
            id.erase(id.find_last_not_of(' ') + 1);
            if (!contains(ids, id)) {
                ids.push_back(id);
            }
        }
        start = end + 1;
    }
    std::lock_guard<std::mutex> lock(mutex);
    std::vector<std::shared_ptr<ScheduleData>> schedules;
    for (const auto& id : ids) {
        for (const auto& schedule : data.schedules) {
            if (schedule.scheduleId == id) {
                schedules.push_back(std::make_shared<ScheduleData>(schedule));
            }
        }
    }
    return schedules;
}

std::vector<HolidayData> SiteProvider::getHolidays(const std::string& ownerKey, int) {
    std::lock_guard<std::mutex> lock(mutex);
    std::vector<HolidayData> holidays;
    for (const auto& holiday : data.holidays) {
        if (holiday.holidayKeys.empty() || contains(holiday.holidayKeys, ownerKey)) {
            holidays.push_back(holiday.data);
        }
    }
    return holidays;
}

bool SiteProvider::isPublicPin(const AuthContext& context) {
    std::lock_guard<std::mutex> lock(mutex);
    return data.publicPins.count(context.request.credential) != 0;
}

bool SiteProvider::getLatchPinRelays(const AuthContext& context, std::vector<std::string>& relays) {
    std::lock_guard<std::mutex> lock(mutex);
    const auto found = data.latchPins.find(context.request.credential);
    if (found == data.latchPins.end()) {
        return false;
    }
    relays = found->second;
    return true;
}

std::vector<std::string> SiteProvider::getPublicPinRelays(const AuthContext& context) {
    std::lock_guard<std::mutex> lock(mutex);
    const auto found = data.publicPins.find(context.request.credential);
    return found == data.publicPins.end() ? std::vector<std::string>{} : found->second;
}

AuthConfig SiteProvider::getAuthConfig() {
    std::lock_guard<std::mutex> lock(mutex);
    return data.config;
}

std::vector<std::string> SiteProvider::getLockedDownRelays(const std::vector<std::string>& relays) {
    std::lock_guard<std::mutex> lock(mutex);
    std::vector<std::string> locked;
    for (const auto& relay : relays) {
        if (contains(data.lockdown, relay)) {
            locked.push_back(relay);
        }
    }
    return locked;
}

bool SiteProvider::isRelayHolidayExempt(const std::string& relay) {
    std::lock_guard<std::mutex> lock(mutex);
    return contains(data.holidayExemptRelays, relay);
}

std::vector<std::string> SiteProvider::getForbiddenUnlockTypeRelays(
    const std::vector<std::string>& relays, OpenDoorType openType) {
    std::lock_guard<std::mutex> lock(mutex);
    std::vector<std::string> forbidden;
    for (const auto& relay : relays) {
        const auto types = data.forbiddenOpenTypes.find(relay);
        if (types != data.forbiddenOpenTypes.end() &&
            std::find(types->second.begin(), types->second.end(), openType) !=
                types->second.end()) {
            forbidden.push_back(relay);
        }
    }
    return forbidden;
}

bool SiteProvider::getDtmfConfig(DtmfConfig& config, const AuthContext&) {
    std::lock_guard<std::mutex> lock(mutex);
    if (!data.dtmfConfigured) {
        return false;
    }
    config = data.dtmf;
    return true;
}

bool SiteProvider::requestDtmfWhitelist(const DtmfWhitelistRequest& request,
                                        DtmfWhitelistResult& result) {
    std::lock_guard<std::mutex> lock(mutex);
    const auto found = data.dtmfWhitelist.find(request.remoteNumber);
    if (found == data.dtmfWhitelist.end()) {
        return false;
    }
    result = found->second;
    return true;
}

bool SiteProvider::getDtmfUser(const std::string& remoteNumber, UserData& user,
                               const AuthContext&) {
    std::lock_guard<std::mutex> lock(mutex);
    if (const SiteUser* found = userWith("phone", remoteNumber)) {
        user = found->data;
        return true;
    }
    return false;
}

bool SiteProvider::requestDtmfVisitorPermission(const DtmfVisitorPermissionRequest& request,
                                                UserData& user) {
    std::lock_guard<std::mutex> lock(mutex);
    const auto visitor = data.dtmfVisitors.find(request.resolvedPerId);
    if (visitor == data.dtmfVisitors.end()) {
        return false;
    }
    const SiteUser* found = data.findUser(visitor->second);
    if (found == nullptr) {
        return false;
    }
    user = found->data;
    return true;
}

bool SiteProvider::getRemoteControlUser(const std::string& remoteUserId, UserData& user,
                                        AuthContext&) {
    std::lock_guard<std::mutex> lock(mutex);
    if (const SiteUser* found = userWith("remote", remoteUserId)) {
        user = found->data;
        return true;
    }
    return false;
}

bool SiteProvider::requestTempKey(const AuthContext& context, AuthCallback callback) {
    Question question;
    question.check = "tempKey";
    question.key = context.request.credential;
    question.engineId = context.requestId;
    question.callback = std::move(callback);
    {
        // The key service answers with what it knows about the key; an unknown key carries no data.
        std::lock_guard<std::mutex> lock(mutex);
        const auto known = data.tempKeys.find(question.key);
        if (known != data.tempKeys.end()) {
            question.update.tempKeyAuthData = std::make_shared<TempKeyAuthData>(known->second.data);
            question.update.tempKeyAuthData->key = question.key;
        }
    }
    return !ask(std::move(question)).empty();
}

bool SiteProvider::getTempKeyUser(const TempKeyAuthData& key, UserData& user) {
    std::lock_guard<std::mutex> lock(mutex);
    const auto known = data.tempKeys.find(key.key);
    const SiteUser* found =
        known == data.tempKeys.end() ? nullptr : data.findUser(known->second.userId);
    if (found == nullptr) {
        return false;
    }
    user = found->data;
    return true;
}

void SiteProvider::getTempKeyTargets(std::vector<AuthTarget>& targets) {
    std::lock_guard<std::mutex> lock(mutex);
    targets = data.tempKeyTargets;
}

bool SiteProvider::getHttpOpenConfig(HttpOpenConfig& config) {
    std::lock_guard<std::mutex> lock(mutex);
    if (!data.httpConfigured) {
        return false;
    }
    config = data.http;
    return true;
}

bool SiteProvider::checkBleOpenInterval(const UserData& user, const std::vector<std::string>&) {
    std::lock_guard<std::mutex> lock(mutex);
    const auto last = lastBleOpen.find(user.userId);
    return data.bleIntervalSeconds <= 0 || last == lastBleOpen.end() ||
           AuthClock::now() - last->second >= data.bleIntervalSeconds;
}

void SiteProvider::recordBleOpen(const UserData& user, const std::vector<std::string>&) {
    std::lock_guard<std::mutex> lock(mutex);
    lastBleOpen[user.userId] = AuthClock::now();
}

std::string SiteProvider::requestAntiPassback(const AuthRequest&, const UserData&,
                                              AuthContext& context, AuthCallback callback) {
    Question question;
    question.check = "antiPassback";
    // While answers are routed the engine narrows the list to the one relay it asks about.
    question.key = context.antiPassbackRelays.empty() ? "" : context.antiPassbackRelays.front();
    question.engineId =
        context.requestId.empty() ? "" : antiPassbackQuestionId(context.requestId, question.key);
    question.callback = std::move(callback);
    return ask(std::move(question));
}

std::string SiteProvider::requestInterlock(const AuthRequest&, const std::string& relay,
                                           AuthContext& context, AuthCallback callback) {
    Question question;
    question.check = "interlock";
    question.key = relay;
    question.engineId =
        context.requestId.empty() ? "" : interlockQuestionId(context.requestId, relay);
    question.callback = std::move(callback);
    return ask(std::move(question));
}

std::string SiteProvider::requestParking(const AuthRequest&, const UserData&, std::string,
                                         AuthContext& context, AuthCallback callback) {
    Question question;
    question.check = "parking";
    question.key = context.relays.empty() ? "" : context.relays.front();
    question.engineId = context.requestId;
    question.callback = std::move(callback);
    return ask(std::move(question));
}

void SiteProvider::onAuthResult(const AuthContext& context, const AuthResult& result) {
    if (listener.hostReport) {
        listener.hostReport(context, result);
    }
}

bool SiteProvider::getReaderPriority(std::vector<ReaderType>& priority) {
    std::lock_guard<std::mutex> lock(mutex);
    priority = data.readerPriority;
    return !priority.empty();
}

}  // namespace authsim
