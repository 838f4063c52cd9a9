#!/usr/bin/env bash
# Runs the log writer benchmark of a Windows build under Wine, in the build
# tree's private prefix. Usage: run-log-benchmark.sh <build-dir> [folder]
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

"$wine_server" -p </dev/null >/dev/null 2>&1
"$wine_loader" wineboot --init </dev/null >/dev/null 2>&1

"$wine_loader" "$build_dir/bench/log_writer_bench.exe" "$@"
