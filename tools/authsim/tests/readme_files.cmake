# SPDX-License-Identifier: Apache-2.0
# SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

# The README's walk-through shows its finished site and scenario in full, as fenced blocks whose
# info string names the file ("```json examples/site/first-site.json"). Each block must be exactly
# that file, and the scenario must pass against the site, so that the README cannot drift.
# ROOT is the source tree, AUTHSIM the program, EMULATOR its emulator (words separated by "|").
file(READ ${ROOT}/README.md readme)
string(REGEX MATCHALL "```json examples/site/[^\n]*\n" openings "${readme}")
list(LENGTH openings count)
if(NOT count EQUAL 2)
    message(FATAL_ERROR "expected the README to show 2 example files in full, found ${count}")
endif()
set(files)
foreach(opening ${openings})
    string(REGEX REPLACE "```json ([^\n]*)\n" "\\1" name "${opening}")
    string(FIND "${readme}" "${opening}" start)
    string(LENGTH "${opening}" length)
    math(EXPR start "${start} + ${length}")
    string(SUBSTRING "${readme}" ${start} -1 rest)
    string(FIND "${rest}" "```" end)
    string(SUBSTRING "${rest}" 0 ${end} shown)
    file(READ ${ROOT}/${name} actual)
    if(NOT shown STREQUAL actual)
        message(FATAL_ERROR "the README's copy of ${name} differs from the file")
    endif()
    list(APPEND files ${ROOT}/${name})
endforeach()
string(REPLACE "|" ";" command "${EMULATOR}")
execute_process(COMMAND ${command} ${AUTHSIM} run ${files} RESULT_VARIABLE code
    OUTPUT_VARIABLE out ERROR_VARIABLE err)
if(NOT code EQUAL 0 OR NOT out MATCHES "PASS")
    message(FATAL_ERROR "the README's scenario does not pass (exit ${code}):\n${out}${err}")
endif()
