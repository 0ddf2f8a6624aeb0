#!/usr/bin/env bash
# Build the gateway daemon and the cloud console without sanitizers
# (build/release, the tree `make bench` uses too) and print the folder of
# the two programs.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=$root/build/release
jobs=$(nproc 2>/dev/null || echo 2)
mkdir -p "$build"
log=$build/apps-build.log
if ! { cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Release -DSF_BUILD_TESTS=OFF &&
       cmake --build "$build" -j "$jobs" --target sfgw sfcloud; } >"$log" 2>&1; then
  tail -n 40 "$log" >&2
  echo "the build failed (whole output in $log)" >&2
  exit 1
fi
echo "$build/apps"
