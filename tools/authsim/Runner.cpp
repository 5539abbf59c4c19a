// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

#include "Runner.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <map>
#include <utility>

#include <auth_engine/AuthClock.h>
#include <auth_engine/AuthFacade.h>
#include <auth_engine/AuthLogger.h>

#include "Names.h"

namespace authsim {

using namespace auth_engine;

namespace {

constexpr auto ENGINE_PATIENCE = std::chrono::seconds(5);
const char* const TAG = "authsim:";

std::string joined(const std::vector<std::string>& items) {
    return items.empty() ? "-" : joinRelayVector(items);
}

std::vector<std::string> sorted(std::vector<std::string> items) {
    std::sort(items.begin(), items.end());
    return items;
}

std::vector<std::string> targetRelays(const AuthResponse& response) {
    std::vector<std::string> relays;
    for (const auto& target : response.targets) {
        relays.push_back(target.relay);
    }
    return relays;
}

std::string userOf(const AuthResponse& response) {
    return response.user ? response.user->userId : "";
}

std::string summary(const AuthResponse& r) {
    std::string line = (r.asyncType.empty() ? "-" : r.asyncType) + " " + resultName(r.result) +
                       " opened=" + joined(r.openedRelays) + " failed=" + joined(r.failedRelays) +
                       " failCode=" + std::to_string(r.failCode);
    if (!r.reason.empty()) {
        line += " reason=\"" + r.reason + "\"";
    }
    if (!r.unlockOptionsRelays.empty()) {
        line += " offered=" + joined(r.unlockOptionsRelays);
    }
    if (!r.doubleAuthPendingId.empty()) {
        line += " pendingId=" + r.doubleAuthPendingId;
    }
    if (!userOf(r).empty()) {
        line += " user=" + userOf(r);
    }
    for (const auto& target : r.targets) {
        if (target.type == 2) {
            line += " target=" + target.relay;
        }
    }
    if (r.duress) {
        line += " duress";
    }
    return line;
}

std::string reportLine(const std::string& label, int number, const AuthResponse& r) {
    return "= " + label + " #" + std::to_string(number) + " " + summary(r);
}

void addReport(nlohmann::ordered_json& line, const AuthResponse& r) {
    nlohmann::ordered_json targets = nlohmann::ordered_json::array();
    for (const auto& target : r.targets) {
        targets.push_back({{"type", target.type}, {"relay", target.relay}});
    }
    line["phase"] = r.asyncType;
    line["result"] = resultName(r.result);
    line["opened"] = r.openedRelays;
    line["failed"] = r.failedRelays;
    line["failCode"] = r.failCode;
    line["reason"] = r.reason;
    line["offered"] = r.unlockOptionsRelays;
    line["optionsId"] = r.unlockOptionsId;
    line["user"] = userOf(r);
    line["pendingId"] = r.doubleAuthPendingId;
    line["targets"] = targets;
    line["remoteFailCode"] = r.remoteFailCode;
    line["allFailed"] = r.allFailed;
    if (r.duress) {
        line["duress"] = true;
    }
}

// The differences between an expected and an actual report, one text per field.
std::vector<std::string> compare(const Expectation& e, const AuthResponse& r) {
    std::vector<std::string> diffs;
    const auto text = [&](const char* field, const std::optional<std::string>& want,
                          const std::string& got) {
        if (want && *want != got) {
            diffs.push_back(std::string(field) + ": expected \"" + *want + "\", got \"" + got +
                            "\"");
        }
    };
    const auto number = [&](const char* field, const std::optional<int>& want, int got,
                            std::string (*name)(int)) {
        if (want && *want != got) {
            diffs.push_back(std::string(field) + ": expected " + name(*want) + ", got " +
                            name(got));
        }
    };
    const auto list = [&](const char* field, const std::optional<std::vector<std::string>>& want,
                          const std::vector<std::string>& got) {
        if (want && sorted(*want) != sorted(got)) {
            diffs.push_back(std::string(field) + ": expected " + joined(*want) + ", got " +
                            joined(got));
        }
    };
    const auto plain = [](int value) { return std::to_string(value); };
    text("phase", e.phase, r.asyncType);
    number("result", e.result, r.result, resultName);
    list("opened", e.opened, r.openedRelays);
    list("failed", e.failed, r.failedRelays);
    number("failCode", e.failCode, r.failCode, plain);
    text("reason", e.reason, r.reason);
    list("offered", e.offered, r.unlockOptionsRelays);
    text("user", e.user, userOf(r));
    text("pendingId", e.pendingId, r.doubleAuthPendingId);
    list("targets", e.targets, targetRelays(r));
    number("remoteFailCode", e.remoteFailCode, r.remoteFailCode, plain);
    if (e.duress && *e.duress != r.duress) {
        diffs.push_back(std::string("duress: expected ") + (*e.duress ? "true" : "false") +
                        ", got " + (r.duress ? "true" : "false"));
    }
    return diffs;
}

std::string describeExpectation(const Expectation& e) {
    std::string text = e.phase.value_or("?");
    if (e.result) {
        text += " " + resultName(*e.result);
    }
    if (e.opened) {
        text += " opened=" + joined(*e.opened);
    }
    if (e.failCode) {
        text += " failCode=" + std::to_string(*e.failCode);
    }
    return text;
}

}  // namespace

Runner::Runner(const Site& site, RunOptions options)
    : options(std::move(options)),
      mainThread(std::this_thread::get_id()),
      clock(std::make_shared<SimClock>()) {
    clock->wall = site.start;
    clock->uptime = 100000;  // any positive start: only differences of it are ever used
    SiteProvider::Listener listener;
    listener.note = [this](const std::string& line) { note(line); };
    listener.hostReport = [this](const AuthContext& context, AuthResult) { onHostReport(context); };
    provider = std::make_shared<SiteProvider>(site, std::move(listener));
}

Runner::~Runner() {
    finish();
    provider.reset();  // joins the courier while the members it reports to still exist
}

bool Runner::start() {
    const std::shared_ptr<SimClock> simulated = clock;
    AuthClock::setNowOverride([simulated] { return simulated->wall.load(); });
    AuthClock::setUptimeOverride([simulated] { return simulated->uptime.load(); });
    const int code = AuthFacade::getInstance().init(provider);
    if (code != 0) {
        printLine("engine init failed with " + std::to_string(code));
        return false;
    }
    engineRunning = true;
    return true;
}

void Runner::finish() {
    if (finished) {
        return;
    }
    finished = true;
    // Parked phases end here with "Engine shutdown"; they are shown but not checked.
    AuthFacade::getInstance().reset();
    flush(currentStep);
    provider->waitForDeliveries(ENGINE_PATIENCE);
    AuthClock::setNowOverride({});
    AuthClock::setUptimeOverride({});
}

int Runner::reports() const {
    std::lock_guard<std::mutex> lock(mutex);
    return static_cast<int>(reportCount);
}

int Runner::newAttempt(const std::string& label, bool sync) {
    std::lock_guard<std::mutex> lock(mutex);
    Attempt attempt;
    attempt.label = label;
    attempt.sync = sync;
    attempts.push_back(attempt);
    printedPerAttempt.push_back(0);
    return static_cast<int>(attempts.size()) - 1;
}

void Runner::record(int attempt, const std::string& requestId, const AuthResponse& response) {
    std::lock_guard<std::mutex> lock(mutex);
    attempts[attempt].reports.push_back({requestId, response});
    events.push_back({"", attempt, {requestId, response}});
    ++reportCount;
    changed.notify_all();
}

void Runner::onHostReport(const AuthContext& context) {
    const std::string& tag = context.request.reservedText0;
    if (tag.rfind(TAG, 0) != 0) {
        return;
    }
    const int index = std::atoi(tag.c_str() + std::char_traits<char>::length(TAG));
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (index < 0 || index >= static_cast<int>(attempts.size()) || !attempts[index].sync) {
            return;  // asynchronous attempts are reported through their callbacks
        }
        // The report made inside authenticate is the response authenticate returns.
        if (attempts[index].inCall && std::this_thread::get_id() == mainThread) {
            return;
        }
    }
    record(index, context.requestId, context.response);
}

