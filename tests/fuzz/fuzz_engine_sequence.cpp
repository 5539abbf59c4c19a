// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// Whole-engine sequences: the input configures a scripted host, then turns into a sequence of
// engine calls (attempts of every open type, host answers to real and made-up ids, relay choices,
// clock moves, timeout sweeps, resumes, resets). Every report must respect the checks that were
// asked: no locked-down or forbidden relay opens, no relay opens whose anti-passback, interlock or
// parking answer did not pass, and a refusal carries nothing to actuate. Once the clocks have been
// moved far ahead and swept, nothing may be left parked.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <initializer_list>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "FuzzInput.h"
#include "FuzzValues.h"
#include "auth_engine/AuthLogger.h"
#include "engine/AuthEngine.h"
#include "support/CallbackRecorder.h"
#include "support/FakeDataProvider.h"
#include "support/TestClock.h"

namespace auth_engine {
namespace fuzz {
namespace {

using testing::CallbackRecorder;
using testing::FakeDataProvider;
using testing::TestClock;

constexpr int kIdleWaitMs = 30000;
constexpr int kMaxOperations = 40;
const char* const kPhaseInfix = "_ind_";
// A per-relay question's id: the request id, one of these, the relay.
const char* const kApQuestion = "_ind_antipassback_ap_";
const char* const kIlQuestion = "_ind_interlock_il_";

/// What the engine appends to a request id for the phases it parks; a resume names one of the
/// first five.
const std::vector<std::string>& phaseSuffixes() {
    static const std::vector<std::string> list = {"",
                                                  "_ind_antipassback",
                                                  "_ind_interlock",
                                                  "_ind_parking",
                                                  "_ind_unlock_options",
                                                  "_ind_antipassback_ind_parking"};
    return list;
}

const std::vector<std::string>& credentials() {
    static const std::vector<std::string> list = {"c0", "c1", "c2", "c3", "p0",
                                                  "l0", "k0", "r0", "",   "zz"};
    return list;
}

/// The request id a report or question belongs to: its id up to the first phase infix.
std::string rootOf(const std::string& id) {
    const std::size_t infix = id.find(kPhaseInfix);
    return infix == std::string::npos ? id : id.substr(0, infix);
}

bool passesAntiPassback(int result) {
    return result == SUCCESS || result == CONTINUE;
}

bool passesStrictly(int result) {
    return result == SUCCESS;
}

/// Sets each of `members` from one bit of `bits`, the first from the lowest.
template <typename T>
void setFromBits(T& object, unsigned bits, std::initializer_list<bool T::*> members) {
    for (bool T::*member : members) {
        object.*member = (bits & 1) != 0;
        bits >>= 1;
    }
}

/// What the harness told the engine, per routed id: every result delivered, and for per-relay
/// questions the result that decided it (the first one delivered while the question was still
/// registered: the engine records that one and drops later ones).
class AnswerLog {
public:
    void record(const std::string& id, int result, bool decisive) {
        std::lock_guard<std::mutex> guard(mutex);
        delivered[id].push_back(result);
        if (decisive) {
            decided.emplace(id, result);
        }
    }

    bool anyPassing(const std::string& id, bool (*passing)(int)) {
        std::lock_guard<std::mutex> guard(mutex);
        const auto found = delivered.find(id);
        return found != delivered.end() &&
               std::any_of(found->second.begin(), found->second.end(), passing);
    }

    /// Some answer passed, and so did the deciding one if the question was decided.
    bool passed(const std::string& id, bool (*passing)(int)) {
        if (!anyPassing(id, passing)) {
            return false;
        }
        std::lock_guard<std::mutex> guard(mutex);
        const auto found = decided.find(id);
        return found == decided.end() || passing(found->second);
    }

    void clear() {
        std::lock_guard<std::mutex> guard(mutex);
        delivered.clear();
        decided.clear();
    }

private:
    std::mutex mutex;
    std::map<std::string, std::vector<int>> delivered;
    std::map<std::string, int> decided;
};

struct RelayChoice {
    std::string optionsId;
    Relays offered;
};

class Harness {
public:
    explicit Harness(FuzzInput& in) : in(in), provider(std::make_shared<FakeDataProvider>()) {}

