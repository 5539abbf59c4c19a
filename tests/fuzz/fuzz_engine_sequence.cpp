// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// Whole-engine sequences: the input configures a scripted host, then turns into a sequence of
// engine calls (attempts of every open type, host answers to real and made-up ids, relay choices,
// clock moves, timeout sweeps, resumes, resets). The host misbehaves as the input says: an
// operation throws on a chosen call, a question is answered twice, under a wrong id, inline and
// then again later, "yes" inline and then a throw, and host code calls back into the engine (reset
// included) from inside an operation or a completion callback. Every report must respect the
// checks that were asked: no locked-down or forbidden relay opens, no relay opens whose
// anti-passback, interlock or parking answer did not pass, and a refusal carries nothing to
// actuate. No id is issued twice; no phase is reported twice; every accepted request hears back
// unless it ended silently by design. Once the clocks have been moved far ahead and swept, nothing
// may be left parked, registered or held. With guessing protection on, nothing opens at a reader
// while it is locked out, and the guard's table never outgrows its fixed size whatever is typed;
// with duress codes on, a duress code decides exactly as the user's own code does.
#include <stdexcept>

#include "FuzzValues.h"
#include "common/ProcessorSupport.h"
#include "engine/AuthEngine.h"
#include "support/CallbackRecorder.h"
#include "support/FakeDataProvider.h"
#include "support/TestClock.h"

namespace auth_engine {
namespace fuzz {
namespace {

using testing::FakeDataProvider;
using Question = FakeDataProvider::Question;
using Lock = std::lock_guard<std::mutex>;

constexpr int kIdleWaitMs = 30000;
// A per-relay question's id: the request id, one of these, the relay.
const char* const kApQuestion = "_ind_antipassback_ap_";
const char* const kIlQuestion = "_ind_interlock_il_";
// What the engine appends to a request id for the phases it parks; a resume names one of the
// first five.
const auto kPhaseSuffixes = Strings({"", "_ind_antipassback", "_ind_interlock", "_ind_parking",
                                     "_ind_unlock_options", "_ind_antipassback_ind_parking"});
const auto kCredentials = Strings({"c0", "c1", "c2", "c3", "p0", "l0", "k0", "r0", "", "zz"});
const auto kFaultyOperations = Strings(
    {"getUserByCredential", "getAuthConfig", "getRelaySchedules", "getHolidays",
     "getLockedDownRelays", "isRelayHolidayExempt", "requestTempKey", "getTempKeyUser",
     "requestAntiPassback", "requestInterlock", "requestParking", "onAuthResult",
     "checkBleOpenInterval", "callback", "getUserByDuressCode", "onDuress", "onGuessLockout"});

/// The request id a report or question belongs to: its id up to the first phase infix.
std::string rootOf(const std::string& id) {
    return id.substr(0, id.find("_ind_"));
}

const auto passesAntiPassback = [](int result) { return result == SUCCESS || result == CONTINUE; };
const auto passesStrictly = [](int result) { return result == SUCCESS; };

const auto responseOf = [](AuthResult result) {
    AuthResponse response;
    response.result = result;
    return response;
};

/// Sets each of `members` from one bit of `bits`, the first from the lowest.
template <typename T>
void setFromBits(T& object, unsigned bits, std::initializer_list<bool T::*> members) {
    for (bool T::*member : members) {
        object.*member = (bits & 1) != 0;
        bits >>= 1;
    }
}

/// What host code does when it calls back into the engine from inside an operation or a callback.
enum class Reentry { NONE, RESET, SUBMIT, ANSWER_JUNK, ANSWER_LATEST, SWEEP, SETTLE, INIT, VERIFY };

/// A host fault planned by the input: on the `call`-th call of `operation` ("callback" for the
/// completion callbacks), call back in as `reentry` says, then throw if `throws`.
struct HostFault {
    std::string operation;
    int call;
    Reentry reentry;
    bool throws;
};

class Harness {
public:
    explicit Harness(FuzzInput& in) : in(in) {}

    ~Harness() {
        std::unique_lock<std::mutex> lock = provider->lock();
        provider->beforeCall = nullptr;  // nothing of the host may call in while the engine stops
        lock.unlock();
        engine->reset();
    }

