#!/usr/bin/env bash
# Fills a folder with what the build for 64-bit Windows stands on and Debian 12 does not package
# for it: TinyXML, GoogleTest, the codecs' libraries, and the headers of spdlog, fmt and CLI11.
#
#   tools/windows-deps.sh            into build-windows-deps/, where the toolchain file looks
#   tools/windows-deps.sh <prefix>   into another folder
#
# Everything comes from Debian's own packages and source packages, with Debian's patches. Each
# part is built once: with all of them there, a run needs neither network, rights nor time. A change
# of this script, the compiler or a package that is copied builds all parts anew. A codec's library
# that cannot be built is left out, and tried again with the next run.
set -euo pipefail

project=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
readonly project
readonly triple=x86_64-w64-mingw32
# The first versions that have Debian's fixes for hostile input.
readonly tinyxml_at_least=2.6.2-6+deb12u1 brotli_at_least=1.0.9-2+deb12u1
# Their headers or sources are copied, or they compile: another version makes other results.
readonly inputs=(
    g++-mingw-w64-x86-64-posix googletest libz-mingw-w64-dev
    libspdlog-dev libfmt-dev libcli11-dev
)
readonly tools=(binutils-mingw-w64-x86-64 cmake ninja-build pkg-config dpkg-dev wine64)

work=""
prefix=""
fingerprint=""

fail() {
    echo "windows-deps.sh: $*" >&2
    exit 1
}