void Runner::note(const std::string& text) {
    std::lock_guard<std::mutex> lock(mutex);
    events.push_back({text, -1, {}});
}

AuthCallback Runner::callbackFor(int attempt) {
    return [this, attempt](const std::string& id, const AuthResponse& response,
                           const AuthContext&) { record(attempt, id, response); };
}

void Runner::execute(const Step& step, int number) {
    currentStep = number;
    if (!options.json) {
        printLine("[" + formatTime(clock->wall.load()) + "] " + std::to_string(number) + " " +
                  describe(step));
        if (!step.note.empty() && step.verb != "note") {
            printLine("    # " + step.note);
        }
    }
    if (step.verb == "attempt") {
        runAttempt(step);
    } else if (step.verb == "answer") {
        runAnswer(step);
    } else if (step.verb == "choose") {
        runChoose(step);
    } else {
        runOther(step);
    }
    settle();
    flush(number);
    check(step);
    std::fflush(stdout);
}

void Runner::runAttempt(const Step& step) {
    const int index = newAttempt(step.label, step.sync);
    AuthRequest request = step.request;
    request.timestamp = clock->wall.load();
    request.reservedText0 = TAG + std::to_string(index);
    AuthFacade& facade = AuthFacade::getInstance();
    if (!request.doubleAuthPendingId.empty()) {
        usedPendingIds.push_back(request.doubleAuthPendingId);
    }
    if (!step.sync) {
        const std::string id = facade.authenticateAsync(request, callbackFor(index));
        if (id.empty()) {
            note("(not queued: the engine is not running)");
        }
        std::lock_guard<std::mutex> lock(mutex);
        attempts[index].requestId = id;
        return;
    }
    std::size_t firstEvent = 0;
    {
        std::lock_guard<std::mutex> lock(mutex);
        attempts[index].inCall = true;
        firstEvent = events.size();
    }
    const AuthResponse response = facade.authenticate(request);
    std::lock_guard<std::mutex> lock(mutex);
    Attempt& attempt = attempts[index];
    attempt.inCall = false;
    attempt.reports.insert(attempt.reports.begin(), {"", response});
    // The returned response is the attempt's first report, even when the worker already reported a
    // later phase while authenticate was still returning.
    auto at = std::find_if(events.begin() + static_cast<std::ptrdiff_t>(firstEvent), events.end(),
                           [&](const Event& event) { return event.attempt == index; });
    events.insert(at, {"", index, {"", response}});
    ++reportCount;
}

