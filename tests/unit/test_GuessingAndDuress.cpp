// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// Guessing protection (lockout of a reader after repeated unknown codes) and duress codes, through
// the default chain on the fake host, and the guard's fixed table on its own.
#include <algorithm>
#include <string>
#include <tuple>

#include "auth_engine/FailCodes.h"
#include "engine/GuessGuard.h"
#include "support/EngineHarness.h"
#include "support/LogCapture.h"
#include "support/ProcessorTest.h"

namespace auth_engine {
namespace testing {
namespace {

// ---- the guard on its own ----

AuthContext refused(OpenDoorType type, int failCode, const char* reason) {
    AuthContext context;
    context.request.openType = type;
    context.response.result = FAILED;
    context.response.failCode = failCode;
    context.response.reason = reason;
    return context;
}

// A guard's configuration: `limit` refusals within `window` seconds lock out for `lockout`.
AuthConfig guessing(int limit, int window = 0, int lockout = 0) {
    AuthConfig config;
    config.guessLimit = limit;
    config.guessWindowSeconds = window;
    config.guessLockoutSeconds = lockout;
    return config;
}

TEST(GuessGuard, OnlyUnknownCodesOfTheChosenKindsCount) {
    // {kind, fail code, reason, unknown cards count too, counts}
    const std::tuple<OpenDoorType, int, const char*, bool, bool> cases[] = {
        {OPEN_TYPE_PIN, fail::GENERIC, reasons::USER_NOT_FOUND, false, true},
        {OPEN_TYPE_PIN_19, fail::GENERIC, reasons::USER_NOT_FOUND, false, true},
        {OPEN_TYPE_DTMF, fail::GENERIC, reasons::DTMF_CODE_INVALID, false, true},
        {OPEN_TYPE_PIN, fail::WRONG_SECOND_FACTOR, "", false, true},
        {OPEN_TYPE_PIN_5, fail::SECOND_FACTOR_OTHER_USER, "", false, true},
        {OPEN_TYPE_CARD, fail::GENERIC, reasons::USER_NOT_FOUND, false, false},
        {OPEN_TYPE_CARD_6, fail::GENERIC, reasons::USER_NOT_FOUND, true, true},
        {OPEN_TYPE_FACE, fail::GENERIC, reasons::USER_NOT_FOUND, true, false},
        {OPEN_TYPE_PIN, fail::SCHEDULE, reasons::NOT_IN_SCHEDULE, true, false},
        {OPEN_TYPE_PIN, fail::LOCKDOWN, reasons::ALL_RELAYS_LOCKED, true, false},
        {OPEN_TYPE_PIN, fail::ANTI_PASSBACK, reasons::ANTI_PASSBACK_OFFLINE, true, false},
        {OPEN_TYPE_DTMF, fail::GENERIC, reasons::DTMF_NOT_WHITELISTED, true, false},
        {OPEN_TYPE_PIN, fail::TOO_MANY_ATTEMPTS, reasons::TOO_MANY_ATTEMPTS, true, false},
    };
    for (const auto& [type, failCode, reason, cards, counts] : cases) {
        AuthConfig config = guessing(3);
        config.guessCountsCards = cards;
        EXPECT_EQ(GuessGuard::counts(refused(type, failCode, reason), config), counts)
            << type << " " << failCode << " " << reason;
        config.guessLimit = 0;
        EXPECT_FALSE(GuessGuard::counts(refused(type, failCode, reason), config));
    }
}

TEST(GuessGuard, LimitWithinTheWindowLocksOneReaderAndTheTableStaysFixed) {
    const AuthConfig config = guessing(3, 10, 30);
    GuessGuard guard;
    // Spread wider than the window: never three inside it.
    for (int64_t t : {0, 6, 12, 18}) {
        EXPECT_FALSE(guard.recordRefusal(READER_TYPE_INTERNAL, config, t).lockoutStarted) << t;
    }
    const GuessGuard::Outcome third = guard.recordRefusal(READER_TYPE_INTERNAL, config, 19);
    EXPECT_EQ(std::make_tuple(third.lockoutStarted, third.count, third.lockoutEnd),
              std::make_tuple(true, 3, int64_t{49}));
    EXPECT_TRUE(guard.refuses(READER_TYPE_INTERNAL, 48));
    EXPECT_FALSE(guard.refuses(READER_TYPE_INTERNAL, 49) ||
                 guard.refuses(READER_TYPE_EXTERNAL_1, 20));

    // A grant starts the count again; clear forgets the lockout.
    guard.recordRefusal(READER_TYPE_EXTERNAL_1, config, 50);
    guard.recordRefusal(READER_TYPE_EXTERNAL_1, config, 51);
    guard.recordGrant(READER_TYPE_EXTERNAL_1);
    EXPECT_FALSE(guard.recordRefusal(READER_TYPE_EXTERNAL_1, config, 52).lockoutStarted);
    guard.recordRefusal(READER_TYPE_INTERNAL, config, 60);
    guard.recordRefusal(READER_TYPE_INTERNAL, config, 60);
    EXPECT_TRUE(guard.recordRefusal(READER_TYPE_INTERNAL, config, 60).lockoutStarted);
    guard.clear();
    EXPECT_FALSE(guard.refuses(READER_TYPE_INTERNAL, 61) || guard.trackedReaders() > 0);

    // A million distinct wrong codes over a thousand reader values: the table never grows, and a
    // reader locked out is not pushed out to make room.
    const AuthConfig wide = guessing(5, 1000000, 1000000);
    for (int i = 0; i < 4; ++i) {
        guard.recordRefusal(READER_TYPE_INTERNAL, wide, 0);
    }
    ASSERT_TRUE(guard.recordRefusal(READER_TYPE_INTERNAL, wide, 0).lockoutStarted);
    AuthContext attempt = refused(OPEN_TYPE_PIN, fail::GENERIC, reasons::USER_NOT_FOUND);
    for (int i = 0; i < 1000000; ++i) {
        attempt.request.credential = std::to_string(i);
        attempt.request.readerType = static_cast<ReaderType>(1 + i % 1000);
        guard.noteVerdict(attempt, wide);
    }
    EXPECT_EQ(guard.trackedReaders(), GuessGuard::READER_SLOTS);
    EXPECT_TRUE(guard.refuses(READER_TYPE_INTERNAL, 1));
}

// ---- through the engine ----

// A resident (PIN 4711, duress code 9911, card C1) whose schedule opens doors 1 and 2 all day.
class Guessing : public EngineTest {
protected:
    void SetUp() override {
        const UserData resident = *person("res-1", 0, "7-12");
        host->users["4711"] = resident;
        host->users["C1"] = resident;
        host->duressCodes["9911"] = resident;
        host->schedules = {std::make_shared<ScheduleData>(
            ScheduleData{7, 1, "7", "all day", "00:00:00", "23:59:59", "", "", "", "", false})};
        host->config.guessWindowSeconds = 60;
        host->config.guessLockoutSeconds = 30;
        EngineTest::SetUp();
    }

