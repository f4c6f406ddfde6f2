#!/usr/bin/env bash
# Installs what is missing, builds, simulates recordings, plays them as cameras and leaves pictures.
#   scripts/demo.sh [FOLDER]   default: build/demo
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/deps.sh

deps build
build release
out=${1:-build/demo}
mkdir -p "$out"
sim=$PWD/build/release/tools/tqcam-sim
tqcam=$PWD/build/release/tools/tqcam
cd "$out"
rm -f tqcam_param_*.bin # calibration that a recording of an earlier run brought

say() { printf '\n\033[1m%s\033[0m\n' "$*"; }
hash_of() { "$tqcam" play "$1" --fast --json | sed -n 's/.*"hash": \([0-9]*\).*/\1/p'; }

say "1. A simulated camera with noise and with the errors of a real one records a wall, a box and a ball."
"$sim" --scene room --camera E1 --defects all --with-calibration --frames 20 --fps 20 --output scene.oni

say "2. Played as a camera without its calibration, every frame against the true distances:"
"$tqcam" --data uncalibrated play scene.oni --fast --each --truth scene.oni.truth.f32 | tail -n +16
say "   and with it, for each pixel:"
"$tqcam" play scene.oni --fast --each --filter pixel-calib --truth scene.oni.truth.f32 | tail -n +16

say "3. Pictures and a point cloud of the first frame."
"$tqcam" export scene.oni --frames 0:1 --what all --filter pixel-calib --range 500:6000 --palette 15 --out pictures

say "4. A recording of the recording gives the same images."
"$tqcam" record scene.oni copy.oni
[ "$(hash_of scene.oni)" = "$(hash_of copy.oni)" ] && echo "same hash: $(hash_of copy.oni)"

say "5. The other family: 640 x 480, packed samples, two modulation frequencies."
"$sim" --scene room --camera S570C4 --format 17 --freq 120 20 --frames 5 --output dual.oni
"$tqcam" play dual.oni --fast --each --truth dual.oni.truth.f32
"$tqcam" export dual.oni --frames 0:1 --range 500:6000 --palette 15 --out pictures/dual

say "Look at:"
find "$PWD/pictures" -name '*.p*' | sort
echo "$PWD/scene.oni, copy.oni, dual.oni: recordings; tqcam play opens them"
