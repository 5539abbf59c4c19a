#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

# Packaging check. Builds the library and authsim once, as a distribution would (Release, Debian's
# build flags), checks that the library exports the public API only and compares its binary
# interface with the baseline (scripts/abi-baseline). Installs it into temporary prefixes and builds
# and runs examples/minimal_host against the installed package, through find_package and through
# pkg-config, with the shared and with the static library, replays the example's trace in authsim
# and renders the trace page of an example in headless Chromium (installed here only, being large);
# a second install with absolute library and include dirs checks that the package files point there. Then makes the Debian packages, checks
# them with lintian, unpacks them into a scratch root and builds and runs the example against that
# root, through find_package and through pkg-config. Exits non-zero on any failure.
#   AUTH_ENGINE_PACKAGE_BUILD_DIR  build directory (default: build/package)
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
"$root/scripts/setup" pkg-config dpkg-dev file lintian abigail-tools nlohmann-json3-dev \
    libcli11-dev
build=${AUTH_ENGINE_PACKAGE_BUILD_DIR:-$root/build/package}
example=$root/examples/minimal_host
jobs=$(nproc)
export TZ=${TZ:-UTC}
version=$(sed -n 's/^#define AUTH_ENGINE_VERSION_STRING "\(.*\)"$/\1/p' \
    "$root/include/auth_engine/version.h")
major=${version%%.*}

work=$(mktemp -d "${TMPDIR:-/tmp}/auth_engine-package.XXXXXX")
trap 'rm -rf "$work"' EXIT

fail() {
    echo "package: $*" >&2
    exit 1
}

# configure_library [cmake options...]: (re)configures the build; install dirs are always given, so
# that a previous run's absolute dirs never linger in the cache. The flags are Debian's own
# (hardening included); they carry -g, so the library keeps the debug information the ABI comparison
# reads (installs with --strip and the packages drop it).
export DEB_BUILD_MAINT_OPTIONS=hardening=+all
configure_library() {
    cmake -S "$root" -B "$build/lib" -DCMAKE_BUILD_TYPE=Release -DAUTH_ENGINE_WERROR=ON \
        -DAUTH_ENGINE_BUILD_TESTS=OFF \
        -DCMAKE_CXX_FLAGS="$(dpkg-buildflags --get CXXFLAGS) $(dpkg-buildflags --get CPPFLAGS)" \
        -DCMAKE_EXE_LINKER_FLAGS="$(dpkg-buildflags --get LDFLAGS)" \
        -DCMAKE_SHARED_LINKER_FLAGS="$(dpkg-buildflags --get LDFLAGS)" "$@" >/dev/null
}

# check_installed LIBDIR INCLUDEDIR: the files of the package and the versioned library chain.
check_installed() {
    local libdir=$1 includedir=$2
    [ -f "$includedir/auth_engine/auth_engine.h" ] || fail "headers missing under $includedir"
    [ "$(readlink "$libdir/libauth_engine.so")" = "libauth_engine.so.$major" ] ||
        fail "libauth_engine.so does not link to libauth_engine.so.$major"
    [ "$(readlink "$libdir/libauth_engine.so.$major")" = "libauth_engine.so.$version" ] ||
        fail "libauth_engine.so.$major does not link to libauth_engine.so.$version"
    [ -f "$libdir/libauth_engine.so.$version" ] || fail "libauth_engine.so.$version missing"
    [ -f "$libdir/libauth_engine.a" ] || fail "libauth_engine.a missing"
    local soname
    soname=$(objdump -p "$libdir/libauth_engine.so.$version" | awk '$1 == "SONAME" { print $2 }')
    [ "$soname" = "libauth_engine.so.$major" ] || fail "SONAME is '$soname'"
    local file
    for file in auth_engineConfig.cmake auth_engineConfigVersion.cmake auth_engineTargets.cmake; do
        [ -f "$libdir/cmake/auth_engine/$file" ] || fail "$file missing"
    done
    [ -f "$libdir/pkgconfig/auth_engine.pc" ] || fail "auth_engine.pc missing"
}