void Runner::runAnswer(const Step& step) {
    SiteProvider::Question question;
    if (!provider->takeHeld(step.check, step.key, question)) {
        mismatch("no " + step.check + " question" + (step.key.empty() ? "" : " for " + step.key) +
                 " is waiting for an answer");
        return;
    }
    const RemoteAnswer answer = readAnswer(step.overrides, question.answer);
    provider->deliver(question, answer, step.viaFacade);
}

void Runner::runChoose(const Step& step) {
    std::string optionsId;
    {
        std::lock_guard<std::mutex> lock(mutex);
        for (auto attempt = attempts.rbegin(); attempt != attempts.rend() && optionsId.empty();
             ++attempt) {
            if (!step.attempt.empty() && attempt->label != step.attempt) {
                continue;
            }
            for (auto report = attempt->reports.rbegin(); report != attempt->reports.rend();
                 ++report) {
                if (report->response.result == UNLOCK_OPTIONS_PENDING) {
                    optionsId = report->response.unlockOptionsId;
                    break;
                }
            }
        }
    }
    if (optionsId.empty()) {
        mismatch("no relay choice was offered" +
                 (step.attempt.empty() ? std::string() : " to " + step.attempt));
        return;
    }
    AuthFacade::getInstance().handleUnlockOptionsResponse(optionsId, step.relays);
}

