#!/bin/sh
# Runs a program for 64-bit Windows through Wine: its input, output and exit code are the caller's.
# (Wine ends with the lowest eight bits of the code, or 1 if these are 0 and the code is not.)
#
#   tools/wine.sh <program> [arguments...]
#   tools/wine.sh --prepare    starts what all programs share, so that none has to wait for it
#   tools/wine.sh --end        ends every program that still runs there
#
# All of it happens in a Wine prefix of the project's own, or in $WINEPREFIX, an absolute path; the
# first use makes it. What the programs share starts with the first of them and ends by itself
# some seconds after the last.
#
# A program that crashes ends at once. For the report of Wine's debugger set WINEDLLOVERRIDES to
# something else, as WINEDLLOVERRIDES=mscoree,mshtml= tools/wine.sh ...
set -u

fail() {
    echo "wine.sh: $*" >&2
    exit 127
}

wine=$(command -v wine64) || wine=/usr/lib/wine/wine64
[ -x "$wine" ] || fail "wine64 is not installed"
project=$(cd "${0%/*}/.." && pwd) || fail "the project's folder cannot be entered"
export WINEPREFIX="${WINEPREFIX:-$project/build-windows-deps/wine}"
export WINEDEBUG="${WINEDEBUG--all}"
export WINEDLLOVERRIDES="${WINEDLLOVERRIDES-mscoree,mshtml,winedbg.exe=}"
# Names of files and arguments pass through as UTF-8 only if the locale says so, and Windows' own
# language must not depend on who runs the tests.
export LC_ALL=C.UTF-8
unset DISPLAY

server() { command -v wineserver || echo "${wine%/*}/wineserver"; }

# Runs Wine without the caller's further files: what the programs share would inherit them from the
# first program, and so keep a caller waiting for the end of a pipe, or hold its locks.
without_files() { exec "$@" 3>&- 4>&- 5>&- 6>&- 7>&- 8>&- 9>&-; }

# Under a lock: two first programs would both make the prefix.
make_prefix() {
    mkdir -p "$WINEPREFIX" || fail "$WINEPREFIX cannot be made"
    (
        flock 9 || fail "$WINEPREFIX cannot be locked"
        if [ ! -f "$WINEPREFIX/complete" ]; then
            # "Documents" and the like become links into the home: not into the caller's.
            (HOME=$WINEPREFIX without_files "$wine" wineboot --update) \
                >"$WINEPREFIX/wineboot.log" 2>&1 </dev/null ||
                { cat "$WINEPREFIX/wineboot.log" >&2 && fail "$WINEPREFIX cannot be set up"; }
            : >"$WINEPREFIX/complete"
        fi
    ) 9>"$WINEPREFIX/lock" || exit
}

case ${1:-} in
    "")
        fail "usage: $0 <program> [arguments...] | --prepare | --end"
        ;;
    --end)
        [ -d "$WINEPREFIX" ] || exit 0
        # Its result only tells whether there was something to end.
        "$(server)" -k || true
        exit 0
        ;;
    --prepare)
        make_prefix
        # Started here, with none of a caller's files: the first program of a session would hand its
        # own on, and whoever reads its output would wait for the end of all. They stay for a
        # minute after the last program. (The result only tells whether they run already.)
        (without_files "$(server)" -p60) </dev/null >/dev/null 2>&1 || true
        (without_files "$wine" cmd /c exit) </dev/null >/dev/null 2>&1
        exit
        ;;
    */*)
        [ -f "$1" ] || [ -f "$1.exe" ] || fail "there is no program $1"
        ;;
esac
[ -f "$WINEPREFIX/complete" ] || make_prefix
without_files "$wine" "$@"
