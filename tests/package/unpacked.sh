#!/usr/bin/env bash
# Unpacks the zip into a folder with blanks and letters of other scripts and looks at everything
# that somebody who does so would: which files there are, what they need, whether the hosts run,
# and whether a project can be built against them.
#
#   tests/package/unpacked.sh <zip> <emulator> <folders below tarnet...>
set -euo pipefail
export LC_ALL=C.UTF-8

[[ $# -ge 3 ]] || { echo "usage: $0 <zip> <emulator> <folders below tarnet...>" >&2; exit 2; }
zip=$(realpath "$1")
emulator=$(realpath "$2")
plugins=("${@:3}")
project=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
name=$(basename "$zip" .zip)

world=$(mktemp -d)
trap 'rm -rf "$world"' EXIT
root="$world/plug in höst/日本 ü/$name"

fail() {
    printf 'FAILED: %s\n' "$*" >&2
    exit 1
}

# same <what> <expected> <seen>
same() {
    diff <(printf '%s\n' "$2") <(printf '%s\n' "$3") >"$world/difference" ||
        fail "$1 (< expected, > seen):"$'\n'"$(cat "$world/difference")"
}

# run <program below bin> [arguments...]: its output, as lines.
run() { "$emulator" "$root/bin/$1" "${@:2}" </dev/null | tr -d '\r'; }

unpack() {
    mkdir -p "$(dirname "$root")"
    (cd "$(dirname "$root")" && cmake -E tar xf "$zip")
    same "the zip holds one folder with its own name" "$name" "$(ls -A "$(dirname "$root")")"
}

module_of() {
    case $1 in
        hello) echo hello.dll ;;
        *) echo "codec_$1.dll" ;;
    esac
}

# Whose code each plug-in contains, besides what everything does.
terms_of() {
    case $1 in
        hello | checked) ;;
        *) echo "licenses/$1.txt" ;;
    esac
}

expected_files() {
    local plugin
    printf '%s\n' CHANGELOG.md README.md SECURITY.md docs/{operating,results}.md \
        bin/{vessa,tova,skrib}.dll bin/{vessa_demo,readme_host}.exe \
        include/skrib.h include/vessa/{vessa,tarnet}.h \
        lib/lib{vessa,tova,skrib}.dll.a \
        lib/cmake/vessa/vessa{Config,ConfigVersion,Targets,Targets-release}.cmake \
        licenses/{CLI11,fmt,gcc-runtime,mingw-w64-runtime,spdlog,tinyxml}.txt
    for plugin in "${plugins[@]}"; do
        printf '%s\n' "bin/tarnet/$plugin/tarnet.xml" "bin/tarnet/$plugin/$(module_of "$plugin")"
        terms_of "$plugin"
    done
}

holds_exactly_these_files() {
    same "the files of the zip" \
        "$(expected_files | sort)" "$(cd "$root" && find . -type f -printf '%P\n' | sort)"
}

needs_nothing_that_windows_does_not_have() {
    local file import looked_at=0 allowed
    allowed=$(printf '%s\n' advapi32.dll kernel32.dll msvcrt.dll ntdll.dll shell32.dll user32.dll
        cd "$root/bin" && printf '%s\n' *.dll)
    while read -r file; do
        x86_64-w64-mingw32-objdump -p "$file" >headers || fail "${file#"$root/"} cannot be read"
        while read -r import; do
            looked_at=$((looked_at + 1))
            grep -qixF "$import" <<<"$allowed" || fail "${file#"$root/"} needs $import"
        done < <(sed -n 's/.*DLL Name: //p' headers)
    done < <(find "$root/bin" -name '*.dll' -o -name '*.exe')
    # Each of them needs two at least; fewer means that they were not read.
    ((looked_at >= 2 * (5 + ${#plugins[@]}))) || fail "only $looked_at imports were found"
}

names_no_folder_of_the_building_machine() {
    local status=0
    grep -rlF -e "$project/" "$root" >log || status=$?
    ((status == 1)) || fail "these files name the folder they were built in:"$'\n'"$(cat log)"
}

expected_keys() {
    local plugin
    for plugin in "${plugins[@]}"; do
        case $plugin in
            hello) echo "hello hello.dll declared no codec" ;;
            zlib)
                echo "codec.zlib codec_zlib.dll declared codec"
                echo "codec.gzip codec_zlib.dll announced codec"
                echo "codec.deflate codec_zlib.dll announced codec"
                ;;
            *) echo "codec.$plugin codec_$plugin.dll declared codec" ;;
        esac
    done
}

lists_every_plugin() {
    local seen
    seen=$(run vessa_demo.exe --list) || fail "vessa_demo --list ended with $?"
    same "the keys that are listed" "$(expected_keys | sort)" "$(tr -s ' ' <<<"$seen" | sort)"
}

brings_every_byte_back() {
    local table bytes codecs
    mkdir -p in/folder
    : >in/empty
    seq 1 200000 >in/folder/numbers
    head -c 300001 /dev/urandom >in/folder/noise
    cp "$root/include/vessa/vessa.h" "in/folder/vëssa 日.h"
    bytes=$(cat in/empty in/folder/* | wc -c)
    table=$(run vessa_demo.exe --quiet in) || fail "vessa_demo ended with $?:"$'\n'"$table"
    codecs=$(expected_keys | awk '/^codec\./ { print $1 }' | sort)
    same "codec, files, bytes and result of the round trips" \
        "$(sed "s/\$/ 4 $bytes yes/" <<<"$codecs")" \
        "$(awk '/^codec\./ { print $1, $3, $4, $NF }' <<<"$table" | sort)"
}

runs_the_smallest_host() {
    local seen
    seen=$(run readme_host.exe) || fail "readme_host ended with $?"
    same "what readme_host says" "hello, world" "$seen"
}

serves_a_project_of_its_own() {
    cp -r "$project/tests/consumer" source
    cmake -S source -B build -G Ninja --toolchain "$project/cmake/windows-mingw.cmake" \
        -Dvessa_DIR="$root/lib/cmake/vessa" >log 2>&1 || fail "it cannot be configured:"$'\n'"$(cat log)"
    cmake --build build >log 2>&1 || fail "it cannot be built:"$'\n'"$(cat log)"
    cp build/consumer.exe "$root/bin/"
    run consumer.exe >log 2>&1 || fail "it ends with $?:"$'\n'"$(cat log)"
}

unpack
mkdir "$world/elsewhere"
cd "$world/elsewhere"
for check in holds_exactly_these_files needs_nothing_that_windows_does_not_have \
    names_no_folder_of_the_building_machine lists_every_plugin brings_every_byte_back \
    runs_the_smallest_host serves_a_project_of_its_own; do
    $check
    echo "ok: ${check//_/ }"
done
