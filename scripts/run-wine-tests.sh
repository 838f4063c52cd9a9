#!/usr/bin/env bash
# Runs the Windows build's tests under Wine: one persistent Wine server and an
# initialised private prefix for the whole run, stopped again however ctest
# ends. Usage: run-wine-tests.sh <build-dir> [ctest arguments...]
set -u
build_dir=$(cd "$1" && pwd)
shift

export WINEPREFIX="$build_dir/wineprefix"
export WINEDEBUG=-all
export WINEDLLOVERRIDES="mscoree,mshtml="
wine_loader=${PLMX_WINE_LOADER:-/usr/lib/wine/wine64}
wine_server=${PLMX_WINE_SERVER:-/usr/lib/wine/wineserver64}

stop_server() { "$wine_server" -k >/dev/null 2>&1 || true; }
trap stop_server EXIT

# Background Wine processes must not inherit ctest's pipes, or ctest waits
# for them for ever.
"$wine_server" -p </dev/null >/dev/null 2>&1
"$wine_loader" wineboot --init </dev/null >/dev/null 2>&1

ctest --test-dir "$build_dir" "$@"
