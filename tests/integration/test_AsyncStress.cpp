// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

#include <random>
#include <thread>

#include "support/EngineHarness.h"

namespace auth_engine {
namespace testing {
namespace {

// A remote check: the first pass asks the "host", which answers according to the credential:
// inline (from inside the question), later (kept for another thread), twice later, or never.
class RemoteCheck : public IAuthProcessor {
public:
    explicit RemoteCheck(AuthEngine& owner) : engine(owner) {}
    AuthResult process(AuthContext& context, IDataProvider&) override {
        if (!context.pendingProcessor.empty()) {
            return context.response.result;
        }
        AuthCallback answer = engine.makeAnswerCallback(context.requestId);
        const std::string& mode = context.request.credential;
        if (mode == "inline") {
            answer("", verdict(context.requestId), AuthContext());
        } else if (mode == "later" || mode == "twice") {
            std::lock_guard<std::mutex> lock(mutex);
            deferred.push_back(answer);
            if (mode == "twice") {
                deferred.push_back(answer);
            }
        }
        return ASYNC_PENDING;
    }
    std::string getName() const override { return "RemoteCheck"; }

    // Answers up to `count` deferred questions from the calling thread.
    void answerSome(std::size_t count) {
        std::vector<AuthCallback> taken;
        {
            std::lock_guard<std::mutex> lock(mutex);
            while (!deferred.empty() && taken.size() < count) {
                taken.push_back(deferred.back());
                deferred.pop_back();
            }
        }
        for (std::size_t i = 0; i < taken.size(); ++i) {
            taken[i]("", verdict(std::to_string(i)), AuthContext());
        }
    }

private:
    static AuthResponse verdict(const std::string& seed) {
        return responseOf(seed.size() % 2 == 0 ? SUCCESS : FAILED);
    }

    AuthEngine& engine;
    std::mutex mutex;
    std::vector<AuthCallback> deferred;
};

class AsyncStress : public EngineTest {};

TEST_F(AsyncStress, EveryAcceptedRequestIsCalledBackExactlyOnce) {
    auto check = std::make_shared<RemoteCheck>(engine);
    chain({check});

    const std::vector<std::string> modes = {"inline", "later", "twice", "never"};
    std::mutex idsMutex;
    std::vector<std::string> accepted;
    std::vector<std::thread> hosts;
    for (unsigned seed = 1; seed <= 4; ++seed) {
        hosts.emplace_back([&, seed] {
            std::mt19937 random(seed);
            for (int i = 0; i < 60; ++i) {
                const std::string id = submit(makeRequest(modes[random() % modes.size()]));
                if (!id.empty()) {
                    std::lock_guard<std::mutex> lock(idsMutex);
                    accepted.push_back(id);
                }
                check->answerSome(random() % 3);
            }
        });
    }
    for (auto& host : hosts) {
        host.join();
    }
    ASSERT_TRUE(engine.waitForIdle(20000));
    std::thread second([&] { check->answerSome(1000); });
    check->answerSome(1000);
    second.join();
    ASSERT_TRUE(engine.waitForIdle(20000));
    clock.advance(31);  // whatever was never answered now times out
    engine.checkTimeoutRequests();
    ASSERT_TRUE(engine.waitForIdle(20000));

    ASSERT_TRUE(recorder.waitFor(accepted.size(), 20000));
    expectCalledBackOnce(recorder, accepted);
    expectNothingParked(engine);
    engine.reset();
    EXPECT_EQ(recorder.count(), accepted.size());
}

}  // namespace
}  // namespace testing
}  // namespace auth_engine
