#!/usr/bin/env bash
# Replays saved logon traces through plmx's logon processor on this machine
# and prints each logon's session log path and summary.
#
#   scripts/replay.sh [--output FOLDER] [TRACE.etl...]
#
# Without traces it replays the bundled samples (samples/*.etl). Session logs
# go to FOLDER, by default build/replay/session-logs. Installs what is missing
# (Debian: apt-get, with sudo when not root) and builds the native tools
# (Release, no sanitizers) in build/replay.
set -eu
cd "$(dirname "$0")/.."

scripts/install-packages.sh cmake make clang

output=build/replay/session-logs
if [ "${1:-}" = "--output" ] && [ $# -ge 2 ]; then
    output=$2
    shift 2
fi
if [ $# -eq 0 ]; then
    set -- samples/*.etl
fi

cmake -S . -B build/replay -DCMAKE_BUILD_TYPE=Release -DCMAKE_C_COMPILER=clang \
    -DCMAKE_CXX_COMPILER=clang++ -DBUILD_TESTING=OFF >build/replay.configure.log 2>&1 ||
    { cat build/replay.configure.log; exit 1; }
cmake --build build/replay --target plmx-replay -j 2 >build/replay.build.log 2>&1 ||
    { cat build/replay.build.log; exit 1; }

echo "Session logs: $output"
echo
build/replay/tools/replay/plmx-replay --output "$output" "$@"
