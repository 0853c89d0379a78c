#!/usr/bin/env bash
# Counts the instructions of the create, query, destroy and scan paths of the library as released,
# its runtime and its log included, and compares them with bench/guard.txt.
#
#   bench/guard.sh           fails if a path has become more than 10 % longer, or is missing
#   bench/guard.sh --update  writes the figures of now into bench/guard.txt
set -euo pipefail
cd "$(dirname "$0")/.."

mode=compare
case "${1:-}" in
    "") ;;
    --update) mode=update ;;
    *) echo "usage: $0 [--update]" >&2; exit 2 ;;
esac
stored=bench/guard.txt

tools/bench-deps.sh --guard
cmake --preset bench >build-bench.log 2>&1 || { cat build-bench.log; exit 1; }
cmake --build build-bench --target bench_guard -j "$(nproc)" -- --quiet

counts=$(mktemp -d)
trap 'rm -rf "$counts"' EXIT
valgrind --tool=callgrind --instr-atstart=no --callgrind-out-file="$counts/out" \
    build-bench/bin/bench_guard >"$counts/log" 2>&1 || { cat "$counts/log"; exit 1; }

# "<path> <instructions for one operation>", one dump for each path.
for dump in "$counts"/out.*; do
    awk '/^desc: Trigger: Client Request:/ { path = $(NF - 1); times = $NF }
         /^totals:/ && path != "" { printf "%s %.0f\n", path, $2 / times }' "$dump"
done >"$counts/now"

if [ "$mode" = update ]; then
    cp "$counts/now" "$stored"
    cat "$stored"
    exit 0
fi

awk '
    NR == FNR { stored[$1] = $2; order[++paths] = $1; next }
    { now[$1] = $2 }
    !($1 in stored) { print "guard: " $1 " is not in bench/guard.txt"; failed = 1 }
    END {
        for (i = 1; i <= paths; ++i) {
            path = order[i]
            if (!(path in now)) { print "guard: " path " was not counted"; failed = 1; continue }
            change = (now[path] / stored[path] - 1) * 100
            verdict = change > 10 ? "LONGER" : ""
            if (change > 10) failed = 1
            printf "%-16s %10d instructions, stored %10d  %+7.2f %%  %s\n",
                path, now[path], stored[path], change, verdict
        }
        if (paths == 0) { print "guard: bench/guard.txt is empty"; failed = 1 }
        exit failed
    }' "$stored" "$counts/now" || {
    echo "guard: if this is meant, bench/guard.sh --update stores the new figures" >&2
    exit 1
}