    void run() {
        configureHost();
        FUZZ_CHECK(engine->init(provider) == 0, "init failed");
        for (int step = 0; step < 40 && !in.empty(); ++step) {  // at most 40 operations
            operate();
            FUZZ_CHECK(engine->waitForIdle(kIdleWaitMs), "engine did not become idle");
            FUZZ_CHECK(engine->guessReaderCount() <= GuessGuard::READER_SLOTS,
                       "guessing protection outgrew its table");
            collectIds();
        }
        // Both clocks far past every timeout, and sweeps until nothing is parked.
        if (!engine->isReady()) {
            resetEngine(false);  // completes a reset host code asked for
        }
        for (int round = 0; round < 12 && engine->parkedChainCount() + engine->parkedPhaseCount() +
                                                  engine->subRequestCount() >
                                              0;
             ++round) {
            clock.advance(100000);
            engine->checkAllPendingTimeouts();
            FUZZ_CHECK(engine->waitForIdle(kIdleWaitMs), "engine did not become idle");
        }
        const std::string left = std::to_string(engine->parkedChainCount()) + " chains, " +
                                 std::to_string(engine->parkedPhaseCount()) + " phases, " +
                                 std::to_string(engine->openQuestionCount()) + " questions, " +
                                 std::to_string(engine->heldAnswerCount()) + " held answers";
        FUZZ_CHECK(left == "0 chains, 0 phases, 0 questions, 0 held answers", "left: " + left);
        collectIds();
        engine->reset();
        collectIds();

        // Every accepted request heard back, unless it ended silently by design (a chain parked
        // when the engine was reset, an answer saying DROPPED); no phase and no verdict twice.
        std::set<std::string> reported, heard;
        for (const auto& call : recorder.all()) {
            heard.insert(rootOf(call.requestId));
            const bool offer = call.response.result == UNLOCK_OPTIONS_PENDING;
            FUZZ_CHECK(reported.insert((offer ? "offer " : "verdict ") + call.requestId).second,
                       call.requestId + " reported or offered a choice twice");
        }
        Lock guard(mutex);
        for (const std::string& id : accepted) {
            FUZZ_CHECK(heard.count(id) != 0 || silent.count(id) != 0,
                       "accepted request " + id + " never heard back");
        }
    }

private:
    // ---- the scripted host ----

    std::string scheduleRelayText() {
        if (in.range(0, 7) == 0) {
            return in.bytes(16);
        }
        std::string text;
        for (int i = 0, entries = in.range(0, 3); i < entries; ++i) {
            const std::string id = in.pick(Strings{"1", "2", "3", "9"});
            text += (i == 0 ? "" : ";") + id + "-" + joinRelayVector(relaysFrom(in, 3));
        }
        return text;
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
        readerDoorsFrom(
            in, config, [this] { return in.range(0, 3) == 0; }, 3);

        for (const std::string& relay : Strings(kRelayPool.begin(), kRelayPool.begin() + 6)) {
            const unsigned bits = in.byte();
            if ((bits & 7) != 0) {  // with bit 4 alone: listed, direction 0
                config.antiPassbackRelayMap[relay] = static_cast<int>(bits & 3);
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
                provider->forbiddenRelays[in.pick(std::vector<int>({1, 4, 9, 13, 15, 16, 17}))]
                    .insert(relay);
            }
            if (in.range(0, 3) == 0) {
                provider->holidayExemptRelays.insert(relay);
            }
        }

        // Duress codes "d0".."d3" stand for the users of cards "c0".."c3".
        const int64_t now = clock.wall();
        for (int i = 0; i < 4; ++i) {
            const std::string n = std::to_string(i);
            UserData user;
            user.userType = in.range(0, 3);
            user.userName = "user " + n;
            user.userId = in.range(0, 7) == 0 ? std::string() : "u" + n;
            user.scheduleRelay = scheduleRelayText();
            user.holidayKey = "h" + n;
            user.userTargetId = in.range(0, 3) == 0 ? "T" + n : std::string();
            user.lockdownBypass = in.range(0, 3) == 0 ? 1 : 0;
            user.holidayExempt = in.range(0, 3) == 0 ? 1 : 0;
            user.ownerKind = in.range(0, 2);
            if (in.range(0, 3) == 0) {  // bounded validity, now usually inside it
                user.validTimeStart = now - in.range(-20, 200);
                user.validTimeEnd = now + in.range(-20, 4000);
            }
            provider->users["c" + n] = provider->duressCodes["d" + n] = user;
        }
        for (int i = 1; i <= 3; ++i) {
            const std::shared_ptr<ScheduleData> schedule = scheduleFrom(in);
            if (schedule && in.range(0, 3) != 0) {  // most admit all day, so that attempts go on
                std::tie(schedule->type, schedule->startTime, schedule->endTime) =
                    std::make_tuple(1, "00:00:00", "23:59:59");
            }
            if (schedule) {
                schedule->scheduleId = std::to_string(i);
            }
            provider->schedules.push_back(schedule);
        }
        if (in.range(0, 3) == 0) {
            const int repeat = in.range(0, 1), type = in.range(0, 2);  // one after the other
            const std::string from = timeText(in);
            provider->holidays.push_back(HolidayData{0, repeat, type, from + "-" + timeText(in), "",
                                                     "", in.flag() ? "2025-01-01" : dateText(in),
                                                     in.flag() ? "2025-12-31" : dateText(in)});
        }

        provider->publicPin = in.flag() ? "p0" : "";
        provider->publicPinRelays = provider->publicPin.empty() ? Relays() : relaysFrom(in, 3);
        if (in.flag()) {
            provider->latchPins["l0"] = relaysFrom(in, 3);
        }
        provider->tempKeySendOk = in.range(0, 7) != 0;
        provider->tempKeyUsers["k0"] = provider->users[cardFrom()];
        provider->tempKeyTargets = targetsFrom(in);
        provider->remoteControlUsers["r0"] = provider->users[cardFrom()];
        provider->httpConfig =
            in.flag() ? std::make_optional(HttpOpenConfig{in.flag(), "admin", "secret"})
                      : std::nullopt;
        if (in.flag()) {
            const bool enabled = in.range(0, 3) != 0;
            const Relays relays = relaysFrom(in, 3);
            provider->dtmfConfig = DtmfConfig{enabled, {{"123", relays}}, in.flag()};
            provider->dtmfWhitelist["555"] = DtmfWhitelistResult{in.flag(), "per1", "caller"};
            if (in.flag()) {
                provider->dtmfUsers["555"] = provider->users["c0"];
            }
            provider->dtmfVisitor =
                in.flag() ? std::make_optional(provider->users["c1"]) : std::nullopt;
        }
        if (in.range(0, 3) != 0) {
            provider->keyData = std::make_shared<KeyData>(
                KeyData{now - in.range(-20, 200), now + in.range(-20, 4000), in.flag()});
        }
        provider->bleAllowed = in.range(0, 3) != 0;
        provider->parkingOffline = in.range(0, 3) == 0;

        for (FakeDataProvider::QuestionHook* hook :
             {&provider->answerAntiPassback, &provider->answerInterlock, &provider->answerParking,
              &provider->answerTempKey}) {
            installHook(*hook, in.range(0, 7));
        }
        // What re-entry needs is prepared now: the hooks run on the worker, which must not read
        // the input.
        for (int i = in.range(0, 3); i > 0; --i) {
            faults.push_back(HostFault{in.pick(kFaultyOperations), in.range(1, 4),
                                       static_cast<Reentry>(in.range(0, 8)), in.flag()});
        }
        // Guessing protection on in most runs, with small limits so that lockouts happen.
        if (in.range(0, 3) != 0) {
            config.guessLimit = in.range(1, 4);
            config.guessWindowSeconds = in.range(0, 60);
            config.guessLockoutSeconds = in.range(0, 60);
            config.guessCountsCards = in.flag();
        }
        config.duressEnabled = in.flag();

        reentrantRequest = requestFrom();
        junkAnswerId =
            "req_" + std::to_string(in.range(0, 9)) + "_1736942400" +
            in.pick(Strings{"", "_ind_antipassback_ap_1", "_ind_interlock_il_2", "_ind_parking"});
        provider->beforeCall = [this](const std::string& operation) { onHostCall(operation); };
    }

