// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

#include <gtest/gtest.h>

#include <memory>
#include <set>
#include <thread>
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

class DoubleAuthProcessorTest : public ProcessorTest<processors::DoubleAuthProcessor> {
protected:
    DoubleAuthProcessorTest() {
        provider.config.doubleAuthEnabled = true;
        provider.config.doubleAuthMode = DOUBLE_AUTH_MODE_CARD_PIN;
    }
    std::string holdCard(const std::shared_ptr<UserData>& user) {
        AuthContext card = factor(OPEN_TYPE_CARD, user);
        EXPECT_EQ(run(card), DOUBLE_AUTH_PENDING);
        return card.response.doubleAuthPendingId;
    }
};

TEST_F(DoubleAuthProcessorTest, PassesWhatDoubleAuthenticationDoesNotConcern) {
    auto alice = member("alice");
    EXPECT_EQ(failCodeOf(factor(OPEN_TYPE_PUBLIC_PIN, alice)), -1);
    EXPECT_EQ(failCodeOf(factor(OPEN_TYPE_BLE, alice)), -1);
    AuthContext qr = factor(OPEN_TYPE_CARD, alice);
    qr.request.sourceCode = SOURCE_CODE_QR;
    EXPECT_EQ(failCodeOf(qr), -1);
    for (int mode : {9, 0}) {
        provider.config.doubleAuthMode = static_cast<DoubleAuthMode>(mode);
        EXPECT_EQ(failCodeOf(factor(OPEN_TYPE_CARD, alice)), -1) << mode;
    }
    provider.config.doubleAuthMode = DOUBLE_AUTH_MODE_CARD_PIN;
    provider.config.doubleAuthEnabled = false;
    EXPECT_EQ(failCodeOf(factor(OPEN_TYPE_CARD, alice)), -1);
    EXPECT_EQ(processor.pendingCount(), 0u);
}

TEST_F(DoubleAuthProcessorTest, EveryModeHoldsItsFirstFactorAndCompletesWithTheSecond) {
    struct Pair {
        DoubleAuthMode mode;
        OpenDoorType first, second;
        int nextType;
    };
    int id = 0;
    for (const Pair& pair : {Pair{DOUBLE_AUTH_MODE_FACE_CARD, OPEN_TYPE_FACE, OPEN_TYPE_CARD_6, 1},
                             Pair{DOUBLE_AUTH_MODE_FACE_PIN, OPEN_TYPE_FACE, OPEN_TYPE_PIN_19, 4},
                             Pair{DOUBLE_AUTH_MODE_PIN_CARD, OPEN_TYPE_PIN_5, OPEN_TYPE_CARD_8, 1},
                             Pair{DOUBLE_AUTH_MODE_CARD_PIN, OPEN_TYPE_CARD, OPEN_TYPE_PIN_7, 4}}) {
        provider.config.doubleAuthMode = pair.mode;
        auto alice = member("alice");
        AuthContext first = factor(pair.first, alice, READER_TYPE_EXTERNAL_1);
        first.request.direction = RELAY_DIRECTION_OUT;
        ASSERT_EQ(run(first), DOUBLE_AUTH_PENDING) << pair.mode;
        EXPECT_TRUE(first.response.doubleAuthWaiting);
        EXPECT_EQ(first.response.doubleAuthPendingId, "double-" + std::to_string(++id));
        EXPECT_EQ(first.response.doubleAuthNextType, pair.nextType);
        EXPECT_EQ(first.response.doubleAuthTimeoutSec, 60);
        EXPECT_EQ(first.response.doubleAuthUserText2, "alice");
        EXPECT_EQ(first.response.doubleAuthCredential, first.request.credential);

        clock.advance(59);
        // The lookup made its own copy of the same person for the second credential.
        AuthContext second = factor(pair.second, member("alice"), READER_TYPE_INTERNAL);
        ASSERT_EQ(run(second), CONTINUE) << pair.mode;
        EXPECT_EQ(second.userData, alice);
        EXPECT_EQ(second.response.user, alice);
        EXPECT_EQ(second.request.readerType, READER_TYPE_EXTERNAL_1);  // default order 2, 1, 0
        EXPECT_EQ(second.response.doubleAuthReaderType, READER_TYPE_EXTERNAL_1);
        EXPECT_EQ(second.request.direction, RELAY_DIRECTION_OUT);
        EXPECT_EQ(second.response.doubleAuthPendingId, "");
        EXPECT_EQ(processor.pendingCount(), 0u);
    }

    provider.readerPriority = {READER_TYPE_INTERNAL, READER_TYPE_EXTERNAL_2};
    AuthContext card = factor(OPEN_TYPE_CARD, member("bob"), READER_TYPE_EXTERNAL_2);
    ASSERT_EQ(run(card), DOUBLE_AUTH_PENDING);
    AuthContext pin = factor(OPEN_TYPE_PIN, member("bob"), READER_TYPE_INTERNAL);
    EXPECT_EQ(run(pin), CONTINUE);
    EXPECT_EQ(pin.request.readerType, READER_TYPE_INTERNAL);
}

