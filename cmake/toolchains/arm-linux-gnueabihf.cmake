# SPDX-License-Identifier: Apache-2.0
# SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

# Cross build for 32-bit ARM Linux (hard float). Tests run under qemu-arm.
#   cmake -S . -B build/arm -DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/arm-linux-gnueabihf.cmake
# Overridable (cache variables, or environment variables of the same name at the first configure):
#   AUTH_ENGINE_CROSS_PREFIX  compiler prefix, default arm-linux-gnueabihf-
#   AUTH_ENGINE_QEMU          the user-mode emulator, default qemu-arm
#   AUTH_ENGINE_TARGET_FLAGS  the board's CPU/FPU flags, e.g. "-mcpu=cortex-a7 -mfpu=neon-vfpv4"
#   CMAKE_SYSROOT             a board's sysroot (default: the Debian cross root /usr/<triplet>)
# No CPU or FPU flag is forced. Put the board's own in AUTH_ENGINE_TARGET_FLAGS or in the CXXFLAGS
# environment variable: both are combined with the 64-bit time flags below, whereas a
# -DCMAKE_CXX_FLAGS=... on the command line replaces them.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)

# An environment variable only supplies the default of the first configure; the cache keeps it.
function(_auth_engine_cross_setting name default help)
    if(DEFINED ENV{${name}})
        set(default "$ENV{${name}}")
    endif()
    set(${name} "${default}" CACHE STRING "${help}")
endfunction()
_auth_engine_cross_setting(AUTH_ENGINE_CROSS_PREFIX "arm-linux-gnueabihf-" "Cross compiler prefix")
_auth_engine_cross_setting(AUTH_ENGINE_QEMU "qemu-arm" "Emulator that runs the target's programs")
_auth_engine_cross_setting(AUTH_ENGINE_TARGET_FLAGS "" "CPU/FPU flags of the target board")

# The toolchain file is read again for every try_compile project: hand the settings on, so that a
# changed prefix or sysroot is also what the compiler checks use.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES
    AUTH_ENGINE_CROSS_PREFIX AUTH_ENGINE_QEMU AUTH_ENGINE_TARGET_FLAGS)

set(CMAKE_C_COMPILER ${AUTH_ENGINE_CROSS_PREFIX}gcc)
set(CMAKE_CXX_COMPILER ${AUTH_ENGINE_CROSS_PREFIX}g++)

# 64-bit time_t and file offsets on 32-bit glibc (2.34 or later), so that validity bounds, schedule
# dates and holidays after January 2038 work. glibc only accepts _TIME_BITS=64 together with
# _FILE_OFFSET_BITS=64.
# -Wno-psabi: GCC notes at every std::map use that an argument passing rule changed in GCC 7.1;
# everything here is built by one compiler, so the notes only bury real diagnostics.
set(CMAKE_C_FLAGS_INIT "${AUTH_ENGINE_TARGET_FLAGS} -D_TIME_BITS=64 -D_FILE_OFFSET_BITS=64")
set(CMAKE_CXX_FLAGS_INIT
    "${AUTH_ENGINE_TARGET_FLAGS} -D_TIME_BITS=64 -D_FILE_OFFSET_BITS=64 -Wno-psabi")

# Where the target's headers and libraries live: the given sysroot, else the one built into the
# compiler (vendor toolchains), else Debian's cross root /usr/<triplet>.
if(CMAKE_SYSROOT)
    set(_target_root ${CMAKE_SYSROOT})
else()
    execute_process(COMMAND ${CMAKE_C_COMPILER} -print-sysroot
        OUTPUT_VARIABLE _target_root OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
    # A compiler without a built-in sysroot answers "/" (Debian's cross compilers) or nothing.
    if(NOT _target_root OR _target_root STREQUAL "/" OR NOT IS_DIRECTORY "${_target_root}")
        get_filename_component(_triplet "${AUTH_ENGINE_CROSS_PREFIX}" NAME)
        string(REGEX REPLACE "-$" "" _triplet "${_triplet}")
        set(_target_root /usr/${_triplet})
    endif()
endif()
set(CMAKE_FIND_ROOT_PATH ${_target_root})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# The emulator finds the target's dynamic loader and libraries (libstdc++, libc) under the target
# root. Test discovery and ctest run every target program through it.
set(CMAKE_CROSSCOMPILING_EMULATOR ${AUTH_ENGINE_QEMU} -L ${_target_root})
