#!/usr/bin/env bash
# points.sh <model>...: each sync point that a model names stands in the list and in the sources.
# Prints how many there are.
set -euo pipefail
cd "$(dirname "$0")/../../.."
names=$(grep -oh '/\*@ [a-z_.]* \*/' "$@" | sed 's|/\*@ \(.*\) \*/|\1|' | sort -u)
for name in $names; do
    grep -qF "| \`$name\` |" docs/design/points.md ||
        { echo "model: '$name' is not in docs/design/points.md"; exit 1; }
    grep -rqF "VESSA_SYNC_POINT(\"$name\"" src || { echo "model: '$name' is not in src"; exit 1; }
done
wc -w <<<"$names"
