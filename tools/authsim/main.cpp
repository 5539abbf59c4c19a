// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// authsim: a reference host and door simulator for the authentication engine. It plays the host of
// one door device (its data comes from a site file) and the remote peers the engine asks, and runs
// scenario files (`authsim run`) or steps typed by hand (`authsim shell`), printing every report.
//
// Exit status: 0 when every expectation held, 1 on any mismatch, 2 for a bad site or scenario file.

#include <unistd.h>

#include <cstdio>
#include <iostream>
#include <string>
#include <vector>

#include <auth_engine/AuthLogger.h>
#include <CLI/CLI.hpp>

#include "Runner.h"
#include "Scenario.h"
#include "Site.h"

namespace {

using namespace authsim;

constexpr int EXIT_MISMATCH = 1;
constexpr int EXIT_BAD_INPUT = 2;

void routeEngineLog(bool toStderr) {
    if (toStderr) {
        auth_engine::AuthLogger::setSink(
            [](int, const std::string& line) { std::fprintf(stderr, "log: %s\n", line.c_str()); });
    } else {
        auth_engine::AuthLogger::setSink([](int, const std::string&) {});
    }
}

int runScenarios(const std::string& siteFile, const std::vector<std::string>& files, bool asJson) {
    // Everything is read before anything runs, so a typo in the last file costs no transcript.
    Site site;
    std::vector<Scenario> scenarios;
    try {
        site = loadSite(siteFile);
        for (const auto& file : files) {
            scenarios.push_back(loadScenario(file, site));
        }
    } catch (const InputError& e) {
        std::fprintf(stderr, "authsim: %s\n", e.what());
        return EXIT_BAD_INPUT;
    }
    int failed = 0;
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
    return failed == 0 ? 0 : EXIT_MISMATCH;
}

int runShell(const std::string& siteFile, bool asJson) {
    Site site;
    try {
        site = loadSite(siteFile);
    } catch (const InputError& e) {
        std::fprintf(stderr, "authsim: %s\n", e.what());
        return EXIT_BAD_INPUT;
    }
    const bool interactive = isatty(STDIN_FILENO) != 0;
    if (interactive) {
        std::printf("authsim shell on %s: one step per line; \"help\" lists them, \"quit\" ends.\n",
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
    while (true) {
        if (interactive) {
            std::printf("authsim> ");
            std::fflush(stdout);
        }
        if (!std::getline(std::cin, line)) {
            break;
        }
        ++number;
        const std::size_t first = line.find_first_not_of(" \t\r");
        if (first == std::string::npos || line[first] == '#') {
            continue;
        }
        line = line.substr(first);
        if (line == "quit" || line == "exit") {
            break;
        }
        if (line == "help") {
            std::printf("%s", stepHelp().c_str());
            continue;
        }
        try {
            // A line is a step in its text form, or a whole JSON step (which may carry "expect").
            const json value = line[0] == '{' ? json::parse(line) : json(line);
            runner.execute(readStep(value, "", site, labels), number);
        } catch (const InputError& e) {
            std::fprintf(stderr, "authsim: line %d: %s\n", number, e.what());
        } catch (const json::parse_error&) {
            std::fprintf(stderr, "authsim: line %d: not valid JSON\n", number);
        }
    }
    runner.finish();
    return runner.mismatches() == 0 ? 0 : EXIT_MISMATCH;
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{
        "authsim: reference host and door simulator for the authentication engine.\n"
        "A site file describes one door device; scenario files script attempts, remote\n"
        "answers and the passing of time, with the reports they must produce."};
    app.require_subcommand(1);
    std::string siteFile;
    std::vector<std::string> scenarioFiles;
    bool asJson = false;
    bool log = false;

    CLI::App* run = app.add_subcommand(
        "run", "Run scenario files against a site; exit 1 on any mismatch, 2 on a bad file");
    run->add_option("site", siteFile, "the site file (JSON)")->required();
    run->add_option("scenarios", scenarioFiles, "scenario files (JSON)")->required();
    run->add_flag("--json", asJson, "print each report as one JSON object per line");
    run->add_flag("--log", log, "copy the engine's log lines to standard error");

    CLI::App* shell = app.add_subcommand(
        "shell", "Read steps from standard input, one per line (\"help\" lists them)");
    shell->add_option("site", siteFile, "the site file (JSON)")->required();
    shell->add_flag("--json", asJson, "print each report as one JSON object per line");
    shell->add_flag("--log", log, "copy the engine's log lines to standard error");
    shell->footer("Steps:\n" + stepHelp());

    CLI11_PARSE(app, argc, argv);
    routeEngineLog(log);
    return run->parsed() ? runScenarios(siteFile, scenarioFiles, asJson)
                         : runShell(siteFile, asJson);
}
