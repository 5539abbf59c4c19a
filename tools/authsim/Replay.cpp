// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// authsim replay: the trace's host is played back. A provider answers the n-th call of each
// operation with the n-th recorded result (and repeats, from inside the operation, the answers the
// host gave inline); the engine's clocks are set to the recorded readings as the replay passes
// them; the facade calls are made again in order, with a wait for the engine between them, and the
// answers the host gave later are delivered at their place. A sink on the replaying engine sees
// every operation and report; each is compared with the recorded one, and the first difference is
// the divergence.
#include <algorithm>
#include <atomic>
#include <cstdio>
#include <map>
#include <mutex>
#include <regex>
#include <stdexcept>

#include <auth_engine/AuthClock.h>
#include <auth_engine/AuthFacade.h>
#include <auth_engine/IDataProvider.h>

#include "TraceTools.h"

namespace authsim {

using namespace auth_engine;

namespace {

constexpr int PATIENCE_MS = 5000;

// Request ids carry a number the library counts per process ("req_<n>_<time>"): a trace that does
// not begin with the process numbers them from elsewhere. The first pair of ids compared fixes
// the offset; recorded ids are translated by it before use and comparison.
class Ids {
public:
    void learn(const std::string& recorded, const std::string& replayed) {
        std::smatch a;
        std::smatch b;
        std::lock_guard<std::mutex> lock(mutex);
        if (!known && std::regex_search(recorded, a, pattern) &&
            std::regex_search(replayed, b, pattern)) {
            offset = std::stoll(b[1].str()) - std::stoll(a[1].str());
            known = true;
        }
    }
    std::string translate(const std::string& recorded) const {
        std::lock_guard<std::mutex> lock(mutex);
        if (!known || offset == 0 || recorded.find("req_") == std::string::npos) {
            return recorded;
        }
        std::string out;
        auto begin = std::sregex_iterator(recorded.begin(), recorded.end(), pattern);
        std::size_t last = 0;
        for (auto it = begin; it != std::sregex_iterator(); ++it) {
            const auto& match = *it;
            out += recorded.substr(last, static_cast<std::size_t>(match.position(0)) - last);
            out += "req_" + std::to_string(std::stoll(match[1].str()) + offset) + "_";
            last = static_cast<std::size_t>(match.position(0) + match.length(0));
        }
        return out + recorded.substr(last);
    }
    json translate(const json& value) const {
        if (value.is_string()) {
            return translate(value.get<std::string>());
        }
        json out = value;
        if (value.is_object() || value.is_array()) {
            for (auto it = out.begin(); it != out.end(); ++it) {
                *it = translate(*it);
            }
        }
        return out;
    }

private:
    const std::regex pattern{"req_([0-9]+)_"};
    mutable std::mutex mutex;
    bool known = false;
    long long offset = 0;
};

struct Observed {
    std::string kind;
    std::string name;
    json data;
    bool matched = false;
};

// Everything the provider, the sink and the driver share.
class ReplayState {
public:
    explicit ReplayState(const TraceData& trace) : trace(trace) {
        for (std::size_t i = 0; i < trace.events.size(); ++i) {
            const TraceLine& line = trace.events[i];
            if (line.kind == "op") {
                recordedOps[line.name].push_back(i);
            } else if (isChecked(line.kind, line.name)) {
                recordedReports.push_back(i);
            } else if (line.kind == "answer" && line.data.value("inline", false)) {
                inlineAnswers[line.data.value("question", 0ULL)].push_back(i);
            }
        }
        if (!trace.events.empty()) {
            now = trace.events.front().wall;
            uptime = trace.events.front().uptime;
        }
    }

    static bool isChecked(const std::string& kind, const std::string& name) {
        return kind == "report" || (kind == "return" && name != "waitForIdle");
    }

    void diverge(std::size_t index, const std::string& what, const std::string& observed = "") {
        std::lock_guard<std::mutex> lock(mutex);
        if (!diverged) {
            diverged = true;
            divergenceIndex = index;
            divergence = what;
            divergenceObserved = observed;
        }
    }

    bool hasDiverged() {
        std::lock_guard<std::mutex> lock(mutex);
        return diverged;
    }

