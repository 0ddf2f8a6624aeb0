#!/usr/bin/env bash
# make test-cluster: the gateway and the console on a 3-node RabbitMQ
# cluster (scripts/rabbitmq_cluster.sh) while nodes die.
#   1. the gateway is given all three nodes (node 1 first); the console
#      watches with a persistent session on node 2 (then 3, then 1);
#   2. values change through the LAN channel, and commands come from the
#      console, all the time;
#   3. kill -9 the gateway's node; the gateway moves to another node;
#   4. the killed node restarts and rejoins the cluster;
#   5. kill -9 the console's node; the console moves with its session;
#   6. every value arrives, in order (a DP whose value changed several times
#      while the gateway was between nodes sends its last value: the publish
#      state keeps values, not changes, and that is counted and printed).
# Printed: the time from each kill to the gateway's session on the new node
# and to the first value the console received through it.
#
# Commands: the gateway keeps a persistent session, so a command published
# while it moves waits in its queue on the cluster and is applied once it
# is back. Every command the console published must reach the device, or
# the scenario fails; SF_CLUSTER_COMMANDS=measure only counts and prints
# them, SF_CLUSTER_COMMANDS=off sends none.
#
# SF_CLUSTER_GATEWAYS=N (default 0) adds the small fleet check: N more
# gateways on the cluster through the same kill; each must be back.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
root=$(dirname "$here")
# shellcheck source=lib/demo_lib.sh
. "$here/lib/demo_lib.sh"
commands=${SF_CLUSTER_COMMANDS:-assert}
case $commands in measure | assert | off) ;; *) echo "SF_CLUSTER_COMMANDS: measure, assert or off" >&2; exit 2 ;; esac

"$here/install_deps.sh"
"$here/install_rabbitmq.sh"
echo "building sfgw and sfcloud (Release) ..."
bin=$("$here/build_apps.sh")
dir=$root/build/cluster
cluster="$here/rabbitmq_cluster.sh"
"$cluster" stop "$dir/rmq" >/dev/null 2>&1 || true
rm -rf "$dir"
mkdir -p "$dir"
desc=$root/examples/gateway.json
pids=()
cleanup() {
  local status=$?
  for p in "${pids[@]}"; do kill "$p" 2>/dev/null || true; done
  wait 2>/dev/null || true
  "$cluster" stop "$dir/rmq" >/dev/null 2>&1 || true
  if [ $status -ne 0 ]; then echo "test-cluster FAILED (logs in $dir)" >&2; fi
}
trap cleanup EXIT
now_ms() { date +%s%3N; }
fail() { echo "FAIL: $*" >&2; exit 1; }

echo "== a 3-node RabbitMQ cluster on loopback"
"$cluster" start "$dir/rmq" 3
read -r -a brokers <<<"$("$cluster" brokers "$dir/rmq")"
echo "nodes: ${brokers[*]}"
qtype=$("$cluster" ctl "$dir/rmq" 1 eval 'application:get_env(rabbitmq_mqtt, durable_queue_type).')
[ "$qtype" = "{ok,quorum}" ] || fail "persistent sessions are not kept on quorum queues: $qtype"
echo "persistent MQTT sessions on quorum queues: $qtype"
node_of_port() {
  local i
  for i in 1 2 3; do if [ "${brokers[$((i - 1))]}" = "127.0.0.1:$1" ]; then echo "$i"; fi; done
}

echo "== the gateway on all three nodes, the console on node 2"
lan_port=$(free_port)
"$bin/sfgw" "$desc" --mqtt-broker "${brokers[0]}" --mqtt-broker "${brokers[1]}" --mqtt-broker "${brokers[2]}" \
  --mqtt-protocol 311 --lan-port "$lan_port" --state "$dir/state.db" --log-level notice \
  --metrics-file "$dir/metrics.prom" --metrics-interval 1 --metrics-mqtt 2 --connect-timeout 30 >"$dir/sfgw.out" 2>"$dir/sfgw.log" &
gw_pid=$!
pids+=("$gw_pid")
metric_wait "$dir/metrics.prom" sf_mqtt_connected -eq 1 60 >/dev/null || fail "the gateway did not connect"
console_brokers=(--broker "${brokers[1]}" --broker "${brokers[2]}" --broker "${brokers[0]}")
"$bin/sfcloud" --description "$desc" "${console_brokers[@]}" --session cluster-console subscribe >/dev/null
# each line with the time it arrived (ms)
"$bin/sfcloud" --description "$desc" "${console_brokers[@]}" --session cluster-console watch --json \
  2>"$dir/console.err" > >(while IFS= read -r line; do echo "$(now_ms) $line"; done >"$dir/console.jsonl") &
