// Faults the engine meets in the field: a host whose every operation throws, answers that arrive
// after a reset, a reset racing running attempts, a flood of parked requests timing out together,
// a full submission queue and a host that answers every question twice.
#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "engine/AuthEngine.h"
#include "support/CallbackRecorder.h"
#include "support/FakeDataProvider.h"
#include "support/LogCapture.h"
#include "support/TestClock.h"

namespace auth_engine {
namespace {

using testing::CallbackRecorder;
using testing::FakeDataProvider;
using testing::LogCapture;
using testing::TestClock;

// Generous caps for slow hosts (the emulator); a healthy run never gets near them.
constexpr int kWaitMs = 60000;

// Every operation of the host interface that the fake can make throw.
// clang-format off
const std::set<std::string> kAllOperations{
    "getUserByCredential", "getKeyData", "getRelaySchedules", "getHolidays", "isPublicPin",
    "getLatchPinRelays", "getPublicPinRelays", "getAuthConfig", "getLockedDownRelays",
    "isRelayHolidayExempt", "getForbiddenUnlockTypeRelays", "getDtmfConfig", "requestDtmfWhitelist",
    "getDtmfUser", "requestDtmfVisitorPermission", "getRemoteControlUser", "requestTempKey",
    "getTempKeyUser", "getTempKeyTargets", "getHttpOpenConfig", "checkBleOpenInterval",
    "recordBleOpen", "requestAntiPassback", "requestInterlock", "requestParking", "onAuthResult",
    "getReaderPriority",
};
// clang-format on

// A site with relay 1 under anti-passback, relay 2 under interlock and relay 3 unguarded.
// "card-1" (a resident, so anti-passback applies) may open all three, "card-2" only relay 3,
// "PLATE-1" only relay 3 (parking restricted); temporary key "tk-1" opens all three.
std::shared_ptr<FakeDataProvider> makeSite() {
    auto host = std::make_shared<FakeDataProvider>();
    UserData resident;
    resident.userType = 1;
    resident.userName = "Resident";
    resident.userId = "u1";
    resident.scheduleRelay = "1-1,2,3";
    host->users["card-1"] = resident;
    UserData visitor = resident;
    visitor.userType = 0;
    visitor.userId = "u2";
    visitor.scheduleRelay = "1-3";
    host->users["card-2"] = visitor;
    UserData driver = resident;
    driver.userId = "u3";
    driver.scheduleRelay = "1-3";
    host->users["PLATE-1"] = driver;
    host->tempKeyUsers["tk-1"] = resident;
    host->tempKeyTargets = {AuthTarget{0, "1"}, AuthTarget{0, "2"}, AuthTarget{0, "3"}};
    host->keyData = std::make_shared<KeyData>();
    host->keyData->longTermEnable = true;

    auto always = std::make_shared<ScheduleData>();
    always->id = 1;
    always->type = 1;
    always->scheduleId = "1";
    always->startTime = "00:00:00";
    always->endTime = "23:59:59";
    host->schedules = {always};

    host->config.antiPassbackEnabled = true;
    host->config.antiPassbackRelayMap = {{"1", RELAY_DIRECTION_IN}};
    host->config.interlockEnabled = true;
    host->config.interlockRelayMap = {{"2", true}};
    host->config.parkingRestrictionEnabled = true;
    return host;
}

AuthRequest attempt(OpenDoorType openType, const std::string& credential) {
    AuthRequest request;
    request.openType = openType;
    request.credential = credential;
    return request;
}

// One attempt of every kind, each with the data its processor needs to reach the host.
std::vector<AuthRequest> everyKindOfAttempt() {
    std::vector<AuthRequest> attempts = {attempt(OPEN_TYPE_CARD, "card-1"),
                                         attempt(OPEN_TYPE_PIN, "1234"),
                                         attempt(OPEN_TYPE_FACE, "face-1"),
                                         attempt(OPEN_TYPE_BLE, "ble-1"),
                                         attempt(OPEN_TYPE_LICENSE_PLATE, "PLATE-1"),
                                         attempt(OPEN_TYPE_TEMP_KEY, "tk-1"),
                                         attempt(OPEN_TYPE_REMOTE_CONTROL, "remote-1")};
    AuthRequest dtmf = attempt(OPEN_TYPE_DTMF, "");
    dtmf.dtmfData = std::make_shared<DtmfRequestData>();
    dtmf.dtmfData->dtmfCode = "#1";
    dtmf.dtmfData->remoteNumber = "100";
    attempts.push_back(dtmf);
    AuthRequest http = attempt(OPEN_TYPE_HTTP, "");
    http.httpData = std::make_shared<HttpRequestData>();
    http.httpData->username = "admin";
    http.httpData->password = "secret";
    http.httpData->targets = {AuthTarget{0, "1"}};
    attempts.push_back(http);
    AuthRequest input = attempt(OPEN_TYPE_INPUT, "");
    input.inputData = std::make_shared<InputRequestData>();
    input.inputData->targets = {AuthTarget{0, "1"}};
    attempts.push_back(input);
    AuthRequest relayKey = attempt(OPEN_TYPE_RELAY_KEY, "");
    relayKey.relayKeyData = std::make_shared<RelayKeyAuthData>();
    relayKey.relayKeyData->scheduleIds = "1";
    relayKey.relayKeyData->targets = {AuthTarget{0, "3"}};
    attempts.push_back(relayKey);
    return attempts;
}

AuthContext tempKeyAnswer(const std::string& key) {
    AuthContext update;
    update.tempKeyAuthData = std::make_shared<TempKeyAuthData>();
    update.tempKeyAuthData->key = key;
    return update;
}

void expectNothingLeft(AuthEngine& engine) {
    EXPECT_EQ(engine.parkedChainCount(), 0u);
    EXPECT_EQ(engine.parkedPhaseCount(), 0u);
    EXPECT_EQ(engine.subRequestCount(), 0u);
}

TEST(FaultsAsync, ThrowingHostFailsEachRequestOnceAndTheWorkerGoesOn) {
    TestClock clock;
    CallbackRecorder recorder;
    LogCapture log;
    auto host = makeSite();
    host->throwFrom = kAllOperations;
    AuthEngine engine;
    ASSERT_EQ(engine.init(host), 0);

    const AuthCallback record = recorder.callback();
    // A host callback that throws must not stop the worker either.
    const AuthCallback recordThenThrow =
        [record](const std::string& id, const AuthResponse& response, const AuthContext& context) {
            record(id, response, context);
            throw std::runtime_error("host callback fails");
        };

    const std::vector<AuthRequest> attempts = everyKindOfAttempt();
    std::vector<std::string> ids;
    for (std::size_t i = 0; i < attempts.size(); ++i) {
        ids.push_back(engine.authenticateAsync(attempts[i], i % 2 == 0 ? record : recordThenThrow));
        ASSERT_FALSE(ids.back().empty());
    }
    ASSERT_TRUE(recorder.waitFor(ids.size(), kWaitMs));
    ASSERT_TRUE(engine.waitForIdle(kWaitMs));

    EXPECT_EQ(recorder.count(), ids.size());
    for (std::size_t i = 0; i < ids.size(); ++i) {
        const auto calls = recorder.forId(ids[i]);
        ASSERT_EQ(calls.size(), 1u) << "open type " << attempts[i].openType;
        EXPECT_EQ(calls[0].response.result, FAILED) << "open type " << attempts[i].openType;
        EXPECT_EQ(calls[0].response.failCode, 0) << "open type " << attempts[i].openType;
        EXPECT_EQ(calls[0].response.reason, "Internal error")
            << "open type " << attempts[i].openType;
        EXPECT_TRUE(calls[0].response.openedRelays.empty());
        EXPECT_TRUE(calls[0].response.targets.empty());
    }
    expectNothingLeft(engine);
    EXPECT_TRUE(log.contains("fake provider throws from"));
    EXPECT_TRUE(log.contains("host callback fails"));
    EXPECT_EQ(host->questions().size(), 0u);

    // The same worker serves the next request once the host behaves again.
    {
        auto lock = host->lock();
        host->throwFrom.clear();
    }
    const std::string next = engine.authenticateAsync(attempt(OPEN_TYPE_CARD, "card-2"), record);
    ASSERT_TRUE(recorder.waitFor(ids.size() + 1, kWaitMs));
    const auto calls = recorder.forId(next);
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].response.result, SUCCESS);
    EXPECT_EQ(calls[0].response.openedRelays, std::vector<std::string>{"3"});
}