    /// Sets the clocks to the readings recorded right after event `index`.
    void clocksAfter(std::size_t index) {
        std::lock_guard<std::mutex> lock(mutex);
        for (std::size_t i = index + 1; i < trace.events.size() && trace.events[i].kind == "clock";
             ++i) {
            if (i > clockApplied) {
                now = trace.events[i].data.value("now", now.load());
                uptime = trace.events[i].data.value("uptime", uptime.load());
                clockApplied = i;
            }
        }
    }

    void clockAt(std::size_t index) {
        std::lock_guard<std::mutex> lock(mutex);
        if (index > clockApplied) {
            now = trace.events[index].data.value("now", now.load());
            uptime = trace.events[index].data.value("uptime", uptime.load());
            clockApplied = index;
        }
    }

    /// The recorded event that answers the next call of operation `name`, or nullptr.
    const TraceLine* nextOp(const std::string& name, std::size_t& index) {
        std::lock_guard<std::mutex> lock(mutex);
        const std::size_t n = servedOps[name]++;
        const auto& list = recordedOps[name];
        if (n >= list.size()) {
            if (!diverged) {
                diverged = true;
                divergenceIndex =
                    std::min(std::max(position, lastServed + 1), trace.events.size() - 1);
                divergence = "the engine called " + name + " " + std::to_string(n + 1) +
                             " times; the trace has it " + std::to_string(list.size()) +
                             " times up to here";
            }
            return nullptr;
        }
        index = list[n];
        servedAfter[index] = lastServed;
        lastServed = std::max(lastServed, index);
        return &trace.events[index];
    }

    const TraceData& trace;
    Ids ids;
    std::mutex mutex;
    std::map<std::string, std::vector<std::size_t>> recordedOps;
    std::map<std::string, std::size_t> servedOps;
    std::map<std::string, std::size_t> observedOps;
    std::vector<std::size_t> recordedReports;
    std::vector<Observed> observedReports;
    std::map<uint64_t, std::vector<std::size_t>> inlineAnswers;
    std::map<uint64_t, AuthCallback> callbacks;  ///< recorded question -> the replay's callback
    std::atomic<int64_t> now{0};
    std::atomic<int64_t> uptime{0};
    std::size_t clockApplied = 0;
    std::size_t position = 0;  ///< the event the driver is at
    /// The latest recorded operation served so far, and for each served one the latest before it:
    /// an operation called with other arguments went astray right after the one served before it,
    /// which is where its divergence is shown (a flipped answer, not some later call).
    std::size_t lastServed = 0;
    std::map<std::size_t, std::size_t> servedAfter;
    bool diverged = false;
    std::size_t divergenceIndex = 0;
    std::string divergence;
    std::string divergenceObserved;
};

// Sees the replaying engine's events and compares operations with the recorded ones as they come.
class ReplaySink : public TraceSink {
public:
    explicit ReplaySink(ReplayState& state) : state(state) {}

    void record(const TraceEvent& event) override {
        const std::string kind = traceKindName(event.kind);
        const std::string name = event.name;
        if (event.kind != TraceKind::OP && !ReplayState::isChecked(kind, name)) {
            return;
        }
        json data = json::parse("{" + std::string(event.fields, event.fieldsLength) + "}");
        if (event.kind != TraceKind::OP) {
            std::lock_guard<std::mutex> lock(state.mutex);
            state.observedReports.push_back({kind, name, std::move(data), false});
            return;
        }
        std::size_t index = 0;
        std::size_t wrongAt = 0;
        {
            std::lock_guard<std::mutex> lock(state.mutex);
            const std::size_t n = state.observedOps[name]++;
            const auto& list = state.recordedOps[name];
            if (n >= list.size()) {
                return;  // the provider has already called it a divergence
            }
            index = list[n];
            wrongAt = std::min(index, state.servedAfter[index] + 1);
        }
        const json& recorded = state.trace.events[index].data;
        const json want = state.ids.translate(recorded.value("args", json::object()));
        const json got = data.value("args", json::object());
        if (want != got) {
            state.diverge(wrongAt,
                          "the engine called " + name + " with other arguments than at #" +
                              std::to_string(state.trace.events[index].seq),
                          "args " + got.dump());
        }
    }

private:
    ReplayState& state;
};

// The recorded host.
class ReplayProvider : public IDataProvider {
public:
    explicit ReplayProvider(ReplayState& state) : state(state) {}

