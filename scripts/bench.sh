#!/usr/bin/env bash
# Builds the benchmarks, runs them in one go with their repetitions in random order, and writes the table of minima
# into bench/README.md. Run it on a machine that does nothing else.
#   scripts/bench.sh [FILTER]   with a filter the table goes to standard output
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/deps.sh
deps check

build bench
json=$(mktemp)
trap 'rm -f "$json"' EXIT
build/bench/bench/tqcam_bench --benchmark_filter="${1:-.}" --benchmark_enable_random_interleaving=true \
    --benchmark_out="$json" --benchmark_out_format=json >/dev/null
if [ $# -gt 0 ]; then
    python3 scripts/bench_table.py "$json"
else
    python3 scripts/bench_table.py "$json" >bench/table.md
    echo "bench/table.md is written"
fi
