// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// authsim: a reference host and door simulator for the authentication engine. It plays the host of
// one door device (its data comes from a site file) and the remote peers the engine asks, and runs
// scenario files (`authsim run`) or steps typed by hand (`authsim shell`), printing every report.

#include <cstdio>
#include <exception>
#include <string>
#include <vector>

#include <auth_engine/AuthLogger.h>
#include <auth_engine/version.h>
#include <CLI/CLI.hpp>

#include "LineReader.h"
#include "Runner.h"
#include "Scenario.h"
#include "Schema.h"
#include "Site.h"
#include "TraceTools.h"

namespace {

using namespace authsim;

constexpr int EXIT_MISMATCH = 1;
constexpr int EXIT_BAD_INPUT = 2;
constexpr int EXIT_USAGE = 3;

const char* const EXIT_CODES =
    "Exit status:\n"
    "  0  every expectation held (also for --help and --version)\n"
    "  1  a report differed from what a step expects, or the engine did not start\n"
    "  2  a site, scenario or trace file was refused (every problem is listed), or\n"
    "     trace-to-scenario met a trace it cannot express\n"
    "  3  the command line was wrong\n";

void routeEngineLog(bool toStderr) {
    if (toStderr) {
        auth_engine::AuthLogger::setSink(
            [](int, const std::string& line) { std::fprintf(stderr, "log: %s\n", line.c_str()); });
    } else {
        auth_engine::AuthLogger::setSink([](int, const std::string&) {});
    }
}

void printProblems(const InputError& error, const std::string& prefix) {
    for (const auto& problem : error.problems()) {
        std::fprintf(stderr, "authsim: %s%s%s\n", prefix.c_str(),
                     problem.path.empty() ? "" : (problem.path + ": ").c_str(),
                     problem.message.c_str());
    }
}

bool readSite(const std::string& file, Site& site) {
    try {
        site = loadSite(file);
    } catch (const InputError& e) {
        printProblems(e, "");
        return false;
    }
    for (const auto& warning : scheduleWarnings(site)) {
        std::fprintf(stderr, "authsim: warning: %s: %s\n", file.c_str(), warning.c_str());
    }
    return true;
}

int runScenarios(const std::string& siteFile, const std::vector<std::string>& files, bool asJson,
                 const TraceOutput& output) {
    // Everything is read before anything runs, so a typo in the last file costs no transcript;
    // every file is read, so that one run lists every problem.
    Site site;
    if (!readSite(siteFile, site)) {
        return EXIT_BAD_INPUT;
    }
    std::vector<Scenario> scenarios;
    bool refused = false;
    for (const auto& file : files) {
        try {
            scenarios.push_back(loadScenario(file, site));
        } catch (const InputError& e) {
            printProblems(e, "");
            refused = true;
        }
    }
    if (refused) {
        return EXIT_BAD_INPUT;
    }
    int failed = 0;
    const TraceCapture capture(output);
    for (const auto& scenario : scenarios) {
        RunOptions options;
        options.json = asJson;
        options.scenario = scenario.file;
        if (!asJson) {
            std::printf("== %s: %s\n", scenario.file.c_str(),
                        scenario.name.empty() ? "(unnamed)" : scenario.name.c_str());
            if (!scenario.description.empty()) {
                std::printf("   %s\n", scenario.description.c_str());
            }
        }
        Runner runner(site, options);
        int mismatches = 1;
        if (runner.start()) {
            for (std::size_t i = 0; i < scenario.steps.size(); ++i) {
                runner.execute(scenario.steps[i], static_cast<int>(i) + 1);
            }
            runner.finish();
            mismatches = runner.mismatches();
        }
        failed += mismatches > 0 ? 1 : 0;
        if (!asJson) {
            std::printf("== %s: %s (%zu steps, %d reports, %d mismatches)\n\n",
                        scenario.file.c_str(), mismatches == 0 ? "PASS" : "FAIL",
                        scenario.steps.size(), runner.reports(), mismatches);
        }
        std::fflush(stdout);
    }
    if (!asJson && scenarios.size() > 1) {
        std::printf("== %zu scenarios, %d failed\n", scenarios.size(), failed);
    }
    if (!capture.write()) {
        return EXIT_MISMATCH;
    }
    return failed == 0 ? 0 : EXIT_MISMATCH;
}

const char* const SHELL_COMMANDS =
    "  help [VERB]  the steps, or one step's keys\n"
    "  status  the time, the chain, the questions waiting, open choices and second factors\n"
    "  quit  end (so does the end of input); the exit status says whether a step's expect failed\n";

// "help", "help VERB", "status", or a step. Nothing typed ends the shell but quit and the end of
// input: a bad step is reported and the next line is read.
void shellLine(const std::string& line, int number, Runner& runner, const Site& site,
               std::vector<std::string>& labels) {
    const std::size_t space = line.find_first_of(" \t");
    const std::string word = line.substr(0, space);
    const std::size_t argument = line.find_first_not_of(" \t", space);
    const std::string rest = argument == std::string::npos ? "" : line.substr(argument);
    if (word == "help") {
        if (rest.empty()) {
            std::printf("Steps:\n%sShell:\n%s", stepHelp().c_str(), SHELL_COMMANDS);
        } else if (!verbHelp(rest).empty()) {
            std::printf("%s", verbHelp(rest).c_str());
        } else {
            const std::string guess = closest(rest, verbNames());
            std::fprintf(stderr, "authsim: line %d: no step \"%s\"%s\n", number, rest.c_str(),
                         guess.empty() ? "" : (", did you mean \"" + guess + "\"?").c_str());
        }
        return;
    }
    if (word == "status" && rest.empty()) {
        std::printf("%s", runner.status().c_str());
        return;
    }
    try {
        runner.execute(readTypedStep(line, site, labels), number);
    } catch (const InputError& e) {
        printProblems(e, "line " + std::to_string(number) + ": ");
    } catch (const std::exception& e) {
        std::fprintf(stderr, "authsim: line %d: %s\n", number, e.what());
    }
}

int runShell(const std::string& siteFile, bool asJson) {
    Site site;
    if (!readSite(siteFile, site)) {
        return EXIT_BAD_INPUT;
    }
    std::vector<std::string> words = verbNames();
    words.insert(words.end(), {"help", "status", "quit"});
    LineReader reader("authsim> ", words);
    if (reader.interactive()) {
        std::printf(
            "authsim shell on %s: one step per line; \"help\" lists them, \"status\" shows what "
            "waits, \"quit\" ends.\n",
            site.name.empty() ? siteFile.c_str() : site.name.c_str());
    }
    RunOptions options;
    options.json = asJson;
    options.strict = false;
    options.scenario = "shell";
    Runner runner(site, options);
    if (!runner.start()) {
        return EXIT_MISMATCH;
    }
    std::vector<std::string> labels;
    std::string line;
    int number = 0;
    while (reader.read(line)) {
        ++number;
        const std::size_t first = line.find_first_not_of(" \t\r");
        if (first == std::string::npos || line[first] == '#') {
            continue;
        }
        line = line.substr(first, line.find_last_not_of(" \t\r") - first + 1);
        if (line == "quit" || line == "exit") {
            break;
        }
        shellLine(line, number, runner, site, labels);
    }
    runner.finish();
    return runner.mismatches() == 0 ? 0 : EXIT_MISMATCH;
}

std::string versionText() {
    return std::string("authsim ") + AUTHSIM_VERSION + "\nauth_engine library " +
           auth_engine::libraryVersion() + " (built against " AUTH_ENGINE_VERSION_STRING ")\n" +
           "line editing: " + (LineReader::editing() ? "libedit" : "none (plain reading)");
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{
        "authsim: reference host and door simulator for the authentication engine.\n"
        "A site file describes one door device; scenario files script attempts, remote\n"
        "answers and the passing of time, with the reports they must produce. Both are\n"
        "checked against the JSON Schemas site.schema.json and scenario.schema.json."};
    app.require_subcommand(1);
    app.set_version_flag("--version", versionText(),
                         "print the versions of authsim and the library");
    app.footer(std::string("Steps (scenario files and the shell):\n") + stepHelp() + "\n" +
               EXIT_CODES);
    std::string siteFile;
    std::vector<std::string> scenarioFiles;
    bool asJson = false;
    bool log = false;
    TraceOutput traceOutput;
    std::string traceFile;
    std::string htmlFile;

    CLI::App* run = app.add_subcommand(
        "run", "Run scenario files against a site; exit 1 on any mismatch, 2 on a bad file");
    run->add_option("site", siteFile, "the site file (JSON)")->required();
    run->add_option("scenarios", scenarioFiles, "scenario files (JSON)")->required();
    run->add_flag("--json", asJson, "print each report as one JSON object per line");
    run->add_flag("--log", log, "copy the engine's log lines to standard error");
    run->add_option("--trace", traceOutput.traceFile,
                    "write the library's trace of the run to FILE (JSON lines; for replay)");
    run->add_option("--html", traceOutput.htmlFile,
                    "write a page with a timeline per attempt to FILE (self-contained HTML)");
    run->footer(EXIT_CODES);

    CLI::App* shell = app.add_subcommand(
        "shell", "Read steps from standard input, one per line (\"help\" lists them)");
    shell->add_option("site", siteFile, "the site file (JSON)")->required();
    shell->add_flag("--json", asJson, "print each report as one JSON object per line");
    shell->add_flag("--log", log, "copy the engine's log lines to standard error");
    shell->footer("Steps:\n" + stepHelp() + "Shell:\n" + SHELL_COMMANDS + "\n" + EXIT_CODES);

    CLI::App* replay = app.add_subcommand(
        "replay",
        "Replay a trace (from run --trace or a device's TraceRecorder) against the engine: the\n"
        "host answers as recorded, the clocks read as recorded, the facade calls are made again,\n"
        "and every report must be the recorded one; exit 1 at the first divergence, which is\n"
        "printed with the events around it");
    replay->add_option("trace", traceFile, "the trace file (JSON lines)")->required();
    replay->add_option("--html", htmlFile, "also write the trace's timeline page to FILE");
    replay->add_flag("--log", log, "copy the engine's log lines to standard error");
    replay->footer(EXIT_CODES);

    std::string siteOut;
    std::string scenarioOut;
    CLI::App* toScenario = app.add_subcommand(
        "trace-to-scenario",
        "Turn a trace into a site file and a scenario file that reproduce it: the facade calls\n"
        "become steps, the recorded reports their expectations, the host's answers the site.\n"
        "Warns on stderr about what the files cannot express; exit 2 for a trace they cannot\n"
        "express at all (the event is named)");
    toScenario->add_option("trace", traceFile, "the trace file (JSON lines)")->required();
    toScenario->add_option("--site", siteOut,
                           "write the site to FILE (default: the trace's name, .site.json)");
    toScenario->add_option(
        "--scenario", scenarioOut,
        "write the scenario to FILE (default: the trace's name, .scenario.json)");
    toScenario->footer(EXIT_CODES);

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        return app.exit(e) == 0 ? 0 : EXIT_USAGE;
    }
    routeEngineLog(log);
    if (replay->parsed() || toScenario->parsed()) {
        TraceData trace;
        try {
            trace = loadTrace(traceFile);
        } catch (const InputError& e) {
            printProblems(e, "");
            return EXIT_BAD_INPUT;
        }
        if (replay->parsed()) {
            return replayTrace(trace, htmlFile);
        }
        // door.trace.jsonl -> door.trace.site.json and door.trace.scenario.json, beside it
        const std::string stem = traceFile.substr(0, traceFile.rfind(".jsonl"));
        return traceToScenario(trace, siteOut.empty() ? stem + ".site.json" : siteOut,
                               scenarioOut.empty() ? stem + ".scenario.json" : scenarioOut);
    }
    return run->parsed() ? runScenarios(siteFile, scenarioFiles, asJson, traceOutput)
                         : runShell(siteFile, asJson);
}
