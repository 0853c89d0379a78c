#!/usr/bin/env bash
# Every export from inside every operation of a module, in the plain build. A cell that takes a
# minute does not end. --full: also under the sanitizers, where a cell has twenty seconds; in the
# plain build it has two, of a machine with nothing else to do; and what waits for ever is waited
# for longer.
set -euo pipefail
cd "$(dirname "$0")/../../.."
source tests/reliability/build.sh

presets=(gcc)
[ "${1:-}" != --full ] || presets=(gcc asan tsan)
log=$(mktemp)
trap 'rm -f "$log"' EXIT
for preset in "${presets[@]}"; do
    options=()
    if [ "${1:-}" = --full ]; then
        options=(--for-ever 10000 --within 20000)
        [ "$preset" != gcc ] || options=(--for-ever 10000 --within 2000)
    fi
    build "$preset" vessa_reentrancy vessa_reentrancy_test vessa_test_modules
    if ! "build-$preset/bin/vessa_reentrancy" --write "build-$preset/reentrancy.md" \
        --compare docs/reentrancy.md "${options[@]}" >"$log"; then
        cat "$log"
        exit 1
    fi
    echo "   reentrancy: $preset: $(tail -1 "$log")"
done
"build-gcc/bin/vessa_reentrancy_test" --gtest_brief=1 >"$log" || { cat "$log"; exit 1; }