    // ---- host faults ----

    /// Counts the call and commits the faults planned for it.
    void onHostCall(const std::string& operation) {
        std::vector<HostFault> due;
        locked([&] {
            const int call = ++hostCalls[operation];
            std::copy_if(
                faults.begin(), faults.end(), std::back_inserter(due),
                [&](const HostFault& f) { return f.operation == operation && f.call == call; });
        });
        faultsFired += static_cast<int>(due.size());
        for (const HostFault& fault : due) {
            // A completion callback or a report may run under the engine's lock, where it cannot
            // be asked what is parked.
            reenter(fault.reentry, operation == "callback" || operation == "onAuthResult");
            if (fault.throws) {
                throw std::runtime_error("fuzz host fault in " + operation);
            }
        }
    }

    void reenter(Reentry reentry, bool maybeUnderLock) {
        const AuthRequest& request = reentrantRequest;
        const std::vector<Question> asked =
            reentry == Reentry::ANSWER_LATEST ? provider->questions() : std::vector<Question>();
        const std::function<void()> actions[] = {
            [] {},
            [&] { resetEngine(maybeUnderLock); },
            [&] { accept([&] { return engine->authenticateAsync(request, callback()); }); },
            [&] { engine->handleAsyncResponse(junkAnswerId, SUCCESS, responseOf(SUCCESS), {}); },
            [&] { asked.empty() ? void() : deliver(asked.back(), responseOf(SUCCESS), {}); },
            [&] { engine->checkAllPendingTimeouts(); },
            [&] { engine->settle(0); },
            [&] { engine->init(provider); },
            [&] {
                accept([&] {
                    return engine->verifyInterlockTargets(request, {{0, "1"}}, callback());
                });
            }};
        actions[static_cast<int>(reentry)]();
    }

    /// The completion callback of every request: it records, then may commit a host fault.
    AuthCallback callback() {
        const AuthCallback record = recorder.callback();
        return [this, record](const std::string& id, const AuthResponse& response,
                              const AuthContext& context) {
            record(id, response, context);
            onHostCall("callback");
        };
    }

    /// Runs `change` on the members that hooks on the worker write too.
    template <typename Change>
    void locked(Change change) {
        Lock guard(mutex);
        change();
    }

    /// Resets the engine. A parked chain vanishes at a reset without a word, by design: requests
    /// parked now (or, where the engine cannot be asked, any not heard of yet) may stay silent.
    void resetEngine(bool maybeUnderLock) {
        ++resets;
        std::set<std::string> heard;
        for (const auto& call :
             maybeUnderLock ? recorder.all() : std::vector<testing::CallbackRecorder::Call>()) {
            heard.insert(rootOf(call.requestId));
        }
        std::vector<std::string> maybeParked;
        locked([&] { maybeParked = accepted; });
        AuthEngine::AsyncContext parked;
        for (const std::string& id : maybeParked) {
            if (maybeUnderLock ? heard.count(id) == 0 : engine->peekParkedChain(id, parked)) {
                locked([&] { silent.insert(id); });
            }
        }
        engine->reset();
    }

