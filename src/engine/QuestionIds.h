// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// Reading back the ids the engine asks the host under. The formats themselves are written once, in
// antiPassbackQuestionId, interlockQuestionId and relayPhaseId (QuestionIds.cpp).
#pragma once

#include <string>

namespace auth_engine {

/// Which per-relay question an answer id names, relative to the request or phase that asked it.
struct RelayQuestion {
    enum Kind { NONE, ANTI_PASSBACK, INTERLOCK };
    Kind kind = NONE;
    std::string relay;
};

/// The per-relay question `id` asks for `owner`: NONE unless `id` is
/// antiPassbackQuestionId(owner, relay) or interlockQuestionId(owner, relay).
RelayQuestion relayQuestionOf(const std::string& id, const std::string& owner);

}  // namespace auth_engine
