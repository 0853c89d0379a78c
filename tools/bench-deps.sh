#!/usr/bin/env bash
# Installs from Debian 12 what the benchmarks need besides the library itself.
#
#   tools/bench-deps.sh          everything: the benchmarks, the peers, the charts, the guard
#   tools/bench-deps.sh --guard  the guard alone
#
# What is there already is left alone: a second run needs neither network nor rights.
set -euo pipefail
cd "$(dirname "$0")/.."

guard=(valgrind)
benchmarks=(
    libbenchmark-dev python3-matplotlib
    # The peers.
    libpoco-dev libclass-loader-dev libglib2.0-dev libboost-dev libboost-filesystem-dev
    libboost-system-dev qt6-base-dev libgstreamer1.0-dev libpeas-dev
)

wanted=("${guard[@]}")
case "${1:-}" in
    "") wanted+=("${benchmarks[@]}") ;;
    --guard) ;;
    *)
        echo "usage: $0 [--guard]" >&2
        exit 2
        ;;
esac

tools/install-deps.sh --also "${wanted[@]}"