    /// Accepts the request `submit` makes: it must hear back, and its id is new. A reset that ran
    /// while it was being submitted may have found it parked before it could be noted.
    template <typename Submit>
    std::string accept(Submit&& submit) {
        const int resetsBefore = resets;
        const std::string id = submit();
        if (!id.empty()) {
            Lock guard(mutex);
            FUZZ_CHECK(!contains(accepted, id), "request id " + id + " issued twice");
            accepted.push_back(id);
            if (resets != resetsBefore) {
                silent.insert(id);
            }
        }
        return id;
    }

    /// One of the four users' cards.
    std::string cardFrom() { return "c" + std::to_string(in.range(0, 3)); }

    /// Inline answers, given from inside the question. Modes: 1 passing, 2 failing, 3 CONTINUE;
    /// 4 passing, then the call throws; 5 failing, then passing (answered twice); 6 a passing
    /// answer under a wrong id, then failing; 7 passing, then host code resets the engine from
    /// inside the question.
    void installHook(FakeDataProvider::QuestionHook& hook, int mode) {
        static const std::vector<std::vector<AuthResult>> said = {
            {}, {SUCCESS}, {FAILED}, {CONTINUE}, {SUCCESS}, {FAILED, SUCCESS}, {FAILED}, {SUCCESS}};
        if (mode == 0) {
            return;
        }
        hook = [this, mode](Question& question) {
            if (mode == 6) {
                engine->handleAsyncResponse(routedId(question) + "9", SUCCESS, responseOf(SUCCESS),
                                            {});
            }
            for (const AuthResult result : said[static_cast<std::size_t>(mode)]) {
                AuthResponse response = responseOf(result);
                response.failCode = question.kind == "parking" && result == FAILED ? 23 : 0;
                AuthContext update;
                if (question.kind == "tempkey" && result != FAILED) {
                    update.tempKeyAuthData = std::make_shared<TempKeyAuthData>();
                    update.tempKeyAuthData->failCode = result == CONTINUE ? 7 : 0;
                }
                deliver(question, response, update);
            }
            if (mode == 4) {
                // The call failed: its answer must not count.
                locked([&] { decided[routedId(question)] = -1; });
                throw std::runtime_error("fuzz host: answered, then the call failed");
            }
            if (mode == 7) {
                resetEngine(false);
            }
        };
    }

    // ---- answers ----

    /// The id the engine routes a question's answer under.
    static std::string routedId(const Question& question) {
        if (question.kind == "antipassback" || question.kind == "interlock") {
            return question.requestId + (question.kind == "antipassback" ? "_ap_" : "_il_") +
                   question.relay;
        }
        // No id of its own: the host's handle routes the answer.
        return question.requestId.empty() ? question.handle : question.requestId;
    }

    /// Notes an answer about to be given under `id`: whether it decides (its question is still
    /// open: the engine records that one and drops later ones), and that a DROPPED answer may end
    /// its request without a word. Ids are never issued twice, so answers to questions from before
    /// a reset are noted harmlessly under their own.
    void noteAnswer(const std::string& id, int result) {
        const bool decisive = engine->questionOpen(id);
        Lock guard(mutex);
        delivered[id].push_back(result);
        if (decisive) {
            decided.emplace(id, result);
        }
        if (result == DROPPED) {
            silent.insert(rootOf(id));
        }
    }

    /// Answers a question through the callback the engine handed over.
    void deliver(const Question& question, const AuthResponse& response,
                 const AuthContext& update) {
        if (question.callback) {
            noteAnswer(routedId(question), response.result);
            question.callback(question.handle, response, update);
        }
    }

    /// Some answer under `id` passed, and so did the deciding one if `strict` and the question
    /// was decided (a call that failed after its inline answer decided nothing that passes).
    bool passed(const std::string& id, bool (*passing)(int), bool strict = true) {
        Lock guard(mutex);
        const std::vector<int>& results = delivered[id];
        const auto found = decided.find(id);
        return std::any_of(results.begin(), results.end(), passing) &&
               (!strict || found == decided.end() || passing(found->second));
    }

    AuthResponse responseFrom() {
        static const auto results =
            std::vector<int>({SUCCESS, SUCCESS, FAILED, CONTINUE, ASYNC_PENDING, DROPPED,
                              DOUBLE_AUTH_PENDING, UNLOCK_OPTIONS_PENDING, IGNORED, 99});
        AuthResponse response = responseOf(static_cast<AuthResult>(in.pick(results)));
        response.failCode = in.pick(std::vector<int>({0, 0, 5, 21, 23, 24, 44, -3}));
        const unsigned fields = in.byte();
        response.openedRelays = (fields & 1) != 0 ? relaysFrom(in, 3) : Relays();
        response.unlockOptionsRelays = (fields & 2) != 0 ? relaysFrom(in, 3) : Relays();
        response.relays = (fields & 4) != 0 ? relaysFrom(in, 3) : Relays();
        response.reason = (fields & 8) != 0 ? in.bytes(8) : std::string();
        response.targets = (fields & 16) != 0 ? targetsFrom(in) : std::vector<AuthTarget>();
        response.asyncType = (fields & 32) == 0 ? "" : in.flag() ? "antipassback" : "x";
        response.unlockOptionsId = (fields & 32) == 0 ? "" : "options";
        response.remoteFailCode = in.range(-1, 6);
        return response;
    }

