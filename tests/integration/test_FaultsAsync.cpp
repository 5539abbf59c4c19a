// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// Faults the engine meets in the field: a host whose every operation throws, answers that arrive
// late, twice or after a reset, a reset racing running attempts, a flood of parked requests timing
// out together and a full submission queue.
#include <atomic>
#include <map>
#include <set>
#include <stdexcept>
#include <thread>
#include <tuple>

#include "support/EngineHarness.h"
#include "support/LogCapture.h"

namespace auth_engine {
namespace testing {
namespace {

const std::set<std::string> kQuestions{"requestAntiPassback", "requestInterlock", "requestParking"};

// A site with relay 1 under anti-passback, relay 2 under interlock and relay 3 unguarded.
// "card-1" (a resident, so anti-passback applies) may open all three, "card-2" only relay 3,
// "PLATE-1" only relay 3 (parking restricted); temporary key "tk-1" opens all three.
std::shared_ptr<FakeDataProvider> makeSite() {
    auto host = std::make_shared<FakeDataProvider>();
    const auto user = [](int type, const char* id, const char* scheduleRelay) {
        UserData user;
        user.userType = type;
        user.userId = id;
        user.scheduleRelay = scheduleRelay;
        return user;
    };
    host->users["card-1"] = host->tempKeyUsers["tk-1"] = user(1, "u1", "1-1,2,3");
    host->users["PLATE-1"] = user(1, "u3", "1-3");
    host->users["card-2"] = user(0, "u2", "1-3");
    host->tempKeyTargets = {AuthTarget{0, "1"}, AuthTarget{0, "2"}, AuthTarget{0, "3"}};
    host->keyData = std::make_shared<KeyData>(KeyData{0, 0, true});  // valid for good
    host->schedules = {std::make_shared<ScheduleData>(
        ScheduleData{1, 1, "1", "", "00:00:00", "23:59:59", "", "", "", "", false})};
    host->config.antiPassbackEnabled = host->config.interlockEnabled = true;
    host->config.antiPassbackRelayMap = {{"1", RELAY_DIRECTION_IN}};
    host->config.interlockRelayMap = {{"2", true}};
    host->config.parkingRestrictionEnabled = true;
    return host;
}

// One attempt of every kind, each with the data its processor needs to reach the host.
std::vector<AuthRequest> everyKindOfAttempt() {
    const std::vector<OpenDoorType> types = {
        OPEN_TYPE_CARD,          OPEN_TYPE_PIN,      OPEN_TYPE_FACE,           OPEN_TYPE_BLE,
        OPEN_TYPE_LICENSE_PLATE, OPEN_TYPE_TEMP_KEY, OPEN_TYPE_REMOTE_CONTROL, OPEN_TYPE_DTMF,
        OPEN_TYPE_HTTP,          OPEN_TYPE_INPUT,    OPEN_TYPE_RELAY_KEY};
    const std::vector<std::string> credentials = {"card-1",  "1234", "face-1",  "ble-1",
                                                  "PLATE-1", "tk-1", "remote-1"};
    std::vector<AuthRequest> attempts;
    for (std::size_t i = 0; i < types.size(); ++i) {
        attempts.push_back(makeRequest(i < credentials.size() ? credentials[i] : "", types[i]));
    }
    attempts[7].dtmfData = std::make_shared<DtmfRequestData>(DtmfRequestData{"#1", "100", "", ""});
    attempts[8].httpData = std::make_shared<HttpRequestData>(
        HttpRequestData{0, 0, "admin", "secret", "", 0, 0, 0, 0, {AuthTarget{0, "1"}}});
    attempts[9].inputData =
        std::make_shared<InputRequestData>(InputRequestData{0, 0, 0, 0, {AuthTarget{0, "1"}}});
    attempts[10].relayKeyData =
        std::make_shared<RelayKeyAuthData>(RelayKeyAuthData{"1", {AuthTarget{0, "3"}}});
    return attempts;
}

// A chain of one link that passes `relays` for a resident.
ScriptedProcessor::Fn passes(const Relays& relays) {
    return [relays](AuthContext& context) {
        context.userData = std::make_shared<UserData>();
        context.userData->userType = 1;
        context.relays = relays;
        return CONTINUE;
    };
}

void answerYes(FakeDataProvider::Question& question) {
    question.callback(question.handle, responseOf(SUCCESS), AuthContext());
}

// An engine on the site; the latch is opened before the engine stops, even when an assertion ends
// the test early.
class FaultsAsync : public EngineTest {
protected:
    void SetUp() override {
        host = makeSite();
        EngineTest::SetUp();
    }
    void TearDown() override {
        latch.open();
        EngineTest::TearDown();
    }
    std::string submitCard(const std::string& c) { return submit(makeRequest(c, OPEN_TYPE_CARD)); }
    // Waits for `count` callbacks in all and for the engine to settle.
    void settle(std::size_t count) {
        ASSERT_TRUE(recorder.waitFor(count, kWaitMs));
        ASSERT_TRUE(idle());
        EXPECT_EQ(recorder.count(), count);
    }

