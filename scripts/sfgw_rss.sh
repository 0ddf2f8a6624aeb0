#!/usr/bin/env bash
# Resident memory of the gateway daemon with many simulated switches:
# sfgw with 1,000 and 10,000 sub-devices (one bool DP "switch" each, the
# simulator's switch with a heartbeat every 10 s), the state file on,
# against a private mosquitto; VmRSS read 25 s after the daemon is up.
#   scripts/sfgw_rss.sh [build-dir] [devices...]   (default: build/release 1000 10000)
# Prints one line "sfgw_rss_kib <devices> <KiB>" per count (read by
# scripts/bench_goals.py) and the daemon's VmHWM beside it.
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build/release}
shift || true
counts=("$@")
[ ${#counts[@]} -gt 0 ] || counts=(1000 10000)
settle_s=${SFGW_RSS_SETTLE_S:-25}
sfgw="$build/apps/sfgw"
[ -x "$sfgw" ] || { echo "no $sfgw: build the apps first" >&2; exit 1; }
# shellcheck source=lib/demo_lib.sh
. scripts/lib/demo_lib.sh

work=$(mktemp -d)
cleanup() {
  gateway_kill "$work" 2>/dev/null || true
  broker_stop "$work" 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT

describe() { # devices -> a gateway description on stdout
  local n=$1
  printf '{"gateway": {"id": "gwrss0001", "local_key": "0123456789abcdef", "dps": [{"id": 1, "name": "alarm", "prop": "bool"}]},\n "devices": ['
  for ((i = 0; i < n; i++)); do
    [ "$i" -eq 0 ] || printf ',\n'
    printf '{"id": "sw%06d", "dps": [{"id": 1, "name": "switch", "prop": "bool"}], "sim": {"kind": "switch", "heartbeat_s": 10, "hb_timeout_s": 60, "initial": {"switch": false}}}' "$i"
  done
  printf ']}\n'
}

port=$(free_port)
broker_start "$work" "$port"
for n in "${counts[@]}"; do
  describe "$n" >"$work/gateway-$n.json"
  rm -f "$work"/state.db*
  gateway_start "$work" "$sfgw" "$work/gateway-$n.json" "$port" 0 warn --no-lan
  sleep "$settle_s"
  pid=$(cat "$work/sfgw.pid")
  rss=$(awk '/^VmRSS:/ { print $2 }' "/proc/$pid/status")
  hwm=$(awk '/^VmHWM:/ { print $2 }' "/proc/$pid/status")
  echo "sfgw_rss_kib $n $rss"
  echo "info sfgw with $n switches: VmRSS $rss KiB, VmHWM $hwm KiB" >&2
  gateway_stop "$work" || true
done
