#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

# Static analysis of the library sources: clang-tidy with the committed .clang-tidy, then cppcheck,
# then the layout of every C++ file against the committed .clang-format, then the API reference
# (Doxygen over the public headers, every warning an error), then the licence information of every
# file (reuse lint). Exits non-zero on any finding.
#   AUTH_ENGINE_LINT_BUILD_DIR  where compile_commands.json is generated (default build/lint)
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
cd "$root"
"$root/scripts/setup" clang-tidy cppcheck clang-format doxygen reuse

build=${AUTH_ENGINE_LINT_BUILD_DIR:-build/lint}
jobs=$(nproc)

# Only the compile commands are needed; nothing is built. The library alone is configured, so the
# analysis needs neither GoogleTest nor the tools.
cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Debug -DCMAKE_EXPORT_COMPILE_COMMANDS=ON \
    -DAUTH_ENGINE_WERROR=ON -DAUTH_ENGINE_BUILD_TESTS=OFF -DAUTH_ENGINE_BUILD_TOOLS=OFF >/dev/null

mapfile -t sources < <(find src -name '*.cpp' | sort)
echo "== lint: clang-tidy on ${#sources[@]} files"
start=$SECONDS
# Every file is analysed even when an earlier one has findings; headers under include/ and src/
# are checked through the files that include them.
failed=0
log="$build/clang-tidy.log"
printf '%s\n' "${sources[@]}" | xargs -P "$jobs" -n 1 sh -c \
    'clang-tidy -p "$0" --quiet --warnings-as-errors="*" "$1" 2>/dev/null || echo "== lint: clang-tidy failed on $1"' \
    "$build" > "$log"
cat "$log"
if grep -q '^== lint: clang-tidy failed' "$log"; then
    failed=1
fi
echo "== lint: clang-tidy took $((SECONDS - start)) s"

echo "== lint: cppcheck"
start=$SECONDS
cppcheck --enable=warning,performance,portability --std=c++17 --language=c++ \
    --error-exitcode=1 --inline-suppr --quiet -j "$jobs" -I include -I src src || failed=1
echo "== lint: cppcheck took $((SECONDS - start)) s"

echo "== lint: clang-format"
mapfile -t cxx < <(find src include tests tools bench examples -name '*.cpp' -o -name '*.h' | sort)
clang-format --dry-run --Werror "${cxx[@]}" || failed=1

echo "== lint: API reference (Doxygen)"
doxygen_log="$build/doxygen.log"
cmake --build "$build" --target docs >"$doxygen_log" 2>&1 || failed=1
grep -E "warning|error" "$doxygen_log" || true
echo "== lint: Doxygen warnings: $(grep -c "warning:" "$doxygen_log" || true)"

echo "== lint: licence information (reuse lint)"
reuse lint >"$build/reuse.log" 2>&1 || { cat "$build/reuse.log"; failed=1; }
tail -n 1 "$build/reuse.log"

if [ "$failed" -ne 0 ]; then
    echo "== lint: FAILED"
    exit 1
fi
echo "== lint: clean"
