#!/usr/bin/env bash
# Compares the built shared library's ABI with the last release's, kept as abi/<soname>.abi
# (written by `abidw --no-show-locs` when a release is made). Incompatible changes fail; additions
# are reported. Without a baseline for this SONAME there is nothing to compare yet.
set -euo pipefail
cd "$(dirname "$0")/.."
lib=$(readlink -f build/default/libquma-utils.so)
soname=$(objdump -p "$lib" | awk '/SONAME/ {print $2}')
base=abi/$soname.abi
if [ ! -f "$base" ]; then
  echo "abi: no released baseline for $soname yet"
  exit 0
fi
set +e
abidiff --no-show-locs "$base" "$lib"
rc=$?
set -e
# abidiff's status is a bit mask: 4 = ABI changed, 8 = incompatible change.
if (( rc & 8 || rc & 1 || rc & 2 )); then
  echo "abi: incompatible with the last release of $soname (abidiff status $rc)"
  exit 1
fi
echo "abi: compatible with the last release of $soname"
