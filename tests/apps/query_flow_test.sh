#!/usr/bin/env bash
# A query answers with every asked DP, also a DP whose report flow control
# has used up its window: plug01's current_ma (4) admits 10 reports per
# 60 s, and the 12th query in a row still carries it. Real mosquitto, the
# real sfgw and sfcloud with examples/gateway.json.
#
#   tests/apps/query_flow_test.sh BIN_DIR
set -uo pipefail

here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/../.." && pwd)
# shellcheck source=../../scripts/lib/demo_lib.sh
. "$root/scripts/lib/demo_lib.sh"

bin=$1
description=$root/examples/gateway.json
work=$(mktemp -d /tmp/sf_query_flow.XXXXXX)
cleanup() {
  gateway_kill "$work"
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
