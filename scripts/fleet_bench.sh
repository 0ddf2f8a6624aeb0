#!/usr/bin/env bash
# make bench-fleet: FLEET gateways (sfgw, default 100; each its own id,
# state file and 10 simulated sub-devices whose temperature drifts) on a
# 3-node RabbitMQ cluster (scripts/rabbitmq_cluster.sh), one console
# (a persistent session on node 3) receiving every gateway's uplink.
# Gateway i is given the nodes starting at node 1 + i mod 3, so the fleet
# spreads over the cluster. Measured:
#   - connect time of the whole fleet (start of the first process to the
#     last gateway connected);
#   - fleet-wide confirmed reports per second, over MEASURE_S seconds;
#   - kill -9 node 1: for each gateway that was on it, the time from the
#     kill to its session on another node (p50, p99, max), read from its log;
#   - values lost: publications the gateways counted as confirmed that the
#     console did not receive (goal 0); values pending at the end;
#   - memory: the broker nodes' resident memory per connected gateway, and
#     the gateways' own resident memory.
# The table is printed and written to build/fleet/table.md; FLEET_DOC=1
# also puts it into docs/benchmarks.md (section "Fleet on a RabbitMQ cluster").
# SF_FLEET_ASSERT=1 fails when a value was lost or a gateway did not come back.
# SF_BIN_DIR=DIR runs the sfgw and sfcloud found there instead of building
# the Release ones (make test runs its small fleet on the sanitizer build).
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
root=$(dirname "$here")
# shellcheck source=lib/demo_lib.sh
. "$here/lib/demo_lib.sh"
fleet=${FLEET:-100}
devices=${FLEET_DEVICES:-10}
measure_s=${MEASURE_S:-20}
dir=${FLEET_DIR:-$root/build/fleet}
cluster="$here/rabbitmq_cluster.sh"

"$here/install_deps.sh" >/dev/null
"$here/install_rabbitmq.sh"
bin=${SF_BIN_DIR:-$("$here/build_apps.sh")}
"$cluster" stop "$dir/rmq" >/dev/null 2>&1 || true
rm -rf "$dir"
mkdir -p "$dir/gw"
pids=()
cleanup() {
  local status=$?
  for p in "${pids[@]}"; do kill "$p" 2>/dev/null || true; done
  for p in "${pids[@]}"; do wait "$p" 2>/dev/null || true; done
  "$cluster" stop "$dir/rmq" >/dev/null 2>&1 || true
  if [ $status -ne 0 ]; then echo "bench-fleet FAILED (logs in $dir)" >&2; fi
}
trap cleanup EXIT
now_ms() { date +%s%3N; }
rss_kb() { awk '/^VmRSS/ { print $2 }' "/proc/$1/status" 2>/dev/null || echo 0; }
nodes_rss_kb() {
  local total=0 n
  for n in 1 2 3; do total=$((total + $(rss_kb "$("$cluster" pid "$dir/rmq" "$n")"))); done
  echo "$total"
}

echo "== the cluster"
"$cluster" start "$dir/rmq" 3
read -r -a brokers <<<"$("$cluster" brokers "$dir/rmq")"
echo "nodes: ${brokers[*]}"

echo "== $fleet gateway descriptions with $devices sub-devices each"
python3 - "$dir/gw" "$fleet" "$devices" <<'PY'
import json, sys
out, fleet, devices = sys.argv[1], int(sys.argv[2]), int(sys.argv[3])
for i in range(1, fleet + 1):
    gw = f"fl{i:04d}"
    doc = {
        "connection": {"mqtt": {"reconnect_min_s": 1, "reconnect_max_s": 4}},
        "gateway": {"id": gw, "dps": [{"id": 1, "name": "alarm", "prop": "bool"}]},
        "devices": [{
            "id": f"{gw}s{d:02d}",
            "dps": [{"id": 1, "name": "temp", "mode": "ro", "prop": "value", "min": 0, "max": 1000,
                     "trigger": "always"},
                    {"id": 2, "name": "level", "prop": "value", "min": 0, "max": 1000}],
            "sim": {"kind": "sensor", "heartbeat_s": 0, "initial": {"temp": 100 + d, "level": 0},
                    "drift": {"dp": "temp", "step": 1, "every_s": 2}},
        } for d in range(1, devices + 1)],
    }
    json.dump(doc, open(f"{out}/{gw}.json", "w"))
PY