    LogCapture log;
    Latch latch;
};

TEST_F(FaultsAsync, ThrowingHostFailsEachRequestOnceAndTheWorkerGoesOn) {
    configure([](FakeDataProvider& fake) { fake.throwFrom = {"*"}; });
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
    }
    settle(ids.size());
    for (std::size_t i = 0; i < ids.size(); ++i) {
        SCOPED_TRACE(attempts[i].openType);
        expectFailed(onlyReport(ids[i]), 0, "Internal error");
    }
    expectNothingParked(engine);

    // The same worker serves the next request once the host behaves again.
    configure([](FakeDataProvider& fake) { fake.throwFrom.clear(); });
    const std::string next = submitCard("card-2");
    settle(ids.size() + 1);
    EXPECT_EQ(reportOf(next), "SUCCESS 0 '' [3] [] 0:3");
}

// A relay check whose question throws, or whose host answers "yes" from inside the question and
// then throws, keeps only its own relay shut.
TEST_F(FaultsAsync, ThrowWhileAskingARelayCheckKeepsOnlyThatRelayShut) {
    const FakeDataProvider::QuestionHook yesThenThrow = [](FakeDataProvider::Question& question) {
        answerYes(question);
        throw std::runtime_error("link dropped after answering");
    };
    for (const bool answered : {false, true}) {
        SCOPED_TRACE(answered ? "answered, then threw" : "threw");
        recorder.clear();
        configure([&](FakeDataProvider& fake) {
            fake.throwFrom = answered ? std::set<std::string>() : kQuestions;
            fake.answerAntiPassback = fake.answerInterlock = fake.answerParking =
                answered ? yesThenThrow : nullptr;
        });
        const std::string card = submitCard("card-1");
        const std::string plate = submit(makeRequest("PLATE-1", OPEN_TYPE_LICENSE_PLATE));
        settle(4);  // card: relay 3 at once, anti-passback and interlock; plate: parking
        EXPECT_EQ(reportOf(card), "SUCCESS 0 '' [3] [] 0:3");
        EXPECT_EQ(reportOf(card + "_ind_antipassback"), "FAILED 5 '' [] [1]");
        EXPECT_EQ(reportOf(card + "_ind_interlock"), "FAILED 21 '' [] [2]");
        EXPECT_EQ(reportOf(plate + "_ind_parking"), "FAILED 23 '' [] [3]");
        expectNothingParked(engine);
    }
}

// That a new run never reissues an old id, nor lets a callback of before decide its chains, is
// pinned by the worker's and the facade's reset tests.
TEST_F(FaultsAsync, AnswersAfterResetAreDropped) {
    submit(makeRequest("tk-1", OPEN_TYPE_TEMP_KEY));  // parks on its question
    const std::string card = submitCard("card-1");
    // The card's relay 3 opens at once; relay 1 waits for its anti-passback answer.
    ASSERT_TRUE(host->waitForQuestions(2, kWaitMs));
    settle(1);
    ASSERT_EQ(engine.parkedChainCount() * 10 + engine.parkedPhaseCount(), 11u);

    engine.reset();
    // The parked phase is told of the shutdown; the parked chain vanishes silently.
    ASSERT_EQ(recorder.count(), 2u);
    EXPECT_EQ(onlyReport(card + "_ind_antipassback").reason, "Engine shutdown");
    // Late answers to both questions reach nothing.
    host->answer(0, SUCCESS, 0, tempKeyAnswer("tk-1"));
    host->answer(1, SUCCESS);
    EXPECT_EQ(recorder.count(), 2u);
    expectNothingParked(engine);
}

// ---- host faults that once opened a door, lost an answer or took the engine down ----

TEST_F(FaultsAsync, ConfigurationThatCannotBeReadAtTheSplitOpensNothing) {
    // Relays 1 (anti-passback) and 3 (free) for a resident; getAuthConfig throws at the split
    // only: nothing else reads the configuration.
    use("Pass", [](AuthContext& context) {
        context.readerRelays = {"x"};
        return passes({"1", "3"})(context);
    });
    configure([](FakeDataProvider& fake) { fake.throwFrom = {"getAuthConfig"}; });
    const std::string id = submit(AuthRequest());
    settle(1);
    EXPECT_EQ(reportOf(id), "FAILED 0 'Internal error' [] [1,3]");
    EXPECT_TRUE(host->questions().empty());
    expectNothingParked(engine);
}

TEST_F(FaultsAsync, OneConfigurationDecidesAPhaseFromTheSplitToItsQuestions) {
    // Anti-passback is switched off while relay 3's report goes out, after the split: the phase
    // still asks, and opens on the answer, instead of refusing a relay it never asked about.
    use("Pass", passes({"1", "2", "3"}));
    configure([](FakeDataProvider& fake) {
        fake.beforeCall = [&fake](const std::string& operation) {
            if (operation == "onAuthResult") {
                auto lock = fake.lock();
                fake.config.antiPassbackEnabled = false;
            }
        };
        fake.answerAntiPassback = answerYes;
    });
    const std::string id = submit(AuthRequest());
    settle(2);
    EXPECT_EQ(reportOf(id), "SUCCESS 0 '' [3] [] 0:3");
    EXPECT_EQ(reportOf(id + "_ind_antipassback"), "SUCCESS 0 '' [1] [] 0:1");
    // A passing interlock report does not keep the question's "pending" text.
    host->answer(1, SUCCESS);
    settle(3);
    EXPECT_EQ(reportOf(id + "_ind_interlock"), "SUCCESS 0 '' [2] [] 0:2");
}

TEST_F(FaultsAsync, OnlyAnswersToAskedQuestionsAreHeldOnceEach) {
    // While the phase is being built, the host floods it with answers to questions nobody asked
    // and answers the real one twice.
    const int junk = 1000;
    configure([&](FakeDataProvider& fake) {
        fake.answerAntiPassback = [&](FakeDataProvider::Question& question) {
            for (int i = 0; i < junk; ++i) {
                engine.handleAsyncResponse(question.requestId + "_ap_junk" + std::to_string(i),
                                           SUCCESS, responseOf(SUCCESS), AuthContext());
            }
            question.callback(question.handle, responseOf(FAILED), AuthContext());
            answerYes(question);
        };
    });
    const std::string card = submitCard("card-1");
    settle(2);
    EXPECT_EQ(onlyReport(card + "_ind_antipassback").result, FAILED);  // the first answer counts
    EXPECT_EQ(engine.droppedAnswerCount() * 10 + engine.heldAnswerCount(), (junk + 1) * 10u);
}

TEST_F(FaultsAsync, ChecksInsideTheChainResumeAndReleaseTheirQuestions) {
    // The host runs anti-passback and interlock as links of its chain; anti-passback (relay 1) is
    // answered later. Then either relay 1 is interlocked too and the resumed chain's interlock
    // question is answered from inside the call, or relay 2 is, and its peer is offline.
    configure([](FakeDataProvider& fake) { fake.answerInterlock = answerYes; });
    engine.setProcessorChain({"UserLookup", "VirtualDoor", "AntiPassback", "Interlock"});
    // {the card's relays, the interlocked relay, offline relays, outcome}
    for (const auto& [scheduleRelay, interlocked, offline, outcome] :
         std::vector<std::tuple<std::string, std::string, std::set<std::string>, std::string>>{
             {"1-1", "1", {}, "SUCCESS 0 '' [] [] 0:1"},
             {"1-1,2", "2", {"2"}, "FAILED 21 'Interlock request failed' [] [2]"}}) {
        SCOPED_TRACE(scheduleRelay);
        {  // structured bindings cannot be captured before C++20
            const auto lock = host->lock();
            host->users["card-1"].scheduleRelay = scheduleRelay;
            host->config.interlockRelayMap = {{interlocked, true}};
            host->offlineRelays = offline;
        }
        host->clearLog();
        const std::string card = submitCard("card-1");
        ASSERT_TRUE(idle());
        ASSERT_EQ(engine.parkedChainCount(), 1u);
        host->answer(0, SUCCESS);
        ASSERT_TRUE(idle());
        // Resumed, the chain finishes at once: it neither waits for a timeout nor leaves a
        // question registered.
        EXPECT_EQ(engine.parkedChainCount() + engine.openQuestionCount(), 0u);
        EXPECT_EQ(reportOf(card), outcome);
    }
}

TEST_F(FaultsAsync, InterlockRetryIgnoresAResumeWhileItAsksAndLeavesNothingBehind) {
    configure([](FakeDataProvider& fake) {
        fake.config.interlockRelayMap = {{"1", true}, {"2", true}};
        fake.config.interlockRetryLimit = 1;
    });
    const std::string id =
        engine.verifyInterlockTargets(AuthRequest(), {{0, "1"}, {0, "2"}}, recorder.callback());
    ASSERT_TRUE(idle());
    // While the retry asks again, a host thread tries to settle the phase: it is not parked at
    // that moment, so nothing happens; the phase ends at its next timeout, once.
    configure([&](FakeDataProvider& fake) {
        fake.answerInterlock = [&](FakeDataProvider::Question&) {
            std::thread([&] { engine.resumeIndependentAsync(id + "_ind_interlock"); }).join();
        };
    });
    sweepAfter(5);
    EXPECT_EQ(host->questions().size(), 4u);
    EXPECT_EQ(recorder.count(), 0u);
    sweepAfter(5);
    EXPECT_EQ(onlyReport(id).result, FAILED);
    EXPECT_EQ(engine.openQuestionCount(), 0u);
    expectNothingParked(engine);
}

// ---- host code that calls back into the facade ----

class FaultsFacade : public FacadeTest {
protected:
    void SetUp() override {
        host = makeSite();
        ASSERT_EQ(facade.init(host), 0);
    }
    // The first call of `operation` resets the facade.
    void resetFrom(const std::string& operation) {
        auto lock = host->lock();
        host->beforeCall = [this, operation, first = firstTime()](const std::string& called) {
            if (called == operation && first()) {
                facade.reset();
            }
        };
    }
    // True on its first call only, in whichever copy of the hook holding it.
    static std::function<bool()> firstTime() {
        const auto done = std::make_shared<std::atomic<bool>>(false);
        return [done] { return !done->exchange(true); };
    }
    LogCapture log;
};

TEST_F(FaultsFacade, ResetFromHostCodeTheWorkerRunsCompletesWhenThatCodeReturns) {
    // The card opens relay 3 at once and parks relay 1 for anti-passback. A reset asked from
    // inside the question, the report or the callback on the worker ends the run; each accepted
    // request hears back once per report, and the facade starts afresh.
    for (const std::string operation : {"requestAntiPassback", "onAuthResult", "callback"}) {
        SCOPED_TRACE(operation);
        recorder.clear();
        resetFrom(operation);
        const AuthCallback record = recorder.callback();
        const std::string id =
            facade.authenticateAsync(makeRequest("card-1", OPEN_TYPE_CARD),
                                     [this, record, operation, first = firstTime()](
                                         const std::string& called, const AuthResponse& response,
                                         const AuthContext& context) {
                                         record(called, response, context);
                                         if (operation == "callback" && first()) {
                                             facade.reset();
                                         }
                                     });
        ASSERT_TRUE(recorder.waitFor(2, kWaitMs));
        EXPECT_EQ(recorder.forId(id).at(0).response.openedRelays, Relays{"3"});
        expectFailed(recorder.forId(id + "_ind_antipassback").at(0).response, 0, "Engine shutdown");
        EXPECT_FALSE(facade.isReady());
        resetFrom("");
        ASSERT_EQ(facade.init(host), 0);
    }
    const std::string next =
        facade.authenticateAsync(makeRequest("card-2", OPEN_TYPE_CARD), recorder.callback());
    ASSERT_TRUE(recorder.waitFor(3, kWaitMs));
    EXPECT_EQ(recorder.forId(next).at(0).response.result, SUCCESS);
}

TEST_F(FaultsFacade, ResetFromHostCodeOfASynchronousAttemptCompletesWhenItReturns) {
    resetFrom("getLockedDownRelays");
    EXPECT_EQ(said(facade.authenticate(makeRequest("card-1", OPEN_TYPE_CARD))),
              "SUCCESS 0 '' [3] [] 0:3");
    EXPECT_FALSE(facade.isReady());
    // The interrupted attempt still finished its work, down to the relay-1 phase's question.
    EXPECT_EQ(host->callCount("requestAntiPassback"), 1);
}

TEST_F(FaultsFacade, CallsBackFromACallbackMadeUnderTheLockAreRefusedAtOnce) {
    std::string submitted = "not called";
    facade.authenticateAsync(
        makeRequest("tk-1", OPEN_TYPE_TEMP_KEY),
        [&](const std::string& id, const AuthResponse& response, const AuthContext& context) {
            // The parked temporary key times out: this runs under the engine's lock.
            submitted = facade.authenticateAsync(makeRequest("card-2", OPEN_TYPE_CARD),
                                                 recorder.callback());
            facade.handleAsyncResult(id, SUCCESS, response, context);
            facade.reset();
            submitted += "then reset";
        });
    ASSERT_TRUE(host->waitForQuestions(1, kWaitMs));
    ASSERT_TRUE(facade.waitForIdle(kWaitMs));
    clock.advance(4);
    ASSERT_TRUE(facade.waitForIdle(kWaitMs));
    EXPECT_EQ(submitted, "then reset");  // refused at once: no id
    EXPECT_TRUE(log.contains("handleAsyncResponse refused"));
    EXPECT_FALSE(facade.isReady());
}

TEST_F(FaultsAsync, ResetFromAnotherThreadWhileAttemptsRunCallsEverySubmissionBackOnce) {
    CallbackRecorder submitted, parkedCalls;
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
                std::unique_lock<std::mutex> lock(idsMutex);
                const std::size_t outstanding = accepted.size();
                lock.unlock();
                if (outstanding >= submitted.count() + 10) {
                    submitted.waitFor(outstanding - 9, 20);
                    continue;
                }
                const std::string id = engine.authenticateAsync(
                    makeRequest("card-2", OPEN_TYPE_CARD), submitted.callback());
                lock.lock();
                accepted.insert(accepted.end(), id.empty() ? 0 : 1, id);  // refused: none
            }
        });
    }
    // Synchronous attempts that park on the host's questions, one per decided submission:
    // answered resumes go before new submissions, so an unpaced stream of them would starve
    // the submitters.
    threads.emplace_back([&] {
        for (std::size_t i = 0; !stop;) {
            if (submitted.waitFor(i + 1, 20)) {
                engine.authenticate(makeRequest("tk-1", OPEN_TYPE_TEMP_KEY), parkedCalls.callback(),
                                    "sync-" + std::to_string(i++));
            }
        }
    });
    // The host answers whatever it was asked from a thread of its own, racing the reset, and
    // goes on answering after it.
    threads.emplace_back([&] {
        for (std::size_t i = 0; !stop || i < host->questions().size();) {
            if (host->waitForQuestions(i + 1, 20)) {
                const bool tempKey = host->questions()[i].kind == "tempkey";
                host->answer(i++, SUCCESS, 0, tempKey ? tempKeyAnswer("tk-1") : AuthContext());
            }
        }
    });

    const bool progressed = submitted.waitFor(20, kWaitMs);
    engine.reset();
    stop = true;
    for (auto& thread : threads) {
        thread.join();
    }
    ASSERT_TRUE(progressed);

    for (const auto& call : submitted.all()) {
        EXPECT_TRUE(call.response.result == SUCCESS || call.response.reason == "Engine shutdown")
            << call.response.reason;
    }
    expectCalledBackOnce(submitted, accepted);
    std::map<std::string, int> phaseCalls;
    for (const auto& call : parkedCalls.all()) {
        EXPECT_LE(++phaseCalls[call.requestId], 1) << call.requestId;
    }
    // A synchronous chain still inside the engine during the reset is covered on its own
    // (EngineAsyncWorker); what the worker and the host's answers touch must all be gone.
    EXPECT_EQ(engine.parkedPhaseCount() + engine.subRequestCount(), 0u);
    EXPECT_TRUE(submitCard("card-2").empty());
}

