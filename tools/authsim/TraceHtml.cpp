// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// The picture of a trace: one self-contained page (inline CSS, no script, nothing fetched) with a
// timeline per attempt on one time axis shared by all of them: the attempt, each question to a
// peer and its answer with the delay, each report with its phase, the relays opened and refused,
// the fail code and reason. A refused attempt is red, a granted one green.
//
// Time: the engine's wall clock in each event (simulated under authsim, real on a device), with the
// real microseconds between events inside one second. The axis keeps every event in order and
// gives long pauses (a 30 s timeout, the night between two attempts) a width that grows with the
// logarithm of their length, so that neither the pauses nor the bursts swamp the page.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <fstream>
#include <map>
#include <set>

#include "Names.h"
#include "TraceTools.h"

namespace authsim {

namespace {

std::string escape(const std::string& text) {
    std::string out;
    for (const char c : text) {
        switch (c) {
            case '&':
                out += "&amp;";
                break;
            case '<':
                out += "&lt;";
                break;
            case '>':
                out += "&gt;";
                break;
            case '"':
                out += "&quot;";
                break;
            default:
                out += c;
        }
    }
    return out;
}

std::string clockText(double seconds) {
    const auto whole = static_cast<std::time_t>(std::floor(seconds));
    std::tm tm{};
    gmtime_r(&whole, &tm);
    char text[48];
    (void)std::snprintf(text, sizeof(text), "%02d:%02d:%02d.%03d", tm.tm_hour, tm.tm_min, tm.tm_sec,
                        static_cast<int>((seconds - std::floor(seconds)) * 1000));
    return text;
}

std::string dateText(double seconds) {
    const auto whole = static_cast<std::time_t>(std::floor(seconds));
    std::tm tm{};
    gmtime_r(&whole, &tm);
    char text[32];
    (void)std::strftime(text, sizeof(text), "%Y-%m-%d", &tm);
    return text;
}

// "req_3_1741000000_ind_antipassback" -> "req_3_1741000000"
std::string baseId(const std::string& id) {
    std::size_t cut = id.size();
    for (const char* infix : {"_ind_", "_ap_", "_il_"}) {
        cut = std::min(cut, id.find(infix));
    }
    return id.substr(0, cut);
}

std::string relays(const json& list) {
    std::string text;
    if (list.is_array()) {
        for (const auto& item : list) {
            text += (text.empty() ? "" : ",") + item.get<std::string>();
        }
    }
    return text.empty() ? "-" : text;
}

std::string shortSecret(const std::string& text) {
    return text.rfind("sip:", 0) == 0 && text.size() > 12 ? text.substr(0, 12) + "\u2026" : text;
}

struct Mark {
    double time = 0;
    std::string kind;    ///< CSS class: attempt, question, answer, report, call
    std::string symbol;  ///< shown on the track
    std::string text;    ///< the event in words
    std::string extra;   ///< more CSS classes
    double from = -1;    ///< a wait drawn from this time (a question's answer)
    uint64_t seq = 0;
};

struct Attempt {
    std::string title;
    std::vector<Mark> marks;
    bool refused = false;
    bool granted = false;
};

class Page {
public:
    explicit Page(const TraceData& trace) : trace(trace) { attempts.push_back({"engine", {}}); }

    void build() {
        int64_t lastWall = 0;
        int64_t secondStart = 0;
        for (const TraceLine& line : trace.events) {
            if (line.wall != lastWall) {
                lastWall = line.wall;
                secondStart = line.micros;
            }
            const double time =
                static_cast<double>(line.wall) +
                std::min(0.999, static_cast<double>(line.micros - secondStart) / 1e6);
            add(line, time);
        }
    }

    std::string html(uint64_t divergence) const;

private:
    std::size_t newAttempt(const TraceLine& line) {
        const json args = line.data.value("args", json::object());
        const json request = args.value("request", json::object());
        std::string title = "#" + std::to_string(attempts.size()) + " " + line.name;
        if (line.name.rfind("authenticate", 0) == 0) {
            title += ": " + openTypeName(request.value("openType", 0));
            const std::string credential = request.value("credential", std::string());
            if (!credential.empty()) {
                title += " " + shortSecret(credential);
            }
            const int reader = request.value("readerType", 0);
            if (reader != 0) {
                title += " reader=" + readerName(reader);
            }
        } else if (args.contains("pendingId")) {
            title += " " + args.value("pendingId", std::string());
        }
        const std::string tag = request.value("reservedText0", std::string());
        if (!tag.empty()) {
            title += " (" + tag + ")";
            byTag[tag] = attempts.size();
        }
        attempts.push_back({title, {}});
        return attempts.size() - 1;
    }

