#!/usr/bin/env bash
# The service the sfgw package installs, checked from the .deb alone:
#   - a system user of its own (sysusers.d) and the unit runs as it;
#   - the state folder is its only writable place (ProtectSystem=strict);
#   - SIGHUP reloads (ExecReload), Documentation= names files it ships;
#   - systemd-analyze security --offline=yes scores the unit under 4
#     (skipped with a message where systemd-analyze is missing);
#   - the postinst, run into a scratch root (DPKG_ROOT), replaces the
#     example's well-known LAN key with 32 random hex digits, mode 0640,
#     keeps it on an upgrade, and another install gets another key.
#   check_service.sh SFGW.deb WORK
set -euo pipefail
deb=$1 work=$2
rm -rf "$work"
mkdir -p "$work"
fail() { echo "sfgw package: $*" >&2; exit 1; }

root=$work/root
dpkg -x "$deb" "$root"
dpkg-deb -e "$deb" "$work/control"
unit=$root/usr/lib/systemd/system/sfgw.service
[ -f "$unit" ] || fail "no systemd unit"
[ -f "$root/usr/lib/sysusers.d/sfgw.conf" ] || fail "no sysusers.d/sfgw.conf"
grep -qE '^u sfgw ' "$root/usr/lib/sysusers.d/sfgw.conf" || fail "sysusers.d/sfgw.conf makes no user sfgw"
grep -qxF 'User=sfgw' "$unit" || fail "the unit does not run as sfgw"
grep -qxF 'ProtectSystem=strict' "$unit" || fail "the unit may write outside its state folder"
grep -qxF 'StateDirectory=sfgw' "$unit" || fail "the unit has no state folder"
grep -qxF 'ExecReload=/bin/kill -HUP $MAINPID' "$unit" || fail "no ExecReload sending SIGHUP"
docs=$(sed -n 's/^Documentation=//p' "$unit")
[ -n "$docs" ] || fail "no Documentation="
for doc in $docs; do
  [ -f "$root${doc#file://}" ] || fail "Documentation= names $doc, which the package does not ship"
done

if command -v systemd-analyze >/dev/null; then
  # the unit as installed: systemd-analyze reads it by its own name
  score=$(systemd-analyze security --offline=yes "$unit" 2>/dev/null | sed -n 's/.*Overall exposure level for sfgw.service: \([0-9.]*\).*/\1/p')
  [ -n "$score" ] || fail "systemd-analyze gave no score"
  awk -v s="$score" 'BEGIN { exit !(s < 4) }' || fail "systemd-analyze security scores the unit $score (4 or more)"
  echo "sfgw.service: systemd-analyze security exposure $score"
else
  echo "systemd-analyze missing: the unit's exposure score is not checked"
fi

postinst=$work/control/postinst
[ -x "$postinst" ] || fail "no executable postinst"
description=$root/etc/sfgw/gateway.json
well_known=0123456789abcdef
grep -q "\"local_key\": \"$well_known\"" "$description" || fail "the shipped description lacks the example key"
mkdir -p "$root/etc"
touch "$root/etc/passwd" "$root/etc/group"
DPKG_ROOT=$root "$postinst" configure
key=$(sed -n 's/.*"local_key": "\([^"]*\)".*/\1/p' "$description")
[[ "$key" =~ ^[0-9a-f]{32}$ ]] || fail "the installed LAN key is '$key', not 32 hex digits"
[ "$(stat -c %a "$description")" = 640 ] || fail "the description with the key is mode $(stat -c %a "$description"), not 640"
if command -v systemd-sysusers >/dev/null; then
  grep -q '^sfgw:' "$root/etc/passwd" || fail "the postinst made no user sfgw"
  [ "$(stat -c %g "$description")" = "$(awk -F: '$1 == "sfgw" { print $3 }' "$root/etc/group")" ] ||
    fail "the description is not in the group sfgw"
fi
DPKG_ROOT=$root "$postinst" configure 0.1.0
[ "$(sed -n 's/.*"local_key": "\([^"]*\)".*/\1/p' "$description")" = "$key" ] || fail "an upgrade replaced the LAN key"
other=$work/other
dpkg -x "$deb" "$other"
mkdir -p "$other/etc"
touch "$other/etc/passwd" "$other/etc/group"
DPKG_ROOT=$other "$postinst" configure
[ "$(sed -n 's/.*"local_key": "\([^"]*\)".*/\1/p' "$other/etc/sfgw/gateway.json")" != "$key" ] ||
  fail "two installs got the same LAN key"
echo "sfgw service: own user, read-only system, SIGHUP reload, LAN key generated once per install"