# check_exports LIBRARY: the shared library exports what the public headers declare and nothing
# else: every dynamic symbol is in namespace auth_engine (functions, or a class's vtable and
# typeinfo), none is of the engine or a processor.
check_exports() {
    local symbols
    symbols=$(nm -DC --defined-only "$1" | cut -d' ' -f3-)
    echo "exported dynamic symbols: $(wc -l <<<"$symbols")"
    local stray
    stray=$(grep -Ev '^((typeinfo|typeinfo name|vtable) for )?auth_engine::' <<<"$symbols" || true)
    [ -z "$stray" ] || fail "exported outside namespace auth_engine:"$'\n'"$stray"
    stray=$(grep -E 'auth_engine::(AuthEngine|processors)::' <<<"$symbols" || true)
    [ -z "$stray" ] || fail "engine internals exported:"$'\n'"$stray"
}

# build_with_pkg_config PCDIR OUT [static]: compiles the example with the flags pkg-config gives
# (PKG_CONFIG_SYSROOT_DIR is honoured); "static" links libauth_engine.a, with the flags of
# `pkg-config --static`.
build_with_pkg_config() {
    local flags
    if [ "${3:-}" = static ]; then
        local libdir
        libdir=$(PKG_CONFIG_LIBDIR=$1 pkg-config --variable=libdir auth_engine)
        flags="$(PKG_CONFIG_LIBDIR=$1 pkg-config --cflags auth_engine)"
        flags+=" ${PKG_CONFIG_SYSROOT_DIR:-}$libdir/libauth_engine.a"
        flags+=" $(PKG_CONFIG_LIBDIR=$1 pkg-config --static --libs-only-other auth_engine)"
    else
        flags=$(PKG_CONFIG_LIBDIR=$1 pkg-config --cflags --libs auth_engine)
    fi
    echo "pkg-config flags: $flags"
    # shellcheck disable=SC2086  # the flags are meant to split
    c++ -std=c++17 -Wall -Wextra -Wpedantic -Werror "$example/main.cpp" $flags -o "$2"
}

# check_static PROGRAM: the program runs without libauth_engine.so.
check_static() {
    if objdump -p "$1" | grep -q 'NEEDED.*libauth_engine'; then
        fail "$1 needs libauth_engine.so although it was linked statically"
    fi
    "$1" >/dev/null
}

echo "== library and authsim"
configure_library -DCMAKE_INSTALL_PREFIX=/usr/local -DCMAKE_INSTALL_LIBDIR=lib \
    -DCMAKE_INSTALL_INCLUDEDIR=include
cmake --build "$build/lib" -j "$jobs"
check_exports "$build/lib/libauth_engine.so"

echo "== ABI against abi/libauth_engine.abi"
"$root/scripts/abi-baseline" --check "$(readlink -f "$build/lib/libauth_engine.so")"

echo "== install with relative dirs, prefix given at install time"
prefix=$work/prefix
cmake --install "$build/lib" --prefix "$prefix" >/dev/null
check_installed "$prefix/lib" "$prefix/include"
grep -qx "prefix=$prefix" "$prefix/lib/pkgconfig/auth_engine.pc" ||
    fail "auth_engine.pc does not name the install prefix"
[ "$(PKG_CONFIG_LIBDIR=$prefix/lib/pkgconfig pkg-config --modversion auth_engine)" = "$version" ] ||
    fail "pkg-config does not report version $version"

echo "== example through find_package"
rm -rf "$build/example-cmake"
cmake -S "$example" -B "$build/example-cmake" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DCMAKE_PREFIX_PATH="$prefix" -DMINIMAL_HOST_WERROR=ON >/dev/null
cmake --build "$build/example-cmake" -j "$jobs"
LD_LIBRARY_PATH=$prefix/lib "$build/example-cmake/minimal_host" | tee "$work/example.out"
grep -qx "auth_engine $version (built with the headers of $version)" "$work/example.out" ||
    fail "the installed library does not report version $version at run time"

