#!/usr/bin/env bash
# Instructions per report and per cJSON parse + print baseline, counted by
# valgrind's callgrind, which repeats to the instruction on a loaded machine.
#   scripts/report_profile.sh [build/release] [reports]
# Prints one line per DP count; with PROFILE_KEEP=1 the callgrind files stay
# in <build>/bench-results/ for callgrind_annotate.
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build/release}
reports=${2:-2000}
out="$build/bench-results"
mkdir -p "$out"
command -v valgrind >/dev/null || scripts/install_deps.sh

inclusive() { # callgrind file, function: the function's inclusive instruction count
  local listing
  listing=$(callgrind_annotate --inclusive=yes "$1" 2>/dev/null)
  awk -v f="$2" '$0 ~ ":"f" " { gsub(",", "", $1); print $1; exit }' <<<"$listing"
}

printf '%-5s %14s %14s %7s\n' dps report_Ir baseline_Ir ratio
for dps in 1 4 16; do
  file="$out/report_profile.$dps.callgrind"
  valgrind --tool=callgrind --callgrind-out-file="$file" \
    --toggle-collect=sf_profile_run_reports --toggle-collect=sf_profile_run_baseline \
    "$build/bench/sf_report_profile" "$dps" "$reports" >/dev/null 2>&1
  r=$(inclusive "$file" sf_profile_run_reports)
  b=$(inclusive "$file" sf_profile_run_baseline)
  awk -v d="$dps" -v r="$r" -v b="$b" -v n="$reports" \
    'BEGIN { printf "%-5s %14.0f %14.0f %7.2f\n", d, r / n, b / n, r / b }'
  [ "${PROFILE_KEEP:-0}" = 1 ] || rm -f "$file"
done
