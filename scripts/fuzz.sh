#!/usr/bin/env bash
# Runs every fuzz target for FUZZ_SECONDS (60), two at a time, from its kept inputs. A finding stops the run and
# says where its input is.
#   scripts/fuzz.sh [name ...]
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/deps.sh
deps check
build fuzz

one() {
    local name=$1 work
    work=$(mktemp -d "${TMPDIR:-/tmp}/fuzz-$name-XXXXXX")
    mkdir "$work/new"
    if (cd "$work" && "$ROOT/build/fuzz/fuzz/fuzz_$name" -max_total_time="${FUZZ_SECONDS:-60}" -timeout=20 \
        -rss_limit_mb=4096 -print_final_stats=1 new "$ROOT/fuzz/corpus/$name" >log 2>&1); then
        echo "fuzz_$name: $(awk '/number_of_executed_units/ { print $2 }' "$work/log") runs, clean"
        rm -rf "$work"
    else
        tail -40 "$work/log"
        echo "fuzz_$name FAILED, see $work"
        return 1
    fi
}
export -f one
export ROOT=$PWD

names=${*:-$(ls fuzz/fuzz_*.cpp | sed 's|.*/fuzz_\(.*\)\.cpp|\1|')}
# shellcheck disable=SC2086
printf '%s\n' $names | xargs -P "${JOBS:-2}" -I{} bash -c 'one {}'
