// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// Scenario files and steps. A step is a JSON object {"do": VERB, ...}, or the same step written as
// one line of text, "VERB [positional values] [key=value ...]", as the shell reads it:
//
//   attempt card 1001 reader=external1 label=alice
//   answer antiPassback 5 result=FAILED
//   advance 31s
//   site config.unlockOptionsEnabled=true
//
// In the text form a value with commas is a list ("relays=1,2"; "[]" is the empty list) and a
// dotted key builds nested objects ("http.username=admin").
#pragma once

#include <optional>
#include <string>
#include <vector>

#include <auth_engine/AuthTypes.h>

#include "Json.h"
#include "Site.h"

namespace authsim {

/// What one report of an attempt must show; members left empty are not checked. Relay lists are
/// compared without regard to order.
struct Expectation {
    std::string attempt;  ///< label of the attempt; empty: the step's own, else the latest
    std::string path;     ///< where it was written, for messages
    std::optional<std::string> phase, reason, user, pendingId;
    std::optional<int> result, failCode, remoteFailCode;
    std::optional<bool> duress;
    std::optional<std::vector<std::string>> opened, failed, offered, targets;
};

struct Step {
    std::string verb;
    std::string where;  ///< "file: /steps/3" or "line 3"
    std::string note;
    std::string label;  ///< the attempt a step starts (attempt, verify-interlock, double-*)

    // attempt
    auth_engine::AuthRequest request;
    bool sync = false;
    // answer
    std::string check, key;
    json overrides;  ///< result, failCode, remoteFailCode, reason to answer with instead
    bool viaFacade = false;
    // choose (relays), site, chain (names), verify-interlock (targets), double-timeout/-cancel
    std::vector<std::string> relays;
    std::string attempt;  ///< choose: the attempt whose offer is answered
    json patch;
    json shown;  ///< site: the patch as written, for the transcript (typed values stay texts)
    std::vector<std::string> names;
    std::vector<auth_engine::AuthTarget> targets;
    std::string pendingId, reason;
    // advance / time
    int64_t seconds = 0;
    int64_t at = 0;

    bool hasExpect = false;
    std::vector<Expectation> expect;
};

struct Scenario {
    std::string file;
    std::string name;
    std::string description;
    std::vector<Step> steps;
};

/// A step as JSON: an object as it is, a line of text converted (with the values the schema says
/// are numbers, flags or lists converted too). Throws InputError for a text that is no step.
json prepareStep(const json& source);

/// Reads one step that the scenario schema has accepted. `site` checks site patches; `labels` holds
/// the attempt labels defined so far and receives this step's. Throws InputError with `where` as
/// the path prefix.
Step readStep(const json& value, const std::string& where, const Site& site,
              std::vector<std::string>& labels);

/// A step typed in the shell (text, or a JSON object): prepared, checked against the schema, read.
Step readTypedStep(const std::string& line, const Site& site, std::vector<std::string>& labels);

/// Reads a scenario file; errors name the file and the path inside it, every one found.
Scenario loadScenario(const std::string& file, const Site& site);

/// The verbs and their one-line forms, for help texts.
std::string stepHelp();
/// One verb's form and its keys with what each means; empty for an unknown verb.
std::string verbHelp(const std::string& verb);
/// The verbs' names.
std::vector<std::string> verbNames();

}  // namespace authsim
