#!/usr/bin/env bash
# Builds the benchmarks, runs them in one go with their repetitions in random order, and writes the tables of minima
# into bench/table.md. Run it on a machine that does nothing else.
#   scripts/bench.sh [FILTER]   with a filter the tables go to standard output
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/deps.sh
deps check

build bench
json=$(mktemp)
trap 'rm -f "$json"' EXIT
build/bench/bench/tqcam_bench --benchmark_filter="${1:-.}" --benchmark_enable_random_interleaving=true \
    --benchmark_repetitions=9 --benchmark_min_time=0.05 --benchmark_out="$json" --benchmark_out_format=json >/dev/null
if [ $# -gt 0 ]; then
    python3 scripts/bench_table.py "$json"
else
    python3 scripts/bench_table.py "$json" >bench/table.md
    echo "bench/table.md is written"
fi