pids+=($!)
deadline=$((SECONDS + 30))
until grep -q "cluster-console" <("$cluster" ctl "$dir/rmq" 1 list_queues name type 2>/dev/null); do
  ((SECONDS < deadline)) || fail "no queue for the console's session"
  sleep 0.5
done
"$cluster" ctl "$dir/rmq" 1 list_queues name type members 2>/dev/null | grep cluster-console

gateway_node() {
  local port
  port=$(sed -n 's/^sf_mqtt_broker_info{.*broker="127.0.0.1:\([0-9]*\)"} 1$/\1/p' "$dir/metrics.prom")
  node_of_port "$port"
}

echo "== values through the LAN channel and commands from the console, all the time"
: >"$dir/values.sent"
: >"$dir/commands.sent"
: >"$dir/commands.unpublished"
(
  k=1
  while [ ! -f "$dir/stop" ]; do
    if "$bin/sfcloud" --description "$desc" --lan "127.0.0.1:$lan_port" --timeout 5 set plug01 "countdown=$k" \
      >/dev/null 2>&1; then
      echo "$k" >>"$dir/values.sent"
      k=$((k + 1))
    fi
    sleep 0.2
  done
) &
pids+=($!)
if [ "$commands" != off ]; then
  (
    m=10
    while [ ! -f "$dir/stop" ]; do
      # A command counts once the console published it: answered (exit 0
      # or 1), or published and not answered in time ("... within 3 s").
      # One the console could not publish (its own node just died) is its
      # to retry, not the gateway's to lose.
      rc=0
      out=$("$bin/sfcloud" --description "$desc" "${console_brokers[@]}" --timeout 3 set bulb01 "bright_value=$m" 2>&1) ||
        rc=$?
      if [ $rc -le 1 ] || [[ $out == *" within 3 s"* ]]; then
        echo "$m $(now_ms)" >>"$dir/commands.sent"
      else
        echo "$m $(now_ms) $out" >>"$dir/commands.unpublished"
      fi
      m=$((m + 1))
      [ $m -le 1000 ] || m=10
      sleep 0.3
    done
  ) &
  command_loop=$!
  pids+=("$command_loop")
fi

# kill_and_follow NODE WHAT: kill -9 NODE, wait for the gateway on another node, print the times.
kill_and_follow() {
  local node=$1 what=$2 t0 moved_ms first_ms new_node line
  t0=$(now_ms)
  "$cluster" kill "$dir/rmq" "$node"
  echo "killed node $node ($what) at $t0"
  local deadline=$((SECONDS + 60))
  while :; do
    new_node=$(gateway_node)
    if [ -n "$new_node" ] && [ "$new_node" != "$node" ] && grep -q "^sf_mqtt_connected{.*} 1$" "$dir/metrics.prom"; then break; fi
    ((SECONDS < deadline)) || fail "the gateway did not move away from node $node within 60 s"
    sleep 0.2
  done
  line=$(grep "MQTT broker changed from ${brokers[$((node - 1))]}" "$dir/sfgw.log" | tail -n 1)
  moved_ms=$(($(date -d "$(echo "$line" | cut -d' ' -f1)" +%s%3N) - t0))
  # the first value the console received once the gateway's session on the new node was up
  # (a value already on its way before the kill may arrive just after it)
  first_ms=""
  deadline=$((SECONDS + 60))
  while [ -z "$first_ms" ]; do
    first_ms=$(awk -v t0="$t0" -v up="$moved_ms" '$1 >= t0 + up && /"countdown"/ { print $1 - t0; exit }' \
      "$dir/console.jsonl")
    [ -n "$first_ms" ] && break
    ((SECONDS < deadline)) || fail "no value reached the console after node $node died"
    sleep 0.2
  done
  echo "gateway on node $new_node: session $moved_ms ms after the kill; first value at the console after $first_ms ms"
  echo "$what $moved_ms $first_ms" >>"$dir/moves"
}

sleep 8
[ "$(gateway_node)" = 1 ] || fail "the gateway is not on node 1 but on node $(gateway_node)"
echo "== kill -9 node 1, the gateway's"
kill_and_follow 1 "gateway's node"
sleep 8
echo "== node 1 restarts and rejoins"
"$cluster" restart "$dir/rmq" 1
deadline=$((SECONDS + 120))
until "$cluster" ctl "$dir/rmq" 2 cluster_status 2>/dev/null | sed -n '/Running Nodes/,/Versions/p' | grep -q sfc1@; do
  ((SECONDS < deadline)) || fail "node 1 did not rejoin"
  sleep 1
done
echo "node 1 is running in the cluster again"
sleep 5
echo "== kill -9 node 2, the console's"
if [ "$(gateway_node)" = 2 ]; then
  # the gateway moved to node 2, the next of its list: it moves again
  kill_and_follow 2 "console's and gateway's node"
