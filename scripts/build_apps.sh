#!/usr/bin/env bash
# Build the gateway daemon and the cloud console without sanitizers
# (build/release, the tree `make bench` uses too) and print the folder of
# the two programs.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=$root/build/release
jobs=$(nproc 2>/dev/null || echo 2)
cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Release -DSF_BUILD_TESTS=OFF >/dev/null
cmake --build "$build" -j "$jobs" --target sfgw sfcloud >&2
echo "$build/apps"
