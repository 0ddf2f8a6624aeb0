# shellcheck shell=bash
# The environment of one private RabbitMQ node, shared by the single broker
# (scripts/rabbitmq_broker.sh) and the cluster (scripts/rabbitmq_cluster.sh).
# rabbitmq_node_env NODE_DIR NODENAME EPMD_PORT_FILE: NODE_DIR holds the
# node's amqp_port and dist_port files and gets its home, data and logs.

# Debian's rabbitmq-server puts its programs here, not on the PATH.
rmq=/usr/lib/rabbitmq/bin
rabbitmq_node_env() {
  local d=$1
  export HOME=$d/home
  export RABBITMQ_NODENAME=$2
  export RABBITMQ_NODE_IP_ADDRESS=127.0.0.1
  export RABBITMQ_NODE_PORT=$(cat "$d/amqp_port")
  export RABBITMQ_DIST_PORT=$(cat "$d/dist_port")
  export ERL_EPMD_PORT=$(cat "$3")
  export ERL_EPMD_ADDRESS=127.0.0.1
  export RABBITMQ_MNESIA_BASE=$d/mnesia
  export RABBITMQ_LOG_BASE=$d/log
  export RABBITMQ_CONFIG_FILE=$d/rabbitmq.conf
  export RABBITMQ_ENABLED_PLUGINS_FILE=$d/enabled_plugins
  export RABBITMQ_PID_FILE=$d/rabbitmq.pid
}
