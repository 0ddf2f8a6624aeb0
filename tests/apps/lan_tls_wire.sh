#!/usr/bin/env bash
# lan_tls_wire.sh SFGW SFCLOUD DESCRIPTION: sfcloud --lan speaks to sfgw
# through a relay that records every byte both ways. A query and a set
# succeed, and the recording holds neither the local key nor a plain JSON
# frame. Then the installer rotates the key and sends SIGHUP: the old key
# is refused, the new one works.
set -uo pipefail
sfgw=$1 sfcloud=$2 description=$3
here=$(dirname "$0")
. "$here/../../scripts/lib/demo_lib.sh"
work=$(mktemp -d /tmp/sf_lan_tls.XXXXXX)
relay_pid=
trap '[ -n "$relay_pid" ] && kill "$relay_pid" 2>/dev/null; gateway_stop "$work" >/dev/null 2>&1; broker_stop "$work"; rm -rf "$work"' EXIT
fail() { echo "FAIL: $*" >&2; cat "$work/sfgw.log" >&2 2>/dev/null; exit 1; }
old_key=0123456789abcdef new_key=fedcba9876543210-rotated
cp "$description" "$work/gw.json"
grep -q "\"local_key\": \"$old_key\"" "$work/gw.json" || fail "the example's local_key is not $old_key"

mqtt_port=$(free_port)
lan_port=$(free_port); while [ "$lan_port" = "$mqtt_port" ]; do lan_port=$(free_port); done
relay_port=$(free_port); while [ "$relay_port" = "$mqtt_port" ] || [ "$relay_port" = "$lan_port" ]; do relay_port=$(free_port); done
broker_start "$work" "$mqtt_port" || fail "no broker"
gateway_start "$work" "$sfgw" "$work/gw.json" "$mqtt_port" "$lan_port" progress --no-state || fail "sfgw did not start"
pid=$(cat "$work/sfgw.pid")
python3 "$here/tcp_recorder.py" "$relay_port" "$lan_port" "$work/wire.bin" >"$work/relay.out" 2>&1 &
relay_pid=$!
wait_port "$relay_port" 10 || fail "the relay did not listen"

cloud() { "$sfcloud" --description "$work/gw.json" --port "$mqtt_port" --timeout 10 "$@"; }
cloud --lan "127.0.0.1:$relay_port" query plug01 switch || fail "query over the LAN failed"
cloud --lan "127.0.0.1:$relay_port" set plug01 switch=on || fail "set over the LAN failed"

[ -s "$work/wire.bin" ] || fail "the relay recorded nothing"
grep -qaF "$old_key" "$work/wire.bin" && fail "the local key crossed the wire"
for frame in '{"cmd"' '{"type"' '"dps"' 'gwId'; do
  grep -qaF "$frame" "$work/wire.bin" && fail "a plain frame crossed the wire: $frame"
done
echo "$(wc -c <"$work/wire.bin") bytes on the wire: no key, no plain frame"

# The plain client of old is refused by the TLS channel.
cloud --lan "127.0.0.1:$lan_port" --lan-plain query plug01 switch && fail "a plain client got in"

# Key rotation: the description gets a new key, SIGHUP, the old key is refused.
sed -i "s/\"local_key\": \"$old_key\"/\"local_key\": \"$new_key\"/" "$work/gw.json"
kill -HUP "$pid"
for _ in $(seq 100); do grep -q "takes a new local key" "$work/sfgw.log" && break; sleep 0.1; done
grep -q "takes a new local key" "$work/sfgw.log" || fail "SIGHUP did not take the new key"
cloud --lan "127.0.0.1:$lan_port" --key "$old_key" query plug01 switch && fail "the old key still works"
cloud --lan "127.0.0.1:$lan_port" query plug01 switch || fail "the new key does not work"
kill -0 "$pid" 2>/dev/null || fail "sfgw is gone"
echo "the LAN wire is private, and a key rotated on SIGHUP replaces the old one"
