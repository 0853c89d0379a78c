#!/usr/bin/env bash
# Seeded schedules in three builds, plain and with the address and the thread sanitizer, each seed
# twice: 50 seeds. --full: 20,000 of them.
#
# A seed that fails is named with the command that replays it.
set -euo pipefail
cd "$(dirname "$0")/../../.."
source tests/reliability/build.sh

seeds=50
[ "${1:-}" != --full ] || seeds=20000
for preset in gcc asan tsan; do
    build "$preset" vessa_seeds
    "build-$preset/bin/vessa_seeds" range 1 "$seeds" --twice
done
echo "   seeds: $seeds seeds x 3 builds: 0 reports; replay: every schedule the same again"
