#!/usr/bin/env bash
# Sets up a Debian machine, builds the Windows and the native configurations
# and runs every test of both. The last line counts all tests:
# "N passed, N failed". Exits non-zero when anything fails.
set -u
cd "$(dirname "$0")/.."

packages=(g++-mingw-w64-x86-64-posix wine64 cmake make googletest libgtest-dev libgmock-dev
          libbenchmark-dev clang libclang-rt-14-dev)
scripts/install-packages.sh "${packages[@]}" || exit 1

total_passed=0
total_failed=0
status=0

# Adds the test cases of ctest log $1. A ctest test that ran a gtest
# executable verbosely ("N: " before its output) counts the cases of gtest's
# summary, and one more failure when it failed without a failed case (a
# crash); any other ctest test counts as one case.
count_results() {
    if ! grep -qE '^ *[0-9]+/[0-9]+ Test +#[0-9]+: ' "$1"; then
        grep -q "No tests were found" "$1" || total_failed=$((total_failed + 1))
        return
    fi
    local counts
    counts=$(awk '
        match($0, /^[0-9]+: \[  (PASSED|SKIPPED) +\] [0-9]+ tests?\./) {
            n = $1 + 0; split(substr($0, index($0, "] ") + 2), w, " "); passed[n] += w[1]; gtest[n] = 1
        }
        match($0, /^[0-9]+: \[  FAILED  \] [0-9]+ tests?, listed below/) {
            n = $1 + 0; split(substr($0, index($0, "] ") + 2), w, " "); failed[n] += w[1]; gtest[n] = 1
        }
        match($0, /^ *[0-9]+\/[0-9]+ Test +#[0-9]+: /) {
            id = $0; sub(/^.*Test +#/, "", id); sub(/:.*/, "", id)
            ok[id + 0] = ($0 ~ /(Passed|Skipped) +[0-9.]+ sec$/)
        }
        END {
            p = 0; f = 0
            for (n in ok) {
                if (n in gtest) {
                    p += passed[n]; f += failed[n]
                    if (!ok[n] && !failed[n]) f++
                } else if (ok[n]) p++; else f++
            }
            print p, f
        }' "$1")
    total_passed=$((total_passed + ${counts% *}))
    total_failed=$((total_failed + ${counts#* }))
}

run_config() {
    local preset=$1
    shift
    echo "=== $preset: configure and build"
    if ! cmake --preset "$preset" >"build/$preset.configure.log" 2>&1; then
        cat "build/$preset.configure.log"
        echo "$preset: configure failed"
        total_failed=$((total_failed + 1))
        status=1
        return
    fi
    if ! cmake --build --preset "$preset"; then
        echo "$preset: build failed"
        total_failed=$((total_failed + 1))
        status=1
        return
    fi
    echo "=== $preset: test"
    local log="build/$preset/test-results.log"
    "$@" 2>&1 | tee "$log"
    [ "${PIPESTATUS[0]}" -eq 0 ] || status=1
    count_results "$log"
}

mkdir -p build
run_config native ctest --preset native
run_config native-tsan ctest --preset native-tsan
# Verbose: every executable's own output, which names its failing cases, is
# in the log and gives its count of cases.
run_config windows scripts/run-wine-tests.sh build/windows --verbose

echo "$total_passed passed, $total_failed failed"
[ "$status" -eq 0 ] && [ "$total_failed" -eq 0 ]
