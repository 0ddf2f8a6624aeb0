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
