#!/usr/bin/env bash
# Every export from inside every operation of a module, in the plain build. --full: also under the
# sanitizers, and what waits for ever is waited for longer.
set -euo pipefail
cd "$(dirname "$0")/../../.."
source tests/reliability/build.sh

presets=(gcc)
options=()
if [ "${1:-}" = --full ]; then
    presets=(gcc asan tsan)
    options=(--for-ever 10000)
fi
log=$(mktemp)
trap 'rm -f "$log"' EXIT
for preset in "${presets[@]}"; do
    build "$preset" vessa_reentrancy vessa_reentrancy_test vessa_test_modules
    if ! "build-$preset/bin/vessa_reentrancy" --write "build-$preset/reentrancy.md" \
        --compare docs/reentrancy.md "${options[@]}" >"$log"; then
        cat "$log"
        exit 1
    fi
    echo "   reentrancy: $preset: $(tail -1 "$log")"
done
"build-gcc/bin/vessa_reentrancy_test" --gtest_brief=1 >"$log" || { cat "$log"; exit 1; }
