#!/usr/bin/env bash
# The fuzzing drivers in fuzz/ (Fuzz.h is their manual).
#
#   run.sh          every stored input, as released and under the sanitizers, and the planted mistakes
#   run.sh --full   besides, each driver with libFuzzer for FUZZ_SECONDS, ten minutes unless set.
#                   FUZZ_DRIVERS="ListText PathForm" takes some. New inputs stay in
#                   build-fuzz/corpus/<driver>, findings in build-fuzz/findings.
#   run.sh --merge  puts of those new inputs into fuzz/corpus what reaches new code
set -euo pipefail
cd "$(dirname "$0")/../../.."
source tests/reliability/build.sh

read -ra drivers <<<"${FUZZ_DRIVERS:-ListText MessageFormat PathForm AnnouncedKeys ListChanges}"

# run <log> <command>...: shows the log of a command that fails.
run() {
    local log=$1
    shift
    "$@" >"$log" 2>&1 || { tail -n 40 "$log"; echo "failed: $*" >&2; return 1; }
}

replay() {
    local inputs=0 plants=0 preset driver program log
    for preset in gcc asan; do
        build "$preset" vessa_fuzz_replays
        inputs=0 plants=0
        for driver in "${drivers[@]}"; do
            program=build-$preset/bin/vessa_fuzz_${driver}_replay
            log=build-$preset/fuzz-$driver.log
            run "$log" "$program" "fuzz/corpus/$driver"
            inputs=$((inputs + $(sed -n 's/^\([0-9]*\) inputs$/\1/p' "$log")))
            run "$log" "$program" --plants "fuzz/corpus/$driver"
            plants=$((plants + $(sed -n 's/ of [0-9]* planted mistakes found$//p' "$log")))
        done
    done
    echo "   fuzz: $inputs stored inputs of ${#drivers[@]} drivers x 2 builds: 0 findings;" \
        "$plants planted mistakes found"
}

# Where a driver's inputs are dropped, and its modules and list files; gone at the end.
in_own_folder() {
    mkdir -p build-fuzz/tmp
    TMPDIR=$PWD/build-fuzz/tmp "$@"
    rm -rf build-fuzz/tmp
}

fuzz() {
    local seconds=${FUZZ_SECONDS:-600} driver log dictionary runs=0 figures="" these
    build fuzz vessa_fuzz_drivers
    mkdir -p build-fuzz/findings
    for driver in "${drivers[@]}"; do
        log=build-fuzz/fuzz-$driver.log
        dictionary=()
        [ ! -f "fuzz/$driver.dict" ] || dictionary=("-dict=fuzz/$driver.dict")
        mkdir -p "build-fuzz/corpus/$driver"
        in_own_folder run "$log" "build-fuzz/bin/vessa_fuzz_$driver" \
            -max_total_time="$seconds" -max_len=4096 -timeout=60 -print_final_stats=1 \
            "${dictionary[@]}" -artifact_prefix="build-fuzz/findings/$driver-" \
            "build-fuzz/corpus/$driver" "fuzz/corpus/$driver"
        these=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")
        runs=$((runs + these))
        figures+="${figures:+, }$driver $these"
    done
    echo "   fuzz: $seconds s each, $runs executions ($figures): 0 findings"
}

merge() {
    local driver
    build fuzz vessa_fuzz_drivers
    for driver in "${drivers[@]}"; do
        in_own_folder run "build-fuzz/merge-$driver.log" "build-fuzz/bin/vessa_fuzz_$driver" \
            -set_cover_merge=1 -max_len=4096 "fuzz/corpus/$driver" "build-fuzz/corpus/$driver"
    done
    # The fuzzer learns the texts that it sees compared, paths of this machine among them.
    grep -rlaF -e "$PWD" -e vessa-test- fuzz/corpus | xargs -r rm
    du -sh --apparent-size fuzz/corpus
}

case "${1:-}" in
    "") replay ;;
    --full)
        replay
        fuzz
        ;;
    --merge) merge ;;
    *)
        echo "usage: $0 [--full | --merge]" >&2
        exit 2
        ;;
esac
