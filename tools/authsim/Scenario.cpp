// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

#include "Scenario.h"

#include <algorithm>
#include <cctype>

#include "Names.h"

namespace authsim {

using namespace auth_engine;

namespace {

struct Verb {
    const char* name;
    std::vector<std::string> positional;  ///< names of the values a text line gives without a key
    std::vector<std::string> keys;        ///< further keys the step accepts
    const char* help;
};

const std::vector<Verb>& verbs() {
    static const std::vector<Verb> table = {
        {"attempt",
         {"type", "credential"},
         {"label", "reader", "relays", "targets", "sync", "qr", "sourceCode", "pendingId",
          "direction", "virtualDoorExempt", "command", "requestText", "userText", "userText2",
          "http", "input", "dtmf", "relayKey"},
         "attempt TYPE [CREDENTIAL] [reader=..] [sync=true] [label=..] ...  present a credential"},
        {"answer",
         {"check", "relay"},
         {"key", "result", "failCode", "remoteFailCode", "reason", "via"},
         "answer CHECK [RELAY|KEY] [result=..] [failCode=..] [via=facade]  answer a held question"},
        {"choose",
         {"relays"},
         {"attempt"},
         "choose [RELAYS] [attempt=LABEL]  answer a relay choice"},
        {"advance", {"by"}, {}, "advance DURATION  move the simulated clock (31s, 2m, 1h, 1d)"},
        {"time", {"at"}, {}, "time YYYY-MM-DDTHH:MM:SS  set the simulated clock"},
        {"site",
         {},
         {},
         "site SECTION.KEY=VALUE ...  change the site (config, lockdown, remote...)"},
        {"chain", {"names"}, {}, "chain NAME,NAME,...  set the processor chain"},
        {"reset", {}, {}, "reset  shut the engine down"},
        {"init", {}, {}, "init  start the engine again"},
        {"double-timeout", {"pendingId"}, {}, "double-timeout ID  time out a waiting first factor"},
        {"double-cancel", {"pendingId", "reason"}, {}, "double-cancel ID [REASON]  cancel it"},
        {"verify-interlock", {"targets"}, {}, "verify-interlock RELAYS  ask interlock only"},
        {"note", {"text"}, {}, "note TEXT  print a comment"},
    };
    return table;
}

const Verb* findVerb(const std::string& name) {
    for (const auto& verb : verbs()) {
        if (name == verb.name) {
            return &verb;
        }
    }
    return nullptr;
}

struct Token {
    std::string text;
    std::size_t quoteAt = std::string::npos;  ///< where the first quoted part starts
};

std::vector<Token> tokenize(const std::string& line) {
    std::vector<Token> tokens;
    std::size_t i = 0;
    while (i < line.size()) {
        if (std::isspace(static_cast<unsigned char>(line[i])) != 0) {
            ++i;
            continue;
        }
        Token token;
        while (i < line.size() && std::isspace(static_cast<unsigned char>(line[i])) == 0) {
            if (line[i] != '"') {
                token.text += line[i++];
                continue;
            }
            const std::size_t close = line.find('"', i + 1);
            if (close == std::string::npos) {
                throw InputError("", "unterminated quote");
            }
            token.quoteAt = std::min(token.quoteAt, token.text.size());
            token.text += line.substr(i + 1, close - i - 1);
            i = close + 1;
        }
        tokens.push_back(token);
    }
    return tokens;
}

json textValue(const std::string& text, bool quoted) {
    if (quoted) {
        return text;
    }
    std::string body = text;
    if (body.size() >= 2 && body.front() == '[' && body.back() == ']') {
        body = body.substr(1, body.size() - 2);
    } else if (body.find(',') == std::string::npos) {
        return text;
    }
    json list = json::array();
    std::size_t start = 0;
    while (!body.empty() && start <= body.size()) {
        const std::size_t end = std::min(body.find(',', start), body.size());
        list.push_back(body.substr(start, end - start));
        start = end + 1;
    }
    return list;
}

void setDotted(json& object, const std::string& key, json value) {
    json* node = &object;
    std::size_t start = 0;
    for (std::size_t dot = key.find('.'); dot != std::string::npos; dot = key.find('.', start)) {
        node = &(*node)[key.substr(start, dot - start)];
        if (!node->is_object()) {
            *node = json::object();
        }
        start = dot + 1;
    }
    (*node)[key.substr(start)] = std::move(value);
}

template <typename T>
void readIf(const json& object, const std::string& key, const std::string& where, T& out,
            T (*reader)(const json&, const std::string&)) {
    if (object.contains(key)) {
        out = reader(object[key], childPath(where, key));
    }
}

template <typename Data>
std::shared_ptr<Data> newPart(const json& value, const std::string& path,
                              const std::vector<std::string>& keys) {
    checkKeys(value, path, keys);
    return std::make_shared<Data>();
}

void readAttempt(const json& value, const std::string& where, Step& step) {
    AuthRequest& request = step.request;
    if (!value.contains("type")) {
        throw InputError(where, "an attempt needs a \"type\" (card, pin, face, plate, ...)");
    }
    request.openType = readOpenType(value["type"], childPath(where, "type"));
    readIf(value, "credential", where, request.credential, readString);
    readIf(value, "reader", where, request.readerType, readReader);
    readIf(value, "relays", where, request.relays, readStringList);
    readIf(value, "targets", where, request.targets, readTargets);
    readIf(value, "sync", where, step.sync, readBool);
    readIf(value, "sourceCode", where, request.sourceCode, readInt);
    if (value.contains("qr") && readBool(value["qr"], childPath(where, "qr"))) {
        request.sourceCode = SOURCE_CODE_QR;
    }
    readIf(value, "pendingId", where, request.doubleAuthPendingId, readString);
    if (value.contains("direction")) {
        request.direction = readDirection(value["direction"], childPath(where, "direction"));
    }
    readIf(value, "virtualDoorExempt", where, request.virtualDoorExempt, readBool);
    readIf(value, "command", where, request.commandText, readString);
    readIf(value, "requestText", where, request.requestText, readString);
    readIf(value, "userText", where, request.userText, readString);
    readIf(value, "userText2", where, request.userText2, readString);
    if (value.contains("http")) {
        const std::string at = childPath(where, "http");
        const json& part = value["http"];
        auto http = newPart<HttpRequestData>(part, at,
                                             {"source", "authMode", "username", "password",
                                              "clientText", "preAuthenticated", "targets"});
        readIf(part, "source", at, http->source, readInt);
        readIf(part, "authMode", at, http->authMode, readInt);
        readIf(part, "username", at, http->username, readString);
        readIf(part, "password", at, http->password, readString);
        readIf(part, "clientText", at, http->clientText, readString);
        readIf(part, "preAuthenticated", at, http->preAuthenticated, readInt);
        readIf(part, "targets", at, http->targets, readTargets);
        request.httpData = http;
    }
    if (value.contains("input")) {
        const std::string at = childPath(where, "input");
        const json& part = value["input"];
        auto input = newPart<InputRequestData>(part, at, {"inputId", "inputState", "targets"});
        readIf(part, "inputId", at, input->inputId, readInt);
        readIf(part, "inputState", at, input->inputState, readInt);
        readIf(part, "targets", at, input->targets, readTargets);
        request.inputData = input;
    }
    if (value.contains("dtmf")) {
        const std::string at = childPath(where, "dtmf");
        const json& part = value["dtmf"];
        auto dtmf = newPart<DtmfRequestData>(
            part, at, {"dtmfCode", "remoteNumber", "remoteUsername", "callId"});
        readIf(part, "dtmfCode", at, dtmf->dtmfCode, readString);
        readIf(part, "remoteNumber", at, dtmf->remoteNumber, readString);
        readIf(part, "remoteUsername", at, dtmf->remoteUsername, readString);
        readIf(part, "callId", at, dtmf->callId, readString);
        request.dtmfData = dtmf;
    }
    if (value.contains("relayKey")) {
        const std::string at = childPath(where, "relayKey");
        const json& part = value["relayKey"];
        auto key = newPart<RelayKeyAuthData>(part, at, {"scheduleIds", "targets"});
        readIf(part, "scheduleIds", at, key->scheduleIds, readString);
        readIf(part, "targets", at, key->targets, readTargets);
        request.relayKeyData = key;
    }
}

Expectation readExpectation(const json& value, const std::string& path) {
    checkKeys(value, path,
              {"attempt", "phase", "result", "opened", "failed", "failCode", "reason", "offered",
               "user", "pendingId", "targets", "remoteFailCode"});
    Expectation expectation;
    expectation.path = path;
    readIf(value, "attempt", path, expectation.attempt, readString);
    const auto text = [&](const char* key, std::optional<std::string>& out) {
        if (value.contains(key)) {
            out = readString(value[key], childPath(path, key));
        }
    };
    const auto list = [&](const char* key, std::optional<std::vector<std::string>>& out) {
        if (value.contains(key)) {
            out = readStringList(value[key], childPath(path, key));
        }
    };
    const auto number = [&](const char* key, std::optional<int>& out) {
        if (value.contains(key)) {
            out = readInt(value[key], childPath(path, key));
        }
    };
    text("phase", expectation.phase);
    text("reason", expectation.reason);
    text("user", expectation.user);
    text("pendingId", expectation.pendingId);
    if (value.contains("result")) {
        expectation.result = readResult(value["result"], childPath(path, "result"));
    }
    number("failCode", expectation.failCode);
    number("remoteFailCode", expectation.remoteFailCode);
    list("opened", expectation.opened);
    list("failed", expectation.failed);
    list("offered", expectation.offered);
    list("targets", expectation.targets);
    return expectation;
}

std::string uniqueLabel(std::string label, const std::vector<std::string>& labels) {
    const std::string base = label;
    for (int n = 2; std::find(labels.begin(), labels.end(), label) != labels.end(); ++n) {
        label = base + "~" + std::to_string(n);
    }
    return label;
}

}  // namespace

json stepFromText(const std::string& line) {
    const std::vector<Token> tokens = tokenize(line);
    if (tokens.empty()) {
        throw InputError("", "empty step");
    }
    const Verb* verb = findVerb(tokens[0].text);
    if (verb == nullptr) {
        throw InputError("", "unknown step \"" + tokens[0].text + "\" (try: help)");
    }
    json step = {{"do", verb->name}};
    std::size_t nextPositional = 0;
    for (std::size_t i = 1; i < tokens.size(); ++i) {
        const Token& token = tokens[i];
        // key=value, unless the '=' is inside quotes; a quoted value is taken as it is.
        const std::size_t equals = token.text.find('=');
        if (equals != std::string::npos && equals > 0 && equals < token.quoteAt) {
            setDotted(step, token.text.substr(0, equals),
                      textValue(token.text.substr(equals + 1), token.quoteAt != std::string::npos));
        } else if (std::string(verb->name) == "note") {
            step["text"] = step.contains("text")
                               ? step["text"].get<std::string>() + " " + token.text
                               : token.text;
        } else if (nextPositional < verb->positional.size()) {
            step[verb->positional[nextPositional++]] =
                textValue(token.text, token.quoteAt != std::string::npos);
        } else {
            throw InputError("", "too many values for \"" + tokens[0].text + "\": " + token.text);
        }
    }
    return step;
}

Step readStep(const json& source, const std::string& where, const Site& site,
              std::vector<std::string>& labels) {
    const json value = source.is_string() ? stepFromText(source.get<std::string>()) : source;
    requireObject(value, where);
    if (!value.contains("do")) {
        throw InputError(where,
                         "a step needs \"do\" (attempt, answer, choose, advance, time, site, "
                         "chain, reset, init, double-timeout, double-cancel, "
                         "verify-interlock, note)");
    }
    Step step;
    step.where = where;
    step.verb = readString(value["do"], childPath(where, "do"));
    const Verb* verb = findVerb(step.verb);
    if (verb == nullptr) {
        throw InputError(childPath(where, "do"), "unknown step \"" + step.verb + "\"");
    }
    const bool patch = step.verb == "site";
    if (!patch) {
        std::vector<std::string> keys = {"do", "note", "expect"};
        keys.insert(keys.end(), verb->positional.begin(), verb->positional.end());
        keys.insert(keys.end(), verb->keys.begin(), verb->keys.end());
        if (step.verb == "attempt" || step.verb == "verify-interlock" ||
            step.verb.rfind("double-", 0) == 0) {
            keys.push_back("label");
        }
        checkKeys(value, where, keys);
    }
    readIf(value, "note", where, step.note, readString);

    const auto required = [&](const char* key) -> const json& {
        if (!value.contains(key)) {
            throw InputError(where, "\"" + step.verb + "\" needs \"" + key + "\"");
        }
        return value[key];
    };
    if (step.verb == "attempt") {
        readAttempt(value, where, step);
        step.label = openTypeName(step.request.openType) +
                     (step.request.credential.empty() ? "" : ":" + step.request.credential);
    } else if (step.verb == "answer") {
        step.check = readString(required("check"), childPath(where, "check"));
        const std::vector<std::string> checks = {"antiPassback", "interlock", "parking", "tempKey"};
        if (std::find(checks.begin(), checks.end(), step.check) == checks.end()) {
            throw InputError(childPath(where, "check"),
                             "expected antiPassback, interlock, parking or tempKey, got " +
                                 describe(value["check"]));
        }
        readIf(value, "relay", where, step.key, readString);
        readIf(value, "key", where, step.key, readString);
        step.overrides = json::object();
        for (const char* key : {"result", "failCode", "remoteFailCode", "reason"}) {
            if (value.contains(key)) {
                step.overrides[key] = value[key];
            }
        }
        readAnswer(step.overrides, where, RemoteAnswer{}, false);
        if (value.contains("via")) {
            const std::string via = readString(value["via"], childPath(where, "via"));
            if (via != "callback" && via != "facade") {
                throw InputError(childPath(where, "via"), "expected callback or facade");
            }
            step.viaFacade = via == "facade";
        }
    } else if (step.verb == "choose") {
        readIf(value, "relays", where, step.relays, readStringList);
        readIf(value, "attempt", where, step.attempt, readString);
        if (!step.attempt.empty() &&
            std::find(labels.begin(), labels.end(), step.attempt) == labels.end()) {
            throw InputError(childPath(where, "attempt"),
                             "no earlier attempt is labelled \"" + step.attempt + "\"");
        }
    } else if (step.verb == "advance") {
        step.seconds = readDuration(required("by"), childPath(where, "by"));
    } else if (step.verb == "time") {
        step.at = readTime(required("at"), childPath(where, "at"));
    } else if (patch) {
        step.patch = value;
        for (const char* key : {"do", "note", "expect"}) {
            step.patch.erase(key);
        }
        Site scratch = site;
        patchSite(scratch, step.patch, where);
    } else if (step.verb == "chain") {
        step.names = readStringList(required("names"), childPath(where, "names"));
    } else if (step.verb == "double-timeout" || step.verb == "double-cancel") {
        step.pendingId = readString(required("pendingId"), childPath(where, "pendingId"));
        readIf(value, "reason", where, step.reason, readString);
        step.label = step.verb;
    } else if (step.verb == "verify-interlock") {
        step.targets = readTargets(required("targets"), childPath(where, "targets"));
        step.label = "verify";
    } else if (step.verb == "note") {
        readIf(value, "text", where, step.note, readString);
    }

    if (!step.label.empty()) {
        if (value.contains("label")) {
            step.label = readString(value["label"], childPath(where, "label"));
            if (std::find(labels.begin(), labels.end(), step.label) != labels.end()) {
                throw InputError(childPath(where, "label"),
                                 "the label \"" + step.label + "\" is already used");
            }
        }
        step.label = uniqueLabel(step.label, labels);
    }
    // The step's own label counts for its expectations, but is kept only if the whole step reads.
    std::vector<std::string> known = labels;
    if (!step.label.empty()) {
        known.push_back(step.label);
    }
    if (value.contains("expect")) {
        step.hasExpect = true;
        const std::string at = childPath(where, "expect");
        if (!value["expect"].is_array()) {
            throw InputError(at, "expected a list of reports, got " + describe(value["expect"]));
        }
        for (std::size_t i = 0; i < value["expect"].size(); ++i) {
            Expectation expectation = readExpectation(value["expect"][i], childPath(at, i));
            if (!expectation.attempt.empty() &&
                std::find(known.begin(), known.end(), expectation.attempt) == known.end()) {
                throw InputError(childPath(childPath(at, i), "attempt"),
                                 "no attempt is labelled \"" + expectation.attempt + "\"");
            }
            if (expectation.attempt.empty() && known.empty()) {
                throw InputError(childPath(at, i), "there is no attempt yet to expect a report of");
            }
            step.expect.push_back(expectation);
        }
    }
    labels = known;
    return step;
}

Scenario loadScenario(const std::string& file, const Site& site) {
    try {
        const json root = parseJsonFile(file);
        checkKeys(root, "", {"name", "description", "steps"});
        Scenario scenario;
        scenario.file = file;
        readIf(root, "name", "", scenario.name, readString);
        readIf(root, "description", "", scenario.description, readString);
        if (!root.contains("steps") || !root["steps"].is_array()) {
            throw InputError("/steps", "expected a list of steps");
        }
        std::vector<std::string> labels;
        for (std::size_t i = 0; i < root["steps"].size(); ++i) {
            const std::string where = childPath("/steps", i);
            try {
                scenario.steps.push_back(readStep(root["steps"][i], where, site, labels));
            } catch (const InputError& e) {
                // A text step's own messages carry no path: give them the step's.
                if (e.path().empty()) {
                    throw InputError(where, e.message());
                }
                throw;
            }
        }
        return scenario;
    } catch (const InputError& e) {
        throw InputError(file + (e.path().empty() ? "" : ": " + e.path()), e.message());
    }
}

std::string stepHelp() {
    std::string text;
    for (const auto& verb : verbs()) {
        text += std::string("  ") + verb.help + "\n";
    }
    return text;
}

}  // namespace authsim
