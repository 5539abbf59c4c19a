// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

#include "Scenario.h"

#include <algorithm>
#include <cctype>
#include <memory>

#include "Names.h"
#include "Schema.h"

namespace authsim {

using namespace auth_engine;

namespace {

struct Verb {
    const char* name;
    std::vector<std::string> positional;  ///< names of the values a text line gives without a key
    const char* help;
};

// What keys each verb takes, and what they mean, is the scenario schema's to say; this table only
// knows how a text line gives values without a key.
const std::vector<Verb>& verbs() {
    static const std::vector<Verb> table = {
        {"attempt",
         {"type", "credential"},
         "attempt TYPE [CREDENTIAL] [reader=..] [sync=true] [label=..] ...  present a credential"},
        {"answer",
         {"check", "relay"},
         "answer CHECK [RELAY|key=KEY] [result=..] [failCode=..] [via=facade]  answer a held "
         "question"},
        {"choose", {"relays"}, "choose [RELAYS] [attempt=LABEL]  answer a relay choice"},
        {"advance", {"by"}, "advance DURATION  move the simulated clock (31s, 2m, 1h, 1d)"},
        {"time", {"at"}, "time YYYY-MM-DDTHH:MM:SS  set the simulated clock"},
        {"site", {}, "site SECTION.KEY=VALUE ...  change the site (config, lockdown, remote...)"},
        {"chain", {"names"}, "chain NAME,NAME,...  set the processor chain"},
        {"reset", {}, "reset  shut the engine down"},
        {"init", {}, "init  start the engine again"},
        {"double-timeout", {"pendingId"}, "double-timeout ID  time out a waiting first factor"},
        {"double-cancel", {"pendingId", "reason"}, "double-cancel ID [REASON]  cancel it"},
        {"verify-interlock", {"targets"}, "verify-interlock RELAYS  ask interlock only"},
        {"note", {"text"}, "note TEXT  print a comment"},
    };
    return table;
}

std::string joined(const std::vector<std::string>& names) {
    std::string text;
    for (const auto& name : names) {
        text += (text.empty() ? "" : ", ") + name;
    }
    return text;
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

void readAttempt(const json& value, const std::string& where, Step& step) {
    AuthRequest& request = step.request;
    request.openType = readOpenType(value["type"], childPath(where, "type"));
    if (value.contains("credential")) {
        request.credential = readString(value["credential"]);
    }
    if (value.contains("reader")) {
        request.readerType = readReader(value["reader"], childPath(where, "reader"));
    }
    if (value.contains("relays")) {
        request.relays = readStringList(value["relays"]);
    }
    if (value.contains("targets")) {
        request.targets = readTargets(value["targets"], childPath(where, "targets"));
    }
    step.sync = value.value("sync", false);
    request.sourceCode = value.value("sourceCode", request.sourceCode);
    if (value.value("qr", false)) {
        request.sourceCode = SOURCE_CODE_QR;
    }
    request.doubleAuthPendingId = value.value("pendingId", "");
    if (value.contains("direction")) {
        request.direction = readDirection(value["direction"], childPath(where, "direction"));
    }
    request.virtualDoorExempt = value.value("virtualDoorExempt", false);
    request.commandText = value.value("command", "");
    request.requestText = value.value("requestText", "");
    request.userText = value.value("userText", "");
    request.userText2 = value.value("userText2", "");
    if (value.contains("http")) {
        const json& part = value["http"];
        auto http = std::make_shared<HttpRequestData>();
        http->source = part.value("source", http->source);
        http->authMode = part.value("authMode", http->authMode);
        http->username = part.value("username", "");
        http->password = part.value("password", "");
        http->clientText = part.value("clientText", "");
        http->preAuthenticated = part.value("preAuthenticated", http->preAuthenticated);
        if (part.contains("targets")) {
            http->targets = readTargets(part["targets"], childPath(where, "http/targets"));
        }
        request.httpData = http;
    }
    if (value.contains("input")) {
        const json& part = value["input"];
        auto input = std::make_shared<InputRequestData>();
        input->inputId = part.value("inputId", input->inputId);
        input->inputState = part.value("inputState", input->inputState);
        if (part.contains("targets")) {
            input->targets = readTargets(part["targets"], childPath(where, "input/targets"));
        }
        request.inputData = input;
    }
    if (value.contains("dtmf")) {
        const json& part = value["dtmf"];
        auto dtmf = std::make_shared<DtmfRequestData>();
        dtmf->dtmfCode = part.value("dtmfCode", "");
        dtmf->remoteNumber = part.value("remoteNumber", "");
        dtmf->remoteUsername = part.value("remoteUsername", "");
        dtmf->callId = part.value("callId", "");
        request.dtmfData = dtmf;
    }
    if (value.contains("relayKey")) {
        const json& part = value["relayKey"];
        auto key = std::make_shared<RelayKeyAuthData>();
        key->scheduleIds = part.value("scheduleIds", "");
        if (part.contains("targets")) {
            key->targets = readTargets(part["targets"], childPath(where, "relayKey/targets"));
        }
        request.relayKeyData = key;
    }
}

Expectation readExpectation(const json& value, const std::string& path) {
    Expectation expectation;
    expectation.path = path;
    expectation.attempt = value.value("attempt", "");
    const auto text = [&](const char* key, std::optional<std::string>& out) {
        if (value.contains(key)) {
            out = value[key].get<std::string>();
        }
    };
    const auto list = [&](const char* key, std::optional<std::vector<std::string>>& out) {
        if (value.contains(key)) {
            out = readStringList(value[key]);
        }
    };
    const auto number = [&](const char* key, std::optional<int>& out) {
        if (value.contains(key)) {
            out = value[key].get<int>();
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
    if (value.contains("duress")) {
        expectation.duress = value["duress"].get<bool>();
    }
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
        const std::string guess = closest(tokens[0].text, verbNames());
        throw InputError("", "unknown step \"" + tokens[0].text + "\"" +
                                 (guess.empty() ? "" : ", did you mean \"" + guess + "\"?") +
                                 " (steps: " + joined(verbNames()) + ")");
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

namespace {

// The transcript shows a site step as it was written: a typed "delayMs=30" stays the text "30".
void keepAsWritten(Step& step, const json& source) {
    if (step.verb == "site" && source.is_string()) {
        step.shown = stepFromText(source.get<std::string>());
        for (const char* key : {"do", "note", "expect"}) {
            step.shown.erase(key);
        }
    }
}

}  // namespace

json prepareStep(const json& source) {
    if (!source.is_string()) {
        return source;
    }
    json step = stepFromText(source.get<std::string>());
    coerceStep(step);
    return step;
}

Step readStep(const json& value, const std::string& where, const Site& site,
              std::vector<std::string>& labels) {
    Step step;
    step.where = where;
    step.verb = value["do"].get<std::string>();
    step.note = value.value("note", "");
    if (step.verb == "attempt") {
        readAttempt(value, where, step);
        step.label = openTypeName(step.request.openType) +
                     (step.request.credential.empty() ? "" : ":" + step.request.credential);
    } else if (step.verb == "answer") {
        step.check = value["check"].get<std::string>();
        step.key = value.value("relay", value.value("key", ""));
        step.overrides = json::object();
        for (const char* key : {"result", "failCode", "remoteFailCode", "reason"}) {
            if (value.contains(key)) {
                step.overrides[key] = value[key];
            }
        }
        step.viaFacade = value.value("via", "callback") == "facade";
    } else if (step.verb == "choose") {
        if (value.contains("relays")) {
            step.relays = readStringList(value["relays"]);
        }
        step.attempt = value.value("attempt", "");
        if (!step.attempt.empty() &&
            std::find(labels.begin(), labels.end(), step.attempt) == labels.end()) {
            throw InputError(childPath(where, "attempt"),
                             "no earlier attempt is labelled \"" + step.attempt + "\"");
        }
    } else if (step.verb == "advance") {
        step.seconds = readDuration(value["by"], childPath(where, "by"));
    } else if (step.verb == "time") {
        step.at = readTime(value["at"], childPath(where, "at"));
    } else if (step.verb == "site") {
        step.patch = value;
        for (const char* key : {"do", "note", "expect"}) {
            step.patch.erase(key);
        }
        step.shown = step.patch;
        Site scratch = site;
        patchSite(scratch, step.patch, where);
    } else if (step.verb == "chain") {
        step.names = readStringList(value["names"]);
    } else if (step.verb == "double-timeout" || step.verb == "double-cancel") {
        step.pendingId = value["pendingId"].get<std::string>();
        step.reason = value.value("reason", "");
        step.label = step.verb;
    } else if (step.verb == "verify-interlock") {
        step.targets = readTargets(value["targets"], childPath(where, "targets"));
        step.label = "verify";
    } else if (step.verb == "note") {
        step.note = value.value("text", step.note);
    }

    if (!step.label.empty()) {
        if (value.contains("label")) {
            step.label = value["label"].get<std::string>();
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
        for (std::size_t i = 0; i < value["expect"].size(); ++i) {
            Expectation expectation = readExpectation(value["expect"][i], childPath(at, i));
            if (!expectation.attempt.empty() &&
                std::find(known.begin(), known.end(), expectation.attempt) == known.end()) {
                const std::string guess = closest(expectation.attempt, known);
                throw InputError(childPath(childPath(at, i), "attempt"),
                                 "no attempt is labelled \"" + expectation.attempt + "\"" +
                                     (guess.empty() ? "" : ", did you mean \"" + guess + "\"?"));
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

Step readTypedStep(const std::string& line, const Site& site, std::vector<std::string>& labels) {
    // A line is a step in its text form, or a whole JSON step (which may carry "expect").
    json value;
    if (line[0] == '{') {
        try {
            value = json::parse(line);
        } catch (const json::parse_error& e) {
            std::string reason = e.what();
            const std::size_t colon = reason.find(": ", reason.find("column"));
            throw InputError("",
                             "not valid JSON: " +
                                 (colon == std::string::npos ? reason : reason.substr(colon + 2)));
        }
    } else {
        value = prepareStep(json(line));
    }
    const std::vector<Problem> problems = validateStep(value);
    if (!problems.empty()) {
        throw InputError(problems);
    }
    Step step = readStep(value, "", site, labels);
    if (line[0] != '{') {
        keepAsWritten(step, json(line));
    }
    return step;
}

Scenario loadScenario(const std::string& file, const Site& site) {
    try {
        json root = parseJsonFile(file);
        const json written = root;
        // Text steps become their JSON form first, so that the schema checks them as well and
        // every problem of the file is reported at once.
        std::vector<Problem> problems;
        if (root.is_object() && root.contains("steps") && root["steps"].is_array()) {
            for (std::size_t i = 0; i < root["steps"].size(); ++i) {
                json& step = root["steps"][i];
                try {
                    step = prepareStep(step);
                } catch (const InputError& e) {
                    problems.push_back({childPath("/steps", i), e.message()});
                    step = json{{"do", "note"}};
                }
            }
        }
        for (auto& problem : validate(Format::SCENARIO, root)) {
            problems.push_back(problem);
        }
        if (!problems.empty()) {
            throw InputError(problems);
        }
        Scenario scenario;
        scenario.file = file;
        scenario.name = root.value("name", "");
        scenario.description = root.value("description", "");
        std::vector<std::string> labels;
        for (std::size_t i = 0; i < root["steps"].size(); ++i) {
            scenario.steps.push_back(
                readStep(root["steps"][i], childPath("/steps", i), site, labels));
            keepAsWritten(scenario.steps.back(), written["steps"][i]);
        }
        return scenario;
    } catch (const InputError& e) {
        throw e.within(file);
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

namespace authsim {

std::vector<std::string> verbNames() {
    std::vector<std::string> names;
    for (const auto& verb : verbs()) {
        names.emplace_back(verb.name);
    }
    return names;
}

std::string verbHelp(const std::string& name) {
    const Verb* verb = findVerb(name);
    if (verb == nullptr) {
        return "";
    }
    std::string text = std::string("  ") + verb->help + "\n";
    for (const auto& key : stepKeys(name)) {
        text += "    " + key.first + ": " + key.second + "\n";
    }
    return text;
}

}  // namespace authsim