    AuthResponse attempt(const std::string& code, OpenDoorType type = OPEN_TYPE_PIN,
                         ReaderType reader = READER_TYPE_INTERNAL) {
        return run("", makeRequest(code, type, reader));
    }
    void guessWrong(int times, OpenDoorType type = OPEN_TYPE_PIN) {
        for (int i = 0; i < times; ++i) {
            EXPECT_EQ(attempt("0" + std::to_string(i), type).failCode, fail::GENERIC);
        }
    }
};

TEST_F(Guessing, LockoutRefusesBeforeLookupThenEnds) {
    configure([](FakeDataProvider& h) { h.config.guessLimit = 3; });
    guessWrong(3);
    ASSERT_EQ(host->lockouts().size(), 1U);
    const FakeDataProvider::Lockout lockout = host->lockouts()[0];
    EXPECT_EQ(std::make_tuple(lockout.reader, lockout.count, lockout.end),
              std::make_tuple(READER_TYPE_INTERNAL, 3, clock.up() + 30));

    host->clearLog();
    expectFailed(attempt("4711"), fail::TOO_MANY_ATTEMPTS, "Too many failed attempts");
    expectFailed(attempt("C1", OPEN_TYPE_CARD), fail::TOO_MANY_ATTEMPTS,
                 "Too many failed attempts");
    EXPECT_EQ(host->callCount("getUserByCredential"), 0);
    EXPECT_EQ(host->callCount("onAuthResult"), 2);
    EXPECT_EQ(attempt("4711", OPEN_TYPE_PIN, READER_TYPE_EXTERNAL_1).result, SUCCESS);

    clock.advance(29);
    EXPECT_EQ(attempt("4711").failCode, fail::TOO_MANY_ATTEMPTS);
    clock.advance(1);
    guessWrong(1);  // the lockout used up the count: one more wrong code starts no new one
    EXPECT_EQ(attempt("4711").result, SUCCESS);
    EXPECT_EQ(host->lockouts().size(), 1U);
}

TEST_F(Guessing, OnlyUnknownCodesCountAndAGrantClears) {
    configure([](FakeDataProvider& h) {
        h.config.guessLimit = 3;
        h.lockedDownRelays = {"1", "2"};
    });
    // Lockdown refusals and unknown cards do not count.
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(attempt("4711").failCode, fail::LOCKDOWN);
    }
    guessWrong(5, OPEN_TYPE_CARD);
    configure([](FakeDataProvider& h) { h.lockedDownRelays.clear(); });
    guessWrong(2);
    EXPECT_EQ(attempt("4711").result, SUCCESS);
    guessWrong(2);
    EXPECT_TRUE(host->lockouts().empty());

