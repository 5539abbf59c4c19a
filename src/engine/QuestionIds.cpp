// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// The one place that spells the ids of per-relay questions and relay phases. Hosts read the same
// formats in IDataProvider.h.
#include "engine/QuestionIds.h"

#include "auth_engine/IDataProvider.h"

namespace auth_engine {

namespace {

constexpr const char* kAntiPassbackInfix = "_ap_";
constexpr const char* kInterlockInfix = "_il_";
constexpr const char* kPhaseInfix = "_ind_";
constexpr std::size_t kRelayInfixLength = 4;

}  // namespace

std::string antiPassbackQuestionId(const std::string& requestId, const std::string& relay) {
    return requestId + kAntiPassbackInfix + relay;
}

std::string interlockQuestionId(const std::string& requestId, const std::string& relay) {
    return requestId + kInterlockInfix + relay;
}

std::string relayPhaseId(const std::string& requestId, const std::string& phase) {
    return requestId + kPhaseInfix + phase;
}

RelayQuestion relayQuestionOf(const std::string& id, const std::string& owner) {
    RelayQuestion question;
    if (id.size() < owner.size() + kRelayInfixLength || id.compare(0, owner.size(), owner) != 0) {
        return question;
    }
    if (id.compare(owner.size(), kRelayInfixLength, kAntiPassbackInfix) == 0) {
        question.kind = RelayQuestion::ANTI_PASSBACK;
    } else if (id.compare(owner.size(), kRelayInfixLength, kInterlockInfix) == 0) {
        question.kind = RelayQuestion::INTERLOCK;
    } else {
        return question;
    }
    question.relay = id.substr(owner.size() + kRelayInfixLength);
    return question;
}

}  // namespace auth_engine