TEST(FaultsAsync, ThrowWhileAskingARelayCheckKeepsOnlyThatRelayShut) {
    TestClock clock;
    CallbackRecorder recorder;
    LogCapture log;
    auto host = makeSite();
    host->throwFrom = {"requestAntiPassback", "requestInterlock", "requestParking"};
    AuthEngine engine;
    ASSERT_EQ(engine.init(host), 0);

    const std::string card =
        engine.authenticateAsync(attempt(OPEN_TYPE_CARD, "card-1"), recorder.callback());
    const std::string plate =
        engine.authenticateAsync(attempt(OPEN_TYPE_LICENSE_PLATE, "PLATE-1"), recorder.callback());
    ASSERT_FALSE(card.empty());
    ASSERT_FALSE(plate.empty());
    // Card: relay 3 at once, then one report each for the anti-passback and interlock phases;
    // plate: one parking report.
    ASSERT_TRUE(recorder.waitFor(4, kWaitMs));
    ASSERT_TRUE(engine.waitForIdle(kWaitMs));
    ASSERT_EQ(recorder.count(), 4u);

    const auto immediate = recorder.forId(card);
    ASSERT_EQ(immediate.size(), 1u);
    EXPECT_EQ(immediate[0].response.result, SUCCESS);
    EXPECT_EQ(immediate[0].response.openedRelays, std::vector<std::string>{"3"});

    const auto antiPassback = recorder.forId(card + "_ind_antipassback");
    ASSERT_EQ(antiPassback.size(), 1u);
    EXPECT_EQ(antiPassback[0].response.result, FAILED);
    EXPECT_EQ(antiPassback[0].response.failCode, 5);
    EXPECT_EQ(antiPassback[0].response.failedRelays, std::vector<std::string>{"1"});
    EXPECT_TRUE(antiPassback[0].response.openedRelays.empty());

    const auto interlock = recorder.forId(card + "_ind_interlock");
    ASSERT_EQ(interlock.size(), 1u);
    EXPECT_EQ(interlock[0].response.result, FAILED);
    EXPECT_EQ(interlock[0].response.failCode, 21);
    EXPECT_EQ(interlock[0].response.failedRelays, std::vector<std::string>{"2"});

    const auto parking = recorder.forId(plate + "_ind_parking");
    ASSERT_EQ(parking.size(), 1u);
    EXPECT_EQ(parking[0].response.result, FAILED);
    EXPECT_EQ(parking[0].response.failCode, 23);
    EXPECT_TRUE(parking[0].response.openedRelays.empty());
    EXPECT_TRUE(parking[0].response.targets.empty());

    expectNothingLeft(engine);
    EXPECT_TRUE(log.contains("fake provider throws from requestAntiPassback"));
    EXPECT_TRUE(log.contains("fake provider throws from requestInterlock"));
    EXPECT_TRUE(log.contains("fake provider throws from requestParking"));
}