    std::size_t byRequestId(const std::string& id, std::size_t otherwise) const {
        const auto found = byId.find(baseId(id));
        return found != byId.end() ? found->second : otherwise;
    }

    void add(const TraceLine& line, double time) {
        const json& d = line.data;
        const auto call = d.value("call", 0ULL);
        const auto openCall = openOnThread.find(line.thread);
        const std::size_t threadAttempt = openCall != openOnThread.end() ? openCall->second : 0;
        Mark mark;
        mark.time = time;
        mark.seq = line.seq;
        if (line.kind == "call") {
            static const std::set<std::string> starts = {
                "authenticate", "authenticateAsync", "verifyInterlockTargets",
                "handleDoubleAuthTimeout", "cancelDoubleAuth"};
            if (starts.count(line.name) != 0) {
                const std::size_t index = newAttempt(line);
                byCall[call] = index;
                openOnThread[line.thread] = index;
                mark.kind = "attempt";
                mark.symbol = "\u25B6";
                mark.text = line.name;
                attempts[index].marks.push_back(mark);
            } else if (line.name == "handleAsyncResult" ||
                       line.name == "handleUnlockOptionsResponse") {
                const json args = d.value("args", json::object());
                const std::string id = args.value("requestId", args.value("optionsId", ""));
                mark.kind = "answer";
                mark.symbol = "!";
                mark.text = line.name + " " + id;
                if (args.contains("selectedRelays")) {
                    mark.text += " chose " + relays(args["selectedRelays"]);
                }
                attempts[byRequestId(id, 0)].marks.push_back(mark);
            } else if (line.name != "waitForIdle") {
                mark.kind = "call";
                mark.symbol = line.name == "reset" ? "\u25A0" : "\u2699";
                mark.text = line.name;
                attempts[0].marks.push_back(mark);
            }
            return;
        }
        if (line.kind == "return") {
            const auto found = byCall.find(call);
            if (found != byCall.end() && d.contains("result") && d["result"].is_string()) {
                byId[d["result"].get<std::string>()] = found->second;
            }
            return;
        }
        if (line.kind == "op") {
            if (line.name.rfind("request", 0) != 0 || line.name == "requestDtmfWhitelist" ||
                line.name == "requestDtmfVisitorPermission") {
                return;  // lookups are in the trace file; the page shows the questions
            }
            const json context = d.value("args", json::object()).value("context", json::object());
            const std::string id = context.value("requestId", std::string());
            const std::size_t index = byRequestId(id, threadAttempt);
            const auto question = d.value("question", 0ULL);
            questions[question] = {index, time};
            const json& result = d.contains("result") ? d["result"] : json();
            const bool sent = (result.is_string() && !result.get<std::string>().empty()) ||
                              (result.is_boolean() && result.get<bool>());
            mark.kind = "question";
            mark.symbol = "?";
            mark.text = "asks " + line.name.substr(7) + " " +
                        relays(context.value("antiPassbackRelays", json::array())) +
                        (d.value("args", json::object()).contains("relay")
                             ? " relay " + d["args"].value("relay", std::string())
                             : std::string()) +
                        (sent ? "" : " (offline: not sent)");
            mark.extra = sent ? "" : " offline";
            attempts[index].marks.push_back(mark);
            return;
        }
        if (line.kind == "answer") {
            const auto found = questions.find(d.value("question", 0ULL));
            const std::size_t index = found != questions.end() ? found->second.first : 0;
            const json response = d.value("response", json::object());
            const int result = response.value("result", 3);
            mark.kind = "answer";
            mark.symbol = "!";
            mark.extra = result == 0 || result == 3 ? " granted" : " refused";
            mark.text = line.name + " answers " + resultName(result);
            if (found != questions.end()) {
                mark.from = found->second.second;
                char delay[48];
                (void)std::snprintf(delay, sizeof(delay), " after %.3f s",
                                    time - found->second.second);
                mark.text += delay;
            }
            if (d.value("inline", false)) {
                mark.text += " (inline)";
            }
            attempts[index].marks.push_back(mark);
            return;
        }
        if (line.kind == "report") {
            std::size_t index = 0;
            const auto byCallFound = byCall.find(call);
            const std::string tag = d.value("tag", std::string());
            if (byCallFound != byCall.end()) {
                index = byCallFound->second;
            } else if (!tag.empty() && byTag.count(tag) != 0) {
                index = byTag.at(tag);
            } else {
                index = byRequestId(d.value("requestId", std::string()), threadAttempt);
            }
            const json response = d.value("response", json::object());
            const int result = response.value("result", 3);
            const std::string reason = response.value("reason", std::string());
            const std::string phase = response.value("asyncType", std::string("-"));
            mark.kind = "report";
            mark.symbol = result == 0 ? "\u2713" : result == 1 ? "\u2717" : "\u2026";
            mark.extra = result == 0 ? " granted" : result == 1 ? " refused" : " pending";
            if (reason.find("timeout") != std::string::npos) {
                mark.extra += " timeout";
            }
            mark.text = (line.name == "onAuthResult" ? std::string("onAuthResult")
                         : line.name == "callback"   ? std::string("callback")
                                                     : line.name + " returned") +
                        ": " + phase + " " + resultName(result) +
                        " opened=" + relays(response.value("openedRelays", json::array())) +
                        " failed=" + relays(response.value("failedRelays", json::array())) +
                        " failCode=" + std::to_string(response.value("failCode", 0)) +
                        (reason.empty() ? "" : " \"" + reason + "\"");
            Attempt& attempt = attempts[index];
            attempt.refused = attempt.refused || result == 1;
            attempt.granted = attempt.granted || result == 0;
            attempt.marks.push_back(mark);
            if (line.name != "onAuthResult" && line.name != "callback") {
                openOnThread.erase(line.thread);  // a synchronous call has returned
            }
        }
    }

