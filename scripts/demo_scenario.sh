#!/usr/bin/env bash
# The demo scenario: a private mosquitto, the gateway daemon with
# examples/gateway.json, and the cloud console driving it step by step.
# sfcloud does the checking: a step passes when it exits 0 (and, with
# --json, its last line is an "ok" outcome). Exits 0 only when every step
# passed; stops everything it started.
#
#   scripts/demo_scenario.sh BIN_DIR [--json]
#
# BIN_DIR holds sfgw and sfcloud (e.g. build/release/apps).
set -uo pipefail

here=$(cd "$(dirname "$0")" && pwd)
root=$(dirname "$here")
# shellcheck source=lib/demo_lib.sh
. "$here/lib/demo_lib.sh"

# SF_BROKER_CTL: another broker than the private mosquitto, as a program
# answering "start DIR PORT" and "stop DIR" (e.g. scripts/rabbitmq_broker.sh);
# SF_BROKER_DIR: its folder (default: the scenario's scratch folder).
# SF_BROKER_NAME: its name in the step headings.
# SF_GATEWAY_OPTIONS: more sfgw options for that broker (e.g. --mqtt-protocol 311).
read -r -a gateway_options <<<"${SF_GATEWAY_OPTIONS:-}"
broker=${SF_BROKER_NAME:-mosquitto}
if [ -n "${SF_BROKER_CTL:-}" ]; then
  broker_start() { "$SF_BROKER_CTL" start "${SF_BROKER_DIR:-$1}" "$2"; }
  broker_stop() { "$SF_BROKER_CTL" stop "${SF_BROKER_DIR:-$1}"; }
fi

