#!/usr/bin/env bash
# Builds the project and shows it at work: every codec plug-in on at least 50 MB of this
# system's own files, then a plug-in that arrives and goes while the host runs.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")"

readonly build=build-demo
readonly min_bytes=$((50 * 1000 * 1000))
readonly limit_mb=60
# A change below the plug-in root is noticed with the next scan, 30 seconds apart.
readonly patience_seconds=70

work=""
host_pid=""

clean_up() {
    if [[ -n $host_pid ]]; then
        kill -TERM "$host_pid" 2>/dev/null || true
        wait "$host_pid" 2>/dev/null || true
    fi
    if [[ -n $work ]]; then rm -rf "$work"; fi
}
trap clean_up EXIT
trap 'exit 130' INT
trap 'exit 143' TERM

say() { printf '\n== %s\n' "$*"; }
fail() {
    printf '\nDEMONSTRATION FAILED: %s\n' "$*" >&2
    exit 1
}

# The folders that together hold enough regular files, in $picked.
pick_files() {
    local folder here bytes=0
    picked=()
    for folder in /usr/include /usr/share /usr/lib; do
        [[ -d $folder ]] || continue
        here=$({ find "$folder" -type f -readable -printf '%s\n' 2>/dev/null || true; } |
            awk '{ sum += $1 } END { printf "%.0f", sum }')
        echo "   $folder: $((here / 1000000)) MB"
        picked+=("$folder")
        bytes=$((bytes + here))
        if ((bytes >= min_bytes)); then return 0; fi
    done
    fail "fewer than 50 MB of files found"
}

# Waits until a line of the watching host's output matches.
wait_for() {
    local pattern=$1 end=$((SECONDS + patience_seconds))
    until grep -Eq "$pattern" "$work/watch.log"; do
        kill -0 "$host_pid" 2>/dev/null || fail "the host ended on its own: $(cat "$work/watch.log")"
        ((SECONDS < end)) || fail "not seen within $patience_seconds s: $pattern"
        sleep 0.2
    done
}

say "Installing what is needed"
tools/install-deps.sh

say "Building into $build/"
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release \
    -DVESSA_BUILD_EXAMPLES=ON -DVESSA_BUILD_TESTS=OFF >/dev/null
cmake --build "$build"

say "The configured plug-ins"
"$build/bin/vessa_demo" --list

say "Every codec on this system's own files (the first $limit_mb MB of these folders)"
pick_files
work=$(mktemp -d)
"$build/bin/vessa_demo" --limit-mb "$limit_mb" "${picked[@]}" | tee "$work/table.log" ||
    fail "not every byte came back"
bytes=$(awk '$1 ~ /^codec\./ { print $4; exit }' "$work/table.log")
((${bytes:-0} >= min_bytes)) || fail "only ${bytes:-0} bytes were worked on"

say "Hot plug: codec.lz4 arrives and goes while the host runs"
mkdir "$work/run" "$work/away"
cp -a "$build/lib" "$build/bin" "$work/run/"
tarnet=$work/run/lib/tarnet
[[ -d $tarnet/lz4 ]] || fail "the codec lz4 was not built"
mv "$tarnet/lz4" "$work/away/lz4"

"$work/run/bin/vessa_demo" --watch /usr/include/stdio.h >"$work/watch.log" 2>&1 &
host_pid=$!
wait_for '\] \+ codec\.zlib '
! grep -q 'codec\.lz4' "$work/watch.log" || fail "codec.lz4 is there before it arrived"
echo "   the host runs without codec.lz4; its module and then its list file arrive now,"
echo "   to be noticed with the next scan, 30 s apart ..."
mkdir "$tarnet/lz4"
mv "$work/away/lz4/codec_lz4.so" "$tarnet/lz4/codec_lz4.so"
mv "$work/away/lz4/tarnet.xml" "$tarnet/lz4/tarnet.xml"
arrived=$SECONDS
wait_for '\] \+ codec\.lz4 '
wait_for '\]   codec\.lz4: .*, verified'
arrival_seconds=$((SECONDS - arrived))
echo "   seen and used after $arrival_seconds s; its list file goes away again ..."
rm "$tarnet/lz4/tarnet.xml"
removed=$SECONDS
wait_for '\] - codec\.lz4 '
removal_seconds=$((SECONDS - removed))
kill -TERM "$host_pid"
host_result=0
wait "$host_pid" || host_result=$?
host_pid=""
sed 's/^/   | /' "$work/watch.log"
((host_result == 0)) || fail "the watching host ended with $host_result"

say "Summary"
codecs=$(awk '$1 ~ /^codec\./ && $NF == "yes"' "$work/table.log" | wc -l)
cat <<END
   $codecs codecs sent $bytes bytes there and back, every byte compared equal.
   codec.lz4 arrived while the host ran and was used after $arrival_seconds s;
   it went $removal_seconds s after its list file. Everything was seen.
END
