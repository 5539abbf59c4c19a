// A small runnable host: an in-memory door controller with two relays, a few users and a temporary
// key service. It runs a handful of attempts through the engine and prints one line per decision.
// Everything here uses the public API only, as an integrator's host would.

#include <auth_engine/auth_engine.h>

#include <condition_variable>
#include <cstdio>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace {

using namespace auth_engine;

std::shared_ptr<ScheduleData> dailySchedule(const std::string& id, const std::string& from,
                                            const std::string& to) {
    auto schedule = std::make_shared<ScheduleData>();
    schedule->id = std::stoi(id);
    schedule->type = 1;  // daily
    schedule->scheduleId = id;
    schedule->name = "office hours";
    schedule->startTime = from;
    schedule->endTime = to;
    return schedule;
}

// The site's data. Every operation takes the lock: the engine calls from the host thread and from its
// worker thread.
class DemoSite : public IDataProvider {
public:
    DemoSite() {
        UserData alice;
        alice.userName = "Alice";
        alice.userId = "u-alice";
        alice.scheduleRelay = "1-1,2";  // schedule 1 opens relays 1 and 2
        users["1001"] = alice;

        UserData bob;
        bob.userName = "Bob";
        bob.userId = "u-bob";
        bob.scheduleRelay = "1-1";
        bob.validTimeEnd = 946684800;  // expired in 2000
        users["1002"] = bob;

        UserData guest;
        guest.userName = "Guest";
        guest.userId = "u-guest";
        tempKeyUsers["T-777"] = guest;
    }

    void setLockdown(bool on) {
        std::lock_guard<std::mutex> lock(mutex);
        lockdown = on;
    }

    std::shared_ptr<UserData> getUserByCredential(const char* credential, const OpenDoorType&) override {
        std::lock_guard<std::mutex> lock(mutex);
        const auto found = users.find(credential);
        return found == users.end() ? nullptr : std::make_shared<UserData>(found->second);
    }
    std::shared_ptr<KeyData> getKeyData(const AuthContext&, int, int) override { return nullptr; }
    std::vector<std::shared_ptr<ScheduleData>> getRelaySchedules(const std::string&, int) override {
        return {dailySchedule("1", "00:00:00", "23:59:59")};
    }
    std::vector<HolidayData> getHolidays(const std::string&, int) override { return {}; }
    bool isPublicPin(const AuthContext& context) override { return context.request.credential == "2468"; }
    bool getLatchPinRelays(const AuthContext&, std::vector<std::string>&) override { return false; }
    std::vector<std::string> getPublicPinRelays(const AuthContext&) override { return {"1"}; }
    AuthConfig getAuthConfig() override {
        AuthConfig config;
        config.virtualDoorEnabled = false;
        return config;
    }
    std::vector<std::string> getLockedDownRelays(const std::vector<std::string>& relays) override {
        std::lock_guard<std::mutex> lock(mutex);
        std::vector<std::string> locked;
        for (const auto& relay : relays) {
            if (lockdown && relay == "2") {
                locked.push_back(relay);
            }
        }
        return locked;
    }
    bool isRelayHolidayExempt(const std::string&) override { return false; }
    std::vector<std::string> getForbiddenUnlockTypeRelays(const std::vector<std::string>&,
                                                          OpenDoorType) override {
        return {};
    }
    bool getDtmfConfig(DtmfConfig&, const AuthContext&) override { return false; }
    bool requestDtmfWhitelist(const DtmfWhitelistRequest&, DtmfWhitelistResult&) override { return false; }
    bool getDtmfUser(const std::string&, UserData&, const AuthContext&) override { return false; }
    bool requestDtmfVisitorPermission(const DtmfVisitorPermissionRequest&, UserData&) override {
        return false;
    }
    bool getRemoteControlUser(const std::string&, UserData&, AuthContext&) override { return false; }
    bool requestTempKey(const AuthContext& context, AuthCallback callback) override {
        // A real host sends the key to its validation service; this one remembers the question and
        // answers from main() a moment later, as a remote service would.
        std::lock_guard<std::mutex> lock(mutex);
        pendingKey = context.request.credential;
        pendingAnswer = std::move(callback);
        return true;
    }
    bool getTempKeyUser(const TempKeyAuthData& data, UserData& user) override {
        std::lock_guard<std::mutex> lock(mutex);
        const auto found = tempKeyUsers.find(data.key);
        if (found == tempKeyUsers.end()) {
            return false;
        }
        user = found->second;
        return true;
    }
    void getTempKeyTargets(std::vector<AuthTarget>& targets) override { targets = {{0, "1"}}; }
    bool getHttpOpenConfig(HttpOpenConfig&) override { return false; }
    bool checkBleOpenInterval(const UserData&, const std::vector<std::string>&) override { return true; }
    void recordBleOpen(const UserData&, const std::vector<std::string>&) override {}
    std::string requestAntiPassback(const AuthRequest&, const UserData&, AuthContext&, AuthCallback) override {
        return {};
    }
    std::string requestInterlock(const AuthRequest&, const std::string&, AuthContext&, AuthCallback) override {
        return {};
    }
    std::string requestParking(const AuthRequest&, const UserData&, std::string, AuthContext&,
                               AuthCallback) override {
        return {};
    }
    void onAuthResult(const AuthContext&, const AuthResult&) override {}