TEST_F(FaultsAsync, TenThousandParkedRequestsTimeOutInOneSweep) {
    use("NeverAnswered", askOnce);  // parks every request on a question nobody answers
    constexpr std::size_t kParked = 10000;
    // One more, whose callback asks the engine's counters: it runs under the engine's lock when the
    // chain times out, and there they are refused (a refused counter reads 0).
    std::string counts = "not called";
    engine.authenticate(
        makeRequest("card-1", OPEN_TYPE_CARD),
        [&](const std::string&, const AuthResponse&, const AuthContext&) {
            counts = std::to_string(engine.heldAnswerCount() + engine.droppedAnswerCount() +
                                    engine.openQuestionCount() + engine.subRequestCount());
        },
        "probe");
    std::vector<std::string> ids;
    for (std::size_t i = 0; i < kParked; ++i) {
        ids.push_back("park-" + std::to_string(i));
        ASSERT_EQ(run(ids.back(), makeRequest("card-1", OPEN_TYPE_CARD)).result, ASYNC_PENDING);
    }
    // A caller's id still in use is refused, and the request parked under it is left alone.
    CallbackRecorder second;
    expectFailed(engine.authenticate(AuthRequest(), second.callback(), "park-0"), 0,
                 "Request id already in use");
    clock.advance(30);  // exactly at the limit nothing times out yet
    engine.checkTimeoutRequests();
    EXPECT_EQ(engine.parkedChainCount(), kParked + 1);
    EXPECT_EQ(recorder.count(), 0u);
    clock.advance(1);
    engine.checkTimeoutRequests();  // the sweep itself ends them, before the engine settles
    EXPECT_EQ(engine.parkedChainCount(), 0u);
    ASSERT_TRUE(idle());
    expectCalledBackOnce(recorder, ids);
    for (const auto& call : recorder.all()) {
        ASSERT_EQ(said(call.response), "FAILED 0 'Async request timeout' [] []");
    }
    EXPECT_EQ(host->reportCount(), kParked + 2);  // with the probe and the refused duplicate
    EXPECT_EQ(counts, "0");
    EXPECT_EQ(second.count(), 1u);
    EXPECT_TRUE(log.contains("droppedAnswerCount refused"));
}

