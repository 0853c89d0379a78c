#!/usr/bin/env bash
# Installs what the tests need, builds everything and runs every test, on this system and,
# cross-compiled and run through Wine, for 64-bit Windows.
#
#   ./test.sh               all of it
#   ./test.sh --no-windows  without the Windows stage
#   ./test.sh gcc           one stage, or several: gcc package guard asan tsan reliability windows
#
# Options of the test runner come from the environment, as CTEST_OPTIONS="-R Timer".
set -euo pipefail
cd "$(dirname "$0")"

case ${1:-} in
    "") stages=(gcc package guard asan tsan reliability windows) ;;
    --no-windows) stages=(gcc package guard asan tsan reliability) ;;
    *) stages=("$@") ;;
esac
jobs=$(nproc)

tools/install-deps.sh --tests

# Builds one preset and runs its tests; everything in parallel, in random order.
suite() {
    local preset=$1
    echo "== $preset: build"
    cmake --preset "$preset" >"build-$preset.log" 2>&1 || { cat "build-$preset.log"; return 1; }
    cmake --build "build-$preset" -j "$jobs" -- --quiet
    echo "== $preset: test"
    [ "$preset" != windows-mingw ] || tools/wine.sh --prepare
    # shellcheck disable=SC2086
    ctest --test-dir "build-$preset" --output-on-failure --progress --schedule-random -LE reliability \
        -j "$((jobs * 2))" ${CTEST_OPTIONS:-}
    skipped "build-$preset/Testing/Temporary/LastTest.log"
}

# What could not be tested here, by name, and why; and how many tests passed.
skipped() {
    awk '/^\[ RUN / { name = $4 }
         /: Skipped$/ { getline reason; print "   skipped: " name ": " substr(reason, 1, 120) }' "$1" |
        sort
    echo "   $(grep -c '^\[       OK \]' "$1" || true) tests passed"
}

# consumer <build folder> [options of cmake]: the installed package, used by a project outside of
# this tree.
consumer() {
    local build=$1 root
    shift
    root=$(mktemp -d)
    # shellcheck disable=SC2064
    trap "rm -rf '$root'" RETURN
    echo "== $build: install, build against it, run"
    cmake --install "$build" --prefix "$root/installed" >/dev/null
    cp -r tests/consumer "$root/consumer"
    cmake -S "$root/consumer" -B "$root/build" -G Ninja \
        -DCMAKE_PREFIX_PATH="$root/installed" "$@" >/dev/null
    cmake --build "$root/build" >/dev/null
    ctest --test-dir "$root/build" --output-on-failure
}

package() {
    [ -d build-gcc ] || { cmake --preset gcc >/dev/null && cmake --build build-gcc -j "$jobs" -- --quiet; }
    consumer build-gcc
}

# The lengths of the paths that applications take most, in instructions.
guard() {
    echo "== guard: build, count"
    bench/guard.sh
}

# Faults, hostile input, schedules, model, random runs: the share of every day.
reliability() {
    echo "== reliability"
    ./reliability.sh
}

windows() {
    tools/windows-deps.sh
    suite windows-mingw
    consumer build-windows-mingw --toolchain "$PWD/cmake/windows-mingw.cmake"
}

for stage in "${stages[@]}"; do
    case $stage in
        package) package ;;
        guard) guard ;;
        reliability) reliability ;;
        windows) windows ;;
        gcc | asan | tsan) suite "$stage" ;;
        *) echo "test.sh: no stage '$stage'; there are: gcc package guard asan tsan reliability windows" >&2; exit 2 ;;
    esac
done
echo "test.sh: all stages passed: ${stages[*]}"
