#!/usr/bin/env bash
# Installs the Debian packages the project needs; does nothing when all are
# present, and refreshes the package lists only when something is missing.
set -euo pipefail

packages=(
  cmake g++ make pkg-config
  libcjson-dev
  googletest libgtest-dev libgmock-dev
  libbenchmark-dev valgrind
  libmosquitto-dev mosquitto mosquitto-clients
  libsqlite3-dev sqlite3
  libssl-dev openssl  # the LAN channel's TLS 1.3 (external PSK); openssl for s_client checks
  python3 python3-paho-mqtt
  clang libclang-rt-14-dev
  prometheus  # promtool checks the metrics file the gateway writes
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

echo "installing: ${missing[*]}"
SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
# A mirror that is mid-sync can fail one index (often a foreign architecture's);
# the install below still finds what it needs in the rest, and fails loudly if not.
$SUDO apt-get update -qq || echo "apt-get update reported errors; trying the install anyway" >&2
DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
