#!/usr/bin/env bash
# The C gateway as a consumer of the installed package: builds it out of
# tree with CMake find_package and with the Makefile (pkg-config), then runs
# each build against a private mosquitto: initial report, one DP command
# received through the C callback and reported back, clean shutdown.
#   check_consumer.sh --prefix DIR WORK [extra C flags...]
#       DIR is an installed tree (cmake --install, or a .deb unpacked);
#   check_consumer.sh --install BUILD WORK [extra C flags...]
#       installs BUILD (components dev and posix) into WORK/prefix first.
# Extra flags go to compiling and linking (the sanitizers of the build
# whose libraries are installed).
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
source "$here/../../scripts/lib/demo_lib.sh"

mode=$1 from=$2 work=$3
shift 3
flags="$*"
rm -rf "$work"
mkdir -p "$work"
work=$(cd "$work" && pwd)
case $mode in
  --install)
    prefix=$work/prefix
    for c in dev posix; do cmake --install "$from" --prefix "$prefix" --component "$c" >/dev/null; done ;;
  --prefix) prefix=$(cd "$from" && pwd) ;;
  *) echo "usage: $0 --prefix DIR|--install BUILD WORK [flags]" >&2; exit 2 ;;
esac
pcdir=$(dirname "$(find "$prefix" -name smart_frame-posix.pc | head -1)")

echo "== CMake find_package"
cmake -S "$here" -B "$work/cmake" -DCMAKE_PREFIX_PATH="$prefix" \
  -DCMAKE_C_FLAGS="$flags" -DCMAKE_EXE_LINKER_FLAGS="$flags" >"$work/cmake.log"
cmake --build "$work/cmake" >>"$work/cmake.log"
echo "== Makefile with pkg-config"
mkdir -p "$work/make"
PKG_CONFIG_PATH="$pcdir" make -s -C "$here" OUT="$work/make" CFLAGS="-O1 $flags" LDFLAGS="$flags"

port=$(free_port)
mkdir -p "$work/broker"
broker_start "$work/broker" "$port"
sub_pid=""
cleanup() {
  [ -n "$sub_pid" ] && kill "$sub_pid" 2>/dev/null || true
  broker_stop "$work/broker"
}
trap cleanup EXIT

# wait_for FILE TEXT SECONDS
wait_for() {
  local deadline=$((SECONDS + $3))
  until grep -qF -- "$2" "$1" 2>/dev/null; do
    if ((SECONDS >= deadline)); then echo "no '$2' in $1 within $3 s" >&2; cat "$1" >&2; return 1; fi
    sleep 0.1
  done
}

run_one() { # program label
  local prog=$1 label=$2 out=$work/$2.out up=$work/$2.up gw_pid
  echo "== run: $label"
  mosquitto_sub -h 127.0.0.1 -p "$port" -q 1 -t 'sf/cgw001/up' >"$up" 2>&1 &
  sub_pid=$!
  "$prog" "$here/gateway.json" --port "$port" --commands 1 >"$out" 2>&1 &
  gw_pid=$!
  wait_for "$out" "ready" 30
  wait_for "$up" '"cid":"lamp01"' 30
  mosquitto_pub -h 127.0.0.1 -p "$port" -q 1 -t 'sf/cgw001/cmd/dp' -m '{"devId":"lamp01","dps":{"1":true}}'
  wait_for "$out" "stopped" 30
  wait "$gw_pid"
  wait_for "$up" '{"1":true}' 30
  kill "$sub_pid"; wait "$sub_pid" 2>/dev/null || true; sub_pid=""
  for line in "report lamp01 initial: 0" "command lamp01 dp 1 = true" 'report lamp01 {"1":true}: 0' "stopped"; do
    grep -qxF -- "$line" "$out" || { echo "missing line: $line" >&2; cat "$out" >&2; return 1; }
  done
}
run_one "$work/cmake/c_gateway" cmake
run_one "$work/make/c_gateway" make
echo "c-gateway consumer: both builds ran"
