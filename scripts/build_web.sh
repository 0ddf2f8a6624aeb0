#!/usr/bin/env bash
# Build the web console (web/dist) with the npm toolchain from web/package-lock.json.
# The node packages come from scripts/install_deps.sh (npm ci); nothing is
# downloaded here. Prints the folder of the built page.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
web=$root/web
if [ ! -d "$web/node_modules" ]; then
  echo "web/node_modules is missing: run scripts/install_deps.sh" >&2
  exit 1
fi
log=$root/build/web-build.log
mkdir -p "$root/build"
if ! (cd "$web" && npm run --silent build) >"$log" 2>&1; then
  tail -n 40 "$log" >&2
  echo "the web console's build failed (whole output in $log)" >&2
  exit 1
fi
echo "$web/dist"
