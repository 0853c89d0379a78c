#!/usr/bin/env bash
# bites.sh <program> <order> <text>: the program has a planted bug. The order must fail in it, and
# say so with the text, a regular expression.
set -uo pipefail
program=$1 order=$2 text=$3
export VESSA_ORDER_LIMIT_MS=10000
output=$("$program" --gtest_filter="$order" 2>&1)
status=$?
fail() {
    echo "$output"
    echo "$order: $1"
    exit 1
}
[ $status != 0 ] || fail "it holds although there is a bug"
grep -qF "[ RUN      ] $order" <<<"$output" || fail "there is no such order"
grep -qE -- "$text" <<<"$output" || fail "it fails without saying: $text"
