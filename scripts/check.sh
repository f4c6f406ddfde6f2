#!/usr/bin/env bash
# The slower gates: formatting, headers, exports, the same bits on every vector target and on 64-bit Arm, tests under
# the address, undefined-behaviour and thread sanitizers, every fuzz target for a while, and the virtual camera behind
# a real kernel's USB stack.
#   FUZZ_SECONDS=60   time for each fuzz target
#   scripts/check.sh [step ...]   only these: format headers exports targets aarch64 asan tsan fuzz usb
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/deps.sh
deps check

steps=${*:-format headers exports targets aarch64 asan tsan fuzz usb}
for step in $steps; do
    echo "== $step"
    case $step in
    format) scripts/check_format.sh ;;
    headers) scripts/check_headers.sh ;;
    exports)
        build release
        scripts/check_exports.sh build/release
        ;;
    targets)
        build release
        scripts/check_targets.sh
        ;;
    aarch64) scripts/check_aarch64.sh ;;
    asan | tsan)
        build "$step"
        ctest --preset "$step"
        ;;
    fuzz) scripts/fuzz.sh ;;
    usb) scripts/usb-guest.sh ;;
    *)
        echo "no step $step" >&2
        exit 2
        ;;
    esac
done
echo "all clean"
