#!/usr/bin/env bash
# Nothing left behind after many rounds; --full: all of them. See Leftovers.h.
set -euo pipefail
cd "$(dirname "$0")/../../.."
source tests/reliability/build.sh

rounds=50000 lists=1000 starts=2000
[ "${1:-}" != --full ] || { rounds=100000 lists=20000 starts=10000; }

build gcc vessa_leftovers_test
ctest --test-dir build-gcc -L reliability -R 'Leftovers\.|Planted\.' --no-tests=error \
    --output-on-failure -j "$(nproc)" >build-gcc/leftovers.log || { cat build-gcc/leftovers.log; exit 1; }
build-gcc/bin/vessa_leftovers_provider "$rounds"
build-gcc/bin/vessa_leftovers_library "$lists" "$starts"
printf "   leftovers: %'d rounds, %'d list changes, %'d starts: no growth\n" \
    "$rounds" "$((4 * lists))" "$starts"