TEST(FaultsAsync, AnswersAfterResetAreDroppedAndNeverReachALaterRequestWithTheSameId) {
    TestClock clock;
    CallbackRecorder recorder;
    auto first = makeSite();
    AuthEngine engine;
    ASSERT_EQ(engine.init(first), 0);

    const std::string tempKey =
        engine.authenticateAsync(attempt(OPEN_TYPE_TEMP_KEY, "tk-1"), recorder.callback());
    ASSERT_FALSE(tempKey.empty());
    ASSERT_TRUE(first->waitForQuestions(1, kWaitMs));
    const std::string card =
        engine.authenticateAsync(attempt(OPEN_TYPE_CARD, "card-1"), recorder.callback());
    // The card's relay 3 opens at once; relay 1 waits for its anti-passback answer.
    ASSERT_TRUE(first->waitForQuestions(2, kWaitMs));
    ASSERT_TRUE(recorder.waitFor(1, kWaitMs));
    ASSERT_TRUE(engine.waitForIdle(kWaitMs));
    ASSERT_EQ(engine.parkedChainCount(), 1u);
    ASSERT_EQ(engine.parkedPhaseCount(), 1u);

    engine.reset();
    // The parked phase is told of the shutdown; the parked chain vanishes silently.
    ASSERT_EQ(recorder.count(), 2u);
    const auto shutdown = recorder.forId(card + "_ind_antipassback");
    ASSERT_EQ(shutdown.size(), 1u);
    EXPECT_EQ(shutdown[0].response.reason, "Engine shutdown");
    EXPECT_TRUE(recorder.forId(tempKey).empty());

    // Late answers to both questions reach nothing.
    first->answer(0, SUCCESS, 0, tempKeyAnswer("tk-1"));
    first->answer(1, SUCCESS);
    EXPECT_EQ(recorder.count(), 2u);
    expectNothingLeft(engine);

    // A new run restarts the request counter under the same (frozen) wall clock: the first
    // request gets the id of the request lost in the reset.
    auto second = makeSite();
    ASSERT_EQ(engine.init(second), 0);
    const std::string again =
        engine.authenticateAsync(attempt(OPEN_TYPE_TEMP_KEY, "tk-1"), recorder.callback());
    ASSERT_EQ(again, tempKey);
    ASSERT_TRUE(second->waitForQuestions(1, kWaitMs));
    ASSERT_TRUE(engine.waitForIdle(kWaitMs));

    first->answer(0, SUCCESS, 0, tempKeyAnswer("tk-1"));
    AuthEngine::AsyncContext parked;
    ASSERT_TRUE(engine.peekParkedChain(again, parked));
    EXPECT_EQ(parked.context.response.result, ASYNC_PENDING);
    EXPECT_FALSE(parked.context.tempKeyAuthData);
    ASSERT_TRUE(engine.waitForIdle(kWaitMs));
    EXPECT_EQ(recorder.count(), 2u);

    // Its own host's answer still decides it, once.
    second->answer(0, FAILED, 24);
    ASSERT_TRUE(recorder.waitFor(3, kWaitMs));
    ASSERT_TRUE(engine.waitForIdle(kWaitMs));
    const auto decided = recorder.forId(again);
    ASSERT_EQ(decided.size(), 1u);
    EXPECT_EQ(decided[0].response.result, FAILED);
    EXPECT_EQ(decided[0].response.failCode, 24);
    EXPECT_EQ(recorder.count(), 3u);
    expectNothingLeft(engine);
}

