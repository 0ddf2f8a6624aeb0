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
  libssl-dev openssl  # TLS: the LAN channel (TLS 1.3, external PSK) and the check of the description's TLS files; openssl for s_client checks
  python3 python3-paho-mqtt
  clang libclang-rt-14-dev
  prometheus  # promtool checks the metrics file the gateway writes
  libboost-dev  # Beast: the web console's HTTP and WebSocket server (sfcloud serve)
  chromium      # the web console's browser tests (driven by playwright-core)
)
# node and npm build and test the web console; a node that brings its own npm is kept
command -v node >/dev/null 2>&1 || packages+=(nodejs)
command -v npm >/dev/null 2>&1 || packages+=(npm)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done

# The web console's node packages, exactly as web/package-lock.json has them,
# only when web/node_modules is missing or older than the lock file.
web_packages() {
  local web
  web=$(cd "$(dirname "$0")/.." && pwd)/web
  [ -f "$web/package-lock.json" ] || return 0
  if [ ! -f "$web/node_modules/.package-lock.json" ] || [ "$web/package-lock.json" -nt "$web/node_modules/.package-lock.json" ]; then
    echo "installing the web console's node packages (npm ci)"
    (cd "$web" && npm ci --no-audit --no-fund --loglevel=error)
  fi
}

if [ ${#missing[@]} -eq 0 ]; then
  web_packages
  exit 0
fi

echo "installing: ${missing[*]}"
SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
# A mirror that is mid-sync can fail one index (often a foreign architecture's);
# the install below still finds what it needs in the rest, and fails loudly if not.
$SUDO apt-get update -qq || echo "apt-get update reported errors; trying the install anyway" >&2
DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
web_packages
