#!/usr/bin/env bash
# A RabbitMQ cluster on loopback, for make test-cluster and make bench-fleet:
#   rabbitmq_cluster.sh start DIR [N]    make (the first time) and start N nodes (default 3), one cluster
#   rabbitmq_cluster.sh stop DIR         stop every node gracefully, then the cluster's port mapper
#   rabbitmq_cluster.sh kill DIR I       kill -9 node I (1-based): no goodbye, nothing saved
#   rabbitmq_cluster.sh restart DIR I    start node I again (after kill): it rejoins with its data
#   rabbitmq_cluster.sh ctl DIR I ARG... rabbitmqctl against node I
#   rabbitmq_cluster.sh port DIR I       node I's MQTT port
#   rabbitmq_cluster.sh brokers DIR      "127.0.0.1:P1 127.0.0.1:P2 ...", every node's MQTT address
#   rabbitmq_cluster.sh pid DIR I        the process id of node I's Erlang VM
# Node I lives in DIR/nodeI: name sfcI@localhost, its own data (mnesia), log,
# configuration and ports (MQTT, AMQP, distribution). What the nodes share:
# one Erlang cookie (DIR/cookie, copied into each node's home) and one
# Erlang port mapper (DIR/epmd_port), through which nodes of one host find
# each other. Nodes start one after the other; each later one finds the
# first through the classic peer discovery and joins it.
#
# Persistent MQTT sessions are kept on quorum queues (mqtt.durable_queue_type,
# RabbitMQ 3.10 and later): replicated on every node, so the queue of a
# session survives the death of any one node of three. The queues of clean
# sessions (classic) are mirrored on every node by a policy (mqtt-sessions).
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
# shellcheck source=lib/demo_lib.sh
. "$here/lib/demo_lib.sh"
# shellcheck source=lib/rabbitmq_env.sh
. "$here/lib/rabbitmq_env.sh"

cmd=${1:-} dir=${2:-}
usage() { sed -n '2,9p' "$0" | sed 's/^# //' >&2; exit 2; }
[ -n "$cmd" ] && [ -n "$dir" ] || usage
mkdir -p "$dir"
dir=$(cd "$dir" && pwd)

