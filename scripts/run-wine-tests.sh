#!/usr/bin/env bash
# Runs the Windows build's tests under Wine.
# Usage: run-wine-tests.sh <build-dir> [ctest arguments...]
set -u
source "$(dirname "$0")/wine-session.sh" "$1"
shift

ctest --test-dir "$build_dir" "$@"
