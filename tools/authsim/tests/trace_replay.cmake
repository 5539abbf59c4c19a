# SPDX-License-Identifier: Apache-2.0
# SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

# Records a scenario run with `authsim run --trace` and replays the trace, which must give 0
# divergences. With FLIP (a regular expression matching inside one event line) and FLIP_TO, the
# first event matching it is changed before the replay (its last match of FLIP_FROM becomes
# FLIP_TO), and the replay must fail with a divergence at one of the two events after it.
# AUTHSIM is the program; EMULATOR, when set, runs it ("|" between words); WORK a scratch directory.
string(REPLACE "|" ";" run "${EMULATOR}")
list(APPEND run "${AUTHSIM}")
file(MAKE_DIRECTORY "${WORK}")
set(trace "${WORK}/trace.jsonl")
execute_process(COMMAND ${run} run "${SITE}" "${SCENARIO}" --trace "${trace}"
    RESULT_VARIABLE code OUTPUT_VARIABLE out ERROR_VARIABLE err)
if(NOT code EQUAL 0)
    message(FATAL_ERROR "run --trace exited with ${code}\n${out}${err}")
endif()
set(expect_exit 0)
set(expect "0 divergences")
if(DEFINED FLIP)
    file(READ "${trace}" text)
    string(REPLACE ".*" "[^\n]*" FLIP "${FLIP}")  # within the one line
    string(REGEX MATCH "{\"seq\":([0-9]+),[^\n]*${FLIP}[^\n]*" line "${text}")
    if(line STREQUAL "")
        message(FATAL_ERROR "no event of the trace matches ${FLIP}")
    endif()
    set(seq ${CMAKE_MATCH_1})
    string(FIND "${text}" "${line}" at)
    string(FIND "${line}" "${FLIP_FROM}" in REVERSE)
    string(LENGTH "${FLIP_FROM}" from_length)
    string(SUBSTRING "${line}" 0 ${in} head)
    math(EXPR rest "${in} + ${from_length}")
    string(SUBSTRING "${line}" ${rest} -1 tail)
    string(LENGTH "${line}" line_length)
    string(SUBSTRING "${text}" 0 ${at} before)
    math(EXPR after "${at} + ${line_length}")
    string(SUBSTRING "${text}" ${after} -1 behind)
    set(trace "${WORK}/flipped.jsonl")
    file(WRITE "${trace}" "${before}${head}${FLIP_TO}${tail}${behind}")
    math(EXPR next "${seq} + 1")
    math(EXPR second "${seq} + 2")
    set(expect_exit 1)
    set(expect "divergence at event #(${next}|${second}) ")
endif()
execute_process(COMMAND ${run} replay "${trace}" RESULT_VARIABLE code OUTPUT_VARIABLE out
    ERROR_VARIABLE err)
if(NOT code EQUAL expect_exit OR NOT "${out}" MATCHES "${expect}")
    message(FATAL_ERROR "replay exited with ${code} (expected ${expect_exit} and a line matching "
        "'${expect}'):\n${out}${err}")
endif()
message(STATUS "${out}")
