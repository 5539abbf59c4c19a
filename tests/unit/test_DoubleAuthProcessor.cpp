// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

#include <gtest/gtest.h>

#include <memory>
#include <set>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "processors/DoubleAuthProcessor.h"
#include "support/ProcessorTest.h"

namespace auth_engine {
namespace {

using namespace testing;  // NOLINT(google-build-using-namespace)

std::shared_ptr<UserData> member(const std::string& id, const std::string& scheduleRelay = "") {
    auto user = person(id, 2, scheduleRelay);
    user->ownerKind = 5;
    return user;
}

AuthContext factor(OpenDoorType type, std::shared_ptr<UserData> user,
                   ReaderType reader = READER_TYPE_INTERNAL, const std::string& pendingId = "") {
    AuthContext context = presenting(type, "cred-" + std::to_string(type));
    context.request.readerType = reader;
    context.request.doubleAuthPendingId = pendingId;
    context.userData = std::move(user);
    return context;
}

// A response's wait in one line: "[waiting ]id first>next reader=R Ns userText2 credential".
std::string wait(const AuthResponse& r) {
    return (r.doubleAuthWaiting ? "waiting " : "") + r.doubleAuthPendingId + " mode" +
           std::to_string(r.doubleAuthMode) + " " + std::to_string(r.doubleAuthFirstType) + ">" +
           std::to_string(r.doubleAuthNextType) +
           " reader=" + std::to_string(r.doubleAuthReaderType) + " " +
           std::to_string(r.doubleAuthTimeoutSec) + "s " + r.doubleAuthUserText2 + " " +
           r.doubleAuthCredential;
}

class DoubleAuthProcessorTest : public ProcessorTest<processors::DoubleAuthProcessor> {
protected:
    DoubleAuthProcessorTest() {
        provider.config.doubleAuthEnabled = true;
        provider.config.doubleAuthMode = DOUBLE_AUTH_MODE_CARD_PIN;
    }
    std::string holdCard(const std::shared_ptr<UserData>& user,
                         ReaderType reader = READER_TYPE_INTERNAL) {
        AuthContext card = factor(OPEN_TYPE_CARD, user, reader);
        EXPECT_EQ(run(card), DOUBLE_AUTH_PENDING);
        return card.response.doubleAuthPendingId;
    }
};

TEST_F(DoubleAuthProcessorTest, PassesWhatDoubleAuthenticationDoesNotConcern) {
    auto alice = member("alice");
    AuthContext qr = factor(OPEN_TYPE_CARD, alice);
    qr.request.sourceCode = SOURCE_CODE_QR;
    for (const AuthContext& context :
         {factor(OPEN_TYPE_PUBLIC_PIN, alice), qr, factor(OPEN_TYPE_BLE, alice)}) {
        EXPECT_EQ(failCodeOf(context), -1) << context.request.openType;
    }
    // An unknown mode, mode OFF, and a mode with double authentication switched off.
    for (const auto& [mode, enabled] : std::vector<std::pair<int, bool>>{{9, 1}, {0, 1}, {4, 0}}) {
        provider.config.doubleAuthMode = static_cast<DoubleAuthMode>(mode);
        provider.config.doubleAuthEnabled = enabled;
        EXPECT_EQ(failCodeOf(factor(OPEN_TYPE_CARD, alice)), -1) << mode;
    }
    EXPECT_EQ(processor.pendingCount(), 0u);
}

TEST_F(DoubleAuthProcessorTest, EveryModeHoldsItsFirstFactorAndCompletesWithTheSecond) {
    // {mode, first factor, second factor, "first>next" as the wait describes it}
    const std::tuple<DoubleAuthMode, OpenDoorType, OpenDoorType, const char*> pairs[] = {
        {DOUBLE_AUTH_MODE_FACE_CARD, OPEN_TYPE_FACE, OPEN_TYPE_CARD_6, "9>1"},
        {DOUBLE_AUTH_MODE_FACE_PIN, OPEN_TYPE_FACE, OPEN_TYPE_PIN_19, "9>4"},
        {DOUBLE_AUTH_MODE_PIN_CARD, OPEN_TYPE_PIN_5, OPEN_TYPE_CARD_8, "5>1"},
        {DOUBLE_AUTH_MODE_CARD_PIN, OPEN_TYPE_CARD, OPEN_TYPE_PIN_7, "1>4"}};
    int id = 0;
    for (const auto& [mode, firstType, secondType, types] : pairs) {
        provider.config.doubleAuthMode = mode;
        auto alice = member("alice");
        AuthContext first = factor(firstType, alice, READER_TYPE_EXTERNAL_1);
        first.request.direction = RELAY_DIRECTION_OUT;
        ASSERT_EQ(run(first), DOUBLE_AUTH_PENDING) << mode;
        const std::string held = " mode" + std::to_string(mode) + " " + types +
                                 " reader=1 60s alice cred-" + std::to_string(firstType);
        EXPECT_EQ(wait(first.response), "waiting double-" + std::to_string(++id) + held);

        clock.advance(59);
        // The lookup made its own copy of the same person for the second credential.
        AuthContext second = factor(secondType, member("alice"), READER_TYPE_INTERNAL);
        ASSERT_EQ(run(second), CONTINUE) << mode;
        EXPECT_TRUE(second.userData == alice && second.response.user == alice);
        // The reader of the pair by the default order 2, 1, 0; the first factor's direction.
        EXPECT_EQ(second.request.readerType * 10 + second.request.direction,
                  READER_TYPE_EXTERNAL_1 * 10 + RELAY_DIRECTION_OUT);
        EXPECT_EQ(wait(second.response), held);  // the pair's wait, without its id
        EXPECT_EQ(processor.pendingCount(), 0u);
    }

    provider.readerPriority = {READER_TYPE_INTERNAL, READER_TYPE_EXTERNAL_2};
    holdCard(member("bob"), READER_TYPE_EXTERNAL_2);
    AuthContext pin = factor(OPEN_TYPE_PIN, member("bob"), READER_TYPE_INTERNAL);
    EXPECT_EQ(run(pin), CONTINUE);
    EXPECT_EQ(pin.request.readerType, READER_TYPE_INTERNAL);
}

TEST_F(DoubleAuthProcessorTest, RefusesWrongKindOtherUserAndMissingPending) {
    AuthContext lonePin = factor(OPEN_TYPE_PIN, member("alice"), READER_TYPE_EXTERNAL_2);
    EXPECT_EQ(decide(lonePin), "FAILED 40 '' [] []");
    EXPECT_EQ(wait(lonePin.response), " mode4 1>4 reader=2 0s  ");
    AuthContext face = factor(OPEN_TYPE_FACE, member("alice"));
    EXPECT_EQ(decide(face), "FAILED 40 '' [] []");
    EXPECT_EQ(wait(face.response), " mode4 1>4 reader=0 0s  ");
    EXPECT_EQ(failCodeOf(factor(OPEN_TYPE_CARD, nullptr)), 41);
    EXPECT_EQ(processor.pendingCount(), 0u);

    // Another person's PIN, a PIN of nobody and a user without an id all use up the wait.
    for (const auto& other : {member("mallory"), std::shared_ptr<UserData>(), member("")}) {
        holdCard(member("alice"));
        EXPECT_EQ(failCodeOf(factor(OPEN_TYPE_PIN, other)), 41);
        EXPECT_EQ(processor.pendingCount(), 0u);
    }
    // Two users without ids are matched by their kind and type numbers alone.
    holdCard(member(""));
    EXPECT_EQ(failCodeOf(factor(OPEN_TYPE_PIN, member(""))), -1);
}

TEST_F(DoubleAuthProcessorTest, ExplicitIdsReplacementAndLazyExpiry) {
    auto alice = member("alice");
    EXPECT_EQ(holdCard(alice), "double-1");
    EXPECT_EQ(holdCard(alice), "double-2");
    EXPECT_EQ(processor.pendingCount(), 1u);
    EXPECT_EQ(failCodeOf(factor(OPEN_TYPE_PIN, alice, READER_TYPE_INTERNAL, "double-1")), 42);
    // The wrong kind under an explicit id keeps the wait for the right one.
    EXPECT_EQ(failCodeOf(factor(OPEN_TYPE_CARD, alice, READER_TYPE_INTERNAL, "double-2")), 40);
    EXPECT_EQ(failCodeOf(factor(OPEN_TYPE_PIN_5, alice, READER_TYPE_INTERNAL, "double-2")), -1);

    holdCard(alice);
    clock.advance(60);
    EXPECT_EQ(processor.pendingCount(), 1u);  // nothing is swept without a call
    EXPECT_EQ(failCodeOf(factor(OPEN_TYPE_PIN, alice)), 40);
    EXPECT_EQ(processor.pendingCount(), 0u);

    provider.config.doubleAuthTimeoutSec = 0;
    holdCard(alice);
    EXPECT_EQ(failCodeOf(factor(OPEN_TYPE_BLE, nullptr)), -1);
    EXPECT_EQ(processor.pendingCount(), 0u);
}

TEST_F(DoubleAuthProcessorTest, TimeoutAndCancelEndTheWait) {
    const std::string first = holdCard(member("alice", "3-1,2;4-2,SA;junk;5-"));
    const AuthResponse timedOut = processor.handleTimeout(first);
    EXPECT_EQ(said(timedOut) + " " + timedOut.doubleAuthUserText2,
              "FAILED 19 '' [] [1,2,SA] alice");
    EXPECT_EQ(processor.handleTimeout(first).failCode, 42);

    const std::string second = holdCard(member("alice"));
    EXPECT_EQ(processor.cancel("double-9", "left").doubleAuthPendingId, "double-9");
    EXPECT_EQ(said(processor.cancel(second, "user walked away")),
              "FAILED 0 'user walked away' [] []");
    EXPECT_EQ(processor.cancel(second, "again").failCode, 42);

    holdCard(member("alice"));
    processor.reset();
    EXPECT_EQ(processor.pendingCount(), 0u);
}

TEST_F(DoubleAuthProcessorTest, ConcurrentHostThreadsKeepEveryIdAndTheLastWait) {
    constexpr int rounds = 200;
    std::vector<std::string> ids[2];
    int completed[2] = {0, 0};
    auto presenter = [&](int slot) {
        auto user = member(slot == 0 ? "alice" : "bob");
        for (int i = 0; i < rounds; ++i) {
            AuthContext card = factor(OPEN_TYPE_CARD, user);
            ASSERT_EQ(run(card), DOUBLE_AUTH_PENDING);
            ids[slot].push_back(card.response.doubleAuthPendingId);
            // Either it completes its own wait, or a newer first factor had replaced it.
            AuthContext pin = factor(OPEN_TYPE_PIN, user, READER_TYPE_INTERNAL, ids[slot].back());
            const AuthResult result = run(pin);
            EXPECT_TRUE(result == CONTINUE || (result == FAILED && pin.response.failCode == 42))
                << pin.response.failCode;
            completed[slot] += result == CONTINUE ? 1 : 0;
        }
    };
    std::thread a(presenter, 0);
    std::thread b(presenter, 1);
    a.join();
    b.join();

    std::set<std::string> distinct(ids[0].begin(), ids[0].end());
    distinct.insert(ids[1].begin(), ids[1].end());
    EXPECT_EQ(distinct.size(), 2u * rounds);
    EXPECT_EQ(distinct.count("double-" + std::to_string(2 * rounds)), 1u);
    EXPECT_GE(completed[0] + completed[1], 1);
    // The newest wait is always completed by its owner, so nothing is left behind.
    EXPECT_EQ(processor.pendingCount(), 0u);
}

}  // namespace
}  // namespace auth_engine
