// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

#include "Schema.h"

#include <algorithm>
#include <cctype>
#include <regex>

#include <valijson/adapters/nlohmann_json_adapter.hpp>
#include <valijson/schema.hpp>
#include <valijson/schema_parser.hpp>
#include <valijson/validation_results.hpp>
#include <valijson/validator.hpp>

namespace authsim {

// The schema files' texts, embedded at build time (see CMakeLists.txt): authsim then needs no
// file beside it, whether it runs from the build tree, an install prefix or a copied binary.
extern const char* const SITE_SCHEMA_TEXT;
extern const char* const SCENARIO_SCHEMA_TEXT;

namespace {

const char* const SITE_SCHEMA_NAME = "site.schema.json";

struct Schemas {
    json siteDocument = json::parse(SITE_SCHEMA_TEXT);
    json scenarioDocument = json::parse(SCENARIO_SCHEMA_TEXT);
    valijson::Schema site;
    valijson::Schema scenario;

    Schemas() {
        valijson::SchemaParser parser;
        // The scenario schema refers to the site schema by its file name, as an editor reading
        // the installed files does.
        // The parser borrows the document; nothing is allocated, so nothing is released.
        const auto fetch = [this](const std::string& uri) -> const json* {
            return uri.rfind(SITE_SCHEMA_NAME, 0) == 0 ? &siteDocument : nullptr;
        };
        const auto release = [](const json*) {};
        parser.populateSchema(valijson::adapters::NlohmannJsonAdapter(siteDocument), site);
        parser.populateSchema(valijson::adapters::NlohmannJsonAdapter(scenarioDocument), scenario,
                              fetch, release);
    }

