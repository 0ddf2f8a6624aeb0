#!/usr/bin/env bash
# Run every benchmark of a Release build and the footprint measurement.
#   scripts/bench.sh build/release      (what `make bench` calls)
# Results: <build>/bench-results/*.txt (console) and *.json (Google
# Benchmark JSON, medians among the aggregates). docs/benchmarks.md quotes them.
# BENCH_REPETITIONS (default 5) and BENCH_MIN_TIME (seconds, default 0.3)
# trade precision for time; the whole run takes a few minutes on 2 cores.
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build/release}
out="$build/bench-results"
mkdir -p "$out"
reps=${BENCH_REPETITIONS:-5}
min_time=${BENCH_MIN_TIME:-0.3}

echo "machine: $(nproc) cores, $(lscpu | sed -n 's/^Model name: *//p' | head -1)" | tee "$out/machine.txt"

run() { # executable, extra flags...
  local exe=$1; shift
  echo "== $exe" >&2
  "$build/bench/$exe" --benchmark_repetitions="$reps" --benchmark_report_aggregates_only=true \
    --benchmark_min_time="$min_time" --benchmark_out="$out/$exe.json" --benchmark_out_format=json "$@" \
    | tee "$out/$exe.txt"
}

run sf_bench_report
run sf_bench_command
run sf_bench_passes
if [ -x "$build/bench/sf_bench_e2e" ]; then
  run sf_bench_e2e
fi
if [ -x "$build/bench/sf_bench_lan" ]; then
  run sf_bench_lan
fi
# commands through the persistent session, with and without the journal (a real sfgw and mosquitto)
if [ -x "$build/apps/sfgw" ] && command -v /usr/bin/python3 >/dev/null &&
  PATH="/usr/sbin:$PATH" command -v mosquitto >/dev/null; then
  echo "== sf_bench_commands" >&2
  PATH="/usr/sbin:$PATH" /usr/bin/python3 scripts/bench_commands.py "$build/apps/sfgw" "$out" | tee "$out/sf_bench_commands.txt"
fi
scripts/footprint.sh "$build" | tee "$out/footprint.txt"
if [ -x "$build/apps/sfgw" ] && { command -v mosquitto >/dev/null || [ -x /usr/sbin/mosquitto ]; }; then
  # a failure here leaves the row "not judged" rather than ending the run before the goals
  scripts/sfgw_rss.sh "$build" | tee "$out/sfgw_rss.txt" || echo "sfgw_rss.sh failed: resident memory not measured" >&2
fi
echo "results in $out" >&2
# the goals: exit 1 on a miss, 3 when a figure spread too much to be judged (scripts/bench_goals.py)
if command -v python3 >/dev/null; then
  scripts/bench_goals.py "$out"
else
  echo "python3 not found: goals not checked (scripts/bench_goals.py)" >&2
fi
