#!/usr/bin/env bash
# make test-cross: builds the module, the test fakes and the module's unit
# tests for 32-bit ARM (arm-linux-gnueabihf) and 64-bit ARM
# (aarch64-linux-gnu) and runs every unit test under qemu-user, one process
# per test case as on the host.
#   scripts/cross_test.sh [armhf|arm64 ...]     (default: both)
# Installs what it needs first (scripts/install_cross_deps.sh). googletest
# is built from Debian's sources for each target, in the build tree.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install_cross_deps.sh

declare -A triple=([armhf]=arm-linux-gnueabihf [arm64]=aarch64-linux-gnu)
targets=("$@")
[ ${#targets[@]} -gt 0 ] || targets=(armhf arm64)
jobs=${JOBS:-$(nproc)}
# the module's areas; the POSIX backend's own tests stay on the host
areas='^(frame|inbound|report|presence|sweep|fakes)$'

status=0
for t in "${targets[@]}"; do
  tc=${triple[$t]:?"unknown target $t (armhf or arm64)"}
  dir=build/cross-$t
  echo "== $t ($tc): build"
  start=$SECONDS
  if [ ! -f "$dir/CMakeCache.txt" ]; then
    cmake -S . -B "$dir" -DCMAKE_TOOLCHAIN_FILE="$PWD/cmake/toolchains/$tc.cmake" \
      -DCMAKE_BUILD_TYPE=Debug -DSF_POSIX=OFF -DSF_BUILD_APPS=OFF -DSF_BUILD_BENCH=OFF \
      -DSF_GTEST_SOURCE_DIR=/usr/src/googletest ${CMAKE_FLAGS:-} >/dev/null
  fi
  cmake --build "$dir" -j "$jobs"
  echo "== $t ($tc): unit tests under qemu-user (built in $((SECONDS - start)) s)"
  (cd "$dir" && ctest -j "$jobs" -L "$areas" --output-on-failure --timeout 600) || status=1
done
exit $status
