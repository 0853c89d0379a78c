#!/usr/bin/env bash
# Searches the models completely with three threads, and refutes each that is wrong on purpose.
# docs/design/model.md says how they correspond to the sources. With --full also four threads; what
# does not fit into memory is searched by bits then, which the line says.
set -euo pipefail
cd "$(dirname "$0")/../../.."
models=$PWD/tests/reliability/model
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
full=no
[ "${1:-}" != --full ] || full=yes

# Makes and runs the verifier of a model: search <model> <definitions> <for the compiler> <for pan>.
search() {
    local model=$1 definitions=$2 compiler=$3 options=$4
    rm -rf "$work/pan" && mkdir "$work/pan" && cd "$work/pan"
    # shellcheck disable=SC2086
    spin -a $definitions "$models/$model.pml" >spin.log 2>&1 || { cat spin.log; exit 1; }
    # shellcheck disable=SC2086
    gcc -w -DCOLLAPSE $compiler -o pan pan.c
    # shellcheck disable=SC2086
    timeout -s KILL "${seconds:-1200}" nice ./pan $options >log 2>&1 || true
    grep -q 'errors: ' log || { echo "model: $model $definitions did not end"; tail -5 log; exit 1; }
}
# Many states are printed as 1.2e+08, with which the shell does not calculate.
stored() { awk '/states, stored/ {printf "%.0f\n", $1; exit}' log; }

states=0
# holds <model> <definitions> [<compiler> <pan>]: a search that comes to its end and finds nothing.
holds() {
    search "$1" "$2" "-O2 ${3:--DSAFETY -DMEMLIM=6000}" "${4:--m12000000 -w24}"
    grep -q 'errors: 0' log || { echo "model: $1 $2 has an error"; cat log; exit 1; }
    ! grep -qE 'Search not completed|too small|max search depth|out of memory' log ||
        { echo "model: the search of $1 $2 is not complete"; cat log; exit 1; }
    states=$((states + $(stored)))
    [ $full = no ] || printf '   %s %s: %s states, depth %s, %s s, %s MB\n' "$1" "$2" "$(stored)" \
        "$(sed -n 's/.*depth reached \([0-9]*\).*/\1/p' log)" \
        "$(sed -n 's/.*elapsed time \([0-9.]*\).*/\1/p' log)" \
        "$(awk '/total actual memory/ {print $1}' log)"
}
wrong=0
refuted=0
# is_wrong <model> <definitions> [<compiler> <pan>]: a search that finds what was made wrong. It is
# short, so that compiling with -O2 would take longer.
is_wrong() {
    wrong=$((wrong + 1))
    search "$1" "$2" "-O0 ${3:--DSAFETY -DMEMLIM=6000}" "${4:--m1000000 -w22}"
    grep -qE '^pan:1: (assertion violated|invalid end state|acceptance cycle)' log ||
        { echo "model: $1 $2 is not refuted"; cat log; exit 1; }
    refuted=$((refuted + 1))
}

"$models/points.sh" "$models"/*.pml >"$work/points" || { cat "$work/points"; exit 1; }
echo '/*@ gate.reader.no_such_point */' >"$work/wrong.pml"
! "$models/points.sh" "$work/wrong.pml" >/dev/null ||
    { echo "model: a sync point that does not exist is not reported"; exit 1; }

fair="-DNFAIR=4 -DMEMLIM=6000"
holds gate -DN=3
holds gate "-DN=3 -DHELPER -DSLICES"
holds gate "-DN=3 -DSLICES -DSLICERS=1"
holds gate "-DN=3 -DFAIR -DWRITERS=1" "$fair" "-a -f -m12000000 -w22"
holds registry "-DN=3 -DOWNER_TURNS=2 -DUSER_TURNS=1"
holds registry "-DN=2 -DOWNER_TURNS=3 -DUSER_TURNS=3"
holds life -DN=3

for variant in NESTED_BLOCKS NO_FENCE NO_STRICT_FENCE NO_SLEEP_FENCE NO_SECOND_LOOK HELPER; do
    is_wrong gate "-DN=3 -D$variant"
done
is_wrong gate "-DN=3 -DSLICES -DSLICERS=1 -DKEEPS_POST"
is_wrong gate "-DN=3 -DFAIR -DANY_ORDER -DWRITERS=1" "$fair" "-a -f -m1000000 -w22"
for variant in UNLOCK_BEFORE_REFERENCE NO_SECOND_LOOK NO_GUARD NO_COUNT_FENCE; do
    is_wrong registry "-DN=3 -DOWNER_TURNS=3 -DUSER_TURNS=2 -D$variant"
done
is_wrong registry "-DN=3 -DOWNER_TURNS=2 -DUSER_TURNS=1 -DNO_BURIAL_FENCE"
is_wrong registry "-DN=2 -DOWNER_TURNS=2 -DUSER_TURNS=2 -DNO_PIN"
for variant in JOIN_UNDER_MUTEX STOP_INSIDE JOINS_ITSELF; do
    is_wrong life "-DN=3 -D$variant"
done
[ $full = no ] || is_wrong registry "-DN=3 -DOWNER_TURNS=3 -DUSER_TURNS=2 -DKEY_IS_ENOUGH"
line="   model: 3 threads: $states states, 0 errors; $refuted of $wrong wrong variants refuted"

if [ $full = yes ]; then
    seconds=7200
    holds gate "-DN=3 -DSLICES"
    holds registry "-DN=3 -DOWNER_TURNS=1 -DUSER_TURNS=2"
    states=0
    holds life "-DN=4 -DTURNS=1"
    echo "   by bits, each state held at a likelihood that its hash factor tells:"
    holds gate "-DN=4 -DWRITERS=2" "-DSAFETY -UCOLLAPSE -DBITSTATE" "-m20000000 -w34"
    holds registry "-DN=4 -DOWNER_TURNS=2 -DUSER_TURNS=1" "-DSAFETY -UCOLLAPSE -DBITSTATE" "-m1000000 -w34"
    line="$line; 4 threads: $states states, 0 errors"
fi
echo "$line"