TEST_F(FaultsAsync, TheHundredAndFirstQueuedSubmissionIsRefusedUntilOneIsTaken) {
    use("Latch", [this](AuthContext&) {
        latch.pass();
        return CONTINUE;
    });
    std::vector<std::string> accepted = {submitCard("card-2")};
    ASSERT_TRUE(latch.waitEntered(1, kWaitMs));  // the worker is busy: nothing more is taken
    for (int i = 0; i < 100; ++i) {
        accepted.push_back(submitCard("card-2"));  // each accepted: 102 distinct ids below
    }
    EXPECT_TRUE(submitCard("card-2").empty());
    latch.open();
    ASSERT_TRUE(recorder.waitFor(2, kWaitMs));  // two taken: room again
    accepted.push_back(submitCard("card-2"));
    settle(accepted.size());
    // First in, first out; each id once, the one the caller was given.
    EXPECT_EQ(calledIds(), accepted);
    EXPECT_EQ(std::set<std::string>(accepted.begin(), accepted.end()).size(), 102u);
    for (const auto& call : recorder.all()) {
        EXPECT_EQ(call.response.result, SUCCESS);
    }
}

void answerTwice(FakeDataProvider::Question& question) {
    const AuthContext update = question.kind == "tempkey" ? tempKeyAnswer("tk-1") : AuthContext();
    question.callback(question.handle, responseOf(SUCCESS), update);
    question.callback(question.handle, responseOf(SUCCESS), update);
}