echo "== the example's trace, recorded by the library's TraceRecorder, replays in authsim"
authsim=$build/lib/tools/authsim/authsim
LD_LIBRARY_PATH=$prefix/lib "$build/example-cmake/minimal_host" \
    --trace "$work/minimal_host.trace.jsonl" >/dev/null
"$authsim" replay "$work/minimal_host.trace.jsonl" | tee "$work/replay.out"
grep -q ', 0 divergences$' "$work/replay.out" || fail "the example's trace does not replay"

echo "== the trace page of an example renders in headless Chromium"
# Chromium is large: it is installed here only, and the check is skipped (saying so) where it
# cannot be installed or started. The flags keep it off the network entirely.
page_dir=$build/trace-page
rm -rf "$page_dir"
mkdir -p "$page_dir"
"$authsim" run "$root/examples/site/building.json" \
    "$root/examples/site/building/07-anti-passback.json" \
    --trace "$page_dir/trace.jsonl" --html "$page_dir/page.html" >/dev/null
chromium_flags=(--headless --no-sandbox --disable-gpu --disable-quic --no-first-run
    --disable-background-networking --disable-component-update --disable-sync
    --user-data-dir="$page_dir/profile" --window-size=1400,1600)
if ! "$root/scripts/setup" chromium || ! chromium "${chromium_flags[@]}" --dump-dom \
    "file://$page_dir/page.html" >"$page_dir/dom.html" 2>"$page_dir/chromium.log"; then
    echo "SKIPPED: chromium cannot be installed or run here; the page was not rendered"
else
    reports=$(grep -c '"kind":"report"' "$page_dir/trace.jsonl")
    shown=$(grep -o 'data-report="' "$page_dir/dom.html" | wc -l)
    [ "$shown" -eq "$reports" ] || fail "the page shows $shown reports, the trace has $reports"
    chromium "${chromium_flags[@]}" --screenshot="$page_dir/page.png" \
        "file://$page_dir/page.html" 2>>"$page_dir/chromium.log" ||
        fail "chromium did not render the page"
    file "$page_dir/page.png" | grep -q 'PNG image data, 1400 x 1600' ||
        fail "no 1400x1600 screenshot of the page: $(file "$page_dir/page.png")"
    echo "page: $reports reports in the DOM; $page_dir/page.png $(stat -c %s "$page_dir/page.png") bytes"
fi

echo "== example through pkg-config"
mkdir -p "$build/example-pkg-config"
build_with_pkg_config "$prefix/lib/pkgconfig" "$build/example-pkg-config/minimal_host"
LD_LIBRARY_PATH=$prefix/lib "$build/example-pkg-config/minimal_host"

echo "== example linked statically, through find_package and through pkg-config"
rm -rf "$build/example-static"
cmake -S "$example" -B "$build/example-static" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DCMAKE_PREFIX_PATH="$prefix" -DMINIMAL_HOST_WERROR=ON -DMINIMAL_HOST_STATIC=ON >/dev/null
cmake --build "$build/example-static" -j "$jobs" >/dev/null
check_static "$build/example-static/minimal_host"
build_with_pkg_config "$prefix/lib/pkgconfig" "$build/example-pkg-config/minimal_host-static" static
check_static "$build/example-pkg-config/minimal_host-static"

echo "== the CMake package accepts its own major version only"
mkdir -p "$work/probe"
cat >"$work/probe/CMakeLists.txt" <<PROBE
cmake_minimum_required(VERSION 3.16)
project(probe LANGUAGES CXX)
find_package(auth_engine $((major + 1)).0 CONFIG QUIET)
if(auth_engine_FOUND OR NOT auth_engine_CONSIDERED_VERSIONS STREQUAL "$version")
    message(FATAL_ERROR "asked for $((major + 1)).0: found=\${auth_engine_FOUND},"
                        " seen=\${auth_engine_CONSIDERED_VERSIONS}")
endif()
find_package(auth_engine $major.0.1 CONFIG QUIET)
if(NOT auth_engine_FOUND OR NOT TARGET auth_engine::auth_engine
   OR NOT TARGET auth_engine::auth_engine_static)
    message(FATAL_ERROR "asked for $major.0.1: not found, or a library target missing")
