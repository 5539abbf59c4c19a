// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

#include <cstdio>

#include "TraceTools.h"

namespace authsim {

int traceToScenario(const TraceData& trace, const std::string& siteFile,
                    const std::string& scenarioFile) {
    (void)trace;
    (void)siteFile;
    (void)scenarioFile;
    std::fprintf(stderr, "authsim: trace-to-scenario: not written yet\n");
    return 1;
}

}  // namespace authsim
