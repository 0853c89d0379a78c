#!/usr/bin/env bash
# Upgrades while the library runs, each row of docs/upgrading.md, in two builds. There is no more of
# it on demand.
set -euo pipefail
cd "$(dirname "$0")/../../.."
source tests/reliability/build.sh

for preset in gcc asan; do
    build "$preset" vessa_upgrade_test
    program=build-$preset/bin/vessa_upgrade_test
    "$program" --gtest_brief=1 >"build-$preset/upgrade.log" 2>&1 ||
        { cat "build-$preset/upgrade.log"; exit 1; }
done
combinations=$("$program" --gtest_list_tests --gtest_filter='Each/*' | grep -Ec 'IsAsDocumented|MayEndTheProcess')
echo "   upgrade: $combinations combinations x 2 builds: all as documented"