    void run() {
        configureHost();
        FUZZ_CHECK(engine.init(provider) == 0, "init failed");
        for (int step = 0; step < kMaxOperations && !in.empty(); ++step) {
            operate();
            FUZZ_CHECK(engine.waitForIdle(kIdleWaitMs), "engine did not become idle");
            collectIds();
        }
        drain();
        checkReports();
        engine.reset();
        checkReports();
    }

private:
    // ---- the scripted host ----

    std::string scheduleRelayText() {
        if (in.range(0, 7) == 0) {
            return in.bytes(16);
        }
        static const std::vector<std::string> ids = {"1", "2", "3", "9"};
        std::string text;
        const int entries = in.range(0, 3);
        for (int i = 0; i < entries; ++i) {
            const std::string& id = in.pick(ids);
            text += (i == 0 ? "" : ";") + id + "-" + joinRelayVector(relaysFrom(in, 3));
        }
        return text;
    }

    std::shared_ptr<ScheduleData> hostSchedule(const std::string& id) {
        std::shared_ptr<ScheduleData> schedule = scheduleFrom(in);
        if (!schedule) {
            return schedule;
        }
        if (in.range(0, 3) != 0) {
            // Most schedules admit all day, so that attempts reach the later checks.
            schedule->type = 1;
            schedule->startTime = "00:00:00";
            schedule->endTime = "23:59:59";
        }
        schedule->scheduleId = id;
        return schedule;
    }

