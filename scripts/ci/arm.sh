#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

# Cross-builds the library and every test for 32-bit ARM Linux (hard float) and runs the tests under
# qemu-arm. Then builds the shared library alone as Release too, and prints the stripped size of
# both (the aim for MinSizeRel, what a door device ships, is at most 200 KiB). Exits non-zero on any
# failure.
#   AUTH_ENGINE_ARM_BUILD_DIR   build directory (default build/arm; the Release library goes into
#                               the same name with -release appended)
#   AUTH_ENGINE_ARM_BUILD_TYPE  CMake build type of the tested build (default MinSizeRel)
#   AUTH_ENGINE_CROSS_PREFIX, AUTH_ENGINE_QEMU, AUTH_ENGINE_TARGET_FLAGS: see the toolchain file
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
cd "$root"
"$root/scripts/setup" g++-arm-linux-gnueabihf qemu-user nlohmann-json3-dev libcli11-dev libvalijson-dev

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

# stripped_size BUILD_DIR: bytes of the build's shared library once stripped as for a device.
stripped=$(mktemp)
trap 'rm -f "$stripped"' EXIT
stripped_size() {
    "${prefix}strip" --strip-unneeded -o "$stripped" "$(readlink -f "$1/libauth_engine.so")"
    stat -c %s "$stripped"
}

sizes=("$type $(stripped_size "$build")")
if [ "$type" != Release ]; then
    start=$SECONDS
    cmake -S "$root" -B "$build-release" \
        -DCMAKE_TOOLCHAIN_FILE="$root/cmake/toolchains/arm-linux-gnueabihf.cmake" \
        -DCMAKE_BUILD_TYPE=Release -DAUTH_ENGINE_WERROR=ON -DAUTH_ENGINE_BUILD_TESTS=OFF \
        -DAUTH_ENGINE_BUILD_TOOLS=OFF -DAUTH_ENGINE_BUILD_STATIC=OFF >/dev/null
    cmake --build "$build-release" -j "$jobs" --target auth_engine >/dev/null
    echo "== arm: Release library built in $((SECONDS - start)) s"
    sizes+=("Release $(stripped_size "$build-release")")
fi
printf '%s\n' "${sizes[@]}" | awk '{
    printf "== arm: libauth_engine.so stripped, %-10s %7d bytes (%.1f KiB)\n", $1, $2, $2 / 1024 }'