    AuthContext updateFrom() {
        AuthContext update;
        if (in.range(0, 2) == 0) {
            const std::string key = in.pick(Strings{"", "k0", "zz"});
            update.tempKeyAuthData = std::make_shared<TempKeyAuthData>(
                TempKeyAuthData{key, "", "", in.range(0, 3) == 0 ? 7 : 0, 0, "", targetsFrom(in)});
        }
        update.authTargets = in.range(0, 7) == 0 ? targetsFrom(in) : std::vector<AuthTarget>();
        setFromBits(update, in.range(0, 3) == 0 ? in.byte() : 0,  // all clear by default
                    {&AuthContext::skipUserLookup, &AuthContext::skipVirtualDoor,
                     &AuthContext::skipUnlockType, &AuthContext::skipTimeCheck,
                     &AuthContext::skipHolidayCheck, &AuthContext::virtualDoorExempt});
        return update;
    }

    /// Ids the engine holds right now: parked chains and phases of the requests seen so far,
    /// and the per-relay questions still registered.
    Relays liveIds() {
        Relays live;
        AuthEngine::AsyncContext chain;
        AuthEngine::IndependentAsyncContext phase;
        for (const std::string& root : roots) {
            // The phases, then each relay's anti-passback and interlock questions.
            for (std::size_t i = 0; i < 18; ++i) {
                const std::string id = i < 6 ? root + kPhaseSuffixes[i]
                                             : root + (i % 2 == 0 ? kApQuestion : kIlQuestion) +
                                                   kRelayPool[(i - 6) / 2];
                if (i < 6 ? engine->peekParkedChain(id, chain) || engine->peekParkedPhase(id, phase)
                          : !engine->subRequestParent(id).empty()) {
                    live.push_back(id);
                }
            }
        }
        return live;
    }

    /// A made-up or real id: one the engine holds now, a request of this run with one of the
    /// engine's suffixes, or junk.
    std::string answerId() {
        const Relays live = in.flag() ? liveIds() : Relays();
        if (!live.empty()) {
            return in.pick(live);
        }
        const std::string root = !roots.empty() && in.range(0, 7) != 0 ? in.pick(roots)
                                 : in.range(0, 3) == 0
                                     ? in.bytes(10)
                                     : in.pick(Strings{"", "req_", "req_0_0", "x", "double-1"});
        const std::string relay = in.pick(kRelayPool);
        return in.pick(Strings{root, root + kApQuestion + relay, root + kIlQuestion + relay,
                               root + "_ind_parking", root + "_ind_antipassback_ind_parking",
                               root + "_ind_unlock_options", root + "_ind_antipassback",
                               root + "_ind_interlock", root + "_ap_" + relay});
    }

    // ---- attempts ----

    /// The credential the host knows for an open type: a temporary key, a remote user, a device
    /// PIN or a duress code, or else a user's card.
    std::string credentialOf(int openType) {
        if (openType == OPEN_TYPE_TEMP_KEY || openType == OPEN_TYPE_REMOTE_CONTROL) {
            return openType == OPEN_TYPE_TEMP_KEY ? "k0" : "r0";
        }
        if (openType != OPEN_TYPE_PIN && openType != OPEN_TYPE_PIN_5 &&
            openType != OPEN_TYPE_PIN_7 && openType != OPEN_TYPE_PIN_19) {
            return cardFrom();
        }
        const int kind = in.range(0, 3);
        return kind == 0 ? "p0" : kind == 1 ? "l0" : "d" + std::to_string(in.range(0, 3));
    }

