#!/usr/bin/env bash
# A C-only machine (gcc, no g++) can link a C program against the -dev
# package, as README promises:
#   1. the package depends on the package that holds the libstdc++.so a C
#      compiler links for -lstdc++ (on Debian 12 libstdc++-12-dev), so
#      installing libsmart-frame-dev brings it;
#   2. in a private mount namespace where the C++ compiler is gone (g++ and
#      cc1plus replaced by /bin/false), the C gateway links with cc alone
#      from the unpacked package's pkg-config file;
#   3. with that libstdc++.so hidden as well (what the machine looked like
#      before the dependency), the link fails with "cannot find -lstdc++":
#      the dependency is what makes step 2 work.
# Steps 2 and 3 are skipped, with a message, where no mount namespace can be
# made. A full root without g++ (debootstrap) is not built: it needs the
# network and minutes; the namespace hides the same files.
#   check_c_only.sh DEV.deb ROOT WORK [extra C flags...]
#       ROOT: the -dev package unpacked (dpkg -x); the flags go to cc (the
#       sanitizers of the build whose libraries are packaged)
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
deb=$1 root=$2 work=$3
shift 3
flags="$*"
mkdir -p "$work"
fail() { echo "C-only consumer: $*" >&2; exit 1; }

so=$(cc -print-file-name=libstdc++.so)
[ "${so#/}" != "$so" ] || fail "cc finds no libstdc++.so on this machine"
owner=$(dpkg-query -S "$so" 2>/dev/null | sed -n '1s/^\([^:,]*\).*/\1/p')
[ -n "$owner" ] || fail "no Debian package holds $so"
depends=$(dpkg-deb -f "$deb" Depends)
tr ',' '\n' <<<"$depends" | sed 's/^ *//; s/ .*//' | grep -qxF -- "$owner" || fail "Depends ($depends) lacks $owner, which holds $so"
echo "libsmart-frame-dev depends on $owner ($so)"

if ! unshare -m --propagation private true 2>/dev/null; then
  echo "SKIP: no private mount namespace here: the link without g++ is not tried"
  exit 0
fi
pcdir=$(dirname "$(find "$root" -name smart_frame-posix.pc | head -1)")
src=$here/../examples/c-gateway/main.c
# link_without_cxx OUT [hide-libstdc++]: cc main.c with the C++ compiler hidden
link_without_cxx() {
  local out=$1 hide=${2:-}
  unshare -m --propagation private bash -c '
    set -e
    for tool in $(command -v g++ c++ 2>/dev/null) "$(gcc -print-prog-name=cc1plus)"; do
      [ -e "$tool" ] && mount --bind /bin/false "$(readlink -f "$tool")"
    done
    if command -v g++ >/dev/null && g++ --version >/dev/null 2>&1; then echo "g++ still works" >&2; exit 7; fi
    if [ -n "$3" ]; then
      empty=$(mktemp -d)
      cp -a "$(dirname "$4")/." "$empty/"
      rm -f "$empty"/libstdc++.so "$empty"/libstdc++.a
      mount --bind "$empty" "$(dirname "$4")"
    fi
    PKG_CONFIG_PATH="$1" cc -std=c11 $6 -o "$2" "$5" $(PKG_CONFIG_PATH="$1" pkg-config --cflags --libs smart_frame-posix) $6
  ' sh "$pcdir" "$out" "$hide" "$so" "$src" "$flags"
}
link_without_cxx "$work/c_gateway" >"$work/link.log" 2>&1 || { cat "$work/link.log" >&2; fail "cc could not link the C gateway without g++"; }
[ -x "$work/c_gateway" ] || fail "no program linked"
echo "C gateway linked with cc alone, g++ hidden"
if link_without_cxx "$work/c_gateway_no_dev" hide >"$work/link_no_dev.log" 2>&1; then
  fail "linked even without $so: the check cannot tell the dependency matters"
fi
grep -q "cannot find -lstdc++" "$work/link_no_dev.log" || { cat "$work/link_no_dev.log" >&2; fail "failed for another reason"; }
echo "without $owner's libstdc++.so the link fails (cannot find -lstdc++): the dependency is needed"
