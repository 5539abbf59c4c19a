// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

#include <random>
#include <thread>

#include "support/EngineHarness.h"

namespace auth_engine {
namespace testing {
namespace {

// A remote check whose first pass asks the "host", which answers according to the credential:
// inline (from inside the question), later (kept for another thread), twice later, or never.
class AsyncStress : public EngineTest {
protected:
    AuthResult ask(AuthContext& context) {
        if (!context.pendingProcessor.empty()) {
            return context.response.result;
        }
        const AuthCallback answer = engine.makeAnswerCallback(context.requestId);
        const std::string& mode = context.request.credential;
        if (mode == "inline") {
            answer("", verdict(context.requestId.size()), AuthContext());
        }
        std::lock_guard<std::mutex> lock(mutex);
        deferred.insert(deferred.end(), mode == "twice" ? 2 : mode == "later" ? 1 : 0, answer);
        return ASYNC_PENDING;
    }
    // Answers up to `count` deferred questions from the calling thread.
    void answerSome(std::size_t count) {
        std::vector<AuthCallback> taken;
        {
            std::lock_guard<std::mutex> lock(mutex);
            for (; !deferred.empty() && taken.size() < count; deferred.pop_back()) {
                taken.push_back(deferred.back());
            }
        }
        for (std::size_t i = 0; i < taken.size(); ++i) {
            taken[i]("", verdict(i), AuthContext());
        }
    }
    static AuthResponse verdict(std::size_t n) { return responseOf(n % 2 == 0 ? SUCCESS : FAILED); }

    std::mutex mutex;
    std::vector<AuthCallback> deferred;
};

TEST_F(AsyncStress, EveryAcceptedRequestIsCalledBackExactlyOnce) {
    use("RemoteCheck", [this](AuthContext& context) { return ask(context); });
    const std::vector<std::string> modes = {"inline", "later", "twice", "never"};
    std::mutex idsMutex;
    std::vector<std::string> accepted;
    std::vector<std::thread> hosts;
    for (unsigned seed = 1; seed <= 4; ++seed) {
        hosts.emplace_back([&, seed] {
            std::mt19937 random(seed);
            for (int i = 0; i < 60; ++i) {
                const std::string id = submit(makeRequest(modes[random() % modes.size()]));
                answerSome(random() % 3);
                std::lock_guard<std::mutex> lock(idsMutex);
                accepted.insert(accepted.end(), id.empty() ? 0 : 1, id);  // refused: none
            }
        });
    }
    for (auto& host : hosts) {
        host.join();
    }
    ASSERT_TRUE(idle());
    std::thread second([&] { answerSome(1000); });
    answerSome(1000);
    second.join();
    ASSERT_TRUE(idle());
    sweepAfter(31);  // whatever was never answered now times out

    expectCalledBackOnce(recorder, accepted);
    expectNothingParked(engine);
    engine.reset();
    EXPECT_EQ(recorder.count(), accepted.size());
}

}  // namespace
}  // namespace testing
}  // namespace auth_engine