    AuthRequest requestFrom() {
        // Half the attempts are of the kinds that look a user up, with a known credential, so
        // that many pass the chain and reach the relay checks; the rest range over everything.
        static const std::vector<int> openTypes = {1,  4,  9,  2,  3,  5,  6,  7,  8, 10, 11,
                                                   13, 14, 15, 16, 17, 18, 19, 20, 0, 99};
        AuthRequest request;
        const bool userAttempt = in.flag();
        request.openType = static_cast<OpenDoorType>(
            userAttempt ? in.pick(std::vector<int>({1, 4, 9, 10, 11})) : in.pick(openTypes));
        request.credential = userAttempt           ? cardFrom()
                             : in.range(0, 3) != 0 ? credentialOf(request.openType)
                             : in.range(0, 3) == 0 ? in.bytes(8)
                                                   : in.pick(kCredentials);
        request.readerType = static_cast<ReaderType>(in.range(0, 7) == 0 ? 5 : in.range(0, 2));
        request.timestamp = clock.wall();
        request.sourceCode = in.range(0, 7) == 0 ? SOURCE_CODE_QR : 0;
        const unsigned extras = in.byte();
        request.relays = (extras & 1) != 0 ? relaysFrom(in, 3) : Relays();
        request.targets = (extras & 2) != 0 ? targetsFrom(in) : std::vector<AuthTarget>();
        // Data of the attempt's own kind is usually there; others' data only when a bit asks.
        const int openType = request.openType;
        const auto carries = [extras](bool itsKind, unsigned bit) {
            return itsKind ? (extras & 4) == 0 : (extras & bit) != 0;
        };
        if (carries(openType == OPEN_TYPE_DTMF, 8)) {
            const std::string code = in.pick(Strings{"123", "999", ""});
            request.dtmfData = std::make_shared<DtmfRequestData>(
                DtmfRequestData{code, in.pick(Strings{"555", "666"}), "caller", "call1"});
        }
        if (carries(openType == OPEN_TYPE_HTTP || openType == OPEN_TYPE_HTTP_20, 16)) {
            request.httpData = std::make_shared<HttpRequestData>(HttpRequestData{
                in.range(0, 2), 0, in.flag() ? "admin" : "guest", in.flag() ? "secret" : "secreT",
                "", in.range(0, 1), 0, 0, 0, targetsFrom(in)});
        }
        if (carries(openType == OPEN_TYPE_INPUT, 32)) {
            request.inputData = std::make_shared<InputRequestData>(
                InputRequestData{in.range(0, 3), in.range(0, 1), 0, 0, targetsFrom(in)});
        }
        if (carries(openType == OPEN_TYPE_RELAY_KEY, 64)) {
            const std::string ids = in.textFrom("0123;-", 8);
            request.relayKeyData =
                std::make_shared<RelayKeyAuthData>(RelayKeyAuthData{ids, targetsFrom(in)});
        }
        if ((extras & 128) != 0) {
            request.virtualDoorExempt = in.flag();
            request.virtualDoorSkipRelaySchedule = in.flag();
            request.direction = in.range(0, 2);
            request.commandText = "open";
            request.requestText = "text";
            request.doubleAuthPendingId = !in.flag()           ? ""
                                          : pendingIds.empty() ? "double-1"
                                                               : in.pick(pendingIds);
        }
        return request;
    }

    // ---- the sequence ----

