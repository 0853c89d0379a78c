#!/usr/bin/env bash
# Runs the families of tests/reliability; each prints one closing line with its figure.
#
#   ./reliability.sh                  all of them, each one's share of every day
#   ./reliability.sh faults lists     some of them
#   ./reliability.sh --full schedules everything that the family has: hours
#
# What each family proves, and what was measured, stands in docs/reliability.md.
set -euo pipefail
cd "$(dirname "$0")"

full=
[ "${1:-}" != --full ] || { full=--full; shift; }
families=("$@")
if [ ${#families[@]} = 0 ]; then
    for script in tests/reliability/*/run.sh; do
        families+=("$(basename "$(dirname "$script")")")
    done
fi

tools/install-deps.sh --tests
for family in "${families[@]}"; do
    script=tests/reliability/$family/run.sh
    [ -x "$script" ] || { echo "reliability.sh: no family '$family'" >&2; exit 2; }
    begin=$SECONDS
    "$script" $full
    echo "   $family: $((SECONDS - begin)) s"
done
