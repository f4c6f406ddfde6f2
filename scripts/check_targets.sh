#!/usr/bin/env bash
# Simulated recordings of every kind decode to the same bits with the plain forms and with the vector forms of each
# target that this processor runs.
set -euo pipefail
cd "$(dirname "$0")/.."
sim=$PWD/build/release/tools/tqcam-sim
tqcam=$PWD/build/release/tools/tqcam
work=$(mktemp -d "${TMPDIR:-/tmp}/tqcam-targets-XXXXXX")
trap 'rm -rf "$work"' EXIT
cd "$work"

filters="pixel-calib denoise=240,20 fly-pixel=8 min-amp=20 lens"
masks="plain SSE4 AVX2 AVX3 all" # one that the processor doesn't have is plain
[ "$(uname -m)" = x86_64 ] || masks="plain all"
bad=0 cases=0
while read -r options; do
    # shellcheck disable=SC2086
    "$sim" --output a.oni --no-truth --frames 4 --defects all --with-calibration $options >sim.log 2>&1 || { cat sim.log; exit 1; }
    for filter in "" "--filter $filters"; do
        hashes=""
        for mask in $masks; do
            # shellcheck disable=SC2086
            json=$("$tqcam" --cpu-mask $mask play a.oni --fast --json $filter)
            hashes+=$(sed -n 's/.*"hash": \([0-9]*\).*/\1/p; s/.*"undecodable": 0.*/ decoded/p' <<<"$json" | tr -d '\n')$'\n'
        done
        cases=$((cases + 1))
        if [ "$(sort -u <<<"$hashes" | grep -c decoded)" != 1 ] || [ "$(grep -c decoded <<<"$hashes")" != "$(wc -w <<<"$masks")" ]; then
            echo "$options $filter: targets differ, or frames that don't decode:"
            echo "$hashes"
            bad=1
        fi
    done
    rm -f tqcam_param_*
done <<'OPTIONS'
--camera E1
--camera E1 --hdr 200
--camera E2 --format 1
--camera E2 --format 4
--camera E3 --freq 24
--camera E5
--camera E1 --format 10
--camera S1 --format 2
--camera S1 --format 13
--camera S2 --format 15
--camera S570C4 --format 16
--camera S570C4 --format 17 --freq 120 20
--camera S3 --format 14 --freq 120 40
OPTIONS
[ $bad = 0 ] && echo "targets: $cases ways to decode, the same bits with every target"