    // The immediate answer of an attempt is checked fully through the report that accompanies it;
    // on its own only what needs no context: a refusal carries nothing.
    void operate() {
        const int operation = in.range(0, 13);
        if (operation <= 1) {  // a synchronous attempt without id: nothing of it may be parked
            const AuthRequest request = requestFrom();
            const int resetsBefore = resets;
            const bool lockedOut = engine->readerLockedOut(request.readerType);
            const AuthResponse response = engine->authenticate(request, {}, std::string());
            checkRefusalCarriesNothing(response, "returned response");
            // Only a reset clears a lockout, and only the harness moves the clocks.
            FUZZ_CHECK(!lockedOut || resets != resetsBefore || response.result != SUCCESS,
                       "reader " + std::to_string(request.readerType) +
                           " opened while locked out: " + joinForDetail(response.openedRelays));
            // A duress code decides as the user's own code does: the same attempt with the card
            // of the same user, made right after, must end alike. Skipped where the two cannot be
            // compared: double authentication (the first attempt changes what the second
            // completes), a reset or a host fault during either.
            const std::string& code = request.credential;
            if (!provider->config.duressEnabled || code.size() != 2 || code[0] != 'd' ||
                provider->config.doubleAuthEnabled || !isMemorisedCode(request.openType)) {
                return;
            }
            const int faultsBefore = faultsFired;
            AuthRequest own = request;
            own.credential = "c" + code.substr(1);
            const AuthResponse plain = engine->authenticate(own, {}, std::string());
            checkRefusalCarriesNothing(plain, "returned response");
            if (resets != resetsBefore || faultsFired != faultsBefore) {
                return;
            }
            const auto sorted = [](Relays relays) {
                std::sort(relays.begin(), relays.end());
                return relays;
            };
            const std::string what = "duress " + code + ": " + std::to_string(response.result) +
                                     joinForDetail(response.openedRelays) +
                                     ", own code: " + std::to_string(plain.result) +
                                     joinForDetail(plain.openedRelays);
            FUZZ_CHECK(
                response.result == plain.result && response.failCode == plain.failCode &&
                    sorted(response.openedRelays) == sorted(plain.openedRelays) &&
                    sorted(response.unlockOptionsRelays) == sorted(plain.unlockOptionsRelays),
                what);
            FUZZ_CHECK(
                !plain.duress && (response.duress || response.failCode == 45 || !response.user),
                what + ": duress flag");
        } else if (operation ==
                   2) {  // synchronous, with an id and a callback, as the worker makes it
            const std::string id = engine->generateRequestId();
            addRoot(id);
            const AuthRequest request = requestFrom();
            const bool ready = engine->isReady();
            accept([&] {
                checkRefusalCarriesNothing(engine->authenticate(request, callback(), id),
                                           "returned response");
                return ready ? id : std::string();
            });
        } else if (operation <= 4) {  // queued, run by the worker
            const AuthRequest request = requestFrom();
            addRoot(accept([&] { return engine->authenticateAsync(request, callback()); }));
        } else if (operation <= 6) {  // an answer to one of the questions the host was asked
            const std::vector<Question> asked = provider->questions();
            if (!asked.empty()) {
                const Question& question = in.pick(asked);
                const AuthResponse response = responseFrom();
                deliver(question, response, updateFrom());
            }
        } else if (operation == 7) {  // an answer under a real or made-up id
            const std::string id = answerId();
            const AuthResponse response = responseFrom();
            noteAnswer(id, response.result);
            engine->handleAsyncResponse(id, response.result, response, updateFrom());
        } else if (operation == 8) {  // the user's relay choice, built as the facade builds it
            std::pair<std::string, Relays> choice = {"x_ind_unlock_options", {"1", "2"}};
            if (!choices.empty() && in.range(0, 7) != 0) {
                choice = in.pick(choices);
            }
            Relays selected;
            std::copy_if(choice.second.begin(), choice.second.end(), std::back_inserter(selected),
                         [this](const std::string&) { return in.flag(); });
            const Relays extra = in.range(0, 3) == 0 ? relaysFrom(in, 2) : Relays();
            selected.insert(selected.end(), extra.begin(), extra.end());
            AuthResponse response = responseOf(selected.empty() ? FAILED : SUCCESS);
            response.unlockOptionsId = choice.first;
            response.unlockOptionsRelays = selected;
            response.failCode = selected.empty() ? 44 : 0;
            response.reason = selected.empty() ? "User canceled relay selection" : "";
            engine->handleAsyncResponse(choice.first, response.result, response, {});
        } else if (operation == 9) {  // time passes (or the wall clock is set back)
            const int choice = in.range(0, 7);
            if (choice == 0) {
                clock.setWall(clock.wall() - in.range(0, 120));
            } else {
                clock.advance(choice == 1 ? in.range(60, 4000) : in.range(0, 45));
            }
            if (in.flag()) {
                engine->checkAllPendingTimeouts();
            }
        } else if (operation == 10) {  // a resume the worker would not have been asked for
            const Relays live = liveIds();
            if (!live.empty() && in.flag()) {
                engine->resumeAuthentication(in.pick(live));
            } else if (!roots.empty()) {
                const std::string& root = in.pick(roots);
                engine->resumeAuthentication(
                    root + kPhaseSuffixes[static_cast<std::size_t>(in.range(0, 4))]);
            }
        } else if (operation == 11) {  // reset, or an init that keeps what is parked
            if (in.flag()) {
                resetEngine(false);
            }
            FUZZ_CHECK(engine->init(provider) == 0, "init failed");
        } else if (operation == 12) {  // interlock verification without a credential
            const std::vector<AuthTarget> targets = targetsFrom(in);
            const AuthRequest request = requestFrom();
            const std::string id = accept(
                [&] { return engine->verifyInterlockTargets(request, targets, callback()); });
            if (!id.empty()) {
                verifications.insert(id);
            }
            addRoot(id);
        } else {  // double authentication control on a real or made-up pending id
            const std::string id =
                pendingIds.empty() || in.range(0, 3) == 0 ? "double-9" : in.pick(pendingIds);
            const AuthResponse response = in.flag() ? engine->handleDoubleAuthTimeout(id)
                                                    : engine->cancelDoubleAuth(id, in.bytes(6));
            FUZZ_CHECK(response.result == FAILED, "double authentication control passed");
            checkRefusalCarriesNothing(response, "double authentication control");
        }
    }

    void addRoot(const std::string& id) {
        if (!id.empty() && !contains(roots, id)) {
            roots.push_back(id);
        }
    }

    /// Checks the new reports and learns ids from what the host saw: request ids, relay choices,
    /// pending first factors; and which requests may end without a word (parked chains vanish at
    /// a reset).
    void collectIds() {
        AuthEngine::AsyncContext parked;
        for (const std::string& root : roots) {
            if (engine->peekParkedChain(root, parked)) {
                locked([&] { silent.insert(root); });
            }
        }
        for (const auto& question : provider->questions()) {
            addRoot(rootOf(question.requestId));
        }
        const auto visit = [this](const std::string& id, const AuthResponse& response,
                                  const AuthContext& context) {
            checkReport(id, response, context);
            addRoot(rootOf(id));
            if (response.result == UNLOCK_OPTIONS_PENDING && !response.unlockOptionsId.empty()) {
                choices.emplace_back(response.unlockOptionsId, response.unlockOptionsRelays);
            }
            if (!response.doubleAuthPendingId.empty() &&
                !contains(pendingIds, response.doubleAuthPendingId)) {
                pendingIds.push_back(response.doubleAuthPendingId);
            }
        };
        const auto reports = provider->reports();
        for (; reportsSeen < reports.size(); ++reportsSeen) {
            const auto& report = reports[reportsSeen];
            FUZZ_CHECK(report.result == report.context.response.result, "report result differs");
            visit(report.context.requestId, report.context.response, report.context);
        }
        const auto calls = recorder.all();
        for (; callsSeen < calls.size(); ++callsSeen) {
            visit(calls[callsSeen].requestId, calls[callsSeen].response, calls[callsSeen].context);
        }
    }

    // ---- report checks ----

