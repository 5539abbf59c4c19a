// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

#include "LineReader.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>

#ifdef AUTHSIM_LINE_EDITING
#include <editline/readline.h>
#endif

namespace authsim {

namespace {

#ifdef AUTHSIM_LINE_EDITING
std::vector<std::string>& completionWords() {
    static std::vector<std::string> words;
    return words;
}

char* nextCompletion(const char* text, int state) {
    static std::size_t index = 0;
    if (state == 0) {
        index = 0;
    }
    const std::vector<std::string>& words = completionWords();
    while (index < words.size()) {
        const std::string& word = words[index++];
        if (word.compare(0, std::strlen(text), text) == 0) {
            return strdup(word.c_str());  // readline frees it
        }
    }
    return nullptr;
}

char** completeVerb(const char* text, int start, int) {
    // Only the first word is a verb; elsewhere nothing is offered (not even file names).
    rl_attempted_completion_over = 1;
    return start == 0 ? rl_completion_matches(text, nextCompletion) : nullptr;
}
#endif

// Without line editing a terminal hands over the arrow keys' escape sequences as typed text: drop
// them, so that an error message does not echo "^[[A" back.
std::string withoutEscapes(const std::string& line) {
    std::string out;
    for (std::size_t i = 0; i < line.size(); ++i) {
        if (line[i] == '\033') {
            ++i;
            if (i < line.size() && (line[i] == '[' || line[i] == 'O')) {
                while (i + 1 < line.size() && (line[i + 1] < '@' || line[i + 1] > '~')) {
                    ++i;
                }
                ++i;
            }
            continue;
        }
        out += line[i];
    }
    return out;
}

}  // namespace

LineReader::LineReader(std::string prompt, std::vector<std::string> words)
    : prompt(std::move(prompt)), terminal(isatty(STDIN_FILENO) != 0) {
#ifdef AUTHSIM_LINE_EDITING
    if (terminal) {
        completionWords() = std::move(words);
        rl_attempted_completion_function = completeVerb;
        using_history();
    }
#else
    (void)words;
#endif
}

LineReader::~LineReader() {
#ifdef AUTHSIM_LINE_EDITING
    if (terminal) {
        clear_history();
    }
#endif
}

bool LineReader::read(std::string& line) {
    std::fflush(stdout);
#ifdef AUTHSIM_LINE_EDITING
    if (terminal) {
        char* text = readline(prompt.c_str());
        if (text == nullptr) {
            return false;
        }
        line = text;
        std::free(text);
        if (line.find_first_not_of(" \t") != std::string::npos) {
            add_history(line.c_str());
        }
        return true;
    }
#endif
    if (terminal) {
        std::fputs(prompt.c_str(), stdout);
        std::fflush(stdout);
    }
    if (!std::getline(std::cin, line)) {
        return false;
    }
    line = withoutEscapes(line);
    return true;
}

bool LineReader::editing() {
#ifdef AUTHSIM_LINE_EDITING
    return true;
#else
    return false;
#endif
}

}  // namespace authsim
