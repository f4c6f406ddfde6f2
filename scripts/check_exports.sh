#!/usr/bin/env bash
# Compares what the shared library exports with abi/exports.txt: nothing beyond the list, and nothing of it
# missing but the names of abi/pending.txt, whose functions are still to come.
set -euo pipefail
cd "$(dirname "$0")/.."
library=${1:?usage: check_exports.sh BUILD_FOLDER}/src/libtqcam.so

exported=$(mktemp) wanted=$(mktemp)
trap 'rm -f "$exported" "$wanted"' EXIT
nm -D --defined-only "$library" | awk '{ print $3 }' | sed 's/@.*//' | sort -u >"$exported"
sort -u abi/exports.txt >"$wanted"

extra=$(comm -23 "$exported" "$wanted")
missing=$(comm -13 "$exported" "$wanted")
pending=$(sort -u abi/pending.txt 2>/dev/null || true)
unexpected=$(comm -23 <(echo "$missing") <(echo "$pending"))
landed=$(comm -13 <(echo "$missing") <(echo "$pending"))

[ -z "$extra" ] || { echo "exported, but not on the list:"; echo "$extra"; exit 1; }
[ -z "$unexpected" ] || { echo "on the list, but not exported:"; echo "$unexpected"; exit 1; }
[ -z "$landed" ] || { echo "exported by now, take them off abi/pending.txt:"; echo "$landed"; exit 1; }
echo "exports: $(wc -l <"$exported") of $(wc -l <"$wanted") names, no other"