TEST_F(DoubleAuthProcessorTest, RefusesWrongKindOtherUserAndMissingPending) {
    AuthContext lonePin = factor(OPEN_TYPE_PIN, member("alice"), READER_TYPE_EXTERNAL_2);
    EXPECT_EQ(run(lonePin), FAILED);
    EXPECT_EQ(lonePin.response.failCode, 40);
    EXPECT_EQ(lonePin.response.doubleAuthFirstType, OPEN_TYPE_CARD);
    EXPECT_EQ(lonePin.response.doubleAuthReaderType, READER_TYPE_EXTERNAL_2);
    EXPECT_TRUE(
        log.contains("second factor without pending, currentType=4, firstType=1, "
                     "nextType=4, pendingId=, result=FAILED"));
    EXPECT_EQ(failCodeOf(factor(OPEN_TYPE_FACE, member("alice"))), 40);
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
    EXPECT_EQ(timedOut.result, FAILED);
    EXPECT_EQ(timedOut.failCode, 19);
    EXPECT_EQ(timedOut.failedRelays, (std::vector<std::string>{"1", "2", "SA"}));
    EXPECT_EQ(timedOut.doubleAuthUserText2, "alice");
    EXPECT_EQ(processor.handleTimeout(first).failCode, 42);

    const std::string second = holdCard(member("alice"));
    EXPECT_EQ(processor.cancel("double-9", "left").doubleAuthPendingId, "double-9");
    const AuthResponse cancelled = processor.cancel(second, "user walked away");
    EXPECT_EQ(cancelled.result, FAILED);
    EXPECT_EQ(cancelled.failCode, 0);
    EXPECT_EQ(cancelled.reason, "user walked away");
    EXPECT_EQ(processor.cancel(second, "again").failCode, 42);

    holdCard(member("alice"));
    processor.reset();
    EXPECT_EQ(processor.pendingCount(), 0u);
}

TEST_F(DoubleAuthProcessorTest, ConcurrentHostThreadsKeepEveryIdAndTheLastWait) {
    constexpr int rounds = 200;
    std::vector<std::string> ids[2];
    std::vector<std::pair<AuthResult, int>> seconds[2];
    auto presenter = [&](int slot) {
        auto user = member(slot == 0 ? "alice" : "bob");
        for (int i = 0; i < rounds; ++i) {
            AuthContext card = factor(OPEN_TYPE_CARD, user);
            if (run(card) != DOUBLE_AUTH_PENDING) {
                continue;
            }
            const std::string id = card.response.doubleAuthPendingId;
            ids[slot].push_back(id);
            AuthContext pin = factor(OPEN_TYPE_PIN, user, READER_TYPE_INTERNAL, id);
            const AuthResult result = run(pin);
            seconds[slot].emplace_back(result, pin.response.failCode);
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
    int completed = 0;
    for (const auto& list : seconds) {
        for (const auto& [result, failCode] : list) {
            // Either it completed its own wait, or a newer first factor had replaced it.
            EXPECT_TRUE(result == CONTINUE || (result == FAILED && failCode == 42)) << failCode;
            completed += result == CONTINUE ? 1 : 0;
        }
    }
    EXPECT_GE(completed, 1);
    // The newest wait is always completed by its owner, so nothing is left behind.
    EXPECT_EQ(processor.pendingCount(), 0u);
}

}  // namespace
}  // namespace auth_engine