# a port no socket uses and no node of the cluster has taken
fresh_port() {
  local p
  p=$(free_port)
  while grep -qsx "$p" "$dir"/epmd_port "$dir"/node*/*_port; do p=$(free_port); done
  echo "$p"
}

node_env() { rabbitmq_node_env "$dir/node$1" "sfc$1@localhost" "$dir/epmd_port"; }

make_node() {
  local n=$1 count=$2 d=$dir/node$1 name
  [ -f "$d/rabbitmq.conf" ] && return 0
  mkdir -p "$d/home" "$d/mnesia" "$d/log"
  for name in mqtt_port amqp_port dist_port; do fresh_port >"$d/$name"; done
  cp "$dir/cookie" "$d/home/.erlang.cookie"
  chmod 400 "$d/home/.erlang.cookie"
  echo "[rabbitmq_mqtt]." >"$d/enabled_plugins"
  {
    echo "listeners.tcp.1 = 127.0.0.1:$(cat "$d/amqp_port")"
    echo "mqtt.listeners.tcp.1 = 127.0.0.1:$(cat "$d/mqtt_port")"
    echo "mqtt.allow_anonymous = true"
    # the queue of a persistent session (QoS 1 subscription) is replicated
    echo "mqtt.durable_queue_type = quorum"
    echo "loopback_users = none"
    echo "log.file.level = warning"
    echo "cluster_formation.peer_discovery_backend = classic_config"
    for i in $(seq "$count"); do echo "cluster_formation.classic_config.nodes.$i = sfc$i@localhost"; done
    # a node that lost its peers keeps serving what it can; quorum queues
    # answer only with a majority anyway
    echo "cluster_partition_handling = ignore"
  } >"$d/rabbitmq.conf"
}

start_node() {
  local n=$1 d=$dir/node$1
  (
    node_env "$n"
    "$rmq/rabbitmq-server" >>"$d/server.out" 2>&1 &
    echo $! >"$d/server.pid"
  )
  if ! wait_port "$(cat "$d/mqtt_port")" 180; then
    echo "node $n did not open its MQTT port $(cat "$d/mqtt_port") (see $d/server.out, $d/log)" >&2
    return 1
  fi
}

ctl() {
  local n=$1
  shift
  (node_env "$n" && "$rmq/rabbitmqctl" "$@")
}

# the Erlang VM of node I (rabbitmq-server is a shell wrapper around it)
vm_pid() {
  local d=$dir/node$1
  if [ -s "$d/rabbitmq.pid" ]; then cat "$d/rabbitmq.pid"; else cat "$d/server.pid"; fi
}

case $cmd in
start)
  count=${3:-3}
  [ -f "$dir/count" ] && count=$(cat "$dir/count")
  echo "$count" >"$dir/count"
  if [ ! -f "$dir/cookie" ]; then
    head -c 20 /dev/urandom | od -An -tx1 | tr -d ' \n' >"$dir/cookie"
    echo $(($(free_port))) >"$dir/epmd_port"
  fi
  for n in $(seq "$count"); do make_node "$n" "$count"; done
  for n in $(seq "$count"); do start_node "$n"; done
  # every node running in one cluster
  deadline=$((SECONDS + 120))
  while ((SECONDS < deadline)); do
    running=$(ctl 1 cluster_status --formatter json 2>/dev/null |
      python3 -c 'import json,sys; print(len(json.load(sys.stdin)["running_nodes"]))' 2>/dev/null || echo 0)
    [ "$running" = "$count" ] && break
    sleep 1
  done
  if [ "$running" != "$count" ]; then
    echo "the cluster has $running running nodes of $count (see $dir/node*/log)" >&2
    exit 1
  fi
  # A clean MQTT session's subscription queue is a durable classic queue on
  # the node the client first used (3.10); while that node is down, every
  # other node refuses the client's SUBSCRIBE ("home node ... is down").
  # Mirrored on every node, it is taken over by a mirror instead.
  ctl 1 set_policy --apply-to queues mqtt-sessions '^mqtt-subscription-' \
    '{"ha-mode":"all","ha-sync-mode":"automatic"}' >/dev/null
  ;;
stop)
  [ -f "$dir/count" ] || exit 0
  for n in $(seq "$(cat "$dir/count")"); do
    d=$dir/node$n
    [ -f "$d/server.pid" ] || continue
    ctl "$n" stop >/dev/null 2>&1 || kill "$(cat "$d/server.pid")" 2>/dev/null || true
    pid=$(cat "$d/server.pid")
    for _ in $(seq 600); do kill -0 "$pid" 2>/dev/null || break; sleep 0.1; done
    rm -f "$d/server.pid" "$d/rabbitmq.pid"
  done
  ERL_EPMD_PORT=$(cat "$dir/epmd_port") epmd -port "$(cat "$dir/epmd_port")" -kill >/dev/null 2>&1 || true
  ;;
kill)
  n=${3:?node number}
  pid=$(vm_pid "$n")
  kill -9 "$pid" 2>/dev/null || true
  for _ in $(seq 100); do kill -0 "$pid" 2>/dev/null || break; sleep 0.1; done
  kill -9 "$(cat "$dir/node$n/server.pid")" 2>/dev/null || true
  ;;
restart)
  n=${3:?node number}
  rm -f "$dir/node$n/rabbitmq.pid"
  start_node "$n"
  ;;
ctl)
  n=${3:?node number}
  shift 3
  ctl "$n" "$@"
  ;;
port) cat "$dir/node${3:?node number}/mqtt_port" ;;
brokers)
  for n in $(seq "$(cat "$dir/count")"); do printf '127.0.0.1:%s ' "$(cat "$dir/node$n/mqtt_port")"; done
  echo
  ;;
pid) vm_pid "${3:?node number}" ;;
*) usage ;;
esac
