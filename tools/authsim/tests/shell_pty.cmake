# SPDX-License-Identifier: Apache-2.0
# SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

# Drives `authsim shell` through a pseudo-terminal (util-linux `script`), typing shell-session.txt:
# a step, the Up key and Enter (history: the step again), a misspelt verb, an answer nothing waits
# for (a failed step), a held question, then status. AUTHSIM, SITE, SESSION and EMULATOR (words
# separated by "|") come from the test; EDITING says whether authsim has line editing.
string(REPLACE "|" " " emulator "${EMULATOR}")
execute_process(COMMAND script -qec "${emulator} ${AUTHSIM} shell ${SITE}" /dev/null
    INPUT_FILE ${SESSION} RESULT_VARIABLE code OUTPUT_VARIABLE out ERROR_VARIABLE err)
set(out "${out}${err}")
string(ASCII 27 escape)
# With history the Up key repeats "advance 1s"; without it the key is dropped, never echoed back.
if(EDITING)
    set(clock "09:00:02")
else()
    set(clock "09:00:01")
endif()
foreach(expected
        "unknown step \"advnce\", did you mean \"advance\"\\?"
        "MISMATCH no antiPassback question is waiting for an answer"
        "time: +2025-03-03 Mon ${clock}"
        "antiPassback 5 for alice, held \\(answer antiPassback 5\\); the engine waits until 09:00:3[12]"
        "parked: +alice"
        "mismatches: 1")
    if(NOT out MATCHES "${expected}")
        message(FATAL_ERROR "expected '${expected}' in the session:\n${out}")
    endif()
endforeach()
if(out MATCHES "authsim: line [^\n]*${escape}")
    message(FATAL_ERROR "an error message echoes a terminal escape sequence:\n${out}")
endif()
# Only quit ended the session, and the failed answer is what the exit status reports.
if(NOT code EQUAL 1)
    message(FATAL_ERROR "expected exit status 1 (a step failed), got ${code}:\n${out}")
endif()
