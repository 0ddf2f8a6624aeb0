#!/usr/bin/env bash
# expect_exit.sh CODE TEXT COMMAND [ARGS...]
# Passes when COMMAND exits with CODE and its output (stdout and stderr)
# contains TEXT, byte for byte. @FREE_PORT@ in an argument becomes a free
# loopback port where nothing listens.
set -uo pipefail
want_code=$1 want_text=$2
shift 2
# shellcheck source=../../scripts/lib/demo_lib.sh
. "$(dirname "$0")/../../scripts/lib/demo_lib.sh"
port=$(free_port)
args=()
for a in "$@"; do args+=("${a//@FREE_PORT@/$port}"); done
out=$("${args[@]}" 2>&1)
code=$?
printf '%s\n' "$out"
if [ "$code" -ne "$want_code" ]; then
  echo "FAIL: exit status $code, expected $want_code" >&2
  exit 1
fi
if ! printf '%s\n' "$out" | grep -qF -- "$want_text"; then
  echo "FAIL: the output does not contain: $want_text" >&2
  exit 1
fi
