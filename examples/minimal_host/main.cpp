// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// The smallest real integration of the authentication engine, built against the installed package.
//
// A door controller with two relays: "1" (an office door, no check against other devices) and "2"
// (a turnstile under anti-passback: a peer device knows on which side each user was last seen).
// The program
//   1. hands the engine an in-memory data provider and starts it,
//   2. decides one card attempt synchronously, on the calling thread (the reader's thread),
//   3. queues one card attempt asynchronously; its turnstile relay waits for the peer device, whose
//      answer arrives later on another thread, so the request is reported twice,
//   4. prints every decision and exits 0 only when each one is what this site expects.
//
// Every place where a real host puts its own code is marked "TODO (integrator):".
// Pass -v to see the engine's log lines on stderr, --trace FILE to write the engine's trace (always
// written, to minimal_host.trace.jsonl, when a decision is not the expected one; `authsim replay`
// reproduces it on a desk).

#include <auth_engine/auth_engine.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <deque>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace auth_engine;

const std::string OFFICE_DOOR = "1";
const std::string TURNSTILE = "2";

// Stands in for the peer device that answers anti-passback questions. Questions are queued by the
// engine's thread and answered from this object's own thread, as a network answer would arrive.
class PassbackPeer {
public:
    PassbackPeer() : worker([this] { run(); }) {}
    ~PassbackPeer() { stop(); }
    PassbackPeer(const PassbackPeer&) = delete;
    PassbackPeer& operator=(const PassbackPeer&) = delete;

    // Returns the handle the engine gets back for the question.
    std::string ask(const std::string& userId, const std::string& relay, AuthCallback answer) {
        std::lock_guard<std::mutex> lock(mutex);
        const std::string handle = "ap-" + std::to_string(++asked);
        questions.push_back(Question{handle, userId, relay, std::move(answer)});
        wake.notify_all();
        return handle;
    }

    int questionsAsked() const {
        std::lock_guard<std::mutex> lock(mutex);
        return asked;
    }

    // Answers what is still queued, then ends the thread.
    void stop() {
        {
            std::lock_guard<std::mutex> lock(mutex);
            stopping = true;
        }
        wake.notify_all();
        if (worker.joinable()) {
            worker.join();
        }
    }

private:
    struct Question {
        std::string handle, userId, relay;
        AuthCallback answer;
    };

    void run() {
        std::unique_lock<std::mutex> lock(mutex);
        for (;;) {
            wake.wait(lock, [this] { return stopping || !questions.empty(); });
            if (questions.empty()) {
                return;
            }
            Question question = std::move(questions.front());
            questions.pop_front();
            // Never hold a lock of our own while answering: the engine takes its own.
            lock.unlock();
            // TODO (integrator): the peer's verdict arrives here (network, bus, ...). SUCCESS lets
            // the user through the relay; FAILED refuses it (remoteFailCode may carry the peer's
            // code).
            AuthResponse response;
            response.result = SUCCESS;
            std::printf("peer: %s may pass relay %s (%s)\n", question.userId.c_str(),
                        question.relay.c_str(), question.handle.c_str());
            if (question.answer) {
                question.answer(question.handle, response, AuthContext());
            }
            lock.lock();
        }
    }

    mutable std::mutex mutex;
    std::condition_variable wake;
    std::deque<Question> questions;
    int asked = 0;
    bool stopping = false;
    std::thread worker;  // last: starts once the members above exist
};

// The host's data. The engine calls it from the thread of a synchronous authenticate and from its
// own worker thread at the same time; this one only reads data fixed at construction, which is
// safe.
class MinimalDoorData : public IDataProvider {
public:
    explicit MinimalDoorData(PassbackPeer& peer) : peer(peer) {
        // TODO (integrator): load users from the host's database instead.
        UserData alice;
        alice.userName = "Alice";
        alice.userId = "u-alice";
        alice.userType = 0;            // staff: not under anti-passback
        alice.scheduleRelay = "1-12";  // schedule 1 grants relays 1 and 2
        users["04A1B2"] = alice;

        UserData bob;
        bob.userName = "Bob";
        bob.userId = "u-bob";
        bob.userType = 1;  // visitor: under anti-passback
        bob.scheduleRelay = "1-12";
        users["0C0FFE"] = bob;
    }