    // With cards counted, an unknown card adds to the two unknown PINs since the grant.
    configure([](FakeDataProvider& h) { h.config.guessCountsCards = true; });
    guessWrong(1, OPEN_TYPE_CARD);
    EXPECT_EQ(host->lockouts().size(), 1U);
}

// Switched off, the host hears nothing new; a reset clears a lockout.
TEST_F(Guessing, SwitchedOffNothingNewAndResetClearsTheLockout) {
    guessWrong(50);
    expectFailed(attempt("9911"), fail::GENERIC, "User not found");
    EXPECT_EQ(attempt("4711").result, SUCCESS);
    for (const char* call : {"onGuessLockout", "getUserByDuressCode", "onDuress"}) {
        EXPECT_EQ(host->callCount(call), 0) << call;
    }

    configure([](FakeDataProvider& h) { h.config.guessLimit = 2; });
    guessWrong(2);
    EXPECT_EQ(attempt("4711").failCode, fail::TOO_MANY_ATTEMPTS);
    engine.reset();
    ASSERT_TRUE(start());
    EXPECT_EQ(attempt("4711").result, SUCCESS);
}

TEST_F(Guessing, DuressOpensWhatTheCodeOpensAndAlarmsFirstButNeverLogsTheCode) {
    LogCapture log;
    configure([](FakeDataProvider& h) { h.config.duressEnabled = true; });
    const AuthResponse normal = attempt("4711");
    host->clearLog();
    const AuthResponse duress = attempt("9911");
    EXPECT_EQ(std::make_tuple(duress.result, duress.openedRelays, duress.duress, normal.duress),
              std::make_tuple(normal.result, normal.openedRelays, true, false));
    const std::vector<std::string> calls = host->calls();
    const auto alarm = std::find(calls.begin(), calls.end(), "onDuress");
    EXPECT_LT(alarm - calls.begin(),
              std::find(calls.begin(), calls.end(), "onAuthResult") - calls.begin());
    ASSERT_EQ(host->duressAlarms().size(), 1U);
    EXPECT_EQ(host->duressAlarms()[0].userData->userId, "res-1");
    EXPECT_TRUE(host->reports().back().context.response.duress);

    // Refused for a reason of the user's (lockdown): refused under duress too, still alarming.
    configure([](FakeDataProvider& h) { h.lockedDownRelays = {"1", "2"}; });
    EXPECT_EQ(attempt("4711").failCode, fail::LOCKDOWN);
    const AuthResponse held = attempt("9911");
    EXPECT_TRUE(held.failCode == fail::LOCKDOWN && held.duress && host->duressAlarms().size() == 2);

    // Nor in the lockout's refusal.
    configure([](FakeDataProvider& h) { h.config.guessLimit = 1; });
    guessWrong(1);
    EXPECT_EQ(attempt("9911").failCode, fail::TOO_MANY_ATTEMPTS);
    EXPECT_FALSE(log.contains("9911"));
}

TEST_F(Guessing, EveryLaterReportOfADuressAttemptSaysSo) {
    configure([](FakeDataProvider& h) {
        h.config.duressEnabled = true;
        h.config.interlockEnabled = true;
        h.config.interlockRelayMap = {{"1", true}};
        h.answerInterlock = [](FakeDataProvider::Question& question) {
            question.callback(question.requestId, responseOf(SUCCESS), question.context);
        };
    });
    attempt("9911");  // door 2 at once, door 1 after its interlock phase
    ASSERT_TRUE(idle());
    configure([](FakeDataProvider& h) {
        h.config.interlockEnabled = false;
        h.config.unlockOptionsEnabled = true;
    });
    const std::string offer = attempt("9911").unlockOptionsId;
    AuthResponse choice = responseOf(SUCCESS);
    choice.unlockOptionsRelays = {"2"};
    engine.handleAsyncResponse(offer, SUCCESS, choice, AuthContext());
    ASSERT_TRUE(idle());
    std::vector<std::string> phases;
    for (const auto& report : host->reports()) {
        EXPECT_TRUE(report.context.response.duress) << report.context.response.asyncType;
        phases.push_back(report.context.response.asyncType);
    }
    EXPECT_EQ(phases, (std::vector<std::string>{"sync", "interlock", "sync", "sync"}));
}

}  // namespace
}  // namespace testing
}  // namespace auth_engine
