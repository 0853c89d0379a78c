#!/usr/bin/env bash
# Installs from Debian 12 what the project is built from.
#
#   tools/install-deps.sh          the library, the examples and the demonstration
#   tools/install-deps.sh --tests  the tests as well
#   tools/install-deps.sh --also <package> ...  and these
#
# What is there already is left alone: a second run needs neither network nor rights.
set -euo pipefail

demo=(
    g++ cmake ninja-build pkg-config
    libtinyxml-dev libspdlog-dev libfmt-dev
    libzstd-dev zlib1g-dev liblz4-dev libbrotli-dev libcli11-dev
)
tests=(
    libgtest-dev libgmock-dev
    # llvm has the symbolizer: without it the leak check cannot tell whose a block is.
    clang llvm libclang-rt-14-dev
    # The model, failing system calls, coverage.
    spin strace gcovr
)

wanted=("${demo[@]}")
case "${1:-}" in
    "") ;;
    --tests) wanted+=("${tests[@]}") ;;
    --also) wanted+=("${@:2}") ;;
    *)
        echo "usage: $0 [--tests | --also <package> ...]" >&2
        exit 2
        ;;
esac

if ! command -v dpkg-query >/dev/null; then
    echo "This is no Debian system. Install what these Debian packages hold: ${wanted[*]}" >&2
    exit 1
fi

missing=()
for package in "${wanted[@]}"; do
    status=$(dpkg-query -W -f='${Status}' "$package" 2>/dev/null || true)
    [[ $status == "install ok installed" ]] || missing+=("$package")
done
if [[ ${#missing[@]} -eq 0 ]]; then
    echo "Everything needed is installed."
    exit 0
fi

as_root=()
if [[ $(id -u) -ne 0 ]]; then
    if ! command -v sudo >/dev/null; then
        echo "Not root and no sudo. As root: apt-get install ${missing[*]}" >&2
        exit 1
    fi
    as_root=(sudo)
fi
echo "Installing: ${missing[*]}"
"${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get update -q
"${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
    apt-get install -y -q --no-install-recommends "${missing[@]}"
