#!/usr/bin/env bash
# Rewrites samples/<name>.expected.txt, the session logs that replaying each
# sample gives, in the form the golden-file test compares: every log by name
# after a "==> name <==" line, line ends as LF. Times are in UTC.
#
#   scripts/update-sample-logs.sh [samples/NAME.etl...]
set -eu
cd "$(dirname "$0")/.."
if [ $# -eq 0 ]; then
    set -- samples/*.etl
fi
for sample in "$@"; do
    logs=$(mktemp -d)
    TZ=UTC scripts/replay.sh --output "$logs" "$sample" >/dev/null
    for log in $(cd "$logs" && LC_ALL=C ls); do
        printf '==> %s <==\n' "$log"
        tr -d '\r' <"$logs/$log"
    done >"${sample%.etl}.expected.txt"
    rm -rf "$logs"
    echo "${sample%.etl}.expected.txt"
done
