#!/usr/bin/env bash
# Carries out every written order in three builds: optimised, and under the address and the thread
# sanitizer. Nothing is left for --full.
set -euo pipefail
cd "$(dirname "$0")/../../.."
source tests/reliability/build.sh

targets=(vessa_points_list_test)
for name in harness gate common registry module life; do
    targets+=("vessa_orders_${name}_test")
done
builds=(gcc asan tsan)
orders=
for preset in "${builds[@]}"; do
    bite=
    [ "$preset" != asan ] || bite=vessa_orders_bite
    build "$preset" "${targets[@]}" $bite
    folder=build-$preset/tests/reliability/orders
    counted=$(ctest --test-dir "$folder" -N | grep -c 'Test *#[0-9]*: [A-Za-z]*Orders\.') || true
    [ "$counted" -ge 60 ] || { echo "orders: only $counted orders in $preset" >&2; exit 1; }
    [ "${orders:=$counted}" = "$counted" ] || { echo "orders: builds differ" >&2; exit 1; }
    log=$folder/run.log
    ctest --test-dir "$folder" -j "$(nproc)" --output-on-failure >"$log" 2>&1 ||
        { cat "$log"; echo "   orders: $preset: an order does not hold" >&2; exit 1; }
done
echo "   orders: $orders orders x ${#builds[@]} builds: all hold"