else
  "$cluster" kill "$dir/rmq" 2
  echo "killed node 2 (the console's) at $(now_ms)"
fi
grep -q "MQTT broker changed" "$dir/console.err" && grep "MQTT broker changed" "$dir/console.err" | tail -n 1
# a console given the dead node first still reads every gateway's health (RabbitMQ keeps
# retained messages per node: the document it gets is the next one the gateway publishes)
"$bin/sfcloud" --description "$desc" "${console_brokers[@]}" --timeout 20 --for 6 health >"$dir/health.out" 2>&1 ||
  fail "sfcloud health with node 2 dead: $(cat "$dir/health.out")"
grep -q "^gw0001 " "$dir/health.out" || fail "no health row of gw0001: $(cat "$dir/health.out")"
echo "sfcloud health with node 2 dead:"
cat "$dir/health.out"
sleep 12
touch "$dir/stop"
sleep 4
# the command loop's last sfcloud has ended, so commands.sent is complete
[ -z "${command_loop:-}" ] || wait "$command_loop" || true
echo "== what arrived"
last_sent=$(tail -n 1 "$dir/values.sent")
# wait_at_console TEXT: until TEXT is in what the console received, or the deadline passed
deadline=$((SECONDS + 60))
wait_at_console() {
  until grep -q "$1" "$dir/console.jsonl"; do
    ((SECONDS < deadline)) || return 0
    sleep 0.5
  done
}
# the last value set, and the last command the console published (it may have
# been published without an answer just before the stop: the session still owes it)
wait_at_console "\"countdown\":$last_sent[,}]"
if [ "$commands" != off ] && [ -s "$dir/commands.sent" ]; then
  wait_at_console "\"bright_value\":$(tail -n 1 "$dir/commands.sent" | cut -d' ' -f1)[,}]"
fi
python3 - "$dir" "$commands" <<'PY'
import json, sys
d, commands = sys.argv[1], sys.argv[2]
sent = [int(x) for x in open(d + "/values.sent").read().split()]
seen, bright = [], []
for line in open(d + "/console.jsonl"):
    t, _, doc = line.partition(" ")
    try:
        m = json.loads(doc)
    except ValueError:
        continue
    dps = m.get("dps", {})
    if m.get("cid") == "plug01" and "countdown" in dps:
        seen.append(dps["countdown"])
    if m.get("cid") == "bulb01" and "bright_value" in dps:
        bright.append(dps["bright_value"])
ok = True
distinct = []
for v in seen:
    if not distinct or distinct[-1] != v:
        distinct.append(v)
in_order = all(a < b for a, b in zip(distinct, distinct[1:]))
missing = sorted(set(sent) - set(seen))
print(f"values set through the LAN channel: {len(sent)}; at the console: {len(set(seen) & set(sent))}; "
      f"superseded while the gateway was between nodes: {len(missing)} {missing[:20]}")
print(f"in order: {'yes' if in_order else 'NO'}; the last value set ({sent[-1]}) at the console: "
      f"{'yes' if sent and seen and seen[-1] == sent[-1] else 'NO'}")
if not sent or not seen or seen[-1] != sent[-1] or not in_order:
    ok = False
# a superseded value must be one the gateway could not send: at most the values of one move window each
if len(missing) > 40:
    print("FAIL: more values missing than the moves can explain")
    ok = False
if commands != "off":
    cmds = [int(l.split()[0]) for l in open(d + "/commands.sent") if l.strip()]
    bright_set = set(bright)
    lost = [c for c in cmds if c not in bright_set]
    unpublished = sum(1 for l in open(d + "/commands.unpublished") if l.strip())
    print(f"commands published by the console: {len(cmds)} (not published, console without a broker: "
          f"{unpublished}); reached the device (reported back): "
          f"{len(cmds) - len(lost)} of {len(cmds)}; lost: {len(lost)} {lost[:20]}")
    # in order: the values the commands set first appear at the console in the order sent
    sent_set = set(cmds)
    firsts = list(dict.fromkeys(v for v in bright if v in sent_set))
    rank = {c: i for i, c in enumerate(cmds)}
    cmds_in_order = all(rank[a] < rank[b] for a, b in zip(firsts, firsts[1:]))
    print(f"commands applied in the order sent: {'yes' if cmds_in_order else 'NO'}")
    if commands == "assert" and (lost or not cmds_in_order):
        print("FAIL: commands lost or out of order")
        ok = False
sys.exit(0 if ok else 1)
PY
echo "moves (what, ms to the session on the new node, ms to the first value at the console):"
cat "$dir/moves"
echo "test-cluster passed"
