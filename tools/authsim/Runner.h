// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// Runs steps against the engine through AuthFacade, with the simulated clock and a SiteProvider,
// prints what happens and checks the reports against the steps' expectations.
//
// Which reports an attempt has (one consistent rule, documented in the README):
// - an asynchronous attempt (authenticateAsync, the default): every call of its completion
// callback;
// - a synchronous attempt (authenticate, "sync": true): the response authenticate returned, then
// the
//   onAuthResult reports of its later phases (anti-passback, interlock, parking, the rerun after a
//   relay choice), which the worker makes after the call;
// - verify-interlock: its callback; double-timeout and double-cancel: the returned response.
// Each request carries "authsim:<n>" in AuthRequest::reservedText0 (a text the engine copies into
// every context and never reads) so that onAuthResult reports can be traced to their attempt.
//
// After every step the runner waits until the engine is quiet instead of sleeping: it waits for the
// "later" answers still in flight, then for AuthFacade::waitForIdle, which has the worker run a
// pass (and a timeout sweep) after the clock moved and handle everything queued (bounded by a few
// seconds of real time). No request of its own is made for that, so the engine's log shows the
// scenario's attempts only.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <auth_engine/AuthTypes.h>

#include "Scenario.h"
#include "Site.h"
#include "SiteProvider.h"

namespace authsim {

struct RunOptions {
    bool json = false;     ///< reports (and mismatches) as one JSON object per line, nothing else
    bool strict = true;    ///< a step without "expect" expects no report (scenario files)
    std::string scenario;  ///< name shown in JSON lines
};

class Runner {
public:
    Runner(const Site& site, RunOptions options);
    ~Runner();
    Runner(const Runner&) = delete;
    Runner& operator=(const Runner&) = delete;

    /// Installs the simulated clock and starts the engine on the site. False if init failed.
    bool start();
    void execute(const Step& step, int number);
    /// Shuts the engine down and restores the real clocks.
    void finish();

    int mismatches() const { return mismatchCount; }
    int reports() const;
    /// What the shell's "status" shows: the simulated time, the chain, the questions that wait
    /// (and for which attempt), the attempts parked on them, relay choices and second factors
    /// still open.
    std::string status() const;

private:
    struct SimClock {
        std::atomic<int64_t> wall{0};
        std::atomic<int64_t> uptime{0};
    };
    struct Report {
        std::string requestId;
        auth_engine::AuthResponse response;
    };
    struct Attempt {
        std::string label;
        std::string requestId;  ///< the id authenticateAsync returned
        bool sync = false;
        bool inCall = false;  ///< a synchronous authenticate of this attempt is running
        std::vector<Report> reports;
        std::size_t checked = 0;  ///< reports already compared with expectations
    };
    struct Event {
        std::string text;  ///< a line to print, or empty for a report
        int attempt = -1;
        Report report;
    };

    int newAttempt(const std::string& label, bool sync);
    void record(int attempt, const std::string& requestId,
                const auth_engine::AuthResponse& response);
    void onHostReport(const auth_engine::AuthContext& context);
    void note(const std::string& text);
    auth_engine::AuthCallback callbackFor(int attempt);

    void runAttempt(const Step& step);
    void runAnswer(const Step& step);
    void runChoose(const Step& step);
    void runOther(const Step& step);

    void settle();
    uint64_t activity() const;
    void flush(int step);
    void check(const Step& step);
    void mismatch(const std::string& text);
    std::string describe(const Step& step) const;
    void printLine(const std::string& text);

    const RunOptions options;
    const std::thread::id mainThread;
    std::shared_ptr<SimClock> clock;
    std::shared_ptr<SiteProvider> provider;
    int currentStep = 0;
    bool engineRunning = false;
    std::vector<std::string> chainNames;      ///< set by a chain step; empty: the default chain
    std::vector<std::string> usedPendingIds;  ///< first factors completed, timed out or cancelled
    int mismatchCount = 0;
    bool finished = false;

    mutable std::mutex mutex;
    std::condition_variable changed;
    std::vector<Attempt> attempts;
    std::vector<Event> events;
    std::vector<int> printedPerAttempt;
    uint64_t reportCount = 0;
};

}  // namespace authsim
