#!/usr/bin/env bash
# Installs what the benchmarks and the peers need, builds everything as released, runs all of it
# and writes results, table and chart into docs/performance.
#
#   ./bench.sh          all of it; let the machine do nothing else meanwhile
#   ./bench.sh --quick  one short round, to see that it works
#
# Arguments go to bench/run.py: --output FOLDER, --rounds N, --rows PATTERN, …
set -euo pipefail
cd "$(dirname "$0")"

tools/bench-deps.sh
cmake --preset bench >build-bench.log 2>&1 || { cat build-bench.log; exit 1; }
grep "left out" build-bench.log || true
cmake --build build-bench -j "$(nproc)" -- --quiet
# Debian's own interpreter has Debian's packages.
exec /usr/bin/python3 bench/run.py "$@"