    void configureHost() {
        AuthConfig& config = provider->config;
        setFromBits(config, in.byte(),
                    {&AuthConfig::antiPassbackEnabled, &AuthConfig::interlockEnabled,
                     &AuthConfig::parkingRestrictionEnabled, &AuthConfig::holidayEnabled,
                     &AuthConfig::virtualDoorEnabled, &AuthConfig::unlockOptionsEnabled,
                     &AuthConfig::doubleAuthEnabled, &AuthConfig::cloudVirtualDoorConfigured});
        config.doubleAuthEnabled = config.doubleAuthEnabled && in.flag();  // it holds every card
        config.virtualDoorMode = in.range(0, 1);
        config.doubleAuthMode = static_cast<DoubleAuthMode>(in.range(0, 4));
        config.antiPassbackTimeout = in.range(-1, 40);
        config.interlockTimeout = in.range(-1, 10);
        config.interlockRetryLimit = in.range(0, 3);
        config.parkingTimeout = in.range(-1, 40);
        config.doubleAuthTimeoutSec = in.range(-1, 90);
        config.tempKeyTimeout = in.range(-1, 10);
        for (int reader = 0; reader <= 2; ++reader) {
            if (in.range(0, 3) != 0) {
                continue;
            }
            auto& directions = config.readerRelayMap[static_cast<ReaderType>(reader)];
            for (int direction = 0; direction <= 2; ++direction) {
                if (in.flag()) {
                    directions[static_cast<RELAY_DIRECTION>(direction)] = relaysFrom(in, 3);
                }
            }
        }

        static const std::vector<int> forbiddenTypes = {1, 4, 9, 13, 15, 16, 17};
        for (std::size_t i = 0; i < 6; ++i) {
            const std::string& relay = relayPool()[i];
            const uint8_t bits = in.byte();
            if ((bits & 7) != 0) {  // with bit 4 alone: listed, direction 0
                config.antiPassbackRelayMap[relay] = bits & 3;
            }
            if ((bits & 8) != 0) {
                config.interlockRelayMap[relay] = (bits & 16) != 0;
            }
            if ((bits & 32) != 0) {
                provider->lockedDownRelays.insert(relay);
            }
            if ((bits & 64) != 0) {
                provider->offlineRelays.insert(relay);
            }
            if ((bits & 128) != 0) {
                provider->forbiddenRelays[in.pick(forbiddenTypes)].insert(relay);
            }
            if (in.range(0, 3) == 0) {
                provider->holidayExemptRelays.insert(relay);
            }
        }

        const int64_t now = clock.wall();
        for (int i = 0; i < 4; ++i) {
            UserData user;
            user.userType = in.range(0, 3);
            user.userName = "user " + std::to_string(i);
            user.userId = in.range(0, 7) == 0 ? std::string() : "u" + std::to_string(i);
            user.scheduleRelay = scheduleRelayText();
            user.holidayKey = "h" + std::to_string(i);
            user.userTargetId = in.range(0, 3) == 0 ? "T" + std::to_string(i) : std::string();
            user.lockdownBypass = in.range(0, 3) == 0 ? 1 : 0;
            user.holidayExempt = in.range(0, 3) == 0 ? 1 : 0;
            user.ownerKind = in.range(0, 2);
            if (in.range(0, 3) == 0) {  // bounded validity, now usually inside it
                user.validTimeStart = now - in.range(-20, 200);
                user.validTimeEnd = now + in.range(-20, 4000);
            }
            provider->users["c" + std::to_string(i)] = user;
        }
        for (int i = 0; i < 3; ++i) {
            provider->schedules.push_back(hostSchedule(std::to_string(i + 1)));
        }
        if (in.range(0, 3) == 0) {
            HolidayData holiday;
            holiday.yearlyRepeat = in.range(0, 1);
            holiday.type = in.range(0, 2);
            const std::string from = timeText(in);
            holiday.timeRange = from + "-" + timeText(in);
            holiday.startDate = in.flag() ? "2025-01-01" : dateText(in);
            holiday.endDate = in.flag() ? "2025-12-31" : dateText(in);
            provider->holidays.push_back(holiday);
        }

        if (in.flag()) {
            provider->publicPin = "p0";
            provider->publicPinRelays = relaysFrom(in, 3);
        }
        if (in.flag()) {
            provider->latchPins["l0"] = relaysFrom(in, 3);
        }
        provider->tempKeySendOk = in.range(0, 7) != 0;
        provider->tempKeyUsers["k0"] = provider->users[cardFrom()];
        provider->tempKeyTargets = targetsFrom(in);
        provider->remoteControlUsers["r0"] = provider->users[cardFrom()];
        if (in.flag()) {
            provider->httpConfig = HttpOpenConfig{in.flag(), "admin", "secret"};
        }
        if (in.flag()) {
            DtmfConfig dtmf;
            dtmf.enabled = in.range(0, 3) != 0;
            dtmf.codeRelays["123"] = relaysFrom(in, 3);
            dtmf.whitelistRequired = in.flag();
            provider->dtmfConfig = dtmf;
            provider->dtmfWhitelist["555"] = DtmfWhitelistResult{in.flag(), "per1", "caller"};
            if (in.flag()) {
                provider->dtmfUsers["555"] = provider->users["c0"];
            }
            if (in.flag()) {
                provider->dtmfVisitor = provider->users["c1"];
            }
        }
        if (in.range(0, 3) != 0) {
            provider->keyData = std::make_shared<KeyData>(
                KeyData{now - in.range(-20, 200), now + in.range(-20, 4000), in.flag()});
        }
        provider->bleAllowed = in.range(0, 3) != 0;
        provider->parkingOffline = in.range(0, 3) == 0;

        // Inline answers, given from inside the question: none, passing, failing, or CONTINUE.
        for (FakeDataProvider::QuestionHook* hook :
             {&provider->answerAntiPassback, &provider->answerInterlock, &provider->answerParking,
              &provider->answerTempKey}) {
            installHook(*hook, in.range(0, 3));
        }
    }

    /// One of the four users' cards.
    std::string cardFrom() { return "c" + std::to_string(in.range(0, 3)); }

    void installHook(FakeDataProvider::QuestionHook& hook, int mode) {
        if (mode == 0) {
            return;
        }
        hook = [this, mode](FakeDataProvider::Question& question) {
            AuthResponse response;
            AuthContext update;
            response.result = mode == 1 ? SUCCESS : mode == 2 ? FAILED : CONTINUE;
            if (question.kind == "tempkey" && mode != 2) {
                update.tempKeyAuthData = std::make_shared<TempKeyAuthData>();
                update.tempKeyAuthData->failCode = mode == 3 ? 7 : 0;
            }
            if (question.kind == "parking" && mode == 2) {
                response.failCode = 23;
            }
            deliver(question, response, update, true);
        };
    }

    // ---- answers ----

