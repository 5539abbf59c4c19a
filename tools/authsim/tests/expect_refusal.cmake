# SPDX-License-Identifier: Apache-2.0
# SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

# Runs authsim with the arguments after "--" and checks that it exits with EXIT and prints a line
# matching MESSAGE (standard output and error together). EMULATOR, when set, is the command that runs
# a target program on the build machine, its words separated by "|".
string(REPLACE "|" ";" command "${EMULATOR}")
set(collect OFF)
math(EXPR last "${CMAKE_ARGC} - 1")
foreach(i RANGE ${last})
    if(collect)
        list(APPEND command "${CMAKE_ARGV${i}}")
    elseif("${CMAKE_ARGV${i}}" STREQUAL "--")
        set(collect ON)
    endif()
endforeach()
execute_process(COMMAND ${command} RESULT_VARIABLE code OUTPUT_VARIABLE out ERROR_VARIABLE err)
if(NOT code EQUAL EXIT)
    message(FATAL_ERROR "expected exit status ${EXIT}, got ${code}\n${out}${err}")
endif()
if(NOT "${out}${err}" MATCHES "${MESSAGE}")
    message(FATAL_ERROR "expected a message matching '${MESSAGE}', got:\n${out}${err}")
endif()
