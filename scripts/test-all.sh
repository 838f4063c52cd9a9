#!/usr/bin/env bash
# Sets up a Debian machine, builds the Windows and the native configurations
# and runs every test of both. The last line counts all tests:
# "N passed, N failed". Exits non-zero when anything fails.
set -u
cd "$(dirname "$0")/.."

packages=(g++-mingw-w64-x86-64-posix wine64 cmake make googletest libgtest-dev libgmock-dev
          libbenchmark-dev clang libclang-rt-14-dev)
missing=()
for package in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed" ||
        missing+=("$package")
done
if [ ${#missing[@]} -gt 0 ]; then
    echo "Installing: ${missing[*]}"
    sudo_cmd=""
    [ "$(id -u)" -eq 0 ] || sudo_cmd="sudo"
    $sudo_cmd apt-get update -q || exit 1
    DEBIAN_FRONTEND=noninteractive $sudo_cmd apt-get install -y -q "${missing[@]}" || exit 1
fi

total_passed=0
total_failed=0
status=0

# Adds the counts of a ctest summary line from log file $1.
count_results() {
    local line
    line=$(grep -E '[0-9]+% tests passed, [0-9]+ tests? failed out of [0-9]+' "$1" | tail -n 1)
    if [ -z "$line" ]; then
        if grep -q "No tests were found" "$1"; then
            return
        fi
        total_failed=$((total_failed + 1))
        return
    fi
    local failed total
    failed=$(sed -E 's/.* ([0-9]+) tests? failed out of ([0-9]+).*/\1/' <<<"$line")
    total=$(sed -E 's/.* failed out of ([0-9]+).*/\1/' <<<"$line")
    total_passed=$((total_passed + total - failed))
    total_failed=$((total_failed + failed))
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
run_config windows scripts/run-wine-tests.sh build/windows --output-on-failure

echo "$total_passed passed, $total_failed failed"
[ "$status" -eq 0 ] && [ "$total_failed" -eq 0 ]
