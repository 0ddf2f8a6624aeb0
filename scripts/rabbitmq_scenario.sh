#!/usr/bin/env bash
# make test-brokers: the demo scenario end to end (outage included) against
# a private RabbitMQ node with its MQTT plugin instead of mosquitto. The
# node's data, logs, configuration and Erlang cookie are in
# build/brokers/rabbitmq, made anew on each run.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
root=$(dirname "$here")
"$here/install_deps.sh"
"$here/install_rabbitmq.sh"
echo "building sfgw and sfcloud (Release) ..."
bin=$("$here/build_apps.sh")
dir=$root/build/brokers/rabbitmq
rm -rf "$dir"
mkdir -p "$dir"
# RabbitMQ's MQTT plugin speaks 3.1.1 only: the gateway is told so rather
# than left to find out from the broker's answer.
SF_BROKER_CTL="$here/rabbitmq_broker.sh" SF_BROKER_DIR="$dir" SF_BROKER_NAME=RabbitMQ \
  SF_GATEWAY_OPTIONS="--mqtt-protocol 311" "$here/demo_scenario.sh" "$bin" "$@"

# Commands are never lost on RabbitMQ either: the gateway stopped (SIGTERM),
# 100 commands published, the gateway started: all 100 applied, in order
# (the first scenario of tests/cloud/durable_test.py, on a node of its own).
echo
echo "== RabbitMQ: 100 commands published while the gateway is stopped"
durable=$root/build/brokers/rabbitmq-durable
rm -rf "$durable"
mkdir -p "$durable"
port=$(/usr/bin/python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')
"$here/rabbitmq_broker.sh" start "$durable" "$port"
trap '"$here/rabbitmq_broker.sh" stop "$durable"' EXIT
SF_DURABLE_BROKER_PORT=$port SF_DURABLE_ONLY=sigterm /usr/bin/python3 "$root/tests/cloud/durable_test.py" \
  "$bin/sfgw" "$root/tests/cloud/durable_gateway.json" 311
