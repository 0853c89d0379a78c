#!/usr/bin/env bash
# Whatever can fail fails, at each point of a life of the library: allocations, calls of the
# runtime, system calls. Points.cpp, SystemCalls.cpp and Scenario.h say how and what is demanded.
#
#   run.sh          every point with the log as it is by default; some of them with all messages,
#                   and under the address sanitizer: 1 in so many as is printed
#   run.sh --full   every point of all of these
set -euo pipefail
cd "$(dirname "$0")/../../.."
source tests/reliability/build.sh

logged=16 asan_allocations=4 asan_runtime=10 asan_calls=0
if [ "${1:-}" = --full ]; then
    logged=1 asan_allocations=1 asan_runtime=1 asan_calls=1
fi
# More at a time than cores: a listing waits for the end of a file system's tick.
jobs=$(($(nproc) * 3))
# The ledger counts what is lost.
export ASAN_OPTIONS=detect_leaks=0:allocator_may_return_null=1
output=$(mktemp)
trap 'rm -f "$output"' EXIT

build gcc faults_points faults_system_calls faults_self_test
build asan faults_points faults_system_calls faults_self_test

# The numbers of the program's last line, added up; the program's own words if it fails.
points=0 crashes=0 hangs=0 leaks=0
count() {
    local status=0
    "$@" --jobs "$jobs" >"$output" 2>&1 || status=$?
    if [ "$status" != 0 ]; then
        [ "$status" != 77 ] || return 77
        head -c 20000 "$output"
        tail -n 1 "$output"
        echo "failed: $*"
        return 1
    fi
    local line
    line=$(tail -n 1 "$output")
    [[ $line =~ ^points\ ([0-9]+).*:\ ([0-9]+)\ crashes,\ ([0-9]+)\ hangs,\ ([0-9]+)\ leaks,\ 0\ broken ]] ||
        { echo "not understood: $line"; return 1; }
    points=${BASH_REMATCH[1]}
    ((crashes += BASH_REMATCH[2], hangs += BASH_REMATCH[3], leaks += BASH_REMATCH[4], 1))
}
report() {
    echo "   faults: $1: $crashes crashes, $hangs hangs, $leaks leaks"
    crashes=0 hangs=0 leaks=0
}
every() {
    [ "$1" = 1 ] && echo "all" || echo "1 in $1"
}

self_test() {
    "$1"/bin/faults_self_test --gtest_brief=1 --gtest_filter="$2" >"$output" 2>&1 ||
        { cat "$output"; exit 1; }
}
self_test build-gcc '*'
self_test build-asan '*Sanitizer*:NoMistake*'

marked=lib/faults/libvessa.so.2
count build-gcc/bin/faults_points build-gcc/$marked allocations --log warning
quiet=$points
count build-asan/bin/faults_points build-asan/$marked allocations --log warning \
    --every "$asan_allocations"
asan=$points
count build-gcc/bin/faults_points build-gcc/$marked allocations --log trace --every "$logged"
loud=$points
if [ "${1:-}" = --full ]; then
    count build-asan/bin/faults_points build-asan/$marked allocations --log trace --every "$logged"
fi
[ "$quiet" -ge 1000 ] && [ "$loud" -ge 3000 ] || { echo "too few allocations"; exit 1; }
report "allocations: $quiet points x 3 modes, plain and asan ($(every $asan_allocations) of $asan),\
 and with all messages ($(every $logged) of $loud)"

count build-gcc/bin/faults_points build-gcc/$marked runtime --log warning
calls=$points
count build-asan/bin/faults_points build-asan/$marked runtime --log warning --every "$asan_runtime"
[ "$calls" -ge 500 ] || { echo "too few calls"; exit 1; }
report "runtime: $calls calls of 20 functions x 3 modes, plain and asan ($(every $asan_runtime))"

status=0
count build-gcc/bin/faults_system_calls build-gcc/lib/libvessa.so.2 || status=$?
if [ "$status" = 77 ]; then
    echo "   faults: system calls: $(tail -n 1 "$output")"
    exit 0
fi
[ "$status" = 0 ] || exit 1
calls=$points
if [ "$asan_calls" = 1 ]; then
    count build-asan/bin/faults_system_calls build-asan/lib/libvessa.so.2
fi
[ "$calls" -ge 200 ] || { echo "too few system calls"; exit 1; }
report "system calls: $calls points x 3 modes"