install_packages() {
    local package status missing=() as_root=()
    command -v dpkg-query >/dev/null || fail "this is no Debian system"
    for package in "${inputs[@]}" "${tools[@]}"; do
        status=$(dpkg-query -W -f='${Status}' "$package" 2>/dev/null || true)
        [[ $status == "install ok installed" ]] || missing+=("$package")
    done
    [[ ${#missing[@]} -gt 0 ]] || return 0
    if [[ $(id -u) -ne 0 ]]; then
        command -v sudo >/dev/null || fail "not root and no sudo; as root: apt-get install ${missing[*]}"
        as_root=(sudo)
    fi
    echo "Installing: ${missing[*]}"
    "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get update -q
    "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
        apt-get install -y -q --no-install-recommends "${missing[@]}"
}

# The entries of this machine's package lists, asked for their sources instead.
source_entries() {
    local from to=$1 name
    mkdir -p "$to"
    for from in /etc/apt/sources.list /etc/apt/sources.list.d/*.list; do
        [[ -f $from ]] || continue
        name=$(basename "$from" .list)
        sed -nE 's/^[[:space:]]*deb[[:space:]]/deb-src /p' "$from" >"$to/$name.list"
    done
    for from in /etc/apt/sources.list.d/*.sources; do
        [[ -f $from ]] || continue
        sed -E 's/^[Tt]ypes[[:space:]]*:.*/Types: deb-src/' "$from" >"$to/$(basename "$from")"
    done
}

# Package lists of our own, so that the machine's are not touched and no rights are needed.
update_lists() {
    [[ ! -d $work/lists ]] || return 0
    mkdir -p "$work/lists/partial" "$work/cache/archives/partial"
    source_entries "$work/parts"
    "${apt[@]}" update || echo "windows-deps.sh: not every package list has sources" >&2
}

# fetch <source package>: its newest version; apt checks its signatures and sums. Where that one
# cannot be had there is no older one instead: it would lack the fixes of the newer.
fetch() {
    # The folder belongs to this user alone, so that apt's own user cannot write there.
    local apt=(apt-get -qq
        -o "Dir::Etc::sourcelist=/dev/null" -o "Dir::Etc::sourceparts=$work/parts"
        -o "Dir::State::lists=$work/lists" -o "Dir::Cache=$work/cache"
        -o "Acquire::Languages=none" -o "Acquire::Retries=2"
        -o "Acquire::http::Timeout=20" -o "Acquire::https::Timeout=20")
    [[ $(id -u) -ne 0 ]] || apt+=(-o "APT::Sandbox::User=root")
    update_lists
    mkdir "$work/$1"
    (cd "$work/$1" && "${apt[@]}" source --download-only --only-source "$1") ||
        fail "the sources of $1 cannot be fetched"
}

# unpack <source package> [<version at least>]: its tree with every patch of Debian's applied, in
# $tree; its version in $version.
unpack() {
    local dsc patch reversed
    fetch "$1"
    dsc=$(find "$work/$1" -name "*.dsc")
    version=$(sed -n 's/^Version: //p' "$dsc" | head -n 1)
    if [[ $# -gt 1 ]]; then
        dpkg --compare-versions "$version" ge "$2" || fail "$1 $version lacks the fixes of $2"
    fi
    tree=$work/$1/tree
    dpkg-source -x "$dsc" "$tree" >"$work/unpack.log" 2>&1 || { cat "$work/unpack.log" >&2; exit 1; }
    # What is applied can be taken back, the last one first.
    cp -a "$tree" "$tree.reversed"
    reversed=$(sed -E 's/[[:space:]]*#.*//; /^[[:space:]]*$/d; s/[[:space:]].*//' \
        "$tree/debian/patches/series" | tac)
    for patch in $reversed; do
        patch -d "$tree.reversed" -p1 -R -f -s <"$tree/debian/patches/$patch" >&2 ||
            fail "$1: Debian's patch $patch is not applied"
    done
}

# archive <library> <compiler> [flags...] -- <sources...>
archive() {
    local library=$1 compiler=$triple-$2-posix flags=() objects
    shift 2
    while [[ $1 != -- ]]; do
        flags+=("$1")
        shift
    done
    shift
    objects=$(mktemp -d -p "$work")
    printf '%s\n' "$@" | xargs -P "$(nproc)" -I{} sh -c \
        'source=$1; objects=$2; shift 2; exec "$@" -c "$source" -o "$objects/$(basename "$source").o"' \
        compile {} "$objects" "$compiler" -O2 "-ffile-prefix-map=$work/=" "${flags[@]}"
    mkdir -p "$stage/lib"
    "$triple-ar" rcs "$stage/lib/$library" "$objects"/*.o
}

# pkg_config <name> <version> <libraries>
pkg_config() {
    mkdir -p "$stage/lib/pkgconfig"
    cat >"$stage/lib/pkgconfig/$1.pc" <<END
prefix=\${pcfiledir}/../..
Name: $1
Description: $1, static, for 64-bit Windows
Version: $2
Libs: -L\${prefix}/lib $3
Cflags: -I\${prefix}/include
END
}

# licence <name> <file>: what has to lie beside a delivery that contains the part.
licence() { install -D -m 644 "$2" "$stage/share/licenses/$1.txt"; }

# cmake_package <name> <version>: the package's targets from standard input.
cmake_package() {
    local folder=$stage/lib/cmake/$1
    mkdir -p "$folder"
    {
        # As far as the imported targets reach.
        echo 'include_guard(DIRECTORY)'
        echo 'get_filename_component(_headers "${CMAKE_CURRENT_LIST_DIR}/../../../include" ABSOLUTE)'
        cat
        echo 'unset(_headers)'
    } >"$folder/$1Config.cmake"
    cat >"$folder/$1ConfigVersion.cmake" <<END
set(PACKAGE_VERSION "$2")
if(PACKAGE_VERSION VERSION_LESS PACKAGE_FIND_VERSION)
  set(PACKAGE_VERSION_COMPATIBLE FALSE)
else()
  set(PACKAGE_VERSION_COMPATIBLE TRUE)
  if(PACKAGE_VERSION VERSION_EQUAL PACKAGE_FIND_VERSION)
    set(PACKAGE_VERSION_EXACT TRUE)
  endif()
endif()
END
}

package_version() {
    # shellcheck disable=SC2016
    dpkg-query -W -f='${Version}' "$1" | sed -E 's/^[0-9]+://; s/[+-].*//'
}

upstream_version() { sed -E 's/^[0-9]+://; s/[+-].*//' <<<"$1"; }

build_tinyxml() {
    local tree version
    unpack tinyxml "$tinyxml_at_least"
    archive libtinyxml.a g++ -DTIXML_USE_STL -- \
        "$tree/tinyxml.cpp" "$tree/tinyxmlparser.cpp" "$tree/tinyxmlerror.cpp"
    install -D -m 644 "$tree/tinyxml.h" "$stage/include/tinyxml.h"
    licence tinyxml "$tree/debian/copyright"
}

build_headers() {
    mkdir -p "$stage/include"
    cp -a /usr/include/spdlog /usr/include/fmt /usr/include/CLI "$stage/include/"
    licence spdlog /usr/share/doc/libspdlog-dev/copyright
    licence fmt /usr/share/doc/libfmt-dev/copyright
    licence CLI11 /usr/share/doc/libcli11-dev/copyright
    cmake_package fmt "$(package_version libfmt-dev)" <<'END'
add_library(fmt::fmt-header-only INTERFACE IMPORTED)
set_target_properties(fmt::fmt-header-only PROPERTIES
  INTERFACE_INCLUDE_DIRECTORIES "${_headers}"
  INTERFACE_COMPILE_DEFINITIONS "FMT_HEADER_ONLY=1"
  INTERFACE_COMPILE_FEATURES cxx_std_11)
add_library(fmt::fmt INTERFACE IMPORTED)
set_target_properties(fmt::fmt PROPERTIES INTERFACE_LINK_LIBRARIES fmt::fmt-header-only)
END
    cmake_package spdlog "$(package_version libspdlog-dev)" <<'END'
include(CMakeFindDependencyMacro)
find_dependency(fmt)
find_dependency(Threads)
add_library(spdlog::spdlog_header_only INTERFACE IMPORTED)
set_target_properties(spdlog::spdlog_header_only PROPERTIES
  INTERFACE_INCLUDE_DIRECTORIES "${_headers}"
  INTERFACE_COMPILE_DEFINITIONS "SPDLOG_FMT_EXTERNAL"
  INTERFACE_LINK_LIBRARIES "fmt::fmt-header-only;Threads::Threads")
END
    cmake_package CLI11 "$(package_version libcli11-dev)" <<'END'
add_library(CLI11::CLI11 INTERFACE IMPORTED)
set_target_properties(CLI11::CLI11 PROPERTIES
  INTERFACE_INCLUDE_DIRECTORIES "${_headers}"
  INTERFACE_COMPILE_FEATURES cxx_std_11)
END
}

# The compiler's own libraries are in everything that it links statically.
build_compiler() {
    licence gcc-runtime /usr/share/doc/g++-mingw-w64-x86-64-posix/copyright
    licence mingw-w64-runtime /usr/share/doc/mingw-w64-x86-64-dev/copyright
}

build_googletest() {
    cmake -S /usr/src/googletest -B "$work/googletest" -G Ninja -Wno-dev \
        --toolchain "$project/cmake/windows-mingw.cmake" -DVESSA_WINDOWS_DEPS="$prefix" \
        -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX="$stage" -DCMAKE_INSTALL_LIBDIR=lib \
        -DCMAKE_CXX_FLAGS="-ffile-prefix-map=/usr/src/=" >"$work/googletest.log" ||
        { cat "$work/googletest.log" >&2; return 1; }
    cmake --build "$work/googletest" -- --quiet
    cmake --install "$work/googletest" >/dev/null
    # They name the folder this was built in, and nobody asks them.
    rm -rf "$stage/lib/pkgconfig"
}

build_zlib() {
    local from=/usr/$triple
    mkdir -p "$stage/include" "$stage/lib"
    cp "$from/include/zlib.h" "$from/include/zconf.h" "$stage/include/"
    cp "$from/lib/libz.a" "$stage/lib/"
    licence zlib /usr/share/doc/libz-mingw-w64-dev/copyright
    pkg_config zlib "$(package_version libz-mingw-w64-dev)" -lz
}

build_zstd() {
    local tree version
    unpack libzstd
    archive libzstd.a gcc -DZSTD_DISABLE_ASM=1 -- \
        "$tree"/lib/common/*.c "$tree"/lib/compress/*.c "$tree"/lib/decompress/*.c
    install -D -m 644 -t "$stage/include" "$tree/lib/zstd.h" "$tree/lib/zstd_errors.h"
    licence zstd "$tree/debian/copyright"
    pkg_config libzstd "$(upstream_version "$version")" -lzstd
}

build_lz4() {
    local tree version
    unpack lz4
    archive liblz4.a gcc -DXXH_NAMESPACE=LZ4_ -- \
        "$tree/lib/lz4.c" "$tree/lib/lz4hc.c" "$tree/lib/lz4frame.c" "$tree/lib/xxhash.c"
    install -D -m 644 -t "$stage/include" \
        "$tree/lib/lz4.h" "$tree/lib/lz4hc.h" "$tree/lib/lz4frame.h"
    licence lz4 "$tree/debian/copyright"
    pkg_config liblz4 "$(upstream_version "$version")" -llz4
}

build_brotli() {
    local tree version part
    unpack brotli "$brotli_at_least"
    for part in common dec enc; do
        archive "libbrotli$part.a" gcc "-I$tree/c/include" -- "$tree/c/$part"/*.c
    done
    mkdir -p "$stage/include"
    cp -r "$tree/c/include/brotli" "$stage/include/"
    licence brotli "$tree/debian/copyright"
    version=$(upstream_version "$version")
    pkg_config libbrotlicommon "$version" -lbrotlicommon
    pkg_config libbrotlienc "$version" "-lbrotlienc -lbrotlicommon"
    pkg_config libbrotlidec "$version" "-lbrotlidec -lbrotlicommon"
}

is_built() { [[ $(cat "$prefix/stamps/$1" 2>/dev/null) == "$fingerprint" ]]; }

# make <part>: builds it in a folder of its own, so that a broken build leaves nothing behind;
# 0 or not in $result. Not to be called in a condition: the shell would not stop at errors.
make() {
    local stage started=$SECONDS
    rm -f "$prefix/stamps/$1"
    stage=$(mktemp -d -p "$work")
    set +e
    (
        set -e
        "build_$1"
    )
    result=$?
    set -e
    [[ $result -eq 0 ]] || return 0
    cp -a "$stage/." "$prefix/"
    echo "$fingerprint" >"$prefix/stamps/$1"
    echo "   $1: $((SECONDS - started)) s"
}

main() {
    local part result missing=() left_out=()
    local needed=(headers compiler googletest tinyxml) codecs=(zlib zstd lz4 brotli)
    [[ $# -le 1 && ${1:-} != -* ]] || { echo "usage: $0 [prefix]" >&2; exit 2; }
    install_packages
    mkdir -p "${1:-$project/build-windows-deps}"
    prefix=$(cd "${1:-$project/build-windows-deps}" && pwd)
    mkdir -p "$prefix/stamps"
    # One run at a time; the other then finds everything built.
    exec 9>"$prefix/stamps/lock"
    flock 9
    # shellcheck disable=SC2016
    fingerprint=$({
        grep -v '^[[:space:]]*#' "${BASH_SOURCE[0]}"
        dpkg-query -W -f='${Package} ${Version}\n' "${inputs[@]}"
    } | sha256sum)

    for part in "${needed[@]}" "${codecs[@]}"; do
        is_built "$part" || missing+=("$part")
    done
    if [[ ${#missing[@]} -eq 0 ]]; then
        echo "Everything for Windows is built."
        return
    fi
    work=$(mktemp -d)
    trap 'rm -rf "$work"' EXIT
    echo "Building into $prefix:"
    for part in "${missing[@]}"; do
        make "$part"
        [[ $result -ne 0 ]] || continue
        [[ " ${codecs[*]} " == *" $part "* ]] || fail "$part could not be built"
        left_out+=("$part")
    done
    [[ ${#left_out[@]} -eq 0 ]] ||
        echo "windows-deps.sh: not built, so these codecs will be left out: ${left_out[*]}" >&2
}

main "$@"