    const TraceData& trace;
    std::vector<Attempt> attempts;
    std::map<uint64_t, std::size_t> byCall;
    std::map<std::string, std::size_t> byId;
    std::map<std::string, std::size_t> byTag;
    std::map<int, std::size_t> openOnThread;
    std::map<uint64_t, std::pair<std::size_t, double>> questions;
};

const char* const STYLE = R"(
body { font: 14px/1.4 system-ui, sans-serif; margin: 16px 24px; color: #222; background: #fafafa; }
h1 { font-size: 20px; margin: 0 0 4px; }
.meta { color: #555; margin-bottom: 12px; }
.axis, .track { position: relative; height: 34px; margin-left: 300px; border-left: 1px solid #bbb; }
.axis { height: 22px; border-bottom: 1px solid #999; }
.tick { position: absolute; top: 2px; font-size: 11px; color: #555; transform: translateX(-50%);
        white-space: nowrap; }
section.attempt { display: block; border-top: 1px solid #ddd; padding: 4px 0; }
section.attempt h2 { float: left; width: 290px; margin: 6px 0 0; font-size: 13px; font-weight: 600;
                     overflow: hidden; text-overflow: ellipsis; white-space: nowrap; }
section.refused h2::before { content: "REFUSED "; color: #fff; background: #c62828; padding: 0 4px;
                             border-radius: 3px; margin-right: 4px; }
section.granted h2::before { content: "GRANTED "; color: #fff; background: #2e7d32;
                             padding: 0 4px; border-radius: 3px; margin-right: 4px; }
section.refused { background: #fdecea; }
section.granted { background: #edf7ed; }
.mark { position: absolute; top: 7px; width: 20px; height: 20px; margin-left: -10px;
        border-radius: 50%; text-align: center; font-size: 13px; line-height: 20px;
        color: #fff; background: #607d8b; }
.mark.attempt { background: #1565c0; border-radius: 3px; }
.mark.question { background: #f9a825; color: #222; }
.mark.question.offline { background: #9e9e9e; }
.mark.answer.granted { background: #43a047; }
.mark.answer.refused { background: #e53935; }
.mark.report.granted { background: #1b5e20; }
.mark.report.refused { background: #b71c1c; }
.mark.report.pending { background: #6a1b9a; }
.mark.report.timeout { outline: 3px solid #ff6f00; }
.mark.diverged { box-shadow: 0 0 0 4px #000; }
.wait { position: absolute; top: 16px; height: 2px; background: #f9a825; }
ol.events { clear: both; margin: 2px 0 4px 300px; padding-left: 18px; font-size: 12px;
            color: #333; }
ol.events li.refused { color: #b71c1c; font-weight: 600; }
ol.events li.diverged { background: #ffeb3b; }
.legend span { display: inline-block; margin-right: 14px; }
)";

std::string Page::html(uint64_t divergence) const {
    std::vector<double> times;
    for (const auto& attempt : attempts) {
        for (const auto& mark : attempt.marks) {
            times.push_back(mark.time);
        }
    }
    std::sort(times.begin(), times.end());
    times.erase(std::unique(times.begin(), times.end()), times.end());
    // Position of each distinct time: gaps weigh 1 + log10(1 + gap in ms).
    std::vector<double> positions(times.size(), 0.0);
    for (std::size_t i = 1; i < times.size(); ++i) {
        positions[i] = positions[i - 1] + 1 + std::log10(1 + (times[i] - times[i - 1]) * 1000);
    }
    const double span = positions.empty() || positions.back() <= 0 ? 1 : positions.back();
    const auto x = [&](double time) {
        const auto at = std::lower_bound(times.begin(), times.end(), time) - times.begin();
        const double position = positions.empty() ? 0 : positions[static_cast<std::size_t>(at)];
        return 2 + 96 * position / span;
    };
    const auto percent = [](double value) {
        char text[24];
        (void)std::snprintf(text, sizeof(text), "%.2f%%", value);
        return std::string(text);
    };

    std::size_t reports = 0;
    std::size_t refused = 0;
    std::string body;
    for (const auto& attempt : attempts) {
        if (attempt.marks.empty()) {
            continue;
        }
        const std::string verdict = attempt.refused   ? " refused"
                                    : attempt.granted ? " granted"
                                                      : "";
        refused += attempt.refused ? 1 : 0;
        body += "<section class=\"attempt" + verdict + "\"><h2 title=\"" + escape(attempt.title) +
                "\">" + escape(attempt.title) + "</h2>\n<div class=\"track\">";
        std::string list;
        for (const auto& mark : attempt.marks) {
            const bool diverged = divergence != 0 && mark.seq == divergence;
            const std::string when = clockText(mark.time);
            if (mark.from >= 0) {
                body += "<div class=\"wait\" style=\"left:" + percent(x(mark.from)) +
                        ";width:" + percent(x(mark.time) - x(mark.from)) + "\"></div>";
            }
            body += "<div class=\"mark " + mark.kind + mark.extra + (diverged ? " diverged" : "") +
                    "\" style=\"left:" + percent(x(mark.time)) + "\"";
            if (mark.kind == "report") {
                body += " data-report=\"" + std::to_string(mark.seq) + "\"";
                ++reports;
            }
            body += " title=\"" + escape(when + " #" + std::to_string(mark.seq) + " " + mark.text) +
                    "\">" + mark.symbol + "</div>";
            list += "<li class=\"" + mark.kind + mark.extra + (diverged ? " diverged" : "") +
                    "\">" + when + " #" + std::to_string(mark.seq) + " " + escape(mark.text) +
                    (diverged ? " \u2190 the replay diverged here" : "") + "</li>";
        }
        body += "</div>\n<ol class=\"events\">" + list + "</ol></section>\n";
    }

    std::string axis = "<div class=\"axis\">";
    const std::size_t step = std::max<std::size_t>(1, times.size() / 8);
    for (std::size_t i = 0; i < times.size(); i += step) {
        axis += "<span class=\"tick\" style=\"left:" + percent(x(times[i])) + "\">" +
                clockText(times[i]).substr(0, 8) + "</span>";
    }
    axis += "</div>\n";

    const std::string title = "auth_engine trace: " + trace.file;
    std::string page =
        "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">\n<title>" +
        escape(title) + "</title>\n<style>" + STYLE + "</style></head>\n<body>\n";
    page += "<h1>" + escape(title) + "</h1>\n<p class=\"meta\">";
    page += std::to_string(trace.events.size()) + " events, " +
            std::to_string(attempts.size() - 1) + " attempts (" + std::to_string(refused) +
            " refused), " + std::to_string(reports) + " reports; secrets " +
            escape(trace.header.value("secrets", std::string("?"))) + "; library " +
            escape(trace.header.value("library", std::string("?")));
    if (!times.empty()) {
        page += "; " + dateText(times.front()) + " " + clockText(times.front()) + " to " +
                dateText(times.back()) + " " + clockText(times.back()) + " (engine clock, UTC)";
    }
    if (divergence != 0) {
        page +=
            "; <strong>the replay diverged at event #" + std::to_string(divergence) + "</strong>";
    }
    page +=
        "</p>\n<p class=\"legend\"><span>\u25B6 attempt</span><span>? question to a "
        "peer</span><span>! answer (with its delay)</span><span>\u2713 granted "
        "report</span><span>\u2717 refused report</span><span>outlined: timeout</span></p>\n";
    page += axis + body + "</body></html>\n";
    return page;
}

}  // namespace

bool writeTraceHtml(const TraceData& trace, const std::string& file, uint64_t divergence) {
    Page page(trace);
    page.build();
    std::ofstream out(file, std::ios::binary);
    out << page.html(divergence);
    if (!out.flush()) {
        std::fprintf(stderr, "authsim: %s: cannot write the page\n", file.c_str());
        return false;
    }
    return true;
}

}  // namespace authsim
