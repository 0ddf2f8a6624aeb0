#!/usr/bin/env bash
# make demo: install what is missing, build the apps (Release), and run the
# scripted scenario of scripts/demo_scenario.sh against a private broker.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
"$here/install_deps.sh"
echo "building sfgw and sfcloud (Release) ..."
bin=$("$here/build_apps.sh")
exec "$here/demo_scenario.sh" "$bin" "$@"