void Runner::runOther(const Step& step) {
    AuthFacade& facade = AuthFacade::getInstance();
    if (step.verb == "advance") {
        clock->wall += step.seconds;
        clock->uptime += step.seconds;
    } else if (step.verb == "time") {
        // Uptime never runs backwards, whatever the wall clock does.
        const int64_t forward = step.at - clock->wall.load();
        clock->wall = step.at;
        clock->uptime += std::max<int64_t>(forward, 0);
    } else if (step.verb == "site") {
        Site site = provider->site();
        patchSite(site, step.patch, step.where);
        if (step.patch.contains("schedules") || step.patch.contains("holidays")) {
            for (const auto& warning : scheduleWarnings(site)) {
                note("warning: " + warning);
            }
        }
        provider->setSite(std::move(site));
    } else if (step.verb == "chain") {
        facade.setProcessorChain(step.names);
        chainNames = step.names;
    } else if (step.verb == "reset") {
        facade.reset();
        engineRunning = false;
    } else if (step.verb == "init") {
        const int code = facade.init(provider);
        if (code != 0) {
            note("(init returned " + std::to_string(code) + ")");
        }
        // A new engine starts with the default chain; init on a running one keeps everything.
        if (!engineRunning && code == 0) {
            chainNames.clear();
        }
        engineRunning = engineRunning || code == 0;
    } else if (step.verb == "double-timeout" || step.verb == "double-cancel") {
        usedPendingIds.push_back(step.pendingId);
        const int index = newAttempt(step.label, true);
        const AuthResponse response = step.verb == "double-timeout"
                                          ? facade.handleDoubleAuthTimeout(step.pendingId)
                                          : facade.cancelDoubleAuth(step.pendingId, step.reason);
        record(index, step.pendingId, response);
    } else if (step.verb == "verify-interlock") {
        const int index = newAttempt(step.label, false);
        AuthRequest request;
        request.timestamp = clock->wall.load();
        request.reservedText0 = TAG + std::to_string(index);
        if (facade.verifyInterlockTargets(request, step.targets, callbackFor(index)).empty()) {
            note("(verification refused)");
        }
    }
}

uint64_t Runner::activity() const {
    const uint64_t remote = provider->activity();
    std::lock_guard<std::mutex> lock(mutex);
    return remote + reportCount;
}

void Runner::settle() {
    // First the "later" answers still in flight, then the engine: waitForIdle wakes the worker for
    // a pass at the simulated clocks' present reading (its timeout sweep may time out phases and
    // queue resumes) and returns once nothing is queued. What that pass did may ask new questions
    // whose answers queue more work: repeat while things move.
    for (int round = 0; round < 20; ++round) {
        if (!provider->waitForDeliveries(ENGINE_PATIENCE)) {
            mismatch("answers were still being delivered after 5 s");
            return;
        }
        const uint64_t before = activity();
        const auto patience =
            std::chrono::duration_cast<std::chrono::milliseconds>(ENGINE_PATIENCE).count();
        if (!AuthFacade::getInstance().waitForIdle(static_cast<int>(patience))) {
            mismatch("the engine did not come back within 5 s");
            return;
        }
        if (activity() == before) {
            return;
        }
    }
}

void Runner::flush(int step) {
    std::vector<Event> pending;
    std::vector<std::string> labels;
    {
        std::lock_guard<std::mutex> lock(mutex);
        pending.swap(events);
        for (const auto& attempt : attempts) {
            labels.push_back(attempt.label);
        }
    }
    for (const auto& event : pending) {
        if (event.attempt < 0) {
            if (!options.json) {
                printLine("    " + event.text);
            }
            continue;
        }
        const int number = ++printedPerAttempt[event.attempt];
        const std::string& label = labels[event.attempt];
        if (options.json) {
            nlohmann::ordered_json line;
            line["scenario"] = options.scenario;
            line["step"] = step;
            line["time"] = formatTime(clock->wall.load());
            line["attempt"] = label;
            line["report"] = number;
            line["requestId"] = event.report.requestId;
            addReport(line, event.report.response);
            printLine(line.dump());
        } else {
            printLine("    " + reportLine(label, number, event.report.response));
        }
    }
}

