#!/usr/bin/env bash
# What an operator sees when the real sfgw starts and stops (examples/gateway.json),
# one check per mode:
#   clean_start      against a reachable mosquitto 300 ms away (slow_link.py): no
#                    line at ERROR level, and every device's start-up report goes out;
#   connect_timeout  with no broker, --connect-timeout 3 gives up after 3 s or more;
#   metrics_at_stop  after a clean stop the metrics file says the gateway is down
#                    (sf_up 0, sf_mqtt_connected 0) and promtool accepts it;
#   query_flow       a query answers every asked DP, also one whose report flow
#                    control used up its window: plug01's current_ma (10 reports per
#                    60 s) is in the answer to the 12th query in a row;
#   read_only_state  a state file holding countdown=800 on a location that became
#                    read-only (a read-only bind mount in a private mount namespace):
#                    the restart publishes 800, never the default 0, says so once
#                    (warning) and in sf_state_read_only 1. Skipped where no mount
#                    namespace can be made. Then the same file read by a user
#                    who may not write it (the non-root case: a root-owned folder,
#                    sfgw run as nobody with setpriv): the same outcome.
#
#   tests/apps/start_stop_test.sh BIN_DIR MODE
# (poll_until and the broker and gateway helpers: scripts/lib/demo_lib.sh)
set -uo pipefail

here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/../.." && pwd)
# shellcheck source=../../scripts/lib/demo_lib.sh
. "$root/scripts/lib/demo_lib.sh"

bin=$1
mode=$2
description=$root/examples/gateway.json
work=$(mktemp -d /tmp/sf_start_stop.XXXXXX)
link_pid=
cleanup() {
  gateway_kill "$work"
  if [ -n "$link_pid" ]; then kill "$link_pid" 2>/dev/null; wait "$link_pid" 2>/dev/null; fi
  broker_stop "$work"
  rm -rf "$work"
}
trap cleanup EXIT

fail() {
  echo "FAIL: $*" >&2
  echo "--- sfgw.log (last 30 lines)" >&2
  tail -n 30 "$work/sfgw.log" >&2
  exit 1
}

mqtt_port=$(free_port)
lan_port=$(free_port)
while [ "$lan_port" = "$mqtt_port" ]; do lan_port=$(free_port); done

start_reports_sent() { [ "$(grep -c 'INFO .* reports {.*}: 0$' "$work/sfgw.log")" -ge 5 ]; }

case "$mode" in
clean_start)
  broker_start "$work" "$mqtt_port" || fail "broker did not start"
  link_port=$(free_port)
  while [ "$link_port" = "$mqtt_port" ] || [ "$link_port" = "$lan_port" ]; do link_port=$(free_port); done
  /usr/bin/python3 "$here/slow_link.py" "$link_port" "$mqtt_port" 300 &
  link_pid=$!
  wait_port "$link_port" 10 || fail "the slow link did not open"
  gateway_start "$work" "$bin/sfgw" "$description" "$link_port" "$lan_port" info || fail "sfgw did not start"
  # the gateway and its four sub-devices have start-up values
  poll_until 20 start_reports_sent || fail "the start-up reports did not go out"
  gateway_stop "$work" || fail "sfgw did not stop cleanly"
  if grep -n ' ERROR ' "$work/sfgw.log"; then fail "a clean start logged the ERROR lines above"; fi
  echo "PASS: a clean start and stop against a reachable broker, start-up reports sent, no ERROR line"
  ;;
connect_timeout)
  started=$(date +%s%N)
  "$bin/sfgw" "$description" --mqtt-port "$mqtt_port" --no-lan --no-state --connect-timeout 3 \
    >"$work/sfgw.out" 2>"$work/sfgw.log"
  status=$?
  elapsed_ms=$((($(date +%s%N) - started) / 1000000))
  [ "$status" = 1 ] || fail "exit $status, expected 1"
  grep -q "within 3 s" "$work/sfgw.log" || fail "no 'within 3 s' in the error"
  [ "$elapsed_ms" -ge 3000 ] || fail "gave up after $elapsed_ms ms while saying 'within 3 s'"
  [ "$elapsed_ms" -lt 6000 ] || fail "gave up only after $elapsed_ms ms"
  echo "PASS: --connect-timeout 3 gave up after $elapsed_ms ms"
  ;;
metrics_at_stop)
  broker_start "$work" "$mqtt_port" || fail "broker did not start"
  prom=$work/sfgw.prom
  gateway_start "$work" "$bin/sfgw" "$description" "$mqtt_port" "$lan_port" info --metrics-file "$prom" \
    --metrics-interval 1 || fail "sfgw did not start"
  metric_wait "$prom" sf_mqtt_connected -eq 1 20 >/dev/null || fail "the metrics file never said connected"
  grep -q '^sf_up{gateway="gw0001"} 1$' "$prom" || fail "no sf_up 1 while running: $(cat "$prom")"
  gateway_stop "$work" || fail "sfgw did not stop cleanly"
  [ -f "$prom" ] || fail "the metrics file is gone after a clean stop"
  grep -q '^sf_up{gateway="gw0001"} 0$' "$prom" || fail "after the stop: $(grep '^sf_up' "$prom")"
  grep -q '^sf_mqtt_connected{gateway="gw0001"} 0$' "$prom" || fail "after the stop: $(grep '^sf_mqtt_connected' "$prom")"
  if command -v promtool >/dev/null; then
    promtool check metrics <"$prom" || fail "promtool refuses the last file"
  else
    echo "promtool missing (scripts/install_deps.sh installs it): format not checked"
  fi
  echo "PASS: after a clean stop the metrics file says sf_up 0 and sf_mqtt_connected 0"
  ;;
