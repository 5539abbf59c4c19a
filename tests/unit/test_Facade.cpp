// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// The host's entry point: answers without an engine, init and reset, the convenience overloads.
// The trace: the keyed hash against its published vectors, the recorder's ring, and what a sink on
// the facade sees of a decision (calls, operations, reports, clocks), with secrets hashed.
#include <regex>
#include <sstream>

#include "auth_engine/AuthLogger.h"
#include "support/EngineHarness.h"

namespace auth_engine {
namespace testing {
namespace {

const std::string kNoEngine = "AuthFacade not initialized";

class Facade : public FacadeTest {
protected:
    // Starts the facade on `host` with a processor that parks "park" on its first pass (the latch
    // hears it) and, resumed, returns what the host answered; anything else is ignored.
    std::shared_ptr<ScriptedProcessor> startWithParker() {
        EXPECT_EQ(facade.init(host), 0);
        auto parker = std::make_shared<ScriptedProcessor>("Recorder", [this](AuthContext& context) {
            const bool park = context.request.credential == "park";
            if (park && context.pendingProcessor.empty()) {
                parked.arrive();
            }
            return park ? askOnce(context) : IGNORED;
        });
        facade.registerProcessor(parker);
        facade.setProcessorChain({"Recorder"});
        return parker;
    }
    std::string park() {
        return facade.authenticateAsync(makeRequest("park"), recorder.callback());
    }

    // One PIN decision traced into `recorder`.
    std::string traceOneDecision(const std::shared_ptr<TraceRecorder>& recorder) {
        host->users["4711"].userId = "u-1";
        host->users["4711"].scheduleRelay = "1-1";
        facade.setTraceSink(recorder);
        EXPECT_EQ(facade.init(host), 0);
        facade.authenticate(makeRequest("4711", OPEN_TYPE_PIN));
        EXPECT_TRUE(facade.waitForIdle(kWaitMs));
        return recorder->jsonLines();
    }
    void TearDown() override {
        facade.setTraceSink(nullptr);
        FacadeTest::TearDown();
    }