// Hands the host's questions over to an answering thread.
class QuestionRelay {
public:
    FakeDataProvider::QuestionHook hook() {
        return [this](FakeDataProvider::Question& question) {
            {
                std::lock_guard<std::mutex> lock(mutex);
                pending.push_back(question);
            }
            changed.notify_all();
        };
    }
    /// The next question; false once `stop` is set and nothing was waiting.
    bool take(FakeDataProvider::Question& out, const std::atomic<bool>& stop) {
        std::unique_lock<std::mutex> lock(mutex);
        while (pending.empty()) {
            if (stop) {
                return false;
            }
            changed.wait_for(lock, std::chrono::milliseconds(20));
        }
        out = std::move(pending.front());
        pending.pop_front();
        return true;
    }

private:
    std::mutex mutex;
    std::condition_variable changed;
    std::deque<FakeDataProvider::Question> pending;
};

TEST(FaultsAsync, ResetFromAnotherThreadWhileAttemptsRunCallsEverySubmissionBackOnce) {
    TestClock clock;
    AuthEngine engine;
    for (int round = 0; round < 3; ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        auto host = makeSite();
        QuestionRelay relay;
        host->answerTempKey = relay.hook();
        host->answerAntiPassback = relay.hook();
        host->answerInterlock = relay.hook();
        ASSERT_EQ(engine.init(host), 0);
        CallbackRecorder submitted;
        CallbackRecorder parkedCalls;
        std::atomic<bool> stop{false};
        std::mutex idsMutex;
        std::vector<std::string> accepted;

        std::vector<std::thread> threads;
        // Submitters: attempts that never wait for the host, so every accepted one is either
        // decided or failed by the shutdown, exactly once. They keep a small backlog instead of
        // spinning on a full queue, which would starve the worker of its lock.
        for (int t = 0; t < 2; ++t) {
            threads.emplace_back([&] {
                while (!stop) {
                    std::size_t outstanding = 0;
                    {
                        std::lock_guard<std::mutex> lock(idsMutex);
                        outstanding = accepted.size();
                    }
                    if (outstanding >= submitted.count() + 10) {
                        submitted.waitFor(outstanding - 9, 20);
                        continue;
                    }
                    const std::string id = engine.authenticateAsync(
                        attempt(OPEN_TYPE_CARD, "card-2"), submitted.callback());
                    if (!id.empty()) {
                        std::lock_guard<std::mutex> lock(idsMutex);
                        accepted.push_back(id);
                    }
                }
            });
        }
        // Synchronous attempts that park on the host's questions, one per decided submission:
        // answered resumes go before new submissions, so an unpaced stream of them would starve
        // the submitters.
        threads.emplace_back([&] {
            for (std::size_t i = 0; !stop;) {
                if (submitted.waitFor(i + 1, 20)) {
                    const std::string id =
                        "sync-" + std::to_string(round) + "-" + std::to_string(i++);
                    engine.authenticate(attempt(OPEN_TYPE_TEMP_KEY, "tk-1"), parkedCalls.callback(),
                                        id);
                }
            }
        });
        // The host answers whatever it was asked from a thread of its own, racing the reset.
        threads.emplace_back([&] {
            for (FakeDataProvider::Question question; relay.take(question, stop);) {
                AuthResponse response;
                response.result = SUCCESS;
                question.callback(
                    question.handle, response,
                    question.kind == "tempkey" ? tempKeyAnswer("tk-1") : AuthContext());
            }
        });

        const bool progressed = submitted.waitFor(20, kWaitMs);
        engine.reset();
        stop = true;
        for (auto& thread : threads) {
            thread.join();
        }
        ASSERT_TRUE(progressed);

        std::map<std::string, int> calls;
        for (const auto& call : submitted.all()) {
            ++calls[call.requestId];
            EXPECT_TRUE(call.response.result == SUCCESS ||
                        call.response.reason == "Engine shutdown")
                << call.response.reason;
        }
        ASSERT_FALSE(accepted.empty());
        EXPECT_EQ(submitted.count(), accepted.size());
        for (const auto& id : accepted) {
            EXPECT_EQ(calls[id], 1) << id;
        }
        std::map<std::string, int> phaseCalls;
        for (const auto& call : parkedCalls.all()) {
            EXPECT_LE(++phaseCalls[call.requestId], 1) << call.requestId;
        }
        // A synchronous chain still inside the engine during the reset is covered on its own
        // below; what the worker and the host's answers touch must all be gone.
        EXPECT_EQ(engine.parkedPhaseCount(), 0u);
        EXPECT_EQ(engine.subRequestCount(), 0u);
        EXPECT_TRUE(
            engine.authenticateAsync(attempt(OPEN_TYPE_CARD, "card-2"), submitted.callback())
                .empty());
    }
}

