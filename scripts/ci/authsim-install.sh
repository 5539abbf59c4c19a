#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

# The installed authsim, as a user of the package meets it: builds the library and authsim,
# installs them into a temporary prefix, then runs from there `authsim --version`, the man page,
# the bash completion and an example site, and checks that the schemas were installed as they are
# in the source tree. Exits non-zero on any failure.
#   AUTH_ENGINE_AUTHSIM_BUILD_DIR  build directory (default: build/authsim-install)
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
"$root/scripts/setup" nlohmann-json3-dev libcli11-dev libvalijson-dev libedit-dev help2man man-db
build=${AUTH_ENGINE_AUTHSIM_BUILD_DIR:-$root/build/authsim-install}
jobs=$(nproc)
export TZ=${TZ:-UTC}

work=$(mktemp -d "${TMPDIR:-/tmp}/authsim-install.XXXXXX")
trap 'rm -rf "$work"' EXIT

fail() {
    echo "authsim-install: $*" >&2
    exit 1
}

echo "== authsim: build and install"
cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DAUTH_ENGINE_BUILD_TESTS=OFF \
    -DAUTH_ENGINE_BUILD_TOOLS=ON -DCMAKE_INSTALL_LIBDIR=lib >/dev/null
cmake --build "$build" -j "$jobs"
prefix=$work/prefix
cmake --install "$build" --prefix "$prefix" >/dev/null
authsim=$prefix/bin/authsim
export LD_LIBRARY_PATH=$prefix/lib
[ -x "$authsim" ] || fail "bin/authsim missing"

echo "== authsim: --version"
version=$("$authsim" --version) || fail "authsim --version exited with $?"
echo "$version"
expected=$(sed -n 's/^#define AUTH_ENGINE_VERSION_STRING "\(.*\)"$/\1/p' \
    "$root/include/auth_engine/version.h")
grep -qx "authsim $expected" <<<"$version" || fail "--version does not name authsim $expected"
grep -q "^auth_engine library $expected (built against $expected)$" <<<"$version" ||
    fail "--version does not name the library's versions"

echo "== authsim: man page"
page=$(MANPAGER=cat MANWIDTH=100 man -l "$prefix/share/man/man1/authsim.1.gz" 2>&1) ||
    fail "man -l authsim.1.gz failed: $page"
grep -q "reference host and door simulator" <<<"$page" || fail "the man page has no NAME line"
grep -qi "exit status" <<<"$page" || fail "the man page does not document the exit status"

echo "== authsim: bash completion"
completion=$prefix/share/bash-completion/completions/authsim
[ "$(bash -c 'source "$1" && complete -p authsim' _ "$completion")" = "complete -F _authsim authsim" ] ||
    fail "the completion file does not register a completion for authsim"
offered=$(bash -c 'source "$1"; COMP_WORDS=(authsim ru); COMP_CWORD=1; _authsim; echo "${COMPREPLY[*]}"' \
    _ "$completion")
[ "$offered" = run ] || fail "completing 'authsim ru' offers '$offered', not 'run'"
offered=$(bash -c 'source "$1"; COMP_WORDS=(authsim replay --); COMP_CWORD=2; _authsim; echo "${COMPREPLY[*]}"' \
    _ "$completion")
[ "$offered" = "--html --log --help" ] || fail "completing 'authsim replay --' offers '$offered'"
offered=$(bash -c 'source "$1"; COMP_WORDS=(authsim tr); COMP_CWORD=1; _authsim; echo "${COMPREPLY[*]}"' \
    _ "$completion")
[ "$offered" = trace-to-scenario ] || fail "completing 'authsim tr' offers '$offered'"

echo "== authsim: schemas and an example from the prefix"
for schema in site scenario; do
    cmp -s "$root/tools/authsim/schema/$schema.schema.json" \
        "$prefix/share/auth_engine/schema/$schema.schema.json" ||
        fail "$schema.schema.json is not installed as it is in the source tree"
done
examples=$prefix/share/auth_engine/examples
(cd "$examples" && "$authsim" run building.json building/*.json >"$work/run.txt") ||
    fail "the installed example does not pass: $(cat "$work/run.txt")"
grep -q "PASS" "$work/run.txt" || fail "the installed example printed no PASS"
echo "== authsim: installed authsim checks passed"