endif()
PROBE
cmake -S "$work/probe" -B "$work/probe/build" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null ||
    fail "the version check of the CMake package is not SameMajorVersion"

echo "== install with absolute library and include dirs"
absolute=$work/absolute
configure_library -DCMAKE_INSTALL_PREFIX="$absolute/usr" \
    -DCMAKE_INSTALL_LIBDIR="$absolute/libs/auth" -DCMAKE_INSTALL_INCLUDEDIR="$absolute/headers"
cmake --install "$build/lib" >/dev/null
check_installed "$absolute/libs/auth" "$absolute/headers"
pc=$absolute/libs/auth/pkgconfig
[ "$(PKG_CONFIG_LIBDIR=$pc pkg-config --variable=libdir auth_engine)" = "$absolute/libs/auth" ] ||
    fail "auth_engine.pc libdir is not the absolute dir"
[ "$(PKG_CONFIG_LIBDIR=$pc pkg-config --variable=includedir auth_engine)" = "$absolute/headers" ] ||
    fail "auth_engine.pc includedir is not the absolute dir"
cmake -S "$example" -B "$work/example-absolute" \
    -Dauth_engine_DIR="$absolute/libs/auth/cmake/auth_engine" >/dev/null
cmake --build "$work/example-absolute" -j "$jobs" >/dev/null
LD_LIBRARY_PATH=$absolute/libs/auth "$work/example-absolute/minimal_host" >/dev/null
build_with_pkg_config "$pc" "$work/minimal_host-absolute"
LD_LIBRARY_PATH=$absolute/libs/auth "$work/minimal_host-absolute" >/dev/null

echo "== Debian packages"
# The same build, installed under /usr with the multiarch library directory, as Debian lays it out.
configure_library -DCMAKE_INSTALL_PREFIX=/usr \
    -DCMAKE_INSTALL_LIBDIR="lib/$(dpkg-architecture -qDEB_HOST_MULTIARCH)" \
    -DCMAKE_INSTALL_INCLUDEDIR=include
deb=$build/lib
rm -f "$deb"/*.deb
(cd "$deb" && cpack -G DEB >/dev/null)
packages=("$deb"/*.deb)
for name in "libauth-engine$major" libauth-engine-dev auth-engine-tools; do
    [ -f "$deb/${name}_${version}-1_$(dpkg --print-architecture).deb" ] || fail "no package $name"
done
for file in "${packages[@]}"; do
    printf '%-48s %8d bytes\n' "$(basename "$file")" "$(stat -c %s "$file")"
done

echo "== lintian"
lintian --fail-on error "${packages[@]}" || fail "lintian reports errors"

echo "== example against the packages unpacked into a scratch root"
deb_root=$work/deb-root
for file in "${packages[@]}"; do
    dpkg -x "$file" "$deb_root"
done
deb_libdir=$(dirname "$(find "$deb_root/usr/lib" -name "libauth_engine.so.$version")")
rm -rf "$build/example-deb"
cmake -S "$example" -B "$build/example-deb" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DCMAKE_PREFIX_PATH="$deb_root/usr" -DMINIMAL_HOST_WERROR=ON >/dev/null
cmake --build "$build/example-deb" -j "$jobs" >/dev/null
LD_LIBRARY_PATH=$deb_libdir "$build/example-deb/minimal_host" >/dev/null
PKG_CONFIG_SYSROOT_DIR=$deb_root build_with_pkg_config "$deb_libdir/pkgconfig" \
    "$build/example-deb/minimal_host-pkg-config"
LD_LIBRARY_PATH=$deb_libdir "$build/example-deb/minimal_host-pkg-config" >/dev/null

# ---- checks of the tools package (authsim): its packages are in $deb, unpacked in $deb_root ----

AUTH_ENGINE_AUTHSIM_BUILD_DIR="$build/authsim" "$root/scripts/ci/authsim-install.sh"
echo "== package: all checks passed"