// Resets the engine from another thread while a synchronous chain is inside it, then asks the host.
class ResetMidChain : public IAuthProcessor {
public:
    explicit ResetMidChain(AuthEngine& owner) : engine(owner) {}
    AuthResult process(AuthContext& context, IDataProvider&) override {
        if (!context.pendingProcessor.empty()) {
            return context.response.result;
        }
        std::thread([this] { engine.reset(); }).join();
        return ASYNC_PENDING;
    }
    std::string getName() const override { return "ResetMidChain"; }

private:
    AuthEngine& engine;
};

TEST(FaultsAsync, ResetDuringASynchronousChainLeavesNothingParked) {
    TestClock clock;
    CallbackRecorder recorder;
    AuthEngine engine;
    ASSERT_EQ(engine.init(makeSite()), 0);
    engine.registerProcessor(std::make_shared<ResetMidChain>(engine));
    engine.setProcessorChain({"ResetMidChain"});

    engine.authenticate(attempt(OPEN_TYPE_CARD, "card-1"), recorder.callback(), "sync-1");
    // Nothing can answer or time out a chain parked after the reset: it must not stay behind to
    // surface in a later run.
    EXPECT_EQ(engine.parkedChainCount(), 0u);
    ASSERT_EQ(engine.init(makeSite()), 0);
    clock.advance(31);
    engine.checkTimeoutRequests();
    EXPECT_EQ(recorder.count(), 0u);
}

