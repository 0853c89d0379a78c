#!/usr/bin/env bash
# Installs what the tests need, builds everything and runs every test.
#
#   ./test.sh               all of it
#   ./test.sh gcc           one stage, or several: gcc asan tsan package
#
# Options of the test runner come from the environment, as CTEST_OPTIONS="-R Timer".
set -euo pipefail
cd "$(dirname "$0")"

stages=("$@")
[ ${#stages[@]} -gt 0 ] || stages=(gcc package asan tsan)
jobs=$(nproc)

tools/install-deps.sh --tests

# Configures, builds and tests one preset; everything in parallel, in random order.
suite() {
    local preset=$1
    echo "== $preset: build"
    cmake --preset "$preset" >"build-$preset.log" 2>&1 || { cat "build-$preset.log"; return 1; }
    cmake --build "build-$preset" -j "$jobs" -- --quiet
    echo "== $preset: test"
    # shellcheck disable=SC2086
    ctest --test-dir "build-$preset" --output-on-failure --progress --schedule-random \
        -j "$((jobs * 2))" ${CTEST_OPTIONS:-}
}

# The installed package, used by a project outside of this tree.
package() {
    local root
    root=$(mktemp -d)
    trap 'rm -rf "$root"' RETURN
    [ -d build-gcc ] || { cmake --preset gcc >/dev/null && cmake --build build-gcc -j "$jobs" -- --quiet; }
    echo "== package: install, build against it, run"
    cmake --install build-gcc --prefix "$root/installed" >/dev/null
    cp -r tests/consumer "$root/consumer"
    cmake -S "$root/consumer" -B "$root/build" -G Ninja -DCMAKE_PREFIX_PATH="$root/installed" >/dev/null
    cmake --build "$root/build" >/dev/null
    ctest --test-dir "$root/build" --output-on-failure
}

for stage in "${stages[@]}"; do
    case $stage in
        package) package ;;
        gcc | asan | tsan) suite "$stage" ;;
        *) echo "test.sh: no stage '$stage'; there are: gcc package asan tsan" >&2; exit 2 ;;
    esac
done
echo "test.sh: all stages passed: ${stages[*]}"
