#!/usr/bin/env bash
# Installs what is missing, builds, and passes all tests.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/deps.sh

deps build
build release
scripts/check_exports.sh build/release
ctest --preset release
