#!/usr/bin/env bash
# make run: start mosquitto, the gateway daemon with examples/gateway.json and
# the web console (sfcloud serve), leave them running, then say how to open
# the console and drive the gateway with sfcloud.
#   scripts/run.sh          start (MQTT on 1883, LAN on 6668, console on 8080 when free)
#   scripts/run.sh stop     stop what the last start started
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
root=$(dirname "$here")
# shellcheck source=lib/demo_lib.sh
. "$here/lib/demo_lib.sh"
# shellcheck source=lib/console_lib.sh
. "$here/lib/console_lib.sh"
state=$root/build/run

if [ "${1:-}" = "stop" ]; then
  if [ -d "$state" ]; then
    console_stop "$state"
    gateway_stop "$state" || true
    broker_stop "$state"
    echo "stopped the console, the gateway and the broker"
  fi
  exit 0
fi
if [ -f "$state/sfgw.pid" ] && kill -0 "$(cat "$state/sfgw.pid")" 2>/dev/null; then
  echo "already running (scripts/run.sh stop to stop it)"
  exit 1
fi

"$here/install_deps.sh"
echo "building sfgw and sfcloud (Release) ..."
bin=$("$here/build_apps.sh")
echo "building the web console ..."
web_root=$("$here/build_web.sh")
rm -rf "$state"
mkdir -p "$state"
port_or_free() { if (exec 3<>/dev/tcp/127.0.0.1/"$1") 2>/dev/null; then free_port; else echo "$1"; fi; }
mqtt_port=$(port_or_free 1883)
lan_port=$(port_or_free 6668)
http_port=$(port_or_free 8080)
broker_start "$state" "$mqtt_port"
# kept across runs (build/state): the devices come back as they were left
mkdir -p "$root/build/state"
export SFGW_STATE="$root/build/state/sfgw.db"
gateway_start "$state" "$bin/sfgw" "$root/examples/gateway.json" "$mqtt_port" "$lan_port" info
console=$(console_start "$state" "$bin/sfcloud" "$http_port" "$mqtt_port" "$root/examples/gateway.json" "$web_root")

rel=${bin#"$root"/}
cloud="$rel/sfcloud --port $mqtt_port"
cat <<EOT

Web console: open $console in a browser (docs/web-console.md): the
devices' values change live; set a DP from its row, query, group, scene.

The broker listens on 127.0.0.1:$mqtt_port, the gateway gw0001 runs with
four simulated sub-devices (log: build/run/sfgw.log, state file
build/state/sfgw.db), its LAN channel on 127.0.0.1:$lan_port. From the top
of the clone:

  $cloud watch --table                 # live table of values and presence
  $cloud set plug01 switch=on          # a command; the plug reports back
  $cloud set thermo01 temp_set=19.5    # the room temperature drifts towards it
  $cloud query bulb01
  $cloud group add 5 plug01 bulb01
  $cloud scene add 5 01 plug01 bulb01
  $cloud silence sensor01              # offline about a minute later
  $cloud wake sensor01
  $rel/sfcloud --lan 127.0.0.1:$lan_port set bulb01 work_mode=colour

  scripts/run.sh stop                  # stop the console, the gateway and the broker
EOT