// A host that answers every question twice, from inside it or later, gets one report per phase.
TEST_F(FaultsAsync, HostAnsweringEveryQuestionTwiceGetsOneReportPerPhase) {
    // {attempt, questions the host gets on the way, the reports (phase suffix of the id -> the
    // relay it opens)}
    using Reports = std::map<std::string, std::string>;
    const Reports everyPhase = {{"", "3"}, {"_ind_antipassback", "1"}, {"_ind_interlock", "2"}};
    for (const bool inlineAnswers : {false, true}) {
        configure([&](FakeDataProvider& fake) {
            fake.answerTempKey = fake.answerAntiPassback = fake.answerInterlock =
                fake.answerParking = inlineAnswers ? answerTwice : nullptr;
        });
        for (const auto& [request, questions, reports] :
             std::vector<std::tuple<AuthRequest, std::size_t, Reports>>{
                 {makeRequest("card-1", OPEN_TYPE_CARD), 2, everyPhase},
                 {makeRequest("tk-1", OPEN_TYPE_TEMP_KEY), 3, everyPhase},
                 {makeRequest("PLATE-1", OPEN_TYPE_LICENSE_PLATE), 1, {{"_ind_parking", "3"}}}}) {
            SCOPED_TRACE(std::string(inlineAnswers ? "inline" : "later") + ", open type " +
                         std::to_string(request.openType));
            host->clearLog();
            recorder.clear();
            const std::string id = submit(request);
            for (std::size_t i = 0; !inlineAnswers && i < questions; ++i) {
                ASSERT_TRUE(host->waitForQuestions(i + 1, kWaitMs)) << "question " << i;
                answerTwice(host->questions()[i]);
            }
            settle(reports.size());
            EXPECT_EQ(host->questions().size(), questions);
            for (const auto& expected : reports) {
                EXPECT_EQ(reportOf(id + expected.first),
                          "SUCCESS 0 '' [" + expected.second + "] [] 0:" + expected.second);
            }
            EXPECT_EQ(host->reportCount(), reports.size());
            expectNothingParked(engine);
        }
    }
}

}  // namespace
}  // namespace testing
}  // namespace auth_engine