    const json& document(Format format) const {
        return format == Format::SITE ? siteDocument : scenarioDocument;
    }
};

const Schemas& schemas() {
    static const Schemas instance;
    return instance;
}

// A member of a schema node, or an empty object when it has none (never a temporary: loops hold
// on to it).
const json& memberOf(const json& schema, const char* key) {
    static const json none = json::object();
    return schema.is_object() && schema.contains(key) ? schema[key] : none;
}

// A place in a schema: the node and the document its "$ref"s are resolved in.
struct Node {
    const json* schema = nullptr;
    const json* document = nullptr;
};

Node resolve(Node node) {
    for (int depth = 0; depth < 16 && node.schema->is_object() && node.schema->contains("$ref");
         ++depth) {
        const std::string ref = node.schema->at("$ref").get<std::string>();
        const std::size_t hash = ref.find('#');
        const std::string file = ref.substr(0, hash);
        if (!file.empty()) {
            node.document =
                file == SITE_SCHEMA_NAME ? &schemas().siteDocument : &schemas().scenarioDocument;
        }
        const std::string pointer = hash == std::string::npos ? "" : ref.substr(hash + 1);
        node.schema = &node.document->at(json::json_pointer(pointer));
    }
    return node;
}

const char* typeName(const json& value) {
    switch (value.type()) {
        case json::value_t::object:
            return "object";
        case json::value_t::array:
            return "array";
        case json::value_t::string:
            return "string";
        case json::value_t::boolean:
            return "boolean";
        case json::value_t::null:
            return "null";
        case json::value_t::number_float:
            return "number";
        default:
            return "integer";
    }
}

bool typeListed(const json& type, const std::string& name) {
    const auto matches = [&](const json& entry) {
        return entry == name || (entry == "number" && name == "integer");
    };
    if (type.is_array()) {
        return std::any_of(type.begin(), type.end(), matches);
    }
    return matches(type);
}

// Whether a node (resolved, branches included) admits values of the JSON type `name`.
bool admitsType(Node node, const std::string& name) {
    node = resolve(node);
    const json& schema = *node.schema;
    if (!schema.is_object()) {
        return schema != false;
    }
    if (schema.contains("type")) {
        return typeListed(schema["type"], name);
    }
    for (const char* choice : {"anyOf", "oneOf"}) {
        if (schema.contains(choice)) {
            return std::any_of(schema[choice].begin(), schema[choice].end(),
                               [&](const json& branch) {
                                   return admitsType({&branch, node.document}, name);
                               });
        }
    }
    if (schema.contains("enum")) {
        return std::any_of(schema["enum"].begin(), schema["enum"].end(),
                           [&](const json& entry) { return typeName(entry) == name; });
    }
    if (schema.contains("if") && schema.contains("then") && schema.contains("else")) {
        return admitsType({&schema["then"], node.document}, name) ||
               admitsType({&schema["else"], node.document}, name);
    }
    return true;
}

// The conditions the schemas use in "if": a type, required keys and constant members.
bool conditionHolds(const json& condition, const json& value) {
    if (condition.contains("type") && !typeListed(condition["type"], typeName(value))) {
        return false;
    }
    if (!value.is_object()) {
        return !condition.contains("required") && !condition.contains("properties");
    }
    for (const auto& key : memberOf(condition, "required")) {
        if (!value.contains(key.get<std::string>())) {
            return false;
        }
    }
    for (const auto& member : memberOf(condition, "properties").items()) {
        if (!value.contains(member.key())) {
            continue;
        }
        const json& want = member.value();
        const json& got = value[member.key()];
        if ((want.contains("const") && want["const"] != got) ||
            (want.contains("enum") &&
             std::find(want["enum"].begin(), want["enum"].end(), got) == want["enum"].end())) {
            return false;
        }
    }
    return true;
}

// The nodes that apply to `value` at `node`: the node itself and the branches of its conditions
// and alternatives that fit the value.
void applicable(Node node, const json& value, std::vector<Node>& out) {
    node = resolve(node);
    out.push_back(node);
    const json& schema = *node.schema;
    if (!schema.is_object()) {
        return;
    }
    if (schema.contains("if")) {
        const char* branch = conditionHolds(schema["if"], value) ? "then" : "else";
        if (schema.contains(branch)) {
            applicable({&schema[branch], node.document}, value, out);
        }
    }
    for (const auto& part : memberOf(schema, "allOf")) {
        applicable({&part, node.document}, value, out);
    }
    for (const char* choice : {"anyOf", "oneOf"}) {
        for (const auto& branch : memberOf(schema, choice)) {
            if (admitsType({&branch, node.document}, typeName(value))) {
                applicable({&branch, node.document}, value, out);
                break;
            }
        }
    }
}

// The node that states what a member (`key`) of an object, or an element of a list, must be.
bool childNode(const std::vector<Node>& nodes, const json& value, const std::string& key,
               Node& child) {
    for (const Node& node : nodes) {
        const json& schema = *node.schema;
        if (!schema.is_object()) {
            continue;
        }
        if (value.is_array() && schema.contains("items")) {
            child = {&schema["items"], node.document};
            return true;
        }
        if (schema.contains("properties") && schema["properties"].contains(key)) {
            child = {&schema["properties"][key], node.document};
            return true;
        }
        for (const auto& pattern : memberOf(schema, "patternProperties").items()) {
            if (std::regex_search(key, std::regex(pattern.key()))) {
                child = {&pattern.value(), node.document};
                return true;
            }
        }
    }
    for (const Node& node : nodes) {
        if (node.schema->is_object() && node.schema->contains("additionalProperties") &&
            node.schema->at("additionalProperties").is_object()) {
            child = {&node.schema->at("additionalProperties"), node.document};
            return true;
        }
    }
    return false;
}

std::vector<std::string> knownKeys(const std::vector<Node>& nodes) {
    std::vector<std::string> keys;
    for (const Node& node : nodes) {
        for (const auto& member : memberOf(*node.schema, "properties").items()) {
            if (std::find(keys.begin(), keys.end(), member.key()) == keys.end()) {
                keys.push_back(member.key());
            }
        }
    }
    return keys;
}

std::string textOf(const std::string& prefix, double number) {
    const auto whole = static_cast<long long>(number);
    return prefix +
           (static_cast<double>(whole) == number ? std::to_string(whole) : std::to_string(number));
}

// What a node expects, in words: its title, with the range of a number that has one.
std::string expectation(Node declared) {
    const Node node = resolve(declared);
    const json& schema = *node.schema;
    std::string text = schema.value("title", "");
    if (text.empty() && schema.contains("enum")) {
        for (const auto& entry : schema["enum"]) {
            text += (text.empty() ? "one of: " : ", ") +
                    (entry.is_string() ? entry.get<std::string>() : entry.dump());
        }
    }
    if (text.empty()) {
        text = schema.contains("type") ? "a value of type " + schema["type"].dump() : "a value";
    }
    if (schema.contains("minimum") && schema.contains("maximum") && !schema.contains("enum")) {
        text += textOf(" from ", schema["minimum"].get<double>()) +
                textOf(" to ", schema["maximum"].get<double>());
    }
    return text;
}

std::string escapeKey(const std::string& key) {
    std::string out;
    for (const char c : key) {
        out += c == '~' ? "~0" : c == '/' ? "~1" : std::string(1, c);
    }
    return out;
}

class Reporter {
public:
    Reporter(const json& document, Node root) : document(document), root(root) {}

