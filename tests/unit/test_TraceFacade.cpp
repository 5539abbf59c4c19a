// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// The trace: the keyed hash against its published vectors, the recorder's ring, and what a sink on
// the facade sees of a decision (calls, operations, reports, clocks), with secrets hashed.
#include <regex>
#include <sstream>

#include "support/EngineHarness.h"

namespace auth_engine {
namespace testing {
namespace {

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
        if (i < 16) {
            key[i] = i;
        }
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
    EXPECT_EQ(recorder.size(), 3u);
    EXPECT_EQ(recorder.recorded(), 5u);
    const std::string lines = recorder.jsonLines();
    EXPECT_EQ(countOf(lines, "\n"), 4u);
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

class TraceFacade : public FacadeTest {
protected:
    void SetUp() override {
        host->users["4711"].userId = "u-1";
        host->users["4711"].scheduleRelay = "1-1";
    }
    void TearDown() override {
        facade.setTraceSink(nullptr);
        FacadeTest::TearDown();
    }
    /// One PIN decision traced into `recorder`.
    std::string traceOneDecision(const std::shared_ptr<TraceRecorder>& recorder) {
        facade.setTraceSink(recorder);
        EXPECT_EQ(facade.init(host), 0);
        facade.authenticate(makeRequest("4711", OPEN_TYPE_PIN));
        EXPECT_TRUE(facade.waitForIdle(kWaitMs));
        return recorder->jsonLines();
    }
    const std::vector<uint8_t> key = std::vector<uint8_t>(16, 0x5a);
};

TEST_F(TraceFacade, ADecisionIsTracedWithEveryKindOfEventAndItsSecretHashed) {
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

TEST_F(TraceFacade, ClearModeWritesSecretsAndRemovingTheSinkStopsRecording) {
    const auto recorder = std::make_shared<TraceRecorder>(1000, TraceRecorder::SECRETS_CLEAR);
    EXPECT_GE(countOf(traceOneDecision(recorder), R"("credential":"4711")"), 2u);
    facade.setTraceSink(nullptr);
    facade.reset();
    const uint64_t before = recorder->recorded();
    ASSERT_EQ(facade.init(host), 0);
    facade.authenticate(makeRequest("4711", OPEN_TYPE_PIN));
    EXPECT_EQ(recorder->recorded(), before);
}

TEST_F(TraceFacade, AnOperationThatThrowsIsRecordedAndTheDecisionEndsClosed) {
    host->throwFrom.insert("getUserByCredential");
    const auto recorder = std::make_shared<TraceRecorder>(1000, key);
    const std::string lines = traceOneDecision(recorder);
    EXPECT_EQ(countOf(lines, R"("name":"getUserByCredential".*"threw":"fake provider throws)"), 1u)
        << lines;
    EXPECT_EQ(countOf(lines, R"("kind":"report","name":"authenticate".*"result":1)"), 1u) << lines;
}

}  // namespace
}  // namespace testing
}  // namespace auth_engine
