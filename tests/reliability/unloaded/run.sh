#!/usr/bin/env bash
# The test programs that load modules, and the seeded schedules, with the address range of every
# unloaded module closed (Unloaded.cpp says how): nothing may be used after its unload. --full: every
# test of the plain build, each in a process of its own.
set -euo pipefail
cd "$(dirname "$0")/../../.."
source tests/reliability/build.sh

programs=(vessa_capi_test vessa_modules_test vessa_support_test tova_test tova_posix_test)
for file in tests/unit/{LifeCycle,Plugin,ConfigChanges,DelayLoadPlugin,Exports}*_test.cpp \
    tests/unit/posix/{LifeCycle,Plugin}*_test.cpp; do
    programs+=("vessa_unit_$(basename "$file" .cpp)")
done
for file in tests/transcript/*_test.cpp; do
    programs+=("vessa_transcript_$(basename "$file" .cpp)")
done

build gcc vessa_unloaded_test vessa_seeds "${programs[@]}"
build-gcc/bin/vessa_unloaded_test --gtest_brief=1

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
head -c 32 /dev/zero >"$work/counts"
export VESSA_UNLOADED_COUNTS=$work/counts
closed() { LD_PRELOAD=$PWD/build-gcc/lib/libvessa_unloaded.so "$@"; }

# run_program <program>: all of its tests in one process.
run_program() {
    closed "build-gcc/bin/$1" --gtest_brief=1 >"$work/$1.log" 2>&1 ||
        { cat "$work/$1.log"; echo "   unloaded: failed: $1"; } >>"$work/failed"
}
export -f closed run_program
export work

if [ "${1:-}" = --full ]; then
    build gcc all
    closed ctest --test-dir build-gcc --output-on-failure --progress -LE reliability \
        -j "$(nproc)" | tee "$work/log"
    tests=$(sed -nE 's/^.*tests passed, .* out of ([0-9]+)$/\1/p' "$work/log")
else
    printf '%s\n' "${programs[@]}" | xargs -P "$(nproc)" -I{} bash -c 'run_program {}'
    tests=$(sed -nE 's/^\[==========\] ([0-9]+) tests? .* ran.*/\1/p' "$work"/*.log |
        awk '{ sum += $1 } END { print sum + 0 }')
fi
closed build-gcc/bin/vessa_seeds range 1 "$([ "${1:-}" = --full ] && echo 2000 || echo 50)"
[ ! -e "$work/failed" ] || { cat "$work/failed"; exit 1; }

# Calls that unloaded, files closed, ranges that another thread had taken already, faults.
read -r unloads blocked missed faults < <(od -An -v -t u8 -w32 "$work/counts")
[ "$faults" = 0 ] || { echo "   unloaded: $faults faults"; exit 1; }
[ "$blocked" -gt 100 ] || { echo "   unloaded: only $blocked files were closed"; exit 1; }
echo "   unloaded: $tests tests, $unloads unloads ($blocked files closed, $missed not): 0 faults"
