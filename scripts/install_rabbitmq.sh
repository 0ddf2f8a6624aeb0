#!/usr/bin/env bash
# Installs Debian's rabbitmq-server (with its MQTT plugin) for
# `make test-brokers`; does nothing when it is there. The service Debian
# starts on installation is stopped and disabled: the test runs a private
# node of its own (scripts/rabbitmq_broker.sh).
set -euo pipefail
SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
if dpkg-query -W -f='${Status}' rabbitmq-server 2>/dev/null | grep -q 'install ok installed'; then
  exit 0
fi
echo "installing: rabbitmq-server"
$SUDO apt-get update -qq || echo "apt-get update reported errors; trying the install anyway" >&2
# no service start during the install (policy-rc.d answers "not now")
policy=/usr/sbin/policy-rc.d
added_policy=0
if [ ! -e "$policy" ]; then
  printf '#!/bin/sh\nexit 101\n' | $SUDO tee "$policy" >/dev/null
  $SUDO chmod +x "$policy"
  added_policy=1
fi
DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq --no-install-recommends rabbitmq-server || status=$?
if [ $added_policy = 1 ]; then $SUDO rm -f "$policy"; fi
exit "${status:-0}"