if [ $# -lt 1 ] || [ ! -x "$1/sfgw" ] || [ ! -x "$1/sfcloud" ]; then
  echo "usage: $0 BIN_DIR [--json]   (BIN_DIR with sfgw and sfcloud)" >&2
  exit 2
fi
bin=$(cd "$1" && pwd)
json=0
if [ "${2:-}" = "--json" ]; then json=1; fi
description=$root/examples/gateway.json

work=$(mktemp -d /tmp/sf_demo.XXXXXX)
# the gateway's state file (docs/state.md): every demo starts from the description
export SFGW_STATE=${SFGW_STATE:-$work/state.db}
rm -f "$SFGW_STATE" "$SFGW_STATE-wal" "$SFGW_STATE-shm"
cleanup() {
  gateway_stop "$work" >/dev/null 2>&1 || true
  broker_stop "$work"
  if [ "${SF_DEMO_KEEP:-0}" = 1 ]; then echo "files kept in $work"; else rm -rf "$work"; fi
}
trap cleanup EXIT
trap 'exit 130' INT TERM

mqtt_port=$(free_port)
lan_port=$(free_port)
while [ "$lan_port" = "$mqtt_port" ]; do lan_port=$(free_port); done
started=$SECONDS
failures=()
step_no=0

heading() {
  step_no=$((step_no + 1))
  printf '\n== %d. %s  [%ds]\n' "$step_no" "$1" $((SECONDS - started))
}

cloud() { "$bin/sfcloud" --description "$description" --port "$mqtt_port" "$@"; }

# expect_ok ARGS...: run sfcloud, show what it saw, record a failure unless it answered as expected.
expect_ok() {
  local out rc
  if ((json)); then out=$(cloud --json "$@" 2>&1); else out=$(cloud "$@" 2>&1); fi
  rc=$?
  printf '%s\n' "$out" | sed 's/^/   /'
  if ((rc == 0)) && ((json)) && ! printf '%s\n' "$out" | tail -n 1 | grep -q '"outcome":"ok"'; then rc=1; fi
  if ((rc != 0)); then
    echo "   FAILED (sfcloud exit $rc): sfcloud $*"
    failures+=("step $step_no: sfcloud $*")
    return 1
  fi
}

heading "Start: $broker on 127.0.0.1:$mqtt_port, then sfgw with examples/gateway.json (LAN port $lan_port)"
broker_start "$work" "$mqtt_port" || exit 1
# sessions that keep what the gateway says from its first message on
expect_ok --session demo-reports subscribe
expect_ok --session demo-presence subscribe
metrics=$work/metrics.prom
gateway_start "$work" "$bin/sfgw" "$description" "$mqtt_port" "$lan_port" info \
  --metrics-file "$metrics" --metrics-interval 1 --metrics-mqtt 5 ${gateway_options[@]+"${gateway_options[@]}"} || exit 1
sed 's/^/   /' "$work/sfgw.out"

heading "Initial reports: every device reports its start-up values, then comes online in one batch"
expect_ok --session demo-reports --timeout 20 wait report gateway alarm_volume=30 plug01 switch=off \
  bulb01 bright_value=500 thermo01 temp_set=21.0 sensor01 temp_current=21.5
expect_ok --session demo-presence --timeout 25 wait online plug01 bulb01 thermo01 sensor01

heading "A command: switch plug01 on; the plug reports its new state (and a raw command comes back as raw)"
expect_ok --expect report set plug01 switch=on
expect_ok --expect report set bulb01 raw_cmd=AQIDBA==

heading "A command that changes nothing: switch plug01 on again; the gateway echoes the current value"
expect_ok --expect echo set plug01 switch=on

heading "A query: the thermostat answers with its values"
expect_ok query thermo01

heading "A group add and a scene add, answered per device"
expect_ok group add 5 plug01 bulb01 thermo01
expect_ok scene add 5 01 plug01 bulb01

heading "sensor01 goes silent: no heartbeats, no answers"
expect_ok silence sensor01
heading "The gateway probes it before its 60 s time-out runs out (the probe goes unanswered)"
expect_ok --timeout 80 wait probe sensor01
heading "It goes offline in a presence batch"
expect_ok --timeout 45 wait offline sensor01
heading "It wakes up, sends a heartbeat and comes back online"
# subscribed before the wake: the batch leaves 300 ms after the heartbeat,
# sooner than a second console process may start on a loaded machine
expect_ok --session wake subscribe
expect_ok wake sensor01
expect_ok --session wake --timeout 25 wait online sensor01

heading "Broker outage: $broker stops while values change on the LAN"
expect_ok --session outage subscribe
broker_stop "$work"
echo "   $broker stopped"
expect_ok --lan "127.0.0.1:$lan_port" set plug01 switch=off
expect_ok --lan "127.0.0.1:$lan_port" set bulb01 bright_value=300 work_mode=scene
metric_wait "$metrics" sf_dps_pending -gt 0 20 | sed 's/^/   values waiting for the cloud (metrics file): /' ||
  failures+=("step $step_no: the pending gauge did not rise")
heading "The broker returns: the gateway re-sends every value the cloud did not confirm"
broker_start "$work" "$mqtt_port" || exit 1
echo "   $broker started again on the same port"
expect_ok --session outage --timeout 40 wait report plug01 switch=off bulb01 bright_value=300 work_mode=scene
metric_wait "$metrics" sf_dps_pending -eq 0 20 | sed 's/^/   values waiting for the cloud (metrics file): /' ||
  failures+=("step $step_no: the pending gauge did not return to 0")

heading "The gateway's health, as the cloud sees it (sfcloud health, docs/metrics.md)"
expect_ok --for 6 health

heading "A restart during an outage: values change, the gateway is killed (SIGKILL) and starts without the broker"
expect_ok --session restart subscribe
broker_stop "$work"
echo "   mosquitto stopped"
expect_ok --lan "127.0.0.1:$lan_port" set plug01 switch=on countdown=4321
expect_ok --lan "127.0.0.1:$lan_port" set thermo01 temp_set=19.5 mode=eco
# A crash loses what changed within the last write interval: kill only once
# the file holds every value changed above.
if state_holds "$SFGW_STATE" "SELECT num FROM dp_state WHERE dev = 'plug01' AND dp = 9" 4321 10 &&
  state_holds "$SFGW_STATE" "SELECT num FROM dp_state WHERE dev = 'thermo01' AND dp = 2" 195 10; then
  echo "   the state file holds the new values"
else
  echo "   FAILED: the state file does not hold plug01 countdown=4321 and thermo01 temp_set=195"
  failures+=("step $step_no: state file")
fi
gateway_kill "$work"
echo "   sfgw killed with SIGKILL"
gateway_start "$work" "$bin/sfgw" "$description" "$mqtt_port" "$lan_port" info \
  --metrics-file "$metrics" --metrics-interval 1 --metrics-mqtt 5 ${gateway_options[@]+"${gateway_options[@]}"} || exit 1
grep -h "state: .* restored" "$work/sfgw.log" | tail -n 1 | sed 's/^.*state: /   state: /'
heading "The broker returns: every value changed during the outage reaches the cloud, and a query shows the devices as they were left"
broker_start "$work" "$mqtt_port" || exit 1
echo "   mosquitto started again on the same port"
expect_ok --session restart --timeout 40 wait report plug01 switch=on countdown=4321 thermo01 temp_set=19.5 mode=eco
expect_ok query plug01
expect_ok query thermo01 temp_set mode

heading "A command sent while the gateway restarts is applied once it is back (persistent session, docs/wire-protocol.md 2.1)"
gateway_stop "$work" || true
echo "   sfgw stopped (SIGTERM); the broker keeps its session and the commands sent to it"
# A watcher on the broker: the retained status tells it is subscribed, the
# command's arrival that the broker has it before the gateway returns.
mosquitto_sub -p "$mqtt_port" -t sf/gw0001/status -t sf/gw0001/cmd/dp -C 2 -W 30 >"$work/while-away.sub" 2>&1 &
watcher=$!
for _ in $(seq 100); do [ -s "$work/while-away.sub" ] && break; sleep 0.1; done
# sfcloud publishes now and waits for the device's report, which can only
# come from the gateway started after it
cloud --timeout 40 set plug01 countdown=777 >"$work/while-away.out" 2>&1 &
while_away=$!
wait "$watcher" || true
echo "   published while the gateway is down: $(tail -n 1 "$work/while-away.sub")"
gateway_start "$work" "$bin/sfgw" "$description" "$mqtt_port" "$lan_port" info \
  --metrics-file "$metrics" --metrics-interval 1 --metrics-mqtt 5 ${gateway_options[@]+"${gateway_options[@]}"} || exit 1
echo "   sfgw started again"
if wait "$while_away"; then
  sed 's/^/   /' "$work/while-away.out"
  echo "   the command published while the gateway was down reached plug01"
else
  sed 's/^/   /' "$work/while-away.out"
  echo "   FAILED: the command sent while the gateway was down was not applied"
  failures+=("step $step_no: command while away")
fi

heading "Clean shutdown of the gateway (SIGTERM)"
if gateway_stop "$work"; then
  tail -n 2 "$work/sfgw.out" | sed 's/^/   /'
else
  echo "   FAILED: sfgw did not stop cleanly"
  tail -n 20 "$work/sfgw.log" | sed 's/^/   /'
  failures+=("step $step_no: clean shutdown")
fi

echo
echo "== The gateway's metrics at its stop ($metrics, Prometheus text format)"
grep -v '^#' "$metrics" | sed 's/^/   /'
echo
if [ ${#failures[@]} -eq 0 ]; then
  echo "demo passed: $step_no steps in $((SECONDS - started)) s"
  exit 0
fi
echo "demo FAILED in $((SECONDS - started)) s:"
printf '  %s\n' "${failures[@]}"
echo "(run with SF_DEMO_KEEP=1 to keep the broker and gateway logs)"
exit 1
