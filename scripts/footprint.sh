#!/usr/bin/env bash
# Code size of the module (libsmart_frame.a at -Os) for x86-64, 32-bit
# ARM and 64-bit ARM Linux, and the heap the POSIX registry keeps per sub-device and per DP.
# Two sizes per target: the archive total (text includes read-only data),
# and what a consumer that calls every function of smart_frame/smart_frame.h
# links in, built with -ffunction-sections -fdata-sections and linked with
# --gc-sections (a relocatable link whose roots are those functions, so the
# collaborators, the C library and the consumer's own code are not counted).
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

launcher=$(command -v ccache || true)

compile_all() { # compiler prefix, output dir, extra flags...
  local cxx=$1 dir=$2
  shift 2
  mkdir -p "$dir"
  for src in $sources; do
    $launcher "${cxx}g++" "${flags[@]}" "$@" -c "$src" -o "$dir/$(echo "$src" | tr / _).o"
  done
  "${cxx}ar" rcs "$dir/libsmart_frame.a" "$dir"/*.o
}

size_of() { # compiler prefix, label
  local cxx=$1 label=$2 dir="$work/$2"
  compile_all "$cxx" "$dir/plain"
  compile_all "$cxx" "$dir/sections" -ffunction-sections -fdata-sections
  # the public functions the archive defines: the roots of the consumer's link
  local roots=()
  for sym in $("${cxx}nm" -g --defined-only "$dir/sections/libsmart_frame.a" 2>/dev/null |
                awk '$2 ~ /[TDRB]/ && $3 !~ /^_Z/ { print $3 }' | sort -u); do
    if grep -qw "$sym" smart_frame/smart_frame.h; then roots+=("-Wl,-u,$sym"); fi
  done
  "${cxx}g++" -nostdlib -r -Wl,--gc-sections "${roots[@]}" -o "$dir/linked.o" \
    -Wl,--whole-archive "$dir/sections/libsmart_frame.a" -Wl,--no-whole-archive
  local linked
  linked=$("${cxx}size" "$dir/linked.o" | awk 'NR == 2 { print $1 }')
  # totals over every member: text (code + read-only data), data, bss
  "${cxx}size" -t "$dir/plain/libsmart_frame.a" | awk -v label="$label" -v linked="$linked" '
    /\(TOTALS\)/ { printf "| %s | %d | %.1f | %d | %d | %d | %.1f |\n", label, $1, $1 / 1024, $2, $3, linked,
                     linked / 1024 }'
}

echo "| target (-Os) | text bytes | text KiB | data | bss | linked text bytes | linked KiB |"
echo "|---|---|---|---|---|---|---|"
size_of "" "x86-64 ($(g++ -dumpversion))"
size_of arm-linux-gnueabihf- "ARM 32-bit Linux gnueabihf ($(arm-linux-gnueabihf-g++ -dumpversion))"
size_of aarch64-linux-gnu- "ARM 64-bit Linux aarch64 ($(aarch64-linux-gnu-g++ -dumpversion))"
echo
if [ -x "$build/bench/sf_heap_footprint" ]; then
  "$build/bench/sf_heap_footprint"
else
  echo "(heap per sub-device: build $build with the benchmarks first: make bench)"
fi
