#!/bin/sh
# Build the libFuzzer targets (clang, AddressSanitizer and
# UndefinedBehaviorSanitizer) and run each for FUZZ_SECONDS (default 60).
#   scripts/fuzz.sh             every target, FUZZ_SECONDS each
#   scripts/fuzz.sh --smoke     every target for 3 s (part of make test)
#   scripts/fuzz.sh dev_cmd     only the named targets
# Seeds are read from fuzz/corpus/<target>/ (never written); what the
# fuzzer learns goes to build/fuzz/corpus/<target>/, crashes to
# build/fuzz/artifacts/. A summary line per target ends the run; the
# script fails when a target found something.
set -eu

cd "$(dirname "$0")/.."
BUILD=${FUZZ_BUILD:-build/fuzz}
SECONDS_EACH=${FUZZ_SECONDS:-60}
if [ "${1:-}" = "--smoke" ]; then
    SECONDS_EACH=3
    shift
fi

cmake -S . -B "$BUILD" -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo -DSF_SANITIZE=address,undefined \
    -DSF_FUZZ=ON -DSF_BUILD_TESTS=OFF >/dev/null
# every target with a seed folder that this checkout can build (the channel
# targets need the POSIX channels' sources)
available=$(cmake --build "$BUILD" --target help | sed -n 's/^\.\.\. \(.*\)_fuzz$/\1/p')
if [ $# -gt 0 ]; then
    targets=$*
else
    targets=""
    for target in $(ls fuzz/corpus); do
        if echo "$available" | grep -qx "$target"; then
            targets="$targets $target"
        fi
    done
fi
build_targets=""
for target in $targets; do
    build_targets="$build_targets ${target}_fuzz"
done
# only the fuzz targets and what they link (not the POSIX backend or the apps)
cmake --build "$BUILD" -j 2 --target $build_targets >/dev/null
mkdir -p "$BUILD/artifacts"
summary=""
status=0
for target in $targets; do
    exe="$BUILD/fuzz/${target}_fuzz"
    work="$BUILD/corpus/$target"
    mkdir -p "$work"
    log="$BUILD/${target}.log"
    if "$exe" -max_total_time="$SECONDS_EACH" -print_final_stats=1 -timeout=10 \
        -artifact_prefix="$BUILD/artifacts/${target}-" "$work" "fuzz/corpus/$target" >"$log" 2>&1; then
        result=ok
    else
        result="FOUND SOMETHING (see $log)"
        status=1
    fi
    execs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")
    cov=$(grep -o 'cov: [0-9]*' "$log" | tail -1)
    line="$target: ${SECONDS_EACH}s, ${execs:-?} runs, ${cov:-cov: ?}, $result"
    echo "$line"
    summary="$summary$line
"
done
printf '%s' "$summary" >"$BUILD/summary.txt"
exit $status
