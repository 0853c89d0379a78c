#!/usr/bin/env bash
# Which lines and branches of src/ and platform/ the whole suite runs.
#
#   run.sh         checks the comparison itself, on a small example: that what is not run is
#                  reported, and so is an exclusion that is out of date
#   run.sh --full  builds the preset "coverage", runs the suite (the tests of test.sh; not those of
#                  tests/reliability: what only a random or a damaged run comes by is no test of a
#                  line), and compares with exclusions.txt
#
# coverage.py says what the comparison takes; each exclusion names its line and its reason. Left out
# of the figures by options of gcovr are outcomes that are no decision of the source: the edges by
# which an exception leaves a call (--exclude-throw-branches) and those on lines without code of
# their own, such as a closing brace (--exclude-unreachable-branches). A process that ends by a signal
# or by _exit loses its counts; nothing here brings them back, so what runs only there counts as not run.
set -euo pipefail
cd "$(dirname "$0")/../../.."
source tests/reliability/build.sh
here=tests/reliability/coverage
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# figures <root> <folder of the objects> <file>: what gcovr makes of the counts.
figures() {
    gcovr -j "$(nproc)" --gcov-executable "$PWD/$here/gcov.sh" -r "$1" --object-directory "$2" -f "$(realpath "$1")/src/" -f "$(realpath "$1")/platform/" \
        --exclude-throw-branches --exclude-unreachable-branches --json "$3" "$2"
}

# tells <text> <sed script>: with the example's exclusions changed by the script the comparison
# fails and says the text.
tells() {
    local said changed=$work/changed.txt
    sed -E "$2" "$work/example/exclusions.txt" >"$changed"
    if cmp -s "$work/example/exclusions.txt" "$changed"; then
        echo "coverage: nothing is changed by '$2'" >&2
        return 1
    fi
    if said=$("$here/coverage.py" "$work/example" "$work/figures.json" "$changed" 2>&1) ||
        [[ $said != *"$1"* ]]; then
        echo "coverage: the comparison does not say '$1', but: $said" >&2
        return 1
    fi
    checks=$((checks + 1))
}

self_check() {
    checks=0
    cp -r "$here/example" "$work/example"
    (cd "$work" && g++ --coverage -fprofile-abs-path -O0 -o program "$work/example/src/Example.cpp" && ./program)
    figures "$work/example" "$work" "$work/figures.json" 2>"$work/gcovr.log" ||
        { cat "$work/gcovr.log" >&2; return 1; }
    "$here/coverage.py" "$work/example" "$work/figures.json" "$work/example/exclusions.txt" >"$work/passed" ||
        { cat "$work/passed" >&2; return 1; }
    tells 'line not run: src/Example.cpp:5' '/\| return value \+ 1;/d'
    tells 'branch: 1 outcomes not taken and not excluded: src/Example.cpp:9' '/branch 1 . if .value > 0/d'
    tells 'exclusion of 2 outcomes, 1 of them are taken' 's/branch 1( . if .value > 0)/branch 2\1/'
    tells 'exclusion of 1 outcomes, 1 of them are taken' \
        's/branch 1 . if .value == 3. \{/branch 1 | if (value == 1) return 1;/'
    tells 'exclusion of a line that is run' 's/line . return value \+ 1;/line | return 2;/'
    tells 'exclusion names nothing' 's/return value \+ 1;/return value + 2;/'
    tells 'exclusion names several lines' 's/ . after if \(value > 0\) return 1;//'
    tells 'exclusion of a line without code' 's/line . return value \+ 1;/line | }  \/\/ namespace/'
    tells 'no exclusion with a reason' 's/^# For the check: nobody.*//'
    tells 'exclusion of a folder that is measured' 's/^platform.win32 .*/src | folder/'
    tells 'file not measured: platform/win32/NotBuilt.cpp' '1,2d'
    echo "   coverage: the comparison tells $checks planted faults"
}

whole_suite() {
    build coverage all
    find build-coverage -name '*.gcda' -delete
    # The counting code in the libraries reads the environment, which this test forbids them.
    ctest --test-dir build-coverage -LE reliability -E '^LibraryFile\.ReadsNoEnvironment$' \
        -j "$(nproc)" --timeout 600 --output-on-failure >build-coverage/suite.log 2>&1 ||
        { tail -n 50 build-coverage/suite.log >&2; return 1; }
    figures . build-coverage build-coverage/figures.json
    "$here/coverage.py" . build-coverage/figures.json "$here/exclusions.txt"
}

self_check
if [ "${1:-}" = --full ]; then whole_suite; fi
