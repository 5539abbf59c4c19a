// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

#include <cstdio>
#include <fstream>
#include <utility>

#include <auth_engine/AuthFacade.h>

#include "TraceTools.h"

namespace authsim {

namespace {

// Room for every event of a long scenario run; a device would keep far fewer.
constexpr std::size_t RUN_CAPACITY = 1 << 18;

}  // namespace

TraceCapture::TraceCapture(TraceOutput output) : output(std::move(output)) {
    if (this->output.traceFile.empty() && this->output.htmlFile.empty()) {
        return;
    }
    recorder = std::make_shared<auth_engine::TraceRecorder>(RUN_CAPACITY);
    auth_engine::AuthFacade::getInstance().setTraceSink(recorder);
}

TraceCapture::~TraceCapture() {
    if (recorder) {
        auth_engine::AuthFacade::getInstance().setTraceSink(nullptr);
    }
}

bool TraceCapture::write() const {
    if (!recorder) {
        return true;
    }
    const std::string lines = recorder->jsonLines();
    if (!output.traceFile.empty()) {
        std::ofstream out(output.traceFile, std::ios::binary);
        out << lines;
        if (!out.flush()) {
            std::fprintf(stderr, "authsim: %s: cannot write the trace\n", output.traceFile.c_str());
            return false;
        }
    }
    if (!output.htmlFile.empty()) {
        const TraceData trace =
            parseTrace(lines, output.traceFile.empty() ? "the run's trace" : output.traceFile);
        if (!writeTraceHtml(trace, output.htmlFile)) {
            return false;
        }
    }
    return true;
}

}  // namespace authsim
