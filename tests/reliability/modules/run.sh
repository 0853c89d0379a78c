#!/usr/bin/env bash
# Hostile modules, one test for each, in the plain build. --full: also under the sanitizers.
set -euo pipefail
cd "$(dirname "$0")/../../.."
source tests/reliability/build.sh

presets=(gcc)
[ "${1:-}" != --full ] || presets=(gcc asan tsan)
log=$(mktemp)
trap 'rm -f "$log"' EXIT
for preset in "${presets[@]}"; do
    build "$preset" vessa_hostile_modules vessa_hostile_host vessa_test_modules
    if ! ctest --test-dir "build-$preset" --no-tests=error --output-on-failure \
        -j "$(($(nproc) * 4))" -L reliability -R 'HostileModule|ATruncatedModule|NotSurvived' >"$log"; then
        cat "$log"
        exit 1
    fi
    program="build-$preset/bin/vessa_hostile_modules"
    count() { "$program" --gtest_list_tests --gtest_filter="$1" | grep -c '^ ' || true; }
    echo "   modules: $preset: $(count '*AtAStart*') hostile modules in two ways of loading and 60 cut ones" \
        "as documented, $(count '*TheHostEndsWithIt*') that no host survives"
done