// Parks every request it sees on a question nobody answers.
class NeverAnswered : public IAuthProcessor {
public:
    AuthResult process(AuthContext& context, IDataProvider&) override {
        return context.pendingProcessor.empty() ? ASYNC_PENDING : context.response.result;
    }
    std::string getName() const override { return "NeverAnswered"; }
};

TEST(FaultsAsync, TenThousandParkedRequestsTimeOutInOneSweep) {
    TestClock clock;
    CallbackRecorder recorder;
    auto host = makeSite();
    AuthEngine engine;
    ASSERT_EQ(engine.init(host), 0);
    engine.registerProcessor(std::make_shared<NeverAnswered>());
    engine.setProcessorChain({"NeverAnswered"});

    constexpr std::size_t kParked = 10000;
    for (std::size_t i = 0; i < kParked; ++i) {
        const AuthResponse response = engine.authenticate(
            attempt(OPEN_TYPE_CARD, "card-1"), recorder.callback(), "park-" + std::to_string(i));
        ASSERT_EQ(response.result, ASYNC_PENDING);
    }
    ASSERT_EQ(engine.parkedChainCount(), kParked);

    // Exactly at the limit nothing times out yet.
    clock.advance(30);
    engine.checkTimeoutRequests();
    EXPECT_EQ(engine.parkedChainCount(), kParked);
    EXPECT_EQ(recorder.count(), 0u);

    clock.advance(1);
    engine.checkTimeoutRequests();
    EXPECT_EQ(engine.parkedChainCount(), 0u);
    ASSERT_TRUE(engine.waitForIdle(kWaitMs));
    ASSERT_EQ(recorder.count(), kParked);
    std::set<std::string> ids;
    for (const auto& call : recorder.all()) {
        ids.insert(call.requestId);
        ASSERT_EQ(call.response.result, FAILED);
        ASSERT_EQ(call.response.reason, "Async request timeout");
    }
    EXPECT_EQ(ids.size(), kParked);
    EXPECT_EQ(host->reportCount(), kParked);
}

// Holds every attempt until the test opens it.
class Latch : public IAuthProcessor {
public:
    AuthResult process(AuthContext&, IDataProvider&) override {
        std::unique_lock<std::mutex> lock(mutex);
        ++entered;
        changed.notify_all();
        changed.wait(lock, [this] { return open; });
        return CONTINUE;
    }
    std::string getName() const override { return "Latch"; }

    bool waitEntered(int timeoutMs) {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                                [this] { return entered > 0; });
    }
    void release() {
        {
            std::lock_guard<std::mutex> lock(mutex);
            open = true;
        }
        changed.notify_all();
    }

private:
    std::mutex mutex;
    std::condition_variable changed;
    int entered = 0;
    bool open = false;
};

TEST(FaultsAsync, TheHundredAndFirstQueuedSubmissionIsRefusedUntilOneIsTaken) {
    TestClock clock;
    CallbackRecorder recorder;
    AuthEngine engine;
    ASSERT_EQ(engine.init(makeSite()), 0);
    auto latch = std::make_shared<Latch>();
    // Opened again before the engine goes away, even when an assertion ends the test early.
    const std::shared_ptr<void> opener(nullptr, [latch](void*) { latch->release(); });
    engine.registerProcessor(latch);
    engine.setProcessorChain({"Latch"});

    std::set<std::string> accepted;
    const std::string held =
        engine.authenticateAsync(attempt(OPEN_TYPE_CARD, "card-2"), recorder.callback());
    ASSERT_FALSE(held.empty());
    accepted.insert(held);
    ASSERT_TRUE(latch->waitEntered(kWaitMs));  // the worker is busy: nothing more is taken

    for (int i = 0; i < 100; ++i) {
        const std::string id =
            engine.authenticateAsync(attempt(OPEN_TYPE_CARD, "card-2"), recorder.callback());
        ASSERT_FALSE(id.empty()) << "submission " << i;
        accepted.insert(id);
    }
    EXPECT_TRUE(
        engine.authenticateAsync(attempt(OPEN_TYPE_CARD, "card-2"), recorder.callback()).empty());
    EXPECT_EQ(accepted.size(), 101u);

    latch->release();
    ASSERT_TRUE(recorder.waitFor(2, kWaitMs));  // two taken: room again
    const std::string later =
        engine.authenticateAsync(attempt(OPEN_TYPE_CARD, "card-2"), recorder.callback());
    ASSERT_FALSE(later.empty());
    accepted.insert(later);

    ASSERT_TRUE(recorder.waitFor(accepted.size(), kWaitMs));
    ASSERT_TRUE(engine.waitForIdle(kWaitMs));
    EXPECT_EQ(recorder.count(), accepted.size());
    std::set<std::string> called;
    for (const auto& call : recorder.all()) {
        called.insert(call.requestId);
        EXPECT_EQ(call.response.result, SUCCESS);
    }
    EXPECT_EQ(called, accepted);
}

