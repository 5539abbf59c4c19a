// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// Reads the shell's lines. On a terminal, with line editing and history (libedit) when authsim was
// built with it; otherwise, and whenever standard input is not a terminal, plain reading without a
// prompt, so that piped and scripted use is unchanged.
#pragma once

#include <string>
#include <vector>

namespace authsim {

class LineReader {
public:
    /// `words`: what Tab completes at the start of a line (the verbs).
    LineReader(std::string prompt, std::vector<std::string> words);
    ~LineReader();
    LineReader(const LineReader&) = delete;
    LineReader& operator=(const LineReader&) = delete;

    /// The next line, without its end; false at the end of input.
    bool read(std::string& line);
    /// Standard input is a terminal: the shell greets, prompts and edits.
    bool interactive() const { return terminal; }
    /// True when built with line editing.
    static bool editing();

private:
    const std::string prompt;
    const bool terminal;
};

}  // namespace authsim
