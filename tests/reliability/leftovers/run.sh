#!/usr/bin/env bash
# Nothing left behind after many rounds; --full: all of them. See Leftovers.h.
set -euo pipefail
cd "$(dirname "$0")/../../.."
source tests/reliability/build.sh

# A change of a list file takes one tick of the file system's clock, 4 ms and no processor.
rounds=100000 lists=1500 starts=10000
[ "${1:-}" != --full ] || { rounds=1000000 lists=25000 starts=100000; }

build gcc vessa_leftovers_test
ctest --test-dir build-gcc -L reliability -R 'Leftovers\.|Planted\.' --no-tests=error \
    --output-on-failure -j "$(nproc)" >build-gcc/leftovers.log || { cat build-gcc/leftovers.log; exit 1; }
build-gcc/bin/vessa_leftovers_provider "$rounds"
build-gcc/bin/vessa_leftovers_library "$lists" "$starts"
grouped() { sed -E ':more; s/([0-9])([0-9]{3})($|,)/\1,\2\3/; t more' <<<"$1"; }
echo "   leftovers: $(grouped "$rounds") rounds, $(grouped "$lists") through list files," \
    "$(grouped "$starts") starts: no growth"