    /// Answers a question through the callback the engine handed over, noting what was said.
    void deliver(const FakeDataProvider::Question& question, const AuthResponse& response,
                 const AuthContext& update, bool fresh) {
        if (!question.callback) {
            return;
        }
        std::string routed = question.requestId;
        bool perRelay = false;
        if (question.kind == "antipassback" || question.kind == "interlock") {
            routed += (question.kind == "antipassback" ? "_ap_" : "_il_") + question.relay;
            perRelay = true;
        } else if (routed.empty()) {
            routed = question.handle;  // no id of its own: the host's handle routes the answer
        }
        // Answers to questions of an engine that was reset go nowhere; they are not noted.
        if (fresh) {
            const bool decisive = perRelay && !engine.subRequestParent(routed).empty();
            answers.record(routed, response.result, decisive);
        }
        question.callback(question.handle, response, update);
    }

    AuthResponse responseFrom() {
        static const std::vector<int> results = {SUCCESS,
                                                 SUCCESS,
                                                 FAILED,
                                                 CONTINUE,
                                                 ASYNC_PENDING,
                                                 DROPPED,
                                                 DOUBLE_AUTH_PENDING,
                                                 UNLOCK_OPTIONS_PENDING,
                                                 IGNORED,
                                                 99};
        static const std::vector<int> failCodes = {0, 0, 5, 21, 23, 24, 44, -3};
        AuthResponse response;
        response.result = static_cast<AuthResult>(in.pick(results));
        response.failCode = in.pick(failCodes);
        const uint8_t fields = in.byte();
        if ((fields & 1) != 0) {
            response.openedRelays = relaysFrom(in, 3);
        }
        if ((fields & 2) != 0) {
            response.unlockOptionsRelays = relaysFrom(in, 3);
        }
        if ((fields & 4) != 0) {
            response.relays = relaysFrom(in, 3);
        }
        if ((fields & 8) != 0) {
            response.reason = in.bytes(8);
        }
        if ((fields & 16) != 0) {
            response.targets = targetsFrom(in);
        }
        if ((fields & 32) != 0) {
            response.asyncType = in.flag() ? "antipassback" : "x";
            response.unlockOptionsId = "options";
        }
        response.remoteFailCode = in.range(-1, 6);
        return response;
    }

    AuthContext updateFrom() {
        AuthContext update;
        if (in.range(0, 2) == 0) {
            static const std::vector<std::string> keys = {"", "k0", "zz"};
            update.tempKeyAuthData = std::make_shared<TempKeyAuthData>();
            update.tempKeyAuthData->key = in.pick(keys);
            update.tempKeyAuthData->failCode = in.range(0, 3) == 0 ? 7 : 0;
            update.tempKeyAuthData->targets = targetsFrom(in);
        }
        if (in.range(0, 7) == 0) {
            update.authTargets = targetsFrom(in);
        }
        if (in.range(0, 3) == 0) {
            setFromBits(update, in.byte(),
                        {&AuthContext::skipUserLookup, &AuthContext::skipVirtualDoor,
                         &AuthContext::skipUnlockType, &AuthContext::skipTimeCheck,
                         &AuthContext::skipHolidayCheck, &AuthContext::virtualDoorExempt});
        }
        return update;
    }

    /// Ids the engine holds right now: parked chains and phases of the requests seen so far,
    /// and the per-relay questions still registered.
    Relays liveIds() {
        Relays live;
        AuthEngine::AsyncContext chain;
        AuthEngine::IndependentAsyncContext phase;
        for (const std::string& root : roots) {
            for (const std::string& suffix : phaseSuffixes()) {
                const std::string id = root + suffix;
                if (engine.peekParkedChain(id, chain) || engine.peekParkedPhase(id, phase)) {
                    live.push_back(id);
                }
            }
            for (std::size_t i = 0; i < 6; ++i) {
                for (const char* infix : {kApQuestion, kIlQuestion}) {
                    const std::string id = root + infix + relayPool()[i];
                    if (!engine.subRequestParent(id).empty()) {
                        live.push_back(id);
                    }
                }
            }
        }
        return live;
    }

    /// A made-up or real id: one the engine holds now, a request of this run with one of the
    /// engine's suffixes, or junk.
    std::string answerId() {
        if (in.flag()) {
            const Relays live = liveIds();
            if (!live.empty()) {
                return in.pick(live);
            }
        }
        std::string root;
        if (!roots.empty() && in.range(0, 7) != 0) {
            root = in.pick(roots);
        } else {
            static const std::vector<std::string> junk = {"", "req_", "req_0_0", "x", "double-1"};
            root = in.range(0, 3) == 0 ? in.bytes(10) : in.pick(junk);
        }
        const std::string& relay = in.pick(relayPool());
        return in.pick(std::vector<std::string>{
            root, root + kApQuestion + relay, root + kIlQuestion + relay, root + "_ind_parking",
            root + "_ind_antipassback_ind_parking", root + "_ind_unlock_options",
            root + "_ind_antipassback", root + "_ind_interlock", root + "_ap_" + relay});
    }

