#!/usr/bin/env bash
# Runs the profile walk benchmark of a Windows build under Wine.
# Usage: run-profile-benchmark.sh <build-dir> [folder]
set -u
source "$(dirname "$0")/wine-session.sh" "$1"
shift

"$wine_loader" "$build_dir/bench/profile_walk_bench.exe" "$@"