void Runner::check(const Step& step) {
    std::vector<std::string> problems;
    {
        std::lock_guard<std::mutex> lock(mutex);
        std::map<int, std::vector<const Expectation*>> wanted;
        for (const auto& expectation : step.expect) {
            const std::string label = !expectation.attempt.empty() ? expectation.attempt
                                      : !step.label.empty()        ? step.label
                                      : attempts.empty()           ? std::string()
                                                                   : attempts.back().label;
            int found = -1;
            for (int i = static_cast<int>(attempts.size()) - 1; i >= 0 && found < 0; --i) {
                found = attempts[i].label == label ? i : -1;
            }
            if (found < 0) {
                problems.push_back(expectation.path + ": no attempt \"" + label + "\" has run");
            } else {
                wanted[found].push_back(&expectation);
            }
        }
        for (int i = 0; i < static_cast<int>(attempts.size()); ++i) {
            Attempt& attempt = attempts[i];
            const std::size_t fresh = attempt.reports.size() - attempt.checked;
            const std::vector<const Expectation*>& expected = wanted[i];
            if (step.hasExpect || options.strict) {
                for (std::size_t k = 0; k < std::max(fresh, expected.size()); ++k) {
                    const std::string which =
                        attempt.label + " #" + std::to_string(attempt.checked + k + 1);
                    if (k >= fresh) {
                        problems.push_back(which + ": expected (" +
                                           describeExpectation(*expected[k]) + ") did not arrive");
                    } else if (k >= expected.size()) {
                        problems.push_back(which + ": unexpected report: " +
                                           summary(attempt.reports[attempt.checked + k].response));
                    } else {
                        for (const auto& diff :
                             compare(*expected[k], attempt.reports[attempt.checked + k].response)) {
                            problems.push_back(which + ": " + diff);
                        }
                    }
                }
            }
            attempt.checked = attempt.reports.size();
        }
    }
    for (const auto& problem : problems) {
        mismatch(problem);
    }
}

void Runner::mismatch(const std::string& text) {
    ++mismatchCount;
    if (options.json) {
        nlohmann::ordered_json line;
        line["scenario"] = options.scenario;
        line["step"] = currentStep;
        line["mismatch"] = text;
        printLine(line.dump());
    } else {
        printLine("    MISMATCH " + text);
    }
}