    std::shared_ptr<UserData> getUserByCredential(const char*, const OpenDoorType&) override {
        const json* r = result("getUserByCredential");
        return r && r->is_object() ? std::make_shared<UserData>(toUser(*r)) : nullptr;
    }
    std::shared_ptr<KeyData> getKeyData(const AuthContext&, int, int) override {
        const json* r = result("getKeyData");
        return r && r->is_object() ? std::make_shared<KeyData>(toKey(*r)) : nullptr;
    }
    std::vector<std::shared_ptr<ScheduleData>> getRelaySchedules(const std::string&, int) override {
        std::vector<std::shared_ptr<ScheduleData>> schedules;
        if (const json* r = result("getRelaySchedules"); r && r->is_array()) {
            for (const auto& item : *r) {
                schedules.push_back(
                    item.is_object() ? std::make_shared<ScheduleData>(toSchedule(item)) : nullptr);
            }
        }
        return schedules;
    }
    std::vector<HolidayData> getHolidays(const std::string&, int) override {
        std::vector<HolidayData> holidays;
        if (const json* r = result("getHolidays"); r && r->is_array()) {
            for (const auto& item : *r) {
                holidays.push_back(toHoliday(item));
            }
        }
        return holidays;
    }
    bool isPublicPin(const AuthContext&) override { return flag(result("isPublicPin")); }
    bool getLatchPinRelays(const AuthContext&, std::vector<std::string>& relays) override {
        const json* line = event("getLatchPinRelays");
        relays = texts(line, "relays");
        return flag(line, "result");
    }
    std::vector<std::string> getPublicPinRelays(const AuthContext&) override {
        return texts(event("getPublicPinRelays"), "result");
    }
    AuthConfig getAuthConfig() override {
        const json* r = result("getAuthConfig");
        return r ? toConfig(*r) : AuthConfig();
    }
    std::vector<std::string> getLockedDownRelays(const std::vector<std::string>&) override {
        return texts(event("getLockedDownRelays"), "result");
    }
    bool isRelayHolidayExempt(const std::string&) override {
        return flag(result("isRelayHolidayExempt"));
    }
    std::vector<std::string> getForbiddenUnlockTypeRelays(const std::vector<std::string>&,
                                                          OpenDoorType) override {
        return texts(event("getForbiddenUnlockTypeRelays"), "result");
    }
    bool getDtmfConfig(DtmfConfig& config, const AuthContext&) override {
        const json* line = event("getDtmfConfig");
        config = line ? toDtmfConfig(line->value("config", json::object())) : DtmfConfig();
        return flag(line, "result");
    }
    bool requestDtmfWhitelist(const DtmfWhitelistRequest&, DtmfWhitelistResult& out) override {
        const json* line = event("requestDtmfWhitelist");
        out = line ? toWhitelist(line->value("whitelist", json::object())) : DtmfWhitelistResult();
        return flag(line, "result");
    }
    bool getDtmfUser(const std::string&, UserData& user, const AuthContext&) override {
        return userResult("getDtmfUser", user);
    }
    bool requestDtmfVisitorPermission(const DtmfVisitorPermissionRequest&,
                                      UserData& user) override {
        return userResult("requestDtmfVisitorPermission", user);
    }
    bool getRemoteControlUser(const std::string&, UserData& user, AuthContext&) override {
        return userResult("getRemoteControlUser", user);
    }
    bool requestTempKey(const AuthContext&, AuthCallback callback) override {
        return flag(question("requestTempKey", std::move(callback)), "result");
    }
    bool getTempKeyUser(const TempKeyAuthData&, UserData& user) override {
        return userResult("getTempKeyUser", user);
    }
    bool getUserByDuressCode(const std::string&, OpenDoorType, UserData& user) override {
        return userResult("getUserByDuressCode", user);
    }
    void onGuessLockout(ReaderType, int, int64_t) override { (void)event("onGuessLockout"); }
    void onDuress(const AuthContext&) override { (void)event("onDuress"); }
    void getTempKeyTargets(std::vector<AuthTarget>& targets) override {
        const json* line = event("getTempKeyTargets");
        targets = line ? toTargets(line->value("targets", json::array())) : targets;
    }
    bool getHttpOpenConfig(HttpOpenConfig& config) override {
        const json* line = event("getHttpOpenConfig");
        config = line ? toHttpConfig(line->value("config", json::object())) : HttpOpenConfig();
        return flag(line, "result");
    }
    bool checkBleOpenInterval(const UserData&, const std::vector<std::string>&) override {
        return flag(result("checkBleOpenInterval"));
    }
    void recordBleOpen(const UserData&, const std::vector<std::string>&) override {
        (void)event("recordBleOpen");
    }
    std::string requestAntiPassback(const AuthRequest&, const UserData&, AuthContext&,
                                    AuthCallback callback) override {
        return handle(question("requestAntiPassback", std::move(callback)));
    }
    std::string requestInterlock(const AuthRequest&, const std::string&, AuthContext&,
                                 AuthCallback callback) override {
        return handle(question("requestInterlock", std::move(callback)));
    }
    std::string requestParking(const AuthRequest&, const UserData&, std::string, AuthContext&,
                               AuthCallback callback) override {
        return handle(question("requestParking", std::move(callback)));
    }
    void onAuthResult(const AuthContext&, const AuthResult&) override {}
    bool getReaderPriority(std::vector<ReaderType>& priority) override {
        const json* line = event("getReaderPriority");
        priority.clear();
        if (line != nullptr) {
            for (const auto& reader : line->value("priority", json::array())) {
                priority.push_back(static_cast<ReaderType>(reader.get<int>()));
            }
        }
        return flag(line, "result");
    }

private:
    // The recorded event of the next call of `name`, with the clocks set to what followed it;
    // throws what the host threw there.
    const json* event(const char* name) {
        std::size_t index = 0;
        const TraceLine* line = state.nextOp(name, index);
        if (line == nullptr) {
            return nullptr;
        }
        state.clocksAfter(index);
        if (line->data.contains("threw")) {
            throw std::runtime_error(line->data.value("threw", std::string()));
        }
        return &line->data;
    }
    const json* result(const char* name) {
        const json* line = event(name);
        return line != nullptr && line->contains("result") ? &(*line)["result"] : nullptr;
    }
    static bool flag(const json* value) {
        return value != nullptr && value->is_boolean() && *value;
    }
    static bool flag(const json* line, const char* key) {
        return line != nullptr && line->value(key, false);
    }
    static std::vector<std::string> texts(const json* line, const char* key) {
        return line != nullptr && line->contains(key) && (*line)[key].is_array()
                   ? (*line)[key].get<std::vector<std::string>>()
                   : std::vector<std::string>();
    }
    static std::string handle(const json* line) {
        return line != nullptr ? line->value("result", std::string()) : std::string();
    }
    bool userResult(const char* name, UserData& user) {
        const json* line = event(name);
        if (line != nullptr && line->contains("user")) {
            user = toUser((*line)["user"]);
        }
        return flag(line, "result");
    }
    // An asking operation: keeps the replay's callback under the recorded question's number and
    // gives, from inside the operation, the answers the host gave there.
    const json* question(const char* name, AuthCallback callback) {
        const json* line = event(name);
        if (line == nullptr) {
            return nullptr;
        }
        const auto number = line->value("question", 0ULL);
        std::vector<std::size_t> inlined;
        {
            std::lock_guard<std::mutex> lock(state.mutex);
            state.callbacks[number] = callback;
            inlined = state.inlineAnswers[number];
        }
        for (const std::size_t index : inlined) {
            const json& answer = state.trace.events[index].data;
            if (callback) {
                callback(state.ids.translate(answer.value("id", std::string())),
                         toResponse(answer.value("response", json::object())),
                         toAnswerContext(answer.value("context", json::object())));
            }
        }
        return line;
    }

