#!/usr/bin/env bash
# Runs the logon monitor benchmark of a Windows build under Wine.
# Usage: run-monitor-benchmark.sh <build-dir> [folder]
set -u
source "$(dirname "$0")/wine-session.sh" "$1"
shift

"$wine_loader" "$build_dir/bench/monitor_bench.exe" "$@"