    int reportCount() const {
        std::lock_guard<std::mutex> lock(reportMutex);
        return reports;
    }

    std::shared_ptr<UserData> getUserByCredential(const char* credential,
                                                  const OpenDoorType& openType) override {
        (void)openType;
        if (credential == nullptr) {
            return nullptr;
        }
        const auto found = users.find(credential);
        return found == users.end() ? nullptr : std::make_shared<UserData>(found->second);
    }

    std::shared_ptr<KeyData> getKeyData(const AuthContext&, int, int) override {
        return nullptr;  // TODO (integrator): vehicle key records, for plate readers.
    }

    std::vector<std::shared_ptr<ScheduleData>> getRelaySchedules(const std::string& ownerKey,
                                                                 int ownerKind) override {
        (void)ownerKey;
        (void)ownerKind;
        // TODO (integrator): the schedules named in the owner's schedule-to-relay text.
        auto always = std::make_shared<ScheduleData>();
        always->id = 1;
        always->type = 1;  // daily
        always->scheduleId = "1";
        always->name = "all day";
        always->startTime = "00:00:00";
        always->endTime = "23:59:59";
        return {always};
    }

    std::vector<HolidayData> getHolidays(const std::string&, int) override {
        return {};  // TODO (integrator): the site's holidays.
    }

    bool isPublicPin(const AuthContext&) override { return false; }
    bool getLatchPinRelays(const AuthContext&, std::vector<std::string>&) override { return false; }
    std::vector<std::string> getPublicPinRelays(const AuthContext&) override { return {}; }

    AuthConfig getAuthConfig() override {
        // TODO (integrator): the device's configuration. It is asked for at every use, so a change
        // made here applies to the next request.
        AuthConfig config;
        config.antiPassbackEnabled = true;
        config.antiPassbackRelayMap[TURNSTILE] = RELAY_DIRECTION_IN;
        config.antiPassbackTimeout = 10;
        return config;
    }

    std::vector<std::string> getLockedDownRelays(const std::vector<std::string>&) override {
        return {};  // TODO (integrator): relays currently in lockdown.
    }
    bool isRelayHolidayExempt(const std::string&) override { return false; }
    std::vector<std::string> getForbiddenUnlockTypeRelays(const std::vector<std::string>&,
                                                          OpenDoorType) override {
        return {};  // TODO (integrator): relays on which this open type is switched off.
    }

    // DTMF, remote control, temporary keys and HTTP are not used by this site.
    bool getDtmfConfig(DtmfConfig&, const AuthContext&) override { return false; }
    bool requestDtmfWhitelist(const DtmfWhitelistRequest&, DtmfWhitelistResult&) override {
        return false;
    }
    bool getDtmfUser(const std::string&, UserData&, const AuthContext&) override { return false; }
    bool requestDtmfVisitorPermission(const DtmfVisitorPermissionRequest&, UserData&) override {
        return false;
    }
    bool getRemoteControlUser(const std::string&, UserData&, AuthContext&) override {
        return false;
    }
    bool requestTempKey(const AuthContext&, AuthCallback) override { return false; }
    bool getTempKeyUser(const TempKeyAuthData&, UserData&) override { return false; }
    void getTempKeyTargets(std::vector<AuthTarget>& targets) override { targets.clear(); }
    bool getHttpOpenConfig(HttpOpenConfig&) override { return false; }
    bool checkBleOpenInterval(const UserData&, const std::vector<std::string>&) override {
        return true;
    }
    void recordBleOpen(const UserData&, const std::vector<std::string>&) override {}

