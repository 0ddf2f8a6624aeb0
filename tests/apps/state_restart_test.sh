#!/usr/bin/env bash
# The gateway restarted during a broker outage loses nothing, with a real
# mosquitto and the real sfgw process (20 devices of 10 DPs each):
#   1. the broker stops;
#   2. 200 DPs change over the LAN channel;
#   3. the state file holds them (the writer wrote its interval);
#   4. the gateway is stopped: SIGKILL (kill9) or SIGTERM (term);
#   5. it starts again, and comes up although the broker is still down;
#      a query over the LAN answers with the values set during the outage;
#   6. the broker starts again.
# Then every DP's last value reaches a subscriber, every row of the state
# file ends confirmed (publish state 3), and no report published since the
# outage carries a start-up value instead of a stored one.
#
#   tests/apps/state_restart_test.sh BIN_DIR kill9|term
set -uo pipefail

here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/../.." && pwd)
# shellcheck source=../../scripts/lib/demo_lib.sh
. "$root/scripts/lib/demo_lib.sh"

bin=$1
mode=$2
description=$here/descriptions/state_20x10.json
work=$(mktemp -d /tmp/sf_state_test.XXXXXX)
cleanup() {
  gateway_kill "$work"
  broker_stop "$work"
  if [ "${SF_TEST_KEEP:-0}" = 1 ]; then echo "files kept in $work"; else rm -rf "$work"; fi
}
trap cleanup EXIT

fail() {
  echo "FAIL: $*" >&2
  echo "--- sfgw.log (last 40 lines)" >&2
  tail -n 40 "$work/sfgw.log" >&2
  exit 1
}

mqtt_port=$(free_port)
lan_port=$(free_port)
while [ "$lan_port" = "$mqtt_port" ]; do lan_port=$(free_port); done
cloud() { "$bin/sfcloud" --description "$description" --port "$mqtt_port" "$@"; }
lan() { "$bin/sfcloud" --description "$description" --lan "127.0.0.1:$lan_port" "$@"; }
state() { sqlite3 -batch "$work/state.db" "$1" 2>/dev/null; }

# value_of DEV DP: what the outage sets, far from the start-up value 5
value_of() { echo $((70000 + $1 * 100 + $2)); }


# every DP of every device with its outage value, one "DEV DP VALUE" line each
expected_rows() {
  local d i
  for d in $(seq 1 20); do
    for i in $(seq 1 10); do printf 'dev%02d %d %d\n' "$d" "$i" "$(value_of "$d" "$i")"; done
  done
}
expected=$(expected_rows)
rows_hold_values() {
  [ "$(state "SELECT dev, dp, num FROM dp_state WHERE dev LIKE 'dev%' ORDER BY dev, dp" | tr '|' ' ')" = "$expected" ]
}
rows_confirmed() {
  rows_hold_values && [ "$(state "SELECT count(*) FROM dp_state WHERE dev LIKE 'dev%' AND pv_stat = 3")" = 200 ]
}

echo "== start: broker on $mqtt_port, sfgw (LAN $lan_port), state file $work/state.db  [${SECONDS}s]"
broker_start "$work" "$mqtt_port" || fail "broker did not start"
gateway_start "$work" "$bin/sfgw" "$description" "$mqtt_port" "$lan_port" info || fail "sfgw did not start"
wait_port "$lan_port" 20 || fail "no LAN channel"
cloud --timeout 20 query dev01 >/dev/null || fail "the gateway does not answer over MQTT"
cloud --session after subscribe >/dev/null || fail "no session"
cloud --session dump subscribe >/dev/null || fail "no session"

echo "== 1. the broker stops  [${SECONDS}s]"
broker_stop "$work"

echo "== 2. 200 DPs change over the LAN channel  [${SECONDS}s]"
for d in $(seq 1 20); do
  args=()
  for i in $(seq 1 10); do args+=("v$i=$(value_of "$d" "$i")"); done
  lan --expect report set "$(printf 'dev%02d' "$d")" "${args[@]}" >/dev/null || fail "set dev$d over the LAN"
done

echo "== 3. the state file holds every changed value  [${SECONDS}s]"
poll_until 20 rows_hold_values || fail "the state file does not hold the changed values"

echo "== 4. the gateway is stopped ($mode)  [${SECONDS}s]"
if [ "$mode" = kill9 ]; then
  gateway_kill "$work"
else
  gateway_stop "$work" || fail "sfgw did not stop cleanly"
fi

echo "== 5. it starts again with the broker down  [${SECONDS}s]"
gateway_start "$work" "$bin/sfgw" "$description" "$mqtt_port" "$lan_port" info || fail "sfgw did not restart"
wait_port "$lan_port" 20 || fail "no LAN channel after the restart"
grep -q "state: 200 DP values restored" "$work/sfgw.log" || fail "the restart did not restore 200 values"
for d in 1 7 20; do
  dev=$(printf 'dev%02d' "$d")
  want="$dev"
  for i in $(seq 1 10); do want+=" v$i=$(value_of "$d" "$i")"; done
  out=$(lan query "$dev") || fail "query $dev over the LAN"
  printf '%s\n' "$out" | grep -qF -- "$want" || fail "query $dev answered $out, expected $want"
done

echo "== 6. the broker is back: every value arrives and ends confirmed  [${SECONDS}s]"
broker_start "$work" "$mqtt_port" || fail "broker did not restart"
wait_args=()
for d in $(seq 1 20); do
  wait_args+=("$(printf 'dev%02d' "$d")")
  for i in $(seq 1 10); do wait_args+=("v$i=$(value_of "$d" "$i")"); done
done
cloud --session after --timeout 60 wait report "${wait_args[@]}" >/dev/null || fail "not every value reached the cloud"
poll_until 30 rows_confirmed || fail "not every row ended confirmed"

echo "== no report since the outage carries a start-up value  [${SECONDS}s]"
cloud --session dump --json watch --for 3 >"$work/dump.json" 2>&1
grep '"kind":"report"' "$work/dump.json" | grep -E '"v[0-9]+":5[,}]' && fail "a start-up value was published"
grep -q '"kind":"report"' "$work/dump.json" || fail "the dump session saw no report"

echo "state restart test ($mode) passed"