    // ---- attempts ----

    /// The credential the host knows for an open type: a temporary key, a remote user, a device
    /// PIN, or else a user's card.
    std::string credentialOf(int openType) {
        switch (openType) {
            case OPEN_TYPE_TEMP_KEY:
                return "k0";
            case OPEN_TYPE_REMOTE_CONTROL:
                return "r0";
            case OPEN_TYPE_PIN:
            case OPEN_TYPE_PIN_5:
            case OPEN_TYPE_PIN_7:
            case OPEN_TYPE_PIN_19:
                return in.flag() ? "p0" : "l0";
            default:
                return cardFrom();
        }
    }

    AuthRequest requestFrom() {
        // Half the attempts are of the kinds that look a user up, with a known credential, so
        // that many pass the chain and reach the relay checks; the rest range over everything.
        static const std::vector<int> userTypes = {1, 4, 9, 10, 11};
        static const std::vector<int> openTypes = {1,  4,  9,  2,  3,  5,  6,  7,  8, 10, 11,
                                                   13, 14, 15, 16, 17, 18, 19, 20, 0, 99};
        AuthRequest request;
        const bool userAttempt = in.flag();
        request.openType =
            static_cast<OpenDoorType>(userAttempt ? in.pick(userTypes) : in.pick(openTypes));
        if (userAttempt) {
            request.credential = cardFrom();
        } else if (in.range(0, 3) == 0) {
            request.credential = in.range(0, 3) == 0 ? in.bytes(8) : in.pick(credentials());
        } else {
            request.credential = credentialOf(request.openType);
        }
        request.readerType = static_cast<ReaderType>(in.range(0, 7) == 0 ? 5 : in.range(0, 2));
        request.timestamp = clock.wall();
        request.sourceCode = in.range(0, 7) == 0 ? SOURCE_CODE_QR : 0;
        const uint8_t extras = in.byte();
        if ((extras & 1) != 0) {
            request.relays = relaysFrom(in, 3);
        }
        if ((extras & 2) != 0) {
            request.targets = targetsFrom(in);
        }
        // Data of the attempt's own kind is usually there; others' data only when a bit asks.
        const int openType = request.openType;
        const auto carries = [extras](bool itsKind, unsigned bit) {
            return itsKind ? (extras & 4) == 0 : (extras & bit) != 0;
        };
        if (carries(openType == OPEN_TYPE_DTMF, 8)) {
            static const std::vector<std::string> codes = {"123", "999", ""};
            static const std::vector<std::string> numbers = {"555", "666"};
            request.dtmfData = std::make_shared<DtmfRequestData>(
                DtmfRequestData{in.pick(codes), in.pick(numbers), "caller", "call1"});
        }
        if (carries(openType == OPEN_TYPE_HTTP || openType == OPEN_TYPE_HTTP_20, 16)) {
            request.httpData = std::make_shared<HttpRequestData>();
            request.httpData->source = in.range(0, 2);
            request.httpData->username = in.flag() ? "admin" : "guest";
            request.httpData->password = in.flag() ? "secret" : "secreT";
            request.httpData->preAuthenticated = in.range(0, 1);
            request.httpData->targets = targetsFrom(in);
        }
        if (carries(openType == OPEN_TYPE_INPUT, 32)) {
            request.inputData = std::make_shared<InputRequestData>();
            request.inputData->inputId = in.range(0, 3);
            request.inputData->inputState = in.range(0, 1);
            request.inputData->targets = targetsFrom(in);
        }
        if (carries(openType == OPEN_TYPE_RELAY_KEY, 64)) {
            request.relayKeyData = std::make_shared<RelayKeyAuthData>();
            request.relayKeyData->scheduleIds = in.textFrom("0123;-", 8);
            request.relayKeyData->targets = targetsFrom(in);
        }
        if ((extras & 128) != 0) {
            request.virtualDoorExempt = in.flag();
            request.virtualDoorSkipRelaySchedule = in.flag();
            request.direction = in.range(0, 2);
            request.commandText = "open";
            request.requestText = "text";
            if (in.flag()) {
                request.doubleAuthPendingId = pendingIds.empty() ? "double-1" : in.pick(pendingIds);
            }
        }
        return request;
    }

