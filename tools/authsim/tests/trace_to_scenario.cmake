# SPDX-License-Identifier: Apache-2.0
# SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

# Records a scenario run (its trace, and its reports as JSON lines), turns the trace into a site and
# a scenario with trace-to-scenario, and runs those: they must pass, and their reports must be the
# recorded run's, line for line (without the scenario's name, the step numbers and the attempt
# labels, which differ). AUTHSIM is the program; EMULATOR, when set, runs it ("|" between words);
# WORK a scratch directory.
string(REPLACE "|" ";" run "${EMULATOR}")
list(APPEND run "${AUTHSIM}")
file(MAKE_DIRECTORY "${WORK}")
function(authsim output)
    execute_process(COMMAND ${run} ${ARGN} RESULT_VARIABLE code OUTPUT_VARIABLE out
        ERROR_VARIABLE err)
    if(NOT code EQUAL 0)
        message(FATAL_ERROR "authsim ${ARGN} exited with ${code}\n${out}${err}")
    endif()
    string(REGEX REPLACE "\"scenario\":\"[^\"]*\",\"step\":[0-9]+,|\"attempt\":\"[^\"]*\"," "" out
        "${out}")
    set(${output} "${out}${err}" PARENT_SCOPE)
endfunction()
authsim(recorded run "${SITE}" "${SCENARIO}" --json --trace "${WORK}/trace.jsonl")
authsim(converted trace-to-scenario "${WORK}/trace.jsonl")
if(NOT converted MATCHES "warning: .*secrets are hashed")
    message(FATAL_ERROR "no warning about the hashed secrets:\n${converted}")
endif()
authsim(replayed run "${WORK}/trace.site.json" "${WORK}/trace.scenario.json" --json)
if(NOT recorded STREQUAL replayed)
    message(FATAL_ERROR "the reports differ.\nrecorded:\n${recorded}\nfrom the trace:\n${replayed}")
endif()
