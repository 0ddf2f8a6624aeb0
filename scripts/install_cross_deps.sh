#!/usr/bin/env bash
# Installs what `make test-cross` needs: the 32-bit and 64-bit ARM cross
# compilers, cJSON for both targets from Debian's multiarch packages, and
# qemu-user to run the targets' test programs on this machine. Does nothing
# when all are present; refreshes the package lists only when something is
# missing (and after adding a foreign architecture).
set -euo pipefail

SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi

archs=(armhf arm64)
packages=(
  qemu-user
  g++-arm-linux-gnueabihf gcc-arm-linux-gnueabihf binutils-arm-linux-gnueabihf
  g++-aarch64-linux-gnu gcc-aarch64-linux-gnu binutils-aarch64-linux-gnu
  libcjson-dev:armhf libcjson-dev:arm64
)

added=0
foreign=$(dpkg --print-foreign-architectures)
for a in "${archs[@]}"; do
  if ! grep -qx "$a" <<<"$foreign"; then
    $SUDO dpkg --add-architecture "$a"
    added=1
  fi
done

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ] && [ $added -eq 0 ]; then
  exit 0
fi

echo "installing: ${missing[*]}"
# a foreign architecture's index may lag on a mirror: what install needs fails there
$SUDO apt-get update -qq || echo "apt-get update reported errors; trying the install anyway" >&2
if [ ${#missing[@]} -gt 0 ]; then
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