echo "== the console: a persistent session on node 3 for every gateway's uplink"
before_kb=$(nodes_rss_kb)
mosquitto_sub -V mqttv311 -h 127.0.0.1 -p "${brokers[2]#*:}" -i fleet-console -c -q 1 -t 'sf/+/up' -v \
  >"$dir/console.txt" 2>"$dir/console.err" &
pids+=($!)
sleep 2

echo "== $fleet gateways"
t0=$(now_ms)
for i in $(seq "$fleet"); do
  gw=$(printf 'fl%04d' "$i")
  first=$((i % 3))
  args=()
  for k in 0 1 2; do args+=(--mqtt-broker "${brokers[$(((first + k) % 3))]}"); done
  "$bin/sfgw" "$dir/gw/$gw.json" "${args[@]}" --mqtt-protocol 311 --no-lan --state "$dir/gw/$gw.db" \
    --log-level notice --metrics-file "$dir/gw/$gw.prom" --metrics-interval 1 --metrics-mqtt 0 \
    >"$dir/gw/$gw.out" 2>"$dir/gw/$gw.log" &
  pids+=($!)
  echo "$!" >"$dir/gw/$gw.pid"
done
connected() { grep -l '^sf_mqtt_connected{.*} 1$' "$dir"/gw/*.prom 2>/dev/null | wc -l; }
deadline=$((SECONDS + 600))
while [ "$(connected)" -lt "$fleet" ]; do
  ((SECONDS < deadline)) || { echo "only $(connected) of $fleet gateways connected" >&2; exit 1; }
  sleep 0.5
done
# the first session of each gateway, from its log: when the last one came up
last_up=$(for f in "$dir"/gw/*.log; do grep -m1 "MQTT session with" "$f" | cut -d' ' -f1; done | sort | tail -n 1)
connect_ms=$(($(date -d "$last_up" +%s%3N) - t0))
echo "fleet connected: $connect_ms ms"
sleep 3
after_kb=$(nodes_rss_kb)

confirmed_sum() {
  cat "$dir"/gw/*.prom | sed -n 's/^sf_mqtt_publications_completed_total{.*result="confirmed"} \([0-9]*\)$/\1/p' |
    awk '{ s += $1 } END { print s + 0 }'
}
echo "== confirmed reports per second over $measure_s s"
c0=$(confirmed_sum)
sleep "$measure_s"
c1=$(confirmed_sum)
rate=$(((c1 - c0) / measure_s))
echo "fleet-wide confirmed reports: $rate per second"

echo "== kill -9 node 1"
on1=()
for f in "$dir"/gw/*.prom; do
  grep -q "broker=\"${brokers[0]}\"" "$f" && on1+=("$(basename "$f" .prom)")
done
tk=$(now_ms)
"$cluster" kill "$dir/rmq" 1
echo "${#on1[@]} gateways were on node 1"
deadline=$((SECONDS + 300))
back() {
  local n=0 g
  for g in "${on1[@]}"; do grep -q "MQTT broker changed from ${brokers[0]}" "$dir/gw/$g.log" && n=$((n + 1)); done
  echo "$n"
}
while [ "$(back)" -lt "${#on1[@]}" ]; do
  ((SECONDS < deadline)) || break
  sleep 0.5
done
moved=$(back)
for g in "${on1[@]}"; do
  line=$(grep -m1 "MQTT broker changed from ${brokers[0]}" "$dir/gw/$g.log" || true)
  [ -n "$line" ] && echo $(($(date -d "$(echo "$line" | cut -d' ' -f1)" +%s%3N) - tk))
done | sort -n >"$dir/moves.ms"
echo "$moved of ${#on1[@]} back on another node"
sleep 5

echo "== stop: is the last value of every DP the cluster confirmed at the console?"
gw_rss_kb=$(for p in "$dir"/gw/*.pid; do rss_kb "$(cat "$p")"; done | sort -n | awk '{ a[NR] = $1 } END { print a[int((NR + 1) / 2)] }')
confirmed=$(confirmed_sum)
# a clean stop writes every gateway's last values and publish states (docs/state.md)
for p in "$dir"/gw/*.pid; do kill -TERM "$(cat "$p")" 2>/dev/null || true; done
for p in "$dir"/gw/*.pid; do while kill -0 "$(cat "$p")" 2>/dev/null; do sleep 0.1; done; done
sleep 3
received=$(wc -l <"$dir/console.txt")
read -r lost pending < <(python3 - "$dir" "$fleet" <<'PY'
import json, sqlite3, sys
d, fleet = sys.argv[1], int(sys.argv[2])
last = {}
for line in open(d + "/console.txt"):
    topic, _, doc = line.partition(" ")
    try:
        m = json.loads(doc)
    except ValueError:
        continue
    data = m.get("data", {})
    if m.get("pro") == 4 and "1" in data.get("dps", {}):
        last[data["cid"]] = data["dps"]["1"]
lost = pending = 0
for i in range(1, fleet + 1):
    gw = f"fl{i:04d}"
    db = sqlite3.connect(f"{d}/gw/{gw}.db")
    for dev, num, pv in db.execute("SELECT dev, num, pv_stat FROM dp_state WHERE dp = 1 AND dev != ?", (gw,)):
        if pv != 3:
            pending += 1
        elif last.get(dev) != num:
            lost += 1
print(lost, pending)
PY
)

pct() { awk -v p="$1" '{ a[NR] = $1 } END { if (NR == 0) { print "-"; exit } i = int(NR * p / 100 + 0.999); if (i < 1) i = 1; print a[i] }' "$dir/moves.ms"; }
per_gw_kb=$(((after_kb - before_kb) / fleet))
table="| Measure | Value |
|---|---|
| gateways × sub-devices | $fleet × $devices (one DP drifting every 2 s each) |
| connect time of the whole fleet | $connect_ms ms |
| fleet-wide confirmed reports | $rate per second |
| gateways on the killed node | ${#on1[@]}; back on another node: $moved |
| kill to session on another node, p50 / p99 / max | $(pct 50) / $(pct 99) / $(pct 100) ms |
| reports confirmed by the cluster / received by the console | $confirmed / $received |
| DPs whose last confirmed value the console did not receive (lost) | $lost of $((fleet * devices)) |
| DPs not confirmed at the clean stop (re-sent at the next start) | $pending |
| broker nodes' resident memory per connected gateway | $((per_gw_kb)) KiB ($((before_kb / 1024)) MiB before the fleet, $((after_kb / 1024)) MiB with it, 3 nodes) |
| gateway resident memory (median) | $((gw_rss_kb)) KiB |
| machine | $(nproc) cores, $(awk '/MemTotal/ { printf "%d GiB", $2 / 1048576 + 0.5 }' /proc/meminfo), $(uname -sr); RabbitMQ $(dpkg-query -W -f='${Version}' rabbitmq-server 2>/dev/null) |"
echo "$table" | tee "$dir/table.md"
if [ "${FLEET_DOC:-0}" = 1 ]; then
  python3 - "$root/docs/benchmarks.md" "$dir/table.md" "$fleet" <<'PY'
import re, sys
doc, table, fleet = sys.argv[1], open(sys.argv[2]).read(), sys.argv[3]
text = open(doc).read()
head = "## Fleet on a RabbitMQ cluster"
section = (f"{head}\n\n`make bench-fleet` (FLEET={fleet}): gateways (`sfgw`, Release) on a 3-node RabbitMQ 3.10 "
           "cluster on loopback, one console receiving every uplink, node 1 killed with `kill -9` "
           "(scripts/fleet_bench.sh says how each figure is taken).\n\n" + table + "\n"
           "The report rate is the load the simulators offer (every sub-device's temperature moves every 2 s), "
           "all of it confirmed: it is not the cluster's limit. The console receives more reports than the "
           "gateways counted as confirmed: values re-sent after the move arrive twice (receivers de-duplicate "
           "by serno). Memory per gateway is the growth of the three nodes' resident memory with the fleet "
           "connected, divided by the fleet. Commands during the move are not measured here: `make test-cluster` "
           "counts them (docs/brokers.md). The machine was "
           "shared with other jobs while this ran.\n")
if head in text:
    text = re.sub(re.escape(head) + r"\n.*?(?=\n## |\Z)", section.rstrip("\n") + "\n", text, flags=re.S)
else:
    text = text.rstrip("\n") + "\n\n" + section
open(doc, "w").write(text)
PY
fi
if [ "${SF_FLEET_ASSERT:-0}" = 1 ]; then
  [ "$lost" = 0 ] || { echo "FAIL: $lost values lost" >&2; exit 1; }
  [ "$moved" = "${#on1[@]}" ] || { echo "FAIL: $((${#on1[@]} - moved)) gateways did not come back" >&2; exit 1; }
fi
