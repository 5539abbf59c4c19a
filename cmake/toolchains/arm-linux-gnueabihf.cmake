# Cross build for 32-bit ARM Linux (hard float). Tests run under qemu-arm.
#   cmake -S . -B build/arm -DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/arm-linux-gnueabihf.cmake
# Overridable: AUTH_ENGINE_CROSS_PREFIX (compiler prefix, default arm-linux-gnueabihf-),
# CMAKE_SYSROOT (a board's sysroot), AUTH_ENGINE_QEMU (the emulator, default qemu-arm).
# No FPU or CPU flags are forced: pass the board's own in CMAKE_CXX_FLAGS when it needs them.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)

set(AUTH_ENGINE_CROSS_PREFIX "arm-linux-gnueabihf-" CACHE STRING "Cross compiler prefix")
set(AUTH_ENGINE_QEMU "qemu-arm" CACHE STRING "User-mode emulator that runs the target's programs")
set(CMAKE_C_COMPILER ${AUTH_ENGINE_CROSS_PREFIX}gcc)
set(CMAKE_CXX_COMPILER ${AUTH_ENGINE_CROSS_PREFIX}g++)

# 64-bit time_t and file offsets on 32-bit glibc, so that validity bounds after 2038 work.
set(CMAKE_C_FLAGS_INIT "-D_TIME_BITS=64 -D_FILE_OFFSET_BITS=64")
set(CMAKE_CXX_FLAGS_INIT "-D_TIME_BITS=64 -D_FILE_OFFSET_BITS=64")

if(CMAKE_SYSROOT)
    set(_target_root ${CMAKE_SYSROOT})
else()
    set(_target_root /usr/arm-linux-gnueabihf)
endif()
set(CMAKE_FIND_ROOT_PATH ${_target_root})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# The emulator finds the target's dynamic loader and libraries under the target root.
set(CMAKE_CROSSCOMPILING_EMULATOR ${AUTH_ENGINE_QEMU} -L ${_target_root})
