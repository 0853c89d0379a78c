#!/usr/bin/env bash
# The random run: a minute of every day, and shorter under the sanitizers; --full: HOURS (8).
# SEED chooses another run, Random.h says what replays.
set -euo pipefail
cd "$(dirname "$0")/../../.."
source tests/reliability/build.sh

seed=${SEED:-1} seconds=60
[ "${1:-}" != --full ] || seconds=$((${HOURS:-8} * 3600))

build gcc vessa_random_test
ctest --test-dir build-gcc -L reliability -R 'RandomRun\.' --no-tests=error \
    --output-on-failure -j "$(nproc)" >build-gcc/random.log || { cat build-gcc/random.log; exit 1; }

# run <preset> <arguments>: shows everything if it fails; the last line otherwise.
run() {
    local preset=$1 status=0
    shift
    "build-$preset/bin/vessa_random" --seed "$seed" "$@" >"build-$preset/random.log" 2>&1 || status=$?
    [ $status = 0 ] || { tail -200 "build-$preset/random.log"; return 1; }
}

for preset in asan tsan; do
    build "$preset" vessa_random
    run "$preset" --seconds 20
    echo "   random, $preset: $(sed -n 's/^random: //p' "build-$preset/random.log")"
done
run gcc --seconds "$seconds" --complete
sed -n '$!p' build-gcc/random.log
echo "   $(tail -1 build-gcc/random.log)"