// One attempt, the reports it must produce (phase suffix of the id -> opened relays) and the
// number of questions the host gets on the way.
struct Scenario {
    AuthRequest request;
    std::size_t questions;
    std::map<std::string, std::vector<std::string>> reports;
};

std::vector<Scenario> guardedScenarios() {
    const std::map<std::string, std::vector<std::string>> everyPhase = {
        {"", {"3"}}, {"_ind_antipassback", {"1"}}, {"_ind_interlock", {"2"}}};
    return {
        {attempt(OPEN_TYPE_CARD, "card-1"), 2, everyPhase},
        {attempt(OPEN_TYPE_TEMP_KEY, "tk-1"), 3, everyPhase},
        {attempt(OPEN_TYPE_LICENSE_PLATE, "PLATE-1"), 1, {{"_ind_parking", {"3"}}}},
    };
}

void answerTwice(FakeDataProvider::Question& question) {
    AuthResponse response;
    response.result = SUCCESS;
    const AuthContext update = question.kind == "tempkey" ? tempKeyAnswer("tk-1") : AuthContext();
    question.callback(question.handle, response, update);
    question.callback(question.handle, response, update);
}

void runTwiceAnswered(bool inlineAnswers) {
    TestClock clock;
    CallbackRecorder recorder;
    auto host = makeSite();
    if (inlineAnswers) {
        host->answerTempKey = answerTwice;
        host->answerAntiPassback = answerTwice;
        host->answerInterlock = answerTwice;
        host->answerParking = answerTwice;
    }
    AuthEngine engine;
    ASSERT_EQ(engine.init(host), 0);

    for (const Scenario& scenario : guardedScenarios()) {
        SCOPED_TRACE("open type " + std::to_string(scenario.request.openType));
        host->clearLog();
        const std::size_t before = recorder.count();
        const std::string id = engine.authenticateAsync(scenario.request, recorder.callback());
        ASSERT_FALSE(id.empty());
        if (!inlineAnswers) {
            for (std::size_t i = 0; i < scenario.questions; ++i) {
                ASSERT_TRUE(host->waitForQuestions(i + 1, kWaitMs)) << "question " << i;
                const AuthContext update =
                    host->questions()[i].kind == "tempkey" ? tempKeyAnswer("tk-1") : AuthContext();
                host->answer(i, SUCCESS, 0, update);
                host->answer(i, SUCCESS, 0, update);
            }
        }
        ASSERT_TRUE(recorder.waitFor(before + scenario.reports.size(), kWaitMs));
        ASSERT_TRUE(engine.waitForIdle(kWaitMs));

        EXPECT_EQ(host->questions().size(), scenario.questions);
        EXPECT_EQ(recorder.count() - before, scenario.reports.size());
        for (const auto& expected : scenario.reports) {
            const auto calls = recorder.forId(id + expected.first);
            ASSERT_EQ(calls.size(), 1u) << "report " << expected.first;
            EXPECT_EQ(calls[0].response.result, SUCCESS) << "report " << expected.first;
            EXPECT_EQ(calls[0].response.openedRelays, expected.second)
                << "report " << expected.first;
        }
        EXPECT_EQ(host->reportCount(), scenario.reports.size());
        expectNothingLeft(engine);
    }
}

TEST(FaultsAsync, HostAnsweringEveryQuestionTwiceInlineGetsOneReportPerPhase) {
    runTwiceAnswered(true);
}

TEST(FaultsAsync, HostAnsweringEveryQuestionTwiceLaterGetsOneReportPerPhase) {
    runTwiceAnswered(false);
}

}  // namespace
}  // namespace auth_engine
