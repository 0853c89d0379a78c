#!/usr/bin/env bash
# The hostile lists, each in a child of its own: as released and under the address and
# undefined-behaviour sanitizers. HostileLists_test.cpp says how a case is added. There is no longer
# share on demand: --full does the same.
set -euo pipefail
cd "$(dirname "$0")/../../.."
source tests/reliability/build.sh

files=$(find tests/reliability/lists/files -name '*.expect' | wc -l)
worst=()
for preset in gcc asan; do
    build "$preset" vessa_lists_test
    log=build-$preset/lists.log
    "build-$preset/bin/vessa_lists_test" --gtest_brief=1 >"$log" 2>&1 || { cat "$log"; exit 1; }
    worst+=("$(sed -n 's/^worst of [0-9]*: //p' "$log")")
done
echo "   lists: $files files and 4097 truncations x 2 builds: 0 reports; at the most" \
    "${worst[0]} (of 250 ms, 64 MiB), with sanitizers ${worst[1]%%,*} (of 1000 ms)"
