#!/usr/bin/env bash
# Carries out every written order in three builds: optimised, and under the address and the thread
# sanitizer. Nothing is left for --full.
set -euo pipefail
cd "$(dirname "$0")/../../.."
source tests/reliability/build.sh

targets=(vessa_points_list_test vessa_orders_harness_test vessa_orders_gate_test
         vessa_orders_common_test vessa_orders_registry_test vessa_orders_module_test
         vessa_orders_life_test)
builds=(gcc asan tsan)
orders=
for preset in "${builds[@]}"; do
    build "$preset" "${targets[@]}"
    folder=build-$preset/tests/reliability/orders
    counted=$(ctest --test-dir "$folder" -N | grep -c 'Test *#[0-9]*: [A-Za-z]*Orders\.') || true
    [ "$counted" -ge 60 ] || { echo "orders: only $counted orders in $preset" >&2; exit 1; }
    [ "${orders:=$counted}" = "$counted" ] || { echo "orders: builds differ" >&2; exit 1; }
    log=$folder/run.log
    ctest --test-dir "$folder" -j "$(nproc)" --output-on-failure >"$log" 2>&1 ||
        { cat "$log"; echo "   orders: $preset: an order does not hold" >&2; exit 1; }
done
echo "   orders: $orders orders x ${#builds[@]} builds: all hold"
