#!/usr/bin/env bash
# Code size of the module (libsmart_frame.a at -Os) for x86-64, 32-bit
# ARM and 64-bit ARM Linux, and the heap the POSIX registry keeps per sub-device and per DP.
#   scripts/footprint.sh [build-dir]     (build-dir: a Release build with
#                                         the benchmarks, for the heap tool)
# Installs the ARM cross compilers when missing (scripts/install_cross_deps.sh,
# the same set `make test-cross` uses).
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build/release}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

scripts/install_cross_deps.sh >&2

# cJSON's header only (no host headers on the cross compiler's path)
mkdir -p "$work/include"
ln -s "$(dirname "$(find /usr/include /usr/local/include -name cJSON.h -path '*cjson*' | head -1)")" "$work/include/cjson"

# The module's own flags (CMakeLists.txt) with -Os instead of -O2/-O3.
flags=(-Os -std=c++17 -fno-exceptions -fno-rtti -Wall -Wextra -Werror -DNDEBUG -I. -I"$work/include")
sources=$(find smart_frame -name '*.cpp' | sort)

size_of() { # compiler prefix, label
  local cxx=$1 label=$2 dir="$work/$2"
  mkdir -p "$dir"
  for src in $sources; do
    "${cxx}g++" "${flags[@]}" -c "$src" -o "$dir/$(echo "$src" | tr / _).o"
  done
  "${cxx}ar" rcs "$dir/libsmart_frame.a" "$dir"/*.o
  # totals over every member: text (code + read-only data), data, bss
  "${cxx}size" -t "$dir/libsmart_frame.a" | awk -v label="$label" '
    /\(TOTALS\)/ { printf "| %s | %d | %.1f | %d | %d |\n", label, $1, $1 / 1024, $2, $3 }'
}

echo "| target (-Os) | text bytes | text KiB | data | bss |"
echo "|---|---|---|---|---|"
size_of "" "x86-64 ($(g++ -dumpversion))"
size_of arm-linux-gnueabihf- "ARM 32-bit Linux gnueabihf ($(arm-linux-gnueabihf-g++ -dumpversion))"
size_of aarch64-linux-gnu- "ARM 64-bit Linux aarch64 ($(aarch64-linux-gnu-g++ -dumpversion))"
echo
if [ -x "$build/bench/sf_heap_footprint" ]; then
  "$build/bench/sf_heap_footprint"
else
  echo "(heap per sub-device: build $build with the benchmarks first: make bench)"
fi
