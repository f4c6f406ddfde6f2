#!/usr/bin/env bash
# The slower gates: tests under the address, undefined-behaviour and thread sanitizers, every fuzz target for a
# while, headers, exports, formatting.
#   FUZZ_SECONDS=60   time for each fuzz target
#   scripts/check.sh [step ...]   only these: format headers exports asan tsan fuzz
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/deps.sh
deps check

steps=${*:-format headers exports asan tsan fuzz}
for step in $steps; do
    echo "== $step"
    case $step in
    format) scripts/check_format.sh ;;
    headers) scripts/check_headers.sh ;;
    exports)
        build release
        scripts/check_exports.sh build/release
        ;;
    asan | tsan)
        build "$step"
        ctest --preset "$step"
        ;;
    fuzz) scripts/fuzz.sh ;;
    *)
        echo "no step $step" >&2
        exit 2
        ;;
    esac
done
echo "all clean"
