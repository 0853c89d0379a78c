#!/usr/bin/env bash
# Looks for each planted bug with the seeded schedules, up to 100 seeds; the first that finds it is
# printed, and must find it again, at the same step. --full: also the bugs that are marked "full",
# which few schedules show, with 20,000 seeds.
set -euo pipefail
cd "$(dirname "$0")/../../.."
source tests/reliability/build.sh

log=$(mktemp)
trap 'rm -f "$log"' EXIT
# A replacement whose text is not in the source any more must fail the build, not pass unplanted.
cat >"$log" <<'END'
preset: asan
<<<<
no such text
====
>>>>
END
! cmake -DBUG="$log" -DSOURCE="$PWD/src/common/Sync.cpp" -DPLANTED="$log.cpp" \
    -P tests/reliability/planted/Plant.cmake >/dev/null 2>&1 && [ ! -e "$log.cpp" ] ||
    { echo "   planted: a stale replacement is taken"; exit 1; }

found=0 total=0 latest=0 missed=()

# look <build> <bug> <seeds>: the first seed that finds it, in $seed; empty if none does.
look() {
    local program=build-$1/bin/vessa_seeds library=build-$1/lib/planted/$2/libvessa.so.2 first again
    seed=
    ! "$program" range 1 "$3" --library "$library" >"$log" 2>&1 || return 0
    first=$(grep -m1 -oE 'seed [0-9]+ failed in round [0-9]+ at step [0-9]+' "$log") ||
        { cat "$log"; return 1; }
    seed=$(cut -d' ' -f2 <<<"$first")
    how=$(grep -m1 -oE "step [0-9]+: .*|SUMMARY: .*" "$log" | sed 's/^step [0-9]*: //' | cut -c1-90)
    again=$("$program" run "$seed" --library "$library" 2>&1 |
        grep -m1 -oE 'seed [0-9]+ failed in round [0-9]+ at step [0-9]+' || true)
    [ "$first" = "$again" ] || { echo "planted: $2: '$first', but again '$again'"; return 1; }
}

# try <build> <bug> <seeds>
try() {
    look "$@"
    total=$((total + 1))
    if [ -z "$seed" ]; then
        missed+=("$2 ($1)")
        return
    fi
    found=$((found + 1))
    [ "$seed" -le "$latest" ] || latest=$seed
    printf '   %-24s %-5s seed %-5s %s\n' "$2" "$1" "$seed" "$how"
}

everyday=() rare=()
for file in tests/reliability/planted/bugs/*.bug; do
    if grep -q '^full$' "$file"; then rare+=("$file"); else everyday+=("$file"); fi
done
preset_of() { sed -n 's/^preset: //p' "$1"; }

# build_bugs <build> <bug>...
build_bugs() {
    local preset=$1
    shift
    build "$preset" vessa_seeds "${@/#/vessa_planted_}"
}

for preset in gcc asan tsan; do
    names=()
    for file in "${everyday[@]}"; do
        [ "$(preset_of "$file")" != "$preset" ] || names+=("$(basename "$file" .bug)")
    done
    [ ${#names[@]} != 0 ] || continue
    build_bugs "$preset" "${names[@]}"
    for name in "${names[@]}"; do try "$preset" "$name" 100; done
done
if [ "${1:-}" = --full ]; then
    for file in "${rare[@]}"; do
        build_bugs "$(preset_of "$file")" "$(basename "$file" .bug)"
        try "$(preset_of "$file")" "$(basename "$file" .bug)" 20000
    done
fi
[ ${#missed[@]} = 0 ] || { printf '   planted: not found: %s\n' "${missed[@]}"; exit 1; }
echo "   planted: $found of $total found, at the latest with seed $latest"