    // ---- the sequence ----

    // The immediate answer of an attempt is checked fully through the report that accompanies it;
    // on its own only what needs no context: a refusal carries nothing.
    void operate() {
        switch (in.range(0, 13)) {
            case 0:
            case 1: {  // synchronous attempt without id: nothing of it may be parked
                checkRefusalCarriesNothing(
                    engine.authenticate(requestFrom(), AuthCallback(), std::string()),
                    "returned response");
                break;
            }
            case 2: {  // synchronous attempt with an id and a callback, as the worker makes it
                const std::string id = engine.generateRequestId();
                addRoot(id);
                checkRefusalCarriesNothing(
                    engine.authenticate(requestFrom(), recorder.callback(), id),
                    "returned response");
                break;
            }
            case 3:
            case 4: {  // queued attempt, run by the worker
                const std::string id = engine.authenticateAsync(requestFrom(), recorder.callback());
                addRoot(id);
                break;
            }
            case 5:
            case 6: {  // answer one of the questions the host was asked
                const std::vector<FakeDataProvider::Question> asked = provider->questions();
                if (asked.empty()) {
                    break;
                }
                const auto index =
                    static_cast<std::size_t>(in.range(0, static_cast<int>(asked.size()) - 1));
                const AuthResponse response = responseFrom();
                deliver(asked[index], response, updateFrom(), index >= staleQuestions);
                break;
            }
            case 7: {  // an answer under a real or made-up id
                const std::string id = answerId();
                const AuthResponse response = responseFrom();
                const bool decisive = !engine.subRequestParent(id).empty();
                answers.record(id, response.result, decisive);
                engine.handleAsyncResponse(id, response.result, response, updateFrom());
                break;
            }
            case 8: {  // the user's relay choice, built as the facade builds it
                std::string optionsId = "x_ind_unlock_options";
                Relays offered = {"1", "2"};
                if (!choices.empty() && in.range(0, 7) != 0) {
                    const RelayChoice& choice = in.pick(choices);
                    optionsId = choice.optionsId;
                    offered = choice.offered;
                }
                Relays selected;
                for (const std::string& relay : offered) {
                    if (in.flag()) {
                        selected.push_back(relay);
                    }
                }
                if (in.range(0, 3) == 0) {
                    const Relays extra = relaysFrom(in, 2);
                    selected.insert(selected.end(), extra.begin(), extra.end());
                }
                AuthResponse response;
                response.unlockOptionsId = optionsId;
                if (!selected.empty()) {
                    response.result = SUCCESS;
                    response.unlockOptionsRelays = selected;
                } else {
                    response.result = FAILED;
                    response.failCode = 44;
                    response.reason = "User canceled relay selection";
                }
                engine.handleAsyncResponse(optionsId, response.result, response, AuthContext());
                break;
            }
            case 9: {  // time passes (or the wall clock is set back)
                const int choice = in.range(0, 7);
                if (choice == 0) {
                    clock.setWall(clock.wall() - in.range(0, 120));
                } else {
                    clock.advance(choice == 1 ? in.range(60, 4000) : in.range(0, 45));
                }
                if (in.flag()) {
                    engine.checkAllPendingTimeouts();
                }
                break;
            }
            case 10: {  // a resume the worker would not have been asked for
                const Relays live = liveIds();
                if (!live.empty() && in.flag()) {
                    engine.resumeAuthentication(in.pick(live));
                } else if (!roots.empty()) {
                    const std::string& root = in.pick(roots);
                    const auto suffix = static_cast<std::size_t>(in.range(0, 4));
                    engine.resumeAuthentication(root + phaseSuffixes()[suffix]);
                }
                break;
            }
            case 11: {  // reset and start again, or a second init that keeps the parked state
                if (in.flag()) {
                    engine.reset();
                    checkReports();
                    answers.clear();
                    verifications.clear();
                    staleQuestions = provider->questions().size();
                }
                FUZZ_CHECK(engine.init(provider) == 0, "init failed");
                break;
            }
            case 12: {  // interlock verification without a credential
                std::vector<AuthTarget> targets = targetsFrom(in);
                const std::string id =
                    engine.verifyInterlockTargets(requestFrom(), targets, recorder.callback());
                if (!id.empty()) {
                    verifications.insert(id);
                }
                addRoot(id);
                break;
            }
            default: {  // double authentication control on a real or made-up pending id
                const std::string id =
                    pendingIds.empty() || in.range(0, 3) == 0 ? "double-9" : in.pick(pendingIds);
                const AuthResponse response = in.flag() ? engine.handleDoubleAuthTimeout(id)
                                                        : engine.cancelDoubleAuth(id, in.bytes(6));
                FUZZ_CHECK(response.result == FAILED, "double authentication control passed");
                checkRefusalCarriesNothing(response, "double authentication control");
                break;
            }
        }
    }