    std::string requestAntiPassback(const AuthRequest& request, const UserData& user,
                                    AuthContext& context, AuthCallback callback) override {
        (void)request;
        // TODO (integrator): send the question to the peer device. Return an empty text when it is
        // offline. The answer may come on any thread, even before this function returns.
        return peer.ask(user.userId, joinRelayVector(context.antiPassbackRelays),
                        std::move(callback));
    }

    std::string requestInterlock(const AuthRequest&, const std::string&, AuthContext&,
                                 AuthCallback) override {
        return {};  // no interlock on this site
    }
    std::string requestParking(const AuthRequest&, const UserData&, std::string, AuthContext&,
                               AuthCallback) override {
        return {};  // no parking restriction on this site
    }

    void onAuthResult(const AuthContext& context, const AuthResult& result) override {
        // TODO (integrator): actuate every target in context.response.targets and show the verdict.
        // This may run while the engine holds its lock: never call back into AuthFacade from here.
        const AuthResponse& response = context.response;
        std::printf("host: %s report %s for %s, actuate [%s]\n", response.asyncType.c_str(),
                    AuthLogger::authResultToString(result),
                    response.user ? response.user->userName.c_str() : "nobody",
                    joinRelayVector(response.openedRelays).c_str());
        std::lock_guard<std::mutex> lock(reportMutex);
        ++reports;
    }

private:
    PassbackPeer& peer;
    std::map<std::string, UserData> users;
    mutable std::mutex reportMutex;
    int reports = 0;
};

// Collects the reports of asynchronous requests; callbacks may arrive on the engine's worker.
class ReportBox {
public:
    void add(const std::string& requestId, const AuthResponse& response) {
        std::lock_guard<std::mutex> lock(mutex);
        reports.emplace_back(requestId, response);
        arrived.notify_all();
    }

    // The reports once `count` have arrived, or whatever came before `limit`.
    std::vector<std::pair<std::string, AuthResponse>> waitFor(std::size_t count,
                                                              std::chrono::seconds limit) {
        std::unique_lock<std::mutex> lock(mutex);
        arrived.wait_for(lock, limit, [&] { return reports.size() >= count; });
        return reports;
    }

private:
    std::mutex mutex;
    std::condition_variable arrived;
    std::vector<std::pair<std::string, AuthResponse>> reports;
};

void printDecision(const char* what, const AuthResponse& response) {
    std::printf("%-24s %-13s %-7s opened=[%s] failed=[%s] failCode=%d reason=\"%s\"\n", what,
                response.asyncType.c_str(), AuthLogger::authResultToString(response.result),
                joinRelayVector(response.openedRelays).c_str(),
                joinRelayVector(response.failedRelays).c_str(), response.failCode,
                response.reason.c_str());
}

int failures = 0;

void expect(bool condition, const char* what) {
    if (!condition) {
        std::fprintf(stderr, "unexpected: %s\n", what);
        ++failures;
    }
}

bool opened(const AuthResponse& response, const std::vector<std::string>& relays) {
    return response.result == SUCCESS && response.openedRelays == relays;
}