    void add(const std::vector<std::string>& context, const std::string& description) {
        // Errors that only say that a part failed repeat what their parts report.
        if (description.rfind("Failed to validate", 0) == 0 ||
            description.rfind("Cannot validate item", 0) == 0) {
            return;
        }
        std::string pointer;
        const json* value = &document;
        Node node = root;
        bool known = true;
        for (std::size_t i = 1; i < context.size(); ++i) {
            const std::string key = context[i].substr(1, context[i].size() - 2);
            std::vector<Node> nodes;
            applicable(node, *value, nodes);
            known = known && childNode(nodes, *value, key, node);
            value = value->is_array() ? &value->at(std::stoul(key)) : &value->at(key);
            pointer += "/" + escapeKey(key);
        }
        if (description.rfind("Object contains a property", 0) == 0) {
            unknownKeys(pointer, *value, node);
        } else if (description.rfind("Missing required property '", 0) == 0) {
            const std::size_t start = description.find('\'') + 1;
            const std::string key = description.substr(start, description.rfind('\'') - start);
            std::vector<Node> nodes;
            applicable(node, *value, nodes);
            Node child;
            push(pointer, "needs \"" + key + "\"" +
                              (childNode(nodes, *value, key, child) ? ": " + expectation(child)
                                                                    : std::string()));
        } else if (known) {
            push(pointer, "expected " + expectation(node) + ", got " + describe(*value) +
                              suggestion(*value, node));
        } else {
            push(pointer, description);
        }
    }

    std::vector<Problem> problems;

private:
    void push(const std::string& path, const std::string& message) {
        for (const auto& problem : problems) {
            if (problem.path == path && problem.message == message) {
                return;
            }
        }
        problems.push_back({path, message});
    }

    // The validator names only the first unknown key of an object; every one is reported.
    void unknownKeys(const std::string& pointer, const json& object, Node node) {
        std::vector<Node> nodes;
        applicable(node, object, nodes);
        const std::vector<std::string> keys = knownKeys(nodes);
        std::string list;
        for (const auto& key : keys) {
            list += (list.empty() ? "" : ", ") + key;
        }
        for (const auto& member : object.items()) {
            Node child;
            if (childNode(nodes, object, member.key(), child)) {
                continue;
            }
            const std::string guess = closest(member.key(), keys);
            push(pointer + "/" + escapeKey(member.key()),
                 "unknown key" + (guess.empty() ? "" : ", did you mean \"" + guess + "\"?") +
                     " (expected one of: " + list + ")");
        }
    }

    static std::string suggestion(const json& value, Node node) {
        if (!value.is_string()) {
            return "";
        }
        std::vector<std::string> names;
        std::vector<Node> nodes;
        const json text = value;
        applicable(node, text, nodes);
        for (const Node& each : nodes) {
            for (const auto& entry : memberOf(*each.schema, "enum")) {
                if (entry.is_string()) {
                    names.push_back(entry.get<std::string>());
                }
            }
        }
        const std::string guess = closest(value.get<std::string>(), names);
        return guess.empty() ? "" : ", did you mean \"" + guess + "\"?";
    }