    void addRoot(const std::string& id) {
        if (!id.empty() && !contains(roots, id)) {
            roots.push_back(id);
        }
    }

    /// How far the host's reports and the callbacks have been gone through.
    struct Seen {
        std::size_t reports = 0;
        std::size_t calls = 0;
    };

    /// Hands each host report, then each callback, not yet `seen` to visit(id, response, context).
    template <typename Visit>
    void visitNew(Seen& seen, Visit visit) {
        const auto reports = provider->reports();
        for (std::size_t i = seen.reports; i < reports.size(); ++i) {
            const auto& report = reports[i];
            FUZZ_CHECK(report.result == report.context.response.result, "report result differs");
            visit(report.context.requestId, report.context.response, report.context);
        }
        seen.reports = reports.size();
        const auto calls = recorder.all();
        for (std::size_t i = seen.calls; i < calls.size(); ++i) {
            visit(calls[i].requestId, calls[i].response, calls[i].context);
        }
        seen.calls = calls.size();
    }

    /// Learns ids from what the host saw: request ids, relay choices, pending first factors.
    void collectIds() {
        for (const auto& question : provider->questions()) {
            addRoot(rootOf(question.requestId));
        }
        visitNew(learned, [this](const std::string& id, const AuthResponse& response,
                                 const AuthContext&) {
            addRoot(rootOf(id));
            if (response.result == UNLOCK_OPTIONS_PENDING && !response.unlockOptionsId.empty()) {
                choices.push_back(
                    RelayChoice{response.unlockOptionsId, response.unlockOptionsRelays});
            }
            if (!response.doubleAuthPendingId.empty() &&
                !contains(pendingIds, response.doubleAuthPendingId)) {
                pendingIds.push_back(response.doubleAuthPendingId);
            }
        });
    }

    /// Moves both clocks far past every timeout and sweeps until nothing is parked.
    void drain() {
        for (int round = 0; round < 12; ++round) {
            if (engine.parkedChainCount() == 0 && engine.parkedPhaseCount() == 0 &&
                engine.subRequestCount() == 0) {
                break;
            }
            clock.advance(100000);
            engine.checkAllPendingTimeouts();
            FUZZ_CHECK(engine.waitForIdle(kIdleWaitMs), "engine did not become idle");
        }
        const std::size_t chains = engine.parkedChainCount();
        const std::size_t phases = engine.parkedPhaseCount();
        const std::size_t subRequests = engine.subRequestCount();
        FUZZ_CHECK(chains == 0 && phases == 0 && subRequests == 0,
                   "left parked: " + std::to_string(chains) + " chains, " + std::to_string(phases) +
                       " phases, " + std::to_string(subRequests) + " sub-requests");
    }

    // ---- report checks ----

    static void checkRefusalCarriesNothing(const AuthResponse& response, const std::string& what) {
        if (response.result == FAILED) {
            FUZZ_CHECK(response.openedRelays.empty() && response.targets.empty(),
                       what + ": a refusal opens " + joinForDetail(response.openedRelays));
        }
    }

    void checkReports() {
        visitNew(checked,
                 [this](const std::string& id, const AuthResponse& response,
                        const AuthContext& context) { checkReport(id, response, context); });
    }

