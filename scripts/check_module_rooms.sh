#!/usr/bin/env bash
# The module's rooms call one another one way only. Each object of
# libsmart_frame.a is mapped to its room (root, inbound, report, presence)
# by the folder of its source file, the start-up to a room of its own; a symbol that one object needs and
# another defines is a call (or a use) from the first room into the second.
# The check fails when a room reaches, directly or through a third room, a
# room that reaches it back, and when one of the named rules below is broken.
#
# Usage: check_module_rooms.sh LIB [SOURCE_ROOT]
#   LIB          libsmart_frame.a
#   SOURCE_ROOT  the tree holding smart_frame/ (default: this script's ..)
set -euo pipefail
lib="$1"
root="${2:-$(cd "$(dirname "$0")/.." && pwd)}"
src="$root/smart_frame"

# The start-up binds the handlers of every room, so it stands above them in a
# room of its own; as it reaches every room, no room may reach it back.
startup_sources='frame_init.cpp'

# Room pairs that must never be linked, whatever else holds: "from to why".
forbidden='
report presence the report road must not depend on the timers that drive it
inbound presence commands in must not reach presence and heartbeats
'

status=0
fail() {
  echo "module rooms: $*"
  status=1
}

# ---- each source file's room, by its folder; objects are named <basename>.cpp.o ----
declare -A room_of
while read -r path; do
  base="${path##*/}"
  rel="${path#"$src"/}"
  room="${rel%/*}"
  [ "$room" = "$rel" ] && room=root
  grep -qxF -- "$rel" <<<"$(tr ' ' '\n' <<<"$startup_sources")" && room=startup
  if [ -n "${room_of[$base]:-}" ]; then
    fail "two sources are named $base (${room_of[$base]} and $room): their objects could not be told apart"
  fi
  room_of[$base]="$room"
done < <(find "$src" -name '*.cpp' | sort)
[ "${#room_of[@]}" -gt 0 ] || { echo "module rooms: no sources under $src"; exit 1; }

members=$(ar t "$lib")
[ -n "$members" ] || { echo "module rooms: $lib holds no objects"; exit 1; }
while read -r member; do
  base="${member%.o}"
  if [ -z "${room_of[$base]:-}" ]; then
    fail "object $member has no source named $base under smart_frame/"
  fi
done <<<"$members"
[ "$status" -eq 0 ] || exit "$status"

# ---- symbols: strong definitions give their room; weak ones (inline, templates) belong to no room ----
map=$(for base in "${!room_of[@]}"; do echo "$base.o ${room_of[$base]}"; done)
edges=$(nm -A -g "$lib" | awk -v map="$map" '
  BEGIN {
    n = split(map, lines, "\n")
    for (i = 1; i <= n; i++) { split(lines[i], f, " "); room[f[1]] = f[2] }
  }
  {
    # "lib.a:member.o:ADDR T sym" or "lib.a:member.o:  U sym"
    head = $1; sub(/:[0-9a-fA-F]*$/, "", head); sub(/^.*:/, "", head)
    type = $(NF - 1); sym = $NF
    if (type == "U") { need[head, sym] = 1; needers[sym] = needers[sym] " " head }
    else if (type ~ /^[TDBRC]$/) { owner[sym] = head }
  }
  END {
    for (sym in needers) {
      if (!(sym in owner)) continue
      to = room[owner[sym]]
      m = split(needers[sym], who, " ")
      for (i = 1; i <= m; i++) {
        from = room[who[i]]
        if (from != to) print from, to, who[i], sym, owner[sym]
      }
    }
  }' | sort -u)

# ---- room graph: direct edges, then every room each room reaches ----
declare -A reach
rooms=$(printf '%s\n' "${room_of[@]}" | sort -u)
while read -r from to _; do
  [ -n "$from" ] && reach[$from,$to]=1
done <<<"$edges"
for k in $rooms; do
  for i in $rooms; do
    for j in $rooms; do
      if [ -n "${reach[$i,$k]:-}" ] && [ -n "${reach[$k,$j]:-}" ]; then reach[$i,$j]=1; fi
    done
  done
done

example() { # the first use from room $1 into room $2
  local use
  use=$(awk -v a="$1" -v b="$2" '$1 == a && $2 == b { print $3 " needs " $4 " of " $5; exit }' <<<"$edges")
  echo "${use:-through another room}"
}

for a in $rooms; do
  for b in $rooms; do
    [[ "$a" < "$b" ]] || continue
    if [ -n "${reach[$a,$b]:-}" ] && [ -n "${reach[$b,$a]:-}" ]; then
      fail "$a and $b reach each other: $a -> $b ($(example "$a" "$b")) and $b -> $a ($(example "$b" "$a"))"
    fi
  done
done
while read -r from to why; do
  [ -z "$from" ] && continue
  if [ -n "${reach[$from,$to]:-}" ]; then
    fail "$from reaches $to, but $why"
  fi
done <<<"$forbidden"

if [ "$status" -eq 0 ]; then
  echo "module rooms hold: ${#room_of[@]} sources in $(wc -w <<<"$rooms") rooms, calls one way:"
  awk '{ print "  " $1 " -> " $2 }' <<<"$edges" | sort -u
fi
exit "$status"
