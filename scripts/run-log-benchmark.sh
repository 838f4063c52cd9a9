#!/usr/bin/env bash
# Runs the log writer benchmark of a Windows build under Wine.
# Usage: run-log-benchmark.sh <build-dir> [folder]
set -u
source "$(dirname "$0")/wine-session.sh" "$1"
shift

"$wine_loader" "$build_dir/bench/log_writer_bench.exe" "$@"
