# shellcheck shell=bash
# The web console's server (sfcloud serve) for make run: started in the
# background beside the broker and the gateway. Source it after demo_lib.sh.

# console_start DIR SFCLOUD HTTP_PORT MQTT_PORT DESCRIPTION WEB_ROOT: pid in
# DIR/serve.pid, log in DIR/serve.log; prints the console's address once it listens.
console_start() {
  local dir=$1 sfcloud=$2 http_port=$3 mqtt_port=$4 description=$5 web_root=$6 deadline
  "$sfcloud" serve --http "127.0.0.1:$http_port" --port "$mqtt_port" --description "$description" \
    --web-root "$web_root" >"$dir/serve.out" 2>>"$dir/serve.log" &
  echo $! >"$dir/serve.pid"
  deadline=$((SECONDS + 15))
  while ((SECONDS < deadline)); do
    if grep -q "^web console on " "$dir/serve.out" 2>/dev/null; then
      sed -n 's/^web console on \([^ ]*\) .*/\1/p' "$dir/serve.out"
      return 0
    fi
    if ! kill -0 "$(cat "$dir/serve.pid")" 2>/dev/null; then break; fi
    sleep 0.1
  done
  echo "sfcloud serve did not start (see $dir/serve.log)" >&2
  cat "$dir/serve.log" >&2
  return 1
}

# console_stop DIR: SIGTERM and wait for it.
console_stop() { pid_stop "$1/serve.pid"; }
