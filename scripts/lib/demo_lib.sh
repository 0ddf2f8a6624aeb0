# Helpers of the demo, the run script and the end-to-end test: a private
# mosquitto on a free loopback port, the gateway daemon, step headings.
# Source it; every function reports on stderr and returns non-zero on failure.

# A TCP port taken at random that no socket of this host uses, listening
# or connected (bash and /proc only: a fresh machine may lack python).
# Below Linux's ephemeral range (32768 up), so that a port the kernel hands
# to another program at the same time never collides with it.
free_port() {
  local port hex
  for _ in $(seq 200); do
    port=$((20000 + RANDOM % 12000))
    hex=$(printf ':%04X ' "$port")
    if ! cat /proc/net/tcp /proc/net/tcp6 2>/dev/null | grep -q "$hex"; then
      echo "$port"
      return 0
    fi
  done
  echo "no free port found" >&2
  return 1
}

# Wait up to $2 seconds for something to accept connections on 127.0.0.1:$1.
wait_port() {
  local port=$1 deadline=$((SECONDS + ${2:-10}))
  while ((SECONDS < deadline)); do
    if (exec 3<>/dev/tcp/127.0.0.1/"$port") 2>/dev/null; then return 0; fi
    sleep 0.1
  done
  return 1
}

# broker_start DIR PORT: mosquitto with persistence in DIR (sessions survive
# a graceful restart), pid in DIR/broker.pid, log in DIR/broker.log.
broker_start() {
  local dir=$1 port=$2 bin
  bin=$(command -v mosquitto || echo /usr/sbin/mosquitto)
  if [ ! -f "$dir/mosquitto.conf" ]; then
    {
      echo "listener $port 127.0.0.1"
      echo "allow_anonymous true"
      echo "persistence true"
      echo "persistence_location $dir/"
      echo "log_dest file $dir/broker.log"
      # as root mosquitto would switch to its own user, who cannot write here
      if [ "$(id -u)" -eq 0 ]; then echo "user root"; fi
    } >"$dir/mosquitto.conf"
  fi
  # What mosquitto keeps for an absent client (the gateway's commands, the
  # console's uplinks) is bounded by max_queued_messages, 1000 by default;
  # beyond it the broker drops (docs/brokers.md). 10000 holds the largest
  # burst of the demo and the tests. A configuration of an older run gets it too.
  if ! grep -q '^max_queued_messages' "$dir/mosquitto.conf"; then
    echo "max_queued_messages 10000" >>"$dir/mosquitto.conf"
  fi
  "$bin" -c "$dir/mosquitto.conf" >>"$dir/broker.out" 2>&1 &
  echo $! >"$dir/broker.pid"
  if ! wait_port "$port" 10; then
    echo "mosquitto did not open port $port (see $dir/broker.log)" >&2
    return 1
  fi
}

# pid_stop FILE: SIGTERM to the process whose id FILE holds, wait up to 10 s
# for it to end, remove FILE.
pid_stop() {
  local file=$1 pid
  pid=$(cat "$file" 2>/dev/null) || return 0
  kill -TERM "$pid" 2>/dev/null || true
  for _ in $(seq 100); do kill -0 "$pid" 2>/dev/null || break; sleep 0.1; done
  rm -f "$file"
}

# broker_stop DIR: SIGTERM (mosquitto saves its sessions) and wait for it.
broker_stop() { pid_stop "$1/broker.pid"; }

# gateway_start DIR SFGW DESCRIPTION MQTT_PORT LAN_PORT [LEVEL [OPTION...]]: the
# daemon in the background, stdout in DIR/sfgw.out, log in DIR/sfgw.log
# (appended: a restart keeps the story); waits until it is up. Its state
# file is $SFGW_STATE, else DIR/state.db.
gateway_start() {
  local dir=$1 sfgw=$2 description=$3 mqtt_port=$4 lan_port=$5 level=${6:-info}
  "$sfgw" "$description" --mqtt-port "$mqtt_port" --lan-port "$lan_port" --log-level "$level" \
    --state "${SFGW_STATE:-$dir/state.db}" "${@:7}" >"$dir/sfgw.out" 2>>"$dir/sfgw.log" &
  echo $! >"$dir/sfgw.pid"
  local deadline=$((SECONDS + 30))
  while ((SECONDS < deadline)); do
    if grep -q " is up " "$dir/sfgw.out" 2>/dev/null; then return 0; fi
    if ! kill -0 "$(cat "$dir/sfgw.pid")" 2>/dev/null; then
      echo "sfgw stopped at start:" >&2
      cat "$dir/sfgw.log" >&2
      return 1
    fi
    sleep 0.1
  done
  echo "sfgw did not come up within 30 s (see $dir/sfgw.log)" >&2
  return 1
}

# state_holds FILE SQL VALUE [SECONDS]: wait up to SECONDS (10) until the
# gateway's state file answers SQL with VALUE (the writer writes every 200 ms).
state_holds() {
  local file=$1 sql=$2 want=$3 deadline=$((SECONDS + ${4:-10}))
  while ((SECONDS < deadline)); do
    if [ "$(sqlite3 -batch "$file" "$sql" 2>/dev/null)" = "$want" ]; then return 0; fi
    sleep 0.2
  done
  return 1
}

# gateway_kill DIR: SIGKILL, as a crash or a watchdog would; waits until it is gone.
gateway_kill() {
  local dir=$1 pid
  pid=$(cat "$dir/sfgw.pid" 2>/dev/null) || return 0
  kill -KILL "$pid" 2>/dev/null || true
  wait "$pid" 2>/dev/null || true
  rm -f "$dir/sfgw.pid"
}

# gateway_stop DIR: SIGTERM; returns the daemon's exit status (0 after a clean shutdown).
gateway_stop() {
  local dir=$1 pid status=0
  pid=$(cat "$dir/sfgw.pid" 2>/dev/null) || return 0
  kill -TERM "$pid" 2>/dev/null || true
  wait "$pid" 2>/dev/null || status=$?
  rm -f "$dir/sfgw.pid"
  return $status
}

# metric_wait FILE NAME TEST VALUE SECONDS: wait until the sample NAME in the
# Prometheus file passes [ sample TEST VALUE ] (e.g. -gt 0); prints it.
metric_wait() {
  local file=$1 name=$2 test=$3 value=$4 deadline=$((SECONDS + $5)) now
  while ((SECONDS < deadline)); do
    now=$(sed -n "s/^$name{[^}]*} \([0-9]*\)$/\1/p" "$file" 2>/dev/null | head -n 1)
    if [ -n "$now" ] && [ "$now" "$test" "$value" ]; then echo "$name = $now"; return 0; fi
    sleep 0.2
  done
  echo "$name = ${now:-?}, expected $test $value" >&2
  return 1
}

# poll_until SECONDS COMMAND...: true once COMMAND succeeds (tried every 0.1 s),
# else the result of one last try when the time is up.
poll_until() {
  local deadline=$((SECONDS + $1))
  shift
  while ((SECONDS < deadline)); do
    if "$@"; then return 0; fi
    sleep 0.1
  done
  "$@"
}