    ReplayState& state;
};

AuthRequest requestOf(const ReplayState& state, const json& args) {
    return toRequest(state.ids.translate(args.value("request", json::object())));
}

// Makes one recorded facade call again.
void replayCall(ReplayState& state, const TraceLine& line,
                const std::shared_ptr<ReplayProvider>& provider) {
    AuthFacade& facade = AuthFacade::getInstance();
    const json args = line.data.value("args", json::object());
    const auto ignore = [](const std::string&, const AuthResponse&, const AuthContext&) {};
    const std::string& name = line.name;
    if (name == "init") {
        facade.init(provider);
    } else if (name == "reset") {
        facade.reset();
    } else if (name == "reloadConfig") {
        facade.reloadConfig();
    } else if (name == "authenticate") {
        facade.authenticate(requestOf(state, args));
    } else if (name == "authenticateAsync") {
        facade.authenticateAsync(requestOf(state, args), ignore);
    } else if (name == "handleAsyncResult") {
        facade.handleAsyncResult(
            state.ids.translate(args.value("requestId", std::string())),
            static_cast<AuthResult>(args.value("result", 0)),
            toResponse(state.ids.translate(args.value("response", json::object()))),
            toAnswerContext(args.value("context", json::object())));
    } else if (name == "handleUnlockOptionsResponse") {
        facade.handleUnlockOptionsResponse(
            state.ids.translate(args.value("optionsId", std::string())),
            args.value("selectedRelays", std::vector<std::string>()));
    } else if (name == "handleDoubleAuthTimeout") {
        facade.handleDoubleAuthTimeout(args.value("pendingId", std::string()));
    } else if (name == "cancelDoubleAuth") {
        facade.cancelDoubleAuth(args.value("pendingId", std::string()),
                                args.value("reasonText", std::string()));
    } else if (name == "verifyInterlockTargets") {
        facade.verifyInterlockTargets(requestOf(state, args),
                                      toTargets(args.value("targets", json::array())), ignore);
    } else if (name == "setProcessorChain") {
        facade.setProcessorChain(args.value("names", std::vector<std::string>()));
    } else if (name == "waitForIdle") {
        facade.waitForIdle(PATIENCE_MS);
    } else {
        // registerProcessor: the host's own processor is code, which a trace cannot carry.
        state.diverge(static_cast<std::size_t>(&line - state.trace.events.data()),
                      "the facade call " + name + " cannot be replayed");
    }
}

// Finds, among the reports (and returned values) the replay made and no recorded one has matched
// yet, one equal to the recorded report at `index`. Reports made on different threads may come in
// another order than recorded; each must be there, once.
void checkReport(ReplayState& state, std::size_t index) {
    const TraceLine& line = state.trace.events[index];
    json want = line.data;
    for (const char* key : {"seq", "uptime", "wall", "us", "thread", "kind", "name", "call"}) {
        want.erase(key);
    }
    std::string nearest;
    for (int round = 0; round < 3; ++round) {
        {
            std::lock_guard<std::mutex> lock(state.mutex);
            for (std::size_t k = 0; k < state.observedReports.size(); ++k) {
                Observed& got = state.observedReports[k];
                if (got.matched || got.kind != line.kind || got.name != line.name) {
                    continue;
                }
                json have = got.data;
                have.erase("call");
                if (line.kind == "return" && want.contains("result") && have.contains("result") &&
                    want["result"].is_string() && have["result"].is_string()) {
                    state.ids.learn(want["result"].get<std::string>(),
                                    have["result"].get<std::string>());
                }
                if (state.ids.translate(want) == have) {
                    got.matched = true;
                    return;
                }
                if (nearest.empty()) {
                    nearest = got.kind + " " + got.name + " " + have.dump();
                }
            }
        }
        // A sweep may be due at the clocks now set, or the worker may still be on its way.
        AuthFacade::getInstance().waitForIdle(PATIENCE_MS);
    }
    state.diverge(index,
                  nearest.empty() ? "the replay made no such " + line.kind
                                  : "the replay's " + line.kind + " differs from the recorded one",
                  nearest);
}

void printDivergence(const ReplayState& state) {
    const auto& events = state.trace.events;
    const TraceLine& at = events[state.divergenceIndex];
    std::printf("replay: %s: divergence at event #%llu (%s %s): %s\n", state.trace.file.c_str(),
                static_cast<unsigned long long>(at.seq), at.kind.c_str(), at.name.c_str(),
                state.divergence.c_str());
    if (!state.divergenceObserved.empty()) {
        std::printf("  replay: %s\n", state.divergenceObserved.substr(0, 400).c_str());
    }
    std::printf("  recorded events around it:\n");
    const std::size_t from = state.divergenceIndex >= 4 ? state.divergenceIndex - 4 : 0;
    for (std::size_t i = from; i < events.size() && i <= state.divergenceIndex + 3; ++i) {
        std::printf("  %s %s\n", i == state.divergenceIndex ? ">" : " ", brief(events[i]).c_str());
    }
}

}  // namespace

int replayTrace(const TraceData& trace, const std::string& htmlFile) {
    ReplayState state(trace);
    auto provider = std::make_shared<ReplayProvider>(state);
    AuthFacade& facade = AuthFacade::getInstance();
    facade.reset();
    AuthClock::setNowOverride([&state] { return state.now.load(); });
    AuthClock::setUptimeOverride([&state] { return state.uptime.load(); });
    facade.setTraceSink(std::make_shared<ReplaySink>(state));

    bool started = false;
    std::size_t checked = 0;
    for (std::size_t i = 0; i < trace.events.size() && !state.hasDiverged(); ++i) {
        const TraceLine& line = trace.events[i];
        {
            std::lock_guard<std::mutex> lock(state.mutex);
            state.position = i;
        }
        if (line.kind == "clock") {
            state.clockAt(i);
            continue;
        }
        state.clocksAfter(i);
        if (line.kind == "call") {
            if (!started && line.name != "init") {
                std::printf(
                    "replay: the trace begins with the engine running: it is replayed "
                    "on an engine started afresh\n");
                facade.init(provider);
            }
            started = true;
            replayCall(state, line, provider);
            facade.waitForIdle(PATIENCE_MS);
        } else if (line.kind == "answer" && !line.data.value("inline", false)) {
            AuthCallback callback;
            {
                std::lock_guard<std::mutex> lock(state.mutex);
                const auto found = state.callbacks.find(line.data.value("question", 0ULL));
                callback = found != state.callbacks.end() ? found->second : AuthCallback();
            }
            if (!callback) {
                state.diverge(i, "the replay never asked the question this answers");
                break;
            }
            callback(state.ids.translate(line.data.value("id", std::string())),
                     toResponse(state.ids.translate(line.data.value("response", json::object()))),
                     toAnswerContext(line.data.value("context", json::object())));
            facade.waitForIdle(PATIENCE_MS);
        } else if (ReplayState::isChecked(line.kind, line.name)) {
            checkReport(state, i);
            ++checked;
        }
    }
    if (!state.hasDiverged()) {
        facade.waitForIdle(PATIENCE_MS);
        std::lock_guard<std::mutex> lock(state.mutex);
        for (const Observed& extra : state.observedReports) {
            if (!extra.matched) {
                state.diverged = true;
                state.divergenceIndex = trace.events.empty() ? 0 : trace.events.size() - 1;
                state.divergence = "the replay made a " + extra.kind + " the trace does not have";
                state.divergenceObserved = extra.kind + " " + extra.name + " " + extra.data.dump();
                break;
            }
        }
    }
    facade.setTraceSink(nullptr);
    facade.reset();
    AuthClock::setNowOverride({});
    AuthClock::setUptimeOverride({});

    uint64_t divergenceSeq = 0;
    std::size_t ops = 0;
    for (const auto& served : state.servedOps) {
        ops += served.second;
    }
    if (state.diverged && !trace.events.empty()) {
        printDivergence(state);
        divergenceSeq = trace.events[state.divergenceIndex].seq;
    } else {
        std::printf(
            "replay: %s: %zu events, %zu reports and %zu operations as recorded, 0 "
            "divergences\n",
            trace.file.c_str(), trace.events.size(), checked, ops);
    }
    if (!htmlFile.empty() && !writeTraceHtml(trace, htmlFile, divergenceSeq)) {
        return 1;
    }
    return state.diverged ? 1 : 0;
}

}  // namespace authsim
