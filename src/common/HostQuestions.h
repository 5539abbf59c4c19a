// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// What a processor that asks the host needs of the engine, and no more: register a per-relay
// question before asking it, and get the callback that carries an answer back. The engine
// implements it; processors never see the engine itself.
#pragma once

#include <string>

#include "auth_engine/AuthTypes.h"
#include "auth_engine/IAuthProcessor.h"

namespace auth_engine {

class AuthEngine;

class HostQuestions {
public:
    virtual ~HostQuestions() = default;
    /// Registers the per-relay question `questionId` of the request or phase `askingId` (made with
    /// antiPassbackQuestionId or interlockQuestionId), before it is asked: the host may answer from
    /// inside the call.
    virtual void registerQuestion(const std::string& questionId, const std::string& askingId) = 0;
    /// The callback to hand to the host for the question asked under `questionId`; its first
    /// answer counts. With an empty id, the id the host passes routes the answer.
    virtual AuthCallback answerTo(const std::string& questionId) = 0;
};

/// The questions of `engine` (null for a null engine). Defined by the engine.
HostQuestions* hostQuestionsOf(AuthEngine* engine);

/// A processor that asks the host and is resumed with its answer. Its questions go through the
/// HostQuestions it is attached to; without one nothing can route an answer, and the callbacks it
/// hands out drop what they receive.
class HostAskingProcessor : public IAuthProcessor {
public:
    void attachQuestions(HostQuestions* engineQuestions) { questions = engineQuestions; }

protected:
    void registerQuestion(const std::string& questionId, const std::string& askingId) const {
        if (questions != nullptr && !askingId.empty()) {
            questions->registerQuestion(questionId, askingId);
        }
    }
    AuthCallback answerTo(const std::string& questionId) const {
        if (questions != nullptr) {
            return questions->answerTo(questionId);
        }
        return [](const std::string&, const AuthResponse&, const AuthContext&) {};
    }

private:
    HostQuestions* questions = nullptr;  // not owned
};

}  // namespace auth_engine