    // Answers the waiting temporary-key question as the validation service would.
    bool answerTempKey() {
        AuthCallback answer;
        std::string key;
        {
            std::lock_guard<std::mutex> lock(mutex);
            answer = std::move(pendingAnswer);
            key = pendingKey;
        }
        if (!answer) {
            return false;
        }
        AuthResponse response;
        response.result = SUCCESS;
        AuthContext update;
        update.tempKeyAuthData = std::make_shared<TempKeyAuthData>();
        update.tempKeyAuthData->key = key;
        answer("", response, update);
        return true;
    }

private:
    std::mutex mutex;
    std::map<std::string, UserData> users;
    std::map<std::string, UserData> tempKeyUsers;
    bool lockdown = false;
    std::string pendingKey;
    AuthCallback pendingAnswer;
};

void print(const char* attempt, const AuthResponse& response) {
    std::printf("%-34s -> %-7s opened=[%s] failed=[%s] failCode=%d reason=\"%s\"\n", attempt,
                AuthLogger::authResultToString(response.result), joinRelayVector(response.openedRelays).c_str(),
                joinRelayVector(response.failedRelays).c_str(), response.failCode, response.reason.c_str());
}

}  // namespace

int main() {
    // The demo prints its own lines; the engine's log lines would go to syslog.
    AuthLogger::setSink([](int, const std::string&) {});
    auto site = std::make_shared<DemoSite>();
    AuthFacade& facade = AuthFacade::getInstance();
    if (facade.init(site) != 0) {
        std::fprintf(stderr, "engine init failed\n");
        return 1;
    }

    print("card 1001 (Alice)", facade.authenticate("1001", OPEN_TYPE_CARD, READER_TYPE_INTERNAL));
    print("card 1002 (Bob, expired)", facade.authenticate("1002", OPEN_TYPE_CARD, READER_TYPE_INTERNAL));
    print("card 9999 (unknown)", facade.authenticate("9999", OPEN_TYPE_CARD, READER_TYPE_INTERNAL));
    print("public PIN 2468", facade.authenticate("2468", OPEN_TYPE_CARD, READER_TYPE_INTERNAL));
    site->setLockdown(true);
    print("card 1001 during lockdown of 2", facade.authenticate("1001", OPEN_TYPE_CARD, READER_TYPE_INTERNAL));
    site->setLockdown(false);

    // An asynchronous attempt: the temporary key waits for the remote validation service.
    std::mutex mutex;
    std::condition_variable done;
    bool answered = false;
    AuthResponse asyncResponse;
    const std::string id = facade.authenticateAsync(
        "T-777", OPEN_TYPE_TEMP_KEY, READER_TYPE_INTERNAL,
        [&](const std::string&, const AuthResponse& response, const AuthContext&) {
            std::lock_guard<std::mutex> lock(mutex);
            asyncResponse = response;
            answered = true;
            done.notify_all();
        });
    std::printf("temporary key T-777 queued as %s\n", id.c_str());
    bool sent = false;
    for (int attempt = 0; attempt < 50 && !sent; ++attempt) {
        std::unique_lock<std::mutex> lock(mutex);
        done.wait_for(lock, std::chrono::milliseconds(100));
        lock.unlock();
        sent = site->answerTempKey();
    }
    {
        std::unique_lock<std::mutex> lock(mutex);
        done.wait_for(lock, std::chrono::seconds(5), [&] { return answered; });
    }
    if (!answered) {
        std::fprintf(stderr, "no answer for the temporary key\n");
        facade.reset();
        return 1;
    }
    print("temporary key T-777 (validated)", asyncResponse);
    facade.reset();
    return 0;
}