    const json& document;
    const Node root;
};

std::vector<Problem> check(const valijson::Schema& schema, const json& document, Node root) {
    valijson::Validator validator;
    valijson::ValidationResults results;
    if (validator.validate(schema, valijson::adapters::NlohmannJsonAdapter(document), &results)) {
        return {};
    }
    Reporter reporter(document, root);
    valijson::ValidationResults::Error error;
    while (results.popError(error)) {
        reporter.add(error.context, error.description);
    }
    return reporter.problems;
}

bool parseInteger(const std::string& text, long long& out) {
    if (text.empty() || text.find_first_not_of("-0123456789") != std::string::npos) {
        return false;
    }
    try {
        std::size_t used = 0;
        out = std::stoll(text, &used);
        return used == text.size();
    } catch (const std::exception&) {
        return false;
    }
}

void coerce(json& value, Node node) {
    if (value.is_string()) {
        const std::string text = value.get<std::string>();
        long long number = 0;
        if (admitsType(node, "integer") && parseInteger(text, number)) {
            value = number;
        } else if (admitsType(node, "boolean") && (text == "true" || text == "false")) {
            value = text == "true";
        } else if (!admitsType(node, "string") && admitsType(node, "array")) {
            value = json::array({text});
        }
        if (!value.is_array()) {
            return;
        }
    }
    if (!value.is_array() && !value.is_object()) {
        return;
    }
    std::vector<Node> nodes;
    applicable(node, value, nodes);
    if (value.is_array()) {
        Node items;
        if (childNode(nodes, value, "", items)) {
            for (auto& element : value) {
                coerce(element, items);
            }
        }
        return;
    }
    for (auto& member : value.items()) {
        Node child;
        if (childNode(nodes, value, member.key(), child)) {
            coerce(member.value(), child);
        }
    }
}

Node stepNode() {
    const json& document = schemas().scenarioDocument;
    return {&document["definitions"]["step"], &document};
}

}  // namespace

std::vector<Problem> validate(Format format, const json& document) {
    const Schemas& all = schemas();
    const json& root = all.document(format);
    return check(format == Format::SITE ? all.site : all.scenario, document, {&root, &root});
}

std::vector<Problem> validateStep(const json& step) {
    // The step is checked as the one step of a scenario, and reported as the step itself.
    const json scenario = {{"steps", json::array({step})}};
    std::vector<Problem> problems = validate(Format::SCENARIO, scenario);
    const std::string prefix = "/steps/0";
    for (auto& problem : problems) {
        problem.path =
            problem.path.rfind(prefix, 0) == 0 ? problem.path.substr(prefix.size()) : problem.path;
    }
    return problems;
}

void coerceStep(json& step) {
    coerce(step, stepNode());
}

std::vector<std::pair<std::string, std::string>> stepKeys(const std::string& verb) {
    std::vector<Node> nodes;
    applicable(stepNode(), json{{"do", verb}}, nodes);
    std::vector<std::pair<std::string, std::string>> keys;
    for (const auto& key : knownKeys(nodes)) {
        Node child;
        if (key == "do" || !childNode(nodes, json::object(), key, child)) {
            continue;
        }
        const Node resolved = resolve(child);
        std::string text = child.schema->value("description", "");
        if (text.empty()) {
            text = resolved.schema->value("description", expectation(child));
        }
        keys.emplace_back(key, text);
    }
    return keys;
}

std::string closest(const std::string& word, const std::vector<std::string>& candidates) {
    // Edit distance with transpositions, case-insensitive; a guess is offered only when it is
    // about one slip per four letters away.
    const auto lower = [](std::string text) {
        std::transform(text.begin(), text.end(), text.begin(),
                       [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
        return text;
    };
    const std::string a = lower(word);
    std::string best;
    std::size_t bestDistance = std::max<std::size_t>(1, a.size() / 4) + 1;
    for (const auto& candidate : candidates) {
        const std::string b = lower(candidate);
        std::vector<std::vector<std::size_t>> d(a.size() + 1,
                                                std::vector<std::size_t>(b.size() + 1, 0));
        for (std::size_t i = 0; i <= a.size(); ++i) {
            d[i][0] = i;
        }
        for (std::size_t j = 0; j <= b.size(); ++j) {
            d[0][j] = j;
        }
        for (std::size_t i = 1; i <= a.size(); ++i) {
            for (std::size_t j = 1; j <= b.size(); ++j) {
                const std::size_t cost = a[i - 1] == b[j - 1] ? 0 : 1;
                d[i][j] = std::min({d[i - 1][j] + 1, d[i][j - 1] + 1, d[i - 1][j - 1] + cost});
                if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1]) {
                    d[i][j] = std::min(d[i][j], d[i - 2][j - 2] + 1);
                }
            }
        }
        if (d[a.size()][b.size()] < bestDistance && candidate != word) {
            bestDistance = d[a.size()][b.size()];
            best = candidate;
        }
    }
    return best;
}

}  // namespace authsim