// Writes the recorder's events as JSON lines to `file`.
bool dumpTrace(const TraceRecorder& recorder, const std::string& file) {
    std::ofstream out(file);
    recorder.writeJsonLines(out);
    if (!out.flush()) {
        std::fprintf(stderr, "cannot write the trace to %s\n", file.c_str());
        return false;
    }
    std::fprintf(stderr, "trace of the last %zu engine events written to %s\n", recorder.size(),
                 file.c_str());
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    bool verbose = false;
    std::string traceFile;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "-v") == 0) {
            verbose = true;
        } else if (std::strcmp(argv[i], "--trace") == 0 && i + 1 < argc) {
            traceFile = argv[++i];
        }
    }
    // TODO (integrator): route the engine's log lines into the host's log (the default is syslog).
    if (verbose) {
        AuthLogger::setSink([](int, const std::string& line) {
            std::fprintf(stderr, "engine: %s\n", line.c_str());
        });
    }

    // TODO (integrator): log which library the process runs. The headers name the version the host
    // was built with; the loaded library says its own (a newer one of the same major version is
    // compatible).
    std::printf("auth_engine %s (built with the headers of %s)\n", libraryVersion(),
                AUTH_ENGINE_VERSION_STRING);

    // TODO (integrator): keep a bounded trace of the engine's last events (what it asked, what the
    // host answered, what it decided), to pull off the device when a door did not open. The
    // recorder holds at most this many events; secrets (card texts, PINs) are written as keyed
    // hashes. It is set before init, so that provider operations are recorded too.
    const auto recorder = std::make_shared<TraceRecorder>(4096);
    AuthFacade::getInstance().setTraceSink(recorder);

    PassbackPeer peer;
    auto site = std::make_shared<MinimalDoorData>(peer);
    AuthFacade& engine = AuthFacade::getInstance();
    const int initResult = engine.init(site);
    if (initResult != 0) {
        std::fprintf(stderr, "engine init failed: %d\n", initResult);
        return 1;
    }

    // Synchronous: Alice is under no check against other devices, so both relays open at once.
    // TODO (integrator): call this from the reader's thread with what the reader read.
    const AuthResponse alice = engine.authenticate("04A1B2", OPEN_TYPE_CARD, READER_TYPE_INTERNAL);
    printDecision("card 04A1B2 (Alice)", alice);
    expect(opened(alice, {OFFICE_DOOR, TURNSTILE}), "Alice opens both relays at once");

    const AuthResponse stranger =
        engine.authenticate("FFFFFF", OPEN_TYPE_CARD, READER_TYPE_INTERNAL);
    printDecision("card FFFFFF (unknown)", stranger);
    expect(stranger.result == FAILED && stranger.openedRelays.empty() && stranger.targets.empty(),
           "an unknown card opens nothing");

    // Asynchronous: Bob is under anti-passback. The office door opens at once ("sync" report); the
    // turnstile waits for the peer device and is reported on its own ("antipassback" report).
    ReportBox box;
    const std::string requestId = engine.authenticateAsync(
        "0C0FFE", OPEN_TYPE_CARD, READER_TYPE_INTERNAL,
        [&box](const std::string& id, const AuthResponse& response, const AuthContext&) {
            // May run under the engine's lock: record only, never call into AuthFacade here.
            box.add(id, response);
        });
    expect(!requestId.empty(), "the asynchronous attempt is queued");
    const auto bobReports = box.waitFor(2, std::chrono::seconds(10));
    for (const auto& report : bobReports) {
        printDecision("card 0C0FFE (Bob)", report.second);
    }
    expect(bobReports.size() == 2, "Bob's request is reported twice");
    if (bobReports.size() == 2) {
        const AuthResponse& now = bobReports[0].second;
        const AuthResponse& later = bobReports[1].second;
        expect(bobReports[0].first == requestId && now.asyncType == "sync" &&
                   opened(now, {OFFICE_DOOR}),
               "the office door opens for Bob at once");
        expect(bobReports[1].first == requestId + "_ind_antipassback" &&
                   later.asyncType == "antipassback" && opened(later, {TURNSTILE}),
               "the turnstile opens for Bob once the peer has answered");
    }

    // TODO (integrator): on shut-down, stop whatever answers questions, then reset the engine.
    peer.stop();
    engine.reset();
    expect(peer.questionsAsked() == 1, "the peer is asked once, about the turnstile");
    // Alice, the unknown card and Bob's two reports.
    expect(site->reportCount() == 4, "the host hears every report");

    AuthFacade::getInstance().setTraceSink(nullptr);
    if (failures != 0 && traceFile.empty()) {
        traceFile = "minimal_host.trace.jsonl";
    }
    if (!traceFile.empty() && !dumpTrace(*recorder, traceFile)) {
        ++failures;
    }
    if (failures != 0) {
        std::printf("minimal_host: %d unexpected decision(s)\n", failures);
        return 1;
    }
    std::printf("minimal_host: all decisions as expected\n");
    return 0;
}