    Latch parked;
    const std::vector<uint8_t> key = std::vector<uint8_t>(16, 0x5a);
};

TEST_F(Facade, AnswersWithoutAnEngineBeforeInit) {
    expectFailed(facade.authenticate("1234", OPEN_TYPE_PIN, READER_TYPE_INTERNAL), 0, kNoEngine);
    EXPECT_EQ(
        (Relays{facade.authenticate(AuthRequest()).reason,
                facade.handleDoubleAuthTimeout("double-1").reason,
                facade.cancelDoubleAuth("double-1", "x").reason,
                facade.authenticateAsync(AuthRequest(), recorder.callback()),
                facade.authenticateAsync("1", OPEN_TYPE_CARD, READER_TYPE_INTERNAL,
                                         recorder.callback()),
                facade.verifyInterlockTargets(AuthRequest(), {{0, "1"}}, recorder.callback())}),
        (Relays{kNoEngine, kNoEngine, kNoEngine, "", "", ""}));
    facade.handleAsyncResult("req_0_1", SUCCESS, AuthResponse(), AuthContext());
    facade.handleUnlockOptionsResponse("req_0_1_ind_unlock_options", {"1"});
    EXPECT_EQ(facade.init(nullptr), -1);
    EXPECT_FALSE(facade.isReady());
    EXPECT_EQ(recorder.count(), 0u);
}

TEST_F(Facade, InitResetInitAndConvenienceOverloads) {
    const auto probe = startWithParker();
    EXPECT_TRUE(facade.isReady());
    EXPECT_EQ(facade.init(nullptr), 0);  // already running: kept

    EXPECT_EQ(facade.authenticate("42", OPEN_TYPE_CARD, READER_TYPE_EXTERNAL_2).result, IGNORED);
    const std::string id =
        facade.authenticateAsync("43", OPEN_TYPE_FACE, READER_TYPE_EXTERNAL_1, recorder.callback());
    ASSERT_FALSE(id.empty());
    ASSERT_TRUE(recorder.waitFor(1));
    EXPECT_EQ(recorder.at(0).requestId, id);
    Relays seen;  // "credential openType readerType 'requestId' timestamp"
    for (const auto& c : probe->seen()) {
        seen.push_back(c.request.credential + " " + std::to_string(c.request.openType) + " " +
                       std::to_string(c.request.readerType) + " '" + c.requestId + "' " +
                       std::to_string(c.request.timestamp - clock.wall()));
    }
    EXPECT_EQ(seen, (Relays{"42 1 " + std::to_string(READER_TYPE_EXTERNAL_2) + " '' 0",
                            "43 9 " + std::to_string(READER_TYPE_EXTERNAL_1) + " '" + id + "' 0"}));

    // A synchronous attempt never parks: the pending result comes straight back, nobody is told.
    EXPECT_EQ(facade.authenticate(makeRequest("park")).result, ASYNC_PENDING);

    facade.reset();
    EXPECT_EQ(std::to_string(facade.isReady()) + facade.authenticate(AuthRequest()).reason,
              "0" + kNoEngine);
    ASSERT_EQ(facade.init(std::make_shared<FakeDataProvider>()), 0);
    EXPECT_TRUE(facade.isReady() && facade.authenticate(AuthRequest()).reason != kNoEngine);
    EXPECT_EQ(recorder.count(), 1u);
}

TEST_F(Facade, UnlockOptionsAnswerIsAHostAnswerById) {
    startWithParker();
    for (const Relays& choice : {Relays{}, Relays{"2", "1"}}) {
        const std::string id = park();
        ASSERT_TRUE(parked.waitEntered(choice.empty() ? 1 : 2));
        facade.handleUnlockOptionsResponse(id, choice);
        ASSERT_TRUE(recorder.waitFor(choice.empty() ? 1 : 2));
    }
    expectFailed(recorder.at(0).response, 44, "User canceled relay selection");
    EXPECT_EQ(std::to_string(recorder.at(1).response.result) + " " +
                  joinRelayVector(recorder.at(1).response.unlockOptionsRelays),
              "0 2,1");
}

TEST_F(Facade, AnAnswerFromBeforeAResetDecidesNothingAfterIt) {
    startWithParker();
    const std::string before = park();
    ASSERT_TRUE(parked.waitEntered());
    facade.reset();
    startWithParker();
    // Same second, new engine: the id is not issued again.
    const std::string after = park();
    ASSERT_TRUE(parked.waitEntered(2));
    ASSERT_NE(after, before);
    facade.handleAsyncResult(before, SUCCESS, responseOf(SUCCESS), AuthContext());
    ASSERT_TRUE(facade.waitForIdle(kWaitMs));
    EXPECT_EQ(recorder.count(), 0u);
    facade.handleAsyncResult(after, FAILED, responseOf(FAILED, 7), AuthContext());
    ASSERT_TRUE(recorder.waitFor(1));
    EXPECT_EQ(recorder.at(0).requestId + " " + std::to_string(recorder.at(0).response.failCode),
              after + " 7");
}

// That waitForIdle sweeps at the clock as it is now is what the fault tests' callback under the
// lock waits for.
TEST_F(Facade, WaitForIdleWithoutAnEngineIsAtOnceAndOnTheWorkerRefused) {
    EXPECT_TRUE(facade.waitForIdle(0));  // no engine: nothing to wait for
    startWithParker();
    // On the worker's own thread the wait could never end: refused at once.
    std::atomic<int> fromCallback{-1};
    facade.authenticateAsync(makeRequest("other"),
                             [&](const std::string&, const AuthResponse&, const AuthContext&) {
                                 fromCallback = facade.waitForIdle(kWaitMs) ? 1 : 0;
                             });
    ASSERT_TRUE(facade.waitForIdle(kWaitMs));
    EXPECT_EQ(fromCallback.load(), 0);
}

std::size_t countOf(const std::string& text, const std::string& pattern) {
    const std::regex re(pattern);
    return static_cast<std::size_t>(
        std::distance(std::sregex_iterator(text.begin(), text.end(), re), std::sregex_iterator()));
}

std::string hex(uint64_t value) {
    char text[17];
    std::snprintf(text, sizeof(text), "%016llx", static_cast<unsigned long long>(value));
    return text;
}

TEST(TraceHash, SipHash24MatchesTheReferenceVectors) {
    // Key 00..0f, message 00..(n-1), as in the authors' reference vectors.
    const std::vector<std::pair<std::size_t, uint64_t>> vectors = {
        {0, 0x726fdb47dd0e0e31ULL}, {1, 0x74f839c593dc67fdULL},  {2, 0x0d6c8009d9a94f5aULL},
        {3, 0x85676696d7fb7e2dULL}, {15, 0xa129ca6149be45e5ULL}, {63, 0x958a324ceb064572ULL}};
    uint8_t key[16];
    uint8_t message[64];
    for (uint8_t i = 0; i < 64; ++i) {
        message[i] = i;
        key[i % 16] = i % 16;
    }
    for (const auto& v : vectors) {
        EXPECT_EQ(TraceRecorder::sipHash24(key, message, v.first), v.second) << v.first;
    }
}

TraceEvent eventNamed(const char* name, const std::string& fields) {
    TraceEvent event;
    event.kind = TraceKind::OP;
    event.name = name;
    event.fields = fields.c_str();
    event.fieldsLength = fields.size();
    return event;
}

TEST(TraceRecorderRing, KeepsTheLastEventsWithAHeaderNamingTheSecretsMode) {
    TraceRecorder recorder(3, std::vector<uint8_t>(16, 7));
    const std::string fields = "\"n\":1";
    for (const char* name : {"a", "b", "c", "d", "e"}) {
        recorder.record(eventNamed(name, fields));
    }
    const std::string lines = recorder.jsonLines();
    EXPECT_EQ(std::to_string(recorder.size()) + " of " + std::to_string(recorder.recorded()) +
                  ", lines " + std::to_string(countOf(lines, "\n")),
              "3 of 5, lines 4");
    EXPECT_EQ(countOf(lines, R"("seq":3,.*"name":"c","n":1})"), 1u) << lines;
    EXPECT_EQ(countOf(lines, R"(^\{"trace":"auth_engine".*"secrets":"hashed","keyId":")" +
                                 recorder.keyId()),
              1u)
        << lines;
    std::ostringstream out;
    recorder.writeJsonLines(out);
    EXPECT_EQ(out.str(), lines);
    recorder.clear();
    EXPECT_EQ(recorder.size(), 0u);
    EXPECT_EQ(
        countOf(TraceRecorder(1, TraceRecorder::SECRETS_CLEAR).jsonLines(), R"("secrets":"clear")"),
        1u);
}

TEST_F(Facade, DecisionIsTracedWithEveryKindOfEventAndItsSecretHashed) {
    const auto recorder = std::make_shared<TraceRecorder>(1000, key);
    const std::string lines = traceOneDecision(recorder);
    const std::string hashed = "sip:" + hex(TraceRecorder::sipHash24(key.data(), "4711", 4));
    // The request's credential and the operation's argument hash the same; the PIN never shows.
    EXPECT_EQ(countOf(lines, "4711"), 0u) << lines;
    EXPECT_GE(countOf(lines, R"("credential":")" + hashed), 2u) << lines;
    for (const char* event :
         {R"("kind":"call","name":"init")", R"("kind":"return","name":"init")",
          R"("kind":"call","name":"authenticate","call":\d+,"args":\{"request")",
          R"("kind":"op","name":"getUserByCredential")", R"("kind":"report","name":"authenticate")",
          R"("kind":"clock","name":"readings","now":1736942400,"uptime":1000)"}) {
        EXPECT_GE(countOf(lines, event), 1u) << event << "\n" << lines;
    }
    EXPECT_EQ(countOf(lines, R"(\{"seq":\d+,"uptime":1000,"wall":1736942400,"us":\d+,"thread":\d)"),
              recorder->size());
}

// In clear mode, with a host lookup that throws: the secret is written as it is, the throw is
// recorded and the decision ends closed; without a sink nothing more is recorded.
TEST_F(Facade, TraceInClearModeOfAThrowingLookupThenWithoutASink) {
    host->throwFrom.insert("getUserByCredential");
    const auto recorder = std::make_shared<TraceRecorder>(1000, TraceRecorder::SECRETS_CLEAR);
    const std::string lines = traceOneDecision(recorder);
    EXPECT_GE(countOf(lines, R"("credential":"4711")"), 2u) << lines;
    EXPECT_EQ(countOf(lines, R"("name":"getUserByCredential".*"threw":"fake provider throws)"), 1u)
        << lines;
    EXPECT_EQ(countOf(lines, R"("kind":"report","name":"authenticate".*"result":1)"), 1u) << lines;
    facade.setTraceSink(nullptr);
    facade.reset();
    const uint64_t before = recorder->recorded();
    ASSERT_EQ(facade.init(host), 0);
    facade.authenticate(makeRequest("4711", OPEN_TYPE_PIN));
    EXPECT_EQ(recorder->recorded(), before);
}

}  // namespace
}  // namespace testing
}  // namespace auth_engine
