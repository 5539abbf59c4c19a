// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// The site and scenario formats, stated once as JSON Schemas (tools/authsim/schema/, installed for
// editors and people) and built into authsim, which checks every file against them with a JSON
// Schema validator before reading it. Only what a schema cannot say (that a date exists, that a
// relay id is one the engine can name, how long a duration may be) is checked while reading.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "Json.h"

namespace authsim {

enum class Format { SITE, SCENARIO };

/// Every violation of `document` against the format's schema, each with its JSON pointer, the
/// value and what the schema expects there; empty when the document is valid.
std::vector<Problem> validate(Format format, const json& document);

/// The same for one step of a scenario (an object; a step given as text is converted first).
std::vector<Problem> validateStep(const json& step);

/// Gives the texts of a step typed as one line the types the schema asks for where the text
/// spells one unambiguously: "31" -> 31 for a number, "true" -> true, "1" -> ["1"] for a list.
void coerceStep(json& step);

/// The keys a step of `verb` takes besides "do", each with the schema's description of it.
std::vector<std::pair<std::string, std::string>> stepKeys(const std::string& verb);

/// The closest of `candidates` to `word` (a likely typo), or an empty text when none is close.
std::string closest(const std::string& word, const std::vector<std::string>& candidates);

}  // namespace authsim