    void checkReport(const std::string& id, const AuthResponse& response,
                     const AuthContext& context) {
        const std::string what = "report " + id + " result " + std::to_string(response.result) +
                                 " opened " + joinForDetail(response.openedRelays);
        if (traceReports) {
            (void)std::fprintf(stderr, "[report] %s asyncType=%s failCode=%d reason=%s\n",
                               what.c_str(), response.asyncType.c_str(), response.failCode,
                               response.reason.c_str());
        }
        const int result = response.result;
        FUZZ_CHECK(result == SUCCESS || result == FAILED || result == DOUBLE_AUTH_PENDING ||
                       result == UNLOCK_OPTIONS_PENDING || result == IGNORED,
                   what + ": unexpected result");
        checkRefusalCarriesNothing(response, what);
        if (result != SUCCESS) {
            FUZZ_CHECK(response.openedRelays.empty(), what + ": opens without success");
            return;
        }
        for (const AuthTarget& target : response.targets) {
            if (target.type == 0 || target.type == 1) {
                FUZZ_CHECK(contains(response.openedRelays, target.relay),
                           what + ": actuates relay " + target.relay + " it did not open");
            }
        }

        const AuthConfig& config = provider->config;
        const std::string root = rootOf(id.empty() ? context.requestId : id);
        // An interlock verification runs no credential chain: only its interlock answers count.
        const bool verification = verifications.count(root) != 0;
        const std::shared_ptr<UserData> user = context.userData;
        const int openType = context.request.openType;
        const bool apApplies = config.antiPassbackEnabled && user &&
                               (user->userType == 1 || user->userType == 2) &&
                               openType != OPEN_TYPE_REMOTE_CONTROL;
        const bool parkingApplies = config.parkingRestrictionEnabled && user &&
                                    openType == OPEN_TYPE_LICENSE_PLATE && user->userType == 1;
        const auto forbidden = provider->forbiddenRelays.find(openType);

        for (const std::string& relay : response.openedRelays) {
            const std::string about = what + ", relay " + relay;
            if (!verification) {
                FUZZ_CHECK(provider->lockedDownRelays.count(relay) == 0 ||
                               (user && user->lockdownBypass >= 1),
                           about + " is locked down");
                const bool typeChecked = !context.skipUnlockType &&
                                         context.request.readerType == READER_TYPE_INTERNAL &&
                                         openType != OPEN_TYPE_RELAY_KEY;
                FUZZ_CHECK(!typeChecked || forbidden == provider->forbiddenRelays.end() ||
                               forbidden->second.count(relay) == 0,
                           about + " is forbidden for open type " + std::to_string(openType));
                const auto direction = config.antiPassbackRelayMap.find(relay);
                if (apApplies && direction != config.antiPassbackRelayMap.end() &&
                    direction->second != 0) {
                    FUZZ_CHECK(answers.passed(root + kApQuestion + relay, passesAntiPassback),
                               about + " opened without passing anti-passback");
                }
                if (parkingApplies) {
                    FUZZ_CHECK(provider->parkingOffline ||
                                   answers.anyPassing(root + "_ind_parking", passesStrictly) ||
                                   answers.anyPassing(root + "_ind_antipassback_ind_parking",
                                                      passesStrictly),
                               about + " opened without passing parking");
                }
            }
            const auto interlocked = config.interlockRelayMap.find(relay);
            if (config.interlockEnabled && interlocked != config.interlockRelayMap.end() &&
                interlocked->second) {
                FUZZ_CHECK(answers.passed(root + kIlQuestion + relay, passesStrictly),
                           about + " opened without passing interlock");
            }
        }
    }

    FuzzInput& in;
    TestClock clock;  // declared before the engine: the worker reads it until reset joins it
    std::shared_ptr<FakeDataProvider> provider;
    CallbackRecorder recorder;
    AnswerLog answers;
    AuthEngine engine;

    Relays roots;
    Relays pendingIds;
    std::vector<RelayChoice> choices;
    std::set<std::string> verifications;
    std::size_t staleQuestions = 0;
    Seen learned;
    Seen checked;
    /// With AUTH_FUZZ_LOG set, every report is printed too (next to the library's log).
    const bool traceReports = std::getenv("AUTH_FUZZ_LOG") != nullptr;
};

}  // namespace

void fuzzOne(FuzzInput& in) {
    Harness(in).run();
}

}  // namespace fuzz
}  // namespace auth_engine