query_flow)
  broker_start "$work" "$mqtt_port" || fail "broker did not start"
  gateway_start "$work" "$bin/sfgw" "$description" "$mqtt_port" "$lan_port" info --no-state || fail "sfgw did not start"
  for i in $(seq 1 12); do
    out=$("$bin/sfcloud" --description "$description" --port "$mqtt_port" --timeout 10 --json query plug01 current_ma)
    status=$?
    [ "$status" = 0 ] || fail "query $i of plug01 current_ma: exit $status: $out"
  done
  answers=$(grep -c 'plug01 answers the query with {"dps":{"4":[0-9]*},"cid":"plug01"}: 0' "$work/sfgw.log")
  [ "$answers" = 12 ] || fail "12 queries, $answers answers in the log"
  echo "PASS: 12 queries of a DP under flow control (10 per 60 s), 12 complete answers"
  ;;
read_only_state)
  if ! unshare -m --propagation private true 2>/dev/null; then
    echo "SKIP: no private mount namespace here (unshare -m needs CAP_SYS_ADMIN)"
    exit 0
  fi
  broker_start "$work" "$mqtt_port" || fail "broker did not start"
  mkdir -p "$work/state"
  export SFGW_STATE=$work/state/state.db
  gateway_start "$work" "$bin/sfgw" "$description" "$mqtt_port" "$lan_port" info || fail "sfgw did not start"
  "$bin/sfcloud" --description "$description" --port "$mqtt_port" --timeout 10 set plug01 countdown=800 >/dev/null ||
    fail "set plug01 countdown=800"
  state_holds "$SFGW_STATE" "SELECT num FROM dp_state WHERE dev='plug01' AND dp=9" 800 ||
    fail "the state file does not hold countdown=800"
  gateway_stop "$work" || fail "sfgw did not stop cleanly"
  : >"$work/sfgw.log"
  # the same daemon, but its state folder is read-only in its own mount namespace
  cat >"$work/ro_sfgw" <<EOS
#!/bin/sh
exec unshare -m --propagation private sh -c 'mount --bind -o ro "$work/state" "$work/state" && exec "$bin/sfgw" "\$@"' sh "\$@"
EOS
  chmod +x "$work/ro_sfgw"
  prom=$work/sfgw.prom
  gateway_start "$work" "$work/ro_sfgw" "$description" "$mqtt_port" "$lan_port" info \
    --metrics-file "$prom" --metrics-interval 1 || fail "sfgw did not start on a read-only state folder"
  poll_until 20 grep -q 'plug01 reports {.*}: 0$' "$work/sfgw.log" || fail "no start-up report of plug01"
  grep -q 'plug01 reports {.*"9":800.*}: 0$' "$work/sfgw.log" || fail "the start-up report lost countdown=800: $(grep 'plug01 reports' "$work/sfgw.log")"
  if grep -q 'plug01 reports {.*"9":0[,}]' "$work/sfgw.log"; then fail "the default countdown=0 was published"; fi
  [ "$(grep -c ' WARN .*cannot be written: the gateway runs on the values it restored' "$work/sfgw.log")" = 1 ] ||
    fail "expected one warning about the read-only state file"
  metric_wait "$prom" sf_state_read_only -eq 1 20 >/dev/null || fail "sf_state_read_only is not 1"
  if grep -n ' ERROR ' "$work/sfgw.log"; then fail "a read-only state folder logged the ERROR lines above"; fi
  echo "PASS: a read-only state folder: countdown=800 restored and published, one warning, sf_state_read_only 1"
  gateway_stop "$work" || fail "sfgw did not stop cleanly"
  if [ "$(id -u)" -ne 0 ] || ! command -v setpriv >/dev/null; then
    echo "SKIP: the non-root case needs root and setpriv to run sfgw as nobody"
    exit 0
  fi
  : >"$work/sfgw.log"
  chmod 0755 "$work" "$work/state"
  chmod 0644 "$SFGW_STATE"
  mkdir -m 0777 "$work/nobody"
  printf '#!/bin/sh\nexec setpriv --reuid=nobody --regid=nogroup --clear-groups "%s" "$@"\n' "$bin/sfgw" >"$work/nobody_sfgw"
  chmod +x "$work/nobody_sfgw"
  prom=$work/nobody/sfgw.prom
  gateway_start "$work" "$work/nobody_sfgw" "$description" "$mqtt_port" "$lan_port" info \
    --metrics-file "$prom" --metrics-interval 1 || fail "sfgw did not start as nobody"
  poll_until 20 grep -q 'plug01 reports {.*}: 0$' "$work/sfgw.log" || fail "no start-up report of plug01 (as nobody)"
  grep -q 'plug01 reports {.*"9":800.*}: 0$' "$work/sfgw.log" || fail "as nobody, the start-up report lost countdown=800"
  [ "$(grep -c ' WARN .*cannot be written: the gateway runs on the values it restored' "$work/sfgw.log")" = 1 ] ||
    fail "as nobody: expected one warning about the read-only state file"
  metric_wait "$prom" sf_state_read_only -eq 1 20 >/dev/null || fail "as nobody: sf_state_read_only is not 1"
  echo "PASS: a state file its user may not write: countdown=800 restored and published, one warning"
  ;;
*)
  echo "unknown mode $mode" >&2
  exit 2
  ;;
esac
