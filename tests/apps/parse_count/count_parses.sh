#!/usr/bin/env bash
# count_parses.sh PRELOAD WANT COMMAND [ARGS...]
# Runs COMMAND with the parse counter PRELOAD (cjson_parse_preload.c) and
# passes when it exits 0 having made exactly WANT cJSON parses. A program
# built with AddressSanitizer needs its runtime first in LD_PRELOAD.
set -uo pipefail
preload=$1 want=$2
shift 2
asan=$(ldd "$1" 2>/dev/null | awk '/libasan/ {print $3; exit}')
out=$(LD_PRELOAD="${asan:+$asan:}$preload" "$@" 2>&1)
code=$?
printf '%s\n' "$out"
if [ "$code" -ne 0 ]; then
  echo "FAIL: exit status $code" >&2
  exit 1
fi
if ! printf '%s\n' "$out" | grep -qxF "cJSON parses: $want"; then
  echo "FAIL: expected exactly $want cJSON parses" >&2
  exit 1
fi
