#!/usr/bin/env bash
# Cross-builds the library and every test for 32-bit ARM Linux (hard float) and runs the tests under
# qemu-arm. Prints the stripped size of the ARM library. Exits non-zero on any failure.
#   AUTH_ENGINE_ARM_BUILD_DIR   build directory (default build/arm)
#   AUTH_ENGINE_ARM_BUILD_TYPE  CMake build type (default MinSizeRel, what a door device ships)
#   AUTH_ENGINE_CROSS_PREFIX, AUTH_ENGINE_QEMU, AUTH_ENGINE_TARGET_FLAGS: see the toolchain file
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
cd "$root"
"$root/scripts/setup" g++-arm-linux-gnueabihf qemu-user

build=${AUTH_ENGINE_ARM_BUILD_DIR:-build/arm}
type=${AUTH_ENGINE_ARM_BUILD_TYPE:-MinSizeRel}
prefix=${AUTH_ENGINE_CROSS_PREFIX:-arm-linux-gnueabihf-}
jobs=$(nproc)
export TZ=UTC

start=$SECONDS
cmake -S "$root" -B "$build" \
    -DCMAKE_TOOLCHAIN_FILE="$root/cmake/toolchains/arm-linux-gnueabihf.cmake" \
    -DCMAKE_BUILD_TYPE="$type" -DAUTH_ENGINE_WERROR=ON >/dev/null
cmake --build "$build" -j "$jobs"
echo "== arm: built in $((SECONDS - start)) s"

# Every test program runs through the emulator (CMAKE_CROSSCOMPILING_EMULATOR), test discovery
# included; the per-test timeouts are raised for it in tests/CMakeLists.txt.
start=$SECONDS
ctest --test-dir "$build" --output-on-failure -j "$jobs"
echo "== arm: tests ran in $((SECONDS - start)) s"

library=$(readlink -f "$build/libauth_engine.so")
stripped=$(mktemp)
trap 'rm -f "$stripped"' EXIT
"${prefix}strip" --strip-unneeded -o "$stripped" "$library"
echo "== arm: $(basename "$library") stripped size: $(stat -c %s "$stripped") bytes" \
    "(unstripped $(stat -c %s "$library") bytes, $type)"
