#!/usr/bin/env bash
# A private RabbitMQ node with its MQTT plugin, for the demo scenario
# against a second broker (make test-brokers):
#   rabbitmq_broker.sh start DIR MQTT_PORT   start (or restart) the node
#   rabbitmq_broker.sh stop DIR              stop it gracefully (data kept)
# Everything of the node is in DIR: its data (mnesia), logs, configuration,
# Erlang cookie ($HOME) and the other ports it needs (AMQP, distribution,
# the Erlang port mapper), taken free once and kept for restarts, so a
# restart is the same node with the same durable sessions.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
# shellcheck source=lib/demo_lib.sh
. "$here/lib/demo_lib.sh"
# shellcheck source=lib/rabbitmq_env.sh
. "$here/lib/rabbitmq_env.sh"

cmd=${1:-} dir=${2:-}
[ -n "$cmd" ] && [ -n "$dir" ] || { echo "usage: $0 start DIR MQTT_PORT | stop DIR" >&2; exit 2; }
mkdir -p "$dir"
dir=$(cd "$dir" && pwd)

node_env() { rabbitmq_node_env "$dir" sf@localhost "$dir/epmd_port"; }

case $cmd in
start)
  port=${3:?MQTT port}
  if [ ! -f "$dir/rabbitmq.conf" ]; then
    mkdir -p "$dir/home" "$dir/mnesia" "$dir/log"
    for name in amqp_port dist_port epmd_port; do
      p=$(free_port)
      while [ "$p" = "$port" ] || grep -qx "$p" "$dir"/*_port 2>/dev/null; do p=$(free_port); done
      echo "$p" >"$dir/$name"
    done
    # a cookie of this node only
    head -c 20 /dev/urandom | od -An -tx1 | tr -d ' \n' >"$dir/home/.erlang.cookie"
    chmod 400 "$dir/home/.erlang.cookie"
    echo "[rabbitmq_mqtt]." >"$dir/enabled_plugins"
    {
      echo "listeners.tcp.1 = 127.0.0.1:$(cat "$dir/amqp_port")"
      echo "mqtt.listeners.tcp.1 = 127.0.0.1:$port"
      echo "mqtt.allow_anonymous = true"
      echo "loopback_users = none"
      echo "log.file.level = warning"
    } >"$dir/rabbitmq.conf"
  fi
  node_env
  "$rmq/rabbitmq-server" >>"$dir/server.out" 2>&1 &
  echo $! >"$dir/server.pid"
  if ! wait_port "$port" 120; then
    echo "RabbitMQ did not open its MQTT port $port (see $dir/server.out, $dir/log)" >&2
    exit 1
  fi
  ;;
stop)
  [ -f "$dir/server.pid" ] || exit 0
  node_env
  "$rmq/rabbitmqctl" stop >/dev/null 2>&1 || kill "$(cat "$dir/server.pid")" 2>/dev/null || true
  pid=$(cat "$dir/server.pid")
  for _ in $(seq 600); do kill -0 "$pid" 2>/dev/null || break; sleep 0.1; done
  rm -f "$dir/server.pid"
  # the node's own port mapper, asked to end (it outlives the node otherwise)
  epmd -port "$ERL_EPMD_PORT" -kill >/dev/null 2>&1 || true
  ;;
*) echo "usage: $0 start DIR MQTT_PORT | stop DIR" >&2; exit 2 ;;
esac
