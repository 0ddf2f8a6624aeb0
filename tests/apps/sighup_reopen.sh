#!/usr/bin/env bash
# sighup_reopen.sh SFGW DESCRIPTION: sfgw with --log-file survives SIGHUP
# and writes to a new file at the path after logrotate moved the old one.
set -uo pipefail
sfgw=$1 description=$2
. "$(dirname "$0")/../../scripts/lib/demo_lib.sh"
work=$(mktemp -d /tmp/sf_sighup.XXXXXX)
trap 'gateway_stop "$work" >/dev/null 2>&1; broker_stop "$work"; rm -rf "$work"' EXIT
fail() { echo "FAIL: $*" >&2; cat "$work/sfgw.log" "$work"/gw.log* >&2 2>/dev/null; exit 1; }
port=$(free_port)
broker_start "$work" "$port" || fail "no broker"
gateway_start "$work" "$sfgw" "$description" "$port" 0 notice --no-lan --log-file "$work/gw.log" --metrics-mqtt 0 ||
  fail "sfgw did not start"
pid=$(cat "$work/sfgw.pid")
for _ in $(seq 100); do grep -q "mqtt_session_up" "$work/gw.log" && break; sleep 0.1; done
grep -q "mqtt_session_up" "$work/gw.log" || fail "no session line in the log file"
mv "$work/gw.log" "$work/gw.log.1"
kill -HUP "$pid"
for _ in $(seq 100); do [ -e "$work/gw.log" ] && break; sleep 0.1; done
[ -e "$work/gw.log" ] || fail "the log file was not re-opened"
kill -0 "$pid" 2>/dev/null || fail "SIGHUP ended sfgw"
broker_stop "$work"   # the session goes down: a line for the new file
for _ in $(seq 100); do grep -q "mqtt_session_down" "$work/gw.log" && break; sleep 0.1; done
grep -q "mqtt_session_down" "$work/gw.log" || fail "no line in the re-opened file"
grep -q "mqtt_session_down" "$work/gw.log.1" && fail "a line went to the rotated file"
kill -0 "$pid" 2>/dev/null || fail "sfgw is gone"
echo "sfgw re-opened its log file on SIGHUP and kept running"
