#!/usr/bin/env bash
# Installs what is missing, builds, simulates a recording, plays it as a camera and leaves pictures.
#   scripts/demo.sh [FOLDER]   default: build/demo
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/deps.sh

deps build
build release
out=${1:-build/demo}
mkdir -p "$out"
tools=$PWD/build/release/tools
cd "$out"

echo
echo "1. A simulated camera records a wall, a box and a ball."
"$tools/tqcam-sim" --scene room --camera E1 --frames 30 --fps 20 --output scene.oni

echo
echo "2. The recording, played as a camera; every frame against the true distances."
"$tools/tqcam" play scene.oni --fast --each --truth scene.oni.truth.f32

echo
echo "3. Pictures of the first frames."
"$tools/tqcam" export scene.oni --frames 0:3 --what all --out pictures

echo
echo "Look at:"
ls -1 "$PWD"/pictures/*.png
