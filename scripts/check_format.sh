#!/usr/bin/env bash
# All sources are formatted as .clang-format says.
set -euo pipefail
cd "$(dirname "$0")/.."
git ls-files '*.h' '*.c' '*.cpp' | xargs clang-format --dry-run -Werror
echo "format: clean"
