#!/usr/bin/env bash
# The .deb files of a build: cpack makes them, each holds what it should,
# and the C gateway builds and runs against the -dev package unpacked into
# a scratch root (dpkg -x: nothing is installed on this machine).
#   check_debs.sh BUILD WORK [extra C flags...]
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
build=$1 work=$2
shift 2
rm -rf "$work"
mkdir -p "$work"
work=$(cd "$work" && pwd)

(cd "$build" && cpack --config CPackConfig.cmake -B "$work/debs" >"$work/cpack.log") || {
  cat "$work/cpack.log" >&2; exit 1; }
dev=$(ls "$work"/debs/libsmart-frame-dev_*.deb)
daemon=$(ls "$work"/debs/sfgw_*.deb 2>/dev/null || true)

# has DEB PATH...: every path is in the package
has() {
  local deb=$1 listing; shift
  listing=$(dpkg-deb -c "$deb" | awk '{print $6}')
  for p in "$@"; do
    grep -qxF -- "$p" <<<"$listing" || { echo "$(basename "$deb") lacks $p" >&2; return 1; }
  done
}
has "$dev" ./usr/include/smart_frame/smart_frame/smart_frame.h ./usr/include/smart_frame/gateway/registry/gw_registry.h
dpkg-deb -c "$dev" | awk '{print $6}' | grep -q '/libsmart_frame\.a$'
dpkg-deb -c "$dev" | awk '{print $6}' | grep -q '/cmake/smart_frame/smart_frameConfigVersion\.cmake$'
dpkg-deb -c "$dev" | awk '{print $6}' | grep -q '/pkgconfig/smart_frame-posix\.pc$'
if dpkg-deb -c "$dev" | awk '{print $6}' | grep -q 'frame_cntl\.h$'; then
  echo "the -dev package ships a private header" >&2; exit 1
fi
if [ -n "$daemon" ]; then
  has "$daemon" ./usr/bin/sfgw ./usr/lib/systemd/system/sfgw.service ./etc/sfgw/gateway.json ./var/lib/sfgw/
  dpkg-deb -I "$daemon" conffiles | grep -qxF /etc/sfgw/gateway.json ||
    { echo "$(basename "$daemon") does not keep /etc/sfgw/gateway.json as a conffile" >&2; exit 1; }
  "$here/check_service.sh" "$daemon" "$work/service"
  echo "sfgw package: $(basename "$daemon")"
fi

dpkg -x "$dev" "$work/root"
echo "-dev package: $(basename "$dev"), unpacked into $work/root"
"$here/check_c_only.sh" "$dev" "$work/root" "$work/c-only" "$@"
"$here/../examples/c-gateway/check_consumer.sh" --prefix "$work/root/usr" "$work/consumer" "$@"