std::string Runner::status() const {
    const Site site = provider->site();
    const int64_t now = clock->wall.load();
    std::string text = "time:     " + formatTime(now) + " (" + site.timezone + ")\n";
    text += std::string("engine:   ") +
            (engineRunning ? "running" : "not running (init starts it)") + "\n";
    text += "chain:    " +
            (chainNames.empty() ? std::string("the default chain") : joinRelayVector(chainNames)) +
            "\n";
    const std::map<std::string, int> timeouts = {{"antiPassback", site.config.antiPassbackTimeout},
                                                 {"interlock", site.config.interlockTimeout},
                                                 {"parking", site.config.parkingTimeout},
                                                 {"tempKey", site.config.tempKeyTimeout}};
    std::lock_guard<std::mutex> lock(mutex);
    const auto labelOf = [&](const std::string& engineId) {
        for (const auto& attempt : attempts) {
            if (!attempt.requestId.empty() && engineId.rfind(attempt.requestId, 0) == 0) {
                return attempt.label;
            }
        }
        return engineId.empty() ? std::string("?") : engineId;
    };
    std::string questions;
    std::vector<std::string> parked;
    for (const auto& question : provider->waiting()) {
        const std::string label = labelOf(question.engineId);
        const int64_t deadline = question.askedAt + timeouts.at(question.check);
        questions += "  " + question.check + " " + question.key + " for " + label + ", " +
                     (question.answer.mode == RemoteAnswer::HELD
                          ? "held (answer " + question.check + " " + question.key + ")"
                          : std::string("never answered"));
        if (now >= deadline) {
            questions += "; the engine gave up at " + formatTime(deadline).substr(15) +
                         ", an answer now is dropped\n";
        } else {
            questions += "; the engine waits until " + formatTime(deadline).substr(15) + "\n";
            if (std::find(parked.begin(), parked.end(), label) == parked.end()) {
                parked.push_back(label);
            }
        }
    }
    text += "questions:" + std::string(questions.empty() ? " none\n" : "\n" + questions);
    text += "parked:   " + (parked.empty() ? std::string("none") : joinRelayVector(parked)) + "\n";
    std::string choices;
    std::string factors;
    for (const auto& attempt : attempts) {
        if (attempt.reports.empty()) {
            continue;
        }
        const AuthResponse& last = attempt.reports.back().response;
        if (last.result == UNLOCK_OPTIONS_PENDING) {
            choices += "  " + attempt.label + " offers " + joined(last.unlockOptionsRelays) +
                       " (choose RELAYS attempt=" + attempt.label + ")\n";
        } else if (last.result == DOUBLE_AUTH_PENDING &&
                   std::find(usedPendingIds.begin(), usedPendingIds.end(),
                             last.doubleAuthPendingId) == usedPendingIds.end()) {
            factors += "  " + attempt.label +
                       " waits for its second factor (pendingId=" + last.doubleAuthPendingId +
                       ")\n";
        }
    }
    text += "choices:" + std::string(choices.empty() ? "  none\n" : "\n" + choices);
    text += "second factors:" + std::string(factors.empty() ? " none\n" : "\n" + factors);
    text += "mismatches: " + std::to_string(mismatchCount) + "\n";
    return text;
}

std::string Runner::describe(const Step& step) const {
    if (step.verb == "attempt") {
        const AuthRequest& r = step.request;
        std::string text = "attempt " + step.label + ": " + openTypeName(r.openType);
        if (!r.credential.empty()) {
            text += " " + r.credential;
        }
        if (r.readerType != READER_TYPE_INTERNAL) {
            text += " reader=" + readerName(r.readerType);
        }
        return text + (step.sync ? " (sync)" : "");
    }
    if (step.verb == "answer") {
        return "answer " + step.check + (step.key.empty() ? "" : " " + step.key) +
               (step.overrides.empty() ? "" : " " + step.overrides.dump()) +
               (step.viaFacade ? " via facade" : "");
    }
    if (step.verb == "choose") {
        return "choose " +
               (step.relays.empty() ? std::string("nothing") : joinRelayVector(step.relays)) +
               (step.attempt.empty() ? "" : " for " + step.attempt);
    }
    if (step.verb == "advance") {
        return "advance " + std::to_string(step.seconds) + " s";
    }
    if (step.verb == "time") {
        return "time " + formatTime(step.at);
    }
    if (step.verb == "site") {
        return "site " + step.shown.dump();
    }
    if (step.verb == "chain") {
        return "chain " + joinRelayVector(step.names);
    }
    if (step.verb == "double-timeout" || step.verb == "double-cancel") {
        return step.verb + " " + step.pendingId;
    }
    if (step.verb == "verify-interlock") {
        std::vector<std::string> relays;
        for (const auto& target : step.targets) {
            relays.push_back(target.relay);
        }
        return "verify-interlock " + joinRelayVector(relays);
    }
    if (step.verb == "note") {
        return "# " + step.note;
    }
    return step.verb;
}

void Runner::printLine(const std::string& text) {
    std::fputs(text.c_str(), stdout);
    std::fputc('\n', stdout);
}

}  // namespace authsim
