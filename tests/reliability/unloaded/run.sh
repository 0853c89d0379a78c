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

# What cannot run so, and why: none.
left_out=()

build gcc vessa_unloaded_test vessa_seeds "${programs[@]}"
build-gcc/bin/vessa_unloaded_test --gtest_brief=1

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
head -c 32 /dev/zero >"$work/counts"
export VESSA_UNLOADED_COUNTS=$work/counts
closed() { LD_PRELOAD=$PWD/build-gcc/lib/libvessa_unloaded.so "$@"; }

tests=0 failed=()
if [ "${1:-}" = --full ]; then
    build gcc all
    closed ctest --test-dir build-gcc --output-on-failure --progress -LE reliability \
        -j "$(nproc)" ${left_out[@]+-E "$(IFS='|'; echo "${left_out[*]}")"} | tee "$work/log"
    tests=$(sed -nE 's/^.*tests passed, .* out of ([0-9]+)$/\1/p' "$work/log")
else
    for program in "${programs[@]}"; do
        closed "build-gcc/bin/$program" --gtest_brief=1 >"$work/log" 2>&1 ||
            { cat "$work/log"; failed+=("$program"); }
        tests=$((tests + $(sed -nE 's/^\[==========\] ([0-9]+) tests? .* ran.*/\1/p' "$work/log")))
    done
fi
closed build-gcc/bin/vessa_seeds range 1 "$([ "${1:-}" = --full ] && echo 2000 || echo 50)"
[ ${#failed[@]} = 0 ] || { printf '   unloaded: failed: %s\n' "${failed[@]}"; exit 1; }

# Calls that unloaded, files closed, ranges that another thread had taken already, faults.
read -r unloads blocked missed faults < <(od -An -v -t u8 -w32 "$work/counts")
[ "$faults" = 0 ] || { echo "   unloaded: $faults faults"; exit 1; }
[ "$blocked" -gt 100 ] || { echo "   unloaded: only $blocked files were closed"; exit 1; }
echo "   unloaded: $tests tests, $unloads unloads ($blocked files closed, $missed not): 0 faults"