    static void checkRefusalCarriesNothing(const AuthResponse& response, const std::string& what) {
        FUZZ_CHECK(response.result != FAILED ||
                       (response.openedRelays.empty() && response.targets.empty()),
                   what + ": a refusal opens " + joinForDetail(response.openedRelays));
    }

    void checkReport(const std::string& id, const AuthResponse& response,
                     const AuthContext& context) {
        const std::string what = "report " + id + " result " + std::to_string(response.result) +
                                 " opened " + joinForDetail(response.openedRelays);
        // Printed with the library's log when AUTH_FUZZ_LOG is set (the reason as an argument).
        AuthLogger::info("[report] %s asyncType=%s failCode=%d reason=%s", what.c_str(),
                         response.asyncType.c_str(), response.failCode, response.reason.c_str());
        const int result = response.result;
        FUZZ_CHECK(result == SUCCESS || result == FAILED || result == DOUBLE_AUTH_PENDING ||
                       result == UNLOCK_OPTIONS_PENDING || result == IGNORED,
                   what + ": unexpected result");
        checkRefusalCarriesNothing(response, what);
        FUZZ_CHECK(result == SUCCESS || response.openedRelays.empty(),
                   what + ": opens without success");
        for (const AuthTarget& target : response.targets) {
            FUZZ_CHECK(result != SUCCESS || (target.type != 0 && target.type != 1) ||
                           contains(response.openedRelays, target.relay),
                       what + ": actuates relay " + target.relay + " it did not open");
        }

        const AuthConfig& config = provider->config;
        const std::string root = rootOf(id.empty() ? context.requestId : id);
        // An interlock verification runs no credential chain: only its interlock answers count.
        const bool chain = verifications.count(root) == 0;
        const std::shared_ptr<UserData> user = context.userData;
        const int openType = context.request.openType;
        const bool apApplies = chain && config.antiPassbackEnabled && user &&
                               (user->userType == 1 || user->userType == 2) &&
                               openType != OPEN_TYPE_REMOTE_CONTROL;
        const bool parkingApplies = chain && config.parkingRestrictionEnabled && user &&
                                    openType == OPEN_TYPE_LICENSE_PLATE && user->userType == 1 &&
                                    !provider->parkingOffline;
        const bool typeChecked = chain && !context.skipUnlockType &&
                                 context.request.readerType == READER_TYPE_INTERNAL &&
                                 openType != OPEN_TYPE_RELAY_KEY &&
                                 provider->forbiddenRelays.count(openType) != 0;
        for (const std::string& relay : response.openedRelays) {
            const std::string about = what + ", relay " + relay;
            const auto direction = config.antiPassbackRelayMap.find(relay);
            const auto interlocked = config.interlockRelayMap.find(relay);
            FUZZ_CHECK(!chain || provider->lockedDownRelays.count(relay) == 0 ||
                           (user && user->lockdownBypass >= 1),
                       about + " is locked down");
            FUZZ_CHECK(!typeChecked || provider->forbiddenRelays.at(openType).count(relay) == 0,
                       about + " is forbidden for open type " + std::to_string(openType));
            FUZZ_CHECK(!apApplies || direction == config.antiPassbackRelayMap.end() ||
                           direction->second == 0 ||
                           passed(root + kApQuestion + relay, passesAntiPassback),
                       about + " opened without passing anti-passback");
            FUZZ_CHECK(!parkingApplies || passed(root + "_ind_parking", passesStrictly, false) ||
                           passed(root + "_ind_antipassback_ind_parking", passesStrictly, false),
                       about + " opened without passing parking");
            FUZZ_CHECK(!config.interlockEnabled || interlocked == config.interlockRelayMap.end() ||
                           !interlocked->second ||
                           passed(root + kIlQuestion + relay, passesStrictly),
                       about + " opened without passing interlock");
        }
    }

    FuzzInput& in;
    testing::TestClock clock;  // declared before the engine: the worker reads it until reset
    const std::shared_ptr<FakeDataProvider> provider = std::make_shared<FakeDataProvider>();
    testing::CallbackRecorder recorder;
    const std::shared_ptr<AuthEngine> engine =
        std::make_shared<AuthEngine>(std::make_shared<std::atomic<uint32_t>>(0));

    std::mutex mutex;  // guards the members below up to `decided`: hooks on the worker write them
    std::vector<HostFault> faults;
    std::map<std::string, int> hostCalls;
    std::vector<std::string> accepted;
    std::set<std::string> silent;
    std::map<std::string, std::vector<int>> delivered;  // every answer given, per routed id
    std::map<std::string, int> decided;                 // the answer the engine recorded
    std::atomic<int> resets{0}, faultsFired{0};
    AuthRequest reentrantRequest;
    std::string junkAnswerId;

    Relays roots, pendingIds;
    std::vector<std::pair<std::string, Relays>> choices;
    std::set<std::string> verifications;
    std::size_t reportsSeen = 0, callsSeen = 0;  // the host's reports, then the callbacks
};

}  // namespace

void fuzzOne(FuzzInput& in) {
    Harness(in).run();
}

}  // namespace fuzz
}  // namespace auth_engine
